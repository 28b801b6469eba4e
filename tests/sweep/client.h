// SPDX-License-Identifier: Apache-2.0

/// @file
/// The application of a run, and what it does with the library.
#pragma once

#include <atomic>
#include <chrono>
#include <functional>
#include <list>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "jovu/client.h"
#include "sweep/device_model.h"
#include "sweep/faults.h"

namespace sweep {

/// Records notifications. What its handlers do by themselves does not fail.
class Client : public JovuClient {
public:
    explicit Client(const JovuScanPause& = JovuScanPause()) {}
    ~Client() override { shutdown(); }

    void device_connected(JovuDeviceAddress /*address*/) override { ++connects; }
    void device_disconnected(JovuDeviceAddress /*address*/) override { ++disconnects; }
    void debug_event(JovuDeviceAddress /*address*/, std::shared_ptr<char> text) override {
        const Shield shield;
        record(text == nullptr ? "nothing" : text.get());
    }
    void servo_dc_trace_event(JovuDeviceAddress /*address*/, servo_trace_msg sample) override {
        const Shield shield;
        record(std::to_string(sample.int_cnt) + " " + std::to_string(sample.pos));
    }
    void StatusReceived(JovuDeviceAddress /*address*/, StatusMsg status) override {
        wrong_status = wrong_status || status.printer.model_name != "Model" ||
                       status.extruder_temperature != 21.5 || status.progress != 25 ||
                       status.idle_time != 7;
        ++statuses;
    }

    std::vector<std::string> events() const {
        const std::lock_guard<std::mutex> lock(mutex_);
        return events_;
    }

    std::atomic<unsigned> connects{0};
    std::atomic<unsigned> disconnects{0};
    std::atomic<unsigned> statuses{0};
    std::atomic<bool> wrong_status{false};

private:
    void record(const std::string& event) {
        const std::lock_guard<std::mutex> lock(mutex_);
        events_.push_back(event);
    }

    mutable std::mutex mutex_;
    std::vector<std::string> events_;
};

/// Everything of one run.
class World {
public:
    /// @param fault null for a run without one.
    explicit World(const Fault* fault) : fault_(fault) {}

    /// Reports a fault of the library, on standard error.
    void wrong(const std::string& what);
    /// @return whether there was none.
    bool right() const { return right_; }

    /// Whether the run's fault is of that kind.
    bool faulty(Kind kind) const { return fault_ != nullptr && fault_->kind == kind; }
    const Fault* fault() const { return fault_; }

    void plug() { devices_.emplace_back(); }
    DeviceModel& device() { return devices_.back(); }
    void unplug();

    void start();
    /// Shuts the client down; from then on calls may fail without a fault.
    void shut_down();
    void stop();

    /// Waits for something that the fault may have prevented; for as long as it takes if its call
    /// has not failed yet.
    bool wait(const char* what, const std::function<bool(World&)>& come);

    /// Makes a call of the library.
    /// @return whether it succeeded. It may throw what it is documented to throw.
    bool call(const char* what, const std::function<void()>& call);

    /// Runs one command, and checks that it gives the right result, or a reason and nothing else.
    /// @return whether it gave the right result.
    bool command(std::size_t number);

    /// Asks for a status report and waits for it.
    bool status();

    std::optional<Client> client;

private:
    const Fault* const fault_;
    std::list<DeviceModel> devices_;
    std::atomic<bool> right_{true};
    std::atomic<bool> down_{false};
};

/// How many commands World::command() knows.
inline constexpr std::size_t kCommands = 6;

/// What is done while a call fails.
struct Scenario {
    const char* name;
    /// Leaves the client running, for the check that it still works, or takes it down itself.
    void (*run)(World&);
    bool closes = false;  ///< The device is closed at its end, and comes back when plugged in anew.
};

const std::vector<Scenario>& scenarios();

/// What the watcher printed before it ended, between the dash and the full stop; empty while it
/// lives. Read from standard output, which has to be a file.
std::string last_words();

/// Ignores them from now on: another watcher will have its own.
void forget_last_words();

}  // namespace sweep
