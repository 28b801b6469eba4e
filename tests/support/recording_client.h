// SPDX-License-Identifier: Apache-2.0

/// @file
/// A client that records what it receives.
#pragma once

#include <algorithm>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "jovu/client.h"
#include "support/wait.h"

namespace test {

/// What a test does inside a callback. It may be set while callbacks are running: what the test did
/// before it is then seen by the thread that calls.
template <class... Arguments>
class Handler {
public:
    Handler& operator=(std::function<void(Arguments...)> function) {
        const std::lock_guard<std::mutex> lock(mutex_);
        function_ = std::move(function);
        return *this;
    }
    void operator()(const Arguments&... arguments) const {
        const auto function = [this] {
            const std::lock_guard<std::mutex> lock(mutex_);
            return function_;
        }();
        if (function) function(arguments...);
    }

private:
    mutable std::mutex mutex_;
    std::function<void(Arguments...)> function_;
};

class RecordingClient : public JovuClient {
public:
    explicit RecordingClient(const JovuScanPause& = JovuScanPause()) {}
    ~RecordingClient() override { shutdown(); }

    /// Called, if set, inside the callback of that name.
    Handler<JovuDeviceAddress> on_connected;
    Handler<JovuDeviceAddress> on_disconnected;
    Handler<JovuDeviceAddress, std::string> on_debug;
    Handler<JovuDeviceAddress> on_status;

    std::size_t connects(JovuDeviceAddress address) const { return count(connected_, address); }
    std::size_t disconnects(JovuDeviceAddress address) const {
        return count(disconnected_, address);
    }
    std::vector<std::string> texts() const { return copy(texts_); }
    std::vector<StatusMsg> statuses() const { return copy(statuses_); }
    std::vector<std::string> job_texts() const { return copy(job_texts_); }

    bool wait_connected(JovuDeviceAddress address, std::size_t times = 1) const {
        return eventually([&] { return connects(address) >= times; });
    }
    bool wait_disconnected(JovuDeviceAddress address, std::size_t times = 1) const {
        return eventually([&] { return disconnects(address) >= times; });
    }
    /// @return whether an exchange with the device works now.
    bool exchange_works(JovuDeviceAddress address) {
        return bio_get_version(address) != nullptr && last_send_error().empty();
    }

    void device_connected(JovuDeviceAddress address) override {
        on_connected(address);
        add(connected_, address);
    }
    void device_disconnected(JovuDeviceAddress address) override {
        on_disconnected(address);
        add(disconnected_, address);
    }
    void debug_event(JovuDeviceAddress address, std::shared_ptr<char> text) override {
        const std::string copy = text == nullptr ? "" : text.get();
        on_debug(address, copy);
        add(texts_, copy);
    }
    void StatusReceived(JovuDeviceAddress address, StatusMsg status) override {
        on_status(address);
        add(statuses_, std::move(status));
    }
    void JobDataReceived(JovuDeviceAddress /*address*/, const unsigned char* text,
                         unsigned int length) override {
        add(job_texts_, std::string(reinterpret_cast<const char*>(text), length));
    }

private:
    template <class T, class U>
    void add(std::vector<T>& list, U&& value) {
        const std::lock_guard<std::mutex> lock(mutex_);
        list.push_back(std::forward<U>(value));
    }
    template <class T>
    std::vector<T> copy(const std::vector<T>& list) const {
        const std::lock_guard<std::mutex> lock(mutex_);
        return list;
    }
    std::size_t count(const std::vector<JovuDeviceAddress>& list, JovuDeviceAddress address) const {
        const std::lock_guard<std::mutex> lock(mutex_);
        return static_cast<std::size_t>(std::count(list.begin(), list.end(), address));
    }

    mutable std::mutex mutex_;
    std::vector<JovuDeviceAddress> connected_;
    std::vector<JovuDeviceAddress> disconnected_;
    std::vector<std::string> texts_;
    std::vector<StatusMsg> statuses_;
    std::vector<std::string> job_texts_;
};

/// @return the message of the exception that a call throws, or an empty string.
/// @param with_code whether the name of its code stands in front of it, as "busy: ...".
inline std::string error_of(const std::function<void()>& call, bool with_code = false) {
    try {
        call();
    } catch (const JovuException& error) {
        return (with_code ? jovu_error_name(error.code()) + std::string(": ") : "") + error.what();
    }
    return "";
}

}  // namespace test
