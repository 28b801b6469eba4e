// SPDX-License-Identifier: Apache-2.0

/// @file
/// Commands for identity, pins, gcode, filament, lights, network tasks and resets.
#include "firmware/base/values.h"
#include "firmware/commands/commands.h"

namespace jovusim {

namespace {

Json bio_get_version(CommandContext& context) {
    return string_to_json(context.identity.firmware_version);
}

Json bio_get_serial(CommandContext& context) {
    return string_to_json(context.identity.serial);
}

Json gpio_get_raw(CommandContext& context) {
    return int{context.machine.gpio().level(context.arg<std::uint32_t>("gpio"))};
}

Json gpio_input_get(CommandContext& context) {
    const auto input = context.arg<std::uint32_t>("pin");
    return static_cast<int>(
        context.machine.gpio().input(input, context.flag("debounce"), context.now));
}

Json gpio_output_set(CommandContext& context) {
    const auto pin = context.arg<std::uint32_t>("pin");
    if (!context.machine.gpio().set_output(pin, context.flag("value"))) {
        context.debug_lines.push_back("gpio: " + std::to_string(pin) + " is not an output");
    }
    return kNoResult;
}

Json gcode_process_command(CommandContext& context) {
    const std::string line = string_from_json(context.args["command"]).value_or("");
    return static_cast<int>(context.gcode.run(line, context.machine, context.debug_lines));
}

Json gcode_process_macro(CommandContext& context) {
    const std::string name = string_from_json(context.args["macro"]).value_or("");
    return static_cast<int>(context.gcode.run_macro(name, context.machine, context.debug_lines));
}

constexpr int kStarted = 0;
constexpr int kBusy = 1;

Json unload_initiate(CommandContext& context) {
    return context.machine.begin_filament_change(FilamentState::unloading) ? kStarted : kBusy;
}

Json load_initiate(CommandContext& context) {
    return context.machine.begin_filament_change(FilamentState::loading) ? kStarted : kBusy;
}

Json enter_dfu_mode(CommandContext& context) {
    context.machine.enter_dfu_mode(context.now);
    return kNoResult;
}

Json ui_led(CommandContext& context) {
    const auto number = context.arg<std::uint32_t>("led");
    const Led led{context.arg<std::int16_t>("on_count"), context.arg<std::int16_t>("off_count")};
    if (!context.machine.panel().set_led(number, led)) {
        context.debug_lines.push_back("led: " + std::to_string(number) + " refused");
    }
    return kNoResult;
}

Json hbridge_duty_set(CommandContext& context) {
    const auto bridge = context.arg<std::uint32_t>("hbridge");
    const int duty = context.arg<int>("duty");
    if (!context.machine.panel().set_duty(bridge, duty)) {
        context.debug_lines.push_back("hbridge: duty " + std::to_string(duty) + " of bridge " +
                                      std::to_string(bridge) + " refused");
    }
    return kNoResult;
}

Json jm_disable_network_tasks(CommandContext& context) {
    context.machine.network_tasks = false;
    return 0;
}

Json jm_enable_network_tasks(CommandContext& context) {
    context.machine.network_tasks = true;
    return kNoResult;
}

Json jm_are_network_tasks_enabled(CommandContext& context) {
    return int{context.machine.network_tasks};
}

/// The store needs Wi-Fi and the network tasks.
Json check_store_connection(CommandContext& context) {
    return int{context.machine.network_tasks && context.machine.wifi().connected()};
}

Json reset_printer(CommandContext& context) {
    context.machine.reset();
    context.gcode.reset();
    return kNoResult;
}

constexpr Command kSystemRows[] = {
    {0, "bio_get_version", bio_get_version, {}},
    {1, "bio_get_serial", bio_get_serial, {}},
    {2, "gpio_get_raw", gpio_get_raw, {{{"gpio", &kEnumeration}}}},
    {3, "gpio_input_get", gpio_input_get, {{{"pin", &kEnumeration}, {"debounce", &kBoolean}}}},
    {4, "gpio_output_set", gpio_output_set, {{{"pin", &kEnumeration}, {"value", &kBoolean}}}},
    {5, "gcode_process_command", gcode_process_command, {{{"command", &kString}}}},
    {6, "gcode_process_macro", gcode_process_macro, {{{"macro", &kString}}}},
    {51, "unload_initiate", unload_initiate, {}},
    {52, "load_initiate", load_initiate, {}},
    {53, "Enter_dfu_mode", enter_dfu_mode, {}},
    {54,
     "ui_led",
     ui_led,
     {{{"led", &kEnumeration}, {"on_count", &kShort}, {"off_count", &kShort}}}},
    {60, "hbridge_duty_set", hbridge_duty_set, {{{"hbridge", &kEnumeration}, {"duty", &kInt}}}},
    {63, "jm_disable_network_tasks", jm_disable_network_tasks, {}},
    {64, "jm_enable_network_tasks", jm_enable_network_tasks, {}},
    {65, "jm_are_network_tasks_enabled", jm_are_network_tasks_enabled, {}},
    {66, "check_store_connection", check_store_connection, {}},
    {67, "Reset_printer", reset_printer, {}},
};

}  // namespace

CommandRows system_commands() {
    return {kSystemRows, std::size(kSystemRows)};
}

}  // namespace jovusim
