// SPDX-License-Identifier: Apache-2.0

/// @file
/// The lines of `jovu monitor`.
#pragma once

#include <vector>

#include "monitor/model.h"
#include "monitor/screen.h"

namespace jovu_cli {

/// @return exactly as many lines as the screen has rows: the controllers with the chosen one among
///     them, the number of those that do not fit, and in the last row the question, the message or
///     the keys.
std::vector<ScreenLine> monitor_lines(const MonitorModel& model, ScreenSize size,
                                      MonitorModel::Time now);

}  // namespace jovu_cli
