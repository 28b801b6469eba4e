/// @file
/// Small parts of the program: times, rates, advice, and the queue of what the library reports.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <ctime>

#include "options.h"
#include "progress_bar.h"
#include "session.h"
#include "timestamp.h"

namespace jovu_cli {
namespace {

using namespace std::chrono_literals;
using testing::HasSubstr;

TEST(Times, AreLocalForPeopleAndUtcForPrograms) {
    setenv("TZ", "XXX-5:30", 1);
    tzset();
    const std::chrono::system_clock::time_point time(std::chrono::milliseconds(951826154007));
    EXPECT_EQ(clock_text(time), "17:39:14.007");
    EXPECT_EQ(utc_text(time), "2000-02-29T12:09:14.007Z");
}

TEST(Advice, IsGivenForEachReason) {
    const std::pair<const char*, const char*> exchanges[] = {
        {"timed out.", "does not answer"},  {"No response received.", "has reset"},
        {"no longer connected.", "was un"}, {"has been disconnected.", "unplugged"},
        {"libusb error: -1", "check the"},  {"libusb error: -4", "it was unplugged"},
        {"libusb error: -7", "takes no"},   {"libusb error: -9", "has stalled"}};
    for (const auto& [reason, hint] : exchanges)
        EXPECT_THAT(exchange_hint(reason), HasSubstr(hint)) << reason;
    const std::pair<NodeState, const char*> nodes[] = {
        {{"N", EACCES, "", false, false, {}}, "no permission on N (install the udev rule pack"},
        {{"N", ENODEV, "", false, false, {}}, "N is not there (it has just been unplugged"},
        {{"N", 0, "cdc_acm", false, false, {"a"}}, "driver cdc_acm uses N (unbind"},
        {{"N", 0, "", true, false, {}}, "N is free now, but was not (try again"},
        {{"N", 0, "usbfs", false, false, {}}, "N is in use by another program (end that"},
        {{"N", 0, "usbfs", false, false, {"a", "b"}}, "N is in use by a, b (a device is held by"}};
    for (const auto& [node, told] : nodes)
        EXPECT_THAT(obstacle_at(node).reason + " (" + obstacle_at(node).hint, HasSubstr(told));
}

/// A device can send without end, and a command may not take what it sends.
TEST(Inbox, HoldsSoMuchAndCountsTheRest) {
    StopSource stop(-1);
    StatusReport report;
    report.printer.model_name = report.file = std::string(1U << 20U, 'x');
    const std::tuple<decltype(Notice::what), unsigned, unsigned> rows[] = {
        {servo_trace_msg{}, 20005, 20000}, {DebugText(report.file), 20, 16}, {report, 10, 8}};
    for (const auto& [what, posted, kept] : rows) {
        Inbox inbox(stop, {true, true});
        for (unsigned i = 0; i < posted; ++i)
            inbox.post({{1, 2}, {}, what});
        EXPECT_EQ(inbox.take_lost(), posted - kept);
        inbox.post({{1, 2}, {}, Disconnected{}});
        unsigned waiting = 0;
        bool told = false;
        for (; const std::optional<Notice> next = inbox.poll(); ++waiting)
            told = std::holds_alternative<Disconnected>(next->what);
        EXPECT_LE(waiting, std::min(kept + 1, 20000U)) << "the oldest makes room";
        EXPECT_TRUE(told) << "a command learns that its device is gone";
        inbox.post({{1, 2}, {}, Connected{}});
        EXPECT_TRUE(inbox.announced().empty()) << "it has gone more often than come";
        inbox.post({{1, 2}, {}, Connected{}});
        EXPECT_EQ(inbox.announced().size(), 1U);
    }
}

TEST(ProgressBar, ShowsTheRateOfTheLastSecondsAndTheTimeLeft) {
    RateMeter meter;
    const RateMeter::Clock::time_point start{};
    EXPECT_EQ(meter.rate(), 0);
    for (const auto& [time, done] :
         {std::pair(0s, 0U), std::pair(10s, 1000U), std::pair(12s, 5000U)})
        meter.add(start + time, done);
    EXPECT_EQ(meter.rate(), 5000.0 / 12) << "each interval counts until a whole one is too old";
    meter.add(start + 13s, 6500);
    EXPECT_EQ(meter.rate(), 500) << "three seconds are not too old";
    meter.add(start + 14s, 9000);
    EXPECT_EQ(meter.rate(), 2000) << "what is older than three seconds does not count";

    EXPECT_EQ(transfer_text(2000, 9000, 259000), "9.0 kB, 2.0 kB/s, 2:05 left");
    EXPECT_EQ(transfer_text(0, 9, 10), "9 B, 0 B/s");
    EXPECT_EQ(transfer_text(1.5e6, 2500000000, 2500000000), "2.5 GB, 1.5 MB/s");
    EXPECT_EQ(size_text(999.95) + size_text(1e16), "1.0 kB10000.0 TB");
    EXPECT_EQ(bar_text(50, "Sending ", "x", 40), "Sending   50.0 % [=========>        ]  x");
    EXPECT_EQ(bar_text(100, "Sending ", "x", 32), "Sending  100.0 % [==========]  x");
    EXPECT_EQ(bar_text(50, "Sending ", "x", 31), "Sending   50.0 %  x") << "no room for a bar";
}

TEST(Options, AreReadToTheirLimits) {
    const std::pair<const char*, std::optional<JovuDeviceAddress>> addresses[] = {
        {"001:255", JovuDeviceAddress{1, 255}},
        {"1:256", {}},
        {"1", {}},
        {"1:", {}},
        {":1", {}},
        {"1:2x", {}}};
    for (const auto& [text, address] : addresses)
        EXPECT_EQ(parse_address(text), address) << text;
    const std::pair<const char*, std::optional<std::chrono::milliseconds>> times[] = {
        {"0", 0ms}, {"0.25", 250ms}, {"604800", 168h}, {"604801", {}},
        {"-1", {}}, {"nan", {}},     {"x", {}}};
    for (const auto& [text, time] : times)
        EXPECT_EQ(parse_seconds(text), time) << text;
    EXPECT_EQ(parse_float("-1.5"), -1.5F);
    EXPECT_FALSE(parse_float("inf") || parse_float("x"));
}

}  // namespace
}  // namespace jovu_cli
