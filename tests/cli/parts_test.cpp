/// @file
/// Units of the program: formats, hints, the queue of notifications, images, traces and listings.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <ctime>
#include <nlohmann/json.hpp>

#include "firmware/value_strings.h"
#include "progress/progress_reporters.h"
#include "session/reports.h"
#include "session/session.h"
#include "support/job_file.h"
#include "terminal/format.h"
#include "trace/trace_recorder.h"
#include "update/dfu_listing.h"
#include "update/firmware_image.h"

namespace jovu_cli {
namespace {

using namespace std::chrono_literals;
using testing::HasSubstr;

TEST(Times, AreLocalForPeopleAndUtcForPrograms) {
    setenv("TZ", "XXX-5:30", 1);
    tzset();
    const std::chrono::system_clock::time_point time(std::chrono::milliseconds(951826154007));
    EXPECT_EQ(clock_string(time), "17:39:14.007");
    EXPECT_EQ(utc_string(time), "2000-02-29T12:09:14.007Z");
}

TEST(Advice, IsGivenForEachReason) {
    const std::pair<JovuError, const char*> exchanges[] = {
        {JovuError::response_timed_out, "does not respond"},
        {JovuError::no_response, "has reset"},
        {JovuError::disconnected, "it was unplugged"},
        {JovuError::transfer_failed, "check the"},
        {JovuError::send_timed_out, "takes no"},
        {JovuError::stalled, "has stalled"}};
    for (const auto& [code, hint] : exchanges)
        EXPECT_THAT(exchange_failure("x", JovuException("y.", code)).hint(), HasSubstr(hint));
    const std::pair<NodeState, const char*> nodes[] = {
        {{"N", EACCES, "", false, false, {}}, "no permission on N (install the udev rule pack"},
        {{"N", ENODEV, "", false, false, {}}, "N is not there (it was unplugged"},
        {{"N", 0, "cdc_acm", false, false, {"a"}}, "driver cdc_acm uses N (unbind"},
        {{"N", 0, "", true, false, {}}, "N was in use and is free now (try again"},
        {{"N", 0, "usbfs", false, false, {}}, "N is in use by another program (end that"},
        {{"N", 0, "usbfs", false, false, {"a", "b"}}, "N is in use by a, b (only one program"}};
    for (const auto& [node, told] : nodes)
        EXPECT_THAT(obstacle_at(node).reason + " (" + obstacle_at(node).hint, HasSubstr(told));
}

/// A device can send faster than a command reads.
TEST(NotificationQueue, HoldsSoMuchAndCountsTheRest) {
    StopSource stop(-1);
    StatusReport report;
    report.printer.model_name = report.file = std::string(1U << 20U, 'x');
    const std::tuple<decltype(Notification::what), unsigned, unsigned> rows[] = {
        {servo_trace_msg{}, 20005, 20000}, {DebugMessage(report.file), 20, 16}, {report, 10, 8}};
    for (const auto& [what, posted, kept] : rows) {
        NotificationQueue queue(stop, {true, true});
        for (unsigned i = 0; i < posted; ++i)
            queue.post({{1, 2}, {}, what});
        EXPECT_EQ(queue.take_lost(), posted - kept);
        queue.post({{1, 2}, {}, Disconnected{}});
        unsigned waiting = 0;
        bool told = false;
        for (; const std::optional<Notification> next = queue.poll(); ++waiting)
            told = std::holds_alternative<Disconnected>(next->what);
        EXPECT_LE(waiting, std::min(kept + 1, 20000U)) << "the oldest is replaced";
        EXPECT_TRUE(told) << "a command receives the disconnect";
        queue.post({{1, 2}, {}, Connected{}});
        EXPECT_TRUE(queue.connected().empty()) << "more disconnects than connects";
        queue.post({{1, 2}, {}, Connected{}});
        EXPECT_EQ(queue.connected().size(), 1U);
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
    EXPECT_EQ(meter.rate(), 2000) << "older values do not count";

    EXPECT_EQ(transfer_string(2000, 9000, 259000), "9.0 kB, 2.0 kB/s, 2:05 left");
    EXPECT_EQ(transfer_string(0, 9, 10), "9 B, 0 B/s");
    EXPECT_EQ(transfer_string(1.5e6, 2500000000, 2500000000), "2.5 GB, 1.5 MB/s");
    EXPECT_EQ(size_string(999.95) + size_string(1e16), "1.0 kB10000.0 TB");
    EXPECT_EQ(bar_string(50, "Sending ", "x", 40), "Sending   50.0 % [=========>        ]  x");
    EXPECT_EQ(bar_string(100, "Sending ", "x", 32), "Sending  100.0 % [==========]  x");
    EXPECT_EQ(bar_string(50, "Sending ", "x", 31), "Sending   50.0 %  x") << "no room for a bar";
}

TEST(Seconds, AreReadUpToAWeek) {
    const std::pair<const char*, std::optional<std::chrono::milliseconds>> rows[] = {
        {"0", 0ms}, {"604800", 168h}, {"604801", {}}, {"-1", {}}, {"nan", {}}};
    for (const auto& [text, time] : rows)
        EXPECT_EQ(parse_seconds(text), time) << text;
}

TEST(Report, IsShownOnALine) {
    StatusReport report;
    report.job_id = "J";
    report.time_elapsed = 3723;
    report.error = 7;
    EXPECT_EQ(report_line({1, 2}, report), "1:2  -  0.0 C  0 %  1:02:03  job id J  error 7");
    EXPECT_EQ(labelled("As wide as that", "x"), "As wide as that x");
    EXPECT_THAT(value_lines(Json::parse(R"({"a":{"bc":null},"d":"e\n"})")),
                testing::ElementsAre("a.bc  -", "d     e\\n"));
    EXPECT_THAT(value_lines(7), testing::ElementsAre("7"));
    Tenths tenths;
    for (const auto& [percent, new_tenth] : {std::pair(0, true), {9, false}, {10, true}})
        EXPECT_EQ(tenths.reached(percent), new_tenth) << percent;
}

TEST(Output, IsDrawnOnWhatCanMoveItsCursor) {
    const StopSource stop(-1);
    const FileDescriptor terminal(posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC));
    for (const auto& [term, moves] : {std::pair("xterm", true), {"dumb", false}, {"", false}}) {
        setenv("TERM", term, 1);
        EXPECT_EQ(Output(terminal, stop, false).redraws(), moves) << term;
    }
    EXPECT_EQ(Output(terminal, stop, false).columns(), 80U);
    const test::TemporaryFile file("drawn", "");
    const FileDescriptor written(open(file.path().c_str(), O_RDWR | O_CLOEXEC));
    Output out(written, stop, false);
    ProgressBar bar(out);
    for (const bool always : {false, false, true})
        bar.draw(50, "A", std::string(90, 'b'), always);
    bar.finish();
    bar.finish();
    const std::string drawn = "\r\x1b[2KA  50.0 %  " + std::string(68, 'b');
    EXPECT_EQ(test::content_of(file.path()), drawn + drawn + "\n") << "too soon the second time";
}

TEST(FirmwareImage, IsJudgedByItsContent) {
    const std::string any = "\x01\x02\xFF\xFF\xFF\xFF\xFF\xFF" + std::string("\0\x01UFD", 5);
    const std::string damaged = "its DFU suffix is damaged: it has CRC ",
                      empty = "it contains only a DFU suffix";
    const std::string text = "it is plain text";
    std::string umlauts = ";";
    while (umlauts.size() < 9000)
        umlauts += "\u00FC";
    const std::tuple<std::string, std::string> rows[] = {
        {any + "\x10\x74\x1a\x46\xdf", ""},
        {any + "\x10\x75\x1a\x46\xdf", damaged + "df461a75, the file has df461a74"},
        {any + "\x0f\x81\x17\x4e\x52", damaged},
        {any + "\x13\xce\x4b\x4f\x46", damaged},
        {any.substr(2) + "\x10\xe1\xf1\x7b\x88", empty},
        {"G28\n" + any.substr(2) + "\x10\xb0\x5e\x63\x0a", text},
        {"G28 ; \u00FC~\t\n", text},
        {umlauts, text},
        {"G28\x7F", ""},
        {"G28\xFC", ""},
        {std::string(5000, '\xAA'), ""},
        {std::string(FirmwareImage::kMaxSize, '\xFF'), ""},
        {std::string(FirmwareImage::kMaxSize + 1, '\xFF'), "it has 16777217 bytes, no controller"},
    };
    for (const auto& [content, fault] : rows) {
        const test::TemporaryFile file("image", content), copy("copy", "old");
        const FirmwareImage image(file.path());
        EXPECT_EQ(image.fault().substr(0, fault.size()), fault);
        EXPECT_EQ(image.fault().empty(), fault.empty()) << image.fault();
        EXPECT_EQ(image.release(), "");
        image.put_at(copy.path());
        const bool large = content.size() > FirmwareImage::kMaxSize;
        EXPECT_EQ(std::filesystem::is_symlink(copy.path()), large);
        EXPECT_EQ(image.may_be_version("1.2.3"), large);
        const std::size_t kept = image.suffix() ? 2 : content.size();
        EXPECT_TRUE(!fault.empty() || test::content_of(copy.path()) == content.substr(0, kept));
        EXPECT_THROW(image.put_at(copy.path() + "/x"), Failure);
    }
}

servo_trace_msg sample(std::uint32_t count, std::int32_t commanded = 0, std::int32_t position = 0) {
    servo_trace_msg message{};
    message.int_cnt = count;
    message.pos_cmd = commanded;
    message.pos = position;
    return message;
}

TEST(TraceStatistics, CountWhatIsMissing) {
    TraceStatistics statistics;
    const struct {
        std::uint32_t count;
        bool follows;
        std::uint64_t ticks, gaps, missing, restarts;
    } rows[] = {
        {4294967290, true, 0, 0, 0, 0},
        {4294967291, true, 1, 0, 0, 0},
        {4294967295, false, 5, 1, 3, 0},
        {0, true, 6, 1, 3, 0},
        {2, false, 8, 2, 4, 0},
        {2, false, 9, 2, 4, 1},
        {1, false, 10, 2, 4, 2},
        {2, true, 11, 2, 4, 2},
        {2147483649, false, 2147483658, 3, 2147483650, 2},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(statistics.add(sample(row.count)), row.follows) << row.count;
        EXPECT_EQ(statistics.ticks(), row.ticks) << row.count;
        EXPECT_EQ(statistics.gaps(), row.gaps) << row.count;
        EXPECT_EQ(statistics.missing(), row.missing) << row.count;
        EXPECT_EQ(statistics.restarts(), row.restarts) << row.count;
    }
    EXPECT_EQ(statistics.samples(), 9U);
}

TEST(TraceStatistics, FindTheLargestErrorOfEitherSign) {
    TraceStatistics statistics;
    statistics.add(sample(1, 10, 4));
    statistics.add(sample(2, -2147483647 - 1, 2147483647));
    statistics.add(sample(3, 2147483647, -2147483647 - 1));
    EXPECT_EQ(statistics.largest_error(), -4294967295);
    EXPECT_EQ(statistics.largest_error_ticks(), 1U);
    EXPECT_EQ(statistics.position().lowest, -2147483647 - 1);
    EXPECT_EQ(statistics.position().highest, 2147483647);
}

/// Includes listings of hostile devices.
TEST(DfuListing, KeepsDevicesApart) {
    const std::string found = "Found DFU: [7a1c:00df] ver=0100, devnum=9, ";
    const std::string one = found + "cfg=1, intf=0, path=\"1-2\", ";
    const std::string whole = one + "alt=0, name=\"a, b\", serial=\"A\"\n";
    const struct {
        std::string listing;
        std::size_t devices, refused;
    } cases[] = {
        {"dfu-util 0.11\n\nhello\n\n" + whole, 1, 0},
        {whole + one + "alt=1, name=\"c\", serial=\"A\"\n", 1, 0},
        {whole + whole, 1, 1},
        {whole + one + "alt=1, serial=\"B\"\n", 1, 1},
        {whole + "Found DFU: [1209:00df] devnum=9, path=\"1-2\", serial=\"A\"\n", 1, 1},
        {found + "path=\"1-2 -D x\", serial=\"A\"\n", 0, 1},
        {whole + found + "path=\"2-2\", serial=\"A\"\n", 2, 0},
        {whole + "Found DFU: [7a1c:00df] devnum=8, path=\"1-2\", serial=\"A\"\n", 2, 0},
        {whole + "Found Runtime: [1209:0001] name=\"3.5\" disk\", serial=\"A\"\n", 1, 0},
        {one + "serial=\"-\" serial=\"A\"\n", 0, 1},
        {one + "name=\"x\", serial=\"A\", serial=\"B\"\n", 0, 1},
        {one + "name=\"x\", serial=\"A\"\nx\", serial=\"B\"\n", 1, 1},
        {one + "serial=\"A\n", 0, 1},
        {one + "serial=A\x1b\n", 0, 1},
        {"Found DFU: [7a1c:00df] serial=\"A\"\n", 0, 1},
    };
    for (const auto& row : cases) {
        const DfuListing listing = parse_dfu_listing(row.listing);
        EXPECT_EQ(listing.devices.size(), row.devices) << row.listing;
        EXPECT_EQ(listing.refused.size(), row.refused) << row.listing;
    }
}

}  // namespace
}  // namespace jovu_cli
