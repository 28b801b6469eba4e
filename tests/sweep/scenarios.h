/// @file
/// What is done while a call fails.
#pragma once

#include <vector>

#include "sweep/client.h"

namespace sweep {

struct Scenario {
    const char* name;
    /// Leaves the client running, for the check that it still works, or takes it down itself.
    void (*run)(World&);
    /// Kinds of calls that it has to meet: the sweep is blind to one that it does not.
    std::vector<Kind> meets;
    bool closes = false;  ///< The device is closed at its end, and comes back when plugged in anew.
};

const std::vector<Scenario>& scenarios();

}  // namespace sweep
