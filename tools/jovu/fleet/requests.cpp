// SPDX-License-Identifier: Apache-2.0
#include "fleet/requests.h"

#include <algorithm>
#include <nlohmann/json.hpp>
#include <utility>

#include "cli/failure.h"

namespace jovu_cli {
namespace {

using namespace std::chrono_literals;

constexpr auto kDefaultTimeout = 30s;
/// When a request without any response is published again, and one that the bridge has accepted.
constexpr auto kRepeat = 5s;
constexpr auto kRepeatAccepted = 30s;

/// Whether nothing depends on how often it is carried out.
bool only_reads(const std::string& operation) {
    return operation == "status";
}

std::string seconds_string(std::chrono::milliseconds time) {
    return Json(static_cast<double>(time.count()) / 1000).dump() + " s";
}

}  // namespace

const Json& FleetResponse::member(const char* key) const {
    static const Json nothing;
    const auto found = body.is_object() ? body.find(key) : body.end();
    return found == body.end() ? nothing : *found;
}

std::string FleetResponse::error_code() const {
    return string_member(member("error"), "code");
}

std::string FleetResponse::error_message() const {
    const std::string message = string_member(member("error"), "message");
    return message.empty() ? error_code() : message;
}

FleetRequests::FleetRequests(Fleet& fleet, const CommonOptions& options)
    : fleet_(fleet),
      timeout_(options.timeout.value_or(kDefaultTimeout)),
      id_(options.fleet.request_id.empty() ? random_id() : options.fleet.request_id) {}

void FleetRequests::add(const std::string& serial, const std::string& operation, const Json& body) {
    Json payload = {{"id", id_}};
    payload.update(body);
    Pending pending;
    pending.serial = serial;
    pending.operation = operation;
    pending.id = id_;
    pending.payload = payload.dump(-1, ' ', false, Json::error_handler_t::replace);
    pending.correlation = std::to_string(++last_correlation_);
    pending.alive = Clock::now();
    pending_.push_back(std::move(pending));
}

bool FleetRequests::has(const std::string& serial) const {
    return std::any_of(pending_.begin(), pending_.end(),
                       [&](const Pending& pending) { return pending.serial == serial; });
}

void FleetRequests::publish(Pending& pending, Clock::time_point now) {
    jovu_mqtt::Message message{fleet_.topics().request(pending.serial, pending.operation),
                               pending.payload};
    message.properties.response_topic = fleet_.response_topic();
    message.properties.correlation_data = pending.correlation;
    message.properties.content_type = "application/json";
    // What a bridge receives after the time-out would surprise the user.
    message.properties.expiry =
        std::max(std::chrono::ceil<std::chrono::seconds>(pending.alive + timeout_ - now), 1s);
    pending.token = fleet_.publish(std::move(message));
    if (pending.token) {  // Otherwise too many messages are unacknowledged.
        pending.sent = now;
        pending.connection = fleet_.connections();
    }
}

FleetResponse FleetRequests::missing(const Pending& pending, const char* code,
                                     const std::string& why) const {
    return {pending.serial,
            pending.operation,
            "failed",
            {{"id", pending.id},
             {"serial", pending.serial},
             {"operation", pending.operation},
             {"state", "failed"},
             {"error", {{"code", code}, {"message", why}}}}};
}

std::vector<FleetResponse> FleetRequests::work(Clock::time_point now) {
    const auto refusals = fleet_.take_refusals();
    std::vector<FleetResponse> ends;
    for (auto pending = pending_.begin(); pending != pending_.end();) {
        const std::string obstacle = fleet_.obstacle(fleet_.device(pending->serial));
        if (pending->accepted && obstacle.empty() && fleet_.connected()) {
            pending->alive = now;
        }
        const auto refusal = pending->token ? refusals.find(*pending->token) : refusals.end();
        std::optional<FleetResponse> end;
        if (refusal != refusals.end()) {
            end = missing(*pending, "not_allowed",
                          "the broker refuses the request: " + refusal->second);
        } else if (!pending->sent && !obstacle.empty()) {
            end = missing(*pending, "unavailable", obstacle);
        } else if (now - pending->alive >= timeout_) {
            const std::string silence = "no response within " + seconds_string(timeout_) +
                                        (obstacle.empty() ? "" : ", " + obstacle);
            end = only_reads(pending->operation)
                      ? missing(*pending, "timed_out", silence)
                      : missing(*pending, "outcome_unknown",
                                "outcome unknown: " + silence +
                                    "; the same command with --request-id " + pending->id +
                                    " asks again");
        }
        if (end) {
            ends.push_back(std::move(*end));
            pending = pending_.erase(pending);
            continue;
        }
        const auto repeat = pending->accepted ? kRepeatAccepted : kRepeat;
        if (fleet_.connected() && (!pending->sent || pending->connection != fleet_.connections() ||
                                   now - *pending->sent >= repeat)) {
            publish(*pending, now);
        }
        ++pending;
    }
    return ends;
}

std::optional<FleetResponse> FleetRequests::take(const jovu_mqtt::Message& message) {
    if (message.topic != fleet_.response_topic()) {
        return std::nullopt;
    }
    const auto pending = std::find_if(pending_.begin(), pending_.end(), [&](const Pending& one) {
        return one.correlation == message.properties.correlation_data;
    });
    Json body = parse_payload(message.payload);
    if (pending == pending_.end() || string_member(body, "serial") != pending->serial) {
        return std::nullopt;
    }
    FleetResponse response{pending->serial, pending->operation, string_member(body, "state"),
                           std::move(body)};
    pending->alive = Clock::now();
    if (response.is_final()) {
        pending_.erase(pending);
    } else if (response.state == "accepted" || response.state == "progress") {
        pending->accepted = true;
    } else {
        return std::nullopt;
    }
    return response;
}

void FleetRequests::run(const std::function<void(const FleetResponse&)>& handle) {
    try {
        while (!empty()) {
            for (const FleetResponse& end : work(Clock::now())) {
                handle(end);
            }
            if (empty()) {
                return;
            }
            // A part of a second: for the time-outs and the repetitions.
            if (const auto message = fleet_.next(Clock::now() + 100ms)) {
                if (const auto response = take(*message)) {
                    handle(*response);
                }
            }
        }
    } catch (const Failure& failure) {
        const bool sent = std::any_of(pending_.begin(), pending_.end(), [](const Pending& one) {
            return one.sent && !only_reads(one.operation);
        });
        if (failure.code() != ExitCode::interrupted || !sent) {
            throw;
        }
        std::string serials;
        for (const Pending& pending : pending_) {
            serials += (serials.empty() ? "" : ", ") + pending.serial;
        }
        throw Failure(ExitCode::interrupted, "interrupted: outcome unknown: " + serials,
                      "the same command with --request-id " + id_ + " asks again");
    }
}

}  // namespace jovu_cli
