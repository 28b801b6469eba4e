/// @file
/// Holds on the opening of devices.
#pragma once

#include <atomic>
#include <cstdint>

namespace jovu {

/// Counts the holds that there are, and the times that the last one was released. Both change in
/// one step: seen between two, a released hold would have a client announced as if it were still
/// being built, which means not at all.
class ScanHolds {
public:
    struct State {
        std::uint64_t ended;  ///< How often the last hold has been released.
        bool held;
    };

    State now() const noexcept {
        const std::uint64_t both = both_;
        return {both / kEnded, both % kEnded != 0};
    }
    void take() noexcept { ++both_; }
    void release() noexcept {
        std::uint64_t both = both_;
        while (
            !both_.compare_exchange_weak(both, both % kEnded == 1 ? both - 1 + kEnded : both - 1)) {
        }
    }

private:
    /// Below it the holds that there are, above it their ends.
    static constexpr std::uint64_t kEnded = std::uint64_t{1} << 24U;

    std::atomic<std::uint64_t> both_{0};
};

}  // namespace jovu
