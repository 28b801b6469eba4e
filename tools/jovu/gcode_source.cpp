#include "gcode_source.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <system_error>
#include <utility>

#include "failure.h"

namespace jovu_cli {
namespace {

/// Far longer than any line of gcode: what has no line end up to here is no gcode file.
constexpr std::size_t max_line = 64U << 10U;
constexpr std::size_t read_size = 4096;

[[noreturn]] void throw_file_problem(const std::string& name, int error) {
    throw Failure(ExitCode::file_problem,
                  "cannot read " + name + ": " + std::generic_category().message(error));
}

/// Whether a device could take a line for several, all but the first of which nobody sees refused.
/// Carriage returns at the end belong to the end of the line.
bool is_several_lines(const std::string& line) {
    const std::size_t last = line.find_last_not_of('\r');
    return last != std::string::npos && line.find_first_of("\r\n") < last;
}

}  // namespace

std::string strip_gcode(const std::string& line) {
    const std::string code = line.substr(0, line.find(';'));
    constexpr const char* blanks = " \t\r\n\v\f";
    const std::size_t begin = code.find_first_not_of(blanks);
    if (begin == std::string::npos) {
        return {};
    }
    return code.substr(begin, code.find_last_not_of(blanks) - begin + 1);
}

std::optional<GcodeLine> GcodeSource::next() {
    while (const std::optional<std::string> raw = next_raw()) {
        ++number_;
        if (is_several_lines(*raw)) {
            throw Failure(ExitCode::file_problem,
                          "not gcode: line " + std::to_string(number_) +
                              " holds a carriage return in its middle: " + *raw,
                          "end each line with a line feed");
        }
        std::string text = strip_gcode(*raw);
        if (text.find('\0') != std::string::npos) {
            throw Failure(ExitCode::file_problem,
                          "not gcode: line " + std::to_string(number_) + " holds a NUL byte");
        }
        if (!text.empty()) {
            return GcodeLine{number_, std::move(text)};
        }
    }
    return std::nullopt;
}

ArgumentSource::ArgumentSource(std::vector<std::string> lines) : lines_(std::move(lines)) {
    for (const std::string& line : lines_) {
        if (line.find_first_of("\r\n") != std::string::npos) {
            throw Failure(ExitCode::usage, "an end of line in a line of gcode: " + line,
                          "give each line as an argument of its own, or all in a file");
        }
    }
}

std::optional<std::string> ArgumentSource::next_raw() {
    if (position_ == lines_.size()) {
        return std::nullopt;
    }
    return lines_[position_++];
}

StreamSource::StreamSource(FileDescriptor owned, int fd, std::string name, const StopSource& stop)
    : owned_(std::move(owned)), fd_(fd), name_(std::move(name)), stop_(&stop) {}

StreamSource StreamSource::open_file(const std::string& path, const StopSource& stop) {
    // Without O_NONBLOCK the opening of a named pipe would wait for its writer, deaf to Ctrl-C.
    FileDescriptor file(open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    if (!file.valid()) {
        throw_file_problem(path, errno);
    }
    const int fd = file.get();
    return StreamSource(std::move(file), fd, path, stop);
}

StreamSource StreamSource::standard_input(const StopSource& stop) {
    return StreamSource(FileDescriptor(), STDIN_FILENO, "standard input", stop);
}

std::optional<std::string> StreamSource::next_raw() {
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
        if (buffer_.size() > max_line) {
            throw Failure(
                ExitCode::file_problem,
                "too long: a line of more than " + std::to_string(max_line) + " bytes in " + name_);
        }
        fill();
    }
}

/// Reads some more; waits for it, but not longer than until the program is to end.
void StreamSource::fill() {
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
    char bytes[read_size];
    const ssize_t count = read(fd_, bytes, sizeof bytes);
    if (count < 0 && errno != EINTR && errno != EAGAIN) {
        throw_file_problem(name_, errno);
    }
    at_end_ = count == 0;
    buffer_.append(bytes, static_cast<std::size_t>(std::max<ssize_t>(count, 0)));
}

}  // namespace jovu_cli
