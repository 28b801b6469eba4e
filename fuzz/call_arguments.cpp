// SPDX-License-Identifier: Apache-2.0

/// @file
/// Arguments of `jovu call`: the number of a command, then arguments, each ended by a line feed.
#include <cstdint>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <vector>

#include "cli/failure.h"
#include "firmware/firmware_commands.h"
#include "require.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size < 1) return 0;
    const auto& commands = jovu_cli::firmware_commands();
    const jovu_cli::FirmwareCommand& command = commands[data[0] % commands.size()];
    std::istringstream text(std::string(data + 1, data + size));
    std::vector<std::string> given;
    for (std::string line; std::getline(text, line);)
        given.push_back(line);
    try {
        const jovu_cli::Json arguments =
            jovu_cli::read_arguments(command, given, [](const std::string& file) { return file; });
        REQUIRE(arguments.size() == command.arguments.size());
        for (const jovu_cli::NamedType& argument : command.arguments)
            REQUIRE(arguments.contains(std::string(argument.key)));
    } catch (const jovu_cli::Failure& failure) {
        REQUIRE(*failure.what() != '\0');
    }
    return 0;
}
