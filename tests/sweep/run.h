/// @file
/// One run of a scenario, in a process of its own.
#pragma once

#include "sweep/faults.h"
#include "sweep/scenarios.h"

namespace sweep {

/// What a run tells its parent. Lies in memory that both see.
struct Report {
    Counts counts;
    long blocks;     ///< Left over at the end.
    bool fired;      ///< Whether the call came that was to fail.
    bool set_aside;  ///< Whether a transfer was kept for good.
    unsigned rule;   ///< Which rule, counted from 1, was made use of; 0 for none.
};

/// Runs a scenario and everything that has to hold afterwards. The process must have one thread and
/// its standard output must be a file.
/// @param fault null for the run that counts.
/// @param blocks how many blocks of memory are left over after a run in which nothing fails;
///     negative when that is not known yet.
/// @return the process's exit status. Findings stand on standard error, a line each.
int run(const Scenario& scenario, const Fault* fault, long blocks, Report& report);

/// @return whether memory that nothing points to is looked for, which takes AddressSanitizer.
bool checks_leaks();

}  // namespace sweep
