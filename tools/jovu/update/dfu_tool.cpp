// SPDX-License-Identifier: Apache-2.0
#include "update/dfu_tool.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <regex>
#include <sstream>
#include <system_error>
#include <utility>

#include "cli/failure.h"
#include "jovu/exception.h"
#include "posix/child_process.h"
#include "posix/files.h"
#include "terminal/output.h"
#include "terminal/printable.h"

namespace jovu_cli {
namespace {

namespace fs = std::filesystem;

constexpr const char* kToolName = "dfu-util";
constexpr const char* kImageName = "image";
constexpr const char* kProgramDirectory = "bin";
constexpr const char* kOutputName = "output";

/// @return a script that runs dfu-util and keeps a copy of its output: the library passes on the
///     percentages only, and the reason of a failure is in the same output.
/// @param options appended to those of the library.
std::string wrapper_script(const std::string& options) {
    return "#!/bin/sh\n"
           "here=${0%/*}\n"
           "\"$here/bin/dfu-util\" \"$@\"" +
           options + " | tee \"$here/output\"\n";
}

/// @return options for the location. Without them dfu-util writes to any device with the serial
///     number.
std::string only_this_device(const ListedDevice& device) {
    return " -d " + device.kind() + "," + device.kind() +
           (device.path.empty() ? "" : " -p " + device.path);
}

[[noreturn]] void throw_temporary(int error) {
    throw Failure(ExitCode::failure, std::string("cannot make a temporary directory: ") +
                                         std::generic_category().message(error));
}

/// Creates a directory whose path needs no quotes in a shell.
fs::path make_directory() {
    const std::string base = environment("TMPDIR");
    const bool plain = !base.empty() && base.front() == '/' &&
                       base.find_first_not_of(
                           "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ"
                           "0123456789/._-") == std::string::npos;
    std::string pattern = (plain ? base : "/tmp") + "/jovu-dfu-XXXXXX";
    if (mkdtemp(pattern.data()) == nullptr) {
        throw_temporary(errno);
    }
    return pattern;
}

/// Changes the process's working directory for a scope.
class WorkingDirectory {
public:
    explicit WorkingDirectory(const fs::path& path)
        : before_(open(".", O_PATH | O_DIRECTORY | O_CLOEXEC)) {
        if (!before_.valid() || chdir(path.c_str()) != 0) {
            throw_temporary(errno);
        }
    }
    ~WorkingDirectory() { (void)!fchdir(before_.get()); }
    WorkingDirectory(const WorkingDirectory&) = delete;
    WorkingDirectory& operator=(const WorkingDirectory&) = delete;

private:
    FileDescriptor before_;
};

void link_to(const fs::path& target, const fs::path& name) {
    std::error_code error;
    fs::remove(name, error);
    fs::create_symlink(fs::absolute(target), name, error);
    if (error) {
        throw_temporary(error.value());
    }
}

/// Whether a line is a warning about the DFU suffix, which is no reason of a failure.
bool is_noise(const std::string& line) {
    return line.find("DFU suffix") != std::string::npos;
}

/// @return the lines as one line, without blank lines and warnings.
std::string joined_lines(const std::string& output) {
    std::string result;
    std::istringstream lines(output);
    for (std::string line; std::getline(lines, line);) {
        if (line.find_first_not_of(" \t\r") != std::string::npos && !is_noise(line)) {
            result += (result.empty() ? "" : "; ") + line;
        }
    }
    return result;
}

void write_wrapper(const fs::path& path, const std::string& options) {
    errno = 0;
    std::ofstream file(path);
    file << wrapper_script(options);
    file.close();
    if (!file) {
        throw_temporary(errno != 0 ? errno : EIO);
    }
    std::error_code error;
    fs::permissions(path, fs::perms::owner_all, error);
    if (error) {
        throw_temporary(error.value());
    }
}

std::string read_file(const fs::path& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

/// @return the output of dfu-util after the last state of its progress bar.
std::string last_output(const fs::path& output) {
    const std::string content = read_file(output);
    const std::size_t end = content.find('\n', content.rfind("Download\t"));
    return end == std::string::npos ? "" : joined_lines(content.substr(end));
}

/// Ignores the signals that end this program while a child starts, and so in the child: a terminal
/// sends Ctrl-C to both, and an interrupted download leaves a device without firmware. Blocking
/// them is not enough, as shells reset the mask. Signals that arrive meanwhile are lost.
class IgnoredSignals {
public:
    IgnoredSignals() {
        struct sigaction ignore {};
        ignore.sa_handler = SIG_IGN;
        for (std::size_t i = 0; i < kSignals.size(); ++i) {
            sigaction(kSignals[i], &ignore, &before_[i]);
        }
    }
    ~IgnoredSignals() { restore(); }
    IgnoredSignals(const IgnoredSignals&) = delete;
    IgnoredSignals& operator=(const IgnoredSignals&) = delete;

    /// Handles the signals again, when the child has started. Has no effect the second time.
    void restore() {
        if (!restored_) {
            for (std::size_t i = 0; i < kSignals.size(); ++i) {
                sigaction(kSignals[i], &before_[i], nullptr);
            }
        }
        restored_ = true;
    }

private:
    static constexpr std::array<int, 4> kSignals{SIGINT, SIGTERM, SIGHUP, SIGQUIT};
    std::array<struct sigaction, kSignals.size()> before_{};
    bool restored_ = false;
};

/// The progress function of the running download: the library passes no user data. A download runs
/// on the calling thread.
thread_local const std::function<void(double)>* current_progress = nullptr;
thread_local int finished_reports = 0;

/// Does not pass on 100 %: the library reports it also for a failed download.
void report_progress(double percent, DfuDevice /*device*/) {
    if (percent >= 100) {
        ++finished_reports;
    } else {
        (*current_progress)(percent);
    }
}

}  // namespace

/// Captures standard error for a scope: dfu-util inherits it.
class DfuTool::ErrorCapture {
public:
    explicit ErrorCapture(DfuTool& tool)
        : tool_(tool),
          before_(fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 3)),
          captured_(memfd_create("jovu-dfu", MFD_CLOEXEC)) {
        if (!before_.valid() || !captured_.valid() || dup2(captured_.get(), STDERR_FILENO) == -1) {
            throw std::system_error(errno, std::generic_category(), "standard error");
        }
        tool_.saved_stderr_ = before_.get();
    }
    ~ErrorCapture() {
        dup2(before_.get(), STDERR_FILENO);
        tool_.saved_stderr_ = -1;
    }
    ErrorCapture(const ErrorCapture&) = delete;
    ErrorCapture& operator=(const ErrorCapture&) = delete;

    std::string messages() const {
        std::string output;
        char bytes[4096];
        for (;;) {
            const ssize_t count =
                pread(captured_.get(), bytes, sizeof bytes, static_cast<off_t>(output.size()));
            if (count <= 0) {
                return joined_lines(output);
            }
            output.append(bytes, static_cast<std::size_t>(count));
        }
    }

private:
    DfuTool& tool_;
    FileDescriptor before_;
    FileDescriptor captured_;
};

DfuTool::DfuTool() {
    const std::optional<std::string> tool = find_program(kToolName);
    if (!tool) {
        throw Failure(ExitCode::failure, "this needs dfu-util, which is not installed",
                      "Debian's package is dfu-util");
    }
    directory_.path = make_directory();
    fs::create_directory(directory_.path / kProgramDirectory);
    link_to(*tool, directory_.path / kProgramDirectory / kToolName);
    const WorkingDirectory here(directory_.path);
    dfu_.emplace();
}

DfuTool::~DfuTool() = default;

DfuTool::Directory::~Directory() {
    std::error_code ignored;
    if (!path.empty()) {
        fs::remove_all(path, ignored);
    }
}

DfuListing DfuTool::list() {
    write_wrapper(directory_.path / kToolName, "");
    const fs::path output = directory_.path / kOutputName;
    std::error_code ignored;
    fs::remove(output, ignored);
    const ErrorCapture errors(*this);
    dfu_->GetDfuDevices();  // Its result lacks the locations, which are in the output.
    DfuListing listing = parse_dfu_listing(read_file(output));
    listing.diagnostics = errors.messages();
    return listing;
}

DfuTool::Outcome DfuTool::download(const ListedDevice& device, const FirmwareImage& image,
                                   const std::function<void(double)>& progress) {
    const fs::path name = directory_.path / kImageName;
    image.put_at(name);
    write_wrapper(directory_.path / kToolName, only_this_device(device));
    const ErrorCapture errors(*this);
    IgnoredSignals ignored;
    // The first percentage shows that dfu-util and its shells have started: restore the signals.
    const std::function<void(double)> pass_on = [&](double percent) {
        ignored.restore();
        progress(percent);
    };
    current_progress = &pass_on;
    finished_reports = 0;
    Outcome outcome;
    try {
        dfu_->UpdateDevice(device.id, name.string(), report_progress);
        // The library adds one report of 100 % at the end of every download.
        outcome.completed = finished_reports > 1;
        if (outcome.completed) {
            progress(100);
        }
    } catch (const JovuException& error) {
        outcome.diagnostics = joined_lines(error.what());
    }
    for (const std::string& messages :
         {last_output(directory_.path / kOutputName), errors.messages()}) {
        outcome.diagnostics +=
            (outcome.diagnostics.empty() || messages.empty() ? "" : "; ") + messages;
    }
    return outcome;
}

void DfuTool::print_line(const std::string& line) const {
    const std::string shown = printable(line) + "\n";
    (void)!write(saved_stderr_ == -1 ? STDERR_FILENO : saved_stderr_, shown.data(), shown.size());
}

std::optional<std::string> refused_node(const std::string& diagnostics) {
    static const std::regex pattern(
        R"(Cannot open DFU device ([0-9a-f]{4}):([0-9a-f]{4}) found on devnum ([0-9]+) )"
        R"(\(LIBUSB_ERROR_ACCESS\))");
    std::smatch found;
    if (!std::regex_search(diagnostics, found, pattern)) {
        return std::nullopt;
    }
    const auto read = [](const fs::path& file) {
        std::string value;
        std::ifstream(file) >> value;
        return value;
    };
    std::error_code error;
    std::string bus = "*";
    for (const auto& entry : fs::directory_iterator("/sys/bus/usb/devices", error)) {
        const fs::path& path = entry.path();
        if (read(path / "devnum") == found[3] && read(path / "idVendor") == found[1] &&
            read(path / "idProduct") == found[2]) {
            bus = read(path / "busnum");
        }
    }
    const auto three_digits = [](const std::string& number) {
        return number.size() < 3 && number != "*" ? std::string(3 - number.size(), '0') + number
                                                  : number;
    };
    return "/dev/bus/usb/" + three_digits(bus) + "/" + three_digits(found[3]);
}

}  // namespace jovu_cli
