#include "usb/delivery.h"

#include <algorithm>
#include <exception>
#include <utility>

#include "usb/link.h"

namespace jovu {
namespace {

thread_local int deliveries = 0;
thread_local int notices = 0;

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

template <class Call>
void notify(Call call) {
    for (Link::Clients& interface : link()._registered_clients) {
        const ScopedLock<RecursiveMutex> lock(interface.mutex);
        const Depth depth(notices);
        for (JovuUsbClient* client : interface.list)
            call(*client);
    }
}

}  // namespace

bool delivering() noexcept {
    return deliveries > 0;
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
        for (JovuUsbClient* client : clients.list)
            client->data_received(data, length, address);
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
    try {
        notify([address](JovuUsbClient& client) { client.usb_device_disconnected(address); });
    } catch (...) {
        keep_client_error(std::current_exception());
    }
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
