// The servos: where moves end, which moves they make, what a trace shows.
#include <gtest/gtest.h>

#include <cmath>
#include <set>

#include "firmware_host.h"

namespace jovusim::test {
namespace {

using Host = FirmwareHost;

/// Waits for the end of a move. Returns how long it took, in ms.
Millis finish(Host& host, const char* active = "move_active 0") {
    const Millis begin = host.now;
    while (host.ask(active) == 1 && host.now - begin < 60000)
        host.wait(10);
    return host.now - begin;
}

TEST(ServoTest, AMoveEndsExactlyAtItsTargetInItsTime) {
    for (const double target : {0.005, 1.0, 33.335, 200.0}) {
        for (const double speed : {25.0, 50.0, 300.0}) {
            Host host;
            const Json move = {{"target", target}, {"speed_f", speed}};
            EXPECT_EQ(host.ask("move 0 " + move.dump()), 0);
            EXPECT_EQ(host.ask("move 0 {}"), 4) << "one at a time";
            EXPECT_EQ(host.ask("move_dir_get 0"), 1);
            const Millis took = finish(host);
            const auto native = std::lround(target * 200);
            EXPECT_EQ(host.ask("position_get 0"), native) << target;
            EXPECT_EQ(host.ask("position_get_client 0"),
                      static_cast<float>(static_cast<double>(native) / 200));
            EXPECT_GE(took, static_cast<Millis>(target / speed * 1000)) << target << " " << speed;
            EXPECT_LE(took, static_cast<Millis>(target / speed * 1000) + 1000) << target;
            EXPECT_EQ(host.ask("move_dir_get 0"), 0);
        }
    }
}

// Each line is a conversation with a new machine.
constexpr const char* kConversations[] = {
    R"(move 4 {"target":10} -> 1; move_active 4 -> 0; target_get_client 4 -> 0.0;)",
    R"(move -1 {"target":10} -> 1; move 0 {"move_type":2} -> 2; move 0 {"speed_f":0} -> 2;
move 0 {"accel_f":0} -> 2; move 0 {"decel_f":0} -> 2; move 0 {"speed_f":300.5} -> 3;
move 0 {"accel_f":8000.5} -> 3; move 0 {"decel_f":8000.5} -> 3; move 0 {"target":200.5} -> 3;
move 0 {"target":-0.5} -> 3; move 3 {"target":1e300} -> 3; move_active 0 -> 0;
target_get_client 0 -> 0.0; move 0 {"target":0} -> 0; move_active 0 -> 1;)",
    R"(move 0 {"target":200,"speed_f":300,"accel_f":8000,"decel_f":8000} -> 0;
target_get_client 0 -> 200.0; move 3 {"target":-500,"speed_f":300} -> 0;
target_get_client 3 -> -500.0;
move 1 {"move_type":1,"distance":5,"slave_ratio":2} -> 0; target_get_client 1 -> 5.0;
move 2 {"move_type":1,"distance":5,"slave_ratio":2,"slaved":1} -> 0; target_get_client 2 -> 10.0;)",
    // Synchronous moves: an idle command or a trace does not start them, and each is made once.
    R"(position_set_client 0 20.0 -> 0; move 0 {"move_type":1,"distance":-5,"start_sync":1} -> 0;
move 1 {"target":30,"start_sync":1} -> 0; move 2 {"target":30,"start_sync":1} -> 0;
trace_enable 1 1 -> 0; trace_enable 1 0 -> 0; put_idle 2 -> 1; +200; move_active 0 -> 0;
move_active 1 -> 0; target_get_client 0 -> 15.0; move_start_sync -> 0; move_active 0 -> 1;
move_active 2 -> 0; move_dir_get 0 -> 2; move_dir_get 1 -> 1; +2000; position_get 0 -> 3000;
position_get 1 -> 6000; move_start_sync -> 0; move_active 0 -> 0; move 0 {"target":100} -> 0;
+100; position_set 0 -7 -> 0; +100; position_get 0 -> -7; move_active 0 -> 0;)",
    // Changing a move: refused without one, validated, then faster, elsewhere, stopped.
    R"(move_modify {"vel":20} 1 1 -> 2; trace_enable 0 1 -> 0; +50; move_modify {"vel":20} 1 1 -> 2;
trace_enable 0 0 -> 0; position_set 0 0 -> 0; move 0 {"target":100} -> 0; move_modify {} 1 1 -> 0;
move_modify {"servo_name":4} 1 1 -> 1; move_modify {"type":3} 1 1 -> 3;
move_modify {"type":3,"active":0} 1 1 -> 0; move_modify {"type":3} 0 1 -> 0;
move_modify {"vel":300.5} 1 1 -> 3; move_modify {"vel":-1} 1 1 -> 3;
move_modify {"accel":8000.5} 1 1 -> 3; move_modify {"accel":-1} 1 1 -> 3;
move_modify {"decel":8000.5} 1 1 -> 3; move_modify {"decel":-1} 1 1 -> 3;
move_modifier_validate {"decel":-1} 1 -> 0; move_modifier_validate {} 1 -> 1;
move_modify {"type":1,"pos":60,"use_validation_pos":1} 1 1 -> 4; +500;
move_modify {"type":1,"pos":60,"use_validation_pos":1} 1 1 -> 4;
move_modify {"type":1,"pos":500} 1 1 -> 3;
move_modify {"vel":300,"accel":8000,"decel":8000} 1 1 -> 0;
move_modify {"type":1,"pos":60,"use_validation_pos":1,"validation_pos":50} 1 1 -> 0; +890;
position_get 0 -> 12000; move_active 0 -> 0; move 0 {"target":160} -> 0; +300;
move_modify {"type":1,"pos":90,"use_validation_pos":1} 1 0 -> 0; target_get_client 0 -> 90.0;
move_modify {"type":2} 1 1 -> 0; +500; move_active 0 -> 0;)",
    // Configurations: refused ones change nothing, bad ones stall or do not arrive.
    R"(config_set 0 {"interrupt_frequency":0} -> 0 servo: configuration refused;
config_set 0 {"pwm_cap":0} -> 0 servo: configuration refused;
config_set 0 {"pos_res_eu_per_mm":0} -> 0 servo: configuration refused;
config_set 0 {"speed_max":0} -> 0 servo: configuration refused;
config_set 0 {"accel_max":0} -> 0 servo: configuration refused; config_set 0 {"pwm_cap_time":0} -> 0;
move 0 {"target":1} -> 0; +1990; position_get 0 -> 200; target_get_client 0 -> 1.0;
?servos/0/state -> 0; config_set 0 {"pwm_cap":1} -> 0; move 0 {"target":2} -> 0; +1990;
position_get 0 -> 200; target_get_client 0 -> 1.0; ?servos/0/state -> 6;
move 0 {"target":2,"ignore_stalls":1} -> 0; +1990; position_get 0 -> 200; ?servos/0/state -> 0;)",
    R"(config_set 0 {"gains":{"kp":0,"ki":0,"kd":0,"ka":0,"kv":0,"kf":0}} -> 0; move 0 {"target":1} -> 0;
+1990; position_get 0 -> 0; target_get_client 0 -> 0.0; ?servos/0/state -> 0;)",
    R"(units_client_to_native 2 1.5 -> 1200; units_native_to_client 2 -400 -> -0.5;
units_client_to_native 0 1e9 -> 2147483647; position_set 1 -123456789 -> 0;
position_get 1 -> -123456789; name_str_get 3 -> [69,0];)",
};

TEST(ServoTest, Conversations) {
    for (const std::string script : kConversations)
        EXPECT_EQ(Host().play(script), script);
    Host host;
    host.play(R"(move 0 {"target":160};+300;move_modify {"type":2} 1 1;+1000;)");
    EXPECT_LT(host.ask("position_get_client 0"), 20.0) << "a stop is short";
}

TEST(ServoTest, MeasuresAndCutsAMove) {
    int all = 0;
    for (const int skip : {0, 1, 40}) {
        Host host;
        host.ask("move 0 " + Json({{"target", 20}, {"metric_skip", skip}}).dump());
        const std::string cruising = "+200;move_dir_get 0 -> 1;?servos/0/state -> 2;";
        EXPECT_EQ(host.play(cruising), cruising);
        finish(host);
        const Json metrics = host.ask("move_metrics_get 0");
        if (skip == 0) all = metrics["n"];
        EXPECT_EQ(metrics["n"], all - skip);
        EXPECT_GT(metrics["M2"], 0);
    }
    Host host;
    host.ask(R"(move 0 {"target":100,"max_cycles":100})");
    EXPECT_LT(finish(host), 1000);
    EXPECT_LT(host.ask("position_get_client 0"), 10);
}

/// The samples among what the device has sent.
std::vector<Json> samples(Host& host) {
    std::vector<Json> out;
    for (const Json& message : Host::messages(host.read(kMessageIn))) {
        if (!message["data"].contains("event")) continue;
        EXPECT_EQ(message["data"]["event"]["name"], "servo_dc_trace_event");
        out.push_back(message["data"]["event"]["args"]["msg"]);
    }
    return out;
}

TEST(TraceTest, HasOneSampleForEachMillisecondAtAnyTimeScale) {
    for (const double time_scale : {1.0, 100.0}) {
        Host host(time_scale);
        host.play("position_set_client 1 50.0;trace_enable 1 1;");
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
        EXPECT_TRUE(200 < idle && idle < 500) << "it pauses after each leg: " << idle;
        EXPECT_TRUE(2 < error && error < 100) << "the axis follows with an error: " << error;
        host.ask("trace_enable 1 0");
        finish(host, "move_active 1");
        EXPECT_EQ(host.ask("position_get 1"), 10000) << "it returns to its position";
        EXPECT_EQ(samples(host).size(), 0U);
    }
}

TEST(TraceTest, ACommandedMoveEndsTheCycle) {
    for (const Millis delay : {137, 280}) {  // on a leg, and in the pause after it
        Host host;
        host.play("position_set_client 0 50.0;trace_enable 0 1;");
        host.wait(delay);
        const std::string move =
            R"(move 0 {"move_type":1,"distance":5} -> 0;trace_enable 0 0 -> 0;)"
            "+10;trace_enable 0 1 -> 0;+3000;position_get 0 -> 11000;";
        EXPECT_EQ(host.play(move), move) << "from where the cycle began: " << delay;
        samples(host);
        host.controller.host_closed();
        host.wait(50);
        host.controller.host_opened();
        host.wait(10);
        EXPECT_EQ(samples(host).size(), 10U) << "none while no program has the device open";
    }
}

TEST(TraceTest, PlayIsTakenUpAfterEachTurn) {
    for (const bool flush : {false, true}) {
        Host host;
        host.play("backlash_set 0 100 0;position_set 0 9999;trace_enable 0 1;");
        std::vector<Json> seen;
        for (const bool turned : {false, true}) {
            do {
                host.wait(1);
                seen = samples(host);
            } while ((seen.back()["padout_dist"] > 0) != turned);
        }
        EXPECT_GT(seen.back()["padout_dist"], 90);
        const int stands = seen.back()["pos"];
        host.ask(flush ? "backlash_set 0 100 1" : "backlash_set 0 100 0");
        host.wait(4);
        seen = samples(host);
        EXPECT_EQ(seen.back()["padout_dist"] == 0, flush);
        EXPECT_TRUE(flush || seen.back()["pos"] == stands);
    }
}

TEST(TraceTest, LossesAreCountedAndShow) {
    Host host;
    host.ask("trace_enable 3 0");
    EXPECT_EQ(host.ask("move_active 3"), 0);
    host.play("trace_enable 3 1;+100;trace_enable 3 0;");
    EXPECT_NE(host.ask("position_get 3"), 0) << "an axis without an end has room";
    finish(host, "move_active 3");
    samples(host);
    host.play("trace_enable 0 1;+10000;");
    const std::uint64_t dropped = host.stats()["message"]["dropped"];
    EXPECT_GT(dropped, 0U);
    host.send(kMessageOut, Host::framed(Host::command(2, 0, "bio_get_version")));
    EXPECT_EQ(host.stats()["message"]["dropped"], dropped) << "there is room for responses";
    EXPECT_EQ(samples(host).size() + dropped, 10000U);
}

}  // namespace
}  // namespace jovusim::test
