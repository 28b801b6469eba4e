#include "firmware/commands.h"

namespace jovusim {

namespace {

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

constexpr Command kGpioRows[] = {
    {2, "gpio_get_raw", gpio_get_raw, {{{"gpio", &kEnumeration}}}},
    {3, "gpio_input_get", gpio_input_get, {{{"pin", &kEnumeration}, {"debounce", &kBoolean}}}},
    {4, "gpio_output_set", gpio_output_set, {{{"pin", &kEnumeration}, {"value", &kBoolean}}}},
};

}  // namespace

CommandRows gpio_commands() {
    return {kGpioRows, std::size(kGpioRows)};
}

}  // namespace jovusim
