// SPDX-License-Identifier: Apache-2.0
#include "terminal/line_reader.h"

#include <poll.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <iterator>
#include <system_error>
#include <utility>

#include "cli/failure.h"
#include "cli/suggestions.h"
#include "posix/files.h"
#include "terminal/format.h"

namespace jovu_cli {
namespace {

/// Bytes; far longer than any line of gcode.
constexpr std::size_t kMaxLine = 64U << 10U;
constexpr std::size_t kReadSize = 4096;  // Bytes.

[[noreturn]] void throw_file_problem(const std::string& name, int error) {
    throw Failure(ExitCode::file_problem,
                  "cannot read " + name + ": " + std::generic_category().message(error));
}

/// Whether a device could read a line as several; it returns the result of the first one only.
/// Carriage returns at the end belong to the end of the line.
bool is_several_lines(const std::string& line) {
    const std::size_t last = line.find_last_not_of('\r');
    return last != std::string::npos && line.find_first_of("\r\n") < last;
}

/// Reads a line one byte at a time: the bytes after it stay for the next reader.
std::string read_line(const StopSource& stop) {
    std::string line;
    for (;;) {
        pollfd waited[] = {{STDIN_FILENO, POLLIN, 0}, {stop.fd(), POLLIN, 0}};
        if (poll(waited, std::size(waited), -1) == -1) {
            continue;  // EINTR, as after SIGSTOP and SIGCONT.
        }
        if (waited[1].revents != 0) {
            (void)!write(STDERR_FILENO, "\n", 1);
            stop.throw_if_stopped();
        }
        char byte = 0;
        const ssize_t count = read(STDIN_FILENO, &byte, 1);
        if (count == 0 || byte == '\n') {
            return line;
        }
        if (count == 1) {
            line += byte;
        } else if (errno != EINTR && errno != EAGAIN) {
            throw Failure(ExitCode::file_problem,
                          "cannot read standard input: " + std::generic_category().message(errno));
        }
    }
}

}  // namespace

std::optional<GcodeLine> GcodeReader::next() {
    while (const std::optional<std::string> raw = next_raw()) {
        ++number_;
        if (is_several_lines(*raw)) {
            throw Failure(ExitCode::file_problem,
                          "not gcode: line " + std::to_string(number_) +
                              " holds a carriage return in its middle: " + *raw,
                          "end each line with a line feed");
        }
        std::string code = strip_gcode(*raw);
        if (code.find('\0') != std::string::npos) {
            throw Failure(ExitCode::file_problem,
                          "not gcode: line " + std::to_string(number_) + " holds a NUL byte");
        }
        if (!code.empty()) {
            return GcodeLine{number_, std::move(code)};
        }
    }
    return std::nullopt;
}

ArgumentReader::ArgumentReader(std::vector<std::string> lines) : lines_(std::move(lines)) {
    for (const std::string& line : lines_) {
        if (line.find_first_of("\r\n") != std::string::npos) {
            throw Failure(ExitCode::usage, "an end of line in a line of gcode: " + line,
                          "give each line as an argument of its own, or all in a file");
        }
    }
}

std::optional<std::string> ArgumentReader::next_raw() {
    if (position_ == lines_.size()) {
        return std::nullopt;
    }
    return lines_[position_++];
}

StreamReader::StreamReader(FileDescriptor owned, int fd, std::string name, const StopSource& stop)
    : owned_(std::move(owned)), fd_(fd), name_(std::move(name)), stop_(&stop) {}

StreamReader StreamReader::open_file(const std::string& path, const StopSource& stop) {
    FileDescriptor file = open_for_reading(path);
    if (!file.valid()) {
        throw_file_problem(path, errno);
    }
    const int fd = file.get();
    return StreamReader(std::move(file), fd, path, stop);
}

StreamReader StreamReader::standard_input(const StopSource& stop) {
    return StreamReader(FileDescriptor(), STDIN_FILENO, "standard input", stop);
}

std::optional<std::string> StreamReader::next_raw() {
    for (;;) {
        const std::size_t end = buffer_.find('\n');
        if (end != std::string::npos) {
            std::string line = buffer_.substr(0, end);
            buffer_.erase(0, end + 1);
            return line;
        }
        if (at_end_) {
            if (buffer_.empty()) {
                return std::nullopt;
            }
            return std::exchange(buffer_, {});
        }
        if (buffer_.size() > kMaxLine) {
            throw Failure(
                ExitCode::file_problem,
                "too long: a line of more than " + std::to_string(kMaxLine) + " bytes in " + name_);
        }
        fill();
    }
}

/// Waits for more input and reads it. Ends when the program is to end.
void StreamReader::fill() {
    pollfd waited[] = {
        {fd_, POLLIN, 0}, {stop_->fd(), POLLIN, 0}, {side_.fd ? side_.fd() : -1, POLLIN, 0}};
    if (poll(waited, std::size(waited), -1) == -1) {
        return;
    }
    stop_->throw_if_stopped();
    if (waited[2].revents != 0) {
        side_.run();
    }
    if (waited[0].revents == 0) {
        return;
    }
    char bytes[kReadSize];
    const ssize_t count = read(fd_, bytes, sizeof bytes);
    if (count < 0 && errno != EINTR && errno != EAGAIN) {
        throw_file_problem(name_, errno);
    }
    at_end_ = count == 0;
    buffer_.append(bytes, static_cast<std::size_t>(std::max<ssize_t>(count, 0)));
}

bool can_ask() {
    return isatty(STDIN_FILENO) != 0 && isatty(STDERR_FILENO) != 0;
}

bool ask(const StopSource& stop, const ReadLine& read_shell_line, const std::string& details,
         const std::string& question) {
    const std::string prompt = question + " [y/N] ";
    const std::string shown = read_shell_line ? details : details + prompt;
    // Drop what was typed before the question was shown.
    (void)tcflush(STDIN_FILENO, TCIFLUSH);
    (void)!write(STDERR_FILENO, shown.data(), shown.size());
    const std::string answer =
        lower_case(read_shell_line ? read_shell_line(prompt).value_or("") : read_line(stop));
    return answer == "y" || answer == "yes";
}

}  // namespace jovu_cli
