/// @file
/// The parts of the program that need no device.
#include <gtest/gtest.h>

#include <chrono>

#include "exit_codes.h"
#include "gcode_source.h"
#include "options.h"
#include "printable.h"
#include "progress_bar.h"
#include "push_reporter.h"
#include "report_text.h"

namespace {

using namespace jovu_cli;
using namespace std::chrono_literals;

TEST(Printable, LetsNothingThroughThatATerminalActsOn) {
    const struct {
        const char* raw;
        const char* shown;
    } rows[] = {
        {"plain text", "plain text"},
        {"Gr\xC3\xBC\xC3\x9F"
         "e \xE2\x82\xAC \xF0\x9F\x98\x80",
         "Gr\xC3\xBC\xC3\x9F"
         "e \xE2\x82\xAC \xF0\x9F\x98\x80"},
        {"a\x1b[31mred\x07", "a\\x1b[31mred\\x07"},
        {"line\r\nnext\tcell", "line\\r\\nnext\\tcell"},
        {"del\x7f", "del\\x7f"},
        {"\xC2\x9B"
         "31m",
         "\\x9b31m"},  // CSI as one character
        {"\x9B"
         "31m",
         "\\x9b31m"},  // and as a bare byte
        {"abc\xE2\x80\xAE"
         "fed",
         "abc\\u202efed"},                             // right-to-left override
        {"\xC0\xAF", "\\xc0\\xaf"},                    // overlong "/"
        {"\xED\xA0\x80", "\\xed\\xa0\\x80"},           // a surrogate
        {"\xF4\x90\x80\x80", "\\xf4\\x90\\x80\\x80"},  // beyond the last character
        {"cut \xE2\x82", "cut \\xe2\\x82"},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(printable(row.raw), row.shown);
    }
    EXPECT_EQ(printable(std::string("a\0b", 3)), "a\\x00b");
}

TEST(Printable, CutsBetweenCharacters) {
    EXPECT_EQ(fit("\xC3\xBC\xC3\xBC\xC3\xBC", 2), "\xC3\xBC\xC3\xBC");
    EXPECT_EQ(fit("abc", 80), "abc");
    EXPECT_EQ(fit("abc", 0), "");
}

TEST(Options, ReadsAddressesAndTimesWhole) {
    EXPECT_EQ(parse_address("1:2"), (JovuDeviceAddress{1, 2}));
    EXPECT_EQ(parse_address("001:255"), (JovuDeviceAddress{1, 255}));
    for (const char* bad :
         {"", ":", "1:", ":2", "1:256", "-1:2", "1:2:3", "1:2 ", "0x1:2", "1.2"}) {
        EXPECT_FALSE(parse_address(bad)) << bad;
    }
    EXPECT_EQ(parse_seconds("0"), 0ms);
    EXPECT_EQ(parse_seconds("1.5"), 1500ms);
    for (const char* bad : {"", "-1", "nan", "inf", "1s", " 1", "1e30", "1,5"}) {
        EXPECT_FALSE(parse_seconds(bad)) << bad;
    }
}

TEST(Gcode, StripsCommentsAndBlanks) {
    EXPECT_EQ(strip_gcode("  G1 X1 Y2 ; move\r"), "G1 X1 Y2");
    EXPECT_EQ(strip_gcode("; only a comment"), "");
    EXPECT_EQ(strip_gcode(" \t\r"), "");
}

TEST(ExitCodes, AreInTheTableOnceAndInOrder) {
    for (std::size_t i = 1; i < exit_code_table.size(); ++i) {
        EXPECT_LT(exit_code_table[i - 1].code, exit_code_table[i].code);
    }
}

TEST(State, IsJudgedByItsWords) {
    const struct {
        const char* state;
        JobPhase phase;
    } rows[] = {
        {"idle", JobPhase::idle},          {"", JobPhase::idle},
        {"Printing", JobPhase::active},    {"paused", JobPhase::active},
        {"pondering", JobPhase::active},   {"RECEIVING", JobPhase::receiving},
        {"finished", JobPhase::finished},  {"aborted", JobPhase::aborted},
        {"heater fault", JobPhase::error}, {"Error", JobPhase::error},
    };
    StatusReport report;
    for (const auto& row : rows) {
        report.state = row.state;
        EXPECT_EQ(job_phase(report), row.phase) << row.state;
    }
    report.state = "idle";
    report.error = -3;
    EXPECT_EQ(job_phase(report), JobPhase::error);
}

TEST(Bar, FitsTheTerminal) {
    for (const double percent : {0.0, 33.3, 99.9, 100.0}) {
        for (unsigned columns = 1; columns < 120; ++columns) {
            const std::string bar = bar_text(percent, "Sending", "1.5 MB, 2.0 MB/s", columns);
            EXPECT_LE(character_count(bar), columns);
        }
    }
    EXPECT_EQ(bar_text(50, "Sending", "", 31), "Sending  50.0 % [======>      ]");
    EXPECT_EQ(bar_text(100, "Sending", "tail", 38), "Sending 100.0 % [==============]  tail");
    EXPECT_EQ(bar_text(0, "Sending", "", 20), "Sending   0.0 %");
}

TEST(Bar, TellsTheRateOfTheLastSeconds) {
    RateMeter meter;
    const RateMeter::Clock::time_point start{};
    EXPECT_EQ(meter.rate(), 0);
    for (int i = 0; i <= 100; ++i) {  // 1000 bytes a second, then 5000
        meter.add(start + i * 100ms,
                  static_cast<std::uint64_t>(i < 50 ? i * 100 : 5000 + (i - 50) * 500));
    }
    EXPECT_NEAR(meter.rate(), 5000, 200);
    EXPECT_EQ(size_text(999), "999 B");
    EXPECT_EQ(size_text(1500), "1.5 kB");
    EXPECT_EQ(size_text(999'960), "1.0 MB");
}

TEST(Progress, IsWorthALineAtEachTenthOnce) {
    Tenths tenths;
    int lines = 0;
    for (double percent = 0; percent <= 100; percent += 0.5) {
        lines += tenths.reached(percent) ? 1 : 0;
    }
    EXPECT_EQ(lines, 11);
    EXPECT_FALSE(tenths.reached(100));
    Tenths jumping;
    EXPECT_TRUE(jumping.reached(55));
    EXPECT_FALSE(jumping.reached(20));
}

TEST(Duration, IsShownAsAClockWould) {
    EXPECT_EQ(duration_text(0), "0:00");
    EXPECT_EQ(duration_text(61), "1:01");
    EXPECT_EQ(duration_text(3723), "1:02:03");
    EXPECT_EQ(duration_text(-5), "0:00");
}

}  // namespace
