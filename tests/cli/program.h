/// @file
/// Runs the program `jovu` as a child process and watches what it writes.
#pragma once

#include <sys/types.h>
#include <csignal>

#include <chrono>
#include <string>
#include <vector>

#include "posix/files.h"
#include "support/wait.h"

namespace test {

/// The standard output of a program.
enum class Out {
    pipe,
    terminal,   ///< A pseudo-terminal of 96 columns that can move its cursor.
    console,    ///< As terminal; it is also the standard input and the source of Ctrl-C.
    dialog,     ///< As console; it is also the standard error.
    closed,     ///< A pipe without a reader.
    full_disk,  ///< /dev/full
    none,       ///< Not open at all.
};

/// A running `jovu`. The destructor kills it.
class Program {
public:
    explicit Program(const std::vector<std::string>& args, Out out = Out::pipe);
    ~Program();
    Program(const Program&) = delete;
    Program& operator=(const Program&) = delete;

    /// Writes to the program's standard input.
    void type(const std::string& text);
    void end_input() { in_ = {}; }
    /// Sends a signal to the program and its children, as a terminal does.
    void signal(int number) { kill(-pid_, number); }
    void close_reader() { out_ = {}; }
    /// Whether a console is in line mode, as before the program. Also after its end.
    bool in_line_mode() const;

    /// Waits until the standard output contains @p text. Returns whether it does.
    bool writes(const std::string& text, std::chrono::milliseconds limit = kPatience) {
        return comes(text, false, limit);
    }

    /// As writes(), for the standard error.
    bool complains(const std::string& text, std::chrono::milliseconds limit = kPatience) {
        return comes(text, true, limit);
    }

    /// Waits for the program's end.
    /// @return its exit status, -signal, or -1000 when it does not end.
    int finish();

    /// The output so far; all of it after finish().
    const std::string& out() const { return out_text_; }
    const std::string& err() const { return err_text_; }

private:
    bool comes(const std::string& text, bool on_error, std::chrono::milliseconds limit);

    void pump();

    jovu_cli::FileDescriptor in_, out_, err_;
    std::string out_text_, err_text_;
    pid_t pid_ = -1;
};

/// A program that has ended.
struct Ended {
    int status;
    std::string out;
    std::string err;
};

/// Runs `jovu` to its end. In a dialog, types the input after the question.
Ended jovu(const std::vector<std::string>& args, const std::string& input = "",
           Out out = Out::pipe);

}  // namespace test
