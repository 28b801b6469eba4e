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
#include "posix/file_descriptor.h"
#include "terminal/output.h"
#include "terminal/printable.h"

namespace jovu_cli {
namespace {

namespace fs = std::filesystem;

constexpr const char* kToolName = "dfu-util";
constexpr const char* kImageName = "image";
constexpr const char* kProgramDirectory = "bin";
constexpr const char* kOutputName = "output";

/// Stands in the place of dfu-util and keeps what it prints: the library passes percentages on, but
/// why a download has failed stands on the same channel.
/// @param options are added to those of the library.
std::string wrapper_script(const std::string& options) {
    return "#!/bin/sh\n"
           "here=${0%/*}\n"
           "\"$here/bin/dfu-util\" \"$@\"" +
           options + " | tee \"$here/output\"\n";
}

/// Without these, dfu-util writes to any device in DFU mode that has the serial number.
std::string only_this_device(const ListedDevice& device) {
    return " -d " + device.kind() + "," + device.kind() +
           (device.path.empty() ? "" : " -p " + device.path);
}

[[noreturn]] void throw_temporary(int error) {
    throw Failure(ExitCode::failure, std::string("cannot make a temporary directory: ") +
                                         std::generic_category().message(error));
}

/// A new directory whose path has no character that means something to a shell.
fs::path make_directory() {
    const char* const named = std::getenv("TMPDIR");
    std::string base = named != nullptr ? named : "";
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

/// The process's working directory while this lives; then the one before it.
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

/// Advice to the makers of images, which would only hide what has gone wrong.
bool is_noise(const std::string& line) {
    return line.find("DFU suffix") != std::string::npos;
}

/// The lines of a text as one line.
std::string joined_lines(const std::string& text) {
    std::string result;
    std::istringstream lines(text);
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

/// What dfu-util has printed behind the last state of its progress bar.
std::string last_output(const fs::path& output) {
    const std::string text = read_file(output);
    const std::size_t end = text.find('\n', text.rfind("Download\t"));
    return end == std::string::npos ? "" : joined_lines(text.substr(end));
}

/// Keeps the signals that end this program from a child that is started meanwhile: at a terminal a
/// Ctrl-C goes to all of them, and a download that is cut leaves a device without firmware. They
/// have to be ignored, as shells let go of a mask; this program misses them as long.
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

    /// The child is there. Does nothing the second time.
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

/// Whom a running download tells of its progress: the library passes nothing along. A download runs
/// on the thread that has ordered it.
thread_local const std::function<void(double)>* current_progress = nullptr;
thread_local int finished_reports = 0;

/// The end is not passed on here: the library reports one also when a download has failed.
void report_progress(double percent, DfuDevice /*device*/) {
    if (percent >= 100) {
        ++finished_reports;
    } else {
        (*current_progress)(percent);
    }
}

}  // namespace

/// Reads what is written on standard error while this lives: dfu-util inherits it from the process.
class DfuTool::ErrorCapture {
public:
    explicit ErrorCapture(DfuTool& tool)
        : tool_(tool),
          before_(fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 3)),
          words_(memfd_create("jovu-dfu", MFD_CLOEXEC)) {
        if (!before_.valid() || !words_.valid() || dup2(words_.get(), STDERR_FILENO) == -1) {
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

    std::string words() const {
        std::string text;
        char bytes[4096];
        for (;;) {
            const ssize_t count =
                pread(words_.get(), bytes, sizeof bytes, static_cast<off_t>(text.size()));
            if (count <= 0) {
                return joined_lines(text);
            }
            text.append(bytes, static_cast<std::size_t>(count));
        }
    }

private:
    DfuTool& tool_;
    FileDescriptor before_;
    FileDescriptor words_;
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
    dfu_->GetDfuDevices();  // It knows no places on the bus, which are in what the tool has
                            // printed.
    DfuListing listing = parse_dfu_listing(read_file(output));
    listing.diagnostics = errors.words();
    return listing;
}

DfuTool::Outcome DfuTool::download(const ListedDevice& device, const FirmwareImage& image,
                                   const std::function<void(double)>& progress) {
    const fs::path name = directory_.path / kImageName;
    image.put_at(name);
    write_wrapper(directory_.path / kToolName, only_this_device(device));
    const ErrorCapture errors(*this);
    IgnoredSignals ignored;
    // Who prints a percentage has started, and all that it was started by.
    const std::function<void(double)> pass_on = [&](double percent) {
        ignored.restore();
        progress(percent);
    };
    current_progress = &pass_on;
    finished_reports = 0;
    Outcome outcome;
    try {
        dfu_->UpdateDevice(device.id, name.string(), report_progress);
        // The library reports 100 once by itself, at the end of every download.
        outcome.completed = finished_reports > 1;
        if (outcome.completed) {
            progress(100);
        }
    } catch (const JovuException& error) {
        outcome.diagnostics = joined_lines(error.what());
    }
    for (const std::string& words : {last_output(directory_.path / kOutputName), errors.words()}) {
        outcome.diagnostics += (outcome.diagnostics.empty() || words.empty() ? "" : "; ") + words;
    }
    return outcome;
}

void DfuTool::print_line(const std::string& line) const {
    const std::string text = printable(line) + "\n";
    (void)!write(saved_stderr_ == -1 ? STDERR_FILENO : saved_stderr_, text.data(), text.size());
}

std::optional<std::string> refused_node(const std::string& words) {
    static const std::regex pattern(
        R"(Cannot open DFU device ([0-9a-f]{4}):([0-9a-f]{4}) found on devnum ([0-9]+) )"
        R"(\(LIBUSB_ERROR_ACCESS\))");
    std::smatch found;
    if (!std::regex_search(words, found, pattern)) {
        return std::nullopt;
    }
    const auto read = [](const fs::path& file) {
        std::string text;
        std::ifstream(file) >> text;
        return text;
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
