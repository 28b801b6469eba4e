/// @file
/// The bus's switchboard of faults: what goes wrong with claims and transfers on demand.
#pragma once

#include <cstdint>
#include <deque>
#include <map>
#include <optional>
#include <utility>

#include "firmware/types.h"

namespace jovusim {

/// Where a fault strikes.
enum class BusFault : std::uint8_t {
    claim,   ///< claiming an interface fails with an errno
    submit,  ///< submitting a transfer fails with an errno
    status,  ///< a transfer ends with an errno as its status
    never,   ///< a transfer does not end until it is discarded
};

/// The faults that are set. Plain values: the device's lock guards them.
class FaultTable {
public:
    /// Queues a fault behind those of the same kind and endpoint.
    /// @param endpoint 0 for BusFault::claim
    /// @param error    a positive errno; ignored for BusFault::never
    /// @param count    how often it happens, kAlways for ever
    /// @param skip     how often all goes well before
    void add(BusFault fault, std::uint8_t endpoint, int error, std::uint32_t count,
             std::uint32_t skip);

    /// Asks whether the fault happens now, and counts. Returns its errno, or 0 for none; 1 stands
    /// for BusFault::never.
    int take(BusFault fault, std::uint8_t endpoint);

    /// The device leaves the bus by itself behind that many bytes on that OUT endpoint.
    void unplug_after(std::uint8_t endpoint, std::uint64_t bytes);

    /// Counts bytes that are about to reach the device. Returns how many of them still do when the
    /// device leaves the bus at that place, nothing when it stays.
    std::optional<std::size_t> count_out(std::uint8_t endpoint, std::size_t size);

    /// Takes all of them back.
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
