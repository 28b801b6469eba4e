// SPDX-License-Identifier: Apache-2.0

/// @file
/// Units of the program: formats, hints, the queue of notifications, images, traces and listings,
/// lines of the shell, and the help texts in the manual.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>

#include "cli/failure.h"
#include "commands/command.h"
#include "firmware/value_strings.h"
#include "progress/progress_reporters.h"
#include "session/reports.h"
#include "session/session.h"
#include "shell/shell_words.h"
#include "support/job_file.h"
#include "terminal/format.h"
#include "terminal/printable.h"
#include "trace/trace_recorder.h"
#include "update/dfu_listing.h"
#include "update/firmware_image.h"

namespace jovu_cli {
namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

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

TEST(Formats, AreForPeopleOrForPrograms) {
    setenv("TZ", "IST-5:30", 1);
    tzset();
    const std::chrono::system_clock::time_point time(std::chrono::milliseconds(951826154007));
    EXPECT_EQ(clock_string(time), "17:39:14.007");
    EXPECT_EQ(utc_string(time), "2000-02-29T12:09:14.007Z");
    StatusReport report;
    report.job_id = "J";
    report.time_elapsed = 3723;
    report.error = 7;
    EXPECT_EQ(report_line({1, 2}, report), "1:2  -  0.0 C  0 %  1:02:03  job id J  error 7");
    EXPECT_EQ(labelled("As wide as that", "x"), "As wide as that x");
    EXPECT_THAT(value_lines(Json::parse(R"({"a":{"bc":null},"d":"e\n"})")),
                ElementsAre("a.bc  -", "d     e\\n"));
    EXPECT_THAT(value_lines(7), ElementsAre("7"));
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

TEST(TraceStatistics, CountWhatIsMissingAndFindTheLargestError) {
    constexpr std::int32_t kLowest = -2147483647 - 1, kHighest = 2147483647;
    TraceStatistics statistics;
    // A sample: its count, the commanded position and the position. Then whether it follows the
    // sample before, and the ticks, gaps, missing samples and restarts so far.
    const std::tuple<std::uint32_t, std::int32_t, std::int32_t, std::vector<std::uint64_t>> rows[] =
        {
            {4294967290, 0, 0, {1, 0, 0, 0, 0}},
            {4294967291, 10, 4, {1, 1, 0, 0, 0}},
            {4294967295, kLowest, kHighest, {0, 5, 1, 3, 0}},
            {0, kHighest, kLowest, {1, 6, 1, 3, 0}},
            {2, 0, 0, {0, 8, 2, 4, 0}},
            {2, 0, 0, {0, 9, 2, 4, 1}},
            {1, 0, 0, {0, 10, 2, 4, 2}},
            {2, 0, 0, {1, 11, 2, 4, 2}},
            {2147483649, 0, 0, {0, 2147483658, 3, 2147483650, 2}},
        };
    for (const auto& [count, commanded, position, expected] : rows) {
        servo_trace_msg sample{};
        sample.int_cnt = count;
        sample.pos_cmd = commanded;
        sample.pos = position;
        const bool follows = statistics.add(sample);
        EXPECT_EQ((std::vector<std::uint64_t>{follows, statistics.ticks(), statistics.gaps(),
                                              statistics.missing(), statistics.restarts()}),
                  expected);
    }
    EXPECT_EQ(statistics.samples(), 9U);
    EXPECT_EQ(statistics.largest_error(), -4294967295);
    EXPECT_EQ(statistics.largest_error_ticks(), 5U);
    EXPECT_EQ(statistics.position().lowest, kLowest);
    EXPECT_EQ(statistics.position().highest, kHighest);
}

/// Includes listings of hostile devices.
TEST(DfuListing, KeepsDevicesApart) {
    const std::string found = "Found DFU: [7a1c:00df] ver=0100, devnum=9, ";
    const std::string one = found + "cfg=1, intf=0, path=\"1-2\", ";
    const std::string whole = one + "alt=0, name=\"a, b\", serial=\"A\"\n";
    const std::tuple<std::string, std::size_t, std::size_t> rows[] = {
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
    for (const auto& [output, devices, refused] : rows) {
        const DfuListing listing = parse_dfu_listing(output);
        EXPECT_EQ(listing.devices.size(), devices) << output;
        EXPECT_EQ(listing.refused.size(), refused) << output;
    }
}

TEST(Words, AreSplitAsInAShell) {
    EXPECT_THAT(split_words("  push  my\\ file 'a b' \"c \\\"d\\\" 'e'\" x''y"),
                ElementsAre("push", "my file", "a b", "c \"d\" 'e'", "xy"));
    EXPECT_THAT(split_words("call x config='{\"a\": 1}' t=''"),
                ElementsAre("call", "x", "config={\"a\": 1}", "t="));
    EXPECT_THAT(split_words("'' \"\""), ElementsAre("", ""));
    EXPECT_THAT(split_words(" \t\r"), IsEmpty());
    for (const char* line : {"a 'b", "a \"b'", "a\\"}) {
        EXPECT_THROW(split_words(line), Failure) << line;
    }
}

TEST(Secrets, AreFoundInALine) {
    for (const char* const line :
         {".call x auto_connect_key=a", ".call x connect_t.key=a", "call x 'key=@@a",
          ".call x c={\"key\":\"a\"}", ".call x key=@f config.ifc_config.auto_connect_key=a",
          R"(.call x c="{\"key\" :\"a\"}")", ".call x 'c.key'=a", ".call x c.KEY = a"})
        EXPECT_TRUE(holds_secret(line)) << line;
    for (const char* const line : {".call x auto_connect_key=@a", ".call x keys=1", "M117 key", ""})
        EXPECT_FALSE(holds_secret(line)) << line;
}

TEST(Printable, ShowsWhatCannotBeSeen) {
    const std::pair<std::string_view, const char*> rows[] = {
        {"caf\u00E9 \u4E2D \U0001F600 ~", "caf\u00E9 \u4E2D \U0001F600 ~"},
        {{"\0\t\n\r\x1b\x7F\xC2\x9B", 8}, R"(\x00\t\n\r\x1b\x7f\u009b)"},
        {"\u061C\u200B\u200E\u2028\u202E\u2066\u2069",
         R"(\u061c\u200b\u200e\u2028\u202e\u2066\u2069)"},
        {"\u00A0\u00AD\u034F\u2060\u3164\uFE0F\uFEFF",
         R"(\u00a0\u00ad\u034f\u2060\u3164\ufe0f\ufeff)"},
        {"\uE000\uFDD0\U0001FFFE\U000E0041", R"(\ue000\ufdd0\U0001fffe\U000e0041)"},
        {"\xC1\x9B\xE0\x80\x9B\xF0\x80\x80\x9B", R"(\xc1\x9b\xe0\x80\x9b\xf0\x80\x80\x9b)"},
        {"\xC2\x80\xED\xBF\xBF\uFFFF\xF1\x80\x80\x80\xF4\x8F\xBF\xBF\u0800\U00010000",
         R"(\u0080\xed\xbf\xbf\uffff\U00040000\U0010ffff)"
         "\u0800\U00010000"},
        {"\xED\xA0\x80\xF4\x90\x80\x80\xE2\x80", R"(\xed\xa0\x80\xf4\x90\x80\x80\xe2\x80)"},
    };
    for (const auto& [text, shown] : rows) {
        EXPECT_EQ(printable(text), shown);
        EXPECT_EQ(printable(shown), shown);
    }
    EXPECT_EQ(fit("\u00E9b", 1) + fit("\u00E9b", 9), "\u00E9\u00E9b");
}

TEST(Completion, KnowsWhatCanFollow) {
    const std::vector<std::string> commands{".call", ".commands", ".events"};
    const auto words = [&](const std::string& line) {
        return complete(line, commands, {"1:2", "1:3"}).candidates;
    };
    EXPECT_THAT(words(".c"), ElementsAre(".call", ".commands"));
    EXPECT_THAT(words("c"), IsEmpty());
    EXPECT_THAT(words(".commands bio_"), ElementsAre("bio_get_version", "bio_get_serial"));
    EXPECT_THAT(words(".call gpio_input_get "), ElementsAre("pin=", "debounce="));
    EXPECT_THAT(words(".call gpio_input_get pin=1 "), ElementsAre("debounce="));
    EXPECT_THAT(words(".call wifi_client_configure con"), ElementsAre("config."));
    EXPECT_THAT(words(".call wifi_client_configure config."),
                ElementsAre("config.ifc_config.", "config.hdw_config.", "config.ip_config."));
    EXPECT_THAT(words(".call wifi_client_configure config.hdw_config.m"),
                ElementsAre("config.hdw_config.mac_address="));
    EXPECT_THAT(words(".call nonsense "), IsEmpty());
    EXPECT_THAT(words(".wait s"), ElementsAre("state"));
    EXPECT_THAT(words(".device 1"), ElementsAre("1:2", "1:3"));
    EXPECT_THAT(words(".events o"), ElementsAre("on", "off"));
    EXPECT_EQ(complete(".call gpio_input_get de", commands, {}).typed, 2U);

    const std::string folder = testing::TempDir() + std::to_string(getpid()) + "-folder/";
    std::filesystem::create_directories(folder + "sub");
    for (const char* const file : {"b", "a", ".hidden"})
        std::ofstream(folder + file);
    EXPECT_THAT(words(".push " + folder), ElementsAre(folder + "a", folder + "b", folder + "sub/"));
    EXPECT_THAT(words(".push " + folder + "."), ElementsAre(folder + ".hidden"));
    EXPECT_THAT(words("G28 " + folder), IsEmpty());
    std::filesystem::remove_all(folder);
}

std::string help(const std::string& command) {
    const char* const argv[] = {"jovu", command.empty() ? "--help" : command.c_str(), "--help"};
    return parse_command_line(3, argv).message;
}

/// Inserts a help text into the manual: a fenced block after a marker.
void insert_help(std::string& manual, const std::string& command) {
    const std::string words = command.empty() ? "jovu --help" : "jovu " + command + " --help";
    const std::string marker = "<!-- " + words + " -->\n```text\n";
    const std::size_t begin = manual.find(marker);
    ASSERT_NE(begin, std::string::npos) << "the manual lacks the place for: " << words;
    const std::size_t text = begin + marker.size();
    const std::size_t end = manual.find("```\n", text);
    ASSERT_NE(end, std::string::npos);
    std::string shown = help(command);
    shown.erase(0, shown.find_first_not_of('\n'));
    manual.replace(text, end - text, shown);
}

/// With JOVU_UPDATE_MANUAL=1 in the environment, writes the help texts into the manual.
TEST(Manual, ShowsTheHelpTextsAsTheyAre) {
    const std::string written = test::content_of(JOVU_MANUAL);
    std::string expected = written;
    insert_help(expected, "");
    for (const Command& command : command_table())
        insert_help(expected, command.name);
    if (std::getenv("JOVU_UPDATE_MANUAL") != nullptr)
        std::ofstream(JOVU_MANUAL, std::ios::binary) << expected;
    EXPECT_EQ(written, expected) << "run this test with JOVU_UPDATE_MANUAL=1 to write it anew";
}

}  // namespace
}  // namespace jovu_cli
