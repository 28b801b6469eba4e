// SPDX-License-Identifier: Apache-2.0
#include "usb/libusb_owners.h"

#include <thread>
#include <utility>

#include "base/mutex.h"
#include "base/never_destroyed.h"
#include "usb/usb_constants.h"

namespace jovu {
namespace {

struct CurrentContext {
    Mutex mutex;
    std::weak_ptr<libusb_context> context JOVU_GUARDED_BY(mutex);
};

CurrentContext& process_context() {
    static NeverDestroyed<CurrentContext> current;
    return current.get();
}

}  // namespace

Context acquire_context() {
    CurrentContext& current = process_context();
    const MutexLock lock(current.mutex);
    if (Context shared = current.context.lock()) return shared;
    libusb_context* raw = nullptr;
    if (libusb_init(&raw) < 0) return nullptr;
    Context created(raw, [](libusb_context* context) { libusb_exit(context); });
    current.context = created;
    return created;
}

Context current_context() {
    CurrentContext& current = process_context();
    const MutexLock lock(current.mutex);
    return current.context.lock();
}

void handle_events(const Context& context, std::chrono::milliseconds limit, int* completed) {
    timeval wait{0, static_cast<suseconds_t>(limit.count() * 1000)};
    const int result = libusb_handle_events_timeout_completed(context.get(), &wait, completed);
    // A signal interrupts it, which is no failure.
    if (result < 0 && result != LIBUSB_ERROR_INTERRUPTED)
        std::this_thread::sleep_for(kEventErrorPause);
}

void interrupt_event_handling(libusb_context* context) noexcept {
    libusb_interrupt_event_handler(context);
}

DeviceList::DeviceList(Context context) noexcept
    : context_(std::move(context)), count_(libusb_get_device_list(context_.get(), &list_)) {
    if (count_ < 0) list_ = nullptr;
}

DeviceList::~DeviceList() {
    if (list_ != nullptr) libusb_free_device_list(list_, 1);
}

}  // namespace jovu
