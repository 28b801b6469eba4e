/// @file
/// The fault sweep: every scenario is run once for every call in it that can fail and for every
/// result that this call can give, with that call failing alone and with every one from there on.
/// Each run is a process, so that a crash or a hang is one run's.
///
/// Out of its reach: memory inside yajl, which neither checks its own allocations nor takes an
/// allocator for its trees; and what a position means is up to the threads' timing, so that a run
/// may find fewer calls than the one that counted them (column "not met").
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "sweep/pool.h"
#include "sweep/rules.h"
#include "sweep/self_test.h"

namespace {

using namespace sweep;

constexpr const char* kUsage =
    "usage: fault_sweep [--jobs N] [--every K] [--scenario NAME]\n"
    "       fault_sweep --only SCENARIO:CALL@THREAD.POSITION:RESULT:once|always\n"
    "       fault_sweep --self-test\n"
    "\n"
    "  --jobs N       runs N processes at once (16 for every core); they mostly wait\n"
    "  --every K      makes only every K-th run, always the same ones\n"
    "  --scenario NAME\n"
    "                 sweeps that scenario only\n"
    "  --only RUN     makes one run, as a failure names it\n"
    "  --self-test    shows that the sweep notices what it is there to notice\n";

/// How often a scenario is run to see which calls it makes.
constexpr std::size_t kCountingRuns = 3;

struct Options {
    std::size_t jobs = 16 * std::max(1U, std::thread::hardware_concurrency());
    std::size_t every = 1;
    std::string scenario;
    std::string only;
    bool self_test = false;
};

[[noreturn]] void wrong_usage(const std::string& what) {
    std::fprintf(stderr, "fault_sweep: %s\n%s", what.c_str(), kUsage);
    std::exit(2);
}

std::size_t number(const char* text) {
    char* end = nullptr;
    const unsigned long value = std::strtoul(text, &end, 10);
    if (value == 0 || *end != 0) wrong_usage(std::string("not a number: ") + text);
    return value;
}

Options parse(int argc, char** argv) {
    Options options;
    for (int i = 1; i < argc; ++i) {
        const std::string option = argv[i];
        if (option == "--self-test") {
            options.self_test = true;
            continue;
        }
        if (option == "--help") {
            std::printf("%s\nscenarios:\n", kUsage);
            for (const Scenario& scenario : scenarios())
                std::printf("  %-14s %s\n", scenario.name, scenario.what);
            std::exit(0);
        }
        if (i + 1 == argc) wrong_usage(option + " is unknown or needs a value");
        const char* const value = argv[++i];
        if (option == "--jobs") {
            options.jobs = number(value);
        } else if (option == "--every") {
            options.every = number(value);
        } else if (option == "--scenario") {
            options.scenario = value;
        } else if (option == "--only") {
            options.only = value;
        } else {
            wrong_usage("unknown option: " + option);
        }
    }
    return options;
}

const Scenario& scenario_called(const std::string& name) {
    for (const Scenario& scenario : scenarios()) {
        if (scenario.name == name) return scenario;
    }
    wrong_usage("no such scenario: " + name);
}

void tell(const Job& job, const Outcome& outcome) {
    std::fprintf(stderr, "%s\n", job.text().c_str());
    std::size_t begin = 0;
    while (begin < outcome.text.size()) {
        const std::size_t end = std::min(outcome.text.find('\n', begin), outcome.text.size());
        std::fprintf(stderr, "    %s\n", outcome.text.substr(begin, end - begin).c_str());
        begin = end + 1;
    }
}

/// What a scenario does when nothing fails.
struct Counted {
    const Scenario* scenario;
    Counts counts{};
    long blocks = -1;
    bool right = true;
};

std::vector<Counted> count(const std::vector<const Scenario*>& chosen, std::size_t width) {
    std::vector<Job> jobs;
    for (const Scenario* const scenario : chosen)
        jobs.insert(jobs.end(), kCountingRuns, Job{scenario, {}});
    const std::vector<Outcome> outcomes = run_all(jobs, width);
    std::vector<Counted> result;
    for (std::size_t i = 0; i < jobs.size(); ++i) {
        if (i % kCountingRuns == 0) result.push_back({jobs[i].scenario});
        Counted& counted = result.back();
        const Report& report = outcomes[i].report;
        for (std::size_t kind = 0; kind < kKinds; ++kind) {
            for (std::size_t role = 0; role < kRoles; ++role) {
                counted.counts[kind][role] =
                    std::max(counted.counts[kind][role], report.counts[kind][role]);
            }
        }
        if (counted.blocks < 0) counted.blocks = report.blocks;
        if (!outcomes[i].right) tell(jobs[i], outcomes[i]);
        if (report.blocks != counted.blocks) {
            std::fprintf(stderr, "%s: %ld blocks of memory are left, or %ld\n",
                         counted.scenario->name, report.blocks, counted.blocks);
        }
        counted.right = counted.right && outcomes[i].right && report.blocks == counted.blocks;
    }
    for (Counted& counted : result) {
        for (const Kind kind : counted.scenario->meets) {
            const auto& of = counted.counts[static_cast<std::size_t>(kind)];
            if (std::any_of(of.begin(), of.end(), [](unsigned n) { return n > 0; })) continue;
            std::fprintf(stderr, "%s: no call of the kind %s is noticed\n", counted.scenario->name,
                         name(kind));
            counted.right = false;
        }
    }
    return result;
}

std::vector<Job> plan(const std::vector<Counted>& all) {
    std::vector<Job> jobs;
    for (const Counted& counted : all) {
        for (std::size_t kind = 0; kind < kKinds; ++kind) {
            for (std::size_t role = 0; role < kRoles; ++role) {
                for (unsigned position = 1; position <= counted.counts[kind][role]; ++position) {
                    for (std::size_t result = 0; result < results(Kind(kind)).size(); ++result) {
                        for (const bool always : {false, true}) {
                            const Fault fault{Kind(kind), Role(role), position, result, always};
                            jobs.push_back({counted.scenario, fault, counted.blocks});
                        }
                    }
                }
            }
        }
    }
    return jobs;
}

struct Row {
    unsigned positions = 0, runs = 0, not_met = 0, by_rule = 0, set_aside = 0, failures = 0;

    void add(const Outcome& outcome) {
        ++runs;
        not_met += outcome.report.fired ? 0U : 1U;
        by_rule += outcome.report.rule != 0 ? 1U : 0U;
        set_aside += outcome.report.set_aside ? 1U : 0U;
        failures += outcome.right ? 0U : 1U;
    }
    void add(const Row& other) {
        positions += other.positions;
        runs += other.runs;
        not_met += other.not_met;
        by_rule += other.by_rule;
        set_aside += other.set_aside;
        failures += other.failures;
    }
    void print(const char* what) const {
        std::printf("%-14s %9u %6u %8u %8u %10u %9u\n", what, positions, runs, not_met, by_rule,
                    set_aside, failures);
    }
};

std::string calls_of(const Counted& counted, Row& row) {
    std::string text;
    for (std::size_t kind = 0; kind < kKinds; ++kind) {
        unsigned sum = 0;
        for (const unsigned count : counted.counts[kind])
            sum += count;
        if (sum == 0) continue;
        row.positions += sum;
        text += std::string(" ") + name(Kind(kind)) + " " + std::to_string(sum);
    }
    return text;
}

void print_table(const std::vector<Counted>& all, const std::vector<Job>& jobs,
                 const std::vector<Outcome>& outcomes) {
    std::printf("%-14s %9s %6s %8s %8s %10s %9s\n", "scenario", "positions", "runs", "not met",
                "by rule", "set aside", "failures");
    Row total;
    std::string calls;
    for (const Counted& counted : all) {
        Row row;
        calls += std::string(counted.scenario->name) + ":" + calls_of(counted, row) + "\n";
        for (std::size_t i = 0; i < jobs.size(); ++i) {
            if (jobs[i].scenario == counted.scenario) row.add(outcomes[i]);
        }
        row.print(counted.scenario->name);
        total.add(row);
    }
    total.print("total");
    std::printf("\ncalls, over all threads:\n%s", calls.c_str());
    std::printf("\nrules made use of:\n");
    for (std::size_t i = 0; i < rules().size(); ++i) {
        const auto uses = std::count_if(outcomes.begin(), outcomes.end(),
                                        [i](const Outcome& o) { return o.report.rule == i + 1; });
        std::printf("%6ld %-10s %s\n", static_cast<long>(uses), name(rules()[i].kind),
                    rules()[i].reason);
    }
}

int run_one(const Options& options) {
    const std::size_t colon = options.only.find(':');
    const Scenario& scenario = scenario_called(options.only.substr(0, colon));
    const auto fault =
        Fault::parse(options.only.substr(std::min(colon, options.only.size() - 1) + 1));
    if (!fault) wrong_usage("not a run: " + options.only);
    const std::vector<Counted> counted = count({&scenario}, kCountingRuns);
    const std::vector<Job> jobs{{&scenario, fault, counted.front().blocks}};
    const std::vector<Outcome> outcomes = run_all(jobs, 1);
    const Outcome& outcome = outcomes.front();
    if (!outcome.right) tell(jobs.front(), outcome);
    std::printf("%s%s%s%s\n", outcome.right ? "right" : "wrong",
                outcome.report.fired ? "" : ", the position was not met",
                outcome.report.rule != 0 ? ", by the rule: " : "",
                outcome.report.rule != 0 ? rules()[outcome.report.rule - 1].reason : "");
    return outcome.right ? 0 : 1;
}

int sweep_all(const Options& options) {
    std::vector<const Scenario*> chosen;
    if (options.scenario.empty()) {
        for (const Scenario& scenario : scenarios())
            chosen.push_back(&scenario);
    } else {
        chosen.push_back(&scenario_called(options.scenario));
    }
    const std::vector<Counted> counted = count(chosen, options.jobs);
    std::vector<Job> jobs;
    const std::vector<Job> all = plan(counted);
    for (std::size_t i = 0; i < all.size(); i += options.every)
        jobs.push_back(all[i]);
    const std::vector<Outcome> outcomes = run_all(jobs, options.jobs);
    bool right =
        std::all_of(counted.begin(), counted.end(), [](const Counted& c) { return c.right; });
    for (std::size_t i = 0; i < jobs.size(); ++i) {
        if (outcomes[i].right) continue;
        right = false;
        tell(jobs[i], outcomes[i]);
    }
    print_table(counted, jobs, outcomes);
    return right ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
    const Options options = parse(argc, argv);
    const Shield shield;
    if (options.self_test) return self_test();
    return options.only.empty() ? sweep_all(options) : run_one(options);
}
