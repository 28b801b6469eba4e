#include <sys/stat.h>
#include <unistd.h>
#include <zlib.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <random>

#include "fake_usb/link_test.h"
#include "jobs/job_messages.h"
#include "jobs/job_stream.h"
#include "json/json.h"
#include "support/heap.h"
#include "support/job_file.h"
#include "support/plain_cut.h"
#include "support/recording_client.h"

namespace {

using Status = JovuJobInterface::StatusMsg;

std::optional<std::string> append(jovu::JobStream& stream, const std::string& bytes) {
    return stream.append(reinterpret_cast<const unsigned char*>(bytes.data()), bytes.size());
}

TEST(JobStream, CutsOneObjectPerCallByItsBracesAsTheSimplestWayDoes) {
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
            ASSERT_EQ(append(stream, bytes), test::cut_plainly(waiting, bytes)) << "seed " << seed;
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

class JobChannel : public test::LinkTest {
protected:
    /// @param then called in each progress call, with its number.
    /// @return the error, or a word for the result.
    std::string push(JovuJobInterface& client, std::function<void(std::size_t)> then,
                     const JovuPushCancel& cancel) {
        progress.clear();
        before = fake_usb::sent().size();
        on_progress = std::move(then);
        const auto note = [](double percent, std::string, void* user) {
            auto& self = *static_cast<JobChannel*>(user);
            self.progress.push_back(percent);
            self.on_progress(self.progress.size() - 1);
        };
        static const char* const words[] = {"completed", "cancelled", "cut short"};
        try {
            return words[static_cast<int>(
                client.SendJobFile(test::kAddress, file.path(), note, this, false, cancel))];
        } catch (const JovuException& error) {
            return error.what();
        }
    }
    bool connected() const {
        return test::eventually([this] { return fake_usb::in_flight(device, test::kJobsIn); });
    }

    libusb_device* const device = fake_usb::plug(1, 5);
    const test::TemporaryFile file{"job", ""};
    std::vector<double> progress;
    std::function<void(std::size_t)> on_progress;
    std::size_t before = 0;  ///< Transfers before the push.
};

TEST_F(JobChannel, APushReportsItsProgressAndWantsAFileThatCanBeReadTwice) {
    JovuJobInterface client;
    ASSERT_TRUE(connected());
    const std::pair<std::size_t, std::vector<double>> rows[] = {
        {0, {0.0, 99.9, 100.0}},
        {1, {0.0, 99.9, 100.0}},
        {5120, {0.0, 99.9, 99.9, 100.0}},
        {12000, {0.0, 5120 * 100.0 / 12000, 10240 * 100.0 / 12000, 99.9, 100.0}},
    };
    for (const auto& [size, expected] : rows) {
        std::ofstream(file.path()) << std::string(size, 'x');
        EXPECT_EQ(push(client, [](std::size_t) {}, {}), "completed");
        EXPECT_EQ(progress, expected) << size;
    }
    const auto error = [&client](const std::string& path, bool compressed = false) {
        return test::error_of(
            [&] { client.SendJobFile(test::kAddress, path, nullptr, nullptr, compressed); });
    };
    const std::string fifo = file.path() + ".fifo";
    ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
    for (const char* const path : {"/nonexistent/job", "/tmp", fifo.c_str()})
        EXPECT_EQ(error(path), "Failed to open job file.");
    EXPECT_EQ(error("/nonexistent/job", true), "Failed to open job file.");
    EXPECT_EQ(error(file.path(), true), "Compression not supported yet.");
    EXPECT_EQ(error(file.path()), "");
    ::unlink(fifo.c_str());

    // A stream is read from its start, wherever it is.
    struct : JovuJobInterface {
        using JovuJobInterface::send_job;
    } jobs;
    before = fake_usb::sent().size();
    const std::unique_ptr<std::FILE, int (*)(std::FILE*)> stream(::tmpfile(), ::fclose);
    ASSERT_NE(std::fputs("job", stream.get()), EOF);
    jobs.send_job(test::kAddress, stream.get(), nullptr, nullptr, "id", true, 9);
    EXPECT_EQ(fake_usb::sent().at(before).bytes, jovu::job_announcement({3, 41812283, "id", 9}));
    EXPECT_EQ(fake_usb::sent().at(before + 1).bytes, "job");
}

TEST_F(JobChannel, APushFillsUpWhatItDoesNotSendSoThatTheChecksumCannotFit) {
    JovuJobInterface client;
    ASSERT_TRUE(connected());
    // Filler of zeros alone, or of a last 1 alone, would be the very job.
    for (const std::string& job :
         {std::string(5121, '\0'), std::string(5120, '\0') + "\1",
          std::string(10238, '\0') + std::string("\1\0", 2), test::job_content(12000)}) {
        const std::size_t calls = job.size() / 5120 + 3;
        // Cancelled in each call; before it has begun; and the file shrinks, and grows.
        for (std::size_t row = 0; row < calls + 3; ++row) {
            SCOPED_TRACE(testing::Message() << job.size() << " bytes, row " << row);
            std::ofstream(file.path(), std::ios::binary) << job;
            JovuPushCancel cancel;
            if (row == calls) cancel.cancel();
            const auto then = [&](std::size_t call) {
                if (call == row) cancel.cancel();
                if (row == calls + 1) std::filesystem::resize_file(file.path(), job.size() - 1);
                if (row == calls + 2) std::filesystem::resize_file(file.path(), job.size() + 9000);
            };
            const bool all = row < calls ? row * 5120 >= job.size() : row == calls + 2;
            EXPECT_EQ(push(client, then, cancel), all                ? "completed"
                                                  : row == calls + 1 ? "cut short"
                                                                     : "cancelled");
            const auto sent = fake_usb::sent();
            if (row == calls) {
                EXPECT_EQ(sent.size() + progress.size(), before) << "nothing was sent";
                continue;
            }
            std::string data;
            for (std::size_t i = before + 1; i < sent.size(); ++i)
                data += sent[i].bytes;
            const jovu::JsonTree announced = jovu::parse_json(sent[before].bytes);
            const auto* const bytes = reinterpret_cast<const Bytef*>(data.data());
            EXPECT_EQ(data.size(), job.size());
            const std::size_t own = row < calls ? std::min(row * 5120, job.size()) : 5120;
            EXPECT_EQ(data.substr(0, own), job.substr(0, own));
            EXPECT_EQ(jovu::find_integer(announced.get(), {"file_push", "adler32"}) ==
                          static_cast<long long>(adler32_z(0, bytes, data.size())),
                      all);
            EXPECT_TRUE(std::is_sorted(progress.begin(), progress.end()));
            EXPECT_EQ(progress.back(), 100.0);
            EXPECT_LE(progress.size(), calls + 1) << "a file that grows for ever has an end";
        }
    }
}

TEST_F(JobChannel, APushThatAnUnplugCutsOffNeverReachesTheNextDevice) {
    JovuJobInterface client;
    ASSERT_TRUE(connected());
    std::ofstream(file.path()) << std::string(20000, 'x');
    const auto replug = [&](std::size_t call) {
        if (call != 2) return;
        const auto first = JovuUsb::connection(test::kAddress);
        fake_usb::unplug(device);
        fake_usb::plug(1, 5);
        EXPECT_TRUE(test::eventually([&] {
            const auto now = JovuUsb::connection(test::kAddress);
            return now != first && now != nullptr;
        }));
    };
    EXPECT_EQ(push(client, replug, {}), "Send failed - Device no longer connected.");
    EXPECT_EQ(fake_usb::sent().size(), before + 3) << "the announcement and two pieces";
}

TEST_F(JobChannel, APushEndsWithItsClient) {
    const std::string ended = "Send failed - The client has been shut down.";
    std::ofstream(file.path()) << std::string(2000000, 'x');
    for (const bool last : {false, true}) {
        for (const bool inside : {false, true}) {
            SCOPED_TRACE(testing::Message() << "last " << last << ", in the callback " << inside);
            std::optional<test::RecordingClient> other;
            if (!last) other.emplace();
            std::atomic<std::size_t> calls{0};
            std::atomic<bool> returned{inside};
            std::optional<JovuScanPause> pause(std::in_place);
            test::RecordingClient client;
            // Keeps shutdown() from going on to the job interface before the push has returned.
            client.on_connected = [&](JovuDeviceAddress) {
                test::eventually([&] { return returned.load(); });
            };
            pause.reset();
            ASSERT_TRUE(connected());
            auto pushing = std::async(std::launch::async, [&] {
                const auto then = [&](std::size_t) {
                    std::this_thread::sleep_for(std::chrono::milliseconds(5));
                    if (++calls == 3 && inside) client.shutdown();
                };
                EXPECT_EQ(push(client, then, {}), ended);
                returned = true;
            });
            ASSERT_TRUE(test::eventually([&] { return calls >= 2; }));
            test::in_time("shutdown", [&] { client.shutdown(); });
            const std::size_t by_then = calls;
            pushing.get();
            EXPECT_EQ(calls, by_then);
            EXPECT_EQ(test::error_of([&] { client.SendPause(test::kAddress); }), ended);
            JovuPushCancel cancel;
            cancel.cancel();
            EXPECT_EQ(push(
                          client, [](std::size_t) {}, cancel),
                      ended);
        }
    }
    // In the middle of the first pass, which takes minutes here.
    std::filesystem::resize_file(file.path(), std::uintmax_t{1} << 36U);
    test::RecordingClient client;
    auto measuring =
        std::async(std::launch::async, [&] { return push(client, [](std::size_t) {}, {}); });
    std::this_thread::sleep_for(std::chrono::milliseconds(30));
    test::in_time("shutdown", [&] { client.shutdown(); });
    EXPECT_EQ(measuring.get(), ended);
}

TEST_F(JobChannel, ReceivesWhateverComesAndFreesItWhenTheDeviceLeaves) {
    test::RecordingClient client;
    ASSERT_TRUE(connected());
    const auto send = [&](const std::string& bytes) {
        return fake_usb::complete(device, test::kJobsIn, LIBUSB_TRANSFER_COMPLETED, bytes);
    };
    for (const char* const bytes :
         {"}", R"({"metadata":{"type":"other"}})", R"({"metadata":{"type":7}})", "not json {}",
          R"({"metadata":{"type":"status"},"status":{"state":"on"}})"})
        ASSERT_TRUE(send(bytes));
    EXPECT_EQ(client.job_texts().size(), 4U) << "all but the stray brace";
    EXPECT_EQ(client.job_texts().at(2), "not json {}");
    ASSERT_EQ(client.statuses().size(), 1U);
    EXPECT_EQ(client.statuses()[0].state, "on");

    const std::size_t before_data = test::heap_in_use();
    for (int i = 0; i < 2000; ++i)
        ASSERT_TRUE(send("{" + std::string(63, 'x')));
    EXPECT_GT(test::heap_in_use(), before_data + 100000);
    // What comes behind the notification is no part of what the next device sends.
    test::LinkClient last(journal, "c", 1);
    last.on_disconnected = [&] {
        EXPECT_TRUE(fake_usb::post(device, test::kJobsIn, LIBUSB_TRANSFER_COMPLETED, "{late"));
    };
    fake_usb::unplug(device, true);
    ASSERT_TRUE(test::eventually([] { return JovuUsb::list_connected().empty(); }));
    EXPECT_LT(test::heap_in_use(), before_data + 50000);
    libusb_device* const next = fake_usb::plug(1, 5);
    ASSERT_TRUE(test::eventually([&] { return fake_usb::in_flight(next, test::kJobsIn); }));
    ASSERT_TRUE(fake_usb::complete(next, test::kJobsIn, LIBUSB_TRANSFER_COMPLETED, "{1}"));
    EXPECT_EQ(client.job_texts().back(), "{1}");
}

}  // namespace
