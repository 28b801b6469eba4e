// SPDX-License-Identifier: Apache-2.0

/// @file
/// The requests in progress, their repeats, and their responses.
#pragma once

#include <chrono>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <utility>
#include <vector>

#include "bridge/journal.h"
#include "bridge/log.h"
#include "bridge/metrics.h"
#include "bridge/outbox.h"
#include "bridge/request.h"
#include "posix/mutex.h"

namespace jovu_bridge {

/// @return JSON as the payload of a message. Devices and requesters may have put any bytes into its
///     strings; what is not UTF-8 becomes U+FFFD.
std::string to_payload(const jovu_cli::Json& object);

/// How a request ended.
struct Outcome {
    std::string code;       ///< Empty for success.
    std::string message;    ///< Of a failure.
    jovu_cli::Json result;  ///< Null for none; a failure may have one as well.

    static Outcome done(jovu_cli::Json result) { return {{}, {}, std::move(result)}; }
    static Outcome failed(std::string code, std::string message) {
        return {std::move(code), std::move(message), {}};
    }
};

/// A request from its arrival to its end. Everything but the mutable part is constant.
struct RunningRequest {
    using Clock = std::chrono::steady_clock;

    explicit RunningRequest(Request taken) : request(std::move(taken)) {}

    const Request request;
    const Clock::time_point arrival = Clock::now();
    bool journalled = false;  ///< Of the thread that carries the request out.

    bool expired() const { return request.expiry && Clock::now() - arrival > *request.expiry; }
};

using Running = std::shared_ptr<RunningRequest>;

/// Sees to it that one request is carried out once, and that everybody who sent it learns its end.
///
/// Threads: any. The outbox is called with no lock held.
class RunningRequests {
public:
    RunningRequests(Journal& journal, Outbox& outbox, Metrics& metrics, Log& log)
        : journal_(journal), outbox_(outbox), metrics_(metrics), log_(log) {}

    /// Takes a request. A repeat joins the one in progress; a repeat of one that has ended, or that
    /// an earlier process began, gets its response at once.
    /// @return the request if it is to be carried out, else null.
    Running admit(Request request);

    /// Whether this bridge carries the request out, or has done so. False also when the journal
    /// cannot be read.
    bool knows(const Request& request);

    /// Sends the response to something that is not carried out.
    void refuse(const Refusal& refusal);

    /// Enters a request into the journal, unless it is one that only reads: from now on it counts
    /// as carried out.
    /// @throws JournalError
    void begin(RunningRequest& running);

    void accepted(const RunningRequest& running);
    void progress(const RunningRequest& running, const jovu_cli::Json& progress);

    /// Ends a request: its response goes to the journal, if it has begun, and to the requesters.
    void finish(RunningRequest& running, const Outcome& outcome);

private:
    using Key = std::pair<std::string, std::string>;
    struct Entry {
        Running running;
        std::vector<ReplyTo> replies;  ///< The first, and the newest of the repeats.
    };

    static jovu_cli::Json envelope(const std::string& device, const std::string& operation,
                                   const std::string& id, const char* state);
    /// @return whether the request is new; otherwise it has joined another or was refused.
    bool enter(const Key& key, const Running& running);
    /// @return who waits for the end of the request.
    std::vector<ReplyTo> remove(const RunningRequest& running);
    std::vector<ReplyTo> replies(const RunningRequest& running) const;
    void respond_from_journal(const Request& request, const Journal::Entry& entry);

    Journal& journal_;
    Outbox& outbox_;
    Metrics& metrics_;
    Log& log_;
    mutable jovu_cli::Mutex mutex_;
    std::map<Key, Entry> entries_ JOVU_GUARDED_BY(mutex_);
};

}  // namespace jovu_bridge
