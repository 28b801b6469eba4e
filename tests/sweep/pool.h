/// @file
/// Runs in processes of their own, many at once.
#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "sweep/run.h"

namespace sweep {

struct Job {
    const Scenario* scenario;
    std::optional<Fault> fault;
    long blocks = -1;  ///< As run() has it.

    /// As --only takes it.
    std::string text() const;
};

struct Outcome {
    bool right = false;
    Report report{};
    /// What it said, and how it ended if not by itself.
    std::string text;
};

/// How long a run may take. Far more than it needs: on a loaded machine too, only a run that hangs
/// takes that long.
inline constexpr std::chrono::seconds kBound{60};

/// Runs jobs, @p width at a time, each in a child process. Not on a process with threads.
/// @param bound what a run may take before it counts as hanging, and is ended.
std::vector<Outcome> run_all(const std::vector<Job>& jobs, std::size_t width,
                             std::chrono::milliseconds bound = kBound);

}  // namespace sweep
