// SPDX-License-Identifier: Apache-2.0

// Prints a status report of each controller, for a number of seconds. Derives from nothing.
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <thread>

#include "jovu/callback_client.h"
#include "jovu/version.h"

class StatusPrinter {
public:
    StatusPrinter() {
        JovuCallbacks calls;
        calls.connected = [this](JovuDeviceAddress device) {
            jovu_.client().RequestStatus(device);
        };
        calls.status_report = [](JovuDeviceAddress device, const JovuJobInterface::StatusMsg& now) {
            std::printf("libjovu %s: %d:%d %s, %.1f C\n", jovu_version(), device.bus,
                        device.address, now.state.c_str(), now.extruder_temperature);
        };
        jovu_.start(calls);  // Nothing is called before; the destructor ends it.
    }

private:
    JovuCallbackClient jovu_;
};

int main(int argc, char** argv) {
    const StatusPrinter printer;
    std::this_thread::sleep_for(std::chrono::seconds(argc > 1 ? std::atoi(argv[1]) : 10));
}
