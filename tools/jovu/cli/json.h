// SPDX-License-Identifier: Apache-2.0

/// @file
/// The JSON type of the programs. Apart, so that headers need no more than its forward declaration.
#pragma once

#include <nlohmann/json_fwd.hpp>

namespace jovu_cli {

/// JSON with its members in the order of their insertion.
using Json = nlohmann::ordered_json;

}  // namespace jovu_cli
