/// @file
/// Runs the program `jovu` as a child process and watches what it writes.
#pragma once

#include <signal.h>
#include <sys/types.h>

#include <chrono>
#include <string>
#include <vector>

#include "posix/file_descriptor.h"
#include "support/wait.h"

namespace test {

/// What a program's standard output is connected to.
enum class Out {
    pipe,
    terminal,   ///< A pseudo-terminal of 96 columns that can move its cursor.
    console,    ///< Likewise, which is the standard input, too, and where Ctrl-C comes from.
    dialog,     ///< Likewise, which is the standard error, too.
    closed,     ///< A pipe whose reader is gone.
    full_disk,  ///< /dev/full
    none,       ///< Not open at all.
};

/// A running `jovu`. Killed, if it still runs, when this object goes.
class Program {
public:
    explicit Program(const std::vector<std::string>& args, Out out = Out::pipe);
    ~Program();
    Program(const Program&) = delete;
    Program& operator=(const Program&) = delete;

    /// Writes to the program's standard input, as far as the program reads it.
    void type(const std::string& text);
    void end_input() { in_ = {}; }
    /// To the program and what it has started, as a terminal does it.
    void signal(int number) { kill(-pid_, number); }
    void close_reader() { out_ = {}; }
    /// Whether a console hands over whole lines, as before the program. Also when that has ended.
    bool in_line_mode() const;

    /// Waits until the standard output holds a text. Returns whether it came.
    bool writes(const std::string& text, std::chrono::milliseconds limit = kPatience) {
        return comes(text, false, limit);
    }

    /// Likewise the standard error.
    bool complains(const std::string& text, std::chrono::milliseconds limit = kPatience) {
        return comes(text, true, limit);
    }

    /// Waits for the program's end.
    /// @return its exit status, or -signal, or -1000 when it does not end.
    int finish();

    /// What has come so far; everything after finish().
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

/// Runs `jovu` to its end. In a dialog the input is typed when a question has been asked.
Ended jovu(const std::vector<std::string>& args, const std::string& input = "",
           Out out = Out::pipe);

}  // namespace test
