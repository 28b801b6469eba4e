// SPDX-License-Identifier: Apache-2.0
#include "usb/client_list.h"

#include <algorithm>
#include <utility>

#include "base/never_destroyed.h"

namespace jovu {
namespace {

/// How many calls of clients this thread is in.
thread_local int calls = 0;

template <class Counter>
class Count {
public:
    explicit Count(Counter& counter) noexcept : counter_(counter) { ++counter_; }
    ~Count() { --counter_; }
    Count(const Count&) = delete;
    Count& operator=(const Count&) = delete;

private:
    Counter& counter_;
};

using ClientLock = ScopedLock<RecursiveMutex>;

}  // namespace

ClientList& client_list() {
    static NeverDestroyed<ClientList> list;
    return list.get();
}

bool ClientList::in_callback() noexcept {
    return calls > 0;
}

/// Not on a thread in a callback, which may be iterating over the list.
void ClientList::remove_detached(Interface& interface) {
    auto& list = interface._registered_client_list;
    list.erase(std::remove_if(list.begin(), list.end(),
                              [](const Entry& entry) { return entry.client == nullptr; }),
               list.end());
}

void ClientList::add(JovuUsbClient& client, std::size_t interface) {
    Interface& chosen = interfaces_.at(interface);
    const ClientLock lock(chosen._registered_client_mutex);
    remove_detached(chosen);
    chosen._registered_client_list.push_back({&client, pauses.first_callable()});
}

bool ClientList::remove(JovuUsbClient& client, std::size_t interface) {
    Interface& chosen = interfaces_.at(interface);
    const ClientLock lock(chosen._registered_client_mutex);
    auto& list = chosen._registered_client_list;
    const auto found = std::find_if(list.begin(), list.end(), [&client](const Entry& entry) {
        return entry.client == &client;
    });
    if (found != list.end()) list.erase(found);
    remove_detached(chosen);
    return list.empty();
}

void ClientList::remove_last(std::size_t interface) {
    Interface& chosen = interfaces_.at(interface);
    const ClientLock lock(chosen._registered_client_mutex);
    chosen._registered_client_list.pop_back();
}

void ClientList::detach(JovuUsbClient& client, std::size_t interface) {
    // A thread in dispatch() holds one interface's mutex and may acquire the other one's here. Only
    // one thread at a time is in dispatch(), and notifications acquire no second mutex.
    Interface& chosen = interfaces_.at(interface);
    const ClientLock lock(chosen._registered_client_mutex);
    for (Entry& entry : chosen._registered_client_list) {
        if (entry.client == &client) entry.client = nullptr;
    }
}

template <class Call>
void ClientList::call_each(Interface& interface, Call call) {
    const std::uint64_t generation = pauses.generation();
    for (const Entry& entry : interface._registered_client_list) {
        // A client may be detached by an earlier one's callback.
        if (entry.client != nullptr && entry.first_generation <= generation) call(*entry.client);
    }
}

bool ClientList::dispatch(std::size_t interface, unsigned char* data, unsigned int length,
                          JovuDeviceAddress address) noexcept {
    try {
        // Before the mutex, for which it may have to wait: no other event is handled meanwhile.
        const Count dispatch(dispatches_);
        Interface& chosen = interfaces_.at(interface);
        const ClientLock lock(chosen._registered_client_mutex);
        const Count count(calls);
        call_each(chosen,
                  [=](JovuUsbClient& client) { client.data_received(data, length, address); });
        std::fill_n(data, length, static_cast<unsigned char>(0));
        return true;
    } catch (...) {
        store_error(std::current_exception());
        return false;
    }
}

void ClientList::notify_connected(const std::shared_ptr<Connection>& connection,
                                  const std::function<void(std::size_t)>& start_receiving) {
    for (std::size_t number = 0; number < interfaces_.size(); ++number) {
        Interface& interface = interfaces_.at(number);
        const ClientLock lock(interface._registered_client_mutex);
        const Count count(calls);
        start_receiving(number);
        call_each(interface,
                  [&connection](JovuUsbClient& client) { client.connection_opened(connection); });
    }
}

void ClientList::notify_disconnected(JovuDeviceAddress address) noexcept {
    for (Interface& interface : interfaces_) {
        const ClientLock lock(interface._registered_client_mutex);
        const Count count(calls);
        call_each(interface, [this, address](JovuUsbClient& client) {
            try {
                client.usb_device_disconnected(address);
            } catch (...) {
                store_error(std::current_exception());
            }
        });
    }
}

void ClientList::notify_unavailable(const JovuDeviceInfo& device) noexcept {
    Interface& interface = interfaces_.at(0);
    const ClientLock lock(interface._registered_client_mutex);
    const Count count(calls);
    call_each(interface, [this, &device](JovuUsbClient& client) {
        try {
            client.usb_device_unavailable(device);
        } catch (...) {
            store_error(std::current_exception());
        }
    });
}

void ClientList::store_error(std::exception_ptr error) noexcept {
    const MutexLock lock(error_mutex_);
    if (error_ == nullptr) error_ = std::move(error);
}

void ClientList::rethrow_error() {
    std::exception_ptr error;
    {
        const MutexLock lock(error_mutex_);
        error = std::exchange(error_, nullptr);
    }
    if (error != nullptr) std::rethrow_exception(error);
}

void ClientList::forget_error() noexcept {
    const MutexLock lock(error_mutex_);
    error_ = nullptr;
}

}  // namespace jovu
