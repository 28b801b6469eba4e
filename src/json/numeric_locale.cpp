#include "json/numeric_locale.h"

#include <clocale>

namespace jovu {
namespace {

/// The "C" locale, made once and kept; null if the C library cannot make it, and then the thread's
/// locale stays as it is.
locale_t c_locale() noexcept {
    static const locale_t locale = ::newlocale(LC_ALL_MASK, "C", nullptr);
    return locale;
}

}  // namespace

NumericLocale::NumericLocale() noexcept : previous_(::uselocale(c_locale())) {}

NumericLocale::~NumericLocale() {
    ::uselocale(previous_);
}

}  // namespace jovu
