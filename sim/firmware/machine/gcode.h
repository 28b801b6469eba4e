// SPDX-License-Identifier: Apache-2.0

/// @file
/// The gcode interpreter.
#pragma once

#include <cstdint>
#include <deque>
#include <string>
#include <vector>

#include "firmware/machine/machine.h"

namespace jovusim {

/// Results of gcode commands.
enum class GcodeResult : std::uint8_t {
    ok = 0,
    malformed = 1,     ///< not of the form LETTER NUMBER [LETTER NUMBER]...
    unknown = 2,       ///< no such command
    out_of_range = 3,  ///< a position outside the travel, a temperature too high, ...
    busy = 4,          ///< a move while a job is printing or paused
};

/// Carries out gcode on a machine, one line at a time. No command waits: a move starts the servos
/// and its target is the position from then on; commands that wait for a temperature on a real
/// machine return at once.
class GcodeInterpreter {
public:
    /// @param debug_lines lines for the host are appended here
    GcodeResult run(const std::string& line, Machine& machine,
                    std::vector<std::string>& debug_lines);

    /// Runs the lines of a macro until one is not ok. Returns GcodeResult::unknown for an unknown
    /// name.
    GcodeResult run_macro(const std::string& name, Machine& machine,
                          std::vector<std::string>& debug_lines);

    /// Power-on: absolute coordinates, default speed.
    void reset() { *this = {}; }

    /// The last lines, oldest first, whether or not they succeeded.
    const std::deque<std::string>& last_lines() const { return last_lines_; }

    /// One "LETTER NUMBER" of a line.
    struct Word {
        char letter;
        double value;
    };

    /// The arguments of a command: its words, or its string for commands that take one.
    struct Call {
        std::vector<Word> words;
        std::string text;
        Machine& machine;
        std::vector<std::string>& debug_lines;

        /// The value of the word of that letter, or nothing.
        const double* find(char letter) const;
    };

private:
    static constexpr double kUsualSpeed = 60;

    struct Code;
    static const Code* find_code(const Word& command);

    GcodeResult move(const Call& call);
    GcodeResult home(const Call& call);
    GcodeResult dwell(const Call& call);
    GcodeResult set_absolute(const Call& call);
    GcodeResult set_relative(const Call& call);
    GcodeResult set_extruder_absolute(const Call& call);
    GcodeResult set_extruder_relative(const Call& call);
    GcodeResult set_position(const Call& call);
    GcodeResult set_temperature(const Call& call);
    GcodeResult report_temperature(const Call& call);
    GcodeResult set_fan(const Call& call);
    GcodeResult fan_off(const Call& call);
    GcodeResult report_position(const Call& call);
    GcodeResult report_firmware(const Call& call);
    GcodeResult show_message(const Call& call);
    GcodeResult echo_string(const Call& call);

    bool relative_ = false;
    bool extruder_relative_ = false;
    double speed_ = kUsualSpeed;  ///< of moves, mm/s
    std::deque<std::string> last_lines_;
};

}  // namespace jovusim
