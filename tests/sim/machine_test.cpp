// SPDX-License-Identifier: Apache-2.0

// The machine and its servos: that what is commanded happens, and shows. Each script is a
// conversation with a new machine.
#include <gtest/gtest.h>

#include <cmath>
#include <set>

#include "firmware_host.h"

namespace jovusim::test {
namespace {

using Host = FirmwareHost;

constexpr const char* kHeater =
    R"(heater_param_set 3 0.25 -> 0; heater_param_set 3 0.125 -> -1; heater_param_set 3 50.5 -> -1;
heater_param_set 3 50.0 -> 0; heater_param_set 6 1.0 -> -1;
heater_param_get 3 [0.0] -> 0 [50.0]; heater_param_get 6 [0.0] -> -1;
heater_param_set_defaults -> 0; heater_param_get 3 [0.0] -> 0 [3.0];
heater_var_set 0 300.5 -> -1; heater_var_set 0 300.0 -> 0; heater_var_set 0 -0.5 -> -1;
heater_var_set 0 0.0 -> 0; heater_var_set 1 20.0 -> -1; heater_var_get 4 [0.0] -> -1;
heater_var_set 0 26.75 -> 0; heater_turn_on -> 0; heater_state_get -> 1;
heater_in_guardband -> 0; heater_var_set 0 26.5 -> 0; heater_state_get -> 2;
heater_in_guardband -> 1; heater_var_set 0 180.0 -> 0; heater_var_get 2 [0.0] -> 0 [100.0];
+300; heater_state_get -> 1; +20000; heater_state_get -> 2;
heater_var_get 1 [0.0] -> 0 [180.0]; heater_var_set 0 100.0 -> 0; heater_state_get -> 3;
heater_param_set 4 90.0 -> 0; +10; heater_fault_get -> 2; heater_state_get -> 4;
heater_turn_on -> -1; command "M104 S0" -> 0; heater_fault_get -> 0;
heater_var_get 0 [0.0] -> 0 [100.0]; heater_var_set 3 60.5 -> -1;
heater_var_set 3 -20.0 -> 0; +20000; heater_var_get 1 [0.0] -> 0 [-20.0];
heater_var_get 2 [1.0] -> 0 [0.0]; heater_param_set 4 0.0 -> 0; Reset_printer -> 0;
heater_param_get 4 [0.0] -> 0 [300.0]; heater_var_get 0 [0.0] -> 0 [210.0];
heater_var_get 3 [0.0] -> 0 [23.5]; +20000; heater_param_set 4 18.5 -> 0;
heater_turn_on -> 0; heater_param_set 4 18.25 -> 0; heater_turn_on -> -1;)";

constexpr const char* kUnplugged =
    R"(!heater 0; turn_on -> -1; state_get -> 4; fault_get -> 1; !heater 1; turn_on -> 0;
fault_get -> 0; !heater 0; +20; fault_get -> 1;)";

constexpr const char* kInputs =
    R"(!input 0 1; gpio_get_raw 16 -> 1; gpio_input_get 0 0 -> 1; gpio_input_get 0 1 -> 0; +19;
gpio_input_get 0 1 -> 0; +1; gpio_input_get 0 1 -> 1; !input 0 0; gpio_input_get 0 0 -> 0;
gpio_input_get 0 1 -> 1; +19; gpio_input_get 0 1 -> 1; +1; gpio_input_get 0 1 -> 0;)";

constexpr const char* kCard =
    R"(sd_mmc_get_storage_info -> {"total_size":4194304,"block_count":8192,"block_size":512};
sd_mmc_write 511 [7] 64 -> 1; sd_mmc_write_byte 512 200 -> {"success":1,"timetowrite":240};
sd_mmc_read 510 [0] 4 -> 4 [255,7,200,255];
sd_mmc_read_byte 4194303 -> {"byteread":255,"timetoread":35};
sd_mmc_read_byte 4194304 -> {"byteread":-1,"timetoread":0};
sd_mmc_write_byte 4194304 1 -> {"success":0,"timetowrite":0};
sd_mmc_write 4194303 [1] 2 -> -1; sd_mmc_read 4294967295 [1] 2 -> -1;
sd_mmc_read 4194304 [0] 0 -> 0 [];)";

constexpr const char* kPanel =
    R"(ui_led 3 0 0 -> 0; ui_led 4 1 1 -> 0 led: 4 refused; ui_led 0 -1 0 -> 0 led: 0 refused;
ui_led 0 0 -1 -> 0 led: 0 refused; hbridge_duty_set 1 100 -> 0;
hbridge_duty_set 1 101 -> 0 hbridge: duty 101 of bridge 1 refused;
hbridge_duty_set 0 -100 -> 0;
hbridge_duty_set 0 -101 -> 0 hbridge: duty -101 of bridge 0 refused;
hbridge_duty_set 2 0 -> 0 hbridge: duty 0 of bridge 2 refused; gpio_output_set 15 1 -> 0;
gpio_output_set 16 1 -> 0 gpio: 16 is not an output; gpio_get_raw 15 -> 1; gpio_get_raw 16 -> 0;
gpio_get_raw 24 -> 0; gpio_input_get 8 1 -> 2; unload_initiate -> 0; load_initiate -> 1;
+3010; load_initiate -> 0; jm_disable_network_tasks -> 0; jm_are_network_tasks_enabled -> 0;
jm_enable_network_tasks -> 0; jm_are_network_tasks_enabled -> 1;
macro "park" -> 0; servo_dc_target_get_client 1 -> 200.0;
servo_dc_put_idle 1 -> 1; servo_dc_put_idle 4 -> 0; macro "dance" -> 2;
macro "preheat" -> 0; command "M105" -> 0 ok T:23.5 /210.0;
macro "cooldown" -> 0; command "M105" -> 0 ok T:23.5 /0.0;)";

constexpr const char* kGcode =
    R"(command "1" -> 1; command "G1 5" -> 1; command "G1 Xx" -> 1; command "M104" -> 1;
command "@1" -> 1; command "[1" -> 1; command "G2" -> 2; command "M82.5" -> 2; command "A1" -> 2;
command "a1" -> 2; command "Z1" -> 2; command "z1" -> 2; command "G1 X200.1" -> 3;
command "G1 X-0.1" -> 3; command "G1 F0" -> 3; command "G4 P-1" -> 3; command "M104 S-1" -> 3;
command "M104 S300.5" -> 3; command "M106 S-1" -> 3; command "M106 S256" -> 3; command "" -> 0;
command " ; G1 X999" -> 0; command "G4 P0" -> 0; command "M106 S0" -> 0; ?fan -> 0;
command "M106" -> 0; ?fan -> 255; macro "cooldown" -> 0; ?fan -> 0;
)"
    "command \"g0x+200\rz180 E-5 F6000;\" -> 0;"
    R"( command "M114" -> 0 X:200.00 Y:0.00 Z:180.00 E:-5.00; command "G91" -> 0; command "G1 X-50 E2" -> 0;
command "M114" -> 0 X:150.00 Y:0.00 Z:180.00 E:-3.00; command "M82" -> 0; command "G1 X-50 E2" -> 0;
command "M114" -> 0 X:100.00 Y:0.00 Z:180.00 E:2.00; command "G90" -> 0; command "M83" -> 0;
command "G1 X5 E2" -> 0; command "G28 Z" -> 0;
command "M114" -> 0 X:5.00 Y:0.00 Z:0.00 E:4.00; command "G92 X7" -> 0;
command "M114" -> 0 X:7.00 Y:0.00 Z:0.00 E:4.00; command "G92" -> 0;
command "M114" -> 0 X:0.00 Y:0.00 Z:0.00 E:0.00; command "M109 S300" -> 0;
command "M105" -> 0 ok T:23.5 /300.0; command "M104 S0" -> 0; command "M105" -> 0 ok T:23.5 /0.0;)";

constexpr const char* kReset =
    R"(gpio_output_set 5 1 -> 0; ui_led 1 5 6 -> 0; hbridge_duty_set 1 -40 -> 0;
jm_disable_network_tasks -> 0; sd_mmc_write_byte 9 1 -> {"success":1,"timetowrite":240};
command "G1 X10" -> 0; +2000; ?leds/1 -> {"on":5,"off":6}; ?hbridges -> [0,-40];
?network_tasks -> false; ?servos/0/client -> 10.0; Reset_printer -> 0; ?gpio/outputs/5 -> 0;
?leds/1/on -> 0; ?hbridges -> [0,0]; ?network_tasks -> true; ?servos/0/client -> 0.0;
?sd/writes -> 1;)";

constexpr const char* kNetworks =
    R"(client_connect 0 ["Workshop","filament"] -> -2; start_wifi 2 -> -1; start_wifi 0 -> 0;
client_scan_get 0 0 @/strength -> 0; client_scan_refresh 0 -> 4;
client_scan_get 0 2 -> {"ssid":[67,97,102,-61,-87,32,77,-61,-68,108,108,101,114,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0],"encryption":3,"strength":-72};
client_scan_get 0 3 @/strength -> -88; client_scan_get 0 4 @/strength -> 0;
client_connect 0 ["Nowhere",""] -> -3; client_connect 0 ["Workshop","wrong"] -> -4;
check_store_connection -> 0; client_connect 0 ["Workshop","filament"] -> 0;
client_get_status 0 -> {"connected":1,"ip_config":{"ip":[192,168,7,48],"subnet_mask":[255,255,255,0],"default_gateway":[192,168,7,1],"dhcp_server":[192,168,7,1],"dns_server":[192,168,7,1],"mac_address":[2,74,23,221,231,28],"connected_ssid":[87,111,114,107,115,104,111,112,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0]}};
check_store_connection -> 1; wifi_disconnect 0 -> 0; wifi_disconnect 0 -> -6;
wifi_set_auto_connect_ssid_configuration_item 0 "Workshop-Guest" -> 0;
wifi_set_auto_connect_configuration_item 0 1 -> 0; start_wifi 1 -> 0; check_store_connection -> 0;
start_wifi 0 -> 0; check_store_connection -> 1; stop_wifi 1 -> 0; stop_wifi 1 -> -2;
check_store_connection -> 1; stop_wifi 0 -> 0; check_store_connection -> 0; stop_wifi 2 -> -1;
client_scan_get 0 0 @/strength -> 0; client_configure 1 0 {} -> -1; client_configure 0 2 {} -> -5;
client_configure 0 0 {"ifc_config":{"auto_connect_timeout":7}} -> 0; ?wifi/settings/timeout -> 7;
Reset_printer -> 0; ?wifi/settings/timeout -> 10000;
client_configure 0 1 {"ifc_config":{"auto_connect_timeout":7}} -> 0; Reset_printer -> 0;
?wifi/settings/timeout -> 7;)";

constexpr const char* kSaved =
    R"(wifi_set_auto_start_configuration_item 0 1 -> 0; wifi_set_auto_connect_configuration_item 0 1 -> 0;
wifi_set_auto_connect_ssid_configuration_item 0 "Workshop-Guest" -> 0;
wifi_set_auto_connect_ssid_configuration_item 0 "123456789012345678901234567890123" -> -5;
save_configuration 0 -> 0; wifi_set_auto_start_configuration_item 0 0 -> 0; Reset_printer -> 0;
?wifi/settings/auto_start -> 1; ?wifi/ssid -> "Workshop-Guest";)";

TEST(MachineTest, Conversations) {
    for (const std::string script :
         {kHeater, kUnplugged, kInputs, kCard, kPanel, kGcode, kReset, kNetworks, kSaved})
        EXPECT_EQ(Host().play(script), script);
    Host host;
    std::string echo;
    host.ask("command \"M118\t a ;b\"", &echo);
    EXPECT_EQ(echo, " a ;b");
    std::string buffer;
    const Json read = host.ask("sd_mmc_read 0 [0] 65536", &buffer);
    EXPECT_EQ(Json::parse(buffer).size(), read.get<std::size_t>());
    for (int i = 0; i < 9; ++i)
        host.ask("command \"M117 c\"");
    EXPECT_EQ(host.stats()["message"]["display"], "c");
    EXPECT_EQ(host.stats()["message"]["gcode"].size(), 8U);
    host.ask("Reset_printer");
    EXPECT_EQ(host.stats()["message"]["display"], "");
}

TEST(MachineTest, IsDueAtItsMoments) {
    Host host;
    Controller& controller = host.controller;
    host.play("bio_get_version;");
    EXPECT_EQ(controller.next_tick(), std::nullopt);
    host.play("servo_dc_trace_enable 0 1;");
    controller.host_closed();
    EXPECT_EQ(controller.next_tick(), std::nullopt);
    controller.host_opened(host.now);
    EXPECT_EQ(controller.next_tick(), host.now + 1);
    controller.host_closed();
    const Millis leaving = host.now + 300;
    host.play("Enter_dfu_mode;+10;Enter_dfu_mode;");
    EXPECT_EQ(controller.next_tick(), leaving);
    controller.host_opened(host.now);
    EXPECT_EQ(controller.next_tick(), host.now + 1);
    EXPECT_FALSE(controller.disconnect_due(leaving - 1));
    EXPECT_TRUE(controller.disconnect_due(leaving));
}

/// Waits for the end of a move. Returns how long it took, in ms.
Millis finish(Host& host, const char* active = "move_active 0") {
    const Millis begin = host.now;
    while (host.ask(active) == 1 && host.now - begin < 60000)
        host.wait(10);
    return host.now - begin;
}

constexpr const char* kServoConversations[] = {
    // A move ends exactly at its target, in its time; there is one at a time.
    R"(move 0 {"target":33.335} -> 0; move 0 {} -> 4; move_dir_get 0 -> 1; +660; move_active 0 -> 1;
+1000; move_active 0 -> 0; move_dir_get 0 -> 0; position_get 0 -> 6667;
position_get_client 0 -> 33.334999084472656; move 0 {"target":33.33,"speed_f":25} -> 0; +1000;
position_get 0 -> 6666; move 0 {"target":200,"speed_f":300} -> 0; +550; move_active 0 -> 1; +1000;
move_active 0 -> 0; position_get 0 -> 40000;)",
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
    R"(move 0 {"target":20} -> 0; +200; move_dir_get 0 -> 1; ?servos/0/state -> 2;)",
    // Cut short: stopped, and after its number of cycles.
    R"(move 0 {"target":160} -> 0; +300; move_modify {"type":2} 1 1 -> 0; +1000; move_active 0 -> 0;
position_get 0 -> 3000;)",
    R"(move 0 {"target":100,"max_cycles":100} -> 0; +1000; move_active 0 -> 0;
position_get 0 -> 990;)",
    // Measured from its first cycle, or from a later one.
    R"(move 0 {"target":20} -> 0; +2000; move_metrics_get 0 @/n -> 536;)",
    R"(move 0 {"target":20,"metric_skip":1} -> 0; +2000; move_metrics_get 0 @/n -> 535;)",
    R"(move 0 {"target":20,"metric_skip":40} -> 0; +2000; move_metrics_get 0 @/n -> 496;)",
    R"(units_client_to_native 2 1.5 -> 1200; units_native_to_client 2 -400 -> -0.5;
units_client_to_native 0 1e9 -> 2147483647; position_set 1 -123456789 -> 0;
position_get 1 -> -123456789; name_str_get 3 -> [69,0];)",
};

TEST(ServoTest, Conversations) {
    for (const std::string script : kServoConversations)
        EXPECT_EQ(Host().play(script), script);
    Host host;
    host.play("move 0 {\"target\":20};+2000;");
    EXPECT_GT(host.ask("move_metrics_get 0")["M2"], 0);
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
        for (const Millis step : {1, 1, 7, 991, 0, 2000}) {
            host.now += step;
            host.controller.tick(host.now);
            for (const Json& sample : samples(host))
                all.push_back(sample);
        }
        ASSERT_EQ(all.size(), 3000U);
        int idle = 0;
        double error = 0;
        std::set<int> positions;
        std::set<int> states;
        for (std::size_t i = 0; i < all.size(); ++i) {
            EXPECT_EQ(all[i]["int_cnt"], all[0]["int_cnt"].get<unsigned>() + i);
            positions.insert(all[i]["pos"].get<int>());
            states.insert(all[i]["servo_state"].get<int>());
            if (i < 1000) idle += int{all[i]["servo_state"] == 0};
            error = std::max(
                error, std::fabs(all[i]["pos_cmd"].get<double>() - all[i]["pos"].get<double>()));
        }
        EXPECT_LT(*positions.begin(), 50 * 200 - 1000) << "the cycle goes to one side";
        EXPECT_GT(*positions.rbegin(), 50 * 200 + 1000) << "and to the other";
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
    for (const char* const delay : {"+137", "+280"}) {  // on a leg, and in the pause after it
        const std::string script =
            "position_set_client 0 50.0 -> 0;trace_enable 0 1 -> 0;" + std::string(delay) +
            R"(;move 0 {"move_type":1,"distance":5} -> 0;trace_enable 0 0 -> 0;+10;)"
            "trace_enable 0 1 -> 0;+3000;position_get 0 -> 11000;+5;!host 0;+50;!host 1;+10;";
        Host host;
        EXPECT_EQ(host.play(script), script) << "from where the cycle began";
        EXPECT_EQ(samples(host).size(), 10U)
            << "none while no program has the device open, or of the one before";
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

TEST(TraceTest, TheServosWaitForAHostThatReadsSlowly) {
    struct Row {
        int traced;
        Millis pause;  ///< of the host, before it ends the trace; below 0 of the simulator
        std::size_t least, most;  ///< samples that are then ahead of the response
    };
    for (const Row& row : {Row{1, 0, 245, 250}, Row{4, 0, 245, 250}, Row{1, 900, 249, 250},
                           Row{1, 1200, 400, 450}, Row{4, -3500, 245, 250}}) {
        Host host;
        const auto trace = [&](int enable) {
            for (int servo = 0; servo < row.traced; ++servo) {
                const std::string args = R"({"servo_name":)" + std::to_string(servo) +
                                         R"(,"enable":)" + std::to_string(enable) + "}";
                host.send(kMessageOut, framed(Host::command(2, 50, "servo_dc_trace_enable", args)));
            }
        };
        const auto read_slowly = [&](int packets) {
            std::string bytes;
            while (packets-- > 0)
                bytes += host.controller.next_packet(kMessageIn, ++host.now).value();
            return bytes;
        };
        trace(1);
        read_slowly(2000);
        host.controller.bus_reset(host.now);
        read_slowly(2002);  // The last sample has been read in part.
        host.controller.host_closed();
        host.controller.host_opened(host.now);
        host.read(kMessageIn);

        std::string bytes = read_slowly(5000);
        if (row.pause < 0) {
            bytes += host.read(kMessageIn);
            host.now -= row.pause;
        }
        host.wait(row.pause);
        trace(0);
        const std::string rest = host.read(kMessageIn);
        EXPECT_EQ(host.stats()["message"]["dropped"], 0U);
        std::vector<unsigned> counts;
        for (const Json& message : Host::messages(bytes + rest)) {
            if (message["data"].contains("event"))
                counts.push_back(message["data"]["event"]["args"]["msg"]["int_cnt"]);
        }
        for (std::size_t i = 0; i < counts.size(); ++i)
            ASSERT_EQ(counts[i], counts[0] + i / static_cast<std::size_t>(row.traced));
        const std::size_t late =
            static_cast<std::size_t>(std::count(rest.begin(), rest.end(), kFrameEnd) - row.traced);
        EXPECT_TRUE(row.least <= late && late <= row.most) << late << " after " << row.pause;

        trace(1);
        host.wait(1);
        const unsigned next = samples(host).at(0)["int_cnt"];
        const unsigned missed = next - counts.back();
        EXPECT_TRUE(2000 <= missed && missed <= 2001) << missed << ": two seconds are made up for";
    }
}

TEST(TraceTest, LossesAreCountedAndShow) {
    Host host;
    const std::string endless =
        "trace_enable 3 0 -> 0;move_active 3 -> 0;trace_enable 3 1 -> 0;"
        "+100;trace_enable 3 0 -> 0;";
    EXPECT_EQ(host.play(endless), endless);
    EXPECT_NE(host.ask("position_get 3"), 0) << "an axis without an end has room";
    finish(host, "move_active 3");
    samples(host);
    host.play("trace_enable 0 1;+10000;");
    const std::uint64_t dropped = host.stats()["message"]["dropped"];
    EXPECT_GT(dropped, 0U);
    host.send(kMessageOut, framed(Host::command(2, 0, "bio_get_version")));
    EXPECT_EQ(host.stats()["message"]["dropped"], dropped) << "there is room for responses";
    EXPECT_EQ(samples(host).size() + dropped, 10000U);
}

}  // namespace
}  // namespace jovusim::test
