/// @file
/// Whether the sweep notices what it is there to notice.
#include <atomic>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <new>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "sweep/run.h"

namespace sweep {
namespace {

void crash(World& /*world*/) {
    std::thread([] { throw JovuException("nothing catches this"); }).join();
}

void hang(World& /*world*/) {
    for (;;)
        std::this_thread::sleep_for(std::chrono::seconds(1));
}

/// Leaves a handle, its device and its context.
void misuse(World& world) {
    libusb_context* context = nullptr;
    libusb_device** list = nullptr;
    libusb_device_handle* handle = nullptr;
    world.plug();
    libusb_init(&context);
    libusb_get_device_list(context, &list);
    libusb_open(list[0], &handle);
    libusb_free_device_list(list, 1);
}

void fail_wrongly(World& world) {
    world.call("a call", [] { throw std::runtime_error("an undocumented exception"); });
}

void lose_reception(World& world) {
    world.plug();
    world.start();
    world.wait("a notification", [](World& w) { return w.client->connects > 0; });
    fake_usb::complete(world.device().device(), kJobsIn, LIBUSB_TRANSFER_STALL);
}

void leave_memory(World& /*world*/) {
    static std::atomic<void*> kept;
    kept = ::operator new(1);
}

/// Memory that does not come from operator new, as yajl's.
void lose_memory(World& /*world*/) {
    static std::atomic<std::uintptr_t> disguised;
    disguised = ~reinterpret_cast<std::uintptr_t>(std::malloc(1));
}

/// The second opening follows the probe.
void end_the_watcher(World& world) {
    fake_usb::script(fake_usb::Call::open, {0, LIBUSB_ERROR_ACCESS});
    world.plug();
    world.start();
    world.wait("the watcher's end", [](World& /*w*/) { return false; });
}

void do_nothing(World& /*world*/) {}

struct Case {
    Scenario scenario;
    const char* words;  ///< What the run has to print.
};

const std::vector<Case>& cases() {
    static const std::vector<Case> all{
        {{"crash", crash, {}}, "nothing catches this"},
        {{"hang", hang, {}}, "it hangs"},
        {{"misuse", misuse, {}}, "1 left: handles"},
        {{"failure", fail_wrongly, {}}, "a call threw an undocumented exception"},
        {{"reception", lose_reception, {}}, "the next exchange does not work"},
        {{"memory", leave_memory, {}}, "blocks of memory are left"},
        {{"watcher", end_the_watcher, {}}, "the watcher ends: Failed to open libusb device."},
        {{"leak", lose_memory, {}}, "LeakSanitizer: detected memory leaks"},
    };
    return all;
}

}  // namespace

int self_test() {
    const Scenario harmless{"nothing", do_nothing, {}};
    const Outcome outcome = run_all({{&harmless, {}}}, 1).front();
    bool right = outcome.right;
    if (!right) std::fprintf(stderr, "finds fault with nothing:\n%s", outcome.text.c_str());
    std::vector<Job> jobs;
    for (const Case& row : cases())
        jobs.push_back({&row.scenario, {}, outcome.report.blocks});
    if (!checks_leaks()) jobs.pop_back();
    // Longer than any patience of a run, so that only the one that hangs is ended by it.
    const std::vector<Outcome> outcomes = run_all(jobs, jobs.size(), std::chrono::seconds(15));
    for (std::size_t i = 0; i < jobs.size(); ++i) {
        const bool noticed =
            !outcomes[i].right && outcomes[i].text.find(cases()[i].words) != std::string::npos;
        std::printf("%-10s %s\n", jobs[i].scenario->name, noticed ? "noticed" : "NOT NOTICED");
        if (noticed) continue;
        right = false;
        std::fprintf(stderr, "expected \"%s\", got:\n%s", cases()[i].words,
                     outcomes[i].text.c_str());
    }
    return right ? 0 : 1;
}

}  // namespace sweep
