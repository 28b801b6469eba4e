// SPDX-License-Identifier: Apache-2.0

/// @file
/// Looks up values in a tree of yajl's nodes.
#pragma once

#include <yajl/yajl_tree.h>

#include <initializer_list>
#include <memory>
#include <optional>

namespace jovu {

/// The node at a path of keys below an object.
/// @return null when it is absent or of another type; belongs to the tree.
yajl_val find(yajl_val object, std::initializer_list<const char*> path, yajl_type type) noexcept;

/// The text of a string node at a path.
/// @return null when it is absent or not a string; lives as long as the tree.
const char* find_string(yajl_val object, std::initializer_list<const char*> path) noexcept;

/// The integer reading of a number: what yajl stored, or its whole part if it is not a whole
/// number, for which yajl stores nothing of use. Clamped to 64 bits.
/// @param number a number node.
long long integer_of(yajl_val number) noexcept;

/// The integer reading of a number node at a path.
std::optional<long long> find_integer(yajl_val object,
                                      std::initializer_list<const char*> path) noexcept;

/// The floating-point reading of a number node at a path.
std::optional<double> find_double(yajl_val object,
                                  std::initializer_list<const char*> path) noexcept;

/// Reads a string of the firmware: an array of numbers, the low 8 bits of each one character.
/// @return the characters, followed by one zero that the array does not have, for a reader who
///     forgets the length; null when @p array is not an array of numbers.
std::shared_ptr<char> read_byte_string(yajl_val array);

}  // namespace jovu
