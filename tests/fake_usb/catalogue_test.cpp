// SPDX-License-Identifier: Apache-2.0

/// @file
/// Every command: the bytes of its request, and how its response is read.
#include <cmath>
#include <sstream>

#include "commands/catalogue.h"
#include "commands/structure_codec.h"
#include "fake_usb/backend_fixture.h"
#include "json/json_generator.h"
#include "json/json_tree.h"

namespace test {
namespace {

/// @return a result as text; a structure as it is sent.
template <class T>
std::string shown(const T& value) {
    std::ostringstream out;
    if constexpr (std::is_same_v<T, std::shared_ptr<char>>) {
        out << (value == nullptr ? "null" : value.get());
    } else if constexpr (jovu::is_structure<T>) {
        jovu::JsonGenerator generator;
        T copy = value;
        jovu::write_structure(generator.get(), copy);
        out << generator.take_text();
    } else {
        out << +value;
    }
    return out.str();
}

/// @return the text with "0*3" spelled out as "0,0,0".
std::string spelled_out(std::string text) {
    for (std::size_t at; (at = text.find("0*")) != std::string::npos;) {
        std::size_t digits = 0;
        const int count = std::stoi(text.substr(at + 2), &digits);
        std::string zeros = "0";
        for (int i = 1; i < count; ++i)
            zeros += ",0";
        text.replace(at, 2 + digits, zeros);
    }
    return text;
}

template <class S>
S parsed(const std::string& text) {
    S value{};
    const jovu::JsonTree tree(text);
    jovu::read_structure(tree.get(), value);
    return value;
}

/// As much memory as two values need, the first one given.
template <class T>
std::shared_ptr<T> two(const T& first) {
    auto owner = std::make_shared<std::array<T, 2>>(std::array<T, 2>{first});
    return {owner, owner->data()};
}

class EveryCommand : public ExchangeTest {
protected:
    template <class Call>
    std::string run(Call call) {
        std::string result = "void";
        if constexpr (std::is_void_v<decltype(call(client, kAddress))>) {
            call(client, kAddress);
        } else {
            result = shown(call(client, kAddress));
        }
        return result + JovuTransport::last_send_error();
    }
};

/// One row a command: the call, what comes back, what the caller gets, the arguments sent.
TEST_F(EveryCommand, IsWrittenAndReadAsTheFirmwareDoes) {
    const auto byte = two<unsigned char>(200);
    const wifi_client_connect_t network{{'n', '\xE9'}, {'k'}, 4294967295U};
    // Structures that are both arguments and results, as they are sent.
    const std::string config = spelled_out(
        R"({"ifc_config":{"auto_start":1,"auto_connect":0,"auto_connect_ssid":[110,101,0*30],)"
        R"("auto_connect_key":[-1,0*63],"auto_connect_timeout":-2},"hdw_config":{)"
        R"("mac_address":[255,0,0,0,0,1],"patch_version":[2,200]},"ip_config":{)"
        R"("ip":[192,168,0,1],"subnet_mask":[255,255,0,0],"default_gateway":[0,0,0,1],)"
        R"("dhcp_server":[0,0,0,2],"dns_server":[0,0,0,3],"mac_address":[0,0,0,0,0,4],)"
        R"("connected_ssid":[233,0*31]}})");
    const std::string servo =
        R"({"interrupt_frequency":65535,"gains":{"kp":1.5,"ki":2.0,"kd":3.0,"ka":4.0,"kv":5.0,)"
        R"("kf":-6.0},"pwm_cap":-7,"pwm_cap_time":4294967295,"units":8,"pos_res_eu_per_mm":9.5,)"
        R"("vel_res_mm_per_sec":10.0,"speed_max":11.0,"accel_max":12.0,)"
        R"("move_dist_min_static":13,"move_dist_min_dynamic":14,"trace":15})";
    const std::string move =
        R"({"move_type":4294967295,"start_sync":1,"target":0.10000000000000000555,)"
        R"("distance":2.0,"speed_f":3.0,"accel_f":4.0,"decel_f":5.0,"max_cycles":6,)"
        R"("metric_skip":7,"speed_offset_upramp_f":8.0,"speed_offset_downramp_f":9.0,)"
        R"("ignore_stalls":0,"slaved":1,"slave_ratio":10.0})";
    const std::string change =
        R"({"servo_name":-1,"type":4294967295,"pos":1.5,"vel":2.0,"accel":3.0,"decel":4.0,)"
        R"("validation_pos":5.0,"use_validation_pos":1,"decel_ramp_skip":255,"data":-6,)"
        R"("active":200})";
    const auto changes = two(parsed<servo_dc_move_modifier_data_t>(change));

    const wifi_interface_t wifi{1};
    const servo_dc_name_t axis{2};
    struct Row {
        std::string expression;
        std::function<std::string(bool view)> call;  ///< Strings as views, or in shared pointers.
        std::string returned;
        std::string result;          ///< A structure shows as what was returned.
        std::string arguments = {};  ///< As they are sent.
    };
    const auto as_view = [](std::string_view s) { return s.empty() ? std::string_view() : s; };
#define CALL(...) \
#__VA_ARGS__, [&](bool view) { \
    const auto with = [&]([[maybe_unused]] auto string) { \
        return run([&](auto& c, auto a) { return c.__VA_ARGS__; }); \
    }; \
    return view ? with(as_view) : with(jovu_make_string); \
}
    // clang-format off
    const Row rows[] = {
        {CALL(bio_get_version(a)), "[49,46,48,0]", "1.0"},
        {CALL(bio_get_serial(a)), "[]", ""},
        {CALL(gpio_get_raw(a, gpio_name_t{4294967295})), "2", "1", R"("gpio":4294967295)"},
        {CALL(gpio_input_get(a, gpio_input_name_t{3}, true)), "4294967295", "4294967295",
         R"("pin":3,"debounce":1)"},
        {CALL(gpio_output_set(a, gpio_name_t{3}, true)), "null", "void", R"("pin":3,"value":1)"},
        {CALL(gcode_process_command(a, string("G1 \xE9"))), "7", "7",
         R"("command":[71,49,32,-23,0])"},
        {CALL(gcode_process_macro(a, string(""))), "0", "0", R"("macro":[0])"},
        {CALL(heater_param_set(a, heater_params_t{2}, 0.1F)), "-1", "-1",
         R"("param_num":2,"param_val":0.10000000149011611938)"},
        {CALL(heater_param_get(a, heater_params_t{2}, two(1.5F))), "65535", "-1",
         R"("param_num":2,"param_val":[1.5])"},
        {CALL(heater_param_set_defaults(a)), "0", "void"},
        {CALL(heater_var_set_defaults(a)), "0", "void"},
        {CALL(heater_turn_on(a)), "1", "1"},
        {CALL(heater_turn_off(a)), "-2", "-2"},
        {CALL(heater_in_guardband(a)), "1", "1"},
        {CALL(heater_state_get(a)), "3", "3"},
        {CALL(heater_fault_get(a)), "4", "4"},
        {CALL(heater_var_set(a, HEATER_VARS_m{1}, -210.0F)), "0", "0",
         R"("var_num":1,"var_val":-210.0)"},
        {CALL(heater_var_get(a, HEATER_VARS_m{1}, two(1.5F))), "5", "5",
         R"("var_num":1,"var_val":[1.5])"},
        {CALL(wifi_start_wifi(a, wifi)), "2147483648", "-2147483648", R"("interface_t":1)"},
        {CALL(wifi_stop_wifi(a, wifi)), "-1", "-1", R"("interface_t":1)"},
        {CALL(wifi_client_connect(a, wifi, network)), "0", "0", R"("interface_t":1,)"
         R"("connect_t":{"ssid":[110,-23,0*30],"key":[107,0*63],"timeout":4294967295})"},
        {CALL(wifi_disconnect(a, wifi)), "0", "0", R"("interface_t":1)"},
        {CALL(wifi_client_get_status(a, wifi)), R"({"connected":1,"ip_config":{"ip":[192,168,1,)"
         R"(7],"subnet_mask":[255,255,255,0],"default_gateway":[1,2,3,4],"dhcp_server":[5,6,7,8],)"
         R"("dns_server":[9,10,11,12],"mac_address":[1,2,3,4,5,255],"connected_ssid":[110,233,)"
         R"(0*30]}})", "", R"("interface_t":1)"},
        {CALL(wifi_client_get_configuration(a, wifi)), config, "", R"("interface_t":1)"},
        {CALL(wifi_save_configuration(a, wifi)), "1", "1", R"("interface_t":1)"},
        {CALL(wifi_set_auto_start_configuration_item(a, wifi, true)), "2", "2",
         R"("interface_t":1,"auto_start":1)"},
        {CALL(wifi_set_auto_connect_configuration_item(a, wifi, false)), "3", "3",
         R"("interface_t":1,"auto_connect":0)"},
        {CALL(wifi_set_auto_connect_ssid_configuration_item(a, wifi, string("ab"))), "4",
         "4", R"("interface_t":1,"auto_connect_ssid":[97,98,0])"},
        {CALL(wifi_set_auto_connect_key_configuration_item(a, wifi, string("k"))), "5", "5",
         R"("interface_t":1,"auto_connect_key":[107,0])"},
        {CALL(wifi_client_configure(a, wifi, -3, two(parsed<wifi_config_t>(config)))), "6", "6",
         R"("interface_t":1,"cmd":-3,"config":[)" + config + "]"},
        {CALL(servo_dc_config_get(a, servo_dc_name_t{-1})), servo, "", R"("servo_name":-1)"},
        {CALL(servo_dc_config_set(a, axis, parsed<servo_dc_client_config_t>(servo))), "0", "void",
         R"("servo_name":2,"config":)" + servo},
        {CALL(servo_dc_move_default(a)), move, ""},
        {CALL(servo_dc_move(a, axis, two(parsed<servo_dc_move_config_t>(move)))), "2", "2",
         R"("servo_name":2,"move_config":[)" + move + "]"},
        {CALL(servo_dc_move_start_sync(a)), "0", "void"},
        {CALL(servo_dc_move_active(a, axis)), "1", "1", R"("servo_name":2)"},
        {CALL(servo_dc_put_idle(a, axis)), "0", "0", R"("servo_name":2)"},
        {CALL(servo_dc_move_modify(a, changes, 3, true)), "300", "44",
         R"("modifer_data":[)" + change + R"(],"count":3,"validate":1)"},
        {CALL(servo_dc_move_modifier_validate(a, changes, 2)), "-1", "1",
         R"("modifier_data":[)" + change + R"(],"count":2)"},
        {CALL(servo_dc_move_metrics_get(a, axis)), R"({"n":-1,"mean":0.5,"M2":1.25})",
         "", R"("servo_name":2)"},
        {CALL(servo_dc_move_dir_get(a, axis)), "1", "1", R"("servo_name":2)"},
        {CALL(servo_dc_position_get(a, axis)), "-40000", "-40000", R"("servo_name":2)"},
        {CALL(servo_dc_position_get_client(a, axis)), "-12.5", "-12.5", R"("servo_name":2)"},
        {CALL(servo_dc_position_set(a, axis, -5)), "0", "void", R"("servo_name":2,"position":-5)"},
        {CALL(servo_dc_position_set_client(a, axis, -5.25F)), "0", "void",
         R"("servo_name":2,"position":-5.25)"},
        {CALL(servo_dc_target_get_client(a, axis)), "3", "3", R"("servo_name":2)"},
        {CALL(servo_dc_units_client_to_native(a, axis, 1.5F)), "4800", "4800",
         R"("servo_name":2,"pos_client":1.5)"},
        {CALL(servo_dc_units_native_to_client(a, axis, -1)), "0.25", "0.25",
         R"("servo_name":2,"pos_native":-1)"},
        {CALL(servo_dc_name_str_get(a, axis)), "[90,0]", "Z", R"("servo_name":2)"},
        {CALL(servo_dc_backlash_set(a, axis, -5, false)), "0", "void",
         R"("servo_name":2,"backlash_value":-5,"flush":0)"},
        {CALL(servo_dc_trace_enable(a, axis, true)), "0", "void", R"("servo_name":2,"enable":1)"},
        {CALL(unload_initiate(a)), "255", "255"},
        {CALL(load_initiate(a)), "-1", "255"},
        {CALL(Enter_dfu_mode(a)), "0", "void"},
        {CALL(ui_led(a, ui_led_t{1}, 32767, -32768)), "0", "void",
         R"("led":1,"on_count":32767,"off_count":-32768)"},
        {CALL(sd_mmc_write(a, 512, byte, 64)), "1", "1", R"("offset":512,"buf":[200],"length":64)"},
        {CALL(sd_mmc_write_byte(a, 4294967295, 255)), R"({"success":-1,"timetowrite":4294967295})",
         "", R"("offset":4294967295,"write_buf":255)"},
        {CALL(sd_mmc_read_byte(a, 7)), R"({"byteread":200,"timetoread":3})", "", R"("offset":7)"},
        {CALL(sd_mmc_read(a, 0, byte, 2)), "-1", "-1", R"("offset":0,"read_buf":[200],"length":2)"},
        {CALL(sd_mmc_get_storage_info(a)), R"({"total_size":4294967295,"block_count":2,)"
         R"("block_size":512})", ""},
        {CALL(hbridge_duty_set(a, hbridge_name_t{1}, -100)), "0", "void",
         R"("hbridge":1,"duty":-100)"},
        {CALL(wifi_client_scan_refresh(a, wifi)), "12", "12", R"("interface_t":1)"},
        {CALL(wifi_client_scan_get(a, wifi, 255)), R"({"ssid":[110,101,116,0*29],)"
         R"("encryption":-4,"strength":-70})", "", R"("interface_t":1,"index":255)"},
        {CALL(jm_disable_network_tasks(a)), "1", "1"},
        {CALL(jm_enable_network_tasks(a)), "0", "void"},
        {CALL(jm_are_network_tasks_enabled(a)), "0", "0"},
        {CALL(check_store_connection(a)), "1", "1"},
        {CALL(Reset_printer(a)), "0", "void"},
    };
    // clang-format on
#undef CALL
    ASSERT_EQ(std::size(rows), std::tuple_size_v<decltype(jovu::catalogue)>);
    const std::string head = R"({"transport":{"attrs":["request","twoway"],"id":#},"data":)"
                             R"({"command":{"idx":)";
    for (const Row& row : rows) {
        // Rows are in the order of the indices.
        std::string sent = head + std::to_string(&row - rows) + R"(,"name":")" +
                           row.expression.substr(0, row.expression.find('(')) + '"';
        if (!row.arguments.empty()) sent += R"(,"args":{)" + spelled_out(row.arguments) + '}';
        const std::string returned = spelled_out(row.returned);
        for (const bool view : {false, true}) {
            EXPECT_EQ(request_of([&row, view] { return row.call(view); }), sent + "}}}");
            respond_with(R"({"__return__":)" + returned + "}");
            EXPECT_EQ(result(), returned[0] == '{' ? returned : row.result) << row.expression;
        }
    }
}

/// Nothing is sent: a gap in the body could hand a heater a value that was meant for another.
TEST_F(EveryCommand, IsNotSentWithAValueThatHasNoForm) {
    const float nan = std::nanf("");
    servo_dc_client_config_t servo{};
    servo.gains.kd = nan;
    servo_dc_move_config_t far{};
    far.target = -HUGE_VAL;
    const std::pair<std::function<void()>, const char*> rows[] = {
        {[&] { client.heater_var_set(kAddress, {}, nan); }, "\"var_val\" is not a finite number: "},
        {[&] { client.servo_dc_config_set(kAddress, {}, servo); }, "\"kd\" is not a finite number"},
        {[&] { client.servo_dc_move(kAddress, {}, two(far)); },
         "\"target\" is not a finite number: -inf"},
        {[&] { client.servo_dc_move(kAddress, {}, nullptr); }, "\"move_config\" is null"},
        {[&] { client.heater_var_get(kAddress, {}, two(nan)); }, "\"var_val\" is not a finite"},
        {[&] { client.heater_var_get(kAddress, {}, nullptr); }, "\"var_val\" is null"},
        {[&] { client.sd_mmc_write(kAddress, 0, nullptr, 1); }, "\"buf\" is null"},
        {[&] { client.gcode_process_macro(kAddress, nullptr); }, "\"macro\" is null"},
        {[&] { client.gcode_process_macro(kAddress, jovu_make_string(std::string(30000, 'G'))); },
         "is too long"},
        {[&] { client.gcode_process_macro(kAddress, static_cast<const char*>(nullptr)); },
         "\"macro\" is null"},
        {[&] { client.gcode_process_macro(kAddress, std::string(3, '\0')); },
         "\"macro\" is cut by a zero byte at position 0."},
    };
    for (const auto& [call, reason] : rows) {
        call();
        EXPECT_THAT(JovuTransport::last_send_error(), testing::HasSubstr(reason));
    }
    EXPECT_TRUE(fake_usb::sent().empty());
    EXPECT_EQ(
        jovu_read_string(jovu_make_string(std::string_view("abc", 2))) + jovu_read_string(nullptr),
        "ab");
    EXPECT_EQ(error_of([] { jovu_make_string(std::string_view("ab\0c", 4)); }),
              "String refused - zero byte at position 2: remove it.");
}

}  // namespace
}  // namespace test
