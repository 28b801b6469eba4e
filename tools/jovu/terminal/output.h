// SPDX-License-Identifier: Apache-2.0

/// @file
/// The program's standard output and standard error.
#pragma once

#include <cstdio>
#include <memory>
#include <string>
#include <string_view>

#include "cli/failure.h"
#include "cli/json.h"
#include "posix/files.h"
#include "posix/stop_source.h"

namespace jovu_cli {

/// Reserves the standard output for the program: file descriptor 1, on which a library may print,
/// becomes a duplicate of standard error.
/// @return the real standard output; invalid when the program was started without one.
FileDescriptor take_standard_output();

/// Chooses which diagnostic lines of the library go to standard error.
/// @param all false for those alone that tell why the USB connection has ended.
void show_diagnostics(bool all);

/// Prints one line on standard error, as printable().
void print_error(const std::string& line);

/// Prints the line of a failure on standard error, if it has one.
void print_failure(const Failure& failure);

/// Closes a stream.
struct CloseStream {
    // NOLINTNEXTLINE(cppcoreguidelines-owning-memory): this is the owner.
    void operator()(std::FILE* stream) const noexcept { std::fclose(stream); }
};
using OwnedStream = std::unique_ptr<std::FILE, CloseStream>;

/// Reads and counts characters as UTF-8 in every locale, for libraries that draw on a terminal.
/// Must not be called while another thread of the program uses the locale.
void use_utf8();

/// Writes to the program's output, unbuffered. A write that blocks ends when the program is to end.
/// Not thread-safe.
///
/// Every writing method throws Failure when the output cannot be written: file_problem, or
/// output_closed when its reader closed it.
class Output {
public:
    /// @param fd must outlive this object, as must @p stop.
    /// @param json whether everything on the output is JSON.
    /// @param quiet whether progress is left out.
    Output(const FileDescriptor& fd, const StopSource& stop, bool json, bool quiet = false);

    /// The same output in another form.
    Output in_form(bool json, bool quiet) const { return Output(fd_, stop_, json, quiet); }

    /// For programs that write to a terminal themselves. Owned by this object's creator.
    int fd() const noexcept { return fd_; }
    /// A new stream to the output, for libraries that draw on a terminal.
    /// @throws std::system_error
    OwnedStream open_stream() const;
    /// Whether everything on the output is JSON.
    bool json() const noexcept { return json_; }
    bool quiet() const noexcept { return quiet_; }
    /// Whether lines may be redrawn: a terminal that can move its cursor, and no JSON.
    bool redraws() const noexcept { return redraws_; }
    /// Width of the terminal at this moment, in characters.
    unsigned columns() const;

    /// Writes a line, as printable(), and a line feed.
    void line(std::string_view text);
    /// Writes one JSON value on one line, in ASCII: other characters are written as \uXXXX. Bytes
    /// in its strings that are not UTF-8 become U+FFFD.
    void object(const Json& value);
    /// Writes bytes as they are: the program's own strings and controls of the terminal. All other
    /// strings must have passed printable().
    void raw(std::string_view bytes);

private:
    Output(int fd, const StopSource& stop, bool json, bool quiet);
    void wait_writable() const;

    int fd_;
    const StopSource& stop_;
    bool json_;
    bool quiet_;
    bool redraws_;
};

}  // namespace jovu_cli
