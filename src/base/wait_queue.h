/// @file
/// First come, first served.
#pragma once

namespace jovu {

/// The order of those who wait for something. Without it, a thread that lets go of a thing and
/// wants it again at once has it before another one that was woken for it has begun to run, any
/// number of times in a row. Needs no memory; guarded by the mutex that guards the thing.
class WaitQueue {
public:
    /// A place in the queue, for a scope.
    class Place {
    public:
        explicit Place(WaitQueue& queue) noexcept : queue_(queue), before_(queue.last_) {
            (before_ != nullptr ? before_->behind_ : queue_.first_) = this;
            queue_.last_ = this;
        }
        ~Place() {
            (before_ != nullptr ? before_->behind_ : queue_.first_) = behind_;
            (behind_ != nullptr ? behind_->before_ : queue_.last_) = before_;
        }
        Place(const Place&) = delete;
        Place& operator=(const Place&) = delete;

        bool first() const noexcept { return before_ == nullptr; }

    private:
        WaitQueue& queue_;
        Place* before_;
        Place* behind_ = nullptr;
    };

private:
    Place* first_ = nullptr;
    Place* last_ = nullptr;
};

}  // namespace jovu
