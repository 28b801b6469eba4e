// SPDX-License-Identifier: Apache-2.0
#include "firmware/base/structures.h"
#include "firmware/base/values.h"
#include "firmware/commands/commands.h"

namespace jovusim {

namespace {

constexpr int kApply = 0;         ///< "cmd" of wifi_client_configure
constexpr int kApplyAndSave = 1;  ///< likewise

Json code(WifiResult result) {
    return static_cast<int>(result);
}

std::optional<WifiInterface> interface_of(const CommandContext& context) {
    const auto number = context.arg<std::uint32_t>("interface_t");
    if (number >= kWifiInterfaces) return std::nullopt;
    return static_cast<WifiInterface>(number);
}

/// Most Wi-Fi commands apply to the client only.
bool is_client(const CommandContext& context) {
    return interface_of(context) == WifiInterface::client;
}

Json wifi_start_wifi(CommandContext& context) {
    const auto interface = interface_of(context);
    if (!interface) return code(WifiResult::no_interface);
    return code(context.machine.wifi().start(*interface));
}

Json wifi_stop_wifi(CommandContext& context) {
    const auto interface = interface_of(context);
    if (!interface) return code(WifiResult::no_interface);
    return code(context.machine.wifi().stop(*interface));
}

Json wifi_client_connect(CommandContext& context) {
    if (!is_client(context)) return code(WifiResult::no_interface);
    const Json& order = context.args["connect_t"];
    return code(context.machine.wifi().connect(string_of_field(order["ssid"]),
                                               string_of_field(order["key"])));
}

Json wifi_disconnect(CommandContext& context) {
    if (!is_client(context)) return code(WifiResult::no_interface);
    return code(context.machine.wifi().disconnect());
}

Json wifi_client_get_status(CommandContext& context) {
    return context.machine.wifi().status();
}

Json wifi_client_get_configuration(CommandContext& context) {
    return context.machine.wifi().configuration();
}

Json wifi_save_configuration(CommandContext& context) {
    if (!is_client(context)) return code(WifiResult::no_interface);
    context.machine.wifi().save_settings();
    return code(WifiResult::ok);
}

Json wifi_set_auto_start_configuration_item(CommandContext& context) {
    if (!is_client(context)) return code(WifiResult::no_interface);
    context.machine.wifi().settings().auto_start = context.flag("auto_start");
    return code(WifiResult::ok);
}

Json wifi_set_auto_connect_configuration_item(CommandContext& context) {
    if (!is_client(context)) return code(WifiResult::no_interface);
    context.machine.wifi().settings().auto_connect = context.flag("auto_connect");
    return code(WifiResult::ok);
}

Json set_string(CommandContext& context, const char* key, std::size_t most,
                std::string WifiSettings::*item) {
    if (!is_client(context)) return code(WifiResult::no_interface);
    const std::string text = string_from_json(context.args[key]).value_or("");
    if (text.size() > most) return code(WifiResult::bad_value);
    context.machine.wifi().settings().*item = text;
    return code(WifiResult::ok);
}

Json wifi_set_auto_connect_ssid_configuration_item(CommandContext& context) {
    return set_string(context, "auto_connect_ssid", kSsidSize, &WifiSettings::ssid);
}

Json wifi_set_auto_connect_key_configuration_item(CommandContext& context) {
    return set_string(context, "auto_connect_key", kWifiKeySize, &WifiSettings::key);
}

/// Applies the settings of the client; the host cannot set the other members.
Json wifi_client_configure(CommandContext& context) {
    if (!is_client(context)) return code(WifiResult::no_interface);
    const int cmd = context.arg<int>("cmd");
    if (cmd != kApply && cmd != kApplyAndSave) return code(WifiResult::bad_value);
    const Json& config = context.args["config"][0]["ifc_config"];
    Wifi& wifi = context.machine.wifi();
    wifi.settings() = {config["auto_start"] != 0, config["auto_connect"] != 0,
                       string_of_field(config["auto_connect_ssid"]),
                       string_of_field(config["auto_connect_key"]),
                       config["auto_connect_timeout"].get<std::int32_t>()};
    if (cmd == kApplyAndSave) wifi.save_settings();
    return code(WifiResult::ok);
}

Json wifi_client_scan_refresh(CommandContext& context) {
    if (!is_client(context)) return code(WifiResult::no_interface);
    const auto outcome = context.machine.wifi().scan();
    if (const auto* failure = std::get_if<WifiResult>(&outcome)) return code(*failure);
    return std::get<std::size_t>(outcome);
}

Json wifi_client_scan_get(CommandContext& context) {
    constexpr WifiNetwork kNone{"", "", 0, 0};
    const WifiNetwork* network =
        is_client(context) ? context.machine.wifi().found(context.arg<std::uint8_t>("index"))
                           : nullptr;
    if (network == nullptr) network = &kNone;
    return {{"ssid", signed_field(network->ssid, kSsidSize)},
            {"encryption", network->encryption},
            {"strength", network->strength}};
}

constexpr Member kInterface{"interface_t", &kEnumeration};

constexpr Command kWifiRows[] = {
    {18, "wifi_start_wifi", wifi_start_wifi, {{kInterface}}},
    {19, "wifi_stop_wifi", wifi_stop_wifi, {{kInterface}}},
    {20,
     "wifi_client_connect",
     wifi_client_connect,
     {{kInterface, {"connect_t", &structure::kWifiConnect}}}},
    {21, "wifi_disconnect", wifi_disconnect, {{kInterface}}},
    {22, "wifi_client_get_status", wifi_client_get_status, {{kInterface}}},
    {23, "wifi_client_get_configuration", wifi_client_get_configuration, {{kInterface}}},
    {24, "wifi_save_configuration", wifi_save_configuration, {{kInterface}}},
    {25,
     "wifi_set_auto_start_configuration_item",
     wifi_set_auto_start_configuration_item,
     {{kInterface, {"auto_start", &kBoolean}}}},
    {26,
     "wifi_set_auto_connect_configuration_item",
     wifi_set_auto_connect_configuration_item,
     {{kInterface, {"auto_connect", &kBoolean}}}},
    {27,
     "wifi_set_auto_connect_ssid_configuration_item",
     wifi_set_auto_connect_ssid_configuration_item,
     {{kInterface, {"auto_connect_ssid", &kString}}}},
    {28,
     "wifi_set_auto_connect_key_configuration_item",
     wifi_set_auto_connect_key_configuration_item,
     {{kInterface, {"auto_connect_key", &kString}}}},
    {29,
     "wifi_client_configure",
     wifi_client_configure,
     {{kInterface, {"cmd", &kInt}, {"config", &structure::kWifiConfigPointer}}}},
    {61, "wifi_client_scan_refresh", wifi_client_scan_refresh, {{kInterface}}},
    {62, "wifi_client_scan_get", wifi_client_scan_get, {{kInterface, {"index", &kByte}}}},
};

}  // namespace

CommandRows wifi_commands() {
    return {kWifiRows, std::size(kWifiRows)};
}

}  // namespace jovusim
