/// @file
/// Leaving the link once.
#pragma once

#include "base/mutex.h"

namespace jovu {

/// A client's registration, which ends once, whoever ends it. A second caller waits for the first:
/// when end() returns the client is off the link, for everybody.
class Registration {
public:
    /// @param unregister called at most once in the life of this object; if it throws, the
    ///     registration has not ended.
    template <class Unregister>
    void end(Unregister unregister) {
        const MutexLock lock(mutex_);
        if (ended_) return;
        unregister();
        ended_ = true;
    }

private:
    Mutex mutex_;  ///< Taken before the link's locks.
    bool ended_ JOVU_GUARDED_BY(mutex_) = false;
};

}  // namespace jovu
