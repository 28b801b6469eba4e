// SPDX-License-Identifier: Apache-2.0

/// @file
/// The command line of jovu-sim.
#include <CLI/CLI.hpp>
#include <cstddef>
#include <exception>
#include <iostream>
#include <stdexcept>
#include <string>
#include <variant>
#include <vector>

#include "firmware/usb/firmware_image.h"
#include "tool/control_commands.h"
#include "tool/control_socket.h"
#include "tool/exit_status.h"
#include "tool/runner.h"

namespace jovusim {
namespace {

constexpr unsigned kMaxDevices = 100;
constexpr double kMinTimeScale = 0.001;
constexpr double kMaxTimeScale = 1e6;

std::string joined(const std::vector<std::string>& words) {
    std::string line;
    for (const std::string& word : words) {
        if (!line.empty()) line += ' ';
        line += word;
    }
    return line;
}

/// Options of "jovu-sim ctl".
struct CtlOptions {
    std::string request;
};

/// Options of "jovu-sim firmware".
struct FirmwareOptions {
    std::string version;
    std::size_t size = kUsualImageSize;
};

/// The program ends with that status: help or an error was printed.
struct ExitNow {
    int status;
};

/// Reads the command line. Prints help to standard output and errors to standard error.
std::variant<RunOptions, CtlOptions, FirmwareOptions, ExitNow> parse_options(int argc,
                                                                             char** argv) {
    CLI::App app{"Simulated USB controllers for programs that use libusb", "jovu-sim"};
    app.require_subcommand(1);

    RunOptions run;
    bool empty = false;
    CLI::App* run_app = app.add_subcommand(
        "run",
        "Run a program on a bus of simulated controllers.\n"
        "JOVU_SIM_CONTROL in its environment is the path of the control socket.\n"
        "The exit status is that of the program, or 128 plus the number of the signal that ended "
        "it.");
    auto* devices = run_app
                        ->add_option("--devices", run.devices,
                                     "Number of controllers at the start, at 1:2, 1:3, ...")
                        ->check(CLI::Range(0U, kMaxDevices))
                        ->capture_default_str();
    run_app->add_flag("--empty", empty, "Start without a controller")->excludes(devices);
    run_app
        ->add_option("--time-scale", run.time_scale,
                     "Seconds of jobs, heaters and filament in one real second")
        ->check(CLI::Range(kMinTimeScale, kMaxTimeScale))
        ->capture_default_str();
    run_app->add_option("--capture", run.capture,
                        "Write everything on the bus to this file, as usbmon does (pcap)");
    run_app->add_option("program", run.program, "Program and arguments, after --")->required();
    run_app->positionals_at_end();

    CLI::App* ctl_app = app.add_subcommand(
        "ctl", "Send a request to the simulator that runs this program and print the response.");
    ctl_app->prefix_command();
    ctl_app->footer("Requests:\n" + control_help());

    FirmwareOptions firmware;
    CLI::App* firmware_app = app.add_subcommand(
        "firmware", "Write a firmware image for simulated controllers to standard output.");
    firmware_app->add_option("version", firmware.version, "Version that the controller reports")
        ->required();
    firmware_app->add_option("--size", firmware.size, "Size in bytes")
        ->check(CLI::Range(std::size_t{1}, kLargestImage))
        ->capture_default_str();

    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return ExitNow{app.exit(error) == 0 ? kExitOk : kExitUsage};
    }
    if (ctl_app->parsed()) {
        CtlOptions ctl{joined(ctl_app->remaining())};
        if (ctl.request.empty()) {
            std::cerr << "jovu-sim: ctl needs a request; see jovu-sim ctl --help\n";
            return ExitNow{kExitUsage};
        }
        return ctl;
    }
    if (firmware_app->parsed()) return firmware;
    if (empty) run.devices = 0;
    return run;
}

}  // namespace
}  // namespace jovusim

int main(int argc, char** argv) {
    using namespace jovusim;
    try {
        const auto options = parse_options(argc, argv);
        if (const auto* run = std::get_if<RunOptions>(&options)) return run_on_bus(*run);
        if (const auto* ctl = std::get_if<CtlOptions>(&options)) {
            return run_control_client(ctl->request);
        }
        if (const auto* firmware = std::get_if<FirmwareOptions>(&options)) {
            std::cout << make_firmware_image(firmware->version, firmware->size) << std::flush;
            if (std::cout) return kExitOk;
            throw std::runtime_error("cannot write the image");
        }
        return std::get<ExitNow>(options).status;
    } catch (const std::exception& error) {
        std::cerr << "jovu-sim: " << error.what() << "\n";
        return kExitFailure;
    }
}

// ThreadSanitizer does not see the futexes with which GLib and umockdev lock: reports from inside
// them are suppressed.
#if defined(__SANITIZE_THREAD__)
#define JOVU_SIM_TSAN 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define JOVU_SIM_TSAN 1
#endif
#endif

#ifdef JOVU_SIM_TSAN

extern "C" const char* __tsan_default_suppressions();  // NOLINT(bugprone-reserved-identifier)

extern "C" __attribute__((visibility("default"))) const char* __tsan_default_suppressions() {
    return "called_from_lib:libglib-2.0.so\n"
           "called_from_lib:libgobject-2.0.so\n"
           "called_from_lib:libgio-2.0.so\n"
           "called_from_lib:libumockdev.so\n";
}

#endif
