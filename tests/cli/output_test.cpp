/// @file
/// What the program writes: reports, events and progress, as lines, as JSON and on a terminal.
#include "output.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/ioctl.h>

#include <cstdlib>
#include <fstream>
#include <functional>
#include <iterator>
#include <nlohmann/json.hpp>

#include "event_text.h"
#include "progress_bar.h"
#include "push_reporter.h"
#include "report_text.h"
#include "support/job_file.h"
#include "update_reporter.h"
#include "value_text.h"

namespace jovu_cli {
namespace {

using testing::ElementsAre;

/// What is written to an output that is no terminal.
std::string written(bool json, const std::function<void(Output&)>& write) {
    const StopSource stop(-1);
    const test::TemporaryFile file("output", "");
    const FileDescriptor fd(open(file.path().c_str(), O_WRONLY | O_CLOEXEC));
    Output out(fd, stop, json);
    write(out);
    std::ifstream content(file.path(), std::ios::binary);
    return {std::istreambuf_iterator<char>(content), {}};
}

StatusReport example_report() {
    StatusReport report;
    report.printer = {"M", "C", "F", "1.0", 3};
    report.state = "printing";
    report.build_plate = "B";
    report.extruder_temperature = 20.25;
    report.job_id = "J";
    report.progress = 42;
    report.file = "a.gcode";
    report.time_elapsed = 59;
    report.boot_time = 3723;
    report.idle_time = -1;
    return report;
}

TEST(Report, IsShownAsABlockAndAsALine) {
    StatusReport report = example_report();
    EXPECT_THAT(report_block({1, 2}, report),
                ElementsAre("Device        1:2", "Model         M", "Firmware      F 1.0",
                            "State         printing", "Extruder      20.2 C", "Build plate   B",
                            "Filament      -", "Job           a.gcode (id J)",
                            "Progress      42 %, 0:59 elapsed",
                            "Running       1:02:03, idle for 0:00", "Error         none"));
    EXPECT_THAT(identity_block(report), ElementsAre("Model         M", "Processor     C",
                                                    "Firmware      F 1.0", "Job version   3"));
    report.error = 7;
    EXPECT_EQ(report_line({1, 2}, report),
              "1:2  printing  20.2 C  42 %  0:59  job a.gcode (id J)  error 7");
    report.file = report.state = "";
    EXPECT_EQ(report_line({1, 2}, report), "1:2  -  20.2 C  42 %  0:59  job id J  error 7");
    report.job_id = "";
    report.error = 0;
    EXPECT_EQ(report_line({1, 2}, report), "1:2  -  20.2 C  42 %  0:59  job -");
    EXPECT_EQ(labelled("As wide as that", "x"), "As wide as that x");
    EXPECT_THAT(value_lines(Json::parse(R"({"a":{"bc":null},"d":"e\n"})")),
                ElementsAre("a.bc  -", "d     e\\n"));
    EXPECT_THAT(value_lines(7), ElementsAre("7"));
}

TEST(Output, FollowsTheProgressOfAPush) {
    const auto push = [](Output& out) {
        StatusReport report = example_report();
        PushReporter reporter(out, {1, 2}, "f\n", 300);
        for (const unsigned percent : {0U, 9U, 10U, 19U, 100U})
            reporter.sending(percent, 3 * percent, percent == 19);
        reporter.accepted(report);
        for (const int percent : {42, 49, 49, 50}) {
            report.state = percent == 49 ? "paused" : "printing";
            report.progress = percent;
            reporter.printing(report);
        }
        reporter.finished(report);
    };
    EXPECT_EQ(written(false, push),
              "sending f\\n: 0 %, 0 of 300 bytes\nsending f\\n: 10 %, 30 of 300 bytes\n"
              "sending f\\n: 100 %, 300 of 300 bytes\naccepted by 1:2: job J, printing\n"
              "job 42 %: printing  20.2 C  0:59\njob 49 %: paused  20.2 C  0:59\n"
              "job 50 %: printing  20.2 C  0:59\nfinished after 0:59: job J\n");
    const std::string objects = written(true, push);
    EXPECT_EQ(std::count(objects.begin(), objects.end(), '\n'), 9);
}

TEST(Output, FollowsTheProgressOfAnUpdate) {
    const auto update = [](Output& out) {
        UpdateReporter reporter(out);
        reporter.step("dfu_mode", "S", "in DFU mode");
        for (const double percent : {0.0, 5.0, 10.0})
            reporter.downloading("S", percent);
        reporter.end_download();
        reporter.done("1:2", "S", "", "2");
        reporter.done("1:2", "S", "2", "2");
        reporter.done("1:2", "S", "1", "2");
    };
    EXPECT_EQ(written(false, update),
              "in DFU mode\ndownloading: 0 %\ndownloading: 10 %\nupdated: 1:2 runs version 2\n"
              "written: 1:2 runs version 2, as before\n"
              "updated: 1:2 runs version 2, before it was 1\n");
}

TEST(Output, ShowsEvents) {
    setenv("TZ", "UTC0", 1);
    const servo_trace_msg sample{1, 2, 3, 4, 5, 6, 7};
    const auto events = [&](Output& out) {
        for (const DebugText& text : {DebugText("a\n\r\n"), DebugText("\n"), DebugText()})
            print_event(out, {{1, 2}, {}, text});
        print_event(out, {{1, 2}, {}, sample});
        print_event(out, {{1, 2}, {}, Connected{}});
    };
    EXPECT_EQ(written(false, events),
              "00:00:00.000  a\n00:00:00.000  \n00:00:00.000  \n00:00:00.000  servo 1  state 2  "
              "count 3  commanded 4  at 5  pwm 6  pad-out 7\n");
    const std::string head = R"({"time":"1970-01-01T00:00:00.000Z","device":"1:2","event":)";
    EXPECT_EQ(written(true, events),
              head +
                  R"("debug_event","text":"a\n\r\n"})"
                  "\n" +
                  head +
                  R"("debug_event","text":"\n"})"
                  "\n" +
                  head +
                  R"("debug_event","text":null})"
                  "\n" +
                  head +
                  R"("servo_dc_trace_event","sample":{"servo_name":1,"servo_state":2,"int_cnt":3,)"
                  R"("pos_cmd":4,"pos":5,"pwm":6,"padout_dist":7}})"
                  "\n");
}

TEST(Output, DrawsOnWhatCanMoveItsCursor) {
    const StopSource stop(-1);
    const FileDescriptor terminal(posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC));
    ASSERT_TRUE(terminal.valid());
    const std::pair<const char*, bool> terms[] = {{"xterm", true}, {"dumb", false}, {"", false}};
    for (const auto& [term, moves] : terms) {
        setenv("TERM", term, 1);
        EXPECT_EQ(Output(terminal, stop, false).redraws(), moves) << term;
        EXPECT_FALSE(Output(terminal, stop, true).redraws()) << term;
    }
    EXPECT_EQ(Output(terminal, stop, false).columns(), 80U);
    const winsize size{24, 33, 0, 0};
    ASSERT_EQ(ioctl(terminal.get(), TIOCSWINSZ, &size), 0);
    EXPECT_EQ(Output(terminal, stop, false).columns(), 33U);
    setenv("TERM", "xterm", 1);
    const std::string bars = written(false, [](Output& out) {
        EXPECT_FALSE(out.redraws());
        ProgressBar bar(out);
        bar.finish();
        for (const bool always : {false, false, true})
            bar.draw(50, "A", std::string(90, 'b'), always);
        bar.finish();
    });
    const std::string drawn = "\r\x1b[2KA  50.0 %  " + std::string(68, 'b');
    EXPECT_EQ(bars, drawn + drawn + "\n") << "too soon the second time";
}

}  // namespace
}  // namespace jovu_cli
