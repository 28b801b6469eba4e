// SPDX-License-Identifier: Apache-2.0

/// @file
/// What comes on the job channel: the stream, the objects in it, and status reports.
#include "jovu/job_interface.h"

#include <random>
#include <sstream>

#include "fake_usb/backend_fixture.h"
#include "jobs/job_messages.h"
#include "jobs/job_stream.h"
#include "json/json_tree.h"
#include "support/heap.h"

namespace test {
namespace {

std::optional<std::string> append(jovu::JobStream& stream, const std::string& bytes) {
    return stream.append(reinterpret_cast<const unsigned char*>(bytes.data()), bytes.size());
}

/// Counts all braces that wait, every time; @return what one call of JobStream::append() gives.
std::optional<std::string> cut_simply(std::string& waiting, const std::string& bytes) {
    waiting += bytes;
    int opened = 0, closed = 0;
    for (std::size_t i = 0; i < waiting.size(); ++i) {
        opened += waiting[i] == '{' ? 1 : 0;
        closed += waiting[i] == '}' ? 1 : 0;
        if (closed < opened || closed == 0) continue;
        const std::string head = waiting.substr(0, i + 1);
        waiting.erase(0, i + 1);
        if (closed > opened) return std::nullopt;
        return head;
    }
    return std::nullopt;
}

TEST(JobStream, CutsOneObjectPerCallByItsBracesAsTheSimplestWayDoes) {
    for (unsigned seed = 0; seed < 300; ++seed) {
        std::mt19937 random(seed);
        const std::string alphabet = seed % 2 == 0 ? "{}a" : "{}{}\"\\ \n1";
        jovu::JobStream stream;
        std::string waiting;
        for (int call = 0; call < 60; ++call) {
            std::string bytes;
            for (std::size_t size = random() % (seed % 20 + 1); size > 0; --size)
                bytes.push_back(alphabet[random() % alphabet.size()]);
            ASSERT_EQ(append(stream, bytes), cut_simply(waiting, bytes)) << "seed " << seed;
            ASSERT_EQ(stream.size(), waiting.size()) << "seed " << seed;
        }
    }
}

TEST(JobStream, KeepsABacklogUpToItsLimitAndThenStartsAfresh) {
    jovu::JobStream stream;
    EXPECT_FALSE(append(stream, "{"));
    const std::string most(jovu::kMaxJobBacklog - 2, 'x');
    for (std::size_t at = 0; at < most.size(); at += 64)
        ASSERT_FALSE(append(stream, most.substr(at, 64)));
    EXPECT_EQ(append(stream, "}"), "{" + most + "}");
    EXPECT_EQ(stream.size(), 0U);

    EXPECT_FALSE(append(stream, "{" + most + "x"));
    EXPECT_EQ(append(stream, "{1}"), "{1}") << "one byte too many drops what waits";
    for (int i = 0; i < 50000; ++i) {
        EXPECT_EQ(append(stream, "{1}{1}{1}{1}{1}{1}{1}{1}{1}{1}"), "{1}");
        ASSERT_LE(stream.size(), jovu::kMaxJobBacklog) << "also when it is all complete objects";
    }
    stream.clear();
    EXPECT_EQ(append(stream, "{2}"), "{2}");
}

std::string read_back(const JovuJobInterface::StatusMsg& status) {
    const auto& [model, cpu, firmware, version, accepted] = status.printer;
    std::ostringstream text;
    text << model << '|' << cpu << '|' << firmware << '|' << version << '|' << accepted << '|'
         << status.state << '|' << status.build_plate << '|' << status.filament << '|'
         << status.extruder_temperature << '|' << status.job_id << '|' << status.progress << '|'
         << status.file << '|' << status.time_elapsed << '|' << status.boot_time << '|'
         << status.idle_time << '|' << status.error;
    return text.str();
}

TEST(StatusReport, ReadsWhatIsThereAndOfTheRightKind) {
    const std::pair<const char*, const char*> cases[] = {
        {R"({"printer":{"model_name":"m","cpu_id":"c","firmware":{"name":"n","version":"v"},)"
         R"("accept_version":2},"status":{"state":"s","build_plate":"b","filament":"f",)"
         R"("extruder_temperature":215.5},"job":{"id":"i","progress":50,"file":"j",)"
         R"("time_elapsed":60},"time":{"boot":70,"idle":-1},"error":4294967295})",
         "m|c|n|v|2|s|b|f|215.5|i|50|j|60|70|-1|-1"},
        {R"({"error":3,"errors":4})", "||||0||||0||0||0|0|0|3"},
        {R"({"errors":4})", "||||0||||0||0||0|0|0|4"},
        {R"({"error":"3","errors":4})", "||||0||||0||0||0|0|0|4"},
        {R"({"job":{"progress":"50","id":7,"file":null},"printer":[],"time":{"boot":{}}})",
         "||||0||||0||0||0|0|0|0"},
        {R"({"status":{"extruder_temperature":215,"state":{}},"printer":{"firmware":"x"}})",
         "||||0||||215||0||0|0|0|0"},
        {"[]", "||||0||||0||0||0|0|0|0"},
    };
    for (const auto& [report, expected] : cases) {
        const jovu::JsonTree tree(report);
        JovuJobInterface::StatusMsg status;
        parse_status(tree.get(), status);
        EXPECT_EQ(read_back(status), expected) << report;
    }
}

using JobInterface = ExchangeTest;

TEST_F(JobInterface, ReceivesWhateverComesAndFreesItWhenTheDeviceLeaves) {
    const auto send = [this](const std::string& bytes) {
        ASSERT_TRUE(eventually([this] { return fake_usb::in_flight(device, kJobsIn); }));
        ASSERT_TRUE(fake_usb::complete(device, kJobsIn, LIBUSB_TRANSFER_COMPLETED, bytes));
    };
    const std::vector<std::string> objects{
        R"({"metadata":{"type":"other"}})", R"({"metadata":{"type":7}})", "not json {}",
        R"({"metadata":{"type":"status"},"status":{"state":"on"}})"};
    send("}");
    for (const std::string& object : objects)
        send(object);
    EXPECT_EQ(client.job_texts(), objects);
    ASSERT_EQ(client.statuses().size(), 1U);
    EXPECT_EQ(client.statuses()[0].state, "on");

    const std::size_t before_data = heap_in_use();
    for (int i = 0; i < 2000; ++i)
        send("{" + std::string(63, 'x'));
    EXPECT_GT(heap_in_use(), before_data + 100000);
    // What comes behind the notification is no part of what the next device sends.
    BackendClient last(journal, "c", 1);
    last.then = [this](char what, unsigned char*) {
        if (what != '-') return;
        EXPECT_TRUE(fake_usb::post(device, kJobsIn, LIBUSB_TRANSFER_COMPLETED, "{late"));
    };
    fake_usb::unplug(device, true);
    ASSERT_TRUE(eventually([] { return JovuUsb::list_connected().empty(); }));
    EXPECT_LT(heap_in_use(), before_data + 50000);
    device = fake_usb::plug(1, 5);
    send("{1}");
    EXPECT_EQ(client.job_texts().back(), "{1}");
}

TEST_F(JobInterface, WaitsForAReportUntilNoneCanCome) {
    using std::chrono::milliseconds;
    JovuDeviceAddress address = kAddress;
    libusb_device* mine = nullptr;
    const auto awaited = [&](milliseconds limit) {
        std::string state;
        return error_of([&] { state = client.wait_for_status(address, limit).state; }, true) +
               state;
    };
    const auto report = [](libusb_device* from, const std::string& state) {
        ASSERT_TRUE(eventually([=] { return fake_usb::in_flight(from, kJobsIn); }));
        const std::string text =
            R"({"metadata":{"type":"status"},"status":{"state":")" + state + "\"}}";
        EXPECT_TRUE(fake_usb::complete(from, kJobsIn, LIBUSB_TRANSFER_COMPLETED, text));
    };
    std::string inside;
    client.on_status = [&](JovuDeviceAddress) { inside = awaited(milliseconds(10)); };
    const std::pair<std::function<void()>, std::string> rows[] = {
        {[&] { report(device, "no"), report(mine, "on"), report(mine, "late"); }, "on"},
        {[] {}, "response_timed_out: Status failed - no report within 50 ms."},
        {[&] { client.close(address); }, "closed: Status failed - Device no longer connected."},
        {[&] { fake_usb::unplug(mine); },
         "disconnected: Status failed - Device no longer connected."},
        {[&] { client.shutdown(); }, "shut_down: Send failed - The client has been shut down."},
    };
    // Between the notification of a disconnection and its end, a device takes requests still.
    std::future<std::string> late;
    BackendClient last(journal, "c", 1);
    last.then = [&](char what, unsigned char*) {
        if (what != '-' || late.valid()) return;
        const std::size_t before = fake_usb::sent().size();
        late = std::async(std::launch::async, awaited, milliseconds(60000));
        EXPECT_TRUE(eventually([=] { return fake_usb::sent().size() > before; }));
    };
    for (const auto& [meanwhile, expected] : rows) {
        ++address.address;
        mine = fake_usb::plug(address.bus, address.address);
        ASSERT_TRUE(client.wait_connected(address));
        const std::size_t before = fake_usb::sent().size();
        const bool brief = expected.find("50 ms") != std::string::npos;
        auto waiting = std::async(std::launch::async, awaited, milliseconds(brief ? 50 : 60000));
        // The request has been sent, and its sender was told. One that is not would fail with the
        // device.
        ASSERT_TRUE(
            eventually([=] { return fake_usb::sent().size() > before && !fake_usb::untold(); }));
        meanwhile();
        EXPECT_EQ(waiting.get(), expected);
    }
    EXPECT_EQ(late.get(), rows[2].second);
    EXPECT_EQ(client.statuses().size(), 3U);
    EXPECT_EQ(inside, "in_callback: Status failed - called from inside a callback.");
    EXPECT_THAT(awaited(milliseconds(9)), testing::StartsWith("rejected: Status time-out of 9 ms"));
}

}  // namespace
}  // namespace test
