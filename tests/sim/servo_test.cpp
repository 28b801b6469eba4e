// The servos: where moves end, what they may do, what a trace shows.
#include <gtest/gtest.h>

#include <cmath>
#include <set>

#include "firmware_host.h"

namespace jovusim::test {
namespace {

using Host = FirmwareHost;

/// Orders a move from the default of the tests. @param changes members of its configuration
int start(Host& host, Json changes, int servo = 0) {
    Json config = {{"move_type", 0},
                   {"start_sync", 0},
                   {"target", 0.0},
                   {"distance", 0.0},
                   {"speed_f", 50},
                   {"accel_f", 1000},
                   {"decel_f", 1000},
                   {"max_cycles", 0},
                   {"metric_skip", 0},
                   {"speed_offset_upramp_f", 0},
                   {"speed_offset_downramp_f", 0},
                   {"ignore_stalls", 0},
                   {"slaved", 0},
                   {"slave_ratio", 1}};
    config.update(changes);
    return host.result("servo_dc_move", R"({"servo_name":)" + std::to_string(servo) +
                                            R"(,"move_config":[)" + config.dump() + "]}");
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
            ASSERT_EQ(start(host, {{"target", target}, {"speed_f", speed}}), 0);
            EXPECT_EQ(start(host, {{"target", 1}}), 4) << "one at a time";
            EXPECT_EQ(ask(host, "move_dir_get"), 1);
            const Millis took = finish(host);
            EXPECT_EQ(ask(host, "position_get"), std::lround(target * 200)) << target;
            EXPECT_EQ(ask(host, "position_get_client"),
                      static_cast<float>(static_cast<double>(std::lround(target * 200)) / 200));
            EXPECT_GE(took, static_cast<Millis>(target / speed * 1000)) << target << " " << speed;
            EXPECT_LE(took, static_cast<Millis>(target / speed * 1000) + 1000) << target;
            EXPECT_EQ(ask(host, "move_dir_get"), 0);
        }
    }
}

TEST(ServoTest, TakesTheMovesThatItCanMake) {
    const struct {
        int servo;
        Json changes;
        int result;
        double target = 0;  ///< if it is taken
    } cases[] = {
        {4, {{"target", 10}}, 1},
        {-1, {{"target", 10}}, 1},
        {0, {{"move_type", 2}}, 2},
        {0, {{"speed_f", 0}}, 2},
        {0, {{"accel_f", 0}}, 2},
        {0, {{"decel_f", 0}}, 2},
        {0, {{"target", 200}, {"speed_f", 300}, {"accel_f", 8000}, {"decel_f", 8000}}, 0, 200},
        {0, {{"speed_f", 300.5}}, 3},
        {0, {{"accel_f", 8000.5}}, 3},
        {0, {{"decel_f", 8000.5}}, 3},
        {0, {{"target", 200.5}}, 3},
        {0, {{"target", -0.5}}, 3},
        {0, {{"target", 0}}, 0, 0},
        {3, {{"target", 1e300}}, 3},  // the extruder has no end, the encoder has
        {3, {{"target", -500}, {"speed_f", 300}}, 0, -500},
        {0, {{"move_type", 1}, {"distance", 5}, {"slave_ratio", 2}}, 0, 5},
        {0, {{"move_type", 1}, {"distance", 5}, {"slave_ratio", 2}, {"slaved", 1}}, 0, 10},
    };
    for (const auto& c : cases) {
        Host host;
        EXPECT_EQ(start(host, c.changes, c.servo), c.result) << c.changes;
        EXPECT_EQ(ask(host, "move_active", c.servo), int{c.result == 0}) << c.changes;
        EXPECT_EQ(ask(host, "target_get_client", c.servo), c.target) << c.changes;
    }
}

TEST(ServoTest, MeasuresAndCutsAMove) {
    int all = 0;
    for (const int skip : {0, 1, 40}) {
        Host host;
        start(host, {{"target", 20}, {"metric_skip", skip}});
        host.wait(200);
        EXPECT_EQ(ask(host, "move_dir_get"), 1);
        EXPECT_EQ(host.machine()["servos"][0]["state"], 2) << "it cruises";
        finish(host);
        const Json metrics = ask(host, "move_metrics_get");
        if (skip == 0) all = metrics["n"];
        EXPECT_EQ(metrics["n"], all - skip);
        EXPECT_GT(metrics["M2"], 0);
    }
    Host host;
    start(host, {{"target", 100}, {"max_cycles", 100}});
    EXPECT_LT(finish(host), 1000);
    EXPECT_LT(ask(host, "position_get_client"), 10);
}

TEST(ServoTest, RelativeAndSynchronousMoves) {
    Host host;
    host.play("servo_dc_position_set_client 0 20.0;");
    EXPECT_EQ(start(host, {{"move_type", 1}, {"distance", -5}, {"start_sync", 1}}), 0);
    EXPECT_EQ(start(host, {{"target", 30}, {"start_sync", 1}}, 1), 0);
    EXPECT_EQ(start(host, {{"target", 30}, {"start_sync", 1}}, 2), 0);
    host.play("servo_dc_trace_enable 1 1;servo_dc_trace_enable 1 0;servo_dc_put_idle 2;+200;");
    EXPECT_EQ(ask(host, "move_active"), 0);
    EXPECT_EQ(ask(host, "move_active", 1), 0);
    EXPECT_EQ(ask(host, "target_get_client"), 15.0);
    host.result("servo_dc_move_start_sync");
    EXPECT_EQ(ask(host, "move_active"), 1);
    EXPECT_EQ(ask(host, "move_active", 2), 0);
    EXPECT_EQ(ask(host, "move_dir_get"), 2);
    EXPECT_EQ(ask(host, "move_dir_get", 1), 1);
    finish(host, 1);
    EXPECT_EQ(ask(host, "position_get"), 3000);
    EXPECT_EQ(ask(host, "position_get", 1), 6000);
    host.result("servo_dc_move_start_sync");
    EXPECT_EQ(ask(host, "move_active"), 0) << "it has been made";
    start(host, {{"target", 100}});
    host.play("+100;servo_dc_position_set 0 -7;+100;");
    EXPECT_EQ(ask(host, "position_get"), -7) << "that ends the move";
    EXPECT_EQ(ask(host, "move_active"), 0);
}

TEST(ServoTest, ARunningMoveCanBeChanged) {
    Host host;
    const auto modify = [&host](Json changes, int validate = 1, int count = 1) {
        Json data = {
            {"servo_name", 0},      {"type", 0},  {"pos", 0.0},          {"vel", 0},
            {"accel", 0},           {"decel", 0}, {"validation_pos", 0}, {"use_validation_pos", 0},
            {"decel_ramp_skip", 0}, {"data", 0},  {"active", 1}};
        if (!changes.is_null()) data.update(changes);
        const std::string rest = "[" + data.dump() + "],\"count\":" + std::to_string(count);
        const int result = host.result(
            "servo_dc_move_modify",
            "{\"modifer_data\":" + rest + ",\"validate\":" + std::to_string(validate) + "}");
        // Asked again, what has been carried out is still good.
        EXPECT_EQ(
            host.result("servo_dc_move_modifier_validate", "{\"modifier_data\":" + rest + "}"),
            int{result == 0 && validate == 1})
            << data;
        return result;
    };
    const Json start_of_it = {{"type", 1}, {"pos", 60}, {"use_validation_pos", 1}};
    EXPECT_EQ(modify({{"vel", 20}}), 2) << "nothing moves";
    host.play("servo_dc_trace_enable 0 1;+50;");
    EXPECT_EQ(modify({{"vel", 20}}), 2) << "nothing that was commanded moves";
    host.play("servo_dc_trace_enable 0 0;servo_dc_position_set 0 0;");
    start(host, {{"target", 100}});
    EXPECT_EQ(modify({}), 0) << "everything stays as it is";
    EXPECT_EQ(modify({{"servo_name", 4}}), 1);
    EXPECT_EQ(modify({{"type", 3}}), 3);
    EXPECT_EQ(modify({{"type", 3}, {"active", 0}}), 0);
    EXPECT_EQ(modify({{"type", 3}}, 1, 0), 0);
    for (const auto& [key, most] : {std::pair("vel", 300), {"accel", 8000}, {"decel", 8000}}) {
        EXPECT_EQ(modify({{key, most + 0.5}}), 3);
        EXPECT_EQ(modify({{key, -1}}), 3);
    }
    EXPECT_EQ(modify(start_of_it), 4) << "that place is where it is";
    host.wait(500);
    EXPECT_GT(ask(host, "position_get_client"), 15);
    EXPECT_EQ(modify(start_of_it), 4) << "that place is behind it";
    EXPECT_EQ(modify({{"type", 1}, {"pos", 500}}), 3);
    EXPECT_EQ(modify({{"vel", 300}, {"accel", 8000}, {"decel", 8000}}), 0);
    EXPECT_EQ(modify({{"type", 1}, {"pos", 60}, {"use_validation_pos", 1}, {"validation_pos", 50}}),
              0);
    EXPECT_LT(finish(host), 900) << "it is faster from then on";
    EXPECT_EQ(ask(host, "position_get"), 12000);
    start(host, {{"target", 160}});
    host.wait(300);
    EXPECT_EQ(modify({{"type", 1}, {"pos", 90}, {"use_validation_pos", 1}}, 0), 0);
    EXPECT_EQ(ask(host, "target_get_client"), 90);
    EXPECT_EQ(modify({{"type", 2}}), 0);
    finish(host);
    EXPECT_LT(ask(host, "position_get_client"), 80.0);
}

TEST(ServoTest, ItsConfigurationDecidesWhetherItArrives) {
    const struct {
        Json changes;
        bool taken;
        int state;     ///< at the end of a move
        int position;  ///< likewise
    } cases[] = {
        {{{"interrupt_frequency", 0}}, false, 0, 200},
        {{{"pwm_cap", 0}}, false, 0, 200},
        {{{"pos_res_eu_per_mm", 0}}, false, 0, 200},
        {{{"speed_max", 0}}, false, 0, 200},
        {{{"accel_max", 0}}, false, 0, 200},
        {{{"pwm_cap_time", 0}}, true, 0, 200},
        {{{"pwm_cap", 1}}, true, 6, 0},
        {{{"gains", {{"kp", 0}, {"ki", 0}, {"kd", 0}, {"ka", 0}, {"kv", 0}, {"kf", 0}}}},
         true,
         0,
         0},
    };
    for (const auto& c : cases) {
        Host host;
        const Json before = ask(host, "config_get");
        Json config = before;
        config.update(c.changes);
        const std::string set = host.play("servo_dc_config_set 0 " + config.dump() + ";");
        EXPECT_EQ(set.find("servo: configuration refused") == std::string::npos, c.taken) << set;
        EXPECT_EQ(ask(host, "config_get"), c.taken ? config : before);
        for (const int ignore_stalls : {0, 1}) {
            start(host, {{"target", 1}, {"ignore_stalls", ignore_stalls}});
            EXPECT_LT(finish(host), 2000) << set;
            EXPECT_EQ(ask(host, "position_get"), c.position) << set;
            EXPECT_EQ(ask(host, "target_get_client"), c.position / 200.0)
                << "where it is is its goal";
            EXPECT_EQ(host.machine()["servos"][0]["state"], ignore_stalls == 0 ? c.state : 0)
                << set;
        }
    }
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
    host.play("servo_dc_position_set 1 -123456789;");
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

TEST(TraceTest, HasOneSampleForEachMillisecondAtAnyTimeScale) {
    for (const double time_scale : {1.0, 100.0}) {
        Host host(time_scale);
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
        int idle = 0;
        std::set<int> states;
        for (std::size_t i = 0; i < all.size(); ++i) {
            EXPECT_EQ(all[i]["int_cnt"], all[0]["int_cnt"].get<unsigned>() + i);
            const int at = all[i]["pos"];
            states.insert(all[i]["servo_state"].get<int>());
            if (i < 1000) idle += int{all[i]["servo_state"] == 0};
            lowest = std::min(lowest, at);
            highest = std::max(highest, at);
            error = std::max(error, std::fabs(all[i]["pos_cmd"].get<double>() - at));
        }
        EXPECT_LT(lowest, 50 * 200 - 1000) << "the cycle goes to one side";
        EXPECT_GT(highest, 50 * 200 + 1000) << "and to the other";
        EXPECT_EQ(states, (std::set<int>{0, 1, 2, 3, 4}));
        EXPECT_NE(all[20]["servo_state"], 0) << "it begins at once";
        EXPECT_GT(idle, 200) << "and pauses behind each leg";
        EXPECT_LT(idle, 500);
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
        EXPECT_EQ(start(host, {{"move_type", 1}, {"distance", 5}}), 0);
        host.play("servo_dc_trace_enable 0 0;+10;servo_dc_trace_enable 0 1;+3000;");
        EXPECT_EQ(ask(host, "position_get"), 55 * 200) << "from where the cycle began: " << delay;
        samples(host);
        host.controller.host_closed();
        host.wait(50);
        host.controller.host_opened();
        host.wait(10);
        EXPECT_EQ(samples(host).size(), 10U) << "none is made while nobody has the device open";
    }
}

TEST(TraceTest, PlayIsTakenUpBehindEachTurn) {
    for (const bool flush : {false, true}) {
        Host host;
        host.play(
            "servo_dc_backlash_set 0 100 0;servo_dc_position_set 0 9999;"
            "servo_dc_trace_enable 0 1;");
        std::vector<Json> seen;
        for (const bool turned : {false, true}) {
            do {
                host.wait(1);
                seen = samples(host);
            } while ((seen.back()["padout_dist"] > 0) != turned);
        }
        EXPECT_GT(seen.back()["padout_dist"], 90);
        const int stands = seen.back()["pos"];
        host.play(flush ? "servo_dc_backlash_set 0 100 1;" : "servo_dc_backlash_set 0 100 0;");
        host.wait(4);
        seen = samples(host);
        EXPECT_EQ(seen.back()["padout_dist"] == 0, flush);
        EXPECT_TRUE(flush || seen.back()["pos"] == stands);
    }
}

TEST(TraceTest, LossesAreCountedAndShow) {
    Host host;
    host.play("servo_dc_trace_enable 3 0;");
    EXPECT_EQ(ask(host, "move_active", 3), 0);
    host.play("servo_dc_trace_enable 3 1;+100;servo_dc_trace_enable 3 0;");
    EXPECT_NE(ask(host, "position_get", 3), 0) << "an axis without an end has room";
    finish(host, 3);
    samples(host);
    host.result("servo_dc_trace_enable", R"({"servo_name":0,"enable":1})");
    host.wait(10000);
    const std::uint64_t dropped = host.stats()["message"]["dropped"];
    EXPECT_GT(dropped, 0U);
    host.send(kMessageOut, Host::framed(Host::command(2, 0, "bio_get_version")));
    EXPECT_EQ(host.stats()["message"]["dropped"], dropped) << "there is room for responses";
    const auto kept = samples(host);
    EXPECT_EQ(kept.size() + dropped, 10000U);
}

}  // namespace
}  // namespace jovusim::test
