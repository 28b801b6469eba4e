// SPDX-License-Identifier: Apache-2.0
#include "bridge/running_requests.h"

#include <utility>

namespace jovu_bridge {

using jovu_cli::Json;
using jovu_cli::MutexLock;

namespace {

/// Bytes; a broker with our configuration takes messages of at most a mebibyte.
constexpr std::size_t kMaxResponse = 921600;

Json error_json(const std::string& code, const std::string& message) {
    return {{"code", code}, {"message", message}};
}

bool same(const ReplyTo& a, const ReplyTo& b) {
    return a.topic == b.topic && a.correlation == b.correlation;
}

}  // namespace

std::string to_payload(const Json& object) {
    return object.dump(-1, ' ', false, Json::error_handler_t::replace);
}

Json RunningRequests::envelope(const std::string& device, const std::string& operation,
                               const std::string& id, const char* state) {
    return {{"id", id.empty() ? Json() : Json(id)},
            {"serial", device},
            {"operation", operation},
            {"state", state},
            {"repeated", false}};
}

Running RunningRequests::admit(Request request) {
    if (request.reading) {
        return std::make_shared<RunningRequest>(std::move(request));
    }
    const Key key(request.device, request.id);
    const auto running = std::make_shared<RunningRequest>(std::move(request));
    if (!enter(key, running)) {
        return nullptr;
    }
    // The journal is read after the entry was made: a request leaves the entries when its end is in
    // the journal, so it is found in the one or in the other.
    Journal::Entry entry;
    std::string problem;
    try {
        entry = journal_.find(running->request.device, running->request.id);
    } catch (const JournalError& error) {
        problem = error.what();
        log_.error(problem);
    }
    if (problem.empty() && entry.state == Journal::State::absent) {
        return running;
    }
    for (const ReplyTo& reply : remove(*running)) {
        Request again = running->request;
        again.reply = reply;
        if (problem.empty()) {
            respond_from_journal(again, entry);
        } else {
            refuse({again.device, again.operation, again.id, reply, "unavailable", problem});
        }
    }
    return nullptr;
}

bool RunningRequests::knows(const Request& request) {
    if (request.reading) {
        return false;
    }
    {
        const MutexLock lock(mutex_);
        if (entries_.count(Key(request.device, request.id)) != 0) {
            return true;
        }
    }
    try {
        return journal_.find(request.device, request.id).state != Journal::State::absent;
    } catch (const JournalError& error) {
        log_.error(error.what());
        return false;
    }
}

bool RunningRequests::enter(const Key& key, const Running& running) {
    {
        const MutexLock lock(mutex_);
        const auto [entry, is_new] = entries_.try_emplace(key);
        std::vector<ReplyTo>& replies = entry->second.replies;
        if (is_new) {
            entry->second.running = running;
            replies = {running->request.reply};
            return true;
        }
        if (entry->second.running->request.digest == running->request.digest) {
            if (!same(replies.front(), running->request.reply)) {
                replies.resize(1);
                replies.push_back(running->request.reply);
            }
            return false;
        }
    }
    refuse({running->request.device, running->request.operation, running->request.id,
            running->request.reply, "invalid_request",
            "another request has the id \"" + running->request.id + "\""});
    return false;
}

std::vector<ReplyTo> RunningRequests::remove(const RunningRequest& running) {
    const Request& request = running.request;
    const MutexLock lock(mutex_);
    const auto found = entries_.find(Key(request.device, request.id));
    if (request.reading || found == entries_.end() || found->second.running.get() != &running) {
        return {request.reply};
    }
    std::vector<ReplyTo> replies = std::move(found->second.replies);
    entries_.erase(found);
    return replies;
}

void RunningRequests::respond_from_journal(const Request& request, const Journal::Entry& entry) {
    metrics_.repeated_request();
    if (entry.digest != request.digest) {
        refuse({request.device, request.operation, request.id, request.reply, "invalid_request",
                "another request has had the id \"" + request.id + "\""});
        return;
    }
    Json response = entry.state == Journal::State::done
                        ? Json::parse(entry.response, nullptr, false)
                        : Json(Json::value_t::discarded);
    if (!response.is_object()) {
        response = envelope(request.device, request.operation, request.id, "failed");
        response["error"] = error_json(
            "outcome_unknown",
            "the bridge ended while it carried the request out; whether the device did it is "
            "unknown, and it is not carried out again");
    }
    response["repeated"] = true;
    outbox_.respond(request.reply, to_payload(response), true);
}

void RunningRequests::refuse(const Refusal& refusal) {
    metrics_.request(refusal.operation.substr(0, refusal.operation.find('/')),
                     Metrics::Seconds::zero(), refusal.code);
    // Without the message, which may quote a secret among the arguments.
    log_.info("refused " + refusal.operation + " for " + refusal.device + ": " + refusal.code);
    Json response = envelope(refusal.device, refusal.operation, refusal.id, "failed");
    response["error"] = error_json(refusal.code, refusal.message);
    outbox_.respond(refusal.reply, to_payload(response), true);
}

void RunningRequests::begin(RunningRequest& running) {
    const Request& request = running.request;
    if (!request.reading) {
        journal_.start(request.device, request.id, request.digest);
        running.journalled = true;
    }
}

std::vector<ReplyTo> RunningRequests::replies(const RunningRequest& running) const {
    const MutexLock lock(mutex_);
    const auto found = entries_.find(Key(running.request.device, running.request.id));
    return running.request.reading || found == entries_.end()
               ? std::vector<ReplyTo>{running.request.reply}
               : found->second.replies;
}

void RunningRequests::accepted(const RunningRequest& running) {
    const Request& request = running.request;
    const std::string response =
        to_payload(envelope(request.device, request.operation, request.id, "accepted"));
    for (const ReplyTo& reply : replies(running)) {
        outbox_.respond(reply, response, false);
    }
}

void RunningRequests::progress(const RunningRequest& running, const Json& progress) {
    const Request& request = running.request;
    Json response = envelope(request.device, request.operation, request.id, "progress");
    response["progress"] = progress;
    const std::string text = to_payload(response);
    for (const ReplyTo& reply : replies(running)) {
        outbox_.respond(reply, text, false);
    }
}

void RunningRequests::finish(RunningRequest& running, const Outcome& outcome) {
    const Request& request = running.request;
    const bool failed = !outcome.code.empty();
    Json response =
        envelope(request.device, request.operation, request.id, failed ? "failed" : "done");
    if (!failed || !outcome.result.is_null()) {
        response["result"] = outcome.result;
    }
    if (failed) {
        response["error"] = error_json(outcome.code, outcome.message);
    }
    std::string text = to_payload(response);
    if (text.size() > kMaxResponse) {
        response["result"] = nullptr;
        response["too_long"] = text.size();
        text = to_payload(response);
    }
    if (running.journalled) {
        try {
            journal_.finish(request.device, request.id, text);
        } catch (const JournalError& error) {
            // A repeat after a restart will get "outcome_unknown".
            log_.error(error.what());
        }
    }
    const std::vector<ReplyTo> replies = remove(running);
    metrics_.request(request.operation.substr(0, request.operation.find('/')),
                     RunningRequest::Clock::now() - running.arrival, outcome.code);
    bool repeated = false;
    for (const ReplyTo& reply : replies) {
        if (repeated) {
            response["repeated"] = true;
        }
        outbox_.respond(reply, repeated ? to_payload(response) : text, true);
        repeated = true;
    }
}

}  // namespace jovu_bridge
