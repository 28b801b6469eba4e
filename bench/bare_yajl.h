// SPDX-License-Identifier: Apache-2.0

/// @file
/// The floor: what bare yajl takes to write and read the same bytes.
#pragma once

#include <string>

#include <yajl/yajl_tree.h>

namespace bench {

/// Writes a document with a generator of its own, value by value.
/// @param document what to write; walked, not parsed.
/// @return the number of bytes written.
std::size_t generate(yajl_val document);

/// Parses a text into a tree and frees it.
void parse(const std::string& text);

}  // namespace bench
