// SPDX-License-Identifier: Apache-2.0

/// @file
/// What `jovu monitor` shows: the controllers, what arrived from each and when, the questions to
/// the user, and the requests that are to be made. Has no terminal, no thread and no clock of its
/// own.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <optional>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "jovu/device_address.h"
#include "session/notification_queue.h"

namespace jovu_cli {

/// The temperatures of the last three minutes.
class TemperatureHistory {
public:
    using Time = std::chrono::steady_clock::time_point;

    /// Adds a temperature. Of the values of one interval of 5 s the last one counts.
    void add(Time now, double celsius);

    /// @return the last @p count intervals, the present one last, one character each: a bar whose
    ///     height is the value's place between the lowest and the highest of them, or a blank for
    ///     an interval without a value. Empty without any value.
    std::string curve(std::size_t count, Time now) const;

    /// Number of intervals that are kept.
    static constexpr std::size_t kIntervals = 36;

private:
    struct Value {
        std::int64_t interval;
        double value;
    };
    std::deque<Value> values_;
};

/// A request to a controller, to be made off the drawing thread.
struct MonitorRequest {
    enum class Kind {
        find_unopened,  ///< Of no controller: looks for those that cannot be opened.
        identify,       ///< Reads the serial number.
        status,         ///< Requests a report, which arrives as a notification.
        toggle_pause,
        abort,
    };
    Kind kind;
    JovuDeviceAddress address{};
    std::uint64_t connection = 0;  ///< Of the model; an outcome for an earlier one is ignored.
};

/// How a request has ended.
struct MonitorOutcome {
    MonitorRequest request;
    std::string failure;                                              ///< Empty for success.
    std::string serial;                                               ///< Of identify.
    std::vector<std::pair<JovuDeviceAddress, std::string>> unopened;  ///< With the reasons.
};

/// What a key means.
enum class MonitorKey { up, down, pause, resume, abort, yes, no, help, quit, other };

/// The state of the monitor. Not thread-safe. Strings of devices are kept as they are.
class MonitorModel {
public:
    using Time = TemperatureHistory::Time;
    using Kind = MonitorRequest::Kind;

    enum class Presence { connected, unplugged, not_open };
    enum class Action { pause, resume, abort };

    /// An action that the user has confirmed.
    struct Confirmed {
        Action action;
        Time since;
        bool checked;  ///< The state allows it. The request that pauses also resumes.
    };

    /// What a controller is shown as that is not on a local bus.
    struct Description {
        std::string serial;
        std::string place;    ///< Instead of the address.
        std::string absence;  ///< Instead of "unplugged".
    };

    /// One controller, which keeps its id when it is plugged in again.
    struct Controller {
        std::uint64_t id = 0;
        JovuDeviceAddress address{};
        Presence presence = Presence::connected;
        Time since;                         ///< Of the presence.
        std::string obstacle;               ///< Why it is not open.
        std::uint64_t connection = 0;       ///< Unique number of the connection.
        std::optional<std::string> serial;  ///< Empty when the controller has none.
        std::optional<Description> description;
        std::optional<StatusReport> report;
        TemperatureHistory temperatures;
        std::string event;
        std::optional<Time> event_time;
        std::optional<Time> asked_since;  ///< The first request without a report so far.
        std::string failure;              ///< Of the last request; empty after a report.

        /// How long the controller has not responded; nothing when it does.
        std::optional<std::chrono::seconds> silence(Time now) const;

    private:
        friend class MonitorModel;
        bool identifying_ = false;
        bool requesting_ = false;
        Time next_identify_;
        Time asked_;
        unsigned unanswered_ = 0;  ///< Requests since the last report.
        std::optional<Confirmed> confirmed_;
    };

    /// @param chosen the only controller to show; all when empty.
    explicit MonitorModel(std::optional<JovuDeviceAddress> chosen = {}) : chosen_(chosen) {}

    /// Takes a notification of the library.
    /// @param now when it arrived.
    void take(const Notification& notification, Time now);
    /// Takes the outcome of a request.
    void take(const MonitorOutcome& outcome, Time now);
    /// Describes a controller that has connected at least once.
    void describe(JovuDeviceAddress address, const Description& description);
    /// All controllers are disconnected, as the USB connection has ended and is started again.
    void restart(Time now);
    void press(MonitorKey key, Time now);

    /// @return the requests to be made now. Each has exactly one outcome. For one controller at
    ///     most one of identify and one of the others is in progress.
    std::vector<MonitorRequest> due(Time now);

    /// In the order of their addresses.
    const std::vector<Controller>& controllers() const { return controllers_; }
    /// Index of the chosen controller; 0 without any.
    std::size_t selected() const;
    /// The question that a key must answer; empty for none.
    std::string question() const;
    /// The last message to the user; empty when it is too old.
    std::string message(Time now) const;
    bool shows_help() const { return shows_help_; }
    bool has_quit() const { return has_quit_; }
    /// The only controller to show.
    std::optional<JovuDeviceAddress> chosen() const { return chosen_; }

private:
    struct Question {
        Action action;
        std::uint64_t id;
        std::uint64_t connection;
    };

    Controller* find(JovuDeviceAddress address);
    Controller* find_connected(const MonitorRequest& request);
    Controller* find_selected();
    Controller& insert(JovuDeviceAddress address, Presence presence, Time now);
    void remove(std::uint64_t id);
    void connect(JovuDeviceAddress address, Time now);
    void disconnect(Controller& controller, Time now);
    void take_report(Controller& controller, const StatusReport& report, Time now);
    void take_serial(Controller& controller, const MonitorOutcome& outcome, Time now);
    void take_unopened(const MonitorOutcome& outcome, Time now);
    void move(int step);
    void ask(Action action, Time now);
    void confirm(Time now);
    void check(Controller& controller, Time now);
    bool needs_report(const Controller& controller, Time now) const;
    void say(std::string message, Time now);

    std::optional<JovuDeviceAddress> chosen_;
    std::vector<Controller> controllers_;
    /// Connects less disconnects. A quick replug can report them in any order.
    std::unordered_map<JovuDeviceAddress, int> connects_;
    std::vector<JovuDeviceAddress> unopened_;  ///< Found by the last search.
    bool searching_ = false;
    Time next_search_;
    std::uint64_t last_id_ = 0;
    std::uint64_t last_connection_ = 0;
    std::uint64_t selected_ = 0;  ///< An id; 0 until a controller is chosen.
    std::optional<Question> question_;
    std::string message_;
    Time message_time_;
    bool shows_help_ = false;
    bool has_quit_ = false;
};

/// @return "1:2 (JVS001002)".
std::string monitor_name(const MonitorModel::Controller& controller);

}  // namespace jovu_cli
