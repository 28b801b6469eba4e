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

int LIBUSB_CALL bus_changed(libusb_context* context, libusb_device* /*device*/,
                            libusb_hotplug_event /*event*/, void* flag) noexcept {
    static_cast<std::atomic<bool>*>(flag)->store(true);
    // The thread that reads the flag may be waiting while this one handles events.
    interrupt_event_handling(context);
    return 0;
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

void ClaimedHandleClose::operator()(libusb_device_handle* handle) const noexcept {
    libusb_release_interface(handle, kClaimedInterface);
    libusb_close(handle);
}

int open_and_claim(libusb_device* device, ClaimedHandle& claimed) noexcept {
    libusb_device_handle* raw = nullptr;
    if (const int result = libusb_open(device, &raw); result < 0) return result;
    Handle handle(raw);
    const int result = libusb_claim_interface(raw, kClaimedInterface);
    if (result >= 0) claimed.reset(handle.release());
    return result;
}

HotplugNotice::HotplugNotice(Context context, std::atomic<bool>& flag) noexcept
    : context_(std::move(context)),
      registered_(libusb_hotplug_register_callback(
                      context_.get(),
                      LIBUSB_HOTPLUG_EVENT_DEVICE_ARRIVED | LIBUSB_HOTPLUG_EVENT_DEVICE_LEFT, 0,
                      JOVU_USB_VENDOR_ID, kProductOpened, LIBUSB_HOTPLUG_MATCH_ANY, bus_changed,
                      &flag, &handle_) == LIBUSB_SUCCESS) {}

HotplugNotice::~HotplugNotice() {
    if (registered_) libusb_hotplug_deregister_callback(context_.get(), handle_);
}

DeviceList::DeviceList(Context context) noexcept
    : context_(std::move(context)), count_(libusb_get_device_list(context_.get(), &list_)) {
    if (count_ < 0) list_ = nullptr;
}

DeviceList::~DeviceList() {
    if (list_ != nullptr) libusb_free_device_list(list_, 1);
}

}  // namespace jovu
