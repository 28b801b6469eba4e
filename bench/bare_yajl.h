// SPDX-License-Identifier: Apache-2.0

/// @file
/// The floor: what bare yajl takes to write and read the same bytes.
#pragma once

#include <cstddef>
#include <string>

#include <yajl/yajl_tree.h>

namespace bench {

/// Writes a document with a generator of its own, value by value.
/// @param document what to write; walked, not parsed.
/// @return the number of bytes written.
std::size_t generate(yajl_val document);

/// Parses a text into a tree and frees it.
void parse(const std::string& text);

/// Cuts a stream of objects by hand, counting braces, and parses each.
class ObjectCutter {
public:
    /// Takes the bytes of one packet.
    void receive(const char* bytes, std::size_t size);

private:
    std::string object_;
    std::size_t depth_ = 0;
};

}  // namespace bench
