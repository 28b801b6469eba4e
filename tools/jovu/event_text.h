/// @file
/// Firmware events for people and as JSON.
#pragma once

#include "inbox.h"
#include "output.h"

namespace jovu_cli {

/// Prints a debug text or a trace sample on a line, with the time at which it came in; other
/// notices are no events.
/// @throws Failure as Output.
void print_event(Output& out, const Notice& notice);

}  // namespace jovu_cli
