// SPDX-License-Identifier: Apache-2.0

/// @file
/// Runs with a defect each, which the sweep has to notice.
#include <atomic>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "sweep/run.h"

namespace sweep {
namespace {

struct Case {
    Scenario scenario;
    std::vector<const char*> output;  ///< What the run has to print.
};

const std::vector<Case>& cases() {
    static const std::vector<Case> all{
        {{"crash", [](World&) { std::thread([] { throw JovuException("uncaught"); }).join(); }},
         {"uncaught", "it crashes"}},
        {{"hang",
          [](World&) {
              for (;;)
                  std::this_thread::sleep_for(std::chrono::seconds(1));
          }},
         {"it hangs"}},
        {{"misuse",
          [](World& world) {
              libusb_context* context = nullptr;
              libusb_device** list = nullptr;
              libusb_device_handle* handle = nullptr;
              world.plug();
              libusb_init(&context);
              libusb_get_device_list(context, &list);
              libusb_open(list[0], &handle);
              libusb_free_device_list(list, 1);
              world.call("a call", [] { throw std::runtime_error("an undocumented exception"); });
          }},
         {"1 left: handles", "blocks of memory are left",
          "a call threw an undocumented exception"}},
        {{"receive",
          [](World& world) {
              world.plug();
              world.start();
              // The client may be notified before receiving has started.
              world.wait("a transfer", [](World& w) {
                  return fake_usb::complete(w.device().device(), kJobsIn, LIBUSB_TRANSFER_STALL);
              });
          }},
         {"the next exchange does not work"}},
        {{"watcher",
          [](World& world) {
              fake_usb::script(fake_usb::Call::alloc, {LIBUSB_ERROR_NO_MEM});
              world.plug();
              world.start();
              world.wait("the watcher's end", [](World&) { return false; });
          }},
         {"the watcher ends: Failed to allocate rx transfer."}},
        {{"leak",
          [](World&) {
              // Memory that does not come from operator new, as yajl's.
              static std::atomic<std::uintptr_t> disguised;
              // NOLINTNEXTLINE(clang-analyzer-unix.Malloc): it is the leak that has to be found.
              disguised = ~reinterpret_cast<std::uintptr_t>(std::malloc(1));
          }},
         {"LeakSanitizer: detected memory leaks"}},
    };
    return all;
}

}  // namespace

int self_test() {
    const Scenario harmless{"nothing", [](World&) {}};
    const Outcome outcome = run_all({{&harmless, {}}}, 1).front();
    bool right = outcome.right;
    if (!right) std::fprintf(stderr, "finds fault with nothing:\n%s", outcome.text.c_str());
    std::vector<Job> jobs;
    for (const Case& row : cases())
        jobs.push_back({&row.scenario, {}, outcome.report.blocks});
    if (!checks_leaks()) jobs.pop_back();
    // Longer than a run waits for anything, so that only the one that hangs is ended by it.
    const std::vector<Outcome> outcomes = run_all(jobs, jobs.size(), std::chrono::seconds(15));
    for (std::size_t i = 0; i < jobs.size(); ++i) {
        for (const char* const output : cases()[i].output) {
            const Outcome& seen = outcomes[i];
            if (!seen.right && seen.text.find(output) != std::string::npos) continue;
            right = false;
            std::fprintf(stderr, "%s: expected \"%s\", got:\n%s", jobs[i].scenario->name, output,
                         seen.text.c_str());
        }
    }
    return right ? 0 : 1;
}

}  // namespace sweep
