/// @file
/// Every command of the firmware, called by name.
#include <map>

#include "cli_test.h"

namespace test {
namespace {

using nlohmann::json;
using testing::HasSubstr;

/// @return a value of an argument's kind.
std::string example(const json& argument) {
    const std::string kind = argument["kind"];
    if (kind == "structure") return "{}";
    if (kind == "text") return argument.contains("size") ? "net" : "G28";
    // Off: the samples of a trace would delay all later responses.
    if (kind == "boolean") return "0";
    return kind == "buffer" ? "1,2" : "1";
}

/// The command that disconnects a device.
constexpr const char* kDisconnecting = "Enter_dfu_mode";

TEST(Call, ReachesTheDeviceWithEveryCommand) {
    const json commands = json::parse(jovu({"commands", "--json"}).out);
    ASSERT_FALSE(commands.empty());
    const JovuDeviceAddress device = plug();
    for (const json& command : commands) {
        const std::string name = command["name"];
        if (name == kDisconnecting) continue;
        std::vector<std::string> words{"call", name, "--json"};
        for (const json& argument : command["arguments"]) {
            words.push_back(argument["key"].get<std::string>() + "=" + example(argument));
        }
        const Ended ended = jovu(words);
        ASSERT_EQ(ended.status, 0) << name << ": " << ended.err;
        const json response = json::parse(ended.out);
        EXPECT_EQ(response["index"], command["index"]);
        const std::string kind = command["result"]["kind"], type = response["result"].type_name();
        const std::map<std::string, std::string> types{
            {"nothing", "null"},  {"boolean", "boolean"},  {"integer", "number"},
            {"number", "number"}, {"structure", "object"}, {"text", "string"}};
        EXPECT_EQ(type, types.at(kind)) << name;
        EXPECT_EQ(response["result"].is_object() ? response["result"].size() : 0,
                  command["result"].value("members", json::array()).size());
        EXPECT_EQ(requests(device, name), 1) << name;
    }
    EXPECT_EQ(protocol_violations(device), 0) << stats(device)["protocol_violations"];
    const Ended ended = jovu({"call", kDisconnecting});
    EXPECT_EQ(ended.status, 0) << ended.err;
    EXPECT_TRUE(eventually([] { return sim("list").find("product=00df") != std::string::npos; }));
}

TEST(Call, ReadsBackWhatItHasWritten) {
    const JovuDeviceAddress device = plug();
    const auto result = [](const std::vector<std::string>& words) {
        const Ended ended = jovu(words);
        EXPECT_EQ(ended.status, 0) << ended.err;
        return json::parse(ended.out)["result"];
    };
    json config = result({"call", "servo_dc_config_get", "servo_name=0", "--json"});
    EXPECT_EQ(jovu({"call", "servo_dc_config_set", "servo_name=0", "config=" + config.dump(),
                    "config.gains.kp=0.1", "config.pwm_cap=900"})
                  .out,
              "done\n");
    config["gains"]["kp"] = 0.1;
    config["pwm_cap"] = 900;
    EXPECT_EQ(result({"call", "servo_dc_config_get", "servo_name=0", "--json"}), config);

    json wifi = result({"call", "wifi_client_get_configuration", "interface_t=0", "--json"});
    EXPECT_THAT(wifi["hdw_config"]["mac_address"].get<std::string>(),
                testing::MatchesRegex("([0-9a-f][0-9a-f]:)+[0-9a-f][0-9a-f]"));
    const TemporaryFile ssid("ssid", "caf\xC3\xA9\n");
    EXPECT_EQ(jovu({"call", "wifi_set_auto_connect_ssid_configuration_item", "interface_t=0",
                    "auto_connect_ssid=@" + ssid.path()})
                  .status,
              0);
    const std::vector<std::string> set_key{"call", "wifi_set_auto_connect_key_configuration_item",
                                           "interface_t=0", "auto_connect_key=@-"};
    EXPECT_EQ(jovu(set_key, "a\nb\n\n").status, 0) << "without the last line feed";
    EXPECT_EQ(jovu(set_key, std::string(300000, '\n')).status, 7) << "without end";
    const Ended shown = jovu({"call", "wifi_client_get_configuration", "interface_t=0"});
    EXPECT_THAT(shown.out, HasSubstr("\nifc_config.auto_connect_ssid     caf\xC3\xA9\n"));
    EXPECT_THAT(shown.out, HasSubstr("\nifc_config.auto_connect_key      a\\nb\\n\n"));
    EXPECT_EQ(jovu({"call", "heater_var_get", "var_num=0", "var_val=0"}).out,
              "status 0; the value itself is not returned\n");
    EXPECT_EQ(protocol_violations(device), 0);
}

}  // namespace
}  // namespace test
