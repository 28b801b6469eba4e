/// @file
/// Texts on the wire: arrays of byte values.
#pragma once

#include <yajl/yajl_tree.h>

#include <memory>

namespace jovu {

/// Reads an array of numbers as characters, the low 8 bits of each.
/// @return the characters, followed by one zero that the array does not have, for a reader who
///     forgets the length; null when @p array is not an array of numbers.
std::shared_ptr<char> read_byte_text(yajl_val array);

}  // namespace jovu
