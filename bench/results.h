// SPDX-License-Identifier: Apache-2.0

/// @file
/// The rows of a benchmark: libjovu, its floor and the ratio, printed and written as JSON.
#pragma once

#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "child.h"
#include "program.h"

namespace bench {

/// What a figure should be.
struct Wanted {
    bool of_ratio;  ///< Otherwise of libjovu's own figure.
    bool at_most;   ///< Otherwise at least.
    double limit;
};
constexpr Wanted ratio_at_most(double limit) {
    return {true, true, limit};
}
constexpr Wanted ratio_at_least(double limit) {
    return {true, false, limit};
}
constexpr Wanted at_most(double limit) {
    return {false, true, limit};
}
constexpr Wanted at_least(double limit) {
    return {false, false, limit};
}

struct Measure {
    std::string name;
    std::string unit;
    std::optional<Wanted> wanted = std::nullopt;
    double part = 0.5;     ///< Quantile of the rounds that stands in the row.
    bool compared = true;  ///< Whether a ratio makes sense.
};

/// The figures of both programs in each round, by measure.
struct Rounds {
    std::map<std::string, std::vector<double>> of[2];
    int repeated = 0;  ///< Rounds that were disturbed, and do not count.
};

/// Has both programs take turns, each round in the other order. Repeats a round in which other
/// machines took the processors of this one (virtual) machine, at most twice @p rounds times; after
/// that, such rounds count.
Rounds by_turns(const std::string& progress, int rounds, const std::function<Figures(Name)>& turn);

class Results {
public:
    /// Adds and prints a row for each measure.
    /// @param table of the row, such as "push". @param subject what was measured there.
    void add(const std::string& table, const std::string& subject, const Rounds& rounds,
             const std::vector<Measure>& measures);

    /// @param path "-" for standard output.
    /// @throws std::runtime_error when the file cannot be written.
    void write_json(const std::string& path) const;

private:
    struct Row {
        std::string table, subject;
        Measure measure;
        double jovu, bare;        ///< Medians, or another quantile, of the rounds.
        double ratio, low, high;  ///< Median and quartiles of the ratios of the rounds.
        std::size_t rounds;
        int repeated;
    };
    static void print(const Row& row);

    std::vector<Row> rows_;
};

}  // namespace bench
