// SPDX-License-Identifier: Apache-2.0

/// @file
/// The state of the monitor and its lines, without a terminal and a bus.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <string>
#include <tuple>
#include <utility>

#include "monitor/view.h"

namespace jovu_cli {
namespace {

using namespace std::chrono_literals;
using Kind = MonitorRequest::Kind;

/// A model with a clock, whose requests are answered when a row says so.
struct Scene {
    static StatusReport report(const std::string& state, double temperature = 20) {
        StatusReport report;
        report.state = state;
        report.file = "part.gcode";
        report.progress = 25;
        report.time_elapsed = 60;
        report.extruder_temperature = temperature;
        return report;
    }
    template <class What>
    void take(std::uint8_t address, What what) {
        model.take(Notification{{1, address}, {}, what}, now);
    }
    /// Ends the requests that are in progress.
    void end_requests(const std::string& failure = "", const std::string& serial = "A") {
        for (const MonitorRequest& request : std::exchange(requests, {}))
            model.take(MonitorOutcome{request, failure, serial, unopened}, now);
    }
    void pass(std::chrono::seconds time) {
        now += time;
        sent.clear();
        for (const MonitorRequest& request : model.due(now)) {
            requests.push_back(request);
            sent += "fista"[static_cast<int>(request.kind)];
        }
    }
    std::string text(unsigned rows = 20) const {
        std::string text;
        for (const ScreenLine& line : monitor_lines(model, {rows, 100}, now)) {
            for (const Span& span : line)
                text += span.text;
            text += '\n';
        }
        return text;
    }

    MonitorModel model;
    MonitorModel::Time now{100s};
    std::vector<MonitorRequest> requests;
    /// The kinds of the requests that the last pass() started, in their order: "f" find_unopened,
    /// "i" identify, "s" status, "t" toggle_pause, "a" abort.
    std::string sent;
    std::vector<std::pair<JovuDeviceAddress, std::string>> unopened;
};

TEST(MonitorModel, FollowsWhatArrivesAndAsksBeforeItSends) {
    Scene s;
    const auto key = [&](MonitorKey pressed) { s.model.press(pressed, s.now); };
    const auto confirm = [&](MonitorKey pressed) { key(pressed), key(MonitorKey::yes); };
    using K = MonitorKey;
    // What happens, the requests made after it, and what the screen shows.
    const std::tuple<std::function<void()>, const char*, const char*> rows[] = {
        {[] {}, "f", "waiting for a controller"},
        {[&] { s.take(2, Connected{}); }, "is", "> 1:2"},
        {[&] { s.take(2, Scene::report("printing")), s.end_requests(); }, "", "1:2      A  prin"},
        {[] {}, "", "25.0 % [==========>                             ]  1:00 elapsed, 3:00 left"},
        {[&] { s.pass(1s); }, "s", "printing"},
        {[&] { s.end_requests(), s.pass(3s); }, "f", "does not respond for 0:03"},
        {[&] { s.pass(1s); }, "", "does not respond for 0:04"},
        {[&] { s.pass(1s); }, "s", "does not respond for 0:05"},
        {[&] { s.end_requests("unsent"), s.pass(29s); }, "f", "unsent\n"},
        {[&] { s.take(2, Scene::report("printing", HUGE_VAL)); }, "s", "\u2581      \u2588"},
        // One request toggles: only a state that is requested after the question counts.
        {[&] { key(K::resume); }, "", "no job to resume: 1:2 (A) reports the state printing"},
        {[&] { key(K::pause), key(K::other); }, "", "pause the job of 1:2 (A)? y/n"},
        {[&] { key(K::no); }, "", "pause: nothing was sent"},
        {[&] { s.end_requests(), s.pass(1s), confirm(K::pause); }, "s", ""},
        {[&] { s.end_requests(), s.take(2, Scene::report("paused")); }, "", "pause was not sent"},
        {[&] { s.pass(1s); }, "fs", ""},
        {[&] { s.pass(1s), confirm(K::resume), s.take(2, Scene::report("paused")); }, "", ""},
        {[&] { s.end_requests(); }, "s", ""},
        {[&] { s.take(2, Scene::report("paused")); }, "", ""},
        {[&] { s.end_requests(); }, "t", ""},
        {[&] { s.end_requests(); }, "s", "resume was sent to 1:2 (A)"},
        {[&] { s.end_requests(), confirm(K::abort); }, "a", ""},
        {[&] { s.end_requests("it failed"); }, "s", "it failed"},
        {[&] { s.end_requests(), s.take(2, Scene::report("printing")); }, "", ""},
        {[&] { s.pass(1s), s.end_requests(), confirm(K::pause); }, "s", ""},
        {[&] { s.end_requests(), s.pass(6s); }, "fs", "pause was not sent: 1:2 (A) does not resp"},
        // Replugged: notified in the wrong order, at another address, without a serial number.
        {[&] { s.end_requests(), s.take(2, Connected{}), s.take(2, Disconnected{}); }, "is",
         "conn"},
        {[&] { s.end_requests(), s.take(2, Disconnected{}), s.pass(4s); }, "f", "unplugged 0:04 a"},
        {[&] { s.take(3, Connected{}); }, "is", "  1:3      "},
        {[&] { s.end_requests(); }, "", "> 1:3      A  connecting"},
        {[&] { key(K::abort), s.take(3, Disconnected{}); }, "", "was unplugged: nothing was sent"},
        {[&] { s.take(3, Connected{}), s.pass(0s), s.take(3, Disconnected{}); }, "is", "unplugged"},
        {[&] { s.end_requests("", "B"), s.pass(61s); }, "f", "waiting"},
        // What cannot be opened is shown when it is found twice.
        {[&] {
             s.unopened = {{{1, 9}, "in use"}}, s.end_requests(), s.pass(2s);
         },
         "f", "waiting"},
        {[&] { s.end_requests(), s.pass(2s); }, "f", "not open"},
        {[&] { s.unopened.clear(), s.end_requests(); }, "", "waiting"},
    };
    int number = 0;
    for (const auto& [happens, sent, shown] : rows) {
        s.sent.clear();
        happens();
        const std::string before = s.sent;
        s.pass(0s);
        EXPECT_EQ(before + s.sent, sent) << number;
        EXPECT_THAT(s.text(), testing::HasSubstr(shown)) << number;
        ++number;
    }
    for (std::uint8_t address = 10; address < 16; ++address)
        s.take(address, Connected{});
    for (int i = 0; i < 4; ++i)
        key(K::down);
    EXPECT_THAT(s.text(9), testing::HasSubstr("not shown: 4 above"));
    EXPECT_THAT(s.text(8), testing::HasSubstr("not shown: 4 above"));
    EXPECT_THAT(s.text(7), testing::HasSubstr("> 1:14"));
    for (const unsigned rows_of_screen : {0U, 1U, 2U, 5U})
        EXPECT_EQ(monitor_lines(s.model, {rows_of_screen, 1}, s.now).size(), rows_of_screen);
}

}  // namespace
}  // namespace jovu_cli
