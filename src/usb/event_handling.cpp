#include "usb/event_handling.h"

#include <thread>

namespace jovu {
namespace {

/// So that a broken bus costs no more than an idle one.
constexpr std::chrono::milliseconds kErrorPause{50};

}  // namespace

void handle_events(const Context& context, std::chrono::milliseconds limit, int* completed) {
    timeval wait{0, static_cast<suseconds_t>(limit.count() * 1000)};
    const int result = libusb_handle_events_timeout_completed(context.get(), &wait, completed);
    // A signal interrupts it, which is no failure.
    if (result < 0 && result != LIBUSB_ERROR_INTERRUPTED) std::this_thread::sleep_for(kErrorPause);
}

void interrupt_event_handling(libusb_context* context) noexcept {
    libusb_interrupt_event_handler(context);
}

}  // namespace jovu
