#include "tool/options.h"

#include <CLI/CLI.hpp>

#include "tool/control_commands.h"
#include "tool/exit_status.h"

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

}  // namespace

std::variant<RunOptions, CtlOptions, FirmwareOptions, ExitNow> parse_options(int argc,
                                                                             char** argv) {
    CLI::App app{"Simulated USB controllers for programs that use libusb", "jovu-sim"};
    app.require_subcommand(1);

    RunOptions run;
    bool empty = false;
    CLI::App* run_app = app.add_subcommand(
        "run",
        "Run a program on a bus of simulated controllers.\n"
        "The program finds JOVU_SIM_CONTROL in its environment, the path of the control socket.\n"
        "Its exit status is passed on, 128 plus the number of the signal that ended it.");
    auto* devices = run_app
                        ->add_option("--devices", run.devices,
                                     "Controllers plugged in at the start, at 1:2, 1:3, ...")
                        ->check(CLI::Range(0U, kMaxDevices))
                        ->capture_default_str();
    run_app->add_flag("--empty", empty, "Start without a controller")->excludes(devices);
    run_app
        ->add_option("--time-scale", run.time_scale,
                     "Seconds of jobs, heaters and filament in one real second")
        ->check(CLI::Range(kMinTimeScale, kMaxTimeScale))
        ->capture_default_str();
    run_app->add_option("program", run.program, "The program and its arguments, behind --")
        ->required();
    run_app->positionals_at_end();

    CLI::App* ctl_app = app.add_subcommand(
        "ctl", "Send a request to the simulator in which this runs and print its response.");
    ctl_app->prefix_command();
    ctl_app->footer("Requests:\n" + control_help());

    FirmwareOptions firmware;
    CLI::App* firmware_app = app.add_subcommand(
        "firmware", "Write a firmware image for simulated controllers to standard output.");
    firmware_app->add_option("version", firmware.version, "What the controller reports with it")
        ->required();
    firmware_app->add_option("--size", firmware.size, "Bytes")
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

}  // namespace jovusim
