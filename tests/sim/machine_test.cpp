// The machine behind the commands: that what is commanded happens, and shows.
#include <gtest/gtest.h>
#include <zlib.h>

#include "firmware/base/values.h"
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
heater_turn_on -> -1; gcode_process_command "M104S0" -> 0; heater_fault_get -> 0;
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
gcode_process_macro "park" -> 0; servo_dc_target_get_client 1 -> 200.0;
servo_dc_put_idle 1 -> 1; servo_dc_put_idle 4 -> 0; gcode_process_macro "dance" -> 2;
gcode_process_macro "preheat" -> 0; gcode_process_command "M105" -> 0 ok T:23.5 /210.0;
gcode_process_macro "cooldown" -> 0; gcode_process_command "M105" -> 0 ok T:23.5 /0.0;)";

TEST(MachineTest, AnswersWithWhatItHasDone) {
    for (const std::string script : {kHeater, kCard, kPanel})
        EXPECT_EQ(Host().play(script), script);
    Host host;
    const Json longest = host.call("sd_mmc_read", R"({"offset":0,"read_buf":[0],"length":65536})");
    EXPECT_EQ(longest["args"]["read_buf"].size(), longest["__return__"].get<std::size_t>());
}

TEST(HeaterTest, FaultsWithoutAHeater) {
    Host host;
    Heater& heater = host.controller.machine().heater();
    heater.set_plugged(false);
    EXPECT_EQ(host.play("heater_state_get;heater_turn_on;heater_state_get;heater_fault_get;"),
              "heater_state_get -> 0;heater_turn_on -> -1;heater_state_get -> 4;"
              "heater_fault_get -> 1;");
    heater.set_plugged(true);
    EXPECT_EQ(host.result("heater_turn_on"), 0);
    EXPECT_EQ(host.result("heater_fault_get"), 0);
    heater.set_plugged(false);
    host.wait(20);
    EXPECT_EQ(host.result("heater_fault_get"), 1) << "it came off while it warmed";
}

TEST(GpioTest, DebouncesInputs) {
    Host host;
    const auto read = [&host] { return host.play("gpio_input_get 0 0;gpio_input_get 0 1;"); };
    const std::pair<Millis, const char*> levels[] = {{0, "10"}, {19, "10"}, {20, "11"}};
    Gpio& gpio = host.controller.machine().gpio();
    gpio.drive_input(0, true, host.now);
    EXPECT_EQ(host.result("gpio_get_raw", R"({"gpio":16})"), 1);
    for (const bool level : {true, false}) {
        const Millis begin = host.now;
        gpio.drive_input(0, level, begin);
        for (const auto& [after, expected] : levels) {
            host.now = begin + after;
            const std::string now = std::to_string(level == (expected[0] == '1'));
            const std::string settled = std::to_string(level == (expected[1] == '1'));
            EXPECT_EQ(read(),
                      "gpio_input_get 0 0 -> " + now + ";gpio_input_get 0 1 -> " + settled + ";");
        }
    }
}

std::string field(const std::string& text, std::size_t size) {
    return signed_field(text, size).dump();
}

int connect(Host& host, const std::string& ssid, const std::string& key) {
    return host.result("wifi_client_connect", R"({"interface_t":0,"connect_t":{"ssid":)" +
                                                  field(ssid, 32) + R"(,"key":)" + field(key, 64) +
                                                  R"(,"timeout":1000}})");
}

TEST(WifiTest, ConnectsWithTheRightKeyOnly) {
    const std::string client = R"({"interface_t":0})";
    Host host;
    EXPECT_EQ(connect(host, "Workshop", "filament"), -2);
    EXPECT_EQ(host.result("wifi_start_wifi", R"({"interface_t":2})"), -1);
    EXPECT_EQ(host.result("wifi_start_wifi", client), 0);
    const int found = host.result("wifi_client_scan_refresh", client);
    ASSERT_GT(found, 2);
    bool non_ascii = false;
    for (int i = 0; i < found; ++i) {
        const Json network = host.result("wifi_client_scan_get",
                                         R"({"interface_t":0,"index":)" + std::to_string(i) + "}");
        EXPECT_EQ(network["ssid"].size(), 32U);
        EXPECT_LT(network["strength"], 0);
        for (const Json& byte : network["ssid"])
            non_ascii = non_ascii || byte < 0;
    }
    EXPECT_TRUE(non_ascii);
    EXPECT_EQ(connect(host, "Nowhere", ""), -3);
    EXPECT_EQ(connect(host, "Workshop", "wrong"), -4);
    EXPECT_EQ(host.result("check_store_connection"), 0);
    EXPECT_EQ(connect(host, "Workshop", "filament"), 0);
    EXPECT_EQ(host.result("check_store_connection"), 1);
    Json status = host.result("wifi_client_get_status", client);
    EXPECT_EQ(status["connected"], 1);
    EXPECT_EQ(status["ip_config"]["ip"].at(0), 192);
    EXPECT_EQ(string_of_field(status["ip_config"]["connected_ssid"]), "Workshop");
    const auto sum =
        static_cast<std::uint32_t>(crc32(0, reinterpret_cast<const Bytef*>("JVSTEST"), 7));
    EXPECT_EQ(status["ip_config"]["mac_address"],
              Json({2, 74, sum >> 24U, sum >> 16U & 255U, sum >> 8U & 255U, sum & 255U}));
    EXPECT_EQ(host.result("wifi_client_scan_get", R"({"interface_t":0,"index":4})")["strength"], 0);
    const std::string script = R"(wifi_disconnect 0 -> 0; wifi_disconnect 0 -> -6;
wifi_set_auto_connect_ssid_configuration_item 0 "Workshop-Guest" -> 0;
wifi_set_auto_connect_configuration_item 0 1 -> 0; wifi_start_wifi 1 -> 0;
check_store_connection -> 0; wifi_start_wifi 0 -> 0; check_store_connection -> 1;
wifi_stop_wifi 1 -> 0; wifi_stop_wifi 1 -> -2; check_store_connection -> 1;
wifi_stop_wifi 0 -> 0; check_store_connection -> 0; wifi_stop_wifi 2 -> -1;)";
    EXPECT_EQ(host.play(script), script);
    Json config = host.result("wifi_client_get_configuration", client);
    config["ifc_config"]["auto_connect_timeout"] = 7;
    const auto configure = [&](int interface, int cmd) {
        return host.play("wifi_client_configure " + std::to_string(interface) + " " +
                         std::to_string(cmd) + " " + Json::array({config}).dump() + ";");
    };
    EXPECT_NE(configure(1, 0).find(" -> -1;"), std::string::npos);
    EXPECT_NE(configure(0, 2).find(" -> -5;"), std::string::npos);
    EXPECT_NE(configure(0, 0).find(" -> 0;"), std::string::npos);
    EXPECT_EQ(host.machine()["wifi"]["settings"]["timeout"], 7);
    host.result("Reset_printer");
    EXPECT_NE(host.machine()["wifi"]["settings"]["timeout"], 7) << "it was not saved";
    configure(0, 1);
    host.result("Reset_printer");
    EXPECT_EQ(host.machine()["wifi"]["settings"]["timeout"], 7);
}

TEST(WifiTest, SavedSettingsOutliveAReset) {
    Host host;
    const auto set = [&host](const std::string& item, const std::string& value) {
        return host.result("wifi_set_" + item + "_configuration_item",
                           R"({"interface_t":0,")" + item + "\":" + value + "}");
    };
    EXPECT_EQ(set("auto_start", "1"), 0);
    EXPECT_EQ(set("auto_connect", "1"), 0);
    EXPECT_EQ(set("auto_connect_ssid", Host::bytes_of("Workshop-Guest")), 0);
    EXPECT_EQ(set("auto_connect_key", Host::bytes_of(std::string(65, 'x'))), -5);
    host.result("wifi_save_configuration", R"({"interface_t":0})");
    EXPECT_EQ(set("auto_start", "0"), 0);
    host.result("Reset_printer");
    const Json config = host.result("wifi_client_get_configuration", R"({"interface_t":0})");
    EXPECT_EQ(config["ifc_config"]["auto_start"], 1);
    EXPECT_EQ(string_of_field(config["ip_config"]["connected_ssid"]), "Workshop-Guest");
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

TEST(MachineTest, AResetIsAPowerOn) {
    Host host;
    host.result("gpio_output_set", R"({"pin":5,"value":1})");
    host.result("ui_led", R"({"led":1,"on_count":5,"off_count":6})");
    host.result("hbridge_duty_set", R"({"hbridge":1,"duty":-40})");
    host.result("jm_disable_network_tasks");
    host.result("sd_mmc_write_byte", R"({"offset":9,"write_buf":1})");
    host.exchange(Host::gcode(2, "G1 X10"));
    host.wait(2000);
    host.exchange(Host::gcode(2, "M117 text"));
    Json machine = host.machine();
    EXPECT_EQ(machine["leds"].at(1).dump(), R"({"on":5,"off":6})");
    EXPECT_EQ(machine["hbridges"].dump(), "[0,-40]");
    EXPECT_EQ(machine["network_tasks"], false);
    EXPECT_EQ(machine["servos"].at(0)["client"], 10.0);
    host.result("Reset_printer");
    EXPECT_EQ(host.stats()["message"]["display"], "");
    machine = host.machine();
    EXPECT_EQ(machine["gpio"]["outputs"].at(5), 0);
    EXPECT_EQ(machine["leds"].at(1)["on"], 0);
    EXPECT_EQ(machine["hbridges"].dump(), "[0,0]");
    EXPECT_EQ(machine["network_tasks"], true);
    EXPECT_EQ(machine["servos"].at(0)["client"], 0.0);
    EXPECT_EQ(machine["sd"]["writes"], 1) << "the card keeps what it has";
}

TEST(GcodeTest, LinesHaveTheirResultsAndSayWhatTheMachineDoes) {
    Host host;
    const auto run = [&host](const char* line, int result) {
        const auto messages = host.exchange(Host::gcode(1, line));
        EXPECT_EQ(messages.back()["data"]["command"]["__return__"], result) << line;
        return messages.size() == 1 ? Json() : messages[0]["data"]["event"]["args"]["text"];
    };
    const std::pair<int, std::vector<const char*>> refused[] = {
        {1, {"1", "G1 5", "G1 Xx", "M104", "@1", "[1"}},
        {2, {"G2", "M82.5", "A1", "a1", "Z1", "z1"}},
        {3, {"G1 X200.1", "G1 X-0.1", "G1 F0", "G4 P-1", "M104 S-1", "M104 S300.5", "M106 S-1"}},
        {3, {"M106 S256"}},
    };
    for (const auto& [result, lines] : refused) {
        for (const char* const line : lines)
            EXPECT_EQ(run(line, result), Json());
    }
    const std::pair<std::vector<const char*>, const char*> said[] = {
        {{"", " ; G1 X999", "G4 P0", "M106 S0", "M106", "M117 c", "M118\t a ;b"}, "a ;b"},
        {{"g0x+200\rz180 E-5 F6000;", "M114"}, "X:200.00 Y:0.00 Z:180.00 E:-5.00"},
        {{"G91", "G1 X-50 E2", "M82", "G1 X-50 E2", "M114"}, "X:100.00 Y:0.00 Z:180.00 E:2.00"},
        {{"G90", "M83", "G1 X5 E2", "G28 Z", "M114"}, "X:5.00 Y:0.00 Z:0.00 E:4.00"},
        {{"G92 X7", "M114"}, "X:7.00 Y:0.00 Z:0.00 E:4.00"},
        {{"G92", "M114"}, "X:0.00 Y:0.00 Z:0.00 E:0.00"},
        {{"M109 S300", "M105"}, "ok T:23.5 /300.0"},
        {{"M104 S0", "M105"}, "ok T:23.5 /0.0"},
    };
    for (const auto& [lines, response] : said) {
        Json text;
        for (const char* const line : lines)
            text = run(line, 0);
        EXPECT_EQ(text.dump(), Host::bytes_of(response));
    }
    EXPECT_EQ(host.machine()["fan"], 255);
    host.play("gcode_process_macro \"cooldown\";");
    EXPECT_EQ(host.machine()["fan"], 0);
    EXPECT_EQ(host.stats()["message"]["display"], "c");
    EXPECT_EQ(host.stats()["message"]["gcode"].size(), 8U);
}

}  // namespace
}  // namespace jovusim::test
