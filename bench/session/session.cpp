// SPDX-License-Identifier: Apache-2.0

// The session of session.py with libjovu.
//
//     session FILE
#include <chrono>
#include <cstdio>
#include <ctime>
#include <future>
#include <mutex>
#include <stdexcept>
#include <string>

#include "jovu/callback_client.h"

namespace {

constexpr int kRoundTrips = 1000;

double wall() {
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

double cpu() {
    timespec time{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &time);
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) / 1e9;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) return 2;
    const std::string path = argv[1];
    std::promise<JovuDeviceAddress> connected;
    std::promise<void> disconnected;
    std::once_flag first;
    JovuCallbackClient jovu;
    JovuCallbacks calls;
    calls.connected = [&](JovuDeviceAddress device) {
        std::call_once(first, [&] { connected.set_value(device); });
    };
    calls.disconnected = [&](JovuDeviceAddress /*device*/) { disconnected.set_value(); };
    jovu.start(calls);
    JovuClient& client = jovu.client();
    const JovuDeviceAddress device = connected.get_future().get();

    double begin = wall();
    double begin_cpu = cpu();
    for (int i = 0; i < kRoundTrips; ++i) {
        const auto version = client.bio_get_version(device);
        if (version == nullptr) throw std::runtime_error(JovuClient::last_send_error());
    }
    std::printf("{\"round_trips_per_s\": %.0f, \"round_trip_cpu_us\": %.0f, ",
                kRoundTrips / (wall() - begin), (cpu() - begin_cpu) * 1e6 / kRoundTrips);

    const JovuPushCancel never;
    begin = wall();
    begin_cpu = cpu();
    if (client.SendJobFile(device, path, nullptr, never) != JovuPushResult::completed) return 1;
    const double seconds = wall() - begin;
    std::printf("\"push_s\": %.4f, \"push_cpu_s\": %.4f, ", seconds, cpu() - begin_cpu);

    begin = wall();
    try {
        static_cast<void>(client.SendJobFile(device, path, nullptr, never));
        std::printf("\"at_unplug\": \"none\"}\n");
    } catch (const std::exception& error) {
        disconnected.get_future().wait();
        std::printf("\"at_unplug\": \"%s\", \"unplug_s\": %.4f}\n", error.what(), wall() - begin);
    }
}
