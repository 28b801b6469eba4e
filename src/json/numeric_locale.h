/// @file
/// Keeps the application's locale out of numbers on the wire.
#pragma once

#include <clocale>

namespace jovu {

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
