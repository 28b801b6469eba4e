/// @file
/// The fault sweep: every scenario is run once for every call in it that can fail and for every
/// result that this call can return, with that call failing alone and with every one from there on.
/// Each run is a process, so that a crash or a hang is one run's.
///
/// Out of its reach: memory inside yajl, which neither checks its own allocations nor takes an
/// allocator for its trees. What a position means depends on the threads' timing, so that a run may
/// find fewer calls than the one that counted them (column "not met").
#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <numeric>
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
    return 16 * std::max(1U, std::thread::hardware_concurrency());
}

/// What a scenario does when nothing fails.
struct Counted {
    const Scenario* scenario;
    Counts counts{};
    long blocks = -1;
    bool right = true;

    unsigned calls(Kind kind) const {
        const auto* const first = counts.data() + slot(kind, Role{});
        return std::accumulate(first, first + kRoles, 0U);
    }
};

void print_failure(const Job& job, const Outcome& outcome) {
    std::fprintf(stderr, "%s\n%s\n", job.text().c_str(), outcome.text.c_str());
}

std::vector<Counted> count() {
    std::vector<Job> jobs;
    for (const Scenario& scenario : scenarios())
        jobs.insert(jobs.end(), kCountingRuns, Job{&scenario, {}});
    const std::vector<Outcome> outcomes = run_all(jobs, width());
    std::vector<Counted> result;
    for (std::size_t i = 0; i < jobs.size(); ++i) {
        const Report& report = outcomes[i].report;
        if (i % kCountingRuns == 0) result.push_back({jobs[i].scenario, {}, report.blocks});
        Counted& counted = result.back();
        for (std::size_t at = 0; at < report.counts.size(); ++at)
            counted.counts[at] = std::max(counted.counts[at], report.counts[at]);
        if (!outcomes[i].right) print_failure(jobs[i], outcomes[i]);
        if (report.blocks != counted.blocks) {
            std::fprintf(stderr, "%s: %ld blocks of memory are left, or %ld\n",
                         counted.scenario->name, report.blocks, counted.blocks);
        }
        counted.right = counted.right && outcomes[i].right && report.blocks == counted.blocks;
    }
    for (std::size_t kind = 0; kind < kKinds; ++kind) {
        bool met = false;
        for (Counted& counted : result) {
            const auto& meets = counted.scenario->meets;
            const bool meets_it = counted.calls(Kind(kind)) > 0;
            met = met || meets_it;
            if (meets_it || std::find(meets.begin(), meets.end(), Kind(kind)) == meets.end())
                continue;
            std::fprintf(stderr, "%s: no call of the kind %s\n", counted.scenario->name,
                         name(Kind(kind)));
            counted.right = false;
        }
        if (!met) std::fprintf(stderr, "no call of the kind %s\n", name(Kind(kind)));
        result.back().right = result.back().right && met;
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

/// A line of the table, by column: positions, runs, not met, by rule, set aside, failures.
using Row = std::array<unsigned, 6>;

void print(const char* what, const Row& row) {
    std::printf("%-14s", what);
    for (const unsigned value : row)
        std::printf(" %9u", value);
    std::printf("\n");
}

void print_table(const std::vector<Counted>& all, const std::vector<Job>& jobs,
                 const std::vector<Outcome>& outcomes) {
    std::printf("%-14s positions      runs   not met   by rule set aside  failures\n", "scenario");
    Row total{};
    std::string calls;
    for (const Counted& counted : all) {
        Row row{std::accumulate(counted.counts.begin(), counted.counts.end(), 0U)};
        for (std::size_t i = 0; i < jobs.size(); ++i) {
            if (jobs[i].scenario != counted.scenario) continue;
            const Report& report = outcomes[i].report;
            const std::array<bool, 5> marks{true, !report.fired, report.by_rule, report.set_aside,
                                            !outcomes[i].right};
            for (std::size_t column = 0; column < marks.size(); ++column)
                row[column + 1] += marks[column] ? 1U : 0U;
        }
        print(counted.scenario->name, row);
        std::transform(row.begin(), row.end(), total.begin(), total.begin(), std::plus<>());
        calls += std::string(counted.scenario->name) + ":";
        for (std::size_t kind = 0; kind < kKinds; ++kind) {
            const unsigned sum = counted.calls(Kind(kind));
            if (sum > 0) calls += std::string(" ") + name(Kind(kind)) + " " + std::to_string(sum);
        }
        calls += "\n";
    }
    print("total", total);
    std::printf("\ncalls, over all threads:\n%s", calls.c_str());
}

/// @return the process's exit status.
int sweep_all(std::size_t every, const std::string& only) {
    const std::vector<Counted> counted = count();
    std::vector<Job> jobs = plan(counted);
    std::size_t index = 0;
    const auto left_out = [&](const Job& job) {
        return index++ % every != 0 || job.text().compare(0, only.size(), only) != 0;
    };
    jobs.erase(std::remove_if(jobs.begin(), jobs.end(), left_out), jobs.end());
    const std::vector<Outcome> outcomes = run_all(jobs, width());
    bool right = !jobs.empty() && std::all_of(counted.begin(), counted.end(),
                                              [](const Counted& c) { return c.right; });
    for (std::size_t i = 0; i < jobs.size(); ++i) {
        if (outcomes[i].right) continue;
        right = false;
        print_failure(jobs[i], outcomes[i]);
    }
    print_table(counted, jobs, outcomes);
    return right ? 0 : 1;
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
        "  --self-test  shows that the sweep notices what it is there to notice\n");
    return 2;
}
