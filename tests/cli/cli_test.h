// SPDX-License-Identifier: Apache-2.0

/// @file
/// Runs the program `jovu` as a child process and watches what it writes; what its tests share.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>
#include <cstdlib>
#include <nlohmann/json.hpp>
#include <string>

#include "posix/files.h"
#include "support/job_file.h"
#include "support/sim_control.h"
#include "support/wait.h"

namespace test {

using nlohmann::json;
using testing::AllOf;
using testing::AnyOf;
using testing::ContainsRegex;
using testing::Field;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::MatchesRegex;
using testing::Not;
using testing::StartsWith;

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

/// A program that has ended.
struct Ended {
    int status;  ///< The exit status, -signal, or -1000 when it does not end.
    std::string out;
    std::string err;
};

/// A running `jovu`. The destructor kills it.
class Program {
public:
    /// @param line arguments, separated by blanks; double quotes enclose one that contains blanks.
    explicit Program(const std::string& line, Out out = Out::pipe);
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

    /// Waits until the output or the standard error contains @p text. Returns whether it does.
    bool writes(const std::string& text, std::chrono::milliseconds limit = kPatience);

    /// Waits for the program's end.
    Ended finish();

    /// The output so far; all of it after finish().
    const std::string& out() const { return out_text_; }
    const std::string& err() const { return err_text_; }

private:
    void pump();

    jovu_cli::FileDescriptor in_, out_, err_;
    std::string out_text_, err_text_;
    pid_t pid_ = -1;
};

/// Runs `jovu` to its end. In a dialog, types the input after the question.
Ended jovu(const std::string& line, const std::string& input = "", Out out = Out::pipe);

/// While it lives, allocations of libusb transfers fail in programs that are started.
class FailingTransfers {
public:
    /// @param range see failing_transfers.cpp
    explicit FailingTransfers(const char* range) : preloaded_(std::getenv("LD_PRELOAD")) {
        setenv("JOVU_FAILING_TRANSFERS", range, 1);
        setenv("LD_PRELOAD", (JOVU_FAILING_TRANSFERS_LIBRARY ":" + preloaded_).c_str(), 1);
    }
    ~FailingTransfers() {
        unsetenv("JOVU_FAILING_TRANSFERS");
        setenv("LD_PRELOAD", preloaded_.c_str(), 1);
    }
    FailingTransfers(const FailingTransfers&) = delete;
    FailingTransfers& operator=(const FailingTransfers&) = delete;

private:
    const std::string preloaded_;
};

/// Matches a program that has ended with a status and has written a text: to standard error, or to
/// standard output when the status is 0.
MATCHER_P2(Exits, status, text, "has the status " + std::to_string(status) + " and says " + text) {
    const std::string& written = status == 0 ? arg.out : arg.err;
    return arg.status == status && written.find(text) != std::string::npos;
}

inline void PrintTo(const Ended& ended, std::ostream* out) {
    *out << ended.status << '\n' << ended.out << ended.err;
}

/// Lets a device send debug messages until a program prints one.
inline bool listens(Program& program, JovuDeviceAddress device) {
    return eventually([&] {
        sim("event " + name(device) + " listening?");
        return program.writes("listening?", std::chrono::milliseconds(50));
    });
}

/// @return the number of status requests that a device received.
inline int status_requests(JovuDeviceAddress device) {
    return stats(device)["job"]["requests"].value("status", 0);
}

/// Lets a device send this status report.
inline void send_report(JovuDeviceAddress device, json report) {
    report["metadata"] = {{"type", "status"}};
    std::string hex;
    for (const char c : report.dump()) {
        const auto byte = static_cast<unsigned char>(c);
        hex += {"0123456789abcdef"[byte >> 4U], "0123456789abcdef"[byte & 15U]};
    }
    sim("send " + name(device) + " job " + hex);
}

/// Responds to a program's next status request with this report instead of the device's own.
inline void respond_to_next_request(JovuDeviceAddress device, const json& report) {
    sim("fault " + name(device) + " silent always");
    const int before = status_requests(device);
    ASSERT_TRUE(eventually([&] { return status_requests(device) > before; }));
    send_report(device, report);
}

}  // namespace test
