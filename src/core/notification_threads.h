// SPDX-License-Identifier: Apache-2.0

/// @file
/// The threads on which an application is notified of devices.
#pragma once

#include <functional>
#include <list>
#include <memory>
#include <utility>

#include "base/mutex.h"

namespace jovu {

/// Runs notifications on detached threads: one is started for each, and also runs those that are
/// pending then.
class NotificationThreads {
public:
    using Notification = std::function<void()>;

    /// A preallocated notification; posting it cannot fail.
    class Prepared {
    public:
        explicit Prepared(Notification notification) { one_.push_back(std::move(notification)); }

    private:
        friend class NotificationThreads;
        std::list<Notification> one_;
    };

    NotificationThreads();
    NotificationThreads(const NotificationThreads&) = delete;
    NotificationThreads& operator=(const NotificationThreads&) = delete;

    /// Starts a thread for a notification. If none can be started, the next thread that is runs it.
    void post(Notification notification) { post(Prepared(std::move(notification))); }
    void post(Prepared notification);

    /// Drops notifications that have not begun, and later ones.
    void close();

    /// Waits until no notification is running. Called in a notification it does not wait for that
    /// one, nor for others that have called it. To be called after close().
    void wait();

private:
    /// Shared with the threads, which may end after this object.
    struct State {
        /// @return the next notification, now counted as running; empty when there is none.
        Notification begin_next();
        void end();

        Mutex mutex;
        ConditionVariable changed;
        /// A list: an empty one is made without memory, which close() may not have.
        std::list<Notification> pending JOVU_GUARDED_BY(mutex);
        unsigned running JOVU_GUARDED_BY(mutex) = 0;
        /// How many of the running ones have called wait(). Other notifications that wait do not
        /// wait for these; it counts until they end, so that none can miss it.
        unsigned ending JOVU_GUARDED_BY(mutex) = 0;
        bool closed JOVU_GUARDED_BY(mutex) = false;
    };

    static void run(State& state) noexcept;

    const std::shared_ptr<State> state_;
};

}  // namespace jovu
