// SPDX-License-Identifier: Apache-2.0

/// @file
/// What the benchmark measures: the same work with the library and with libusb alone.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "bare_libusb.h"
#include "jovu/device_address.h"

namespace bench {

using Address = JovuDeviceAddress;

/// Controllers are numbered in the order of the addresses that the program was made with. One
/// thread for each controller at a time.
class Program {
public:
    Program() = default;
    virtual ~Program() = default;
    Program(const Program&) = delete;
    Program& operator=(const Program&) = delete;

    /// Waits until that many controllers have been opened since the program began.
    virtual void wait_opened(std::size_t count) = 0;
    /// Waits until that many controllers have disconnected since the program began.
    virtual void wait_closed(std::size_t count) = 0;
    /// Requests the version. @return whether the response came.
    virtual bool exchange(std::size_t controller) = 0;
    /// Sends a file as a job. @throws std::exception if that fails.
    virtual void push(std::size_t controller, const std::string& path) = 0;
    /// Has the first servo send a trace event each millisecond.
    virtual void trace(std::size_t controller, bool enable) = 0;
    /// @return trace events so far.
    virtual std::uint64_t events() const = 0;
    /// The next event may have any counter. Call while none arrives.
    virtual void begin_series() = 0;
    /// @return how many counters were left out in all series.
    virtual std::uint64_t lost_events() const = 0;
    /// Looks for new devices once.
    virtual void scan() = 0;
    /// @return the number of open controllers.
    virtual std::size_t list() = 0;
    virtual void close(std::size_t controller) = 0;
    virtual void shutdown() = 0;
};

enum Name { kJovu, kBare };

/// @param controllers to be opened; if there are none, all that are attached or will be.
/// @param threads of the bare program.
std::unique_ptr<Program> start(Name name, const std::vector<Address>& controllers,
                               Threads threads = Threads::event_thread);

}  // namespace bench
