// SPDX-License-Identifier: Apache-2.0

/// @file
/// The program jovu-bridge.

#include <pthread.h>
#include <systemd/sd-daemon.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <ctime>
#include <exception>
#include <string>

#include "bridge/bridge.h"
#include "bridge/config.h"
#include "bridge/log.h"
#include "jovu/version.h"

namespace {

using namespace std::chrono_literals;
using jovu_bridge::Bridge;
using jovu_bridge::ConfigProblem;
using jovu_bridge::Log;
using jovu_bridge::ReadConfig;

constexpr int kFailed = 1;
constexpr int kMisconfigured = 2;

/// How long requests in progress may take to end, a push with its filler included.
constexpr auto kStopLimit = 20s;
/// How often the watchdog of the service manager is considered.
constexpr auto kIdlePeriod = 1s;

/// The signals that the main thread waits for. Blocked in all threads.
sigset_t handled_signals() {
    sigset_t signals;
    sigemptyset(&signals);
    for (const int number : {SIGTERM, SIGINT, SIGHUP}) {
        sigaddset(&signals, number);
    }
    return signals;
}

/// @return whether the configuration can be used; logs what is wrong with it.
bool check(const ReadConfig& read, Log& log) {
    std::vector<ConfigProblem> problems = read.problems;
    if (problems.empty()) {
        problems = jovu_bridge::check_files(read);
    }
    for (const ConfigProblem& problem : problems) {
        log.error(to_string(problem));
    }
    return problems.empty();
}

void notify_reloading() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    const auto microseconds = static_cast<std::uint64_t>(now.tv_sec) * 1000000U +
                              static_cast<std::uint64_t>(now.tv_nsec) / 1000U;
    const std::string state = "RELOADING=1\nMONOTONIC_USEC=" + std::to_string(microseconds);
    sd_notify(0, state.c_str());
}

void reload(const std::string& file, Bridge& bridge, Log& log) {
    notify_reloading();
    const ReadConfig read = jovu_bridge::read_config(file);
    if (check(read, log)) {
        bridge.reload(read);
    } else {
        log.error("the configuration stays as it was");
        bridge.refuse_reload();
    }
    sd_notify(0, "READY=1");
}

/// Runs until a signal ends the bridge.
/// @return the exit status.
int serve(const std::string& file, Bridge& bridge, Log& log) {
    const sigset_t signals = handled_signals();
    sd_notify(0, "READY=1");
    const timespec period = {kIdlePeriod.count(), 0};
    for (;;) {
        const int number = sigtimedwait(&signals, nullptr, &period);
        if (number == SIGHUP) {
            reload(file, bridge, log);
        } else if (number == SIGTERM || number == SIGINT) {
            log.info(number == SIGTERM ? "stopping: SIGTERM" : "stopping: SIGINT");
            break;
        } else if (!bridge.healthy()) {
            log.error("stopping: a part of the bridge has ended or does not proceed");
            sd_notify(0, "STOPPING=1");
            bridge.stop(kStopLimit);
            return kFailed;
        } else {
            sd_notify(0, "WATCHDOG=1");
        }
    }
    sd_notify(0, "STOPPING=1");
    bridge.stop(kStopLimit);
    log.info("stopped");
    return 0;
}

int run(const std::string& file, bool only_check) {
    Log log(STDERR_FILENO, Log::to_journal());
    const jovu_bridge::LibraryLog library_log(log);
    const ReadConfig read = jovu_bridge::read_config(file);
    if (!check(read, log)) {
        return kMisconfigured;
    }
    if (only_check) {
        return 0;
    }
    log.set_level(read.config.log_level);
    const sigset_t signals = handled_signals();
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    // A connection that the other side has closed is an error of a write.
    static_cast<void>(std::signal(SIGPIPE, SIG_IGN));
    try {
        Bridge bridge(read, log);
        bridge.start();
        return serve(file, bridge, log);
    } catch (const std::exception& error) {
        log.error(error.what());
        return kFailed;
    }
}

}  // namespace

int main(int argc, char** argv) {
    CLI::App app("Connects the controllers of this computer to an MQTT broker.", "jovu-bridge");
    std::string file = "/etc/jovu/jovu-bridge.toml";
    bool only_check = false;
    app.add_option("-c,--config,FILE", file, "The configuration file")
        ->type_name("FILE")
        ->capture_default_str();
    app.add_flag("--check-config", only_check,
                 "Check the configuration and the files that it names, and exit: 0 if they can be "
                 "used, else 2");
    app.set_version_flag("--version", "jovu-bridge " JOVU_VERSION, "Print the version and exit");
    app.footer(
        "SIGTERM and SIGINT end the bridge: a job that is being sent continues with filler, for "
        "at\n"
        "most 20 seconds. SIGHUP reads the configuration again; what takes effect only at a start\n"
        "is logged. The exit status is 0 after a signal, 1 after a failure, and 2 for a wrong\n"
        "configuration or command line.");
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? 0 : kMisconfigured;
    }
    return run(file, only_check);
}
