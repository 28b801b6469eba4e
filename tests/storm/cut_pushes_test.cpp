/// @file
/// A device that leaves in the middle of a push, wherever that is.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <random>
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

TEST(CutPush, EndsInOneErrorAndTheNextDeviceWorks) {
    const test::TemporaryFile file("job", test::job_content(kFileSize));
    test::RecordingClient client;
    // How often a device has come to an address more often than left it.
    const auto comes_to = [&client](JovuDeviceAddress device, std::size_t more) {
        return test::eventually(
            [&] { return client.connects(device) == client.disconnects(device) + more; });
    };
    Clock::time_point last;  // When the last piece got through.
    const auto push = [&](JovuDeviceAddress device) -> std::string {
        last = Clock::now();
        const auto note = [](double, std::string, void* when) {
            *static_cast<Clock::time_point*>(when) = Clock::now();
        };
        try {
            client.SendJobFile(device, file.path(), note, &last, false);
        } catch (const JovuException& error) {
            return error.what();
        }
        return "";
    };
    const JovuDeviceAddress whole_one = plug();
    ASSERT_TRUE(comes_to(whole_one, 1));
    EXPECT_EQ(push(whole_one), "");
    const std::size_t whole = test::stats(whole_one)["endpoints"]["04"]["bytes"];
    ASSERT_GT(whole, kFileSize);

    // At the start and the end of every piece, beside it, and anywhere.
    std::vector<std::size_t> offsets{0, 1, whole - 1, whole};
    for (std::size_t start = whole - kFileSize; start < whole; start += kPieceSize)
        offsets.insert(offsets.end(), {start - 1, start, start + 1});
    std::mt19937 random(1);
    for (int left = 20 * test::storm_scale(); left > 0 || offsets.size() % kDevices != 0; --left)
        offsets.push_back(random() % (whole + 1));

    std::vector<Milliseconds> times;
    for (std::size_t at = 0; at < offsets.size(); at += kDevices) {
        std::vector<JovuDeviceAddress> devices;
        for (std::size_t i = 0; i < kDevices; ++i)
            devices.push_back(plug());
        for (const JovuDeviceAddress device : devices)
            ASSERT_TRUE(comes_to(device, 1));
        for (std::size_t i = 0; i < kDevices; ++i) {
            const std::string offset = std::to_string(offsets[at + i]);
            ASSERT_TRUE(client.answers(devices[i])) << "behind the cut at " << offset;
            sim("fault " + name(devices[i]) + " unplug-at 04 " + offset);
            const std::string error = push(devices[i]);
            EXPECT_TRUE(error == "Send failed - libusb error: -4" ||
                        error == "Send failed - Device no longer connected.")
                << error << ", cut at " << offset;
            times.push_back(Clock::now() - last);
        }
        for (const JovuDeviceAddress device : devices)
            ASSERT_TRUE(comes_to(device, 0));
    }
    std::sort(times.begin(), times.end());
    const double median = times[times.size() / 2].count();
    const double longest = times.back().count();
    // A machine with much else to do may hold up one, but hardly every other one, and none for as
    // long as a send waits that nothing but its own time limit of 1.5 s ends.
    EXPECT_LT(median, 100);
    EXPECT_LT(longest, 1400);

    const JovuDeviceAddress next = plug();
    ASSERT_TRUE(comes_to(next, 1));
    EXPECT_EQ(push(next), "");
    EXPECT_TRUE(test::eventually([&] { return test::stats(next)["job"]["verified"] == true; }));
}

}  // namespace
