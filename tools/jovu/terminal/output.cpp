// SPDX-License-Identifier: Apache-2.0
#include "terminal/output.h"

#include <fcntl.h>
#include <langinfo.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <clocale>
#include <cstring>
#include <nlohmann/json.hpp>
#include <optional>
#include <system_error>

#include "jovu/log.h"
#include "posix/child_process.h"
#include "terminal/printable.h"

namespace jovu_cli {
namespace {

constexpr unsigned kDefaultColumns = 80;

/// Opens the null device on standard descriptors that were closed when the program started, or the
/// next file to be opened would become standard output.
void fill_standard_descriptors() {
    for (int fd = open("/dev/null", O_RDWR); fd != -1; fd = open("/dev/null", O_RDWR)) {
        if (fd > STDERR_FILENO) {
            close(fd);
            return;
        }
    }
}

bool can_move_cursor(int fd) {
    const std::string term = environment("TERM");
    return isatty(fd) != 0 && !term.empty() && term != "dumb";
}

[[noreturn]] void throw_write_error(int error) {
    if (error == EPIPE || error == EIO) {  // EIO: the terminal has been closed.
        throw Failure(ExitCode::output_closed);
    }
    throw Failure(ExitCode::file_problem, std::string("cannot write the output: ") +
                                              std::generic_category().message(error));
}

}  // namespace

FileDescriptor take_standard_output() {
    const bool given = fcntl(STDOUT_FILENO, F_GETFD) != -1;
    fill_standard_descriptors();
    FileDescriptor output(given ? fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 3) : -1);
    dup2(STDERR_FILENO, STDOUT_FILENO);
    return output;
}

void show_diagnostics(bool all) {
    jovu_set_log_handler([all](JovuLogLevel level, std::optional<JovuDeviceAddress> /*device*/,
                               const std::string& text) {
        if (all || level == JovuLogLevel::fatal) {
            print_error(text);
        }
    });
}

void print_error(const std::string& line) {
    const std::string shown = printable(line) + "\n";
    // A failure cannot be reported anywhere.
    (void)!write(STDERR_FILENO, shown.data(), shown.size());
}

void print_failure(const Failure& failure) {
    const std::string what = failure.what();
    if (what.empty()) {
        return;
    }
    const std::string hint = failure.hint().empty() ? "" : " (" + failure.hint() + ")";
    print_error("jovu: " + what + hint);
}

void use_utf8() {
    std::setlocale(LC_CTYPE, "");  // NOLINT(concurrency-mt-unsafe)
    // NOLINTNEXTLINE(concurrency-mt-unsafe)
    if (std::strcmp(nl_langinfo(CODESET), "UTF-8") != 0) {
        std::setlocale(LC_CTYPE, "C.UTF-8");  // NOLINT(concurrency-mt-unsafe)
    }
}

Output::Output(const FileDescriptor& fd, const StopSource& stop, bool json, bool quiet)
    : Output(fd.get(), stop, json, quiet) {}

Output::Output(int fd, const StopSource& stop, bool json, bool quiet)
    : fd_(fd), stop_(stop), json_(json), quiet_(quiet), redraws_(!json && can_move_cursor(fd_)) {}

OwnedStream Output::open_stream() const {
    const int copy = fcntl(fd_, F_DUPFD_CLOEXEC, 0);
    OwnedStream stream(copy == -1 ? nullptr : fdopen(copy, "w"));
    if (!stream) {
        throw std::system_error(errno, std::generic_category(), "fdopen");
    }
    return stream;
}

unsigned Output::columns() const {
    winsize size{};
    (void)ioctl(fd_, TIOCGWINSZ, &size);  // Leaves zeros without a terminal.
    return size.ws_col != 0 ? size.ws_col : kDefaultColumns;
}

void Output::line(std::string_view text) {
    raw(printable(text) + "\n");
}

void Output::object(const Json& value) {
    raw(value.dump(-1, ' ', true, Json::error_handler_t::replace) + "\n");
}

void Output::raw(std::string_view bytes) {
    while (!bytes.empty()) {
        wait_writable();
        // A pipe that polls as writable takes this much without blocking.
        const ssize_t written =
            write(fd_, bytes.data(), std::min<std::size_t>(bytes.size(), PIPE_BUF));
        if (written != -1) {
            bytes.remove_prefix(static_cast<std::size_t>(written));
        } else if (errno != EINTR && errno != EAGAIN) {
            throw_write_error(errno);
        }
    }
}

void Output::wait_writable() const {
    if (fd_ == -1) {
        throw_write_error(EBADF);
    }
    pollfd waited[] = {{fd_, POLLOUT, 0}, {stop_.fd(), POLLIN, 0}};
    for (;;) {
        if (poll(waited, std::size(waited), -1) == -1) {
            continue;
        }
        if (waited[0].revents != 0) {
            return;  // Writable, or the write returns the error.
        }
        stop_.throw_if_stopped();
    }
}

}  // namespace jovu_cli
