// SPDX-License-Identifier: Apache-2.0
#include "firmware/machine/gcode.h"

#include <array>
#include <cctype>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <optional>
#include <string_view>

namespace jovusim {

namespace {

constexpr std::size_t kRememberedLines = 8;
constexpr double kMaxCelsius = 300.0;
constexpr double kMaxFan = 255.0;
constexpr std::array<char, kAxisCount> kAxisLetters = {'X', 'Y', 'Z', 'E'};
constexpr double kSecondsPerMinute = 60.0;

struct Macro {
    const char* name;
    std::array<const char*, 4> lines;  ///< null ends them
};
constexpr std::array kMacros = {
    Macro{"home", {"G28"}},
    Macro{"park", {"G90", "G1 X0 Y200 Z180 F6000"}},
    Macro{"preheat", {"M104 S210"}},
    Macro{"cooldown", {"M104 S0", "M107"}},
};

bool is_blank(char c) {
    return std::string_view(" \t\r\n").find(c) != std::string_view::npos;
}

bool is_letter(char c) {
    return std::isalpha(static_cast<unsigned char>(c)) != 0;
}

char upper(char c) {
    return static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
}

std::size_t skip_blanks(const std::string& line, std::size_t at) {
    while (is_blank(line[at]))  // the terminating 0 is not a blank
        ++at;
    return at;
}

/// Reads the word at a position and advances the position. A letter alone has the value 0, as in
/// "G28 X".
bool read_word(const std::string& line, std::size_t& at, GcodeInterpreter::Word& word) {
    if (!is_letter(line[at])) return false;
    word = {upper(line[at]), 0.0};
    ++at;
    if (at == line.size() || is_blank(line[at])) return true;
    const char* begin = line.data() + at;
    const char* const end = line.data() + line.size();
    if (*begin == '+') ++begin;
    const auto [stop, error] = std::from_chars(begin, end, word.value, std::chars_format::fixed);
    if (error != std::errc() || !std::isfinite(word.value)) return false;
    at = static_cast<std::size_t>(stop - line.data());
    return true;
}

}  // namespace

/// One command of the table.
struct GcodeInterpreter::Code {
    char letter;
    int number;
    bool takes_string;  ///< the rest of the line is a string, not words
    GcodeResult (GcodeInterpreter::*run)(const Call&);
};

const GcodeInterpreter::Code* GcodeInterpreter::find_code(const Word& command) {
    using I = GcodeInterpreter;
    static constexpr std::array kCodes = {
        Code{'G', 0, false, &I::move},
        Code{'G', 1, false, &I::move},
        Code{'G', 4, false, &I::dwell},
        Code{'G', 28, false, &I::home},
        Code{'G', 90, false, &I::set_absolute},
        Code{'G', 91, false, &I::set_relative},
        Code{'G', 92, false, &I::set_position},
        Code{'M', 82, false, &I::set_extruder_absolute},
        Code{'M', 83, false, &I::set_extruder_relative},
        Code{'M', 104, false, &I::set_temperature},
        Code{'M', 105, false, &I::report_temperature},
        Code{'M', 106, false, &I::set_fan},
        Code{'M', 107, false, &I::fan_off},
        Code{'M', 109, false, &I::set_temperature},
        Code{'M', 114, false, &I::report_position},
        Code{'M', 115, false, &I::report_firmware},
        Code{'M', 117, true, &I::show_message},
        Code{'M', 118, true, &I::echo_string},
    };
    for (const Code& code : kCodes) {
        if (code.letter == command.letter && code.number == command.value) return &code;
    }
    return nullptr;
}

const double* GcodeInterpreter::Call::find(char letter) const {
    for (const Word& word : words) {
        if (word.letter == letter) return &word.value;
    }
    return nullptr;
}

GcodeResult GcodeInterpreter::run(const std::string& line, Machine& machine,
                                  std::vector<std::string>& debug_lines) {
    last_lines_.push_back(line);
    if (last_lines_.size() > kRememberedLines) last_lines_.pop_front();

    const std::string program = line.substr(0, line.find(';'));
    std::size_t at = skip_blanks(program, 0);
    if (at == program.size()) return GcodeResult::ok;

    Word command{};
    if (!read_word(program, at, command)) return GcodeResult::malformed;
    const Code* const code = find_code(command);
    if (code == nullptr) return GcodeResult::unknown;

    Call call{{}, {}, machine, debug_lines};
    at = skip_blanks(program, at);
    if (code->takes_string) {
        call.text = line.substr(at);
    } else {
        while (at < program.size()) {
            Word word{};
            if (!read_word(program, at, word)) return GcodeResult::malformed;
            call.words.push_back(word);
            at = skip_blanks(program, at);
        }
    }
    return (this->*code->run)(call);
}

GcodeResult GcodeInterpreter::run_macro(const std::string& name, Machine& machine,
                                        std::vector<std::string>& debug_lines) {
    for (const Macro& macro : kMacros) {
        if (name != macro.name) continue;
        for (const char* line : macro.lines) {
            if (line == nullptr) break;
            const GcodeResult result = run(line, machine, debug_lines);
            if (result != GcodeResult::ok) return result;
        }
        return GcodeResult::ok;
    }
    return GcodeResult::unknown;
}

GcodeResult GcodeInterpreter::move(const Call& call) {
    if (call.machine.job().running()) return GcodeResult::busy;
    std::array<std::optional<double>, kAxisCount> targets;
    for (std::size_t axis = 0; axis < kAxisCount; ++axis) {
        const double* value = call.find(kAxisLetters[axis]);
        if (value == nullptr) continue;
        const Servo& servo = call.machine.servos()[axis];
        const bool relative = axis == kE ? extruder_relative_ : relative_;
        const double target = relative ? servo.target() + *value : *value;
        if (!servo.in_travel(target)) return GcodeResult::out_of_range;
        targets[axis] = target;
    }
    const double* feed = call.find('F');
    if (feed != nullptr && *feed <= 0) return GcodeResult::out_of_range;
    if (feed != nullptr) speed_ = *feed / kSecondsPerMinute;
    for (std::size_t axis = 0; axis < kAxisCount; ++axis) {
        if (targets[axis]) call.machine.servos()[axis].drive_to(*targets[axis], speed_);
    }
    return GcodeResult::ok;
}

GcodeResult GcodeInterpreter::home(const Call& call) {
    if (call.machine.job().running()) return GcodeResult::busy;
    for (const Axis axis : {kX, kY, kZ}) {
        if (call.words.empty() || call.find(kAxisLetters[axis]) != nullptr) {
            call.machine.servos()[axis].drive_to(0, kUsualSpeed);
        }
    }
    return GcodeResult::ok;
}

GcodeResult GcodeInterpreter::dwell(const Call& call) {
    for (const Word& word : call.words) {
        if (word.value < 0) return GcodeResult::out_of_range;
    }
    return GcodeResult::ok;
}

GcodeResult GcodeInterpreter::set_absolute(const Call&) {
    relative_ = extruder_relative_ = false;
    return GcodeResult::ok;
}

GcodeResult GcodeInterpreter::set_relative(const Call&) {
    relative_ = extruder_relative_ = true;
    return GcodeResult::ok;
}

GcodeResult GcodeInterpreter::set_extruder_absolute(const Call&) {
    extruder_relative_ = false;
    return GcodeResult::ok;
}

GcodeResult GcodeInterpreter::set_extruder_relative(const Call&) {
    extruder_relative_ = true;
    return GcodeResult::ok;
}

GcodeResult GcodeInterpreter::set_position(const Call& call) {
    for (std::size_t axis = 0; axis < kAxisCount; ++axis) {
        const double* value = call.find(kAxisLetters[axis]);
        if (value != nullptr || call.words.empty()) {
            call.machine.servos()[axis].set_position(value != nullptr ? *value : 0.0);
        }
    }
    return GcodeResult::ok;
}

GcodeResult GcodeInterpreter::set_temperature(const Call& call) {
    const double* celsius = call.find('S');
    if (celsius == nullptr) return GcodeResult::malformed;
    if (*celsius < 0 || *celsius > kMaxCelsius) return GcodeResult::out_of_range;
    // A heater that cannot warm enters its fault state.
    call.machine.heater().hold(*celsius);
    return GcodeResult::ok;
}

GcodeResult GcodeInterpreter::report_temperature(const Call& call) {
    char text[64];
    std::snprintf(text, sizeof text, "ok T:%.1f /%.1f", call.machine.heater().temperature(),
                  call.machine.heater().target());
    call.debug_lines.emplace_back(text);
    return GcodeResult::ok;
}

GcodeResult GcodeInterpreter::set_fan(const Call& call) {
    const double* speed = call.find('S');
    if (speed != nullptr && (*speed < 0 || *speed > kMaxFan)) return GcodeResult::out_of_range;
    call.machine.fan = static_cast<int>(speed != nullptr ? *speed : kMaxFan);
    return GcodeResult::ok;
}

GcodeResult GcodeInterpreter::fan_off(const Call& call) {
    call.machine.fan = 0;
    return GcodeResult::ok;
}

GcodeResult GcodeInterpreter::report_position(const Call& call) {
    ServoBank& at = call.machine.servos();
    char text[128];
    std::snprintf(text, sizeof text, "X:%.2f Y:%.2f Z:%.2f E:%.2f", at[kX].target(),
                  at[kY].target(), at[kZ].target(), at[kE].target());
    call.debug_lines.emplace_back(text);
    return GcodeResult::ok;
}

GcodeResult GcodeInterpreter::report_firmware(const Call& call) {
    call.debug_lines.emplace_back("FIRMWARE_NAME:jovu-sim EXTRUDER_COUNT:1");
    return GcodeResult::ok;
}

GcodeResult GcodeInterpreter::show_message(const Call& call) {
    call.machine.display = call.text;
    return GcodeResult::ok;
}

GcodeResult GcodeInterpreter::echo_string(const Call& call) {
    call.debug_lines.push_back(call.text);
    return GcodeResult::ok;
}

}  // namespace jovusim
