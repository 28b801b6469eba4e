// SPDX-License-Identifier: Apache-2.0
#include "fake_usb/fake_libusb.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <thread>
#include <utility>

using fake_usb::Call;
using fake_usb::Sent;
using fake_usb::Shield;
using fake_usb::Step;
using Lock = std::unique_lock<std::mutex>;

namespace {

struct Completion {
    libusb_transfer* transfer;
    libusb_transfer_status status;
    std::string data;
};

enum class Flight { idle, in_flight, completed };

}  // namespace

struct libusb_context {
    std::deque<Completion> pending;
    std::map<int, std::function<void()>> notices;  ///< By their handle: callbacks of hot-plug.
    int last_notice = 0;
    bool bus_changed = false;
    std::thread::id handler;  ///< Who handles events; no thread's id when nobody does.
    unsigned closing = 0;
    bool interrupted = false;
};

struct libusb_device {
    std::uint8_t bus, address, port;
    std::uint16_t vendor, product;
    bool plugged = true;
    unsigned references = 1;  ///< One is the bus's own while the device is plugged in.
    libusb_context* context = nullptr;
    /// The last receive transfer that was submitted, by the number of its endpoint.
    std::array<libusb_transfer*, 16> receiving{};
};

struct libusb_device_handle {
    libusb_device* device;
    libusb_context* context;
    bool claimed = false;
};

namespace {

/// Event waits are upper bounds. Short ones make a test quick.
constexpr std::chrono::milliseconds kLongestEventWait{2};
constexpr std::chrono::seconds kPatience{30};

template <class T>
using Owned = std::map<T*, std::unique_ptr<T>>;

/// What ends with a test.
struct Test {
    std::map<Call, std::deque<Step>> script;
    std::map<Call, unsigned> calls;
    std::vector<Sent> sent;
    bool hold_bulk = false;
};

struct Bus : Test {
    std::mutex mutex;
    std::condition_variable changed;
    Owned<libusb_context> contexts;
    Owned<libusb_device> devices;
    Owned<libusb_device_handle> handles;
    std::map<libusb_device**, std::vector<libusb_device*>> lists;
    std::map<libusb_transfer*, Flight> transfers;
    fake_usb::Hook hook{};
    std::vector<std::string> misuses;
    unsigned queued = 0;   ///< Completions so far,
    unsigned handled = 0;  ///< and how many of their callbacks have returned, in order.
    /// The status of a transfer that ends with one of libusb's errors.
    const std::map<int, libusb_transfer_status> status_of{
        {0, LIBUSB_TRANSFER_COMPLETED},
        {LIBUSB_ERROR_TIMEOUT, LIBUSB_TRANSFER_TIMED_OUT},
        {LIBUSB_ERROR_PIPE, LIBUSB_TRANSFER_STALL},
        {LIBUSB_ERROR_OVERFLOW, LIBUSB_TRANSFER_OVERFLOW},
        {LIBUSB_ERROR_NO_DEVICE, LIBUSB_TRANSFER_NO_DEVICE},
        {LIBUSB_ERROR_IO, LIBUSB_TRANSFER_ERROR},
    };
};

/// Never destroyed: a process may leave with the library's thread running.
Bus& bus = *new Bus;

int misuse(const char* what) {
    bus.misuses.emplace_back(what);
    return LIBUSB_ERROR_INVALID_PARAM;
}

template <class T, class... Values>
T* create(Owned<T>& owned, Values... values) {
    auto created = std::unique_ptr<T>(new T{values...});
    T* const key = created.get();
    owned[key] = std::move(created);
    return key;
}

void drop_reference(libusb_device* device) {
    if (--device->references == 0) bus.devices.erase(device);
}

Step take_step(Call call) {
    if (bus.hook.enter != nullptr) {
        if (const int result = bus.hook.enter(call)) return result;
    }
    Step step(0);
    {
        const Lock lock(bus.mutex);
        ++bus.calls[call];
        auto& steps = bus.script[call];
        if (!steps.empty()) {
            step = std::move(steps.front());
            steps.pop_front();
        }
    }
    if (step.before) step.before();
    return step;
}

/// The scope of a call; holds the lock.
struct Entered {
    explicit Entered(Call call) : step(take_step(call)) {}
    const Shield shield;
    const Step step;
    const int result = step.result;
    Lock lock{bus.mutex};
};

libusb_transfer* find_in_flight(libusb_device* device, unsigned endpoint) {
    // A bus with hundreds of devices has too many transfers to look at each.
    const auto last = bus.transfers.find(device->receiving[endpoint & 15U]);
    if (last != bus.transfers.end() && last->second == Flight::in_flight &&
        last->first->dev_handle->device == device && last->first->endpoint == endpoint) {
        return last->first;
    }
    for (const auto& [transfer, flight] : bus.transfers) {
        if (flight == Flight::in_flight && transfer->dev_handle->device == device &&
            transfer->endpoint == endpoint) {
            return transfer;
        }
    }
    return nullptr;
}

void queue(libusb_transfer* transfer, libusb_transfer_status status, const std::string& data) {
    ++bus.queued;
    bus.transfers[transfer] = Flight::completed;
    transfer->dev_handle->context->pending.push_back({transfer, status, data});
    bus.changed.notify_all();
}

void fail(libusb_transfer& transfer, int status) {
    transfer.status = static_cast<libusb_transfer_status>(status);
    if (status == LIBUSB_TRANSFER_TIMED_OUT) {
        transfer.actual_length /= 2;
    } else if (status != LIBUSB_TRANSFER_OVERFLOW) {
        transfer.actual_length = 0;
    }
}

bool is_outgoing(const libusb_transfer& transfer) {
    return (transfer.endpoint & LIBUSB_ENDPOINT_IN) == 0;
}

/// Releases the lock: a device may respond to what it has received.
void end_sending(Lock& lock, libusb_transfer& transfer) {
    libusb_device* const device = transfer.dev_handle->device;
    if (!device->plugged) {
        transfer.actual_length = 0;
        transfer.status = LIBUSB_TRANSFER_NO_DEVICE;
    }
    lock.unlock();
    if (bus.hook.sent != nullptr && transfer.status == LIBUSB_TRANSFER_COMPLETED &&
        transfer.actual_length > 0) {
        const auto* const bytes = reinterpret_cast<const char*>(transfer.buffer);
        bus.hook.sent(device, transfer.endpoint,
                      {bytes, static_cast<std::size_t>(transfer.actual_length)});
    }
}

int submit_outgoing(libusb_transfer& transfer, const Step& step) {
    int result = step.result;
    // As it will be when the transfer ends.
    transfer.actual_length = step.transferred.value_or(result == 0 ? transfer.length : 0);
    if (result > 0) {
        if (result != fake_usb::kNothing) transfer.actual_length = (transfer.length + 1) / 2;
        result = result == fake_usb::kPartial ? LIBUSB_ERROR_TIMEOUT : 0;
    }
    const auto* const bytes = reinterpret_cast<const char*>(transfer.buffer);
    if (fake_usb::record_sent) {
        bus.sent.push_back({transfer.endpoint,
                            {bytes, static_cast<std::size_t>(transfer.length)},
                            transfer.timeout});
    }
    const auto status = bus.status_of.find(result);
    if (status == bus.status_of.end()) return result;
    transfer.status = status->second;
    bus.transfers[&transfer] = Flight::in_flight;
    if (!bus.hold_bulk) queue(&transfer, transfer.status, "");
    return 0;
}

void run_callback(Lock& lock, const Completion& done) {
    const auto found = bus.transfers.find(done.transfer);
    if (found == bus.transfers.end()) return;  // Freed in flight, which has been noted.
    found->second = Flight::idle;
    done.transfer->status = done.status;
    if (is_outgoing(*done.transfer)) {
        end_sending(lock, *done.transfer);
    } else {
        done.transfer->actual_length = static_cast<int>(done.data.size());
        std::copy(done.data.begin(), done.data.end(), done.transfer->buffer);
        lock.unlock();
        if (const int status = take_step(Call::completion).result) fail(*done.transfer, status);
    }
    bool thrown = false;
    try {
        const Shield library(false);
        done.transfer->callback(done.transfer);
    } catch (...) {
        thrown = true;
    }
    lock.lock();
    if (thrown) misuse("an exception left a completion callback");
}

/// Releases the lock meanwhile.
void run_notices(Lock& lock, libusb_context* context) {
    if (!std::exchange(context->bus_changed, false)) return;
    const auto notices = context->notices;
    lock.unlock();
    for (const auto& [handle, notice] : notices) {
        const Shield library(false);
        notice();
    }
    lock.lock();
}

void change_bus() {
    for (const auto& entry : bus.contexts)
        entry.first->bus_changed = true;
    bus.changed.notify_all();
}

/// libusb reads the flag that its caller gave it without a lock of the caller's.
__attribute__((no_sanitize("thread"))) bool is_set(const int* flag) {
    return flag != nullptr && *static_cast<const volatile int*>(flag) != 0;
}

}  // namespace

namespace fake_usb {

libusb_device* plug(std::uint8_t bus_number, std::uint8_t address, std::uint16_t product,
                    std::uint16_t vendor, std::uint8_t port) {
    const Lock lock(bus.mutex);
    change_bus();
    return create(bus.devices, bus_number, address, port, vendor, product);
}

void unplug(libusb_device* device, bool silently) {
    const Lock lock(bus.mutex);
    device->plugged = false;
    for (const unsigned endpoint : {0x81U, 0x83U}) {
        libusb_transfer* const transfer = find_in_flight(device, endpoint);
        if (transfer != nullptr && !silently) queue(transfer, LIBUSB_TRANSFER_NO_DEVICE, "");
    }
    if (!silently) change_bus();
    drop_reference(device);
}

void script(Call call, const std::vector<Step>& steps) {
    const Lock lock(bus.mutex);
    bus.script[call].assign(steps.begin(), steps.end());
}

unsigned calls(Call call) {
    const Lock lock(bus.mutex);
    return bus.calls[call];
}

void set_hook(const Hook& hook) {
    bus.hook = hook;
}

std::vector<Sent> sent() {
    const Lock lock(bus.mutex);
    return bus.sent;
}

void hold_bulk(bool hold) {
    const Lock lock(bus.mutex);
    bus.hold_bulk = hold;
    if (hold) return;
    for (const auto& [transfer, flight] : bus.transfers) {
        if (flight == Flight::in_flight && is_outgoing(*transfer))
            queue(transfer, transfer->status, "");
    }
}

bool post(libusb_device* device, unsigned endpoint, libusb_transfer_status status,
          const std::string& data) {
    const Lock lock(bus.mutex);
    libusb_transfer* const transfer = find_in_flight(device, endpoint);
    if (transfer != nullptr) queue(transfer, status, data);
    return transfer != nullptr;
}

bool complete(libusb_device* device, unsigned endpoint, libusb_transfer_status status,
              const std::string& data) {
    if (!post(device, endpoint, status, data)) return false;
    Lock lock(bus.mutex);
    return bus.changed.wait_for(lock, kPatience,
                                [last = bus.queued] { return bus.handled >= last; });
}

bool in_flight(libusb_device* device, unsigned endpoint) {
    const Lock lock(bus.mutex);
    return find_in_flight(device, endpoint) != nullptr;
}

bool untold() {
    const Lock lock(bus.mutex);
    return bus.handled < bus.queued;
}

std::vector<std::string> finish() {
    const Lock lock(bus.mutex);
    std::vector<std::string> wrong = std::exchange(bus.misuses, {});
    const auto left = [&wrong](std::size_t count, const char* what) {
        if (count > 0) wrong.push_back(std::to_string(count) + " left: " + what);
    };
    left(bus.transfers.size(), "transfers");
    left(bus.handles.size(), "handles");
    left(bus.lists.size(), "device lists");
    left(bus.contexts.size(), "contexts");
    for (const auto& entry : bus.devices)
        left(entry.first->references - (entry.first->plugged ? 1U : 0U), "device references");
    for (const auto& entry : bus.script)
        left(entry.second.size(), "steps of a script");
    bus.devices.clear();
    static_cast<Test&>(bus) = {};
    lose_cancellations = endless_event_waits = false;
    return wrong;
}

}  // namespace fake_usb

int libusb_init(libusb_context** context) {
    const Entered call(Call::init);
    if (call.result != 0) return call.result;
    *context = create(bus.contexts);
    return 0;
}

void libusb_exit(libusb_context* context) {
    const Lock lock(bus.mutex);
    for (const auto& entry : bus.handles) {
        if (entry.first->context == context) misuse("exit with a handle open");
    }
    if (bus.contexts.erase(context) == 0) misuse("exit of a context that is not there");
}

ssize_t libusb_get_device_list(libusb_context* context, libusb_device*** list) {
    const Entered call(Call::list);
    if (call.result != 0) return call.result;
    if (bus.contexts.count(context) == 0) return misuse("list of a context that is not there");
    std::vector<libusb_device*> found;
    for (const auto& entry : bus.devices) {
        if (!entry.first->plugged) continue;
        ++entry.first->references;
        entry.first->context = context;
        found.push_back(entry.first);
    }
    const auto count = static_cast<ssize_t>(found.size());
    found.push_back(nullptr);
    *list = found.data();
    bus.lists[*list] = std::move(found);  // Moving a vector keeps its array.
    return count;
}

void libusb_free_device_list(libusb_device** list, int unref_devices) {
    const Lock lock(bus.mutex);
    const auto found = bus.lists.find(list);
    if (found == bus.lists.end() || unref_devices == 0) {
        misuse("device list freed twice or without its references");
        return;
    }
    found->second.pop_back();
    for (libusb_device* const device : found->second)
        drop_reference(device);
    bus.lists.erase(found);
}

libusb_device* libusb_ref_device(libusb_device* device) {
    const Lock lock(bus.mutex);
    ++device->references;
    return device;
}

void libusb_unref_device(libusb_device* device) {
    const Lock lock(bus.mutex);
    if (bus.devices.count(device) == 0) {
        misuse("device released twice");
    } else {
        drop_reference(device);
    }
}

int libusb_get_device_descriptor(libusb_device* device, libusb_device_descriptor* descriptor) {
    const Entered call(Call::descriptor);
    if (call.result != 0) return call.result;
    *descriptor = {};
    descriptor->idVendor = device->vendor;
    descriptor->idProduct = device->product;
    return 0;
}

std::uint8_t libusb_get_bus_number(libusb_device* device) {
    return device->bus;
}

std::uint8_t libusb_get_device_address(libusb_device* device) {
    return device->address;
}

std::uint8_t libusb_get_port_number(libusb_device* device) {
    return device->port;
}

int libusb_get_port_numbers(libusb_device* device, std::uint8_t* ports, int size) {
    if (size < 1) return LIBUSB_ERROR_OVERFLOW;
    ports[0] = device->port;
    return 1;
}

int libusb_open(libusb_device* device, libusb_device_handle** handle) {
    const Entered call(Call::open);
    if (call.result != 0) return call.result;
    if (!device->plugged) return LIBUSB_ERROR_NO_DEVICE;
    ++device->references;
    *handle = create(bus.handles, device, device->context);
    return 0;
}

void libusb_close(libusb_device_handle* handle) {
    Lock lock(bus.mutex);
    if (bus.handles.count(handle) == 0) {
        misuse("handle closed twice");
        return;
    }
    libusb_context* const context = handle->context;
    if (context->handler != std::this_thread::get_id()) {
        ++context->closing;
        bus.changed.notify_all();
        bus.changed.wait(lock, [context] { return context->handler == std::thread::id(); });
        --context->closing;
    }
    if (handle->claimed) misuse("handle closed with its interface claimed");
    for (auto& [transfer, flight] : bus.transfers) {
        if (flight != Flight::idle && transfer->dev_handle == handle) {
            misuse("handle closed with a transfer in flight");
        }
    }
    drop_reference(handle->device);
    bus.handles.erase(handle);
}

int libusb_claim_interface(libusb_device_handle* handle, int interface) {
    const Entered call(Call::claim);
    if (call.result != 0) return call.result;
    if (!handle->device->plugged) return LIBUSB_ERROR_NO_DEVICE;
    if (interface != 0 || handle->claimed) misuse("claim of another interface or twice");
    handle->claimed = true;
    return 0;
}

int libusb_release_interface(libusb_device_handle* handle, int interface) {
    // Whatever the result, the interface is free once the handle is closed.
    const Entered call(Call::release);
    if (interface != 0 || !handle->claimed) misuse("release of what is not claimed");
    handle->claimed = false;
    return call.result;
}

libusb_transfer* libusb_alloc_transfer(int /*iso_packets*/) {
    const Entered call(Call::alloc);
    if (call.result != 0) return nullptr;
    auto* const transfer = new libusb_transfer{};
    bus.transfers[transfer] = Flight::idle;
    return transfer;
}

void libusb_free_transfer(libusb_transfer* transfer) {
    const Lock lock(bus.mutex);
    const auto found = bus.transfers.find(transfer);
    if (found == bus.transfers.end()) {
        if (transfer != nullptr) misuse("transfer freed twice");
        return;
    }
    if (found->second != Flight::idle) misuse("transfer freed in flight");
    // libusb reads the handle then.
    if (transfer->dev_handle != nullptr && bus.handles.count(transfer->dev_handle) == 0) {
        misuse("transfer freed after its handle was closed");
    }
    bus.transfers.erase(found);
    delete transfer;
}

int libusb_submit_transfer(libusb_transfer* transfer) {
    const bool outgoing = is_outgoing(*transfer);
    Entered call(outgoing ? Call::bulk : Call::submit);
    if (call.result != 0 && !outgoing) return call.result;
    if (bus.handles.count(transfer->dev_handle) == 0) return misuse("submission without a handle");
    if (transfer->type != LIBUSB_TRANSFER_TYPE_BULK) misuse("a transfer that is not bulk");
    if (!outgoing && (transfer->timeout != 0 || transfer->length != 64)) {
        misuse("a receive transfer that is not 64 bytes without a time limit");
    }
    Flight& flight = bus.transfers[transfer];
    if (flight != Flight::idle) return misuse("submission of a transfer in flight");
    if (outgoing) return submit_outgoing(*transfer, call.step);
    if (!transfer->dev_handle->device->plugged) return LIBUSB_ERROR_NO_DEVICE;
    flight = Flight::in_flight;
    libusb_device* const device = transfer->dev_handle->device;
    device->receiving[transfer->endpoint & 15U] = transfer;
    const unsigned endpoint = transfer->endpoint;
    call.lock.unlock();
    if (bus.hook.submitted != nullptr) bus.hook.submitted(device, endpoint);
    return 0;
}

int libusb_cancel_transfer(libusb_transfer* transfer) {
    const Entered call(Call::cancel);
    if (call.result != 0) return call.result;
    if (bus.transfers.count(transfer) == 0) return misuse("cancellation of a freed transfer");
    if (bus.transfers[transfer] != Flight::in_flight) return LIBUSB_ERROR_NOT_FOUND;
    if (!fake_usb::lose_cancellations) queue(transfer, LIBUSB_TRANSFER_CANCELLED, "");
    return 0;
}

int libusb_hotplug_register_callback(libusb_context* context, int events, int flags, int vendor,
                                     int product, int /*device_class*/,
                                     libusb_hotplug_callback_fn callback, void* user,
                                     libusb_hotplug_callback_handle* handle) {
    const Entered call(Call::hotplug);
    if (call.result != 0) return call.result;
    if (events == 0 || flags != 0 || vendor != 0x7A1C || product != 0x0002)
        misuse("a notice of something else than that a controller arrives or leaves");
    *handle = ++context->last_notice;
    context->notices[*handle] = [=] {
        callback(context, nullptr, LIBUSB_HOTPLUG_EVENT_DEVICE_ARRIVED, user);
    };
    return 0;
}

void libusb_hotplug_deregister_callback(libusb_context* context,
                                        libusb_hotplug_callback_handle handle) {
    const Lock lock(bus.mutex);
    if (context->notices.erase(handle) == 0) misuse("a notice ended twice");
}

int libusb_event_handler_active(libusb_context* context) {
    const Lock lock(bus.mutex);
    return context->handler != std::thread::id() ? 1 : 0;
}

void libusb_interrupt_event_handler(libusb_context* context) {
    const Lock lock(bus.mutex);
    context->interrupted = true;
    bus.changed.notify_all();
}

int libusb_handle_events_timeout_completed(libusb_context* context, timeval* limit,
                                           int* completed) {
    Entered call(Call::handle_events);
    if (call.result != 0) return call.result;
    if (bus.contexts.count(context) == 0) return misuse("events of a context that is not there");
    if (context->handler == std::this_thread::get_id()) return LIBUSB_ERROR_BUSY;
    std::chrono::milliseconds wait(limit->tv_sec * 1000 + limit->tv_usec / 1000);
    const bool endless = fake_usb::endless_event_waits && wait.count() > 0;
    wait = endless ? std::chrono::hours(1) : std::min(wait, kLongestEventWait);
    const std::thread::id nobody;
    if (context->handler != nobody || context->closing > 0) {
        bus.changed.wait_for(call.lock, wait);
        return 0;
    }
    if (is_set(completed)) return 0;
    context->handler = std::this_thread::get_id();
    bus.changed.wait_for(call.lock, wait, [context] {
        return !context->pending.empty() || context->closing > 0 || context->interrupted ||
               context->bus_changed;
    });
    context->interrupted = false;
    run_notices(call.lock, context);
    for (std::size_t left = context->pending.size(); left > 0; --left) {
        const Completion done = std::move(context->pending.front());
        context->pending.pop_front();
        run_callback(call.lock, done);
        ++bus.handled;
        bus.changed.notify_all();
    }
    context->handler = nobody;
    bus.changed.notify_all();
    return 0;
}
