// SPDX-License-Identifier: Apache-2.0

/// @file
/// The program `jovu`: runs a command and turns its result into an exit status.

#include <exception>
#include <string>

#include "cli/failure.h"
#include "commands/command.h"
#include "jovu/exception.h"
#include "posix/child_process.h"
#include "posix/stop_source.h"
#include "terminal/output.h"

namespace {

using namespace jovu_cli;

int finish(const Failure& failure) {
    print_failure(failure);
    return static_cast<int>(failure.code());
}

int run(int argc, const char* const* argv, const FileDescriptor& output, StopSource& stop) {
    try {
        Request request = parse_command_line(argc, argv, "jovu help", environment("JOVU_FLEET"));
        const std::string chosen = environment("JOVU_DEVICE");
        if (request.options.fleet.url.empty() && !request.options.chooses_device() &&
            !chosen.empty()) {
            choose_device(request.options, chosen);
        }
        show_diagnostics(request.options.verbose);
        Output out(output, stop, request.options.json, request.options.quiet);
        if (request.run) {
            request.run(Context{request.options, out, stop});
        } else {
            out.raw(request.message);
        }
        return static_cast<int>(ExitCode::ok);
    } catch (const Failure& failure) {
        return finish(failure);
    } catch (const JovuException& error) {
        return finish(Failure(ExitCode::exchange_failed, error.what()));
    }
}

}  // namespace

int main(int argc, char** argv) {
    try {
        const FileDescriptor output = take_standard_output();
        StopSource stop(output.get());
        return run(argc, argv, output, stop);
    } catch (const std::exception& error) {
        return finish(Failure(ExitCode::failure, std::string("internal error: ") + error.what()));
    }
}
