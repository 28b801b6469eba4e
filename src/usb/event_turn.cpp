// SPDX-License-Identifier: Apache-2.0
#include "usb/event_turn.h"

#include <thread>
#include <utility>

#include "base/never_destroyed.h"
#include "usb/usb_constants.h"

namespace jovu {

EventTurn& event_turn() {
    static NeverDestroyed<EventTurn> turn;
    return turn.get();
}

bool EventTurn::stand_aside() {
    {
        const MutexLock lock(mutex_);
        aside_ = taken_ || std::exchange(used_, false);
        if (!aside_) return false;
    }
    // Not woken when the turn is given back, which happens after each transfer.
    std::this_thread::sleep_for(kAsideSlice);
    return true;
}

}  // namespace jovu
