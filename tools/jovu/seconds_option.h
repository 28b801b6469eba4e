/// @file
/// The options that take a time.
#pragma once

#include <CLI/CLI.hpp>
#include <chrono>
#include <optional>
#include <string>

#include "options.h"

namespace jovu_cli {

/// Adds an option that takes a time in seconds.
/// @param target takes the value; must live as long as the parser.
/// @param least the shortest time that is accepted.
template <class Target>
CLI::Option* add_seconds_option(CLI::App& app, const std::string& names, Target& target,
                                const std::string& description,
                                std::chrono::milliseconds least = {}) {
    const auto take = [&target, names, least](const std::string& text) {
        const std::optional<std::chrono::milliseconds> time = parse_seconds(text);
        if (!time) {
            throw CLI::ValidationError("not a time in seconds: " + text);
        }
        if (*time < least) {
            throw CLI::ValidationError(names + " takes at least " + std::to_string(least.count()) +
                                       " ms: " + text);
        }
        target = *time;
    };
    return app.add_option_function<std::string>(names, take, description)->type_name("SECONDS");
}

}  // namespace jovu_cli
