// The gcode interpreter of the firmware model.
#include <gtest/gtest.h>

#include "firmware/gcode.h"

namespace jovusim::test {
namespace {

struct Line {
    const char* text;
    GcodeResult result;
};

class GcodeTest : public ::testing::Test {
protected:
    GcodeResult run(const std::string& line) {
        replies_.clear();
        return gcode_.run(line, machine_, replies_);
    }
    std::string reply(const std::string& line) {
        EXPECT_EQ(run(line), GcodeResult::ok) << line;
        return replies_.empty() ? "" : replies_[0];
    }

    Machine machine_{1.0};
    GcodeInterpreter gcode_;
    std::vector<std::string> replies_;
};

TEST_F(GcodeTest, JudgesEveryLine) {
    const Line lines[] = {
        {"", GcodeResult::ok},
        {"  ; only a comment", GcodeResult::ok},
        {"G1 X10 Y20.5 Z0.2 E1 F1500", GcodeResult::ok},
        {"g1x+1y2", GcodeResult::ok},
        {"G28 X", GcodeResult::ok},
        {"M106", GcodeResult::ok},
        {"M104 S0 ; off", GcodeResult::ok},
        {"hello", GcodeResult::malformed},
        {"1 G", GcodeResult::malformed},
        {"G1 X1..2", GcodeResult::malformed},
        {"G1 Xabc", GcodeResult::malformed},
        {"G1 Xinf", GcodeResult::malformed},
        {"G1 X1e3", GcodeResult::ok},  // X1 and E3: numbers have no exponents
        {"G1 *33", GcodeResult::malformed},
        {"M104", GcodeResult::malformed},
        {"G2 X1", GcodeResult::unknown},
        {"M999", GcodeResult::unknown},
        {"G1.5 X1", GcodeResult::unknown},
        {"T0", GcodeResult::unknown},
        {"G1 X200.1", GcodeResult::out_of_range},
        {"G1 Z-1", GcodeResult::out_of_range},
        {"G1 F0", GcodeResult::out_of_range},
        {"G4 P-5", GcodeResult::out_of_range},
        {"M104 S301", GcodeResult::out_of_range},
        {"M109 S-1", GcodeResult::out_of_range},
        {"M106 S256", GcodeResult::out_of_range},
    };
    for (const Line& line : lines)
        EXPECT_EQ(run(line.text), line.result) << line.text;
}

TEST_F(GcodeTest, KeepsThePosition) {
    run("G1 X10 Y20 Z3 E4");
    EXPECT_EQ(reply("M114"), "X:10.00 Y:20.00 Z:3.00 E:4.00");
    run("G91");
    run("G1 X-2.5 E1");
    run("G1 X-100");  // out of range: nothing moves
    EXPECT_EQ(reply("M114"), "X:7.50 Y:20.00 Z:3.00 E:5.00");
    run("G90");
    run("M83");
    run("G1 X1 E1");
    EXPECT_EQ(reply("M114"), "X:1.00 Y:20.00 Z:3.00 E:6.00");
    run("G92 E0");
    run("G28 Y");
    EXPECT_EQ(reply("M114"), "X:1.00 Y:0.00 Z:3.00 E:0.00");
    run("G28");
    EXPECT_EQ(reply("M114"), "X:0.00 Y:0.00 Z:0.00 E:0.00");
}

TEST_F(GcodeTest, HeatsAndCools) {
    machine_.advance(0);
    run("M104 S200");
    EXPECT_EQ(reply("M105"), "ok T:23.5 /200.0");
    machine_.advance(1000);
    const double soon = machine_.extruder().temperature();
    EXPECT_GT(soon, 100.0);
    EXPECT_LT(soon, 200.0);
    machine_.advance(20000);
    EXPECT_EQ(reply("M105"), "ok T:200.0 /200.0");
    run("M104 S0");
    machine_.advance(60000);
    EXPECT_EQ(reply("M105"), "ok T:23.5 /0.0");
}

TEST_F(GcodeTest, KeepsTextsAsTheyAre) {
    EXPECT_EQ(reply("M118  two  blanks ; no comment"), "two  blanks ; no comment");
    EXPECT_EQ(reply("M117 on the display"), "");
    EXPECT_EQ(machine_.display, "on the display");
}

TEST_F(GcodeTest, DoesNotMoveWhileAJobIsPrinted) {
    machine_.job().announce("");
    machine_.job().start();
    EXPECT_EQ(run("G1 X1"), GcodeResult::busy);
    EXPECT_EQ(run("G28"), GcodeResult::busy);
    EXPECT_EQ(run("M105"), GcodeResult::ok);
    machine_.job().abort();
    EXPECT_EQ(run("G1 X1"), GcodeResult::ok);
}

TEST_F(GcodeTest, RemembersTheLastLines) {
    for (int i = 0; i < 20; ++i)
        run("G1 X" + std::to_string(i));
    ASSERT_EQ(gcode_.last_lines().size(), 8U);
    EXPECT_EQ(gcode_.last_lines().front(), "G1 X12");
    EXPECT_EQ(gcode_.last_lines().back(), "G1 X19");
}

}  // namespace
}  // namespace jovusim::test
