#include "sweep/self_test.h"

#include <libusb.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <new>
#include <string>
#include <thread>
#include <vector>

#include "fake_usb/fake_libusb.h"
#include "sweep/pool.h"

namespace sweep {
namespace {

libusb_device_handle* open_first(libusb_context*& context) {
    libusb_init(&context);
    libusb_device** list = nullptr;
    libusb_get_device_list(context, &list);
    libusb_device_handle* handle = nullptr;
    libusb_open(list[0], &handle);
    libusb_free_device_list(list, 1);
    return handle;
}

void hang(World& /*world*/) {
    for (;;)
        std::this_thread::sleep_for(std::chrono::seconds(1));
}

void terminate(World& /*world*/) {
    std::thread([] { throw JovuException("nobody catches this"); }).join();
}

void leave_memory(World& /*world*/) {
    static std::atomic<void*> kept;
    kept = ::operator new(1);
}

/// Memory that operator new knows nothing of, as yajl's.
void lose_memory(World& /*world*/) {
    static std::atomic<std::uintptr_t> disguised;
    disguised = ~reinterpret_cast<std::uintptr_t>(std::malloc(1));
}

void leave_a_thread(World& world) {
    std::thread([&world] { hang(world); }).detach();
}

void leave_a_handle(World& world) {
    libusb_context* context = nullptr;
    world.plug();
    open_first(context);
}

/// As a lock that stays taken: the next client's device is never opened.
void leave_a_hold(World& /*world*/) {
    alignas(JovuScanPause) static std::array<unsigned char, sizeof(JovuScanPause)> place;
    ::new (place.data()) JovuScanPause();
}

void lose_reception(World& world) {
    world.plug();
    world.start();
    world.wait("an announcement", [](World& w) { return w.client->connects > 0; });
    fake_usb::complete(world.device().device(), kJobsIn, LIBUSB_TRANSFER_STALL);
}

void nothing(World& /*world*/) {}

struct Case {
    Scenario scenario;
    /// What has to be said about it.
    const char* words;
    bool sanitizer = false;  ///< Only AddressSanitizer sees it.
};

const std::vector<Case>& cases() {
    static const std::vector<Case> all{
        {{"hang", "", hang, {}}, "it hangs"},
        {{"terminate", "", terminate, {}}, "std::terminate was called: nobody catches this"},
        {{"memory", "", leave_memory, {}}, "blocks of memory are left"},
        {{"leak", "", lose_memory, {}}, "LeakSanitizer: detected memory leaks", true},
        {{"thread", "", leave_a_thread, {}}, "1 left: threads"},
        {{"handle", "", leave_a_handle, {}}, "1 left: handles"},
        {{"lock", "", leave_a_hold, {}}, "a new client does not work"},
        {{"reception", "", lose_reception, {}}, "the next exchange does not work"},
    };
    return all;
}

}  // namespace

int self_test() {
    const Scenario harmless{"nothing", "", nothing, {}};
    const Outcome outcome = run_all({{&harmless, {}}}, 1).front();
    bool right = outcome.right;
    if (!right) std::fprintf(stderr, "finds fault with nothing:\n%s", outcome.text.c_str());
    std::vector<Job> jobs;
    std::vector<const Case*> rows;
    for (const Case& row : cases()) {
        if (row.sanitizer && !checks_leaks()) continue;
        jobs.push_back({&row.scenario, {}, outcome.report.blocks});
        rows.push_back(&row);
    }
    // Longer than any patience of a run, so that only the one that hangs is ended by it.
    const std::vector<Outcome> outcomes = run_all(jobs, jobs.size(), std::chrono::seconds(15));
    for (std::size_t i = 0; i < jobs.size(); ++i) {
        const Case& row = *rows[i];
        const bool noticed =
            !outcomes[i].right && outcomes[i].text.find(row.words) != std::string::npos;
        std::printf("%-10s %s\n", row.scenario.name, noticed ? "noticed" : "NOT NOTICED");
        if (noticed) continue;
        right = false;
        std::fprintf(stderr, "%s: expected \"%s\", got:\n%s", row.scenario.name, row.words,
                     outcomes[i].text.c_str());
    }
    return right ? 0 : 1;
}

}  // namespace sweep
