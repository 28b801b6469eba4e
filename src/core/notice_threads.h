/// @file
/// The threads on which an application is told of devices.
#pragma once

#include <functional>
#include <list>
#include <memory>
#include <utility>

#include "base/mutex.h"

namespace jovu {

/// Runs notices, on detached threads (one is started for each, and runs those that wait as well),
/// and knows when none is running any more.
class NoticeThreads {
public:
    using Notice = std::function<void()>;

    /// A notice for later. To post it takes no memory.
    class Prepared {
    public:
        explicit Prepared(Notice notice) { one_.push_back(std::move(notice)); }

    private:
        friend class NoticeThreads;
        std::list<Notice> one_;
    };

    NoticeThreads();
    NoticeThreads(const NoticeThreads&) = delete;
    NoticeThreads& operator=(const NoticeThreads&) = delete;

    /// Starts a thread for a notice. If none can be started the notice waits for the next thread
    /// that can be: it comes late rather than never.
    void post(Notice notice) { post(Prepared(std::move(notice))); }
    void post(Prepared notice);

    /// Drops notices that have not begun and takes no more.
    void close();

    /// Waits until no notice is running. Called from inside a notice it does not wait for that one,
    /// nor for others that wait here themselves. To be called after close().
    void wait();

private:
    /// Shared with the threads, which may end after this object.
    struct State {
        /// @return the next notice, now counted as running; empty when there is none.
        Notice begin_next();
        void end();

        Mutex mutex;
        ConditionVariable changed;
        /// A list: an empty one is made without memory, which close() may not have.
        std::list<Notice> pending JOVU_GUARDED_BY(mutex);
        unsigned running JOVU_GUARDED_BY(mutex) = 0;
        unsigned waiting JOVU_GUARDED_BY(mutex) = 0;  ///< Of the running ones, inside wait().
        bool closed JOVU_GUARDED_BY(mutex) = false;
    };

    static void run(State& state) noexcept;

    const std::shared_ptr<State> state_;
};

}  // namespace jovu
