// SPDX-License-Identifier: Apache-2.0

// Prints what changes on each controller: that it is connected, disconnected or cannot be opened,
// its state, its job and its temperature. Ends on Ctrl-C, or after the number of seconds given as
// an argument.
#include <chrono>
#include <cmath>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <mutex>
#include <string>
#include <unordered_map>

#include "jovu/client.h"

namespace {

class Monitor : public JovuClient {
public:
    // The pause keeps devices from connecting before this object is complete.
    explicit Monitor(const JovuScanPause& = JovuScanPause()) { set_strict_matching(true); }

    // Ends all callbacks while the overrides and members still exist.
    ~Monitor() override { shutdown(); }

    // The reports arrive through StatusReceived().
    void request_reports() {
        for (const JovuDeviceAddress device : list_connected())
            request_report(device);
    }

private:
    void device_connected(JovuDeviceAddress device) override {
        print(device, "connected");
        request_report(device);
    }

    void device_disconnected(JovuDeviceAddress device) override { print(device, "disconnected"); }

    void device_unavailable(const JovuDeviceInfo& device) override {
        print(device.address, std::string("cannot be opened: ") + jovu_state_name(device.state));
    }

    void StatusReceived(JovuDeviceAddress device, StatusMsg now) override {
        std::string line = now.state;
        if (now.state == "printing" || now.state == "paused") {
            line += ", " + now.job_id + " " + std::to_string(now.progress) + " %";
        }
        if (now.error != 0) line += ", error " + std::to_string(now.error);
        // In steps of 5 degrees, so that noise is no change.
        line += ", " + std::to_string(5 * std::lround(now.extruder_temperature / 5)) + " C";
        print(device, line);
    }

    void request_report(JovuDeviceAddress device) {
        try {
            RequestStatus(device);
        } catch (const JovuException& error) {
            print(device, error.what());
        }
    }

    // Callbacks may overlap. A line that is the device's last one again is no change.
    void print(JovuDeviceAddress device, const std::string& line) {
        const std::lock_guard lock(mutex_);
        std::string& last = last_lines_[device];
        if (line == last) return;
        last = line;
        const std::time_t now = std::time(nullptr);
        std::tm local{};
        localtime_r(&now, &local);
        std::printf("%02d:%02d:%02d  %d:%d  %s\n", local.tm_hour, local.tm_min, local.tm_sec,
                    device.bus, device.address, line.c_str());
    }

    std::mutex mutex_;
    std::unordered_map<JovuDeviceAddress, std::string> last_lines_;  // guarded by mutex_
};

}  // namespace

int main(int argc, char** argv) {
    // Blocked before the library starts threads, so that this thread alone takes the signals.
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    std::setvbuf(stdout, nullptr, _IOLBF, BUFSIZ);

    using Clock = std::chrono::steady_clock;
    const auto limit = std::chrono::seconds(argc > 1 ? std::atol(argv[1]) : 0);
    const auto end = argc > 1 ? Clock::now() + limit : Clock::time_point::max();
    try {
        Monitor monitor;
        const timespec period{0, 500'000'000};
        while (Clock::now() < end && sigtimedwait(&signals, nullptr, &period) < 0) {
            monitor.request_reports();
        }
    } catch (const JovuException& error) {
        std::fprintf(stderr, "monitor: %s\n", error.what());
        return EXIT_FAILURE;
    }
    return EXIT_SUCCESS;
}
