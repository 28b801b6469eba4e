// SPDX-License-Identifier: Apache-2.0

/// @file
/// Counters and histograms of the bridge, and the HTTP endpoint from which Prometheus reads them.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

namespace jovu_bridge {

/// The figures of one bridge. The number of series is bounded: a device has series from its
/// connecting to its disconnecting, and other labels have fixed sets of values.
///
/// Threads: any. No method throws because of a value; calls for a device that is not connected
/// have no effect.
class Metrics {
public:
    using Seconds = std::chrono::duration<double>;

    /// @param bridge its name. @param version of the program.
    Metrics(const std::string& bridge, const std::string& version);
    ~Metrics();
    Metrics(const Metrics&) = delete;
    Metrics& operator=(const Metrics&) = delete;

    /// Serves the figures at http://ADDRESS/metrics until this object is destroyed. At most once.
    /// @param address "ADDRESS:PORT"; port 0 chooses one.
    /// @return the port.
    /// @throws std::runtime_error that names the address, when it cannot be bound.
    int serve(const std::string& address);

    /// The figures in the text format of Prometheus, without HTTP.
    std::string text() const;

    void device_connected(const std::string& serial);
    /// Removes the device's series.
    void device_disconnected(const std::string& serial);

    /// An exchange with a device.
    /// @param code empty for success, otherwise an error code of a response.
    void exchange(const std::string& serial, Seconds duration, const std::string& code);

    /// The final response of a request, or its refusal.
    /// @param operation "call", "gcode", "pause", "resume", "abort", "status", "job" or "trace";
    /// all
    ///     others count as "other".
    /// @param code as above.
    /// @param duration from its arrival.
    void request(const std::string& operation, Seconds duration, const std::string& code);
    /// A request whose stored response was sent again.
    void repeated_request();

    /// Requests that wait for a device.
    void device_queue(const std::string& serial, std::size_t length);

    /// The phase of a device's job, as in the job topic, and its progress from 0 to 100.
    void job(const std::string& serial, const std::string& phase, double percent);
    /// The end of a job. @param code as above.
    void job_ended(const std::string& code);
    /// Bytes of job files that arrived from servers, or went to a device.
    void job_bytes_fetched(std::uint64_t bytes);
    void job_bytes_sent(const std::string& serial, std::uint64_t bytes);

    void event(const std::string& serial);
    void trace_samples(const std::string& serial, std::uint64_t received, std::uint64_t lost);

    /// The connection to the broker.
    void broker_connected(bool connected);
    /// A message that was handed to the broker's client.
    /// @param kind "state", "event", "response" or "trace"; all others count as "other".
    void published(const std::string& kind, std::size_t bytes);
    /// The broker acknowledged a message after so long.
    void acknowledged(Seconds duration);
    /// Messages that wait for the broker.
    void outbox(std::size_t messages);
    /// Messages that a full queue dropped. @param kind as for published().
    void lost(const std::string& kind, std::uint64_t messages);

    void journal(std::uint64_t entries, std::uint64_t bytes);
    /// The configuration was read again; @p ok if it was taken.
    void reloaded(bool ok);

private:
    struct Parts;
    std::unique_ptr<Parts> parts_;
};

}  // namespace jovu_bridge
