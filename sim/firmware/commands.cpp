#include "firmware/commands.h"

namespace jovusim {

std::size_t Command::argument_count() const {
    std::size_t count = 0;
    while (count < arguments.size() && arguments[count].key != nullptr)
        ++count;
    return count;
}

const Command* find_command(const std::string& name) {
    for (const auto family : {identity_commands, gpio_commands, gcode_commands, heater_commands,
                              wifi_commands, servo_commands, storage_commands, system_commands}) {
        for (const Command& command : family()) {
            if (name == command.name) return &command;
        }
    }
    return nullptr;
}

}  // namespace jovusim
