// SPDX-License-Identifier: Apache-2.0

/// @file
/// The bridge: the controllers of this computer on one side, a broker on the other.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "bridge/availability.h"
#include "bridge/config.h"
#include "bridge/device.h"
#include "bridge/event_queue.h"
#include "bridge/job_source.h"
#include "bridge/journal.h"
#include "bridge/log.h"
#include "bridge/metrics.h"
#include "bridge/outbox.h"
#include "bridge/running_requests.h"
#include "bridge/scheduler.h"
#include "jovu/callback_client.h"
#include "mqtt/client.h"

namespace jovu_bridge {

/// Threads: its owner's. Lock order: `lifecycle_mutex_`, then `table_mutex_`; see
/// docs/architecture.md for those of its parts.
class Bridge {
public:
    /// Opens the journal and the folder of jobs.
    /// @param read a configuration without problems.
    /// @throws JournalError, jovu_mqtt::Error or std::runtime_error with the reason.
    Bridge(const ReadConfig& read, Log& log);
    /// As stop(), without waiting for what is in progress.
    ~Bridge();
    Bridge(const Bridge&) = delete;
    Bridge& operator=(const Bridge&) = delete;

    /// Serves metrics, connects to the broker, and opens devices.
    /// @throws JovuException or std::runtime_error
    void start();

    /// Takes a new configuration. What takes effect only at a start stays, and is logged.
    void reload(const ReadConfig& read);

    /// A new configuration could not be used.
    void refuse_reload() { metrics_.reloaded(false); }

    /// Refuses new requests, and ends those in progress: a push continues with filler, a trace is
    /// turned off. Returns within the limit and a few seconds.
    void stop(std::chrono::milliseconds limit);

    /// Whether the threads of the bridge run: for a watchdog.
    bool healthy() const;

private:
    using Clock = std::chrono::steady_clock;
    /// What the notifications of one address have said.
    struct Connections {
        int open = 0;  ///< Connections less disconnections.
        std::uint64_t newest = 0;
    };
    struct Duplicate {
        std::string name;
        std::string port;
    };

    jovu_mqtt::ClientOptions client_options(const ReadConfig& read) const;
    jovu_mqtt::Handlers handlers();
    void set_rules(const Config& config);

    void receive(const jovu_mqtt::Message& message);
    void receive_request(const jovu_mqtt::Message& message);

    void device_connected(JovuDeviceAddress address);
    void device_disconnected(JovuDeviceAddress address);
    void device_unavailable(const JovuDeviceInfo& info);
    void add(JovuDeviceAddress address, const std::string& name, const std::string& port)
        JOVU_REQUIRES(lifecycle_mutex_);
    /// Removes a device from the table. The caller calls end().
    std::shared_ptr<Device> take(JovuDeviceAddress address);
    void adopt_duplicate(const std::string& name) JOVU_REQUIRES(lifecycle_mutex_);
    std::shared_ptr<Device> find(JovuDeviceAddress address) const;
    std::shared_ptr<Device> find(const std::string& name) const;
    std::vector<std::shared_ptr<Device>> devices() const;
    /// Ends a device that was taken from the table.
    void end(Device& device);
    void publish_bridge();
    void keep_house();

    Log& log_;
    const std::string name_;
    Settings settings_;
    Metrics metrics_;
    jovu_mqtt::Topics topics_;
    std::unique_ptr<jovu_mqtt::Client> client_;
    Outbox outbox_;
    Availability availability_;
    Journal journal_;
    JobSource jobs_;
    RunningRequests requests_;
    Scheduler scheduler_;
    JovuCallbackClient usb_;
    Services services_;
    EventQueue events_;

    mutable jovu_cli::Mutex rules_mutex_;
    std::shared_ptr<const RequestRules> rules_ JOVU_GUARDED_BY(rules_mutex_);

    /// Held while a device is added or removed; nothing waits for a device with it held.
    jovu_cli::Mutex lifecycle_mutex_;
    std::unordered_map<JovuDeviceAddress, Connections> connections_
        JOVU_GUARDED_BY(lifecycle_mutex_);
    std::uint64_t last_connection_ JOVU_GUARDED_BY(lifecycle_mutex_) = 0;
    std::unordered_map<JovuDeviceAddress, Duplicate> duplicates_ JOVU_GUARDED_BY(lifecycle_mutex_);

    /// A leaf, which the thread that receives acquires too.
    mutable jovu_cli::Mutex table_mutex_;
    std::unordered_map<JovuDeviceAddress, std::shared_ptr<Device>> table_
        JOVU_GUARDED_BY(table_mutex_);
    std::map<std::string, std::shared_ptr<std::atomic<std::uint64_t>>> event_counts_
        JOVU_GUARDED_BY(table_mutex_);  ///< Of all devices that were ever connected.

    std::atomic<bool> started_{false};
    std::atomic<bool> stopping_{false};
    std::atomic<bool> failed_{false};
    std::atomic<Clock::rep> last_tick_{0};
    Clock::time_point started_at_;  ///< Constant once started_ is set.
    std::atomic<std::uint64_t> published_lost_{0};
};

}  // namespace jovu_bridge
