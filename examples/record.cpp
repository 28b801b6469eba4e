// SPDX-License-Identifier: Apache-2.0

// Records the events of all controllers as lines of CSV: what the firmware prints, and the samples
// of traced servos. Ends on Ctrl-C, or after the number of seconds given as an argument.
//
//     record FILE [SECONDS]
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <mutex>
#include <string>
#include <string_view>
#include <utility>

#include "jovu/callback_client.h"
#include "jovu/exception.h"

namespace {

class Recorder {
public:
    Recorder() {
        JovuCallbacks calls;
        calls.connected = [this](JovuDeviceAddress device) { add(device, "connected", ""); };
        calls.disconnected = [this](JovuDeviceAddress device) { add(device, "disconnected", ""); };
        calls.debug_event = [this](JovuDeviceAddress device, const std::string& text) {
            add(device, "debug", text);
        };
        calls.servo_trace_event = [this](JovuDeviceAddress device, const servo_trace_msg& sample) {
            const auto field = [](const char* name, auto value) {
                return name + std::to_string(value);
            };
            add(device, "trace",
                field("servo=", sample.servo_name) + field(" state=", sample.servo_state) +
                    field(" count=", sample.int_cnt) + field(" command=", sample.pos_cmd) +
                    field(" position=", sample.pos) + field(" pwm=", sample.pwm) +
                    field(" padout=", sample.padout_dist));
        };
        jovu_.start(calls);
    }

    // Returns the lines that have been added since the last call.
    std::string take() {
        const std::lock_guard lock(mutex_);
        return std::exchange(lines_, {});
    }

    // No line is added any more.
    void stop() { jovu_.stop(); }

private:
    // Runs on the library's threads. Those that receive must not block, as a file may, so the lines
    // are kept until take().
    void add(JovuDeviceAddress device, const char* event, std::string_view text) {
        using std::chrono::milliseconds;
        const auto since_1970 = std::chrono::system_clock::now().time_since_epoch();
        const auto ms = std::chrono::duration_cast<milliseconds>(since_1970).count();
        const std::time_t seconds = ms / 1000;
        std::tm utc{};
        gmtime_r(&seconds, &utc);
        char start[64];
        std::size_t length = std::strftime(start, sizeof start, "%Y-%m-%dT%H:%M:%S", &utc);
        std::snprintf(start + length, sizeof start - length, ".%03dZ,%d:%d,",
                      static_cast<int>(ms % 1000), device.bus, device.address);

        const std::lock_guard lock(mutex_);
        lines_.append(start).append(event).append(",\"");
        for (const char c : text)
            lines_.append(c == '"' ? 2 : 1, c);
        lines_ += "\"\n";
    }

    std::mutex mutex_;
    std::string lines_;        // guarded by mutex_
    JovuCallbackClient jovu_;  // behind the members that its callbacks use
};

void write(std::ofstream& file, const std::string& lines) {
    file << lines << std::flush;
    if (!file) throw JovuException("The file cannot be written.");
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2 || argc > 3) {
        std::fprintf(stderr, "usage: record FILE [SECONDS]\n");
        return 2;
    }
    // Blocked before the library starts threads, so that this thread alone takes the signals.
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);

    using Clock = std::chrono::steady_clock;
    const auto limit = std::chrono::seconds(argc > 2 ? std::atol(argv[2]) : 0);
    const auto end = argc > 2 ? Clock::now() + limit : Clock::time_point::max();
    try {
        std::ofstream file(argv[1]);
        write(file, "time,device,event,text\n");
        Recorder recorder;
        const timespec period{0, 100'000'000};
        while (Clock::now() < end && sigtimedwait(&signals, nullptr, &period) < 0) {
            write(file, recorder.take());
        }
        recorder.stop();
        write(file, recorder.take());
    } catch (const JovuException& error) {
        std::fprintf(stderr, "record: %s: %s\n", argv[1], error.what());
        return EXIT_FAILURE;
    }
    return EXIT_SUCCESS;
}
