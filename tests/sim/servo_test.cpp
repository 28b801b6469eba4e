// The servos: where moves end, what they may do, what a trace shows.
#include <gtest/gtest.h>

#include <cmath>

#include "firmware_host.h"

namespace jovusim::test {
namespace {

using Host = FirmwareHost;

struct Move {
    double target = 0;
    double speed = 50;
    int servo = 0;
    int type = 0;
    double distance = 0;
    int sync = 0;

    std::string args() const {
        const Json config = {{"move_type", type},
                             {"start_sync", sync},
                             {"target", target},
                             {"distance", distance},
                             {"speed_f", speed},
                             {"accel_f", 1000},
                             {"decel_f", 1000},
                             {"max_cycles", 0},
                             {"metric_skip", 0},
                             {"speed_offset_upramp_f", 0},
                             {"speed_offset_downramp_f", 0},
                             {"ignore_stalls", 0},
                             {"slaved", 0},
                             {"slave_ratio", 1}};
        return R"({"servo_name":)" + std::to_string(servo) + R"(,"move_config":[)" + config.dump() +
               "]}";
    }
};

int start(Host& host, const Move& move) {
    return host.result("servo_dc_move", move.args());
}

Json ask(Host& host, const std::string& name, int servo = 0) {
    return host.result("servo_dc_" + name, R"({"servo_name":)" + std::to_string(servo) + "}");
}

/// Waits for the end of a move. Returns how long it took, in ms.
Millis finish(Host& host, int servo = 0) {
    const Millis begin = host.now;
    while (ask(host, "move_active", servo) == 1 && host.now - begin < 60000)
        host.wait(10);
    return host.now - begin;
}

TEST(ServoTest, AMoveEndsExactlyAtItsTargetInItsTime) {
    for (const double target : {0.005, 1.0, 33.335, 200.0}) {
        for (const double speed : {25.0, 50.0, 300.0}) {
            Host host;
            ASSERT_EQ(start(host, {target, speed}), 0);
            EXPECT_EQ(start(host, {1}), 4) << "one at a time";
            EXPECT_EQ(ask(host, "move_dir_get"), 1);
            const Millis took = finish(host);
            EXPECT_EQ(ask(host, "position_get"), std::lround(target * 200)) << target;
            EXPECT_NEAR(ask(host, "position_get_client").get<double>(), target, 1e-4);
            EXPECT_GE(took, static_cast<Millis>(target / speed * 1000)) << target << " " << speed;
            EXPECT_LE(took, static_cast<Millis>(target / speed * 1000) + 1000) << target;
            EXPECT_EQ(ask(host, "move_dir_get"), 0);
        }
    }
}

TEST(ServoTest, RefusesWhatItCannotDo) {
    Host host;
    EXPECT_EQ(start(host, {10, 50, 4}), 1);
    EXPECT_EQ(start(host, {10, 50, -1}), 1);
    EXPECT_EQ(start(host, {10, 50, 0, 7}), 2);
    EXPECT_EQ(start(host, {10, 0}), 2);
    EXPECT_EQ(start(host, {200.5}), 3);
    EXPECT_EQ(start(host, {-0.5}), 3);
    EXPECT_EQ(start(host, {10, 301}), 3);
    EXPECT_EQ(start(host, {1e300, 50, 3}), 3) << "the extruder has no end, the encoder has";
    EXPECT_EQ(start(host, {-500, 300, 3}), 0);
    EXPECT_EQ(ask(host, "move_active"), 0);
}

TEST(ServoTest, RelativeAndSynchronousMoves) {
    Host host;
    host.result("servo_dc_position_set_client", R"({"servo_name":0,"position":20.0})");
    EXPECT_EQ(start(host, {0, 50, 0, 1, -5, 1}), 0);
    EXPECT_EQ(start(host, {30, 50, 1, 0, 0, 1}), 0);
    host.wait(200);
    EXPECT_EQ(ask(host, "move_active"), 0);
    EXPECT_EQ(ask(host, "target_get_client"), 15.0);
    host.result("servo_dc_move_start_sync");
    EXPECT_EQ(ask(host, "move_active"), 1);
    EXPECT_EQ(ask(host, "move_dir_get"), 2);
    EXPECT_EQ(ask(host, "move_dir_get", 1), 1);
    finish(host, 1);
    EXPECT_EQ(ask(host, "position_get"), 3000);
    EXPECT_EQ(ask(host, "position_get", 1), 6000);
}

std::string modifier(int type, double pos, double speed, bool validate, double validation_pos) {
    const Json data = {{"servo_name", 0},
                       {"type", type},
                       {"pos", pos},
                       {"vel", speed},
                       {"accel", 0},
                       {"decel", 0},
                       {"validation_pos", validation_pos},
                       {"use_validation_pos", int{validate}},
                       {"decel_ramp_skip", 0},
                       {"data", 0},
                       {"active", 1}};
    return "[" + data.dump() + R"(],"count":1)";
}

TEST(ServoTest, ARunningMoveCanBeChanged) {
    Host host;
    const auto modify = [&host](const std::string& data) {
        return host.result("servo_dc_move_modify",
                           "{\"modifer_data\":" + data + R"(,"validate":1})");
    };
    EXPECT_EQ(modify(modifier(0, 0, 20, false, 0)), 2) << "nothing moves";
    start(host, {100});
    host.wait(500);
    EXPECT_EQ(host.result("servo_dc_move_modifier_validate",
                          "{\"modifier_data\":" + modifier(1, 60, 0, true, 5) + "}"),
              0)
        << "that place is behind it";
    EXPECT_EQ(modify(modifier(1, 60, 0, true, 5)), 4);
    EXPECT_EQ(modify(modifier(1, 500, 0, false, 0)), 3);
    EXPECT_EQ(modify(modifier(1, 60, 100, true, 50)), 0);
    finish(host);
    EXPECT_EQ(ask(host, "position_get"), 12000);
    start(host, {160});
    host.wait(300);
    EXPECT_EQ(modify(modifier(2, 0, 0, false, 0)), 0);
    finish(host);
    EXPECT_LT(ask(host, "position_get_client"), 80.0);
}

TEST(ServoTest, WithoutGainsItDoesNotMoveAndGivesUp) {
    Host host;
    Json config = ask(host, "config_get");
    for (Json& gain : config["gains"])
        gain = 0;
    const auto set = [&] {
        host.result("servo_dc_config_set", R"({"servo_name":0,"config":)" + config.dump() + "}");
    };
    set();
    EXPECT_EQ(ask(host, "config_get"), config);
    start(host, {1});
    EXPECT_LT(finish(host), 2000);
    EXPECT_EQ(ask(host, "position_get"), 0);
    const Json good = config;
    config["pos_res_eu_per_mm"] = 0;
    set();
    EXPECT_EQ(ask(host, "config_get"), good) << "a bad configuration was taken";
}

TEST(ServoTest, ConvertsUnits) {
    Host host;
    EXPECT_EQ(
        host.result("servo_dc_units_client_to_native", R"({"servo_name":2,"pos_client":1.5})"),
        1200);
    EXPECT_EQ(
        host.result("servo_dc_units_native_to_client", R"({"servo_name":2,"pos_native":-400})"),
        -0.5);
    EXPECT_EQ(
        host.result("servo_dc_units_client_to_native", R"({"servo_name":0,"pos_client":1e9})"),
        2147483647);
    host.result("servo_dc_position_set", R"({"servo_name":1,"position":-123456789})");
    EXPECT_EQ(ask(host, "position_get", 1), -123456789);
    EXPECT_EQ(ask(host, "name_str_get", 3).dump(), Host::bytes_of("E"));
}

/// The trace's samples among what the device has sent.
std::vector<Json> samples(Host& host) {
    std::vector<Json> out;
    for (const Json& message : Host::messages(host.read(kMessageIn))) {
        if (message["data"].contains("event")) {
            EXPECT_EQ(message["data"]["event"]["name"], "servo_dc_trace_event");
            out.push_back(message["data"]["event"]["args"]["msg"]);
        }
    }
    return out;
}

TEST(TraceTest, HasOneSampleForEachMillisecondWhateverThePaceIs) {
    for (const double pace : {1.0, 100.0}) {
        Host host(pace);
        host.result("servo_dc_position_set_client", R"({"servo_name":1,"position":50.0})");
        host.result("servo_dc_trace_enable", R"({"servo_name":1,"enable":1})");
        std::vector<Json> all;
        int lowest = 1 << 30;
        int highest = 0;
        double error = 0;
        for (const Millis step : {1, 1, 7, 991, 0, 2000}) {
            host.now += step;
            host.controller.tick(host.now);
            for (const Json& sample : samples(host))
                all.push_back(sample);
        }
        ASSERT_EQ(all.size(), 3000U);
        for (std::size_t i = 0; i < all.size(); ++i) {
            EXPECT_EQ(all[i]["int_cnt"], all[0]["int_cnt"].get<unsigned>() + i);
            const int at = all[i]["pos"];
            lowest = std::min(lowest, at);
            highest = std::max(highest, at);
            error = std::max(error, std::fabs(all[i]["pos_cmd"].get<double>() - at));
        }
        EXPECT_LT(lowest, 50 * 200 - 1000) << "the cycle goes to one side";
        EXPECT_GT(highest, 50 * 200 + 1000) << "and to the other";
        EXPECT_GT(error, 2) << "an axis follows with an error";
        EXPECT_LT(error, 100);
        host.result("servo_dc_trace_enable", R"({"servo_name":1,"enable":0})");
        finish(host, 1);
        EXPECT_EQ(ask(host, "position_get", 1), 10000) << "it returns to where it was";
        EXPECT_EQ(samples(host).size(), 0U);
    }
}

TEST(TraceTest, ACommandedMoveEndsTheCycle) {
    for (const Millis delay : {137, 280}) {  // on a leg, and in the pause behind it
        Host host;
        host.result("servo_dc_position_set_client", R"({"servo_name":0,"position":50.0})");
        host.result("servo_dc_trace_enable", R"({"servo_name":0,"enable":1})");
        host.wait(delay);
        EXPECT_EQ(start(host, {0, 50, 0, 1, 5}), 0);
        host.wait(3000);
        EXPECT_EQ(ask(host, "position_get"), 55 * 200) << "from where the cycle began: " << delay;
        samples(host);
        host.controller.host_left();
        host.wait(50);
        host.controller.host_came();
        host.wait(10);
        EXPECT_EQ(samples(host).size(), 10U) << "none is made while nobody has the device open";
    }
}

TEST(TraceTest, LossesAreCountedAndShow) {
    Host host;
    host.result("servo_dc_trace_enable", R"({"servo_name":0,"enable":1})");
    host.wait(10000);
    const std::uint64_t dropped = host.stats()["message"]["dropped"];
    EXPECT_GT(dropped, 0U);
    host.send(kMessageOut, Host::framed(Host::command(2, 0, "bio_get_version")));
    EXPECT_EQ(host.stats()["message"]["dropped"], dropped) << "there is room for answers";
    const auto kept = samples(host);
    EXPECT_EQ(kept.size() + dropped, 10000U);
}

}  // namespace
}  // namespace jovusim::test
