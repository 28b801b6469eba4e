/// @file
/// Asking the user before something that cannot be undone.
#pragma once

#include <string>

#include "commands.h"

namespace jovu_cli {

/// Whether the user can be asked: standard input and standard error are terminals.
bool can_ask();

/// Shows a text and a question on standard error and reads a line from standard input, or from the
/// shell that the command runs in. Discards what was typed before.
/// @param text lines that the answer depends on; must have gone through printable().
/// @return whether the line is "y" or "yes"; the end of the input is no.
/// @throws Failure interrupted, output_closed, or file_problem when nothing can be read.
bool ask(const Context& context, const std::string& text, const std::string& question);

}  // namespace jovu_cli
