// SPDX-License-Identifier: Apache-2.0

/// @file
/// Runs of scenarios, each in a process of its own, many at once.
#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include "sweep/client.h"
#include "sweep/faults.h"

namespace sweep {

struct Job {
    const Scenario* scenario;
    std::optional<Fault> fault;
    /// How many blocks of memory are left over after a run in which nothing fails; negative if
    /// unknown.
    long blocks = -1;

    /// As --only takes it.
    std::string text() const;
};

/// What a run writes for its parent.
struct Report {
    Counts counts;
    long blocks;     ///< Left over at the end.
    bool fired;      ///< Whether the call came that was to fail.
    bool set_aside;  ///< Whether a transfer was kept permanently.
    bool by_rule;    ///< Whether it took a rule's remedy to make the next exchange work.
};

struct Outcome {
    bool right = false;
    Report report{};
    std::string text;  ///< What a run that is not right printed, and how it ended.
};

/// How long a run may take. Far more than it needs: on a loaded machine too, only a run that hangs
/// takes that long.
inline constexpr std::chrono::seconds kBound{60};

/// Runs jobs, @p width at a time, with everything that has to hold afterwards. The process must
/// have one thread and no other children.
/// @param bound a run that takes longer counts as hanging, and is ended.
std::vector<Outcome> run_all(const std::vector<Job>& jobs, std::size_t width,
                             std::chrono::seconds bound = kBound);

/// @return whether memory that nothing points to is looked for, which takes AddressSanitizer.
bool checks_leaks();

/// Makes runs with a defect each.
/// @return 0 when every one was noticed, 1 otherwise.
int self_test();

}  // namespace sweep
