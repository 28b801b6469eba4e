// SPDX-License-Identifier: Apache-2.0

/// @file
/// The client behind jovu.Client, without Python: its notifications, its devices and its
/// recordings.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <unordered_map>
#include <vector>

#include "jovu/callback_client.h"
#include "notifications.h"

namespace jovu_python {

/// Samples of one servo, as they arrive. In a forked process, which may have copied a locked mutex,
/// the functions that read throw std::runtime_error.
class Recording {
public:
    /// @param most how many samples are kept; later ones are counted as lost.
    Recording(JovuDeviceAddress device, int servo, std::size_t most);

    /// Adds a sample of that servo; ignores others. Threads: any.
    void add(JovuDeviceAddress device, const servo_trace_msg& sample);

    std::vector<servo_trace_msg> samples() const;
    std::size_t size() const;
    std::uint64_t lost() const;

private:
    const JovuDeviceAddress device_;
    const int servo_;
    const std::size_t most_;

    mutable std::mutex mutex_;
    std::vector<servo_trace_msg> samples_;  ///< Guarded by mutex_.
    std::uint64_t lost_ = 0;                ///< Guarded by mutex_.
};

/// A JovuCallbackClient whose callbacks queue what they receive. Threads: any, but for start().
class Core {
public:
    Core() = default;
    ~Core();
    Core(const Core&) = delete;
    Core& operator=(const Core&) = delete;

    /// See JovuCallbackClient::start().
    void start(bool strict_matching);
    /// See JovuCallbackClient::stop(). Ends wait_for_connection(). The queue is closed afterwards.
    void stop();

    /// @throws std::runtime_error in a forked process.
    JovuClient& client() const;
    NotificationQueue& queue() { return queue_; }

    /// Chooses whether notifications of a kind are queued.
    void enable(Kind kind, bool on);

    /// Waits until a device accepts commands that did not when the count was taken, or until
    /// stop().
    /// @param seen the count of connections that the caller has seen; updated.
    void wait_for_connection(std::uint64_t& seen, std::chrono::milliseconds limit);

    /// @return the devices that accept commands; none after stop().
    std::vector<JovuDeviceAddress> connected() const;

    /// Adds samples to a recording from now on, until it is destroyed.
    void record(const std::shared_ptr<Recording>& recording);

private:
    /// Counts connections less disconnections, since their notifications come in any order.
    void count(JovuDeviceAddress device, int difference);
    void notify(Kind kind, JovuDeviceAddress device, decltype(Notification::value) value = {});
    void receive_sample(JovuDeviceAddress device, const servo_trace_msg& sample);

    NotificationQueue queue_;
    std::atomic<unsigned> enabled_{0};  ///< A bit for each kind.

    mutable std::mutex mutex_;
    std::condition_variable changed_;
    // Guarded by mutex_:
    std::unordered_map<JovuDeviceAddress, int> connections_;
    std::uint64_t connection_count_ = 0;
    bool stopped_ = false;
    std::vector<std::weak_ptr<Recording>> recordings_;

    /// Destroyed first: its callbacks use the members above.
    std::unique_ptr<JovuCallbackClient> client_ = std::make_unique<JovuCallbackClient>();
};

}  // namespace jovu_python
