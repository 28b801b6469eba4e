// SPDX-License-Identifier: Apache-2.0

/// @file
/// Reads lines from a terminal, with editing, history and completion.
#pragma once

#include <cstdio>
#include <exception>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "posix/stop_source.h"
#include "posix/terminal_guard.h"
#include "shell/shell_words.h"
#include "terminal/output.h"

// Types of the line-editing library.
struct editline;
struct history;

namespace jovu_cli {

/// The prompt of an interactive program. All hooks run on the thread that reads. The terminal stays
/// in character mode as long as this object exists: input that is typed before a prompt is kept for
/// the next line.
class LineEditor {
public:
    /// Functions that the program provides.
    struct Hooks {
        /// Completes a line up to the cursor.
        std::function<Completion(const std::string& line)> complete;
        /// A descriptor that is readable when lines are to be shown above the prompt.
        std::function<int()> side_fd;
        /// Writes those lines to the output.
        std::function<void()> show_side;
    };

    /// How the reading of a line ended.
    enum class End {
        line,         ///< A line was read.
        interrupted,  ///< The program is to end; the input of this line is dropped.
        closed,       ///< The end of the input.
    };

    /// @param out a terminal that redraws().
    /// @param history_file keeps lines for the next run; empty for none.
    LineEditor(Output& out, const StopSource& stop, const std::string& history_file, Hooks hooks);
    ~LineEditor();
    LineEditor(const LineEditor&) = delete;
    LineEditor& operator=(const LineEditor&) = delete;

    /// Reads one line, without its line feed, and adds it to the history, unless it is empty,
    /// begins with a blank or holds a secret. Characters that may not be shown are read as U+FFFD:
    /// the line equals the screen.
    End read(std::string& line);

    /// As read(), with another prompt and without the history: input for a command.
    End read_input(const std::string& prompt, std::string& line);

private:
    struct Library;  ///< The library's callbacks.
    struct EndEditor {
        void operator()(editline* editor) const noexcept;
    };
    struct EndHistory {
        void operator()(struct history* lines) const noexcept;
    };

    End edit(std::string& line);
    int next_character(wchar_t& character);
    std::optional<wchar_t> take_character();
    void show_side();
    unsigned char complete_word();
    std::size_t rows_above_cursor() const;
    void remember(const std::string& line);

    Output& out_;
    const StopSource& stop_;
    const std::string history_file_;
    const Hooks hooks_;
    TerminalGuard guard_;
    OwnedStream terminal_;
    std::unique_ptr<struct history, EndHistory> history_;
    std::unique_ptr<editline, EndEditor> editor_;
    std::string prompt_;
    std::string partial_;           ///< Bytes of an incomplete character.
    bool interrupted_ = false;      ///< A stop ended the reading of this line.
    std::exception_ptr exception_;  ///< Of a hook; rethrown outside of the library's frames.
};

/// Creates the directory of the history in $XDG_STATE_HOME or ~/.local/state.
/// @return the path of the history; empty when the directory cannot be created.
std::string history_path();

}  // namespace jovu_cli
