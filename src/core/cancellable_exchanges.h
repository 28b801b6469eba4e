// SPDX-License-Identifier: Apache-2.0

/// @file
/// Exchanges that another thread can cancel.
#pragma once

#include <atomic>
#include <cstdint>

namespace jovu {

/// Counts the exchanges in progress with one device and cancels them all at once. Each one either
/// finishes or is cancelled and counted as such. Every exchange passes through here, so there is no
/// lock.
class CancellableExchanges {
public:
    /// One exchange, for a scope.
    class Ticket {
    public:
        explicit Ticket(CancellableExchanges& exchanges) noexcept
            : exchanges_(exchanges), generation_(generation_of(exchanges.state_.fetch_add(1))) {}
        ~Ticket() { finish(); }
        Ticket(const Ticket&) = delete;
        Ticket& operator=(const Ticket&) = delete;

        /// Any thread. Also true for an exchange that had finished before cancel_all().
        bool cancelled() const noexcept { return generation_of(exchanges_.state_) != generation_; }

        /// Keeps the exchange from being cancelled from now on. Calls for one ticket do not
        /// overlap.
        /// @return false when it has been cancelled.
        bool finish() noexcept {
            if (!finished_) finished_ = exchanges_.remove(generation_);
            return finished_;
        }

    private:
        CancellableExchanges& exchanges_;
        const std::uint64_t generation_;
        bool finished_ = false;
    };

    /// Cancels the exchanges that have a ticket and have not finished. The caller wakes them.
    /// @return how many there are.
    unsigned cancel_all() noexcept {
        std::uint64_t state = state_;
        while (!state_.compare_exchange_weak(state, (generation_of(state) + 1) << kCountBits)) {
        }
        return static_cast<unsigned>(state & kCountMask);
    }

private:
    static constexpr unsigned kCountBits = 32;
    static constexpr std::uint64_t kCountMask = (std::uint64_t{1} << kCountBits) - 1;

    static std::uint64_t generation_of(std::uint64_t state) noexcept { return state >> kCountBits; }

    bool remove(std::uint64_t generation) noexcept {
        std::uint64_t state = state_;
        do {
            if (generation_of(state) != generation) return false;
        } while (!state_.compare_exchange_weak(state, state - 1));
        return true;
    }

    /// How often cancel_all() has been called, in the high bits, and how many exchanges have begun
    /// since and not finished. In one word, so that both change together.
    std::atomic<std::uint64_t> state_{0};
};

}  // namespace jovu
