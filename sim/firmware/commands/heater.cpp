// SPDX-License-Identifier: Apache-2.0
#include "firmware/commands/commands.h"

namespace jovusim {

namespace {

constexpr int kDone = 0;
constexpr int kRefused = -1;

Json done_if(bool done) {
    return done ? kDone : kRefused;
}

/// Returns a value in the argument that is the buffer of the host.
Json return_in_buffer(CommandContext& context, const char* key, std::optional<double> value) {
    if (!value) return kRefused;
    context.args[key] = Json::array({static_cast<float>(*value)});
    return kDone;
}

Json heater_param_set(CommandContext& context) {
    return done_if(context.machine.heater().set_parameter(context.arg<std::uint32_t>("param_num"),
                                                          context.arg<double>("param_val")));
}

Json heater_param_get(CommandContext& context) {
    const auto number = context.arg<std::uint32_t>("param_num");
    return return_in_buffer(context, "param_val", context.machine.heater().parameter(number));
}

Json heater_param_set_defaults(CommandContext& context) {
    context.machine.heater().reset_parameters();
    return kNoResult;
}

Json heater_var_set_defaults(CommandContext& context) {
    context.machine.heater().reset_variables();
    return kNoResult;
}

Json heater_turn_on(CommandContext& context) {
    return done_if(context.machine.heater().turn_on());
}

Json heater_turn_off(CommandContext& context) {
    context.machine.heater().turn_off();
    return kDone;
}

Json heater_in_guardband(CommandContext& context) {
    return int{context.machine.heater().in_guardband()};
}

Json heater_state_get(CommandContext& context) {
    return static_cast<int>(context.machine.heater().state());
}

Json heater_fault_get(CommandContext& context) {
    return static_cast<int>(context.machine.heater().fault());
}

Json heater_var_set(CommandContext& context) {
    return done_if(context.machine.heater().set_variable(context.arg<std::uint32_t>("var_num"),
                                                         context.arg<double>("var_val")));
}

Json heater_var_get(CommandContext& context) {
    const auto number = context.arg<std::uint32_t>("var_num");
    return return_in_buffer(context, "var_val", context.machine.heater().variable(number));
}

constexpr Command kHeaterRows[] = {
    {7,
     "heater_param_set",
     heater_param_set,
     {{{"param_num", &kEnumeration}, {"param_val", &kFloat}}}},
    {8,
     "heater_param_get",
     heater_param_get,
     {{{"param_num", &kEnumeration}, {"param_val", &kFloatBuffer}}}},
    {9, "heater_param_set_defaults", heater_param_set_defaults, {}},
    {10, "heater_var_set_defaults", heater_var_set_defaults, {}},
    {11, "heater_turn_on", heater_turn_on, {}},
    {12, "heater_turn_off", heater_turn_off, {}},
    {13, "heater_in_guardband", heater_in_guardband, {}},
    {14, "heater_state_get", heater_state_get, {}},
    {15, "heater_fault_get", heater_fault_get, {}},
    {16, "heater_var_set", heater_var_set, {{{"var_num", &kEnumeration}, {"var_val", &kFloat}}}},
    {17,
     "heater_var_get",
     heater_var_get,
     {{{"var_num", &kEnumeration}, {"var_val", &kFloatBuffer}}}},
};

}  // namespace

CommandRows heater_commands() {
    return {kHeaterRows, std::size(kHeaterRows)};
}

}  // namespace jovusim
