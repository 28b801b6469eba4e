// SPDX-License-Identifier: Apache-2.0
#include "tool/runner.h"

#include <dlfcn.h>

#include <cstdio>
#include <cstdlib>
#include <exception>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "bus/testbed.h"
#include "device/capture.h"
#include "tool/child_process.h"
#include "tool/control_commands.h"
#include "tool/control_socket.h"
#include "tool/exit_status.h"
#include "tool/main_loop.h"

namespace jovusim {

namespace {

constexpr char kPreloadVariable[] = "LD_PRELOAD";
constexpr char kPreloadLibrary[] = "libumockdev-preload.so.0";

/// Without the library the program would run and find the real devices of the machine.
/// @throws std::runtime_error
void require_preload_library() {
    void* const library = ::dlopen(kPreloadLibrary, RTLD_LAZY | RTLD_LOCAL);
    if (library == nullptr) {
        // NOLINTNEXTLINE(concurrency-mt-unsafe): dlerror() is per thread in glibc.
        throw std::runtime_error(std::string(::dlerror()) + "; is the package umockdev installed?");
    }
    ::dlclose(library);
}

/// @param environment of this process before the bus was made
std::vector<std::string> child_environment(std::vector<std::string> environment,
                                           const std::string& root,
                                           const std::string& control_path) {
    // Libraries that are preloaded already stay first: the runtime of a sanitizer has to.
    std::string preload = kPreloadLibrary;
    // NOLINTNEXTLINE(concurrency-mt-unsafe): no thread changes the environment.
    const char* const old = std::getenv(kPreloadVariable);
    if (old != nullptr && *old != '\0') preload = old + (":" + preload);
    set_variable(environment, kPreloadVariable, preload);
    set_variable(environment, kTestbedVariable, root);
    set_variable(environment, kControlVariable, control_path);
    return environment;
}

/// Runs the program on a bus that ends with it. @param capture may be null
int run_captured(const RunOptions& options, BusCapture* capture) {
    const ProcessSettings before = take_over_process();
    const Waker waker;
    require_preload_library();
    const std::vector<std::string> own_environment = current_environment();
    Testbed testbed(
        options.time_scale, [&waker] { waker.wake(); }, capture);
    const std::string control_path = testbed.root() + "/control";
    ControlServer server(control_path, [&testbed](const std::string& line) {
        return run_control_request(testbed, line);
    });
    for (unsigned i = 0; i < options.devices; ++i) {
        testbed.plug(std::nullopt, PlugRequest{});
    }
    const auto environment = child_environment(own_environment, testbed.root(), control_path);
    const pid_t child = start_program(options.program, environment, before);
    ChildGuard guard(child);
    MainLoop loop(testbed, server, waker);
    const int status = loop.run(child);
    guard.dismiss();
    return status;
}

}  // namespace

int run_on_bus(const RunOptions& options) {
    try {
        if (!options.capture) return run_captured(options, nullptr);
        BusCapture capture(*options.capture);
        const int status = run_captured(options, &capture);
        if (const std::string fault = capture.fault(); !fault.empty())
            throw std::runtime_error(fault);
        return status;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "jovu-sim: %s\n", error.what());
        return kExitFailure;
    }
}

}  // namespace jovusim
