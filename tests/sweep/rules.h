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
    last_words,       ///< The watcher has ended, with those words.
    reception_ended,  ///< A transfer of the device is not in flight.
    frame_lost,       ///< A command went without an answer.
    report_lost,      ///< A command was answered, a request for a status report was not.
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
    const char* words;  ///< With Sign::last_words.
    Remedy remedy;
    const char* reason;

    /// Whether this may be what the fault, which has struck, has cost.
    bool covers(const Fault& fault) const;
};

/// Whatever no rule covers has to leave the client as good as before.
const std::vector<Rule>& rules();

/// What fake_usb::finish() may find left when a call keeps failing while a device is closed:
/// libusb does not give a transfer back, so that, its handle and its context are kept for good.
bool may_set_aside(const Fault& fault);
bool is_set_aside(const std::string& finding);

}  // namespace sweep
