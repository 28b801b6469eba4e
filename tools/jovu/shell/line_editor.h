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

// The line-editing library's, whose header is not needed here.
struct editline;
struct history;

namespace jovu_cli {

/// The prompt of an interactive program. Everything runs on the thread that reads. The terminal
/// hands over each byte as it is typed for as long as this object lives, also while nobody reads:
/// what is typed ahead of a prompt waits for the next line.
class LineEditor {
public:
    /// What the editor asks of the program that it reads for.
    struct Hooks {
        /// The ways to go on with a line that is typed up to here.
        std::function<Completion(const std::string& line)> complete;
        /// A descriptor that is readable when there is something to show meanwhile.
        std::function<int()> side_fd;
        /// Shows it on the output, in whole lines.
        std::function<void()> show_side;
    };

    /// How the reading of a line ended.
    enum class End {
        line,         ///< A line is there.
        interrupted,  ///< The program is to end; what was typed is dropped.
        closed,       ///< There are no more lines.
    };

    /// @param out a terminal that redraws().
    /// @param history_file where lines are kept for the next time; empty for nowhere.
    LineEditor(Output& out, const StopSource& stop, const std::string& history_file, Hooks hooks);
    ~LineEditor();
    LineEditor(const LineEditor&) = delete;
    LineEditor& operator=(const LineEditor&) = delete;

    /// Reads one line, without its end, and puts it into the history, unless it is empty or begins
    /// with a blank. Characters that may not be shown come as U+FFFD, so that the line is what the
    /// screen shows.
    End read(std::string& line);

    /// Likewise, behind another prompt and without the history: input for a command.
    End read_input(const std::string& prompt, std::string& line);

private:
    struct Library;  ///< What the library calls back.
    struct CloseFile {
        void operator()(std::FILE* file) const noexcept { std::fclose(file); }
    };
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
    std::unique_ptr<std::FILE, CloseFile> terminal_;
    std::unique_ptr<struct history, EndHistory> history_;
    std::unique_ptr<editline, EndEditor> editor_;
    std::string prompt_;
    std::string partial_;           ///< Bytes of a character that is not complete.
    bool interrupted_ = false;      ///< The reading of this line.
    std::exception_ptr exception_;  ///< Of a hook, on its way past the library's frames.
};

/// The file in which a program's lines are kept, in the user's directory for state that is not
/// worth a backup. Its directory is made when it is not there.
/// @return empty when there is no place for it.
std::string history_path();

}  // namespace jovu_cli
