// SPDX-License-Identifier: Apache-2.0

/// @file
/// Who handles libusb's events: the watcher, or a thread that sends much.
#pragma once

#include "base/mutex.h"
#include "usb/libusb_owners.h"

namespace jovu {

/// Lets one sender at a time handle events while it waits for its own transfer.
///
/// When the watcher handles them, each completion costs two switches of threads before the next
/// transfer of the sender begins. A sender that has taken the turn finds its completion itself. It
/// gives the turn back after each transfer; the watcher stands aside a little longer, in which the
/// next one usually begins, and so is not woken for each of them.
class EventTurn {
public:
    /// Takes the turn and has the watcher stand aside. Not in a callback.
    /// @return false when another sender has it: the caller waits for its transfer without it.
    bool take(const Context& context) {
        {
            const MutexLock lock(mutex_);
            if (taken_) return false;
            taken_ = used_ = true;
            if (aside_) return true;
        }
        interrupt_event_handling(context.get());
        return true;
    }

    void give_back() {
        const MutexLock lock(mutex_);
        taken_ = false;
    }

    /// For the watcher: stands aside for kAsideSlice if a sender has the turn.
    /// @return false at once if none has it: the watcher handles events.
    bool stand_aside();

private:
    Mutex mutex_;  ///< A leaf.
    bool taken_ JOVU_GUARDED_BY(mutex_) = false;
    bool used_ JOVU_GUARDED_BY(mutex_) = false;   ///< Taken since the watcher looked last.
    bool aside_ JOVU_GUARDED_BY(mutex_) = false;  ///< The watcher does not handle events.
};

/// The one of the process. Never destroyed.
EventTurn& event_turn();

}  // namespace jovu
