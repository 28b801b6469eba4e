#include "firmware/commands.h"

#include "firmware/values.h"

namespace jovusim {

namespace {

Json bio_get_version(CommandContext& context) {
    return text_to_json(context.identity.firmware_version);
}

Json bio_get_serial(CommandContext& context) {
    return text_to_json(context.identity.serial);
}

Json gcode_process_command(CommandContext& context) {
    const std::string line = text_from_json(context.args["command"]).value_or("");
    return static_cast<int>(context.gcode.run(line, context.machine, context.debug_lines));
}

/// All commands, each idx and each name once.
constexpr std::array kCommands = {
    Command{0, "bio_get_version", bio_get_version, {}},
    Command{1, "bio_get_serial", bio_get_serial, {}},
    Command{5, "gcode_process_command", gcode_process_command, {{{"command", check_text}}}},
};

}  // namespace

std::size_t Command::argument_count() const {
    std::size_t count = 0;
    while (count < arguments.size() && arguments[count].key != nullptr)
        ++count;
    return count;
}

const Command* find_command(const std::string& name) {
    for (const Command& command : kCommands) {
        if (name == command.name) return &command;
    }
    return nullptr;
}

}  // namespace jovusim
