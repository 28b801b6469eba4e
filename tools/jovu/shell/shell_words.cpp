// SPDX-License-Identifier: Apache-2.0
#include "shell/shell_words.h"

#include <algorithm>
#include <cstddef>
#include <filesystem>
#include <system_error>

#include "cli/failure.h"
#include "cli/suggestions.h"
#include "firmware/firmware_commands.h"

namespace jovu_cli {
namespace {

bool is_blank(char c) {
    return c == ' ' || c == '\t' || c == '\r';
}

bool begins_with(const std::string& value, const std::string& begin) {
    return value.compare(0, begin.size(), begin) == 0;
}

void add(std::vector<std::string>& words, const std::string& word, const std::string& typed) {
    if (begins_with(word, typed) && std::find(words.begin(), words.end(), word) == words.end()) {
        words.push_back(word);
    }
}

std::vector<std::string> matching(const std::vector<std::string>& all, const std::string& typed) {
    std::vector<std::string> words;
    for (const std::string& word : all) {
        add(words, word, typed);
    }
    return words;
}

/// The keys of a command that are not assigned yet, one level of members at a time.
std::vector<std::string> keys(const std::string& name, const std::vector<std::string>& given,
                              const std::string& typed) {
    std::vector<std::string> words;
    const std::vector<FirmwareCommand>& commands = firmware_commands();
    const auto command =
        std::find_if(commands.begin(), commands.end(),
                     [&](const FirmwareCommand& candidate) { return candidate.name == name; });
    if (command == commands.end()) {
        return words;
    }
    for (const auto& [path, type] : key_paths(command->arguments)) {
        const std::string assignment = path + "=";
        const bool already = std::any_of(given.begin(), given.end(), [&](const std::string& word) {
            return begins_with(word, assignment);
        });
        if (type->kind == Kind::structure || already || !begins_with(assignment, typed)) {
            continue;
        }
        const std::size_t dot = assignment.find('.', typed.size());
        add(words, dot == std::string::npos ? assignment : assignment.substr(0, dot + 1), typed);
    }
    return words;
}

bool is_secret(const std::string& name) {
    for (const char* const end : {"key", "password"}) {
        const std::size_t at = name.rfind(end);
        if (at != std::string::npos && at + std::string(end).size() == name.size()) {
            return true;
        }
    }
    return false;
}

/// The last components of all keys of arguments that hold a secret.
std::vector<std::string> secret_names() {
    std::vector<std::string> names;
    for (const FirmwareCommand& command : firmware_commands()) {
        for (const auto& [path, type] : key_paths(command.arguments)) {
            const std::string name = path.substr(path.rfind('.') + 1);
            if (is_secret(name)) {
                add(names, name, "");
            }
        }
    }
    return names;
}

std::vector<std::string> file_names(const std::string& typed) {
    namespace fs = std::filesystem;
    const std::size_t slash = typed.rfind('/');
    const std::string directory = slash == std::string::npos ? "" : typed.substr(0, slash + 1);
    std::vector<std::string> words;
    std::error_code error;
    for (fs::directory_iterator entry(directory.empty() ? "." : directory, error), end;
         !error && entry != end; entry.increment(error)) {
        const std::string name = entry->path().filename().string();
        const bool hidden = name.front() == '.' && typed.size() == directory.size();
        std::error_code ignored;
        if (!hidden) {
            add(words, directory + name + (entry->is_directory(ignored) ? "/" : ""), typed);
        }
    }
    std::sort(words.begin(), words.end());
    return words;
}

std::vector<std::string> candidates(const std::vector<std::string>& before,
                                    const std::string& typed,
                                    const std::vector<std::string>& commands,
                                    const std::vector<std::string>& devices) {
    if (before.empty()) {
        return begins_with(typed, ".") ? matching(commands, typed) : std::vector<std::string>();
    }
    const std::string& command = before.front();
    if (command == ".call" && before.size() > 1) {
        return keys(before[1], before, typed);
    }
    if (command == ".call" || command == ".commands") {
        return matching(firmware_command_names(), typed);
    }
    if (command == ".help") {
        return matching(commands, typed);
    }
    if (command == ".wait" && before.size() == 1) {
        return matching({"device", "state", "temperature"}, typed);
    }
    if (command == ".device") {
        return matching(devices, typed);
    }
    if (command == ".events") {
        return matching({"on", "off"}, typed);
    }
    return begins_with(command, ".") ? file_names(typed) : std::vector<std::string>();
}

}  // namespace

std::vector<std::string> split_words(const std::string& line) {
    std::vector<std::string> words;
    std::string word;
    bool in_word = false;
    char quote = '\0';
    for (std::size_t i = 0; i < line.size(); ++i) {
        const char c = line[i];
        if (c == '\\' && quote != '\'') {
            if (++i == line.size()) {
                throw Failure(ExitCode::usage, "nothing follows the backslash: " + line);
            }
            word += line[i];
            in_word = true;
        } else if (quote != '\0') {
            if (c == quote) {
                quote = '\0';
            } else {
                word += c;
            }
        } else if (c == '\'' || c == '"') {
            quote = c;
            in_word = true;
        } else if (!is_blank(c)) {
            word += c;
            in_word = true;
        } else if (in_word) {
            words.push_back(word);
            word.clear();
            in_word = false;
        }
    }
    if (quote != '\0') {
        throw Failure(ExitCode::usage, "a quote is not closed: " + line);
    }
    if (in_word) {
        words.push_back(word);
    }
    return words;
}

bool holds_secret(const std::string& line) {
    static const std::vector<std::string> names = secret_names();
    // The line is searched, as one that cannot be parsed may hold a secret as well. Quotes and
    // backslashes may stand anywhere in it.
    std::string plain = lower_case(line);
    plain.erase(std::remove_if(plain.begin(), plain.end(),
                               [](char c) { return c == '\\' || c == '\'' || c == '"'; }),
                plain.end());
    return std::any_of(names.begin(), names.end(), [&](const std::string& name) {
        for (std::size_t at = plain.find(name); at != std::string::npos;
             at = plain.find(name, at)) {
            at += name.size();
            const std::string rest =
                plain.substr(std::min(plain.find_first_not_of(" \t", at), plain.size()));
            const bool file = begins_with(rest, "=@") && !begins_with(rest, "=@@");
            if (!file && (begins_with(rest, "=") || begins_with(rest, ":"))) {
                return true;
            }
        }
        return false;
    });
}

Completion complete(const std::string& line, const std::vector<std::string>& commands,
                    const std::vector<std::string>& devices) {
    std::vector<std::string> before;
    std::string typed;
    for (const char c : line) {
        if (c != ' ') {
            typed += c;
        } else if (!typed.empty()) {
            before.push_back(typed);
            typed.clear();
        }
    }
    return {typed.size(), candidates(before, typed, commands, devices)};
}

std::string common_prefix(const std::vector<std::string>& words) {
    std::string prefix = words.empty() ? "" : words.front();
    for (const std::string& word : words) {
        const auto differ =
            std::mismatch(prefix.begin(), prefix.end(), word.begin(), word.end()).first;
        prefix.erase(differ, prefix.end());
    }
    return prefix;
}

}  // namespace jovu_cli
