// SPDX-License-Identifier: Apache-2.0

/// @file
/// Pushes of job files.
#include <sys/stat.h>
#include <unistd.h>
#include <zlib.h>

#include <filesystem>
#include <fstream>

#include "fake_usb/backend_fixture.h"
#include "json/json.h"
#include "json/json_tree.h"
#include "support/job_file.h"

namespace test {
namespace {

struct Cancelled : JovuPushCancel {
    Cancelled() { cancel(); }
};

int observed = 0;

void observe(const JovuPushProgress& now) {
    observed += static_cast<int>(now.sent);
}

class JobPush : public ExchangeTest {
protected:
    /// @param then called in each progress call, with its number.
    /// @return the error, or the name of the result.
    std::string push(
        JovuJobInterface& jobs, std::function<void(std::size_t)> then = [](std::size_t) {},
        const JovuPushCancel& cancel = {}) {
        progress.clear();
        before = fake_usb::sent().size();
        on_progress = std::move(then);
        const auto note = [this](const JovuPushProgress& now) {
            latest = now;
            progress.push_back(now.percent);
            on_progress(progress.size() - 1);
        };
        const auto note_percent = [](double percent, std::string, void* user) {
            auto& self = *static_cast<JobPush*>(user);
            self.progress.push_back(percent);
            self.on_progress(self.progress.size() - 1);
        };
        static const char* const results[] = {"completed", "cancelled", "cut short"};
        JovuPushResult result{};
        const std::string error = error_of([&] {
            result = plain_callback ? jobs.SendJobFile(kAddress, file.path(), note_percent, this,
                                                       false, cancel)
                                    : jobs.SendJobFile(kAddress, file.path(), note, cancel);
        });
        return error.empty() ? results[static_cast<int>(result)] : error;
    }

    const TemporaryFile file{"job", ""};
    bool plain_callback = false;
    std::vector<double> progress;
    JovuPushProgress latest;  ///< What the function object was called with.
    std::function<void(std::size_t)> on_progress;
    std::size_t before = 0;  ///< Transfers before the push.
};

TEST(JobPushObserver, CallsAFunctionAPointerToOneOrAnObjectAndNothingForNull) {
    using Function = std::function<void(const JovuPushProgress&)>;
    void (*const pointer)(const JovuPushProgress&) = observe;
    void (*const null)(const JovuPushProgress&) = nullptr;
    const Function object = observe;
    const Function empty;
    const JovuPushObserver observers[] = {observe, pointer, object, null, empty, nullptr, {}};
    JovuPushProgress progress;
    progress.sent = 1;
    for (const JovuPushObserver& observer : observers) {
        observer(progress);
        progress.sent *= 10;
    }
    EXPECT_EQ(observed, 111);
}

TEST_F(JobPush, ReportsItsProgressAndNeedsAFileThatCanBeReadTwice) {
    const std::pair<std::size_t, std::vector<double>> rows[] = {
        {0, {0.0, 99.9, 100.0}},
        {1, {0.0, 99.9, 100.0}},
        {5120, {0.0, 99.9, 99.9, 100.0}},
        {12000, {0.0, 5120 * 100.0 / 12000, 10240 * 100.0 / 12000, 99.9, 100.0}},
    };
    for (const auto& [size, expected] : rows) {
        std::ofstream(file.path(), std::ios::binary) << std::string(size, 'x');
        for (const bool plain : {true, false}) {
            plain_callback = plain;
            EXPECT_EQ(push(client), "completed");
            EXPECT_EQ(progress, expected) << size;
            EXPECT_EQ(fake_usb::sent().at(before).bytes.find("compression"), std::string::npos);
        }
        EXPECT_EQ(push(client, [](std::size_t) { throw JovuException("odd"); }), "odd");
    }
    const auto error = [this](const std::string& path, bool compressed = false) {
        return error_of([&] { client.SendJobFile(kAddress, path, nullptr, nullptr, compressed); });
    };
    const std::string fifo = file.path() + ".fifo";
    ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
    for (const char* const path : {"/nonexistent/job", "/tmp", fifo.c_str()})
        EXPECT_EQ(error(path), "Failed to open job file.");
    ::unlink(fifo.c_str());
    EXPECT_EQ(error("/nonexistent/job", true), "Failed to open job file.");
    EXPECT_EQ(error(file.path(), true), "Compression not supported yet.");
    EXPECT_EQ(error(file.path()), "");

    // A stream is read from its start, wherever it is.
    struct : JovuJobInterface {
        using JovuJobInterface::send_job;
    } jobs;
    before = fake_usb::sent().size();
    const std::unique_ptr<std::FILE, int (*)(std::FILE*)> stream(::tmpfile(), ::fclose);
    ASSERT_NE(std::fputs("job", stream.get()), EOF);
    jobs.send_job(kAddress, stream.get(), nullptr, nullptr, "i\"d", true, 9);
    EXPECT_EQ(fake_usb::sent().at(before).bytes,
              R"({"metadata":{"version":1,"type":"file_push"},"file_push":{"size":3,)"
              R"("adler32":41812283,"job_id":"i\"d","compression":{"algorithm":"deflate",)"
              R"("decompressed_length":9}}})");
    EXPECT_EQ(fake_usb::sent().at(before + 1).bytes, "job");
}

TEST_F(JobPush, FillsUpWhatItDoesNotSendSoThatTheChecksumIsWrong) {
    // Filler of zeros alone, or of a last 1 alone, would be the very job.
    for (const std::string& job :
         {std::string(5121, '\0'), std::string(5120, '\0') + "\1",
          std::string(10238, '\0') + std::string("\1\0", 2), job_content(12000)}) {
        std::ofstream(file.path(), std::ios::binary) << job;
        EXPECT_EQ(push(
                      client, [](std::size_t) {}, Cancelled()),
                  "cancelled");
        EXPECT_EQ(fake_usb::sent().size() + progress.size(), before) << "nothing was sent";
        const std::size_t calls = job.size() / 5120 + 3;
        // Cancelled in each call; and the file shrinks, and grows.
        for (std::size_t row = 0; row < calls + 2; ++row) {
            SCOPED_TRACE(testing::Message() << job.size() << " bytes, row " << row);
            std::ofstream(file.path(), std::ios::binary) << job;
            const bool shrinks = row == calls, grows = row == calls + 1;
            JovuPushCancel cancel;
            const auto then = [&](std::size_t call) {
                if (call == row) cancel.cancel();
                if (shrinks) std::filesystem::resize_file(file.path(), job.size() - 1);
                if (grows) std::filesystem::resize_file(file.path(), job.size() + 9000);
            };
            const bool all = grows || (!shrinks && row * 5120 >= job.size());
            EXPECT_EQ(push(client, then, cancel), all       ? "completed"
                                                  : shrinks ? "cut short"
                                                            : "cancelled");
            const auto sent = fake_usb::sent();
            std::string data;
            for (std::size_t i = before + 1; i < sent.size(); ++i)
                data += sent[i].bytes;
            EXPECT_EQ(data.size(), job.size());
            const std::size_t own = std::min((shrinks || grows ? 1 : row) * 5120, job.size());
            EXPECT_EQ(data.substr(0, own), job.substr(0, own));
            const jovu::JsonTree announced(sent[before].bytes);
            const auto* const bytes = reinterpret_cast<const Bytef*>(data.data());
            EXPECT_EQ(jovu::find_integer(announced.get(), {"file_push", "adler32"}) ==
                          static_cast<long long>(adler32_z(0, bytes, data.size())),
                      all);
            EXPECT_TRUE(std::is_sorted(progress.begin(), progress.end()));
            EXPECT_EQ(progress.back(), 100.0);
            EXPECT_TRUE(latest.sent == job.size() && latest.total == job.size() &&
                        latest.filler == !all);
            EXPECT_LE(progress.size(), calls + 1) << "a file that grows for ever has an end";
        }
    }
}

TEST_F(JobPush, NeverReachesTheNextDeviceAfterAnUnplug) {
    std::ofstream(file.path(), std::ios::binary) << std::string(20000, 'x');
    const auto replug = [&](std::size_t call) {
        if (call != 2) return;
        const auto first = JovuUsb::connection(kAddress);
        fake_usb::unplug(device);
        fake_usb::plug(1, 5);
        EXPECT_TRUE(eventually([&] {
            const auto now = JovuUsb::connection(kAddress);
            return now != first && now != nullptr;
        }));
    };
    EXPECT_EQ(push(client, replug), "Send failed - Device no longer connected.");
    EXPECT_EQ(fake_usb::sent().size(), before + 3) << "the announcement and two pieces";
}

TEST_F(JobPush, EndsWithItsClient) {
    const std::string ended = "Send failed - The client has been shut down.";
    std::ofstream(file.path(), std::ios::binary) << std::string(2000000, 'x');
    for (const auto& [last, inside] :
         {std::pair(false, false), {false, true}, {true, false}, {true, true}}) {
        SCOPED_TRACE(testing::Message() << "last " << last << ", in the callback " << inside);
        if (last) client.shutdown();
        std::atomic<std::size_t> calls{0};
        std::atomic<bool> returned{inside};
        std::optional<JovuScanPause> pause(std::in_place);
        RecordingClient another;
        // Keeps shutdown() from going on to the job interface before the push has returned.
        another.on_connected = [&](JovuDeviceAddress) {
            eventually([&] { return returned.load(); });
        };
        pause.reset();
        ASSERT_TRUE(eventually([this] { return fake_usb::in_flight(device, kJobsIn); }));
        auto pushing = std::async(std::launch::async, [&, inside = inside] {
            const auto then = [&](std::size_t) {
                std::this_thread::sleep_for(std::chrono::milliseconds(5));
                if (++calls == 3 && inside) another.shutdown();
            };
            EXPECT_EQ(push(another, then), ended);
            returned = true;
        });
        ASSERT_TRUE(eventually([&] { return calls >= 2; }));
        another.shutdown();
        const std::size_t by_then = calls;
        pushing.get();
        EXPECT_EQ(calls, by_then);
        EXPECT_EQ(error_of([&] { another.SendPause(kAddress); }), ended);
        EXPECT_EQ(push(another, {}, Cancelled()), ended);
    }
    // In the middle of the first pass, which takes minutes here.
    std::filesystem::resize_file(file.path(), std::uintmax_t{1} << 36U);
    RecordingClient another;
    auto measuring = std::async(std::launch::async, [&] { return push(another); });
    EXPECT_TRUE(waits(measuring));
    another.shutdown();
    EXPECT_EQ(measuring.get(), ended);
}

}  // namespace
}  // namespace test
