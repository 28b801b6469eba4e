// SPDX-License-Identifier: Apache-2.0

/// @file
/// Makes the requests of `jovu monitor`, which can block for seconds, off its drawing thread.
#pragma once

#include <future>
#include <vector>

#include "monitor/model.h"
#include "posix/files.h"
#include "posix/mutex.h"
#include "session/session.h"

namespace jovu_cli {

/// Runs each request on a thread of its own, so that no controller delays another one.
class MonitorRequests {
public:
    /// @param session must outlive this object.
    explicit MonitorRequests(Session& session);
    /// Ends the requests, which fail, and waits for them. The session's client cannot be used any
    /// more.
    ~MonitorRequests();
    MonitorRequests(const MonitorRequests&) = delete;
    MonitorRequests& operator=(const MonitorRequests&) = delete;

    /// Starts a request.
    /// @throws std::system_error when no thread can be started.
    void start(const MonitorRequest& request);

    /// @return the outcomes since the last call.
    std::vector<MonitorOutcome> take_outcomes();

    /// A descriptor that is readable while there are outcomes. For poll(2) only.
    int fd() const noexcept { return event_.get(); }

private:
    void run(MonitorOutcome outcome);

    Session& session_;
    FileDescriptor event_;  ///< An eventfd.
    Mutex mutex_;
    std::vector<MonitorOutcome> outcomes_ JOVU_GUARDED_BY(mutex_);
    std::vector<std::future<void>> running_;  ///< Used by the drawing thread alone.
};

}  // namespace jovu_cli
