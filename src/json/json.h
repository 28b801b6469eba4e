// SPDX-License-Identifier: Apache-2.0

/// @file
/// JSON on the wire, by yajl: parsing, look-up, strings, generating.
#pragma once

#include <yajl/yajl_gen.h>
#include <yajl/yajl_tree.h>

#include <clocale>
#include <cstddef>
#include <initializer_list>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace jovu {

/// How deep received JSON may nest. The deepest document of the protocol has eight levels; yajl
/// frees trees by recursion, so a device that nests without end would exhaust the stack.
inline constexpr std::size_t kMaxJsonDepth = 64;

struct TreeFree {
    void operator()(yajl_val_s* tree) const noexcept { yajl_tree_free(tree); }
};

/// A parsed document; every node in it dies with it.
using JsonTree = std::unique_ptr<yajl_val_s, TreeFree>;

/// Parses one document.
/// @return null when the text is not JSON or nests deeper than kMaxJsonDepth.
JsonTree parse_json(const std::string& text);

/// @return whether brackets outside of strings nest at most @p limit deep. Comments, which yajl
///     would skip, are not let through: JSON has none, and a quotation mark in one would hide
///     brackets from this count.
bool nests_within(std::string_view text, std::size_t limit) noexcept;

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

/// Owns a generator with default settings: compact output.
class JsonGenerator {
public:
    /// @throws std::bad_alloc
    JsonGenerator();

    yajl_gen get() const noexcept { return generator_.get(); }

    /// What has been written so far. Invalidated by further writing.
    /// @throws std::bad_alloc when the generator has no buffer.
    std::string_view text() const;

private:
    struct Free {
        void operator()(yajl_gen_t* generator) const noexcept { yajl_gen_free(generator); }
    };
    std::unique_ptr<yajl_gen_t, Free> generator_;
};

/// While one of these lives, the calling thread writes and reads numbers with a decimal point.
///
/// yajl uses the C library's number conversions, which obey the locale: in an application that
/// called setlocale(LC_ALL, "") on a machine with decimal commas, 21.5 would go out as 21,5.
class NumericLocale {
public:
    NumericLocale() noexcept;
    ~NumericLocale();
    NumericLocale(const NumericLocale&) = delete;
    NumericLocale& operator=(const NumericLocale&) = delete;

private:
    locale_t previous_;
};

}  // namespace jovu
