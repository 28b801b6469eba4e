// SPDX-License-Identifier: Apache-2.0

/// @file
/// A program that exits without a shutdown: its client is leaked, or a static object, and the
/// watcher runs while static objects are destroyed, or a handler calls exit(). Its status has to be
/// 0.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <thread>

#include "support/recording_client.h"
#include "support/sim_control.h"

namespace {

/// Outlives main(), and is destroyed after objects that were made later.
std::unique_ptr<test::RecordingClient> kept;

/// Gives the watcher time to run while the process is half torn down.
struct SlowEnd {
    ~SlowEnd() { std::this_thread::sleep_for(std::chrono::milliseconds(700)); }
};

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) return 2;
    const JovuDeviceAddress device = test::plug();
    auto client = std::make_unique<test::RecordingClient>();
    if (!client->wait_connected(device) || !client->exchange_works(device)) return 1;
    test::sim("fault " + test::name(device) + " flood message 100000");
    if (std::strcmp(argv[1], "leaked") == 0) {
        // Only the USB backend refers to it, as in an application that never deletes its client.
        static_cast<void>(client.release());
        static const SlowEnd slow_end;
        return 0;
    }
    if (std::strcmp(argv[1], "static") == 0) {
        kept = std::move(client);
        static const SlowEnd slow_end;
        return 0;
    }
    if (std::strcmp(argv[1], "handler") == 0) {
        kept = std::make_unique<test::RecordingClient>();
        kept->on_debug = [](JovuDeviceAddress, const std::string&) { std::exit(0); };
        client.reset();
        std::this_thread::sleep_for(test::kPatience);
        return 1;
    }
    std::fprintf(stderr, "leaving: leaked, static or handler, not \"%s\"\n", argv[1]);
    return 2;
}
