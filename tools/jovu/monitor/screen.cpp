// SPDX-License-Identifier: Apache-2.0
#include "monitor/screen.h"

#define NCURSES_NOMACROS
#include <curses.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cwchar>
#include <string_view>
#include <system_error>

#include "cli/failure.h"
#include "posix/child_process.h"
#include "posix/terminal_guard.h"
#include "terminal/printable.h"

namespace jovu_cli {
namespace {

/// How long the rest of a key's sequence may take, in milliseconds.
constexpr int kEscapeDelay = 50;
constexpr wchar_t kUndrawable = 0xFFFD;

/// Keeps what is written to standard output and standard error, if they are a terminal, and writes
/// the end of it to standard error when it is destroyed.
class HeldDiagnostics {
public:
    HeldDiagnostics() {
        if (isatty(STDERR_FILENO) == 0) {
            return;
        }
        std::fflush(stdout);
        file_ = FileDescriptor(memfd_create("jovu-diagnostics", MFD_CLOEXEC));
        standard_error_ = FileDescriptor(fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 3));
        if (!file_.valid() || !standard_error_.valid() ||
            fcntl(file_.get(), F_SETFL, O_APPEND) == -1) {
            throw std::system_error(errno, std::generic_category(), "memfd_create");
        }
        redirect(file_);
    }
    ~HeldDiagnostics() {
        if (!file_.valid()) {
            return;
        }
        std::fflush(stdout);
        redirect(standard_error_);
        std::array<char, kMaxShown> bytes{};
        struct stat status {};
        const bool known = fstat(file_.get(), &status) == 0;
        const auto size = static_cast<std::size_t>(known ? status.st_size : 0);
        const std::size_t skipped = size > bytes.size() ? size - bytes.size() : 0;
        const ssize_t count =
            pread(file_.get(), bytes.data(), bytes.size(), static_cast<off_t>(skipped));
        std::string_view lines(bytes.data(), static_cast<std::size_t>(std::max<ssize_t>(count, 0)));
        if (skipped > 0) {
            lines.remove_prefix(std::min(lines.size(), lines.find('\n') + 1));
        }
        (void)!write(STDERR_FILENO, lines.data(), lines.size());
    }
    HeldDiagnostics(const HeldDiagnostics&) = delete;
    HeldDiagnostics& operator=(const HeldDiagnostics&) = delete;

    /// Keeps the memory bounded.
    void trim() const {
        struct stat status {};
        if (file_.valid() && fstat(file_.get(), &status) == 0 && status.st_size > kMaxHeld) {
            (void)!ftruncate(file_.get(), 0);
        }
    }

private:
    static constexpr std::size_t kMaxShown = 4096;
    static constexpr off_t kMaxHeld = 1 << 20;

    static void redirect(const FileDescriptor& target) noexcept {
        dup2(target.get(), STDOUT_FILENO);  // The library prints its lines there.
        dup2(target.get(), STDERR_FILENO);
    }

    FileDescriptor file_;
    FileDescriptor standard_error_;
};

/// @return a string of the terminal's description, without marks of delays; empty for none.
std::string capability(const char* name) {
    const char* const value = tigetstr(name);
    // The library returns -1 for the name of no string.
    std::string string =
        value == nullptr || reinterpret_cast<std::intptr_t>(value) == -1 ? "" : value;
    for (std::size_t mark = string.find("$<"); mark != std::string::npos;
         mark = string.find("$<", mark)) {
        const std::size_t end = string.find('>', mark);
        string.erase(mark, end == std::string::npos ? end : end - mark + 1);
    }
    return string;
}

/// @return the characters of a string that fit into the columns; their width is subtracted.
std::wstring fitting(const std::string& value, int& columns) {
    std::wstring fit;
    std::mbstate_t state{};
    for (std::size_t i = 0; i < value.size();) {
        wchar_t character = 0;
        // NOLINTNEXTLINE(concurrency-mt-unsafe): the state is local.
        const std::size_t size = std::mbrtowc(&character, &value[i], value.size() - i, &state);
        if (size == 0 || size > value.size() - i) {
            break;  // printable() returns UTF-8 only.
        }
        i += size;
        int width = wcwidth(character);
        if (width < 0) {
            character = kUndrawable;
            width = 1;
        }
        if (width > columns) {
            break;
        }
        columns -= width;
        fit += character;
    }
    return fit;
}

MonitorKey key_of(wint_t character) {
    switch (character) {
        case L'p':
            return MonitorKey::pause;
        case L'r':
            return MonitorKey::resume;
        case L'a':
            return MonitorKey::abort;
        case L'y':
        case L'Y':
            return MonitorKey::yes;
        case L'n':
        case L'N':
        case 0x1B:
            return MonitorKey::no;
        case L'?':
            return MonitorKey::help;
        case L'q':
            return MonitorKey::quit;
        default:
            return MonitorKey::other;
    }
}

}  // namespace

struct Screen::Library {
    struct EndScreen {
        void operator()(SCREEN* owned) const noexcept {
            // One thread uses the library. NOLINTNEXTLINE(concurrency-mt-unsafe)
            endwin();
            delscreen(owned);  // NOLINT(concurrency-mt-unsafe)
        }
    };
    struct EndWindow {
        void operator()(WINDOW* window) const noexcept { delwin(window); }
    };

    explicit Library(const Output& out) : fd(out.fd()), guard(out.fd()), stream(out.open_stream()) {
        use_utf8();
        use_tioctl(TRUE);  // The size of the window, before LINES and COLUMNS.
        screen.reset(newterm(nullptr, stream.get(), stdin));
        if (!screen) {
            throw Failure(ExitCode::usage, "unknown terminal type: " + environment("TERM"),
                          "set TERM to the type of the terminal");
        }
        set_escdelay(kEscapeDelay);
        cbreak();
        ignore_flow_control();
        noecho();
        curs_set(0);
        // Reading from a window with changes would draw it; a pad is not drawn.
        keys.reset(newpad(1, 1));
        keypad(keys.get(), TRUE);
        nodelay(keys.get(), TRUE);
        if (has_colors()) {
            start_color();
            use_default_colors();
            for (const auto& [style, color] : {std::pair{Style::good, COLOR_GREEN},
                                               {Style::warning, COLOR_YELLOW},
                                               {Style::bad, COLOR_RED}}) {
                init_pair(static_cast<short>(style), static_cast<short>(color), -1);
            }
        }
        guard.keep_changed();
        guard.set_strings(
            capability("cnorm") + capability("sgr0") + capability("rmkx") + capability("rmcup"),
            capability("smcup") + capability("smkx") + capability("civis"));
    }
    ~Library() { guard.set_strings({}, {}); }
    Library(const Library&) = delete;
    Library& operator=(const Library&) = delete;

    /// Makes Ctrl-S a key like any other: a terminal that it holds would block the drawing thread.
    void ignore_flow_control() const {
        termios modes{};
        if (tcgetattr(fd, &modes) == 0) {
            modes.c_iflag &= ~static_cast<tcflag_t>(IXON);
            tcsetattr(fd, TCSANOW, &modes);
            def_prog_mode();
        }
    }

    static attr_t attributes(Style style) {
        const auto color =
            has_colors() ? static_cast<attr_t>(COLOR_PAIR(static_cast<int>(style))) : attr_t{0};
        switch (style) {
            case Style::normal:
                return A_NORMAL;
            case Style::strong:
                return A_BOLD;
            case Style::faint:
                return A_DIM;
            case Style::good:
                return color;
            case Style::warning:
            case Style::bad:
                return color | A_BOLD;
        }
        return A_NORMAL;
    }

    HeldDiagnostics diagnostics;
    const int fd;
    TerminalGuard guard;
    OwnedStream stream;
    std::unique_ptr<SCREEN, EndScreen> screen;
    std::unique_ptr<WINDOW, EndWindow> keys;
};

Screen::Screen(const Output& out) : library_(std::make_unique<Library>(out)) {}

Screen::~Screen() = default;

ScreenSize Screen::size() const {
    return {static_cast<unsigned>(getmaxy(stdscr)), static_cast<unsigned>(getmaxx(stdscr))};
}

void Screen::draw(const std::vector<ScreenLine>& lines) {
    library_->diagnostics.trim();
    pollfd terminal{library_->fd, POLLOUT, 0};
    if (!TerminalGuard::may_use() || poll(&terminal, 1, 0) != 1) {
        return;
    }
    if (TerminalGuard::take_stopped()) {
        clearok(curscr, TRUE);
    }
    werase(stdscr);
    const auto [rows, columns] = size();
    for (std::size_t row = 0; row < lines.size() && row < rows; ++row) {
        wmove(stdscr, static_cast<int>(row), 0);
        int left = static_cast<int>(columns);
        for (const Span& span : lines[row]) {
            const std::wstring text = fitting(printable(span.text), left);
            wattrset(stdscr, static_cast<int>(Library::attributes(span.style)));
            waddnwstr(stdscr, text.data(), static_cast<int>(text.size()));
        }
    }
    wattrset(stdscr, A_NORMAL);
    wrefresh(stdscr);
}

std::optional<MonitorKey> Screen::read_key() {
    if (!TerminalGuard::may_use()) {
        return std::nullopt;
    }
    wint_t character = 0;
    switch (wget_wch(library_->keys.get(), &character)) {
        case OK:
            return key_of(character);
        case KEY_CODE_YES:
            return character == KEY_UP     ? MonitorKey::up
                   : character == KEY_DOWN ? MonitorKey::down
                                           : MonitorKey::other;
        default:
            return std::nullopt;
    }
}

void Screen::wait_for_frame(const StopSource& stop, std::chrono::steady_clock::time_point drawn,
                            std::initializer_list<int> descriptors) {
    using std::chrono::milliseconds;
    constexpr milliseconds kShortestFrame{50};
    constexpr milliseconds kLongestFrame{250};
    constexpr nfds_t kAlways = 2;  // What ends the shortest frame as well: the end, and a key.
    std::vector<pollfd> watched{{stop.fd(), POLLIN, 0},
                                {TerminalGuard::may_use() ? STDIN_FILENO : -1, POLLIN, 0}};
    for (const int descriptor : descriptors) {
        watched.push_back({descriptor, POLLIN, 0});
    }
    const auto until = [](std::chrono::steady_clock::time_point end) {
        const auto left =
            std::chrono::duration_cast<milliseconds>(end - std::chrono::steady_clock::now());
        return static_cast<int>(std::max<std::int64_t>(left.count(), 0));
    };
    if (poll(watched.data(), kAlways, until(drawn + kShortestFrame)) == 0) {
        poll(watched.data(), watched.size(), until(drawn + kLongestFrame));
    }
    stop.throw_if_stopped();
    if ((watched[1].revents & (POLLHUP | POLLERR)) != 0) {  // The terminal is closed.
        throw Failure(ExitCode::output_closed);
    }
}

}  // namespace jovu_cli
