#include "core/last_send_error.h"

#include <algorithm>
#include <array>

namespace jovu {
namespace {

// Trivially destructible, so that an exchange in a static object's destructor, when the thread's
// other thread-local objects are gone, still finds it.
struct Reason {
    std::array<char, 255> text;
    std::size_t length;
};
thread_local Reason last{};

}  // namespace

void set_last_send_error(std::string_view reason) noexcept {
    last.length = std::min(reason.size(), last.text.size());
    std::copy_n(reason.begin(), last.length, last.text.begin());
}

std::string last_send_error() {
    return {last.text.data(), last.length};
}

}  // namespace jovu
