// The machine behind the commands: that what is commanded happens, and shows.
#include <gtest/gtest.h>

#include "firmware/values.h"
#include "firmware_host.h"

namespace jovusim::test {
namespace {

using Host = FirmwareHost;

constexpr int kWarming = 1;
constexpr int kAtTarget = 2;
constexpr int kFault = 4;

double heater_variable(Host& host, int number) {
    const Json body = host.call("heater_var_get",
                                R"({"var_num":)" + std::to_string(number) + R"(,"var_val":[0.0]})");
    EXPECT_EQ(body["__return__"], 0);
    return body["args"]["var_val"].at(0);
}

TEST(HeaterTest, WarmsUpToItsTargetAndCoolsDown) {
    Host host;
    EXPECT_EQ(host.result("heater_var_set", R"({"var_num":0,"var_val":180.0})"), 0);
    EXPECT_EQ(host.result("heater_turn_on"), 0);
    EXPECT_EQ(host.result("heater_state_get"), kWarming);
    EXPECT_EQ(host.result("heater_in_guardband"), 0);
    double before = heater_variable(host, 1);
    for (int i = 0; i < 5; ++i) {
        host.wait(300);
        const double after = heater_variable(host, 1);
        EXPECT_GT(after, before);
        EXPECT_LE(after, 180);
        before = after;
    }
    host.wait(4000);
    EXPECT_EQ(host.result("heater_state_get"), kAtTarget);
    EXPECT_EQ(host.result("heater_in_guardband"), 1);
    EXPECT_NEAR(heater_variable(host, 1), 180, 3);
    EXPECT_EQ(host.result("heater_turn_off"), 0);
    host.wait(10000);
    EXPECT_NEAR(heater_variable(host, 1), 23.5, 1);
}

TEST(HeaterTest, FaultsWithoutAHeater) {
    Host host;
    host.controller.machine().heater().set_plugged(false);
    EXPECT_EQ(host.result("heater_state_get"), 0);
    EXPECT_EQ(host.result("heater_turn_on"), -1);
    EXPECT_EQ(host.result("heater_state_get"), kFault);
    EXPECT_EQ(host.result("heater_fault_get"), 1);
    host.controller.machine().heater().set_plugged(true);
    EXPECT_EQ(host.result("heater_turn_on"), 0);
    EXPECT_EQ(host.result("heater_fault_get"), 0);
    host.wait(500);
    host.controller.machine().heater().set_plugged(false);
    host.wait(20);
    EXPECT_EQ(host.result("heater_fault_get"), 1) << "it came off while it warmed";
}

TEST(HeaterTest, KeepsNumbersWithinTheirRanges) {
    const struct {
        const char* name;
        const char* args;
        int result;
    } cases[] = {
        {"heater_param_set", R"({"param_num":0,"param_val":33.5})", 0},
        {"heater_param_set", R"({"param_num":6,"param_val":1.0})", -1},
        {"heater_param_set", R"({"param_num":0,"param_val":-1.0})", -1},
        {"heater_param_set", R"({"param_num":4,"param_val":100000.0})", -1},
        {"heater_param_get", R"({"param_num":6,"param_val":[0.0]})", -1},
        {"heater_var_set", R"({"var_num":0,"var_val":301.0})", -1},
        {"heater_var_set", R"({"var_num":1,"var_val":20.0})", -1},
        {"heater_var_get", R"({"var_num":4,"var_val":[0.0]})", -1},
    };
    Host host;
    for (const auto& c : cases)
        EXPECT_EQ(host.result(c.name, c.args), c.result) << c.name << c.args;
    const char* get = R"({"param_num":0,"param_val":[0.0]})";
    EXPECT_EQ(host.call("heater_param_get", get)["args"]["param_val"].dump(), "[33.5]");
    host.result("heater_param_set_defaults");
    EXPECT_EQ(host.call("heater_param_get", get)["args"]["param_val"].dump(), "[12.0]");
}

TEST(GpioTest, KeepsOutputsAndDebouncesInputs) {
    Host host;
    host.result("gpio_output_set", R"({"pin":5,"value":1})");
    EXPECT_EQ(host.result("gpio_get_raw", R"({"gpio":5})"), 1);
    EXPECT_EQ(host.result("gpio_get_raw", R"({"gpio":6})"), 0);
    host.controller.machine().gpio().drive_input(2, true, host.now);
    EXPECT_EQ(host.result("gpio_get_raw", R"({"gpio":18})"), 1);
    EXPECT_EQ(host.result("gpio_input_get", R"({"pin":2,"debounce":0})"), 1);
    EXPECT_EQ(host.result("gpio_input_get", R"({"pin":2,"debounce":1})"), 0);
    host.now += 20;
    EXPECT_EQ(host.result("gpio_input_get", R"({"pin":2,"debounce":1})"), 1);
    EXPECT_EQ(host.result("gpio_input_get", R"({"pin":8,"debounce":1})"), 2);
}

TEST(StorageTest, GivesBackWhatWasWritten) {
    Host host;
    const Json info = host.result("sd_mmc_get_storage_info");
    const std::uint32_t size = info["total_size"];
    EXPECT_EQ(info["block_count"].get<std::uint32_t>() * info["block_size"].get<std::uint32_t>(),
              size);
    EXPECT_EQ(host.result("sd_mmc_write", R"({"offset":511,"buf":[7],"length":64})"), 1);
    EXPECT_EQ(host.result("sd_mmc_write_byte", R"({"offset":512,"write_buf":200})")["success"], 1);
    const Json body = host.call("sd_mmc_read", R"({"offset":510,"read_buf":[0],"length":4})");
    EXPECT_EQ(body["__return__"], 4);
    EXPECT_EQ(body["args"].dump(), R"({"offset":510,"read_buf":[255,7,200,255],"length":4})");
    const std::string end = std::to_string(size);
    const std::string last = std::to_string(size - 1);
    EXPECT_EQ(host.result("sd_mmc_read_byte", R"({"offset":)" + last + "}")["byteread"], 255);
    EXPECT_EQ(host.result("sd_mmc_read_byte", R"({"offset":)" + end + "}")["byteread"], -1);
    EXPECT_EQ(host.result("sd_mmc_write", R"({"offset":)" + last + R"(,"buf":[1],"length":2})"),
              -1);
    EXPECT_EQ(host.result("sd_mmc_read", R"({"offset":4294967295,"read_buf":[1],"length":2})"), -1);
    const Json longest = host.call("sd_mmc_read", R"({"offset":0,"read_buf":[0],"length":65536})");
    EXPECT_EQ(longest["args"]["read_buf"].size(), longest["__return__"].get<std::size_t>());
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
    EXPECT_EQ(text_of_field(status["ip_config"]["connected_ssid"]), "Workshop");
    EXPECT_EQ(host.result("wifi_disconnect", client), 0);
    EXPECT_EQ(host.result("wifi_disconnect", client), -6);
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
    EXPECT_EQ(text_of_field(config["ip_config"]["connected_ssid"]), "Workshop-Guest");
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
    Json machine = host.machine();
    EXPECT_EQ(machine["leds"].at(1).dump(), R"({"on":5,"off":6})");
    EXPECT_EQ(machine["hbridges"].dump(), "[0,-40]");
    EXPECT_EQ(machine["network_tasks"], false);
    EXPECT_EQ(machine["servos"].at(0)["client"], 10.0);
    host.result("Reset_printer");
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
        {1, {"1", "G1 5", "G1 Xx", "M104"}},
        {2, {"G2", "M82.5"}},
        {3, {"G1 X200.1", "G1 X-0.1", "G1 F0", "G4 P-1", "M104 S-1", "M104 S300.5", "M106 S-1"}},
        {3, {"M106 S256"}},
    };
    for (const auto& [result, lines] : refused) {
        for (const char* const line : lines)
            EXPECT_EQ(run(line, result), Json());
    }
    const std::pair<std::vector<const char*>, const char*> said[] = {
        {{"", " ; G1 X999", "G4 P0", "M106 S255", "M117 c", "M118 a ;b"}, "a ;b"},
        {{"g0x+200 z180 E-5 F6000;", "M114"}, "X:200.00 Y:0.00 Z:180.00 E:-5.00"},
        {{"G91", "G1 X-50 E2", "M82", "G1 X-50 E2", "M114"}, "X:100.00 Y:0.00 Z:180.00 E:2.00"},
        {{"G90", "M83", "G1 X5 E2", "G28 Z", "M114"}, "X:5.00 Y:0.00 Z:0.00 E:4.00"},
        {{"G92 X7", "M114"}, "X:7.00 Y:0.00 Z:0.00 E:4.00"},
        {{"G92", "M114"}, "X:0.00 Y:0.00 Z:0.00 E:0.00"},
        {{"M109 S300", "M105"}, "ok T:23.5 /300.0"},
        {{"M104 S0", "M105"}, "ok T:23.5 /0.0"},
    };
    for (const auto& [lines, reply] : said) {
        Json text;
        for (const char* const line : lines)
            text = run(line, 0);
        EXPECT_EQ(text.dump(), Host::bytes_of(reply));
    }
    EXPECT_EQ(host.machine()["fan"], 255);
    EXPECT_EQ(host.stats()["message"]["display"], "c");
    EXPECT_EQ(host.stats()["message"]["gcode"].size(), 8U);
}

TEST(MachineTest, RefusesWhatItDoesNotHave) {
    Host host;
    host.result("hbridge_duty_set", R"({"hbridge":0,"duty":101})");
    host.result("ui_led", R"({"led":0,"on_count":-1,"off_count":0})");
    EXPECT_EQ(host.machine()["hbridges"].at(0), 0);
    EXPECT_EQ(host.machine()["leds"].at(0)["on"], 0);
    EXPECT_EQ(host.result("gcode_process_macro", "{\"macro\":" + Host::bytes_of("preheat") + "}"),
              0);
    EXPECT_EQ(host.machine()["heater"]["target"], 210.0);
    EXPECT_EQ(host.result("gcode_process_macro", "{\"macro\":" + Host::bytes_of("dance") + "}"), 2);
}

TEST(MachineTest, ChangesFilamentOneAtATime) {
    Host host;
    EXPECT_EQ(host.result("unload_initiate"), 0);
    EXPECT_EQ(host.result("load_initiate"), 1);
    host.wait(3100);
    EXPECT_EQ(host.machine()["filament"], "empty");
    EXPECT_EQ(host.result("load_initiate"), 0);
    host.wait(3100);
    EXPECT_EQ(host.machine()["filament"], "loaded");
}

}  // namespace
}  // namespace jovusim::test
