// SPDX-License-Identifier: Apache-2.0

/// @file
/// `jovu shell`: commands and lines of gcode at a prompt, on one USB connection.

#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <array>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "cli/failure.h"
#include "cli/suggestions.h"
#include "commands/command.h"
#include "jovu/exception.h"
#include "session/reports.h"
#include "shell/line_editor.h"
#include "shell/shell_devices.h"
#include "shell/shell_words.h"
#include "terminal/line_reader.h"

namespace jovu_cli {
namespace {

/// Number of events that are shown before input is read again.
constexpr int kMaxEventsAtOnce = 100;

/// Whether the shell runs a command of the program. It shows events and help itself.
bool runs_in_shell(const std::string& name) {
    return name != "shell" && name != "events" && name != "monitor" && name != "help";
}

class Shell {
public:
    explicit Shell(const Context& context)
        : context_(context),
          options_(context.options),
          out_(context.out),
          devices_(options_.device, [this](const std::string& line) { say(line); }) {}

    /// Reads from a terminal, until the end of its input or ".quit".
    void run_interactive() {
        LineEditor editor(out_, context_.stop, history_path(),
                          {[this](const std::string& line) { return complete_line(line); },
                           [this] { return side_fd(); }, [this] { show_events(); }});
        interactive_ = true;
        read_line_ = [&](const std::string& prompt) { return read_input(editor, prompt); };
        try {
            greet();
        } catch (const Failure& failure) {
            if (failure.code() != ExitCode::interrupted) {
                throw;
            }
            resume();  // Ctrl-C while a device did not respond.
        }
        while (!quit_) {
            std::string line;
            switch (editor.read(line)) {
                case LineEditor::End::closed:
                    return;
                case LineEditor::End::interrupted:
                    resume();
                    break;
                case LineEditor::End::line:
                    run_and_report(line);
                    break;
            }
        }
    }

    /// Reads from a file or a pipe, until the end of the input, ".quit" or the first failure.
    void run_script() {
        StreamReader source = StreamReader::standard_input(context_.stop);
        source.set_side({[this] { return side_fd(); }, [this] { show_events(); }});
        read_line_ = [&source](const std::string& prompt) {
            if (can_ask()) {  // The input is a terminal; the output is a file or JSON.
                (void)!write(STDERR_FILENO, prompt.data(), prompt.size());
            }
            return source.next_raw();
        };
        for (std::size_t number = 1; !quit_; ++number) {
            const std::optional<std::string> line = source.next_raw();
            if (!line) {
                return;
            }
            try {
                run(*line);
            } catch (const Failure& failure) {
                const std::string what = failure.what();
                throw Failure(failure.code(),
                              what.empty() ? what : "line " + std::to_string(number) + ": " + what,
                              failure.hint());
            }
            show_events();
        }
    }

private:
    using Words = std::vector<std::string>;

    /// A command that only the shell has.
    struct OwnCommand {
        const char* name;
        const char* usage;
        const char* summary;
        void (Shell::*run)(const Words& words);
    };
    static const std::array<OwnCommand, 4> kOwnCommands;

    std::optional<std::string> read_input(LineEditor& editor, const std::string& prompt) const {
        std::string line;
        const LineEditor::End end = editor.read_input(prompt, line);
        context_.stop.throw_if_stopped();
        return end == LineEditor::End::line ? std::optional(line) : std::nullopt;
    }

    void run_and_report(const std::string& line) {
        try {
            run(line);
        } catch (const Failure& failure) {
            if (failure.code() == ExitCode::interrupted) {
                out_.line("^C");  // The terminal does not echo it.
            }
            print_failure(failure);
        } catch (const JovuException& error) {
            print_failure(Failure(ExitCode::exchange_failed, error.what()));
        }
        show_events();
        resume();
    }

    /// Continues after a Ctrl-C; other reasons to end are final.
    void resume() {
        context_.stop.forgive_interrupt();
        context_.stop.throw_if_stopped();
    }

    void run(const std::string& line) {
        const std::size_t begin = line.find_first_not_of(" \t\r");
        if (begin == std::string::npos) {
            return;
        }
        if (line.find('\0') != std::string::npos) {
            throw Failure(ExitCode::usage, "the line holds a NUL byte: " + line);
        }
        show_diagnostics(options_.verbose);
        show_events();  // Reports new devices before one is chosen for the line.
        if (line[begin] != '.') {
            if (begin == 0) {
                refuse_command(line.substr(0, line.find_first_of(" \t\r")));
            }
            const std::string code = line.substr(0, line.find_last_not_of('\r') + 1);
            names_device_ = false;
            options_.device = devices_.chosen();
            send_gcode_line(context(options_, out_), code);
            return;
        }
        Words words = split_words(line.substr(begin + 1));
        const std::string name = words.empty() ? "" : words.front();
        for (const OwnCommand& own : kOwnCommands) {
            if (name == own.name) {
                (this->*own.run)(words);
                return;
            }
        }
        run_command(name, words);
    }

    /// Checks the first word of a line without a dot.
    /// @throws Failure usage when it is the name of a command, which no machine understands.
    static void refuse_command(const std::string& word) {
        const std::vector<std::string> names = jovu_cli::command_names();
        const std::vector<std::string> own = command_names();
        const std::string command = "." + (word == "exit" ? "quit" : word);
        const bool runs = std::find(own.begin(), own.end(), command) != own.end();
        if (runs || std::find(names.begin(), names.end(), word) != names.end()) {
            throw Failure(ExitCode::usage, "not sent: " + word,
                          (runs ? "did you mean " + command + "? A" : ".help lists commands; a") +
                              " leading blank sends it as gcode");
        }
    }

    /// Runs one of the program's commands in the shell's session.
    void run_command(const std::string& name, const Words& words) {
        const std::vector<std::string> names = command_names();
        if (std::find(names.begin(), names.end(), "." + name) == names.end()) {
            const std::string near = did_you_mean("." + name, names);
            throw Failure(ExitCode::usage, "no such command: ." + name,
                          near.empty() ? ".help lists them" : near);
        }
        std::vector<const char*> arguments{"jovu"};
        for (const std::string& word : words) {
            arguments.push_back(word.c_str());
        }
        Request request =
            parse_command_line(static_cast<int>(arguments.size()), arguments.data(), ".help");
        if (!request.run) {
            out_.raw(request.message);
            return;
        }
        CommonOptions& options = request.options;
        names_device_ = options.chooses_device();
        options.device = names_device_ ? options.device : devices_.chosen();
        options.wait_device = options.wait_device ? options.wait_device : options_.wait_device;
        options.timeout = options.timeout ? options.timeout : options_.timeout;
        options.json = options.json || options_.json;
        options.quiet = options.quiet || options_.quiet;
        show_diagnostics(options.verbose || options_.verbose);
        Output out = out_.in_form(options.json, options.quiet);
        request.run(context(options, out));
    }

    Context context(const CommonOptions& options, Output& out) {
        return {options, out, context_.stop, &session(), read_line_};
    }

    void run_help(const Words& words) {
        expect(words, words.size() <= 2);
        const auto row = [this](std::string left, const std::string& summary) {
            left.resize(std::max<std::size_t>(left.size() + 1, 22), ' ');
            out_.line("  ." + left + summary);
        };
        if (words.size() == 2) {
            const std::size_t begin = words[1].find_first_not_of('.');
            const std::string name = begin == std::string::npos ? words[1] : words[1].substr(begin);
            for (const OwnCommand& own : kOwnCommands) {
                if (name == own.name) {
                    row(own.usage, own.summary);
                    return;
                }
            }
            run_command(name, {name, "--help"});
            return;
        }
        out_.line("A line that does not begin with a dot is gcode. Commands:");
        for (const Command& command : command_table()) {
            if (runs_in_shell(command.name)) {
                row(command.name, command.summary);
            }
        }
        for (const OwnCommand& own : kOwnCommands) {
            row(own.usage, own.summary);
        }
        out_.line(
            ".help COMMAND shows its options. Blanks separate words; 'quote' a word with blanks.");
    }

    void run_quit(const Words& words) {
        expect(words, words.size() == 1);
        quit_ = true;
    }

    void run_events(const Words& words) {
        expect(words, words.size() == 2 && (words[1] == "on" || words[1] == "off"));
        events_ = words[1] == "on";
        session().notifications().fill_side_queue(events_);
    }

    void run_device(const Words& words) {
        expect(words, words.size() <= 2);
        if (words.size() == 2) {
            const std::optional<JovuDeviceAddress> address = parse_address(words[1]);
            if (!address) {
                throw Failure(ExitCode::usage, "not a device address BUS:ADDR: " + words[1]);
            }
            session().find_devices();
            devices_.choose(session(), *address);
            return;
        }
        devices_.list(session());
    }

    /// @throws Failure usage unless the arguments of a command of the shell are valid.
    void expect(const Words& words, bool valid) const {
        if (valid) {
            return;
        }
        const auto* const own =
            std::find_if(kOwnCommands.begin(), kOwnCommands.end(),
                         [&](const OwnCommand& candidate) { return words[0] == candidate.name; });
        throw Failure(ExitCode::usage, std::string("usage: .") + own->usage);
    }

    static std::vector<std::string> command_names() {
        std::vector<std::string> names;
        for (const Command& command : command_table()) {
            if (runs_in_shell(command.name)) {
                names.push_back(std::string(".") + command.name);
            }
        }
        for (const OwnCommand& own : kOwnCommands) {
            names.push_back(std::string(".") + own.name);
        }
        return names;
    }

    /// @return the session. Replaces it when a device was closed to end an exchange or an error has
    ///     ended the connection.
    Session& session() {
        if (session_ && (session_->has_closed() || session_->has_ended())) {
            session_.reset();
        }
        if (!session_) {
            devices_.clear_connections();
            // A device that was chosen by its address is followed to its next one.
            const CommonOptions& chosen = context_.options;
            Client::set_device_filter(chosen.device ? JovuDeviceFilter() : chosen.filter());
            session_.emplace(options_, context_.stop, Interest{});
            session_->notifications().fill_side_queue(events_);
            session_->set_pick_check([this](JovuDeviceAddress address) {
                devices_.check(*session_, address, names_device_);
            });
        }
        return *session_;
    }

    void greet() {
        if (!out_.quiet()) {
            out_.line(
                "A line is gcode, a command begins with a dot: .help lists them. Ctrl-D leaves.");
        }
        const std::vector<JovuDeviceAddress> devices = session().find_devices();
        devices_.accept_all(session());
        show_events();
        if (devices.empty()) {
            out_.line("no device is connected");
        } else if (devices.size() > 1) {
            out_.line("several devices: .device BUS:ADDR chooses one");
        }
    }

    /// Shows a line about the devices. The output of a script carries results only.
    void say(const std::string& line) {
        if (interactive_) {
            out_.line(line);
        } else {
            print_error("jovu: " + line);
        }
    }

    int side_fd() { return session_ ? session_->notifications().side_queue_fd() : -1; }

    void show_events() {
        if (!session_) {
            return;
        }
        for (int i = 0; i < kMaxEventsAtOnce; ++i) {
            const std::optional<Notification> notification =
                session_->notifications().poll_side_queue();
            if (!notification) {
                break;
            }
            if (std::holds_alternative<Connected>(notification->what) ||
                std::holds_alternative<Disconnected>(notification->what)) {
                show_devices();
            } else {
                print_event(out_, *notification);
            }
        }
        print_lost_events(session_->notifications().take_lost_from_side_queue());
    }

    void show_devices() {
        if (session_->has_closed() || session_->has_ended()) {
            return;  // The next session will report the devices.
        }
        try {
            devices_.update(*session_);
        } catch (const Failure& failure) {
            if (failure.code() != ExitCode::interrupted) {  // The reader of input handles it.
                throw;
            }
        }
    }

    Completion complete_line(const std::string& line) {
        std::vector<std::string> devices;
        // Do not start a connection here: that can block and fail.
        if (session_ && !session_->has_ended()) {
            for (const JovuDeviceAddress address : session_->client().list_connected()) {
                devices.push_back(to_string(address));
            }
        }
        return complete(line, command_names(), devices);
    }

    const Context& context_;
    CommonOptions options_;
    Output out_;
    ShellDevices devices_;
    std::optional<Session> session_;
    ReadLine read_line_;
    bool interactive_ = false;
    bool names_device_ = false;  ///< Whether the line names its device.
    bool events_ = true;
    bool quit_ = false;
};

const std::array<Shell::OwnCommand, 4> Shell::kOwnCommands{{
    {"events", "events on|off", "Show the events that the device reports", &Shell::run_events},
    {"device", "device [BUS:ADDR]", "Choose a device, or list them", &Shell::run_device},
    {"help", "help [COMMAND]", "Show this list, or the help of a command", &Shell::run_help},
    {"quit", "quit", "Leave", &Shell::run_quit},
}};

void run_shell(const Context& context) {
    if (context.session != nullptr) {
        throw Failure(ExitCode::usage, "a shell cannot run in a shell");
    }
    Shell shell(context);
    if (isatty(STDIN_FILENO) != 0 && context.out.redraws()) {
        shell.run_interactive();
    } else {
        shell.run_script();
    }
}

Run define_shell(CLI::App& app) {
    app.footer(
        "A line that begins with a dot is a command, such as '.status' or '.push FILE'; any other\n"
        "line is gcode; the name of a command without its dot is sent behind a blank only.\n"
        "'.help' lists the commands, Ctrl-D or '.quit' leaves, Ctrl-C cancels the\n"
        "line or the command. Lines go to one device, identified by its serial number;\n"
        "'.device BUS:ADDR' chooses another one. When standard input is not a terminal, reads\n"
        "lines without a prompt up to the first failure, which sets the exit code.");
    return run_shell;
}

}  // namespace

const Command kShellCommand{"shell", "Send gcode and commands to a device at a prompt",
                            define_shell};

}  // namespace jovu_cli
