// SPDX-License-Identifier: Apache-2.0

/// @file
/// Faults injected into the transfers of a device.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <optional>
#include <utility>

#include "firmware/base/types.h"

namespace jovusim {

/// Kinds of faults on the bus.
enum class BusFault : std::uint8_t {
    claim,   ///< claiming an interface fails with an errno
    submit,  ///< submitting a transfer fails with an errno
    status,  ///< a transfer ends with an errno as its status
    never,   ///< a transfer does not end until it is discarded
};

/// The faults that are set. Not thread-safe: its owner's lock guards it.
class FaultTable {
public:
    /// Adds a fault after those of the same kind and endpoint.
    /// @param endpoint 0 for BusFault::claim
    /// @param error    a positive errno; ignored for BusFault::never
    /// @param count    how often it happens; kAlways for no limit
    /// @param skip     number of operations that succeed before it
    void add(BusFault fault, std::uint8_t endpoint, int error, std::uint32_t count,
             std::uint32_t skip);

    /// Consumes a fault. Returns its errno, 1 for BusFault::never, or 0 when none happens now.
    int take(BusFault fault, std::uint8_t endpoint);

    /// Unplugs the device after that many more bytes on that OUT endpoint.
    void unplug_after(std::uint8_t endpoint, std::uint64_t bytes);

    /// Counts bytes for the device. Returns how many of them arrive when the unplug happens within
    /// them, nothing when it does not.
    std::optional<std::size_t> count_out(std::uint8_t endpoint, std::size_t size);

    /// Removes all faults.
    void clear();

private:
    struct Setting {
        int error;
        std::uint32_t count;
        std::uint32_t skip;
    };

    std::map<std::pair<BusFault, std::uint8_t>, std::deque<Setting>> settings_;
    std::map<std::uint8_t, std::uint64_t> unplug_after_;
};

}  // namespace jovusim
