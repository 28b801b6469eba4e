/// @file
/// The library's calls of the fake libusb. The linker directs them here (--wrap), so that one can
/// be made to fail, and so that what the fake does by itself is not taken for the library's doing.
#include "sweep/libusb_calls.h"

#include <libusb.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "sweep/device_model.h"
#include "sweep/faults.h"
#include "sweep/system_calls.h"

using sweep::Exposed;
using sweep::Kind;
using sweep::meet;
using sweep::Result;
using sweep::Shield;

namespace {

std::atomic<unsigned> failed_events{0};

int fail_events(const Result& fault) {
    if (fault.value != LIBUSB_ERROR_INTERRUPTED) {
        ++failed_events;
    } else {
        // It takes a signal, and those take time.
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return fault.value;
}

}  // namespace

unsigned sweep::failed_event_calls() noexcept {
    return failed_events;
}

// The names are the linker's.
// NOLINTBEGIN(bugprone-reserved-identifier)
extern "C" {

int __real_libusb_init(libusb_context** context);
ssize_t __real_libusb_get_device_list(libusb_context* context, libusb_device*** list);
int __real_libusb_get_device_descriptor(libusb_device* device,
                                        libusb_device_descriptor* descriptor);
int __real_libusb_open(libusb_device* device, libusb_device_handle** handle);
void __real_libusb_close(libusb_device_handle* handle);
int __real_libusb_claim_interface(libusb_device_handle* handle, int interface);
int __real_libusb_release_interface(libusb_device_handle* handle, int interface);
libusb_transfer* __real_libusb_alloc_transfer(int packets);
int __real_libusb_submit_transfer(libusb_transfer* transfer);
int __real_libusb_cancel_transfer(libusb_transfer* transfer);
int __real_libusb_bulk_transfer(libusb_device_handle* handle, unsigned char endpoint,
                                unsigned char* data, int length, int* transferred,
                                unsigned timeout);
int __real_libusb_handle_events_timeout_completed(libusb_context* context, timeval* limit,
                                                  int* completed);

int __wrap_libusb_init(libusb_context** context) {
    const Shield shield;
    const Result* const fault = meet(Kind::init);
    return fault != nullptr ? fault->value : __real_libusb_init(context);
}

ssize_t __wrap_libusb_get_device_list(libusb_context* context, libusb_device*** list) {
    const Shield shield;
    const Result* const fault = meet(Kind::list);
    return fault != nullptr ? fault->value : __real_libusb_get_device_list(context, list);
}

int __wrap_libusb_get_device_descriptor(libusb_device* device,
                                        libusb_device_descriptor* descriptor) {
    const Shield shield;
    const Result* const fault = meet(Kind::descriptor);
    return fault != nullptr ? fault->value
                            : __real_libusb_get_device_descriptor(device, descriptor);
}

int __wrap_libusb_open(libusb_device* device, libusb_device_handle** handle) {
    const Shield shield;
    const Result* const fault = meet(Kind::open);
    const int result = fault != nullptr ? fault->value : __real_libusb_open(device, handle);
    if (result == 0) sweep::opened(*handle, device);
    return result;
}

void __wrap_libusb_close(libusb_device_handle* handle) {
    const Shield shield;
    sweep::closed(handle);
    __real_libusb_close(handle);
}

int __wrap_libusb_claim_interface(libusb_device_handle* handle, int interface) {
    const Shield shield;
    const Result* const fault = meet(Kind::claim);
    return fault != nullptr ? fault->value : __real_libusb_claim_interface(handle, interface);
}

int __wrap_libusb_release_interface(libusb_device_handle* handle, int interface) {
    const Shield shield;
    const Result* const fault = meet(Kind::release);
    // Whatever the answer, the interface is free once the handle is closed.
    const int result = __real_libusb_release_interface(handle, interface);
    return fault != nullptr ? fault->value : result;
}

libusb_transfer* __wrap_libusb_alloc_transfer(int packets) {
    const Shield shield;
    return meet(Kind::alloc) != nullptr ? nullptr : __real_libusb_alloc_transfer(packets);
}

}  // extern "C"

namespace {

/// The library has one completion callback; every submission names it.
std::atomic<libusb_transfer_cb_fn> library_callback{nullptr};

void alter(libusb_transfer& transfer, const Result& fault) {
    transfer.status = static_cast<libusb_transfer_status>(fault.value);
    if (transfer.status == LIBUSB_TRANSFER_TIMED_OUT) {
        transfer.actual_length /= 2;
    } else if (transfer.status != LIBUSB_TRANSFER_OVERFLOW) {
        transfer.actual_length = 0;
    }
}

void LIBUSB_CALL completed(libusb_transfer* transfer) {
    if (const Result* const fault = meet(Kind::completion)) alter(*transfer, *fault);
    const Exposed exposed;
    library_callback.load()(transfer);
}

}  // namespace

extern "C" {

int __wrap_libusb_submit_transfer(libusb_transfer* transfer) {
    const Shield shield;
    if (const Result* const fault = meet(Kind::submit)) return fault->value;
    library_callback = transfer->callback;
    transfer->callback = completed;
    const int result = __real_libusb_submit_transfer(transfer);
    if (result == 0) sweep::pump();
    return result;
}

int __wrap_libusb_cancel_transfer(libusb_transfer* transfer) {
    const Shield shield;
    const Result* const fault = meet(Kind::cancel);
    return fault != nullptr ? fault->value : __real_libusb_cancel_transfer(transfer);
}

int __wrap_libusb_bulk_transfer(libusb_device_handle* handle, unsigned char endpoint,
                                unsigned char* data, int length, int* transferred,
                                unsigned timeout) {
    const Shield shield;
    const Result* const fault = meet(Kind::bulk);
    const bool half =
        fault != nullptr && (fault->value == sweep::kShort || fault->value == sweep::kPartial);
    if (fault != nullptr && !half) {
        *transferred = 0;
        return fault->value == sweep::kNothing ? 0 : fault->value;
    }
    const int result = __real_libusb_bulk_transfer(
        handle, endpoint, data, half ? (length + 1) / 2 : length, transferred, timeout);
    if (result == 0 && *transferred > 0) {
        sweep::received(handle, endpoint, data, static_cast<std::size_t>(*transferred));
    }
    return fault != nullptr && fault->value == sweep::kPartial && result == 0 ? LIBUSB_ERROR_TIMEOUT
                                                                              : result;
}

int __wrap_libusb_handle_events_timeout_completed(libusb_context* context, timeval* limit,
                                                  int* done) {
    const Shield shield;
    if (const Result* const fault = meet(Kind::events)) return fail_events(*fault);
    const int result = __real_libusb_handle_events_timeout_completed(context, limit, done);
    sweep::hurry(sweep::kHurry);
    return result;
}

}  // extern "C"
// NOLINTEND(bugprone-reserved-identifier)
