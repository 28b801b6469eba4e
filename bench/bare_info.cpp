// SPDX-License-Identifier: Apache-2.0

/// @file
/// The floor of `jovu info`: opens the first controller, asks for version, serial number and
/// status, and ends.
#include <cstdio>
#include <exception>

#include "bare_libusb.h"

int main() {
    try {
        bench::BareLibusb libusb;
        bool first = true;
        libusb.open_attached([&](std::uint8_t /*bus*/, std::uint8_t /*address*/) {
            return std::exchange(first, false);
        });
        bench::BareController& controller = *libusb.controllers().at(0);
        const bool done = controller.exchange(R"({"idx":0,"name":"bio_get_version"})") &&
                          controller.exchange(R"({"idx":1,"name":"bio_get_serial"})") &&
                          controller.status();
        std::puts(done ? "done" : "failed");
        return done ? 0 : 1;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "bare_info: %s\n", error.what());
        return 1;
    }
}
