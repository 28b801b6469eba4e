// SPDX-License-Identifier: Apache-2.0
#include "results.h"

#include <sys/utsname.h>
#include <unistd.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <limits>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <thread>

#include "jovu/version.h"
#include "measure.h"

namespace bench {
namespace {

/// @return null for a number that JSON does not have.
nlohmann::json number(double value) {
    return std::isfinite(value) ? nlohmann::json(value) : nlohmann::json();
}

std::string figure(double value) {
    char buffer[32];
    const int decimals = std::abs(value) < 10 ? 3 : std::abs(value) < 1000 ? 1 : 0;
    std::snprintf(buffer, sizeof buffer, "%.*f", decimals, value);
    return std::isfinite(value) ? buffer : "-";
}

nlohmann::json machine() {
    utsname system{};
    ::uname(&system);
    double load[3] = {};
    ::getloadavg(load, 3);
    std::string model;
    std::ifstream cpus("/proc/cpuinfo");
    for (std::string line; model.empty() && std::getline(cpus, line);) {
        if (line.rfind("model name", 0) == 0) model = line.substr(line.find(": ") + 2);
    }
    return {{"kernel", system.release},
            {"processor", model},
            {"cores", std::thread::hardware_concurrency()},
            {"load", load[0]},
            {"library", JOVU_VERSION}};
}

/// The processors' time of this machine so far, in ticks of the kernel's.
struct ProcessorTime {
    double all = 0;
    double stolen = 0;  ///< When a process wanted to run, and another machine had the processor.
};

/// @return zeroes where the kernel does not tell.
ProcessorTime processor_time() {
    std::ifstream file("/proc/stat");
    file.ignore(std::numeric_limits<std::streamsize>::max(), ' ');
    // Of user, nice, system, idle, iowait, irq, softirq and steal the last one; guest time, behind
    // it, is a part of user time.
    constexpr int kColumns = 8;
    ProcessorTime time;
    for (int i = 0; i < kColumns && file >> time.stolen; ++i)
        time.all += time.stolen;
    return file ? time : ProcessorTime();
}

/// More than this share of a round, and the round is repeated.
constexpr double kMostStolen = 0.02;

}  // namespace

Rounds by_turns(const std::string& progress, int rounds, const std::function<Figures(Name)>& turn) {
    Rounds result;
    const bool shown = ::isatty(STDERR_FILENO) == 1;
    int repeats_left = 2 * rounds;
    for (int i = 0, done = 0; done < rounds; ++i) {
        if (shown) std::fprintf(stderr, "\r\33[K%s %d/%d", progress.c_str(), done + 1, rounds);
        const ProcessorTime before = processor_time();
        Figures figures[2];
        for (const Name name : {i % 2 == 0 ? kJovu : kBare, i % 2 == 0 ? kBare : kJovu})
            figures[name] = turn(name);
        const ProcessorTime after = processor_time();
        if (after.stolen - before.stolen > kMostStolen * (after.all - before.all) &&
            repeats_left > 0) {
            --repeats_left;
            continue;
        }
        ++done;
        for (const Name name : {kJovu, kBare}) {
            for (const auto& [measure, value] : figures[name])
                result.of[name][measure].push_back(value);
        }
    }
    result.repeated = 2 * rounds - repeats_left;
    if (shown) std::fputs("\r\33[K", stderr);
    return result;
}

void Results::add(const std::string& table, const std::string& subject, const Rounds& rounds,
                  const std::vector<Measure>& measures) {
    for (const Measure& measure : measures) {
        const auto values = [&](Name name) -> std::vector<double> {
            const auto found = rounds.of[name].find(measure.name);
            return found == rounds.of[name].end() ? std::vector<double>() : found->second;
        };
        const std::vector<double> jovu = values(kJovu);
        const std::vector<double> bare = values(kBare);
        std::vector<double> ratios;
        for (std::size_t i = 0; measure.compared && i < std::min(jovu.size(), bare.size()); ++i)
            ratios.push_back(jovu[i] / bare[i]);
        rows_.push_back({table, subject, measure, quantile(jovu, measure.part),
                         quantile(bare, measure.part), median(ratios), quantile(ratios, 0.25),
                         quantile(ratios, 0.75), jovu.size(), rounds.repeated});
        print(rows_.back());
    }
}

void Results::print(const Row& row) {
    std::string wanted;
    if (row.measure.wanted) {
        const Wanted& want = *row.measure.wanted;
        const double value = want.of_ratio ? row.ratio : row.jovu;
        wanted = (want.of_ratio ? "ratio " : "") + std::string(want.at_most ? "<= " : ">= ") +
                 figure(want.limit) +
                 ((want.at_most ? value <= want.limit : value >= want.limit) ? "" : "  MISSED");
    }
    const std::string repeated =
        row.repeated == 0 ? "" : "  repeated: " + std::to_string(row.repeated);
    std::printf("%-12s %-22s %-22s %9s %9s %-9s %6s (%s to %s)  %s%s\n", row.table.c_str(),
                row.subject.c_str(), row.measure.name.c_str(), figure(row.jovu).c_str(),
                figure(row.bare).c_str(), row.measure.unit.c_str(), figure(row.ratio).c_str(),
                figure(row.low).c_str(), figure(row.high).c_str(), wanted.c_str(),
                repeated.c_str());
    std::fflush(stdout);
}

void Results::write_json(const std::string& path) const {
    nlohmann::json rows = nlohmann::json::array();
    for (const Row& row : rows_) {
        nlohmann::json out = {
            {"table", row.table},          {"subject", row.subject},
            {"measure", row.measure.name}, {"unit", row.measure.unit},
            {"libjovu", number(row.jovu)}, {"floor", number(row.bare)},
            {"ratio", number(row.ratio)},  {"ratio_quartiles", {number(row.low), number(row.high)}},
            {"rounds", row.rounds},        {"repeated", row.repeated}};
        if (row.measure.wanted) {
            out["wanted"] = {
                {"of", row.measure.wanted->of_ratio ? "ratio" : "libjovu"},
                {row.measure.wanted->at_most ? "at_most" : "at_least", row.measure.wanted->limit}};
        }
        rows.push_back(std::move(out));
    }
    const std::string text =
        nlohmann::json{{"machine", machine()}, {"rows", std::move(rows)}}.dump(1);
    if (path == "-") {
        std::puts(text.c_str());
        return;
    }
    std::ofstream file(path);
    file << text << '\n';
    if (!file.flush()) throw std::runtime_error("cannot write " + path);
}

}  // namespace bench
