/// @file
/// Where lines of gcode come from.
#pragma once

#include <cstddef>
#include <functional>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "file_descriptor.h"
#include "stop_source.h"

namespace jovu_cli {

/// A line of gcode that is worth sending.
struct GcodeLine {
    std::size_t number;  ///< Its number in the source, from 1.
    std::string text;    ///< Without comment and surrounding blanks; never empty.
};

/// The part of a line that is sent: without the comment (from ";" on) and surrounding blanks.
std::string strip_gcode(const std::string& line);

/// Hands out lines of gcode one by one. Comments and blank lines are counted, but left out.
class GcodeSource {
public:
    virtual ~GcodeSource() = default;

    /// @return the next line; nothing at the end.
    /// @throws Failure file_problem for a source that cannot be read or a line that cannot be sent;
    ///     interrupted or output_closed while it waits for input.
    std::optional<GcodeLine> next();

protected:
    GcodeSource() = default;
    GcodeSource(const GcodeSource&) = default;
    GcodeSource& operator=(const GcodeSource&) = default;

private:
    virtual std::optional<std::string> next_raw() = 0;
    std::size_t number_ = 0;
};

/// Lines from the command line.
class ArgumentSource : public GcodeSource {
public:
    /// @throws Failure usage when one of the lines holds a line feed or a carriage return.
    explicit ArgumentSource(std::vector<std::string> lines);

private:
    std::optional<std::string> next_raw() override;
    std::vector<std::string> lines_;
    std::size_t position_ = 0;
};

/// Lines from a function that returns nothing at the end.
class FunctionSource : public GcodeSource {
public:
    explicit FunctionSource(std::function<std::optional<std::string>()> read)
        : read_(std::move(read)) {}

private:
    std::optional<std::string> next_raw() override { return read_(); }
    std::function<std::optional<std::string>()> read_;
};

/// Lines from a file, a pipe or a terminal, each as soon as it is complete.
class StreamSource : public GcodeSource {
public:
    /// @throws Failure file_problem.
    static StreamSource open_file(const std::string& path, const StopSource& stop);
    static StreamSource standard_input(const StopSource& stop);

    /// @return the next line as it stands, without its end; nothing at the end.
    /// @throws Failure as next().
    std::optional<std::string> next_raw() override;

    /// What else is waited for while there is no input.
    struct Side {
        std::function<int()> fd;  ///< Descriptor that becomes readable.
        std::function<void()> run;
    };
    void set_side(Side side) { side_ = std::move(side); }

private:
    StreamSource(FileDescriptor owned, int fd, std::string name, const StopSource& stop);
    void fill();

    FileDescriptor owned_;
    int fd_;
    std::string name_;
    const StopSource* stop_;
    Side side_;
    std::string buffer_;
    bool at_end_ = false;
};

}  // namespace jovu_cli
