// SPDX-License-Identifier: Apache-2.0

// Pushes a print job to the first controller that connects, showing its progress.
//
//     push FILE
//
// Ctrl-C cancels the push. The controller then receives filler in place of the rest, refuses the
// job, and accepts the next one.
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <future>
#include <mutex>
#include <string>
#include <utility>

#include "jovu/callback_client.h"
#include "jovu/exception.h"

namespace {

JovuPushCancel push_cancel;

extern "C" void on_signal(int /*number*/) {
    push_cancel.cancel();  // may be called in a signal handler
}

int push(JovuClient& client, JovuDeviceAddress device, const std::string& file) {
    std::printf("pushing %s to %d:%d\n", file.c_str(), device.bus, device.address);
    auto show = [shown = -1](const JovuPushProgress& progress) mutable {
        const int percent = static_cast<int>(progress.percent);
        if (percent == std::exchange(shown, percent)) return;
        std::fprintf(stderr, "\r%3d %% of %.1f kB%s", percent,
                     static_cast<double>(progress.total) / 1000,
                     progress.filler ? ", cancelling" : "");
    };
    const JovuPushResult result = client.SendJobFile(device, file, show, push_cancel);
    std::fputc('\n', stderr);

    // A push has no acknowledgement: what became of the job is in the next report.
    const auto status = client.wait_for_status(device, std::chrono::seconds(5));
    std::printf("the controller is %s, job %s, error %d\n", status.state.c_str(),
                status.job_id.c_str(), status.error);
    switch (result) {
        case JovuPushResult::completed:
            return status.error == 0 ? EXIT_SUCCESS : EXIT_FAILURE;
        case JovuPushResult::cancelled:
            std::printf("cancelled\n");
            return EXIT_FAILURE;
        case JovuPushResult::cut_short:
            std::printf("%s changed or became unreadable during the push\n", file.c_str());
            return EXIT_FAILURE;
    }
    return EXIT_FAILURE;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: push FILE\n");
        return 2;
    }
    std::signal(SIGINT, on_signal);
    std::signal(SIGTERM, on_signal);

    // Declared before the client, whose callback uses them.
    std::promise<JovuDeviceAddress> promise;
    std::once_flag first;
    JovuCallbackClient jovu;
    try {
        JovuCallbacks calls;
        calls.connected = [&](JovuDeviceAddress device) {
            std::call_once(first, [&] { promise.set_value(device); });
        };
        jovu.start(calls);

        auto controller = promise.get_future();
        for (int tenths = 0; tenths < 50 && !push_cancel.cancelled(); ++tenths) {
            if (controller.wait_for(std::chrono::milliseconds(100)) == std::future_status::ready) {
                return push(jovu.client(), controller.get(), argv[1]);
            }
        }
        std::fprintf(stderr, "push: no controller has connected\n");
    } catch (const JovuException& error) {
        std::fprintf(stderr, "push: %s\n", error.what());
    }
    return EXIT_FAILURE;
}
