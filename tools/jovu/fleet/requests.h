// SPDX-License-Identifier: Apache-2.0

/// @file
/// Requests to devices behind a broker, repeated until each has its outcome.
#pragma once

#include <functional>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "cli/json.h"
#include "cli/options.h"
#include "fleet/fleet.h"

namespace jovu_cli {

/// What a bridge sends back, or what stands for it when nothing arrives.
struct FleetResponse {
    std::string serial;
    std::string operation;
    std::string state;  ///< "accepted", "progress", "done" or "failed".
    Json body;          ///< The response's object.

    bool is_final() const { return state == "done" || state == "failed"; }
    /// @return a member of the object; null when it is missing.
    const Json& member(const char* key) const;
    /// @name Of a failure
    /// @{
    std::string error_code() const;
    std::string error_message() const;
    /// @}
};

/// Requests in progress. A request is published again, with its id, until its final response
/// arrives; the bridge carries it out once. To be used by one thread.
class FleetRequests {
public:
    using Clock = Fleet::Clock;

    /// @param fleet must outlive this object.
    FleetRequests(Fleet& fleet, const CommonOptions& options);

    /// Adds a request. Each device has at most one at a time.
    /// @param operation "gcode", "call/NAME", ...
    /// @param body the members besides the id.
    void add(const std::string& serial, const std::string& operation, const Json& body);

    /// Publishes what is due.
    /// @return final responses in place of those that do not arrive.
    std::vector<FleetResponse> work(Clock::time_point now);

    /// @return the response in a message, if it is one to these requests.
    std::optional<FleetResponse> take(const jovu_mqtt::Message& message);

    bool empty() const { return pending_.empty(); }
    bool has(const std::string& serial) const;

    /// Works until all requests have their final response.
    /// @throws Failure interrupted, with the id by which the outcome can be asked for.
    void run(const std::function<void(const FleetResponse&)>& handle);

    const std::string& id() const { return id_; }
    /// Gives later requests a new id.
    void renew_id() { id_ = random_id(); }

private:
    struct Pending {
        std::string serial;
        std::string operation;
        std::string id;
        std::string payload;
        std::string correlation;
        bool accepted = false;
        Clock::time_point alive;  ///< The last sign of life.
        std::optional<Clock::time_point> sent;
        unsigned connection = 0;  ///< Of the last publication.
        std::optional<jovu_mqtt::Token> token;
    };

    void publish(Pending& pending, Clock::time_point now);
    FleetResponse missing(const Pending& pending, const char* code, const std::string& why) const;

    Fleet& fleet_;
    const std::chrono::milliseconds timeout_;
    std::string id_;
    std::vector<Pending> pending_;
    unsigned last_correlation_ = 0;
};

}  // namespace jovu_cli
