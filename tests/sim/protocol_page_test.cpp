// SPDX-License-Identifier: Apache-2.0

// docs/protocol.md against the simulated firmware: what the host sends there gets the answers that
// are shown there, packet by packet.
#include <gtest/gtest.h>

#include "device/descriptors.h"
#include "firmware_host.h"
#include "support/protocol_page.h"

namespace jovusim::test {
namespace {

TEST(ProtocolPage, ShowsWhatAControllerSends) {
    const std::string page = ::test::content_of(JOVU_PROTOCOL_PAGE);
    Controller controller({"JVS001002", kApplicationProduct, 1.0});
    std::string descriptors;
    for (const auto& [endpoint, bytes] : ::test::transfers_of(page, "wire: descriptors"))
        descriptors += bytes;
    EXPECT_EQ(descriptors, sysfs_descriptors(controller.identity()));

    const auto send = [&](std::uint8_t endpoint, const std::string& bytes) {
        controller.receive(endpoint, reinterpret_cast<const std::uint8_t*>(bytes.data()),
                           bytes.size(), 0);
    };
    for (const std::string block : {"exchange", "event", "push"}) {
        if (block == "event") controller.send_debug_event("hello", 0);
        for (const auto& [endpoint, bytes] : ::test::transfers_of(page, "wire: " + block)) {
            const auto address = static_cast<std::uint8_t>(endpoint);
            if (address < 0x80) {
                send(address, bytes);
            } else {
                EXPECT_EQ(controller.next_packet(address, 0), bytes) << block;
            }
        }
        EXPECT_FALSE(controller.next_packet(kMessageIn, 0)) << block;
        const auto objects = ::test::objects_of(page, "json: status");
        if (block != "event") continue;
        send(kJobOut, objects.at(0));
        std::string report;
        while (const auto packet = controller.next_packet(kJobIn, 0))
            report += *packet;
        EXPECT_EQ(report, objects.at(1));
    }
    EXPECT_EQ(controller.stats(0)["job"]["verified"], true);
    EXPECT_EQ(controller.stats(0)["protocol_violations"]["count"], 0);
}

}  // namespace
}  // namespace jovusim::test
