/// @file
/// A device that leaves in the middle of a push, wherever that is.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <map>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "jovu/exception.h"
#include "storm/scale.h"
#include "support/job_file.h"
#include "support/recording_client.h"
#include "support/sim_control.h"

namespace {

using test::name;
using test::plug;
using test::sim;
using Clock = std::chrono::steady_clock;
using Milliseconds = std::chrono::duration<double, std::milli>;

constexpr std::size_t kFileSize = 24000;
constexpr std::size_t kPieceSize = 5120;
constexpr std::size_t kDevices = 8;  ///< Plugged in together, since most of the time is arrival.

/// What the unplugging of a device may look like to the one that pushes to it.
const std::set<std::string> kErrors{"Send failed - libusb error: -4",
                                    "Send failed - Device no longer connected."};

struct Push {
    std::string error;
    Milliseconds after_last_piece{};  ///< From the last piece that got through to the end.
};

class CutPush : public testing::Test {
protected:
    /// Of whichever device is at that address by now.
    bool connected(JovuDeviceAddress device) const {
        return test::eventually(
            [&] { return client_.connects(device) > client_.disconnects(device); });
    }
    bool disconnected(JovuDeviceAddress device) const {
        return test::eventually(
            [&] { return client_.connects(device) == client_.disconnects(device); });
    }

    Push push(JovuDeviceAddress device) {
        Push result;
        auto last = Clock::now();
        const auto note = [](double, std::string, void* when) {
            *static_cast<Clock::time_point*>(when) = Clock::now();
        };
        try {
            client_.SendJobFile(device, file_.path(), note, &last, false);
        } catch (const JovuException& error) {
            result.error = error.what();
        }
        result.after_last_piece = Clock::now() - last;
        return result;
    }

    /// How many bytes a whole push sends.
    std::size_t bytes_of_a_push() {
        const JovuDeviceAddress device = plug();
        EXPECT_TRUE(connected(device));
        EXPECT_EQ(push(device).error, "");
        const std::size_t bytes = test::stats(device)["endpoints"]["04"]["bytes"];
        sim("unplug " + name(device));
        EXPECT_TRUE(disconnected(device));
        return bytes;
    }

    const test::TemporaryFile file_{"job", test::job_content(kFileSize)};
    test::RecordingClient client_;
};

TEST_F(CutPush, EndsInOneErrorAndTheNextDeviceWorks) {
    const std::size_t whole = bytes_of_a_push();
    ASSERT_GT(whole, kFileSize);
    // At the start and the end of every piece, beside it, and anywhere.
    std::vector<std::size_t> offsets{0, 1};
    for (std::size_t start = whole - kFileSize; start < whole; start += kPieceSize)
        offsets.insert(offsets.end(), {start - 1, start, start + 1});
    offsets.push_back(whole - 1);
    offsets.push_back(whole);
    std::mt19937 random(1);
    std::uniform_int_distribution<std::size_t> anywhere(0, whole);
    for (int left = 20 * test::storm_scale(); left > 0; --left)
        offsets.push_back(anywhere(random));
    while (offsets.size() % kDevices != 0)
        offsets.push_back(anywhere(random));

    std::vector<Milliseconds> times;
    std::map<std::string, int> errors;
    for (std::size_t at = 0; at < offsets.size(); at += kDevices) {
        std::vector<JovuDeviceAddress> devices;
        for (std::size_t i = 0; i < kDevices; ++i)
            devices.push_back(plug());
        for (const JovuDeviceAddress device : devices)
            ASSERT_TRUE(connected(device));
        for (std::size_t i = 0; i < kDevices; ++i) {
            const std::size_t offset = offsets[at + i];
            ASSERT_TRUE(client_.answers(devices[i])) << "behind the cut at " << offset;
            sim("fault " + name(devices[i]) + " unplug-at 04 " + std::to_string(offset));
            const Push cut = push(devices[i]);
            EXPECT_EQ(kErrors.count(cut.error), 1U) << cut.error << ", cut at " << offset;
            ++errors[cut.error];
            times.push_back(cut.after_last_piece);
        }
        for (const JovuDeviceAddress device : devices)
            ASSERT_TRUE(disconnected(device));
    }
    std::sort(times.begin(), times.end());
    const double median = times[times.size() / 2].count();
    const double longest = times.back().count();
    std::printf("%zu cuts; the error came after %.1f ms in the median, %.1f ms at most\n",
                offsets.size(), median, longest);
    for (const auto& [error, count] : errors)
        std::printf("%6d  %s\n", count, error.c_str());
    // A machine with much else to do may hold up one, but hardly every other one, and none for as
    // long as a send waits that nothing but its own time limit of 1.5 s ends.
    EXPECT_LT(median, 100);
    EXPECT_LT(longest, 1400);

    const JovuDeviceAddress next = plug();
    ASSERT_TRUE(connected(next));
    EXPECT_EQ(push(next).error, "");
    EXPECT_TRUE(test::eventually([&] { return test::stats(next)["job"]["verified"] == true; }));
}

}  // namespace
