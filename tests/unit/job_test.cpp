#include <zlib.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <random>

#include "fake_usb/link_test.h"
#include "jobs/job_requests.h"
#include "jobs/job_stream.h"
#include "jobs/status_report.h"
#include "json/json.h"
#include "support/heap.h"
#include "support/recording_client.h"

namespace {

using Status = JovuJobInterface::StatusMsg;

std::optional<std::string> append(jovu::JobStream& stream, const std::string& bytes) {
    return stream.append(reinterpret_cast<const unsigned char*>(bytes.data()), bytes.size());
}

/// What comes out of each of a row of calls; "-" for nothing.
std::vector<std::string> cut(const std::vector<std::string>& calls) {
    jovu::JobStream stream;
    std::vector<std::string> objects;
    for (const std::string& bytes : calls)
        objects.push_back(append(stream, bytes).value_or("-"));
    return objects;
}

TEST(JobStream, CutsOneObjectPerCallByItsBraces) {
    const struct {
        std::vector<std::string> calls, expected;
    } cases[] = {
        {{"{}"}, {"{}"}},
        {{"{\"a\":{}}"}, {"{\"a\":{}}"}},
        {{"{", "\"a\"", ":1}"}, {"-", "-", "{\"a\":1}"}},
        {{"{1}{2}{3}", "{4}", "", ""}, {"{1}", "{2}", "{3}", "{4}"}},
        {{"}{1}", " "}, {"-", "{1}"}},
        {{"{1}}{2}", "", ""}, {"{1}", "-", "{2}"}},
        {{" \r\n{1}"}, {" \r\n{1}"}},
        {{"{\"{\":1}", "}"}, {"-", "{\"{\":1}}"}},
        {{"[1,2]", "{3}"}, {"-", "[1,2]{3}"}},
    };
    for (const auto& row : cases)
        EXPECT_EQ(cut(row.calls), row.expected) << row.calls[0];
}

/// The same in the simplest way: counts all that waits, every time.
std::optional<std::string> simplest(std::string& waiting, const std::string& bytes) {
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

TEST(JobStream, CutsWhateverComesAsTheSimplestWayDoes) {
    for (unsigned seed = 0; seed < 300; ++seed) {
        std::mt19937 random(seed);
        const auto below = [&random](std::size_t limit) { return random() % limit; };
        const std::string alphabet = seed % 2 == 0 ? "{}a" : "{}{}\"\\ \n1";
        jovu::JobStream stream;
        std::string waiting;
        for (int call = 0; call < 60; ++call) {
            std::string bytes;
            for (std::size_t size = below(seed % 3 == 0 ? 3 : 20); size > 0; --size)
                bytes.push_back(alphabet[below(alphabet.size())]);
            ASSERT_EQ(append(stream, bytes), simplest(waiting, bytes)) << "seed " << seed;
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
    const auto whole = append(stream, "}");
    ASSERT_TRUE(whole);
    EXPECT_EQ(whole->size(), jovu::kMaxJobBacklog);
    EXPECT_EQ(stream.size(), 0U);

    EXPECT_FALSE(append(stream, "{" + most + "x"));
    EXPECT_EQ(append(stream, "{1}"), "{1}") << "one byte too many drops what waits";
    std::size_t largest = 0;
    for (int i = 0; i < 50000; ++i) {
        EXPECT_EQ(append(stream, "{1}{1}{1}{1}{1}{1}{1}{1}{1}{1}"), "{1}");
        largest = std::max(largest, stream.size());
    }
    EXPECT_LE(largest, jovu::kMaxJobBacklog) << "also when it is all complete objects";
    stream.clear();
    EXPECT_EQ(append(stream, "{2}"), "{2}");
}

std::string read_back(const Status& status) {
    const auto& printer = status.printer;
    std::string text;
    for (const std::string& field :
         {printer.model_name, printer.cpu_id, printer.firmware_name, printer.firmware_version,
          std::to_string(printer.accept_version), status.state, status.build_plate, status.filament,
          std::to_string(status.extruder_temperature), status.job_id,
          std::to_string(status.progress), status.file, std::to_string(status.time_elapsed),
          std::to_string(status.boot_time), std::to_string(status.idle_time),
          std::to_string(status.error)})
        text += field + "|";
    return text;
}

TEST(StatusReport, ReadsWhatIsThereAndOfTheRightKind) {
    const std::pair<const char*, const char*> cases[] = {
        {R"({"printer":{"model_name":"m","cpu_id":"c","firmware":{"name":"n","version":"v"},)"
         R"("accept_version":2},"status":{"state":"s","build_plate":"b","filament":"f",)"
         R"("extruder_temperature":215.5},"job":{"id":"i","progress":50,"file":"j",)"
         R"("time_elapsed":60},"time":{"boot":70,"idle":-1},"error":4294967295})",
         "m|c|n|v|2|s|b|f|215.500000|i|50|j|60|70|-1|-1|"},
        {R"({"error":3,"errors":4})", "||||0||||0.000000||0||0|0|0|3|"},
        {R"({"errors":4})", "||||0||||0.000000||0||0|0|0|4|"},
        {R"({"error":"3","errors":4})", "||||0||||0.000000||0||0|0|0|4|"},
        {R"({"job":{"progress":"50","id":7,"file":null},"printer":[],"time":{"boot":{}}})",
         "||||0||||0.000000||0||0|0|0|0|"},
        {R"({"status":{"extruder_temperature":215,"state":{}},"printer":{"firmware":"x"}})",
         "||||0||||215.000000||0||0|0|0|0|"},
        {"[]", "||||0||||0.000000||0||0|0|0|0|"},
    };
    for (const auto& [report, expected] : cases) {
        const jovu::JsonTree tree = jovu::parse_json(report);
        Status status;
        parse_status(tree.get(), status);
        EXPECT_EQ(read_back(status), expected) << report;
    }
}

TEST(JobRequest, IsWrittenAsTheDevicesWantIt) {
    EXPECT_EQ(jovu::job_request("status"), R"({"metadata":{"version":1,"type":"status"}})");
    const std::string head = R"({"metadata":{"version":1,"type":"file_push"},"file_push":{"size":)";
    EXPECT_EQ(jovu::job_announcement({5000000000, 0xFFFFFFFF, "a\"b", std::nullopt}),
              head + R"(5000000000,"adler32":4294967295,"job_id":"a\"b"}})");
    EXPECT_EQ(jovu::job_announcement({0, 0, "", 9}),
              head + R"(0,"adler32":0,"job_id":"","compression":{"algorithm":"deflate",)"
                     R"("decompressed_length":9}}})");
}

/// Pushes to a device on the fake bus.
class JobPush : public test::LinkTest {
protected:
    JobPush() { EXPECT_TRUE(journal.wait("b+1.5")); }
    ~JobPush() override { std::filesystem::remove(path); }

    /// Pushes a file of that content. @p then is called in each progress call, with its number.
    /// @return the error, or "completed", "cancelled", "cut short".
    std::string push(JovuJobInterface& client, const std::string& content,
                     std::function<void(std::size_t)> then = nullptr) {
        std::ofstream(path, std::ios::binary) << content;
        before = fake_usb::sent().size();
        progress.clear();
        on_progress = std::move(then);
        const auto note = [](double percent, std::string, void* user) {
            auto& self = *static_cast<JobPush*>(user);
            self.progress.push_back(percent);
            if (self.on_progress) self.on_progress(self.progress.size() - 1);
        };
        JovuPushResult result{};
        const std::string error = test::error_of(
            [&] { result = client.SendJobFile(test::kAddress, path, note, this, false, *cancel); });
        static const char* const words[] = {"completed", "cancelled", "cut short"};
        return error.empty() ? words[static_cast<int>(result)] : error;
    }
    /// What the device received of the last push, without the announcement.
    std::string data() const {
        std::string bytes;
        const auto sent = fake_usb::sent();
        for (std::size_t i = before + 1; i < sent.size(); ++i)
            bytes += sent[i].bytes;
        return bytes;
    }
    bool checksum_fits() const {
        const jovu::JsonTree tree = jovu::parse_json(fake_usb::sent().at(before).bytes);
        const std::string bytes = data();
        return jovu::find_integer(tree.get(), {"file_push", "adler32"}) ==
               adler32_z(0, reinterpret_cast<const Bytef*>(bytes.data()), bytes.size());
    }

    std::optional<test::Link> link{std::in_place, journal};
    const std::string path = testing::TempDir() + std::to_string(getpid()) + "-job";
    std::optional<JovuPushCancel> cancel{std::in_place};
    std::vector<double> progress;
    std::function<void(std::size_t)> on_progress;
    std::size_t before = 0;  ///< Transfers before the push.
};

TEST_F(JobPush, FillsUpWhatItDoesNotSendSoThatTheChecksumCannotFit) {
    JovuJobInterface client;
    std::string mixed(12000, '\0');
    std::generate(mixed.begin(), mixed.end(), [i = 0]() mutable { return i++ * 31 % 251 - 125; });
    // Filler of zeros alone, or of a last 1 alone, would be the very job.
    for (const std::string& job : {std::string(5121, '\0'), std::string(5120, '\0') + "\1",
                                   std::string(10238, '\0') + std::string("\1\0", 2), mixed}) {
        const std::size_t calls = job.size() / 5120 + 3;
        for (std::size_t at = 0; at < calls; ++at) {
            SCOPED_TRACE(testing::Message() << job.size() << " bytes, cancelled in call " << at);
            cancel.emplace();
            const bool all = at * 5120 >= job.size();
            EXPECT_EQ(push(client, job,
                           [&](std::size_t call) {
                               if (call == at) cancel->cancel();
                           }),
                      all ? "completed" : "cancelled");
            EXPECT_EQ(data().size(), job.size());
            EXPECT_EQ(data().substr(0, at * 5120), job.substr(0, at * 5120));
            EXPECT_EQ(checksum_fits(), all);
            EXPECT_TRUE(std::is_sorted(progress.begin(), progress.end()));
            EXPECT_EQ(progress.back(), 100.0);
        }
        EXPECT_EQ(push(client, job), "cancelled") << "before it has begun";
        EXPECT_EQ(fake_usb::sent().size(), before);
        EXPECT_TRUE(progress.empty());
        for (const std::size_t size : {job.size() - 1, job.size() + 9000}) {
            cancel.emplace();
            EXPECT_EQ(
                push(client, job, [&](std::size_t) { std::filesystem::resize_file(path, size); }),
                size < job.size() ? "cut short" : "completed");
            EXPECT_EQ(data().size(), job.size()) << "the file changed to " << size << " bytes";
            EXPECT_EQ(checksum_fits(), size > job.size());
            EXPECT_LE(progress.size(), calls + 1)
                << "the end of a file that grows is not waited for";
        }
    }
}

TEST_F(JobPush, EndsWithItsClient) {
    const std::string ended = "Send failed - The client has been shut down.";
    for (const bool last : {false, true}) {
        for (const bool inside : {false, true}) {
            SCOPED_TRACE(testing::Message()
                         << "last client " << last << ", in the callback " << inside);
            if (last) link.reset();
            std::atomic<std::size_t> calls{0};
            std::atomic<bool> returned{false};
            std::optional<JovuScanPause> hold(std::in_place);
            test::RecordingClient client;
            // Keeps shutdown() from going on to the job interface before the push has returned.
            client.on_connected = [&](JovuDeviceAddress) {
                EXPECT_TRUE(test::eventually([&] { return inside || returned; }));
            };
            hold.reset();
            ASSERT_TRUE(test::eventually([] { return !JovuUsb::list_connected().empty(); }));
            auto pushing = std::async(std::launch::async, [&] {
                const auto then = [&](std::size_t) {
                    std::this_thread::sleep_for(std::chrono::milliseconds(5));
                    if (++calls == 3 && inside) client.shutdown();
                };
                const std::string end = push(client, std::string(2000000, 'x'), then);
                returned = true;
                return end;
            });
            ASSERT_TRUE(test::eventually([&] { return calls >= 2; }));
            test::in_time("shutdown", [&] { client.shutdown(); });
            const std::size_t by_then = calls;
            EXPECT_EQ(pushing.get(), ended);
            EXPECT_EQ(calls, by_then);
            EXPECT_EQ(test::error_of([&] { client.SendPause(test::kAddress); }), ended);
            EXPECT_EQ(push(client, "x"), ended);
        }
    }
}

TEST_F(JobPush, ReceiveBuffersAreFreedWhenTheDeviceLeaves) {
    JovuJobInterface client;
    link->jobs.reset();  // It would note everything down.
    const std::size_t before_data = test::heap_in_use();
    for (int i = 0; i < 2000; ++i)
        ASSERT_TRUE(fake_usb::complete(link->device, test::kJobsIn, LIBUSB_TRANSFER_COMPLETED,
                                       "{" + std::string(63, 'x')));
    EXPECT_GT(test::heap_in_use(), before_data + 100000);
    fake_usb::unplug(link->device);
    ASSERT_TRUE(test::eventually([] { return JovuUsb::list_connected().empty(); }));
    EXPECT_LT(test::heap_in_use(), before_data + 50000);
}

}  // namespace
