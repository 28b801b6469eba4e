#include "usb/delivery.h"

#include <algorithm>
#include <atomic>
#include <exception>
#include <utility>

#include "usb/link.h"

namespace jovu {
namespace {

thread_local int deliveries = 0;
thread_local int notices = 0;

/// Over all threads.
std::atomic<int> deliveries_in_progress{0};

class InProgress {
public:
    InProgress() noexcept { ++deliveries_in_progress; }
    ~InProgress() { --deliveries_in_progress; }
    InProgress(const InProgress&) = delete;
    InProgress& operator=(const InProgress&) = delete;
};

class Depth {
public:
    explicit Depth(int& depth) noexcept : depth_(depth) { ++depth_; }
    ~Depth() { --depth_; }
    Depth(const Depth&) = delete;
    Depth& operator=(const Depth&) = delete;

private:
    int& depth_;
};

void keep_client_error(std::exception_ptr error) noexcept {
    Link& state = link();
    const MutexLock lock(state.client_error_mutex);
    if (state.client_error == nullptr) state.client_error = std::move(error);
}

/// Calls the clients of one interface that are built, in order of registration.
template <class Call>
void call_each(Link::Clients& clients, Call call) JOVU_REQUIRES(clients.mutex) {
    const std::uint64_t ended = link().scan_holds.now().ended;
    for (const Link::Clients::Entry& entry : clients.list) {
        // A client may be detached by an earlier one's callback.
        if (entry.client != nullptr && entry.live_after <= ended) call(*entry.client);
    }
}

template <class Call>
void notify(Call call) {
    for (Link::Clients& clients : link()._registered_clients) {
        const ScopedLock<RecursiveMutex> lock(clients.mutex);
        const Depth depth(notices);
        call_each(clients, call);
    }
}

}  // namespace

bool delivering() noexcept {
    return deliveries > 0;
}

bool delivery_in_progress() noexcept {
    return deliveries_in_progress > 0;
}

bool in_notice() noexcept {
    return notices > 0;
}

bool deliver(std::size_t interface, unsigned char* data, unsigned int length,
             JovuDeviceAddress address) noexcept {
    try {
        Link::Clients& clients = link()._registered_clients[interface];
        const ScopedLock<RecursiveMutex> lock(clients.mutex);
        const Depth depth(deliveries);
        const InProgress in_progress;
        call_each(clients,
                  [=](JovuUsbClient& client) { client.data_received(data, length, address); });
        std::fill_n(data, length, static_cast<unsigned char>(0));
        return true;
    } catch (...) {
        keep_client_error(std::current_exception());
        return false;
    }
}

void notify_connected(JovuDeviceAddress address) {
    notify([address](JovuUsbClient& client) { client.usb_device_connected(address); });
}

void notify_disconnected(JovuDeviceAddress address) noexcept {
    notify([address](JovuUsbClient& client) {
        try {
            client.usb_device_disconnected(address);
        } catch (...) {
            // The others are told all the same.
            keep_client_error(std::current_exception());
        }
    });
}

void rethrow_client_error() {
    std::exception_ptr error;
    {
        Link& state = link();
        const MutexLock lock(state.client_error_mutex);
        error = std::exchange(state.client_error, nullptr);
    }
    if (error != nullptr) std::rethrow_exception(error);
}

void forget_client_error() noexcept {
    Link& state = link();
    const MutexLock lock(state.client_error_mutex);
    state.client_error = nullptr;
}

}  // namespace jovu
