#include "question.h"

#include <poll.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <iterator>
#include <system_error>

#include "failure.h"
#include "words.h"

namespace jovu_cli {
namespace {

/// Reads a line, one byte at a time: bytes behind it stay for the next reader.
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

bool can_ask() {
    return isatty(STDIN_FILENO) != 0 && isatty(STDERR_FILENO) != 0;
}

bool ask(const Context& context, const std::string& text, const std::string& question) {
    const std::string prompt = question + " [y/N] ";
    const std::string shown = context.read_line ? text : text + prompt;
    // What was typed before the question was shown does not answer it.
    (void)tcflush(STDIN_FILENO, TCIFLUSH);
    (void)!write(STDERR_FILENO, shown.data(), shown.size());
    const std::string answer = lower_case(context.read_line ? context.read_line(prompt).value_or("")
                                                            : read_line(context.stop));
    return answer == "y" || answer == "yes";
}

}  // namespace jovu_cli
