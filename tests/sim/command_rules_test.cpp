// The table of commands and the check of their arguments.
#include <gtest/gtest.h>

#include "firmware/base/host_input.h"
#include "firmware_host.h"

namespace jovusim::test {
namespace {

using Host = FirmwareHost;

std::string repeated(int count, const std::string& value) {
    std::string out = "[";
    for (int i = 0; i < count; ++i)
        out += (i > 0 ? "," : "") + value;
    return out + "]";
}

TEST(CommandRules, NameTheValueThatBreaksThem) {
    const std::string key = repeated(64, "0");
    const std::string gains = R"({"kp":1.0,"ki":1,"kd":1.5,"ka":0,"kv":0,"kf":0})";
    const auto connect = [](const std::string& value) {
        return R"({"interface_t":0,"connect_t":)" + value + "}";
    };
    const auto config = [](const std::string& g) {
        return R"({"servo_name":0,"config":{"interrupt_frequency":1000,"gains":)" + g + "}}";
    };
    const struct {
        const char* name;
        std::string args;
        const char* violation;  ///< part of it
    } cases[] = {
        {"gpio_output_set", R"({"pin":3,"value":true})", "\"value\" is true, not an integer"},
        {"gpio_output_set", R"({"pin":3,"value":2})", "\"value\" is 2, outside 0..1"},
        {"gpio_output_set", R"({"pin":-1,"value":1})", "outside 0..4294967295"},
        {"gpio_output_set", R"({"value":1,"pin":3})", "\"value\" instead of \"pin\""},
        {"servo_dc_name_str_get", R"({"servo_name":2147483648})", "outside -2147483648.."},
        {"servo_dc_backlash_set", R"({"servo_name":0,"backlash_value":40000,"flush":0})",
         "outside -32768..32767"},
        {"wifi_client_scan_get", R"({"interface_t":0,"index":256})", "outside 0..255"},
        {"heater_param_set", R"({"param_num":0,"param_val":0.1})",
         "which a float cannot represent"},
        {"heater_param_set", R"({"param_num":0,"param_val":16777217})",
         "which a float cannot represent"},
        {"heater_param_set", R"({"param_num":0,"param_val":1e39})",
         "which a float cannot represent"},
        {"heater_param_get", R"({"param_num":0,"param_val":1.5})", "not an array"},
        {"heater_param_get", R"({"param_num":0,"param_val":[1.5,2.5]})", "has 2 elements, not 1"},
        {"sd_mmc_write", R"({"offset":0,"buf":[-1],"length":1})",
         "\"buf\"[0] is -1, outside 0..255"},
        {"wifi_client_connect",
         connect(R"({"ssid":)" + repeated(31, "0") + R"(,"key":)" + key + R"(,"timeout":1})"),
         "\"connect_t\".ssid has 31 elements, not 32"},
        {"wifi_client_connect",
         connect(R"({"ssid":)" + repeated(32, "200") + R"(,"key":)" + key + R"(,"timeout":1})"),
         ".ssid[0] is 200, outside -128..127"},
        {"wifi_client_connect",
         connect(R"({"key":)" + key + R"(,"ssid":)" + repeated(32, "0") + R"(,"timeout":1})"),
         "has \"key\" instead of \"ssid\""},
        {"servo_dc_config_set", config(gains), "\"config\" lacks \"pwm_cap\""},
        {"servo_dc_config_set", config("[1,2,3,4,5,6]"), ".gains is [1,2,3,4,5,6], not an object"},
    };
    for (const auto& c : cases) {
        Host host;
        EXPECT_TRUE(host.result(c.name, c.args).is_null()) << c.violation;
        const auto violations = host.controller.take_violations();
        ASSERT_FALSE(violations.empty()) << c.violation;
        EXPECT_NE(violations[0].find(c.violation), std::string::npos) << violations[0];
    }
}

TEST(CommandRules, AnExcerptIsShortAndPrintable) {
    const std::string longest(120, 'x');
    EXPECT_EQ(excerpt(longest), longest);
    EXPECT_EQ(excerpt(longest + "x"), longest + "...");
    EXPECT_EQ(excerpt("\x1F ~\x7F\xE9"), "\\x1f ~\\x7f\\xe9");
}

TEST(CommandRules, TakeAnyNumberForADouble) {
    EXPECT_FALSE(check_string({-128, 127, 0}));
    EXPECT_TRUE(check_string({-129, 0}) && check_string({128, 0}));
    for (const char* target : {"0.1", "1", "1.0", "-0.0", "1e-07", "9.9999999999999995475e-08"}) {
        EXPECT_FALSE(check_value(Json::parse(target), kDouble)) << target;
    }
    for (const char* value : {"1", "1.0", "-0.0", "1e+20", "3.4028234663852885981e+38"}) {
        const auto fault = check_value(Json::parse(value), kFloat);
        EXPECT_EQ(fault.has_value(), std::string(value) == "1e+20") << value;
    }
}

}  // namespace
}  // namespace jovusim::test
