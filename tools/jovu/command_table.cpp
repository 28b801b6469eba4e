/// @file
/// The table of the program's commands: what each adds to the command line.

#include <CLI/CLI.hpp>
#include <filesystem>
#include <memory>
#include <vector>

#include "command_line.h"
#include "seconds_option.h"

namespace jovu_cli {
namespace {

Run define_list(CLI::App& /*app*/) {
    return run_list;
}

Run define_info(CLI::App& /*app*/) {
    return run_info;
}

Run define_status(CLI::App& app) {
    const auto options = std::make_shared<StatusOptions>();
    CLI::Option* watch =
        app.add_flag("-w,--watch", options->watch, "Report again and again, until Ctrl-C");
    add_seconds_option(app, "--interval", options->interval,
                       "Time between two reports, at least 0.1 [1]", shortest_interval)
        ->needs(watch);
    return [options](const Context& context) { run_status(context, *options); };
}

Run define_gcode(CLI::App& app) {
    const auto options = std::make_shared<GcodeOptions>();
    CLI::Option* lines =
        app.add_option("LINE", options->lines, "Lines of gcode, or - for standard input")
            ->type_name("");
    CLI::Option* file =
        app.add_option("-f,--file", options->file, "Read the lines from a file")->type_name("FILE");
    app.add_flag("-k,--keep-going", options->keep_going, "Go on after a line that is refused");
    app.footer(
        "Comments (from ; on) and blank lines are skipped. Each line waits for the device's\n"
        "result; 0 means that it was carried out. What the device prints meanwhile is shown\n"
        "below the line.");
    app.callback([lines, file] {
        if ((lines->count() == 0) == (file->count() == 0)) {
            throw CLI::ValidationError("either LINE..., - or --file FILE is needed");
        }
    });
    return [options](const Context& context) { run_gcode(context, *options); };
}

Run define_push(CLI::App& app) {
    const auto options = std::make_shared<PushOptions>();
    app.add_option("FILE", options->file, "The job file")->required();
    app.add_flag("--wait", options->wait, "Follow the job to its end");
    app.footer(
        "The device is asked afterwards whether it has accepted the job. Ctrl-C cancels the push:\n"
        "filler is sent for the rest of the job, which the device then refuses. A second Ctrl-C\n"
        "leaves at once, with the device waiting for the rest.");
    return [options](const Context& context) { run_push(context, *options); };
}

Run define_pause(CLI::App& app) {
    app.footer(
        "Shows the state that the device is in then. A job that is paused already stays paused.\n"
        "Without a job the exit code is 6.");
    return run_pause;
}

Run define_resume(CLI::App& app) {
    app.footer(
        "Shows the state that the device is in then. A job that is running already goes on.\n"
        "Without a job the exit code is 6.");
    return run_resume;
}

Run define_abort(CLI::App& app) {
    app.footer("Shows the state that the device is in then.");
    return run_abort;
}

Run define_events(CLI::App& app) {
    const auto options = std::make_shared<EventOptions>();
    app.footer("Prints debug texts and servo trace samples as they come, until Ctrl-C.");
    add_seconds_option(app, "-s,--seconds", options->limit, "Stop after this time");
    return [options](const Context& context) { run_events(context, *options); };
}

Run define_commands(CLI::App& app) {
    const auto options = std::make_shared<CommandsOptions>();
    app.add_option("NAME", options->name, "Show this command in detail")->type_name("");
    app.footer("Lists what 'jovu call' can call. Needs no device.");
    return [options](const Context& context) { run_commands(context, *options); };
}

Run define_call(CLI::App& app) {
    const auto options = std::make_shared<CallOptions>();
    app.add_option("NAME", options->name, "The command, as 'jovu commands' lists it")
        ->type_name("")
        ->required();
    app.add_option("KEY=VALUE", options->arguments, "Its arguments, in any order")->type_name("");
    app.footer(
        "Enumerations are given as whole numbers (decimal, or hexadecimal with 0x), booleans as\n"
        "0 or 1, texts as they are. Of a buffer, a list such as 1.5,2,3, only the first value is\n"
        "sent: the rest never leaves this program.\n"
        "Structures are given by their members (config.gains.kp=1.5), as JSON (config={...}), or\n"
        "both: then the members replace those of the JSON. Members that are not given are zero.\n"
        "Bytes are decimals with dots or commas (192.168.1.7), or hexadecimals with colons.\n"
        "@FILE reads a value from a file, @- from standard input, without a line feed at the\n"
        "end: other users of the machine can read a secret among the arguments of a process.\n"
        "A value that begins with @ is written with two.");
    return [options](const Context& context) { run_call(context, *options); };
}

Run define_trace(CLI::App& app) {
    const auto options = std::make_shared<TraceOptions>();
    app.add_option("SERVO", options->servo, "The servo, by its number")->type_name("")->required();
    add_seconds_option(app, "-s,--seconds", options->limit, "Stop after this time");
    CLI::Option* csv =
        app.add_option("--csv", options->csv, "Write the samples to a file")->type_name("FILE");
    CLI::Option* plot =
        app.add_option("--plot", options->plot, "Draw them as a PNG image; needs gnuplot")
            ->type_name("FILE");
    app.callback([options, csv, plot] {
        if ((csv->count() > 0 && options->csv.empty()) ||
            (plot->count() > 0 && options->plot.empty())) {
            throw CLI::ValidationError("the path of a file is empty");
        }
        const auto place = [](const std::string& path) {
            return std::filesystem::absolute(path).lexically_normal();
        };
        if (!options->csv.empty() && !options->plot.empty() &&
            place(options->csv) == place(options->plot)) {
            throw CLI::ValidationError("--csv and --plot name the same file: " + options->csv);
        }
    });
    app.add_option_function<std::string>(
           "--move",
           [options](const std::string& text) {
               options->distance = parse_float(text);
               if (!options->distance) {
                   throw CLI::ValidationError("not a distance: " + text);
               }
           },
           "Move by that far, in client units, once it is traced")
        ->type_name("DISTANCE");
    app.footer(
        "Records until Ctrl-C when no time is given. The tracing is switched off at the end,\n"
        "whatever the end is. Samples that are missing are counted and told.");
    return [options](const Context& context) { run_trace(context, *options); };
}

Run define_shell(CLI::App& app) {
    app.footer(
        "A line that begins with a dot is a command, as in '.status' or '.push FILE'; any other\n"
        "line is gcode. '.help' lists the commands, Ctrl-D or '.quit' leaves, Ctrl-C abandons the\n"
        "line or the command. Lines go to one device, known by its serial number: another one is\n"
        "sent no line until '.device BUS:ADDR' chooses it. When standard input is no terminal,\n"
        "lines are read without a prompt up to the first failure, which is the exit code.");
    return run_shell;
}

Run define_dfu(CLI::App& app) {
    app.footer("Needs dfu-util.");
    return run_dfu;
}

Run define_update(CLI::App& app) {
    const auto options = std::make_shared<UpdateOptions>();
    app.add_option("IMAGE", options->image, "The firmware image")->type_name("")->required();
    app.add_option("--serial", options->serial, "The device with this serial number")
        ->type_name("SERIAL");
    app.add_flag("-y,--yes", options->yes, "Do not ask; needed where no terminal is");
    app.add_flag("--force", options->force, "Write an image that the checks refuse");
    app.footer(
        "A controller is put into DFU mode, written to by dfu-util, and asked for its version\n"
        "when it is back. A device that is in DFU mode already is taken as it is. The firmware\n"
        "that it has is erased. Refused are files that cannot be an image for it: plain text,\n"
        "too large, or with a DFU suffix that is damaged or names another device.");
    return [options](const Context& context) { run_update(context, *options); };
}

}  // namespace

const std::vector<Command>& command_table() {
    static const std::vector<Command> table = {
        {"list", "List the devices", define_list},
        {"info", "Show what a device is: versions, serial number, model", define_info},
        {"status", "Show what a device is doing", define_status},
        {"gcode", "Send lines of gcode", define_gcode},
        {"push", "Send a print job", define_push},
        {"pause", "Pause the print job", define_pause},
        {"resume", "Resume the paused print job", define_resume},
        {"abort", "Abort the print job", define_abort},
        {"events", "Print what a device reports of its own accord", define_events},
        {"commands", "List the firmware's commands", define_commands},
        {"call", "Call any of the firmware's commands", define_call},
        {"trace", "Record what a servo does", define_trace},
        {"shell", "Talk to a device at a prompt", define_shell},
        {"dfu", "List the devices in DFU mode", define_dfu},
        {"update", "Write a new firmware to a device", define_update},
    };
    return table;
}

}  // namespace jovu_cli
