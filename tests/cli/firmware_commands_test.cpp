// SPDX-License-Identifier: Apache-2.0

/// @file
/// The arguments of `jovu call`: read, or refused before anything is sent.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "cli/failure.h"
#include "cli/suggestions.h"
#include "firmware/firmware_commands.h"
#include "shell/shell_words.h"

namespace {

using jovu_cli::Json;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

/// Reads a line of a command's name and its arguments. A file contains its own name in brackets, or
/// its name when that is JSON.
Json read_arguments(const std::string& line) {
    std::vector<std::string> words = jovu_cli::split_words(line);
    const jovu_cli::FirmwareCommand& command = jovu_cli::firmware_command(words.front());
    words.erase(words.begin());
    return jovu_cli::read_arguments(command, words, [](const std::string& file) {
        return file.front() == '{' ? file : "<" + file + ">";
    });
}

/// The message of the usage error of a line, with its hint.
std::string refusal(const std::string& line) {
    try {
        return "not refused: " + read_arguments(line).dump();
    } catch (const jovu_cli::Failure& failure) {
        EXPECT_EQ(failure.code(), jovu_cli::ExitCode::usage);
        return failure.what() + (" (" + failure.hint() + ")");
    }
}

TEST(Arguments, AreReadByTheirTypes) {
    const std::pair<const char*, const char*> rows[] = {
        {"bio_get_version", "{}"},
        {"gpio_output_set value=on pin=0xFFFFFFFF", R"({"value":true,"pin":4294967295})"},
        {"gpio_output_set value=1 pin=0", R"({"value":true,"pin":0})"},
        {"gpio_output_set value=true pin=0", R"({"value":true,"pin":0})"},
        {"gpio_output_set value=off pin=0", R"({"value":false,"pin":0})"},
        {"gpio_output_set value=0 pin=0", R"({"value":false,"pin":0})"},
        {"gpio_output_set value=false pin=0", R"({"value":false,"pin":0})"},
        {"servo_dc_position_set servo_name=-1 position=-2147483648",
         R"({"servo_name":-1,"position":-2147483648})"},
        {"heater_var_set var_num=+2 var_val=-3.5e-3", R"({"var_num":2,"var_val":-0.0035})"},
        {"heater_param_get param_num=0 "
         "param_val=1.5,0,3.40282356e38,-3.4028234663852886e38,1.4012984643248171e-45",
         R"({"param_num":0,"param_val":[1.5,0.0,3.4028234663852886e38,-3.4028234663852886e38,)"
         R"(1.4012984643248171e-45]})"},
        {"gcode_process_command 'command=M117 a=b {x}'", R"({"command":"M117 a=b {x}"})"},
        {"gcode_process_macro macro=", R"({"macro":""})"},
        {"gcode_process_macro 'macro=@a @b'", R"({"macro":"<a @b>"})"},
        {"gcode_process_macro macro=@@a", R"({"macro":"@a"})"},
        {"sd_mmc_write offset=512 buf=255,0 length=2",
         R"({"offset":512,"buf":[255,0],"length":2})"},
        {"wifi_client_connect interface_t=0 connect_t.ssid=a:b connect_t.key=1,2",
         R"({"interface_t":0,"connect_t":{"ssid":[97,58,98],"key":[49,44,50]}})"},
        {"servo_dc_move move_config={} servo_name=1", R"({"move_config":{},"servo_name":1})"},
        {R"(wifi_client_configure interface_t=0 cmd=1 config.ip_config.ip=192.168.1.7 config.ip_config.dns_server=8,8,4,4 config.hdw_config.mac_address=02:4a:0:0:FF:01 'config.hdw_config={"patch_version":[1,2]}' 'config.ifc_config={"auto_connect_ssid":"net","auto_connect_key":[-23,255,0]}')",
         R"({"interface_t":0,"cmd":1,"config":{"ip_config":{"ip":[192,168,1,7],)"
         R"("dns_server":[8,8,4,4]},"hdw_config":{"patch_version":[1,2],)"
         R"("mac_address":[2,74,0,0,255,1]},"ifc_config":{"auto_connect_ssid":[110,101,116],)"
         R"("auto_connect_key":[233,255,0]}}})"},
        // Members replace those of the JSON, whatever their order; gains were given as a whole.
        {R"(servo_dc_config_set config.gains.kp=3 servo_name=0 'config.gains={"kp":2,"ki":2}' 'config={"gains":{"kp":1,"ki":1,"kd":1},"units":7}')",
         R"({"servo_name":0,"config":{"gains":{"kp":3.0,"ki":2.0},"units":7}})"},
    };
    for (const auto& [line, json] : rows) {
        // As plain JSON: the order of the members does not count.
        EXPECT_EQ(nlohmann::json(read_arguments(line)), nlohmann::json::parse(json));
    }
}

TEST(Arguments, AreRefusedWithTheKeyAndTheValue) {
    const std::pair<std::string, const char*> rows[] = {
        {"gpio_get_raw gpio=4294967296", "gpio=4294967296 is out of range (gpio_name_t: 0"},
        {"gpio_get_raw gpio=99999999999999999999", "is out of range"},
        {"gpio_get_raw gpio=-1", "gpio=-1 is out of range"},
        {"gpio_get_raw gpio=1.0", "gpio=1.0 is not a whole number"},
        {"gpio_get_raw gpio=", "gpio= is not a whole number"},
        {"gpio_get_raw gpio=0x", "is not a whole number"},
        {"gpio_get_raw gpio=0x-1", "is not a whole number"},
        {"gpio_get_raw gpio", "not of the form KEY=VALUE: gpio (it takes gpio=VALUE)"},
        {"gpio_get_raw =1", "not of the form KEY=VALUE: =1"},
        {"gpio_get_raw gpio=1 gpio=1", "gpio is given twice"},
        {"gpio_get_raw gpi=1", "no argument gpi: gpi=1 (did you mean gpio?)"},
        {"gpio_get_raw gpio.=1", "gpio has no members: gpio.=1"},
        {"gpio_input_get pin=1", "without debounce (it takes pin=VALUE debounce=VALUE)"},
        {"gpio_output_set pin=1 value=2", "value=2 is neither 0 nor 1"},
        {"bio_get_version x=1", "no argument x: x=1 (it takes no arguments)"},
        {"heater_var_set var_num=1 var_val=nan", "var_val=nan is not a number"},
        {"heater_var_set var_num=1 var_val=inf", "var_val=inf is out of range"},
        {"heater_var_set var_num=1 var_val=3.40282357e38", "var_val=3.40282357e38 is out of range"},
        {"heater_var_set var_num=1 var_val=1e-60", "var_val=1e-60 is out of range"},
        {"heater_var_get var_num=1 var_val=1,", "var_val=1, is not a number"},
        {"sd_mmc_read offset=0 length=1 read_buf=256", "read_buf=256 is out of range"},
        {{"gcode_process_command command=a\0b", 33}, "holds a NUL byte"},
        {"gcode_process_macro macro=@", "no file is named: macro=@"},
        {"heater_var_get var_num=@1 var_val=0", "var_num=@1 is not a whole number"},
        {"wifi_client_connect connect_t.ssid=123456789012345678901234567890123",
         "is too long, 33 bytes (char[32]: text of at most 32 bytes)"},
        {"wifi_client_connect connect_t=x", "connect_t=x is not JSON: parse error at line 1"},
        {"wifi_client_connect connect_t=@x", "invalid literal (a structure is"},
        {R"(wifi_client_connect 'connect_t=@{"hunt":1}')",
         "holds an unknown member of wifi_client_connect_t ("},
        {"wifi_client_connect connect_t=[]", "connect_t=[] is not a JSON object (a structure is"},
        {R"(wifi_client_connect 'connect_t={"timeout":-1}')", ": timeout is out of range"},
        {R"(wifi_client_connect 'connect_t={"key":{"ssid":1},"ssid":7}')",
         ": key is of another type"},
        {R"(wifi_client_connect 'connect_t={"ssid":[256]}')", ": ssid is out of range"},
        {R"(wifi_client_connect 'connect_t={"ssid":"\u0000"}')", ": ssid holds a NUL byte"},
        {R"(wifi_client_connect 'connect_t={"key":"a","key":"b"}')", " holds a member twice: key"},
        {R"(wifi_client_connect 'connect_t={"timeout":1e999}')", "is not JSON: number overflow"},
        {R"(wifi_client_configure 'config={"ip_config":{"ipp":1}}')",
         ": ip_config holds an unknown member of wifi_ip_config_t: ipp"},
        {"wifi_client_configure config.ip_config.ip=1.2.3.4.", "4 bytes, such as 1.2.3.4)"},
        {"wifi_client_configure config.ip_config.ip=1.2.3.256", "is not 4 bytes"},
        {R"(wifi_client_configure 'config.ip_config={"ip":[1,2,3]}')", "ip has 3 elements"},
        {"servo_dc_config_set config.gains.kq=1",
         "config.gains has no kq: config.gains.kq=1 (did you mean kp,"},
    };
    for (const auto& [line, reason] : rows)
        EXPECT_THAT(refusal(line), HasSubstr(reason));
}

TEST(Names, AreSuggestedWhenOneIsMistyped) {
    const std::vector<std::string> names = jovu_cli::firmware_command_names();
    const auto near = [&](const std::string& typed) { return jovu_cli::suggestions(typed, names); };
    EXPECT_THAT(near("bio_get_verison"), ElementsAre("bio_get_version"));
    EXPECT_THAT(near("ENTER_DFU_MODE"), ElementsAre("Enter_dfu_mode"));
    EXPECT_THAT(near("wifi_client_scan"),
                ElementsAre("wifi_client_scan_get", "wifi_client_scan_refresh"));
    EXPECT_THAT(near("backlash"), ElementsAre("servo_dc_backlash_set"));
    EXPECT_THAT(near("frobnicate"), IsEmpty());
    EXPECT_THAT(jovu_cli::suggestions("satr", {"star", "stow"}), ElementsAre("star"));
    EXPECT_THAT(jovu_cli::suggestions("star", {"satr", "star"}), ElementsAre("star", "satr"));
    EXPECT_THAT(near(""), IsEmpty());
    EXPECT_EQ(jovu_cli::did_you_mean("heater_turn", names),
              "did you mean heater_turn_on or heater_turn_off?");
}

}  // namespace
