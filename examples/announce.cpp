// SPDX-License-Identifier: Apache-2.0

// Tells of each controller as it comes and goes, with its version and serial number, and passes on
// what its firmware prints. Ends on Ctrl-C, or after the number of seconds given as an argument.
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <memory>

#include "jovu/client.h"

namespace {

class Announcer : public JovuClient {
public:
    // The pause keeps devices from connecting before this object is complete. Strict matching drops
    // a response that another device sends in the place of the one that was asked.
    explicit Announcer(const JovuScanPause& = JovuScanPause()) { set_strict_matching(true); }

    // Ends all callbacks while the overrides still exist.
    ~Announcer() override { shutdown(); }

    // Runs on a notification thread, so it may send commands to the device.
    void device_connected(JovuDeviceAddress address) override {
        const std::shared_ptr<char> version = bio_get_version(address);
        const std::shared_ptr<char> serial = bio_get_serial(address);
        if (version == nullptr || serial == nullptr) {
            std::printf("%d:%d does not respond: %s\n", address.bus, address.address,
                        last_send_error().c_str());
            return;
        }
        std::printf("%d:%d is here: serial %s, firmware %s\n", address.bus, address.address,
                    serial.get(), version.get());
    }

    void device_disconnected(JovuDeviceAddress address) override {
        std::printf("%d:%d is gone\n", address.bus, address.address);
    }

    // Runs on the thread that delivers received data: no commands here.
    void debug_event(JovuDeviceAddress address, std::shared_ptr<char> text) override {
        std::printf("%d:%d says: %s\n", address.bus, address.address,
                    text == nullptr ? "" : text.get());
    }
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

    try {
        const Announcer announcer;
        const timespec limit{argc > 1 ? std::atol(argv[1]) : 0, 0};
        sigtimedwait(&signals, nullptr, argc > 1 ? &limit : nullptr);
    } catch (const JovuException& error) {
        std::fprintf(stderr, "announce: %s\n", error.what());
        return EXIT_FAILURE;
    }
    return EXIT_SUCCESS;
}
