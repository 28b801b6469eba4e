// SPDX-License-Identifier: Apache-2.0

/// @file
/// The fault sweep: every scenario is run once for every call in it that can fail and for every
/// result that this call can return, with that call failing alone and with every one from there on.
/// Each run is a process, so that a crash or a hang is one run's.
///
/// Out of its reach: memory inside yajl, which neither checks its own allocations nor takes an
/// allocator for its trees. What a position means depends on the threads' timing, so that a run may
/// find fewer calls than the one that counted them ("not met").
#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "sweep/run.h"

namespace {

using namespace sweep;

/// How often a scenario is run to see which calls it makes.
constexpr std::size_t kCountingRuns = 3;

/// Processes at once. They mostly wait.
std::size_t width() {
    return std::size_t{16} * std::max(1U, std::thread::hardware_concurrency());
}

/// What a scenario does when nothing fails.
struct Counted {
    const Scenario* scenario;
    Counts counts{};
    long blocks = -1;
};

void print_failure(const Job& job, const Outcome& outcome) {
    std::fprintf(stderr, "%s\n%s\n", job.text().c_str(), outcome.text.c_str());
}

/// @param right set to false when something is wrong without any fault.
std::vector<Counted> count(bool& right) {
    std::vector<Job> jobs;
    for (const Scenario& scenario : scenarios())
        jobs.insert(jobs.end(), kCountingRuns, Job{&scenario, {}});
    const std::vector<Outcome> outcomes = run_all(jobs, width());
    std::vector<Counted> result;
    std::array<bool, kKinds> met{};
    for (std::size_t i = 0; i < jobs.size(); ++i) {
        const Report& report = outcomes[i].report;
        if (i % kCountingRuns == 0) result.push_back({jobs[i].scenario, {}, report.blocks});
        Counted& counted = result.back();
        for (std::size_t at = 0; at < report.counts.size(); ++at) {
            counted.counts[at] = std::max(counted.counts[at], report.counts[at]);
            if (report.counts[at] > 0) met[at / kRoles] = true;
        }
        if (outcomes[i].right && report.blocks == counted.blocks) continue;
        right = false;
        print_failure(jobs[i], outcomes[i]);
        std::fprintf(stderr, "%ld blocks of memory are left, or %ld\n", report.blocks,
                     counted.blocks);
    }
    // The sweep is blind to a kind that no scenario meets.
    for (std::size_t kind = 0; kind < kKinds; ++kind) {
        if (met[kind]) continue;
        right = false;
        std::fprintf(stderr, "no call of the kind %s\n", name(Kind(kind)));
    }
    return result;
}

std::vector<Job> plan(const std::vector<Counted>& all) {
    std::vector<Job> jobs;
    for (const Counted& counted : all) {
        for (std::size_t at = 0; at < counted.counts.size(); ++at) {
            const Kind kind{static_cast<int>(at / kRoles)};
            const Role role{static_cast<int>(at % kRoles)};
            for (unsigned position = 1; position <= counted.counts[at]; ++position) {
                for (const Result& result : results(kind)) {
                    for (const bool always : {false, true}) {
                        const Fault fault{kind, role, position, result, always};
                        jobs.push_back({counted.scenario, fault, counted.blocks});
                    }
                }
            }
        }
    }
    return jobs;
}

/// @return the process's exit status.
int sweep_all(std::size_t every, const std::string& only) {
    bool right = true;
    const std::vector<Counted> counted = count(right);
    std::vector<Job> jobs = plan(counted);
    std::size_t index = 0;
    const auto left_out = [&](const Job& job) {
        return index++ % every != 0 || job.text().compare(0, only.size(), only) != 0;
    };
    jobs.erase(std::remove_if(jobs.begin(), jobs.end(), left_out), jobs.end());
    const std::vector<Outcome> outcomes = run_all(jobs, width());
    right = right && !jobs.empty();
    std::size_t unmet = 0, by_rule = 0, set_aside = 0, failures = 0;
    for (std::size_t i = 0; i < jobs.size(); ++i) {
        const Report& report = outcomes[i].report;
        unmet += report.fired ? 0 : 1;
        by_rule += report.by_rule ? 1 : 0;
        set_aside += report.set_aside ? 1 : 0;
        if (outcomes[i].right) continue;
        ++failures;
        print_failure(jobs[i], outcomes[i]);
    }
    std::printf("%zu runs: %zu not met, %zu by a rule, %zu set aside, %zu failures\n", jobs.size(),
                unmet, by_rule, set_aside, failures);
    return right && failures == 0 ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
    const Shield shield;
    hook_libusb();
    const std::vector<std::string> arguments(argv + 1, argv + argc);
    const std::string option = arguments.empty() ? "" : arguments[0];
    if (option.empty()) return sweep_all(1, "");
    if (option == "--self-test") return self_test();
    const unsigned long every =
        option == "--every" && argc == 3 ? std::strtoul(argv[2], nullptr, 10) : 0;
    if (every > 0) return sweep_all(every, "");
    if (option == "--only" && argc == 3) return sweep_all(1, arguments[1]);
    std::fprintf(
        stderr,
        "usage: fault_sweep [--every K | --only RUNS | --self-test]\n"
        "  --every K    makes only every K-th run, always the same ones\n"
        "  --only RUNS  makes the runs whose names begin with RUNS: a scenario's name, or\n"
        "               SCENARIO:CALL@THREAD.POSITION:RESULT:once|always\n"
        "  --self-test  makes runs with a defect each, which the sweep has to notice\n");
    return 2;
}
