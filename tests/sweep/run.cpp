#include "sweep/run.h"

#include <dirent.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <memory>
#include <string>
#include <thread>

#include "fake_usb/fake_libusb.h"
#include "sweep/client.h"
#include "sweep/libusb_calls.h"
#include "sweep/rules.h"
#include "sweep/system_calls.h"

// AddressSanitizer's leak check; null without it.
// NOLINTNEXTLINE(bugprone-reserved-identifier)
extern "C" __attribute__((weak)) int __lsan_do_recoverable_leak_check();

namespace sweep {
namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr milliseconds kPatience{10000};

/// How long a transfer has to be out of flight before reception counts as ended: long enough for
/// several scans of the bus in hurried time.
constexpr milliseconds kEnded{300};

/// How often event handling may be called in vain: in the three seconds at most that a closing
/// device's transfers are waited for, with a decent pause each time.
constexpr unsigned kFailedEventCalls = 500;

/// How many frames one may swallow that was cut off: it is a few hundred bytes long, and they 90.
constexpr unsigned kRepeats = 8;

template <class Condition>
bool eventually(Condition condition) {
    const auto begin = Clock::now();
    while (!condition()) {
        if (Clock::now() - begin > kPatience) return false;
        std::this_thread::sleep_for(milliseconds(5));
    }
    return true;
}

[[noreturn]] void terminated() {
    const Shield shield;
    std::string what = "without an exception";
    try {
        if (const std::exception_ptr error = std::current_exception()) {
            what = "an exception of an odd type";
            std::rethrow_exception(error);
        }
    } catch (const std::exception& error) {
        what = error.what();
    } catch (...) {
        // Its type is not known, and has been named so.
    }
    std::fprintf(stderr, "std::terminate was called: %s\n", what.c_str());
    std::_Exit(1);
}

bool receiving(World& world) {
    libusb_device* const device = world.device().device();
    return fake_usb::in_flight(device, kMessagesIn) && fake_usb::in_flight(device, kJobsIn);
}

const Rule* find_rule(World& world, Sign sign) {
    if (world.fault() == nullptr || !fired()) return nullptr;
    for (const Rule& rule : rules()) {
        if (rule.sign == sign && rule.covers(*world.fault()) &&
            (sign != Sign::last_words || rule.words == last_words())) {
            return &rule;
        }
    }
    return nullptr;
}

/// Why an exchange failed: because the device has not been opened yet, or an earlier one has not
/// been taken off yet?
bool not_there_yet(const std::string& reason) {
    return reason == "Transport Error - Device has been disconnected." ||
           reason == "Transport Error - No response received." ||
           reason == "Send failed - Device no longer connected." ||
           reason == "Send failed - libusb error: -4";
}

constexpr const char* kNoReport = "no status report";

/// A command and a status report, as soon as the device can be talked to.
/// @param may_end whether it may be that the device is not received from for good.
bool exchange(World& world, std::string& reason, bool may_end = false) {
    auto received = Clock::now();
    bool answered = false;
    const bool decided = eventually([&] {
        reason = last_words();
        if (!reason.empty()) return true;
        answered = world.command(0);
        reason = JovuTransport::last_send_error();
        if (answered || !not_there_yet(reason)) return true;
        if (receiving(world)) received = Clock::now();
        return may_end && Clock::now() - received > kEnded;
    });
    if (!decided || !answered) return false;
    reason = kNoReport;
    return world.status();
}

void replug(World& world) {
    world.device().unplug();
    world.plug();
}

/// The next exchange works after a call that failed once, by itself or by the remedy of a rule.
void check_recovery(World& world, const Scenario& scenario, Report& report) {
    if (scenario.closes) replug(world);
    std::string reason;
    const bool may_end = find_rule(world, Sign::reception_ended) != nullptr;
    if (exchange(world, reason, may_end)) return;
    const Rule* rule = nullptr;
    if (!last_words().empty()) {
        rule = find_rule(world, Sign::last_words);
    } else if (!receiving(world)) {
        rule = find_rule(world, Sign::reception_ended);
    } else {
        rule = find_rule(world, reason == kNoReport ? Sign::report_lost : Sign::frame_lost);
    }
    if (rule == nullptr) return world.wrong("the next exchange does not work: " + reason);
    report.rule = static_cast<unsigned>(rule - rules().data()) + 1;
    switch (rule->remedy) {
        case Remedy::restart:
            world.stop();
            forget_last_words();
            world.start();
            if (!world.client) return world.wrong("the link cannot be started again");
            break;
        case Remedy::replug:
        case Remedy::replug_and_repeat:
            replug(world);
            break;
        case Remedy::repeat:
            break;
    }
    const bool repeat = rule->remedy == Remedy::repeat || rule->remedy == Remedy::replug_and_repeat;
    for (unsigned tries = repeat ? kRepeats : 1; tries > 0; --tries) {
        if (exchange(world, reason)) return;
    }
    world.wrong("the remedy does not help: " + reason);
}

/// No lock is taken, and nothing remembered, that a new client would have to suffer for.
void check_new_client(World& world) {
    forget_last_words();
    world.plug();
    world.start();
    if (!world.client) return world.wrong("a new client cannot be started");
    std::string reason;
    if (!exchange(world, reason)) world.wrong("a new client does not work: " + reason);
    world.stop();
    if (!last_words().empty()) world.wrong("a new client's watcher ends: " + last_words());
}

std::size_t threads() {
    const std::unique_ptr<DIR, int (*)(DIR*)> folder(::opendir("/proc/self/task"), ::closedir);
    std::size_t count = 0;
    while (const dirent* const entry = ::readdir(folder.get()))
        count += entry->d_name[0] != '.' ? 1 : 0;
    return count;
}

void check_leftovers(World& world, Report& report) {
    if (!eventually([] { return threads() == 1; })) {
        world.wrong(std::to_string(threads() - 1) + " left: threads");
    }
    for (const std::string& finding : fake_usb::finish()) {
        if (world.fault() != nullptr && fired() && may_set_aside(*world.fault()) &&
            is_set_aside(finding)) {
            report.set_aside = true;
        } else {
            world.wrong(finding);
        }
    }
}

/// @return whether nothing was wrong.
bool run_in_world(const Scenario& scenario, const Fault* fault, Report& report) {
    World world(fault);
    arm(fault);
    scenario.run(world);
    const bool once = fault == nullptr || !fault->always;
    if (!once) world.stop();
    report.counts = counts();
    report.fired = fired();
    disarm();
    if (failed_event_calls() > kFailedEventCalls) {
        world.wrong("event handling that fails is called without a pause");
    }
    if (!last_words().empty() && !fired()) world.wrong("the watcher ends: " + last_words());
    if (world.client) check_recovery(world, scenario, report);
    world.stop();
    if (world.plugged()) world.device().unplug();
    check_new_client(world);
    world.device().unplug();
    check_leftovers(world, report);
    return world.right();
}

}  // namespace

bool checks_leaks() {
    return __lsan_do_recoverable_leak_check != nullptr;
}

int run(const Scenario& scenario, const Fault* fault, long blocks, Report& report) {
    std::set_terminate(terminated);
    const Shield shield;
    rules();  // Made at its first use, and not given back.
    const long before = live_blocks();
    bool right = run_in_world(scenario, fault, report);
    report.blocks = live_blocks() - before;
    if (blocks >= 0 && report.blocks != blocks && !report.set_aside) {
        right = false;
        std::fprintf(stderr, "%ld blocks of memory are left, not %ld\n", report.blocks, blocks);
    }
    if (checks_leaks() && __lsan_do_recoverable_leak_check() != 0) {
        right = false;
    }
    return right ? 0 : 1;
}

}  // namespace sweep
