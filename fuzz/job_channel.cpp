// SPDX-License-Identifier: Apache-2.0

/// @file
/// Bytes that a device sends on the job channel.
///
/// An input is the number of bytes that come at once, and what the device sends. What is cut out is
/// parsed as by yajl.
#include <algorithm>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>

#include "jovu/job_interface.h"
#include "require.h"
#include "support/json_reference.h"
#include "support/memory_backend.h"

namespace {

constexpr JovuDeviceAddress kAddress{1, 2};

class Jobs : public JovuJobInterface {
public:
    ~Jobs() override { shutdown(); }
    std::size_t seen = 0;

    void StatusReceived(JovuDeviceAddress /*address*/, StatusMsg status) override {
        seen += status.printer.model_name.size();
    }
    void JobDataReceived(JovuDeviceAddress /*address*/, const unsigned char* text,
                         unsigned int length) override {
        REQUIRE(length >= 2 && text[length - 1] == '}' && text[length] == '\0');
        static jovu::JsonMemory memory;
        REQUIRE(test::parsed_as_by_yajl({text, text + length}, memory));
    }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size < 1) return 0;
    const std::size_t piece = data[0] % memory_backend::kPacket + 1;
    const std::string bytes(data + 1, data + size);
    Jobs jobs;
    for (std::size_t at = 0; at < bytes.size(); at += piece) {
        const std::size_t length = std::min(piece, bytes.size() - at);
        const auto block = std::make_unique<unsigned char[]>(length);
        std::memcpy(block.get(), bytes.data() + at, length);
        memory_backend::client(1).data_received(block.get(), static_cast<unsigned>(length),
                                                kAddress);
    }
    return 0;
}
