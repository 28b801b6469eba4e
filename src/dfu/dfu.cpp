// SPDX-License-Identifier: Apache-2.0

/// @file
/// Running dfu-util.
#include "jovu/dfu.h"

#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstddef>
#include <utility>

#include "dfu/command_line.h"
#include "dfu/tool_output.h"
#include "jovu/exception.h"

namespace {

/// Space for the path of the working directory, with its terminating zero.
constexpr std::size_t kMaxDirectory = 1024;

/// Longest piece that is searched for percentages at once.
constexpr std::size_t kMaxPiece = 127;

/// What shells return when they cannot run a command (POSIX): it is there but cannot be executed,
/// and it is not there.
constexpr int kCannotExecute = 126;
constexpr int kNotFound = 127;

/// The shell's reason, which it has printed on standard error only.
/// @param status from pclose().
/// @return empty when it has run the tool.
std::string shell_error(int status, const std::string& tool) {
    if (!WIFEXITED(status)) return "";
    if (WEXITSTATUS(status) == kNotFound) return tool + ": not found";
    if (WEXITSTATUS(status) == kCannotExecute) return tool + ": cannot be executed";
    return "";
}

}  // namespace

void JovuDfu::PipeClose::operator()(std::FILE* pipe) const noexcept {
    ::pclose(pipe);
}

/// One run of the tool. However it is left, the pipe is closed and the process has been waited for.
class JovuDfu::Run {
public:
    Run(JovuDfu& owner, const std::string& command) : owner_(owner) {
        if (owner_.pipe_ != nullptr) {
            throw JovuException("dfu-util is already running for this object.",
                                JovuError::rejected);
        }
        // Close-on-exec: a copy in another child would keep a tool alive that prints into a pipe
        // that nobody reads.
        owner_.pipe_.reset(::popen(command.c_str(), "re"));
        if (owner_.pipe_ == nullptr)
            throw JovuException("Failed to open dfu-util pipe.", JovuError::tool_failed);
    }
    ~Run() { owner_.pipe_.reset(); }
    Run(const Run&) = delete;
    Run& operator=(const Run&) = delete;

    /// Reads up to the end of a line, at most kMaxPiece bytes, as fgets() does. It does not lose
    /// what has been read when a signal interrupts it, and does not take that for the end, where
    /// the tool would be cut off from its pipe. Zeros are left out.
    /// @return whether there was anything left to read.
    bool read(std::string& piece) {
        std::FILE* const pipe = owner_.pipe_.get();
        piece.clear();
        while (piece.size() < kMaxPiece) {
            const int c = std::getc(pipe);
            if (c == EOF) {
                if (std::ferror(pipe) == 0 || errno != EINTR) break;
                std::clearerr(pipe);
                continue;
            }
            if (c != '\0') piece += static_cast<char>(c);
            if (c == '\n') break;
        }
        return !piece.empty();
    }

    /// Waits for the tool's end.
    /// @return as pclose().
    int finish() noexcept { return ::pclose(owner_.pipe_.release()); }

private:
    JovuDfu& owner_;
};

JovuDfu::JovuDfu() {
    std::array<char, kMaxDirectory> directory{};
    if (::getcwd(directory.data(), directory.size()) != nullptr) {
        tool_directory_ = jovu::path_on_command_line(directory.data());
    }
}

JovuDfu::~JovuDfu() = default;

std::list<JovuDfu::DfuDevice_t> JovuDfu::GetDfuDevices() {
    Run run(*this, jovu::listing_command(tool_directory_));
    std::string output;
    std::string piece;
    while (run.read(piece))
        output += piece;
    return jovu::listed_devices(output);
}

void JovuDfu::UpdateDevice(DfuDevice_t device, std::string file, Progress progress) {
    Run run(*this, jovu::update_command(tool_directory_, device, file));
    const auto report = [&](double percent) {
        if (progress != nullptr) progress(percent, device);
    };
    bool progress_seen = false;
    std::string log;
    std::string piece;
    while (run.read(piece)) {
        log += piece;
        for (const double percent : jovu::percentages(piece)) {
            report(percent);
            progress_seen = true;
        }
    }
    const int status = run.finish();
    report(100.0);
    if (progress_seen) return;
    if (log.empty()) log = shell_error(status, jovu::tool_command(tool_directory_));
    throw JovuException("Failed to update device, pipe log: " + log, JovuError::tool_failed);
}
