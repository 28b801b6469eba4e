// SPDX-License-Identifier: Apache-2.0

/// @file
/// The program jovu-sim.
#include <CLI/CLI.hpp>
#include <exception>
#include <iostream>
#include <stdexcept>
#include <string>

#include "firmware/usb/firmware_image.h"
#include "tool/command_line.h"
#include "tool/control_socket.h"
#include "tool/exit_status.h"

namespace jovusim {
namespace {

int run(int argc, char** argv) {
    CLI::App app;
    CommandLine line;
    define_command_line(app, line);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? kExitOk : kExitUsage;
    }
    const CLI::App* const command = app.get_subcommands().front();
    if (command->get_name() == kRunCommand) {
        if (line.empty) line.run.devices = 0;
        return run_on_bus(line.run);
    }
    if (line.empty) line.usbip.devices = 0;
    if (command->get_name() == kAttachCommand) return attach_to_kernel(line.usbip);
    if (command->get_name() == kServeCommand) return serve_devices(line.usbip);
    if (command->get_name() == kCtlCommand) {
        std::string request;
        for (const std::string& word : command->remaining())
            request += (request.empty() ? "" : " ") + word;
        if (!request.empty()) return run_control_client(request);
        std::cerr << "jovu-sim: ctl needs a request; see jovu-sim ctl --help\n";
        return kExitUsage;
    }
    std::cout << make_firmware_image(line.version, line.size) << std::flush;
    if (!std::cout) throw std::runtime_error("cannot write the image");
    return kExitOk;
}

}  // namespace
}  // namespace jovusim

int main(int argc, char** argv) {
    try {
        return jovusim::run(argc, argv);
    } catch (const std::exception& error) {
        std::cerr << "jovu-sim: " << error.what() << "\n";
        return jovusim::kExitFailure;
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
