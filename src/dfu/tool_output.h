// SPDX-License-Identifier: Apache-2.0

/// @file
/// Reading what dfu-util prints.
///
/// The patterns are regular expressions (ECMAScript), but std::regex needs stack for every
/// character that it has matched, and starts over at every place: long output would end the process
/// or take for ever. These matchers find the same in one pass.
#pragma once

#include <list>
#include <string_view>
#include <vector>

#include "jovu/dfu.h"

namespace jovu {

/// The devices in a listing: one for every match of
///
///     Found\s+DFU:\s+\[[a-zA-Z0-9]+:[a-zA-Z0-9]+\].*serial="[a-zA-Z0-9]+".*\n
///
/// with the ids in brackets and the first serial number of letters and digits behind them.
/// @param output all that was printed.
std::list<JovuDfu::DfuDevice_t> listed_devices(std::string_view output);

/// The numbers in all matches of
///
///     \s[0-9]+%\s
///
/// one behind the other, without common characters.
/// @param piece at most 308 bytes: a number could be too large otherwise.
std::vector<double> percentages(std::string_view piece);

}  // namespace jovu
