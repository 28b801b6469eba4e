// SPDX-License-Identifier: Apache-2.0

/// @file
/// Lines of input: of gcode, from arguments, files and standard input, and answers to questions.
#pragma once

#include <cstddef>
#include <functional>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "posix/files.h"
#include "posix/stop_source.h"

namespace jovu_cli {

/// Reads a line of a shell's input.
/// @param prompt shown at a terminal.
/// @return nothing at the end of the input.
/// @throws Failure interrupted, output_closed, or file_problem.
using ReadLine = std::function<std::optional<std::string>(const std::string& prompt)>;

/// A line of gcode to send.
struct GcodeLine {
    std::size_t number;  ///< Its number in the source, from 1.
    std::string code;    ///< Without comment and surrounding blanks; never empty.
};

/// Reads lines of gcode one by one. Skips comments and blank lines, but counts them.
class GcodeReader {
public:
    virtual ~GcodeReader() = default;

    /// @return the next line; nothing at the end.
    /// @throws Failure file_problem for a source that cannot be read or a line that cannot be sent;
    ///     interrupted or output_closed while it waits for input.
    std::optional<GcodeLine> next();

protected:
    GcodeReader() = default;
    GcodeReader(const GcodeReader&) = default;
    GcodeReader& operator=(const GcodeReader&) = default;

private:
    virtual std::optional<std::string> next_raw() = 0;
    std::size_t number_ = 0;
};

/// Reads lines from the command line.
class ArgumentReader : public GcodeReader {
public:
    /// @throws Failure usage when a line holds a line feed or a carriage return.
    explicit ArgumentReader(std::vector<std::string> lines);

private:
    std::optional<std::string> next_raw() override;
    std::vector<std::string> lines_;
    std::size_t position_ = 0;
};

/// Reads lines from a function that returns nothing at the end.
class FunctionReader : public GcodeReader {
public:
    explicit FunctionReader(std::function<std::optional<std::string>()> read)
        : read_(std::move(read)) {}

private:
    std::optional<std::string> next_raw() override { return read_(); }
    std::function<std::optional<std::string>()> read_;
};

/// Reads lines from a file, a pipe or a terminal, each as soon as it is complete.
class StreamReader : public GcodeReader {
public:
    /// @throws Failure file_problem.
    static StreamReader open_file(const std::string& path, const StopSource& stop);
    static StreamReader standard_input(const StopSource& stop);

    /// @return the next line as it is, without its line feed; nothing at the end.
    /// @throws Failure as next().
    std::optional<std::string> next_raw() override;

    /// A second descriptor to wait for while there is no input.
    struct Side {
        std::function<int()> fd;
        std::function<void()> run;  ///< Called when it is readable.
    };
    void set_side(Side side) { side_ = std::move(side); }

private:
    StreamReader(FileDescriptor owned, int fd, std::string name, const StopSource& stop);
    void fill();

    FileDescriptor owned_;
    int fd_;
    std::string name_;
    const StopSource* stop_;
    Side side_;
    std::string buffer_;
    bool at_end_ = false;
};

/// Whether the user can be asked: standard input and standard error are terminals.
bool can_ask();

/// Shows a question on standard error and reads a line of input. Discards what was typed before.
/// @param read_line the shell's; when empty, standard input is read.
/// @param details lines above the question; must have passed printable().
/// @return whether the line is "y" or "yes"; the end of the input is no.
/// @throws Failure interrupted, output_closed, or file_problem when nothing can be read.
bool ask(const StopSource& stop, const ReadLine& read_line, const std::string& details,
         const std::string& question);

}  // namespace jovu_cli
