#include "firmware/commands.h"
#include "firmware/values.h"

namespace jovusim {

namespace {

Json gcode_process_command(CommandContext& context) {
    const std::string line = string_from_json(context.args["command"]).value_or("");
    return static_cast<int>(context.gcode.run(line, context.machine, context.debug_lines));
}

Json gcode_process_macro(CommandContext& context) {
    const std::string name = string_from_json(context.args["macro"]).value_or("");
    return static_cast<int>(context.gcode.run_macro(name, context.machine, context.debug_lines));
}

constexpr Command kGcodeRows[] = {
    {5, "gcode_process_command", gcode_process_command, {{{"command", &kString}}}},
    {6, "gcode_process_macro", gcode_process_macro, {{{"macro", &kString}}}},
};

}  // namespace

CommandRows gcode_commands() {
    return {kGcodeRows, std::size(kGcodeRows)};
}

}  // namespace jovusim
