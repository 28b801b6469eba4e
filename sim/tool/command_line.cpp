// SPDX-License-Identifier: Apache-2.0
#include "tool/command_line.h"

#include <CLI/CLI.hpp>
#include <cmath>
#include <iostream>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "tool/control_commands.h"
#include "tool/control_socket.h"
#include "tool/exit_status.h"

namespace jovusim {

namespace {

constexpr unsigned kMaxDevices = 100;
constexpr double kMinTimeScale = 0.001;
constexpr double kMaxTimeScale = 1e6;

/// Options that all commands with a bus have.
/// @param places of the devices, for the help
void add_devices(CLI::App& command, unsigned& devices, bool& empty, const std::string& places) {
    auto* const count =
        command.add_option("--devices", devices, "Number of controllers at the start, " + places)
            ->check(CLI::Range(0U, kMaxDevices))
            ->capture_default_str();
    command.add_flag("--empty", empty, "Start without a controller")->excludes(count);
}

void add_machine(CLI::App& command, double& time_scale, std::optional<std::string>& capture) {
    command
        .add_option("--time-scale", time_scale,
                    "Seconds of jobs, heaters and filament in one real second")
        ->check(CLI::Range(kMinTimeScale, kMaxTimeScale))
        ->check([](const std::string& value) {
            return std::isnan(std::stod(value)) ? value + " is not a number" : std::string();
        })
        ->capture_default_str();
    command
        .add_option("--capture", capture,
                    "Write everything on the bus to this file, as usbmon does (pcap)")
        ->type_name("FILE");
}

/// Options of the commands with a real kernel.
void add_usbip(CLI::App& command, UsbipOptions& options, bool& empty) {
    add_devices(command, options.devices, empty, "each at a port of its own");
    command
        .add_option_function<std::string>(
            "--speed",
            [&options](const std::string& speed) {
                options.speed = speed == "high" ? UsbSpeed::high : UsbSpeed::full;
            },
            "Speed of the bus: full or high")
        ->check(CLI::IsMember({"full", "high"}).description(""))
        ->type_name("SPEED")
        ->default_str("full");
    add_machine(command, options.time_scale, options.capture);
    command
        .add_option("--control", options.control,
                    "Path of the control socket; without it a new one is printed")
        ->type_name("FILE");
}

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
    add_devices(*run, line.run.devices, line.empty, "at 1:2, 1:3, ...");
    add_machine(*run, line.run.time_scale, line.run.capture);
    run->add_option("program", line.run.program, "Program and arguments, after --")->required();
    run->positionals_at_end();

    CLI::App* attach = app.add_subcommand(
        kAttachCommand,
        "Attach simulated controllers to the USB of this machine, as root.\n"
        "Every program sees them. They stay until SIGINT or SIGTERM, or until a program has ended "
        "that jovu-sim runs: JOVU_SIM_CONTROL in its environment is the path of the control "
        "socket, and the exit status is as that of run.\n"
        "Needs the kernel module vhci-hcd (modprobe vhci-hcd).");
    add_usbip(*attach, line.usbip, line.empty);
    attach->add_option("program", line.usbip.program, "Program and arguments, after --");
    attach->positionals_at_end();

    CLI::App* serve = app.add_subcommand(
        kServeCommand,
        "Export simulated controllers over USB/IP.\n"
        "On another machine, \"usbip list -r ADDRESS\" lists them and \"usbip attach -r ADDRESS -b "
        "1-1\" attaches one. Whoever reaches the port can do that: there is no password.");
    add_usbip(*serve, line.usbip, line.empty);
    serve->add_option("--listen", line.usbip.listen, "Where to listen")
        ->type_name("ADDRESS:PORT")
        ->capture_default_str();

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

int run_command_line(int argc, char** argv) {
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

}  // namespace jovusim
