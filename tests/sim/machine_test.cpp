// The machine: that what is commanded happens, and shows. Each script is a conversation.
#include <gtest/gtest.h>
#include <zlib.h>

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

constexpr const char* kConnected =
    R"(check_store_connection -> 1; wifi_disconnect 0 -> 0; wifi_disconnect 0 -> -6;
wifi_set_auto_connect_ssid_configuration_item 0 "Workshop-Guest" -> 0;
wifi_set_auto_connect_configuration_item 0 1 -> 0; start_wifi 1 -> 0; check_store_connection -> 0;
start_wifi 0 -> 0; check_store_connection -> 1; stop_wifi 1 -> 0; stop_wifi 1 -> -2;
check_store_connection -> 1; stop_wifi 0 -> 0; check_store_connection -> 0; stop_wifi 2 -> -1;)";

constexpr const char* kSaved =
    R"(wifi_set_auto_start_configuration_item 0 1 -> 0; wifi_set_auto_connect_configuration_item 0 1 -> 0;
wifi_set_auto_connect_ssid_configuration_item 0 "Workshop-Guest" -> 0;
wifi_set_auto_connect_ssid_configuration_item 0 "123456789012345678901234567890123" -> -5;
save_configuration 0 -> 0; wifi_set_auto_start_configuration_item 0 0 -> 0; Reset_printer -> 0;
?wifi/settings/auto_start -> 1; ?wifi/ssid -> "Workshop-Guest";)";

TEST(MachineTest, Conversations) {
    for (const std::string script : {kHeater, kCard, kPanel, kGcode, kReset, kSaved})
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

TEST(MachineTest, FaultsWithoutAHeater) {
    Host host;
    const auto step = [&host](bool plugged, const std::string& script) {
        host.controller.machine().heater().set_plugged(plugged);
        EXPECT_EQ(host.play(script), script);
    };
    step(false, "state_get -> 0;turn_on -> -1;state_get -> 4;fault_get -> 1;");
    step(true, "turn_on -> 0;fault_get -> 0;");
    step(false, "+20;fault_get -> 1;");
}

TEST(MachineTest, DebouncesInputs) {
    Host host;
    Gpio& gpio = host.controller.machine().gpio();
    gpio.drive_input(0, true, host.now);
    EXPECT_EQ(host.ask("gpio_get_raw 16"), 1);
    const std::string high = "gpio_input_get 0 0 -> 1;gpio_input_get 0 1 -> ";
    const std::string low = "gpio_input_get 0 0 -> 0;gpio_input_get 0 1 -> ";
    for (const bool level : {true, false}) {
        gpio.drive_input(0, level, host.now);
        const std::string now = level ? high : low;
        const std::string script = now + (level ? "0;+19;" : "1;+19;") + now +
                                   (level ? "0;+1;" : "1;+1;") + now + (level ? "1;" : "0;");
        EXPECT_EQ(host.play(script), script);
    }
}

TEST(MachineTest, ConnectsToANetworkWithTheRightKeyOnly) {
    Host host;
    const auto connect = [&host](const char* ssid, const char* key) {
        return host.ask("client_connect 0 " + Json({{"ssid", signed_field(ssid, 32)},
                                                    {"key", signed_field(key, 64)},
                                                    {"timeout", 1000}})
                                                  .dump());
    };
    EXPECT_EQ(connect("Workshop", "filament"), -2);
    EXPECT_EQ(host.ask("start_wifi 2"), -1);
    EXPECT_EQ(host.ask("start_wifi 0"), 0);
    EXPECT_EQ(host.ask("client_scan_get 0 0")["strength"], 0) << "before a scan";
    const int found = host.ask("client_scan_refresh 0");
    ASSERT_GT(found, 2);
    bool non_ascii = false;
    for (int i = 0; i < found; ++i) {
        const Json network = host.ask("client_scan_get 0 " + std::to_string(i));
        EXPECT_EQ(network["ssid"].size(), 32U);
        EXPECT_LT(network["strength"], 0);
        for (const Json& byte : network["ssid"])
            non_ascii = non_ascii || byte < 0;
    }
    EXPECT_TRUE(non_ascii);
    EXPECT_EQ(host.ask("client_scan_get 0 " + std::to_string(found))["strength"], 0);
    EXPECT_EQ(connect("Nowhere", ""), -3);
    EXPECT_EQ(connect("Workshop", "wrong"), -4);
    EXPECT_EQ(host.ask("check_store_connection"), 0);
    EXPECT_EQ(connect("Workshop", "filament"), 0);
    const Json status = host.ask("client_get_status 0");
    EXPECT_EQ(status["connected"], 1);
    EXPECT_EQ(status["ip_config"]["ip"].at(0), 192);
    EXPECT_EQ(string_of_field(status["ip_config"]["connected_ssid"]), "Workshop");
    const auto sum =
        static_cast<std::uint32_t>(crc32(0, reinterpret_cast<const Bytef*>("JVSTEST"), 7));
    EXPECT_EQ(status["ip_config"]["mac_address"],
              Json({2, 74, sum >> 24U, sum >> 16U & 255U, sum >> 8U & 255U, sum & 255U}));
    EXPECT_EQ(host.play(kConnected), kConnected);
    Json config = host.ask("client_get_configuration 0");
    config["ifc_config"]["auto_connect_timeout"] = 7;
    const auto configure = [&](const char* interface_and_cmd) {
        return host.ask(std::string("client_configure ") + interface_and_cmd + " " +
                        Json::array({config}).dump());
    };
    const auto timeout = [&] { return host.machine()["wifi"]["settings"]["timeout"].get<int>(); };
    EXPECT_EQ(configure("1 0"), -1);
    EXPECT_EQ(configure("0 2"), -5);
    EXPECT_EQ(configure("0 0"), 0);
    EXPECT_EQ(timeout(), 7);
    host.ask("Reset_printer");
    EXPECT_NE(timeout(), 7) << "it was not saved";
    configure("0 1");
    host.ask("Reset_printer");
    EXPECT_EQ(timeout(), 7);
}

TEST(MachineTest, IsDueAtItsMoments) {
    Host host;
    Controller& controller = host.controller;
    host.play("bio_get_version;");
    EXPECT_EQ(controller.next_tick(), std::nullopt);
    host.play("servo_dc_trace_enable 0 1;");
    controller.host_closed();
    EXPECT_EQ(controller.next_tick(), std::nullopt);
    controller.host_opened();
    EXPECT_EQ(controller.next_tick(), host.now + 1);
    controller.host_closed();
    const Millis leaving = host.now + 300;
    host.play("Enter_dfu_mode;+10;Enter_dfu_mode;");
    EXPECT_EQ(controller.next_tick(), leaving);
    controller.host_opened();
    EXPECT_EQ(controller.next_tick(), host.now + 1);
    EXPECT_FALSE(controller.disconnect_due(leaving - 1));
    EXPECT_TRUE(controller.disconnect_due(leaving));
}

}  // namespace
}  // namespace jovusim::test
