/// @file
/// What a single failed call may cost, and what brings it back: the library's promises with their
/// exceptions, in one table.
#pragma once

#include <string>
#include <vector>

#include "sweep/faults.h"

namespace sweep {

/// What shows that a rule applies.
enum class Sign {
    last_words,       ///< The watcher has ended, with that line.
    reception_ended,  ///< A transfer of the device is not in flight.
    frame_lost,       ///< A command got no response.
    report_lost,      ///< A command got a response, a request for a status report did not.
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

    /// Whether the fault, which has struck, may have had that cost.
    bool covers(const Fault& fault) const;
};

/// After a fault that no rule covers the client works as before.
const std::vector<Rule>& rules();

}  // namespace sweep
