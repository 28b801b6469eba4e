// SPDX-License-Identifier: Apache-2.0

/// @file
/// Generates JSON with yajl.
#pragma once

#include <yajl/yajl_gen.h>

#include <cstddef>
#include <memory>
#include <string>

#include "json/arena.h"

namespace jovu {

/// A generator with default settings (compact output) and the text that it has written. Made for
/// one document: it needs no memory but for the text.
class JsonGenerator {
public:
    /// @throws std::bad_alloc
    JsonGenerator();
    JsonGenerator(const JsonGenerator&) = delete;
    JsonGenerator& operator=(const JsonGenerator&) = delete;

    yajl_gen get() const noexcept { return generator_.get(); }

    /// Takes out what has been written.
    /// @throws std::bad_alloc when there was no memory for some of it.
    std::string take_text();

private:
    struct Free {
        void operator()(yajl_gen_t* generator) const noexcept { yajl_gen_free(generator); }
    };

    /// yajl's callback: throws nothing, since it would be through yajl's frames.
    static void append(void* self, const char* text, std::size_t length) noexcept;

    alignas(std::max_align_t) unsigned char memory_[1U << 10U];
    Arena arena_{memory_, sizeof memory_};
    yajl_alloc_funcs functions_ = arena_.yajl_functions();
    std::unique_ptr<yajl_gen_t, Free> generator_;
    /// Its size is what is allocated: yajl writes a few bytes at a time, and std::string::append()
    /// would take most of the time.
    std::string buffer_;
    std::size_t length_ = 0;  ///< Of the text.
    bool out_of_memory_ = false;
};

/// As yajl_gen_integer(), in less time.
yajl_gen_status write_integer(yajl_gen gen, long long value);

/// As yajl_gen_double() under the "C" locale: yajl itself would write 21,5 in an application that
/// called setlocale(LC_ALL, "") on a machine with decimal commas.
yajl_gen_status write_double(yajl_gen gen, double value);

}  // namespace jovu
