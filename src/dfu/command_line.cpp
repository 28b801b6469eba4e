// SPDX-License-Identifier: Apache-2.0
#include "dfu/command_line.h"

#include <string_view>

#include "dfu/characters.h"
#include "jovu/exception.h"

namespace jovu {
namespace {

/// What has no meaning to a shell wherever it stands in an argument, by a list of what is known to
/// be harmless: so no shell's special character is forgotten. Bytes of other alphabets are.
bool is_plain(char c) noexcept {
    constexpr std::string_view kPlainMarks = "%+,-./:=@_";
    return is_alphanumeric(c) || kPlainMarks.find(c) != std::string_view::npos ||
           static_cast<unsigned char>(c) >= 0x80;
}

/// What may split a text into several arguments, but does no more. A line feed ends the command.
bool is_blank(char c) noexcept {
    return is_space(c) && c != '\n';
}

bool needs_quotes(std::string_view text) noexcept {
    bool after_blank = false;
    for (const char c : text) {
        if (!is_plain(c) && !is_blank(c)) return true;
        if (c == '-' && after_blank) return true;
        after_blank = is_blank(c);
    }
    return false;
}

std::string quoted(std::string_view text) {
    std::string word = "'";
    for (const char c : text) {
        if (c == '\'') {
            word += R"('\'')";
        } else {
            word += c;
        }
    }
    return word + '\'';
}

std::string on_command_line(const std::string& text) {
    return needs_quotes(text) ? quoted(text) : text;
}

void refuse_null_bytes(const char* what, const std::string& text) {
    if (text.find('\0') == std::string::npos) return;
    std::string shown;
    for (const char c : text) {
        if (c == '\0') {
            shown += "\\0";
        } else {
            shown += c;
        }
    }
    throw JovuException(std::string("Failed to update device, null byte in ") + what + ": " + shown,
                        JovuError::rejected);
}

}  // namespace

std::string path_on_command_line(const std::string& path) {
    return needs_quotes(path) ? quoted(path) : escape_spaces(path);
}

std::string tool_command(const std::string& tool_directory) {
    return tool_directory + "/dfu-util";
}

std::string listing_command(const std::string& tool_directory) {
    return tool_command(tool_directory) + " -l";
}

std::string update_command(const std::string& tool_directory, const JovuDfu::DfuDevice_t& device,
                           const std::string& file) {
    refuse_null_bytes("vendor id", device.vendor_id);
    refuse_null_bytes("product id", device.product_id);
    refuse_null_bytes("serial number", device.serial);
    refuse_null_bytes("path", file);
    const bool like_an_option = !file.empty() && file.front() == '-';
    return tool_command(tool_directory) + " -d " +
           on_command_line(device.vendor_id + ":" + device.product_id) + " -a 0 -S " +
           on_command_line(device.serial) + " -D " +
           path_on_command_line(like_an_option ? "./" + file : file);
}

}  // namespace jovu

std::string escape_spaces(std::string path) {
    std::string escaped;
    bool in_run = false;
    for (const char c : path) {
        const bool space = jovu::is_space(c);
        if (space && !in_run) escaped += '/';
        in_run = space;
        escaped += c;
    }
    return escaped;
}
