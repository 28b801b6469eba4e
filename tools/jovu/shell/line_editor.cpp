// SPDX-License-Identifier: Apache-2.0
#include "shell/line_editor.h"

#include <histedit.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cwchar>
#include <filesystem>
#include <system_error>
#include <utility>
#include <vector>

#include "posix/child_process.h"
#include "terminal/printable.h"

namespace jovu_cli {
namespace {

constexpr const char* kPrompt = "jovu> ";
constexpr int kHistoryLines = 1000;
/// Replaces characters that may not be shown.
constexpr wchar_t kReplacement = 0xFFFD;

/// @return the width of a string on the terminal.
std::size_t width_of(const char* bytes, std::size_t length) {
    std::size_t width = 0;
    std::mbstate_t state{};
    for (;;) {
        wchar_t character = 0;
        // NOLINTNEXTLINE(concurrency-mt-unsafe): the state is local.
        const std::size_t size = std::mbrtowc(&character, bytes, length, &state);
        if (size == 0 || size > length) {  // Also at the end.
            return width;
        }
        width += static_cast<std::size_t>(std::max(wcwidth(character), 0));
        bytes += size;
        length -= size;
    }
}

/// @return the words in columns; each line ends with a line feed.
std::string in_columns(const std::vector<std::string>& words, std::size_t width) {
    std::size_t longest = 0;
    for (const std::string& word : words) {
        longest = std::max(longest, character_count(printable(word)));
    }
    const std::size_t columns = std::max<std::size_t>(1, width / (longest + 2));
    std::string lines;
    for (std::size_t i = 0; i < words.size(); ++i) {
        std::string cell = printable(words[i]);
        const bool last = (i + 1) % columns == 0 || i + 1 == words.size();
        if (!last) {
            cell.append(longest + 2 - character_count(cell), ' ');
        }
        lines += cell + (last ? "\n" : "");
    }
    return lines;
}

}  // namespace

struct LineEditor::Library {
    static LineEditor& self(EditLine* editor) {
        void* data = nullptr;
        el_get(editor, EL_CLIENTDATA, &data);
        return *static_cast<LineEditor*>(data);
    }

    static char* prompt(EditLine* editor) { return self(editor).prompt_.data(); }

    static int get_character(EditLine* editor, wchar_t* character) {
        LineEditor& line_editor = self(editor);
        try {
            return line_editor.next_character(*character);
        } catch (...) {
            line_editor.exception_ = std::current_exception();  // edit() rethrows it.
            return -1;
        }
    }

    static unsigned char complete(EditLine* editor, wint_t /*key*/) {
        LineEditor& line_editor = self(editor);
        try {
            return line_editor.complete_word();
        } catch (...) {
            line_editor.exception_ = std::current_exception();
            return CC_EOF;
        }
    }
};

void LineEditor::EndEditor::operator()(editline* editor) const noexcept {
    // Otherwise the library discards input that the next reader of the terminal expects. The guard
    // restores the modes.
    el_set(editor, EL_EDITMODE, 0);
    el_end(editor);
}

void LineEditor::EndHistory::operator()(struct history* lines) const noexcept {
    history_end(lines);
}

LineEditor::LineEditor(Output& out, const StopSource& stop, const std::string& history_file,
                       Hooks hooks)
    : out_(out),
      stop_(stop),
      history_file_(history_file),
      hooks_(std::move(hooks)),
      guard_(STDIN_FILENO) {
    use_utf8();
    terminal_ = out.open_stream();
    history_.reset(history_init());
    editor_.reset(el_init("jovu", stdin, terminal_.get(), stderr));
    if (!history_ || !editor_) {
        throw std::bad_alloc();
    }
    HistEvent event{};
    ::history(history_.get(), &event, H_SETSIZE, kHistoryLines);
    ::history(history_.get(), &event, H_SETUNIQUE, 1);
    if (!history_file_.empty()) {
        ::history(history_.get(), &event, H_LOAD, history_file_.c_str());
    }
    EditLine* const editor = editor_.get();
    el_set(editor, EL_CLIENTDATA, this);
    el_set(editor, EL_PROMPT, &Library::prompt);
    el_set(editor, EL_EDITOR, "emacs");
    el_set(editor, EL_HIST, &::history, history_.get());
    el_set(editor, EL_GETCFN, &Library::get_character);
    // Wide: libedit converts narrow strings and never frees the copies.
    el_wset(editor, EL_ADDFN, L"jovu-complete", L"Complete the word", &Library::complete);
    el_set(editor, EL_BIND, "^I", "jovu-complete", nullptr);
    el_set(editor, EL_BIND, "^R", "em-inc-search-prev", nullptr);
    el_source(editor, nullptr);  // The user's key bindings, from ~/.editrc.
    // In line mode the kernel consumes Ctrl-D and other editing keys. The library would return to
    // that mode after each line and write the next prompt in it.
    el_set(editor, EL_SETTY, "-x", "-icanon", "-echo", "-iexten", nullptr);
    el_set(editor, EL_PREP_TERM, 1);
    guard_.keep_changed();
}

LineEditor::~LineEditor() = default;

LineEditor::End LineEditor::read(std::string& line) {
    prompt_ = kPrompt;
    const End end = edit(line);
    if (end == End::line) {
        remember(line);
    }
    return end;
}

LineEditor::End LineEditor::read_input(const std::string& prompt, std::string& line) {
    prompt_ = prompt;
    return edit(line);
}

LineEditor::End LineEditor::edit(std::string& line) {
    interrupted_ = false;
    int length = 0;
    const char* const typed = el_gets(editor_.get(), &length);
    if (exception_) {
        std::rethrow_exception(std::exchange(exception_, nullptr));
    }
    if (interrupted_) {
        el_reset(editor_.get());
        partial_.clear();
        out_.raw("^C\n");
        return End::interrupted;
    }
    if (typed == nullptr || length <= 0) {
        out_.raw("\n");
        return End::closed;
    }
    line.assign(typed, static_cast<std::size_t>(length));
    if (line.back() == '\n') {
        line.pop_back();
    }
    return End::line;
}

/// @return 1 with a character; 0 at the end of the input; -1 when the line is abandoned.
int LineEditor::next_character(wchar_t& character) {
    for (;;) {
        if (const std::optional<wchar_t> complete_one = take_character()) {
            character = *complete_one;
            return 1;
        }
        pollfd waited[] = {
            {STDIN_FILENO, POLLIN, 0}, {stop_.fd(), POLLIN, 0}, {hooks_.side_fd(), POLLIN, 0}};
        if (poll(waited, std::size(waited), -1) == -1) {
            if (TerminalGuard::take_stopped()) {  // Other programs may have written to the
                                                  // terminal.
                out_.raw("\r\x1b[J");
                el_set(editor_.get(), EL_REFRESH);
            }
            continue;  // EINTR
        }
        if (waited[1].revents != 0) {
            interrupted_ = true;
            return -1;
        }
        if (waited[2].revents != 0) {
            show_side();
            continue;
        }
        char byte = 0;
        const ssize_t count = ::read(STDIN_FILENO, &byte, 1);
        if (count == 1) {
            el_resize(editor_.get());  // The size of the window may have changed.
            partial_ += byte;
        } else if (count == 0 || (errno != EINTR && errno != EAGAIN)) {
            return 0;
        }
    }
}

/// Removes the first character from the bytes read so far, if it is complete.
std::optional<wchar_t> LineEditor::take_character() {
    if (partial_.empty()) {
        return std::nullopt;
    }
    wchar_t character = 0;
    std::mbstate_t state{};
    // NOLINTNEXTLINE(concurrency-mt-unsafe): the state is local.
    const std::size_t size = std::mbrtowc(&character, partial_.data(), partial_.size(), &state);
    if (size == static_cast<std::size_t>(-2)) {
        return std::nullopt;
    }
    if (size == static_cast<std::size_t>(-1)) {
        partial_.erase(0, 1);
        return kReplacement;
    }
    partial_.erase(0, std::max<std::size_t>(size, 1));
    const auto code = static_cast<char32_t>(character);
    const bool is_key = code < 0x20 || code == 0x7F;
    return is_key || is_shown(code) ? character : kReplacement;
}

/// Shows the side lines above the line that is being edited.
void LineEditor::show_side() {
    const std::size_t rows = rows_above_cursor();
    out_.raw((rows > 0 ? "\x1b[" + std::to_string(rows) + "A" : "") + "\r\x1b[J");
    hooks_.show_side();
    el_set(editor_.get(), EL_REFRESH);
}

std::size_t LineEditor::rows_above_cursor() const {
    const LineInfo* const info = el_line(editor_.get());
    const auto length = static_cast<std::size_t>(info->cursor - info->buffer);
    return (width_of(prompt_.data(), prompt_.size()) + width_of(info->buffer, length)) /
           out_.columns();
}

unsigned char LineEditor::complete_word() {
    const LineInfo* const info = el_line(editor_.get());
    const std::string line(info->buffer, info->cursor);
    const Completion completion = hooks_.complete(line);
    if (completion.candidates.empty()) {
        return CC_REFRESH_BEEP;
    }
    const std::string common = common_prefix(completion.candidates).substr(completion.typed);
    std::string rest = common_prefix(
        {common, printable(common)});  // Up to the first character that may not be shown.
    if (completion.candidates.size() == 1 && rest == common) {
        const char last = completion.candidates.front().back();
        const bool goes_on = last == '=' || last == '.' || last == '/';
        rest += goes_on ? "" : " ";
    } else if (rest.empty()) {
        out_.raw("\n" + in_columns(completion.candidates, out_.columns()));
        return CC_REDISPLAY;
    }
    return el_insertstr(editor_.get(), rest.c_str()) == 0 ? CC_REFRESH : CC_ERROR;
}

void LineEditor::remember(const std::string& line) {
    if (line.empty() || line.front() == ' ' || holds_secret(line)) {
        return;
    }
    HistEvent event{};
    ::history(history_.get(), &event, H_ENTER, line.c_str());
    if (!history_file_.empty()) {
        // An error is ignored: the history is optional.
        ::history(history_.get(), &event, H_SAVE, history_file_.c_str());
    }
}

std::string history_path() {
    namespace fs = std::filesystem;
    const std::string state = environment("XDG_STATE_HOME");
    const std::string home = environment("HOME");
    fs::path directory;
    if (!state.empty() && state.front() == '/') {
        directory = state;
    } else if (!home.empty() && home.front() == '/') {
        directory = fs::path(home) / ".local" / "state";
    } else {
        return {};
    }
    directory /= "jovu";
    std::error_code error;
    const bool made = fs::create_directories(directory, error);
    if (made) {
        // Lines may hold secrets.
        fs::permissions(directory, fs::perms::owner_all, error);
    }
    return error ? std::string() : (directory / "history").string();
}

}  // namespace jovu_cli
