// SPDX-License-Identifier: Apache-2.0
#include "tool/command_line.h"

#include <CLI/CLI.hpp>

#include "tool/control_commands.h"

namespace jovusim {

namespace {

constexpr unsigned kMaxDevices = 100;
constexpr double kMinTimeScale = 0.001;
constexpr double kMaxTimeScale = 1e6;

}  // namespace

void define_command_line(CLI::App& app, CommandLine& line) {
    app.name("jovu-sim");
    app.description("Simulated USB controllers for programs that use libusb");
    app.require_subcommand(1);

    CLI::App* run = app.add_subcommand(
        kRunCommand,
        "Run a program on a bus of simulated controllers.\n"
        "JOVU_SIM_CONTROL in its environment is the path of the control socket.\n"
        "The exit status is that of the program, or 128 plus the number of the signal that ended "
        "it.");
    auto* devices = run->add_option("--devices", line.run.devices,
                                    "Number of controllers at the start, at 1:2, 1:3, ...")
                        ->check(CLI::Range(0U, kMaxDevices))
                        ->capture_default_str();
    run->add_flag("--empty", line.empty, "Start without a controller")->excludes(devices);
    run->add_option("--time-scale", line.run.time_scale,
                    "Seconds of jobs, heaters and filament in one real second")
        ->check(CLI::Range(kMinTimeScale, kMaxTimeScale))
        ->capture_default_str();
    run->add_option("program", line.run.program, "Program and arguments, after --")->required();
    run->positionals_at_end();

    CLI::App* ctl = app.add_subcommand(
        kCtlCommand,
        "Send a request to the simulator that runs this program and print the response.");
    ctl->prefix_command();
    ctl->footer("Requests:\n" + control_help());

    CLI::App* firmware = app.add_subcommand(
        kFirmwareCommand, "Write a firmware image for simulated controllers to standard output.");
    firmware->add_option("version", line.version, "Version that the controller reports")
        ->required();
    firmware->add_option("--size", line.size, "Size in bytes")
        ->check(CLI::Range(std::size_t{1}, kLargestImage))
        ->capture_default_str();
}

}  // namespace jovusim
