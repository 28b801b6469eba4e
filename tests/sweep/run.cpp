// SPDX-License-Identifier: Apache-2.0
#include "sweep/run.h"

#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <iterator>
#include <map>
#include <memory>
#include <stdexcept>

#include "support/wait.h"
#include "sweep/system_calls.h"

// AddressSanitizer's leak check; null without it.
// NOLINTNEXTLINE(bugprone-reserved-identifier)
extern "C" __attribute__((weak)) int __lsan_do_recoverable_leak_check();

namespace sweep {
namespace {

using Clock = std::chrono::steady_clock;

/// Far more than anything takes on a machine under full load.
constexpr std::chrono::seconds kLimit{10};

/// How long a transfer has to be out of flight before receiving counts as ended: long enough for
/// several scans of the bus in hurried time.
constexpr std::chrono::milliseconds kReceiveGap{300};

/// How many frames one may swallow that was cut off: it is a few hundred bytes long, and they 90.
constexpr unsigned kRepeats = 8;

constexpr const char* kNoReport = "no status report";

/// What shows that a rule applies.
enum class Sign {
    last_words,     ///< The watcher has ended, with that line.
    receive_ended,  ///< A transfer of the device is not in flight.
    frame_lost,     ///< A command got no response.
    report_lost,    ///< A command got a response, a request for a status report did not.
};

/// What makes the next exchange work.
enum class Remedy {
    restart,            ///< A new client.
    replug,             ///< The device is plugged in anew.
    repeat,             ///< Another exchange, and more until the gap is filled.
    replug_and_repeat,  ///< Both.
};

struct Rule {
    Kind kind;
    std::vector<std::string> results;  ///< Empty for all of the kind.
    Sign sign;
    Remedy remedy;
    std::string line = "";  ///< With Sign::last_words.
};

// clang-format off
/// What a single failed call may cost, and what brings it back: the library's promises with their
/// exceptions. After any other fault the client works as before.
const std::vector<Rule>& all_rules() {
    using K = Kind;
    using R = Remedy;
    static const std::vector<Rule> all{
        {K::alloc, {}, Sign::last_words, R::restart, "Failed to allocate rx transfer."},
        {K::alloc, {}, Sign::last_words, R::restart, "Failed to allocate tx transfer."},
        // An error on the watcher or in a callback that is not a device's own ends the watcher.
        {K::memory, {}, Sign::last_words, R::restart, "std::bad_alloc"},
        // A device that a scan cannot look at counts as gone; the next scan opens it anew, and a
        // frame that was cut off continues with the next bytes from that address.
        {K::descriptor, {}, Sign::frame_lost, R::repeat},
        // Receiving that cannot be started or continued stays ended until the device is plugged in
        // anew, since only the failure of both channels removes it.
        {K::submit, {}, Sign::receive_ended, R::replug_and_repeat},
        {K::completion, {"stall", "no-device"}, Sign::receive_ended, R::replug_and_repeat},
        // A frame with a gap is dropped, with the beginning of the next one, in either direction.
        {K::completion, {"error", "time-out"}, Sign::frame_lost, R::repeat},
        {K::bulk, {"stall", "overflow", "no-device", "invalid-param", "io", "interrupted",
                   "no-memory", "partial-time-out"}, Sign::frame_lost, R::repeat},
        // The job channel has no frames: a report that lost a closing brace continues into the next
        // one until the device is plugged in anew.
        {K::completion, {"error", "time-out"}, Sign::report_lost, R::replug},
    };
    return all;
}
// clang-format on

bool receiving(World& world) {
    libusb_device* const device = world.device().device();
    return fake_usb::in_flight(device, kMessagesIn) && fake_usb::in_flight(device, kJobsIn);
}

/// @return the rule by which the run's fault, if its call has failed, may show that sign.
const Rule* find_rule(World& world, Sign sign) {
    if (world.fault() == nullptr || !fired) return nullptr;
    const Fault& fault = *world.fault();
    if (fault.kind == Kind::memory && !fired_in_receive) return nullptr;
    for (const Rule& rule : all_rules()) {
        const auto& of = rule.results;
        if (rule.sign == sign && rule.kind == fault.kind &&
            (of.empty() || std::find(of.begin(), of.end(), fault.result.name) != of.end()) &&
            (sign != Sign::last_words || rule.line == last_words())) {
            return &rule;
        }
    }
    return nullptr;
}

/// @return whether an exchange failed because the device has not been opened yet, or because an
/// earlier one has not been removed yet.
bool not_there_yet(const std::string& reason) {
    constexpr std::array<const char*, 4> kReasons{"Transport Error - Device has been disconnected.",
                                                  "Transport Error - No response received.",
                                                  "Send failed - Device no longer connected.",
                                                  "Send failed - libusb error: -4"};
    return std::find(kReasons.begin(), kReasons.end(), reason) != kReasons.end();
}

/// A command and a status report, as soon as the device can be used.
/// @param may_end whether receiving from the device may have ended permanently.
bool exchange(World& world, std::string& reason, bool may_end = false) {
    auto received = Clock::now();
    bool responded = false;
    const bool decided = test::eventually(
        [&] {
            reason = last_words();
            if (!reason.empty()) return true;
            responded = world.command(0);
            reason = JovuTransport::last_send_error();
            if (responded || !not_there_yet(reason)) return true;
            if (receiving(world)) received = Clock::now();
            return may_end && Clock::now() - received > kReceiveGap;
        },
        kLimit);
    if (!decided || !responded) return false;
    reason = kNoReport;
    return world.status();
}

void replug(World& world) {
    world.unplug();
    world.plug();
}

/// The next exchange works after a call that failed once, by itself or by the remedy of a rule.
void check_recovery(World& world, const Scenario& scenario, Report& report) {
    if (scenario.closes) replug(world);
    std::string reason;
    if (exchange(world, reason, find_rule(world, Sign::receive_ended) != nullptr)) return;
    Sign sign = reason == kNoReport ? Sign::report_lost : Sign::frame_lost;
    if (!receiving(world)) sign = Sign::receive_ended;
    if (!last_words().empty()) sign = Sign::last_words;
    const Rule* const rule = find_rule(world, sign);
    if (rule == nullptr) return world.wrong("the next exchange does not work: " + reason);
    report.by_rule = true;
    const Remedy remedy = rule->remedy;
    if (remedy == Remedy::restart) {
        world.stop();
        forget_last_words();
        world.start();
        if (!world.client) return world.wrong("the client cannot be started again");
    } else if (remedy != Remedy::repeat) {
        replug(world);
    }
    const bool repeat = remedy == Remedy::repeat || remedy == Remedy::replug_and_repeat;
    for (unsigned tries = repeat ? kRepeats : 1; tries > 0; --tries) {
        if (exchange(world, reason)) return;
    }
    world.wrong("the remedy does not help: " + reason);
}

/// No lock is held and no state kept that would impair a new client.
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

std::ptrdiff_t other_threads() {
    const std::filesystem::directory_iterator tasks("/proc/self/task");
    return std::distance(begin(tasks), end(tasks)) - 1;
}

/// @return whether fake_usb::finish() may find that left when a call fails always while a device is
/// closed: libusb does not return a transfer, so that, its handle and its context are kept.
bool may_stay(const Fault& fault, const std::string& finding) {
    constexpr std::array<const char*, 4> kKept{" left: transfers", " left: handles",
                                               " left: contexts", " left: device references"};
    return fault.always && (fault.kind == Kind::cancel || fault.kind == Kind::events) &&
           std::any_of(kKept.begin(), kKept.end(),
                       [&](const char* what) { return finding.find(what) != std::string::npos; });
}

void check_leftovers(World& world, Report& report) {
    if (!test::eventually([] { return other_threads() == 0; }, kLimit)) {
        world.wrong(std::to_string(other_threads()) + " left: threads");
    }
    for (const std::string& finding : fake_usb::finish()) {
        if (world.fault() != nullptr && fired && may_stay(*world.fault(), finding)) {
            report.set_aside = true;
        } else {
            world.wrong(finding);
        }
    }
}

/// @return whether nothing was wrong.
bool run_in_world(const Scenario& scenario, const Fault* fault, Report& report) {
    World world(fault);
    fault_of_run = fault;
    armed = true;
    scenario.run(world);
    if (fault != nullptr && fault->always) world.stop();
    report.counts = counts();
    report.fired = fired;
    armed = false;
    if (!last_words().empty() && !fired) world.wrong("the watcher ends: " + last_words());
    if (world.client) check_recovery(world, scenario, report);
    world.stop();
    world.unplug();
    check_new_client(world);
    world.unplug();
    check_leftovers(world, report);
    return world.right();
}

/// @return whether nothing was wrong. Findings stand on standard error, a line each.
bool run(const Job& job, Report& report) {
    const Shield shield;
    all_rules();  // Made at its first use, and kept.
    const long before = live_blocks;
    bool right = run_in_world(*job.scenario, job.fault ? &*job.fault : nullptr, report);
    report.blocks = live_blocks - before;
    if (job.blocks >= 0 && report.blocks != job.blocks && !report.set_aside) {
        right = false;
        std::fprintf(stderr, "%ld blocks of memory are left, not %ld\n", report.blocks, job.blocks);
    }
    return !(checks_leaks() && __lsan_do_recoverable_leak_check() != 0) && right;
}

[[noreturn]] void run_in_child(const Job& job, int output, std::chrono::seconds bound,
                               Report& report) {
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    const rlimit no_core{0, 0};
    ::setrlimit(RLIMIT_CORE, &no_core);
    ::alarm(static_cast<unsigned>(bound.count()));
    ::dup2(output, STDOUT_FILENO);
    ::dup2(output, STDERR_FILENO);
    std::_Exit(run(job, report) ? 0 : 1);
}

Outcome outcome_of(int status, const Report& report, int output) {
    Outcome result{WIFEXITED(status) && WEXITSTATUS(status) == 0, report, ""};
    if (result.right) return result;
    result.text = read_from(output);
    if (WIFSIGNALED(status)) {
        const int signal = WTERMSIG(status);
        result.text += signal == SIGALRM ? "it hangs\n"
                                         : std::string("it crashes: ") + ::strsignal(signal) + "\n";
    }
    return result;
}

}  // namespace

std::string Job::text() const {
    return std::string(scenario->name) + (fault ? ":" + fault->text() : "");
}

bool checks_leaks() {
    return __lsan_do_recoverable_leak_check != nullptr;
}

std::vector<Outcome> run_all(const std::vector<Job>& jobs, std::size_t width,
                             std::chrono::seconds bound) {
    struct Child {
        std::size_t job;
        File output;
    };
    // Memory that parent and children share.
    const std::size_t size = (jobs.size() + 1) * sizeof(Report);
    void* const shared =
        ::mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (shared == MAP_FAILED) throw std::runtime_error("no memory can be shared");
    const auto unmap = [size](Report* reports) { ::munmap(reports, size); };
    const std::unique_ptr<Report[], decltype(unmap)> reports(static_cast<Report*>(shared), unmap);
    std::vector<Outcome> outcomes(jobs.size());
    std::map<pid_t, Child> running;
    for (std::size_t next = 0; next < jobs.size() || !running.empty();) {
        if (next < jobs.size() && running.size() < width) {
            File output = make_file();
            std::fflush(nullptr);
            const pid_t pid = ::fork();
            if (pid < 0) throw std::runtime_error("no process can be started");
            if (pid == 0) run_in_child(jobs[next], fileno(output.get()), bound, reports[next]);
            running.emplace(pid, Child{next, std::move(output)});
            ++next;
            continue;
        }
        int status = 0;
        const auto ended = running.find(::waitpid(-1, &status, 0));
        if (ended == running.end()) continue;
        const auto& [job, output] = ended->second;
        outcomes[job] = outcome_of(status, reports[job], fileno(output.get()));
        running.erase(ended);
    }
    return outcomes;
}

}  // namespace sweep
