// SPDX-License-Identifier: Apache-2.0
#include "monitor/model.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <variant>

#include "cli/options.h"
#include "session/reports.h"

namespace jovu_cli {
namespace {

using namespace std::chrono_literals;

constexpr auto kTemperatureInterval = 5s;
/// Smaller differences of temperature are not drawn as large ones.
constexpr double kLeastRange = 10;
/// Between temperatures beyond this the difference may not be finite.
constexpr double kHighest = 1e9;

constexpr auto kReportInterval = 1s;
/// A report that takes longer is missing.
constexpr auto kSilenceLimit = 3s;
/// When a request without a report is repeated. A controller that waits for the rest of a job reads
/// requests as job data, so later ones leave it the time to give the job up.
constexpr auto kFirstRepeat = 5s;
constexpr auto kLaterRepeat = 30s;
constexpr auto kIdentifyRepeat = 15s;
constexpr auto kSearchInterval = 2s;
/// How long a confirmed action waits for a report.
constexpr auto kConfirmedLimit = 5s;
constexpr auto kMessageTime = 10s;
/// How long a controller without a known serial number is shown after it was unplugged.
constexpr auto kForgetTime = 60s;

const char* action_name(MonitorModel::Action action) {
    switch (action) {
        case MonitorModel::Action::pause:
            return "pause";
        case MonitorModel::Action::resume:
            return "resume";
        case MonitorModel::Action::abort:
            return "abort";
    }
    return "";
}

/// Whether a state allows an action.
bool has_job_for(MonitorModel::Action action, const StatusReport& report) {
    const JobPhase phase = state_phase(report.state);
    switch (action) {
        case MonitorModel::Action::pause:
            return phase == JobPhase::active;
        case MonitorModel::Action::resume:
            return phase == JobPhase::paused;
        case MonitorModel::Action::abort:
            return phase != JobPhase::idle && phase != JobPhase::finished &&
                   phase != JobPhase::aborted;
    }
    return false;
}

std::string reported_state(const StatusReport& report) {
    return "reports the state " + (report.state.empty() ? "-" : report.state);
}

}  // namespace

void TemperatureHistory::add(Time now, double celsius) {
    const double value = std::clamp(celsius, -kHighest, kHighest);
    const std::int64_t interval = now.time_since_epoch() / kTemperatureInterval;
    if (!values_.empty() && values_.back().interval == interval) {
        values_.back().value = value;
        return;
    }
    values_.push_back({interval, value});
    if (values_.size() > kIntervals) {
        values_.pop_front();
    }
}

std::string TemperatureHistory::curve(std::size_t count, Time now) const {
    static constexpr std::array kBars{"\u2581", "\u2582", "\u2583", "\u2584",
                                      "\u2585", "\u2586", "\u2587", "\u2588"};
    const std::int64_t last = now.time_since_epoch() / kTemperatureInterval;
    const std::int64_t first = last - static_cast<std::int64_t>(std::min(count, kIntervals)) + 1;
    const auto begin = std::find_if(values_.begin(), values_.end(),
                                    [&](const Value& value) { return value.interval >= first; });
    if (begin == values_.end()) {
        return {};
    }
    const auto [low, high] = std::minmax_element(
        begin, values_.end(),
        [](const Value& one, const Value& other) { return one.value < other.value; });
    const double range = std::max(high->value - low->value, kLeastRange);
    std::string curve;
    auto next = begin;
    for (std::int64_t interval = first; interval <= last; ++interval) {
        if (next == values_.end() || next->interval != interval) {
            curve += ' ';
            continue;
        }
        const double height = (next->value - low->value) / range * (kBars.size() - 1);
        curve += kBars[static_cast<std::size_t>(std::lround(height))];
        ++next;
    }
    return curve;
}

std::string monitor_name(const MonitorModel::Controller& controller) {
    if (controller.description) {
        return controller.description->serial + " at " + controller.description->place;
    }
    const bool has_serial = controller.serial && !controller.serial->empty();
    return to_string(controller.address) + " (" +
           (has_serial ? *controller.serial : "serial number unknown") + ")";
}

std::optional<std::chrono::seconds> MonitorModel::Controller::silence(Time now) const {
    if (presence != Presence::connected || !asked_since || now - *asked_since < kSilenceLimit) {
        return std::nullopt;
    }
    return std::chrono::duration_cast<std::chrono::seconds>(now - *asked_since);
}

void MonitorModel::take(const Notification& notification, Time now) {
    const JovuDeviceAddress address = notification.address;
    if (chosen_ && address != *chosen_) {
        return;
    }
    if (std::holds_alternative<Connected>(notification.what)) {
        ++connects_[address];
        connect(address, now);
        return;
    }
    Controller* const controller = find(address);
    if (std::holds_alternative<Disconnected>(notification.what)) {
        if (--connects_[address] <= 0 && controller != nullptr) {
            disconnect(*controller, now);
        }
        return;
    }
    if (controller == nullptr || controller->presence != Presence::connected) {
        return;
    }
    if (const auto* report = std::get_if<StatusReport>(&notification.what)) {
        take_report(*controller, *report, now);
    } else {
        controller->event = event_string(notification);
        controller->event_time = now;
    }
}

void MonitorModel::take(const MonitorOutcome& outcome, Time now) {
    if (outcome.request.kind == Kind::find_unopened) {
        take_unopened(outcome, now);
        return;
    }
    Controller* const controller = find_connected(outcome.request);
    if (controller == nullptr) {
        return;
    }
    if (outcome.request.kind == Kind::identify) {
        take_serial(*controller, outcome, now);
        return;
    }
    controller->requesting_ = false;
    controller->failure = outcome.failure;
    if (outcome.request.kind == Kind::status || !controller->confirmed_) {
        return;
    }
    const std::string name = action_name(controller->confirmed_->action);
    controller->confirmed_.reset();
    controller->asked_ = {};  // Show the state after it soon.
    say(outcome.failure.empty() ? name + " was sent to " + monitor_name(*controller)
                                : outcome.failure,
        now);
}

void MonitorModel::describe(JovuDeviceAddress address, const Description& description) {
    if (Controller* const controller = find(address)) {
        controller->serial = description.serial;
        controller->description = description;
    }
}

void MonitorModel::restart(Time now) {
    connects_.clear();
    for (Controller& controller : controllers_) {
        if (controller.presence == Presence::connected) {
            disconnect(controller, now);
        }
    }
    searching_ = false;
    say("the USB connection has ended and was started again", now);
}

void MonitorModel::press(MonitorKey key, Time now) {
    if (question_) {
        if (key == MonitorKey::yes) {
            confirm(now);
        } else if (key == MonitorKey::no) {
            say(std::string(action_name(question_->action)) + ": nothing was sent", now);
            question_.reset();
        }
        return;
    }
    if (shows_help_ && key != MonitorKey::quit) {
        shows_help_ = false;
        return;
    }
    switch (key) {
        case MonitorKey::up:
            move(-1);
            break;
        case MonitorKey::down:
            move(1);
            break;
        case MonitorKey::pause:
            ask(Action::pause, now);
            break;
        case MonitorKey::resume:
            ask(Action::resume, now);
            break;
        case MonitorKey::abort:
            ask(Action::abort, now);
            break;
        case MonitorKey::help:
            shows_help_ = true;
            break;
        case MonitorKey::quit:
            has_quit_ = true;
            break;
        case MonitorKey::yes:
        case MonitorKey::no:
        case MonitorKey::other:
            break;
    }
}

std::vector<MonitorRequest> MonitorModel::due(Time now) {
    std::vector<MonitorRequest> requests;
    if (!searching_ && now >= next_search_) {
        searching_ = true;
        requests.push_back({Kind::find_unopened});
    }
    controllers_.erase(
        std::remove_if(controllers_.begin(), controllers_.end(),
                       [&](const Controller& controller) {
                           return controller.presence == Presence::unplugged &&
                                  (!controller.serial || controller.serial->empty()) &&
                                  now - controller.since > kForgetTime;
                       }),
        controllers_.end());
    for (Controller& controller : controllers_) {
        if (controller.presence != Presence::connected) {
            continue;
        }
        const auto add = [&](Kind kind) {
            requests.push_back({kind, controller.address, controller.connection});
        };
        if (!controller.serial && !controller.identifying_ && now >= controller.next_identify_) {
            controller.identifying_ = true;
            add(Kind::identify);
        }
        if (controller.requesting_) {
            continue;
        }
        std::optional<Confirmed>& confirmed = controller.confirmed_;
        if (confirmed && !confirmed->checked && now - confirmed->since > kConfirmedLimit) {
            say(std::string(action_name(confirmed->action)) +
                    " was not sent: " + monitor_name(controller) + " does not respond",
                now);
            confirmed.reset();
        }
        if (confirmed && confirmed->checked) {
            controller.requesting_ = true;
            add(confirmed->action == Action::abort ? Kind::abort : Kind::toggle_pause);
        } else if (needs_report(controller, now)) {
            controller.requesting_ = true;
            controller.asked_ = now;
            controller.asked_since = controller.asked_since.value_or(now);
            ++controller.unanswered_;
            add(Kind::status);
        }
    }
    return requests;
}

std::size_t MonitorModel::selected() const {
    const auto found =
        std::find_if(controllers_.begin(), controllers_.end(),
                     [this](const Controller& controller) { return controller.id == selected_; });
    return found == controllers_.end() ? 0 : static_cast<std::size_t>(found - controllers_.begin());
}

std::string MonitorModel::question() const {
    if (!question_) {
        return {};
    }
    for (const Controller& controller : controllers_) {
        if (controller.id == question_->id) {
            return std::string(action_name(question_->action)) + " the job of " +
                   monitor_name(controller) + "? y/n";
        }
    }
    return {};
}

std::string MonitorModel::message(Time now) const {
    return now - message_time_ < kMessageTime ? message_ : std::string();
}

MonitorModel::Controller* MonitorModel::find(JovuDeviceAddress address) {
    const auto found =
        std::find_if(controllers_.begin(), controllers_.end(),
                     [&](const Controller& controller) { return controller.address == address; });
    return found == controllers_.end() ? nullptr : &*found;
}

/// @return nothing when the request was made on an earlier connection.
MonitorModel::Controller* MonitorModel::find_connected(const MonitorRequest& request) {
    Controller* const controller = find(request.address);
    const bool is_same = controller != nullptr && controller->connection == request.connection &&
                         controller->presence == Presence::connected;
    return is_same ? controller : nullptr;
}

MonitorModel::Controller* MonitorModel::find_selected() {
    return controllers_.empty() ? nullptr : &controllers_[selected()];
}

/// Adds a controller, or replaces the one at its address.
MonitorModel::Controller& MonitorModel::insert(JovuDeviceAddress address, Presence presence,
                                               Time now) {
    Controller controller;
    controller.address = address;
    controller.presence = presence;
    controller.since = now;
    controller.connection = ++last_connection_;
    if (Controller* const before = find(address)) {
        controller.id = before->id;
        return *before = controller;
    }
    controller.id = ++last_id_;
    const auto next =
        std::find_if(controllers_.begin(), controllers_.end(),
                     [&](const Controller& other) { return comes_before(address, other.address); });
    return *controllers_.insert(next, std::move(controller));
}

void MonitorModel::remove(std::uint64_t id) {
    controllers_.erase(
        std::remove_if(controllers_.begin(), controllers_.end(),
                       [id](const Controller& controller) { return controller.id == id; }),
        controllers_.end());
}

void MonitorModel::connect(JovuDeviceAddress address, Time now) {
    if (Controller* const before = find(address)) {
        disconnect(*before, now);  // Its disconnect follows.
    }
    insert(address, Presence::connected, now);
}

void MonitorModel::disconnect(Controller& controller, Time now) {
    if (question_ && question_->id == controller.id) {
        question_.reset();
        say(monitor_name(controller) + " was unplugged: nothing was sent", now);
    } else if (controller.confirmed_) {
        say(std::string(action_name(controller.confirmed_->action)) +
                (controller.confirmed_->checked && controller.requesting_
                     ? " may or may not have been sent: "
                     : " was not sent: ") +
                monitor_name(controller) + " was unplugged",
            now);
    }
    controller.confirmed_.reset();
    controller.presence = Presence::unplugged;
    controller.since = now;
}

void MonitorModel::take_report(Controller& controller, const StatusReport& report, Time now) {
    if (controller.silence(now)) {
        controller.next_identify_ = now;
    }
    controller.report = report;
    controller.temperatures.add(now, report.extruder_temperature);
    controller.asked_since.reset();
    controller.unanswered_ = 0;
    controller.failure.clear();
    check(controller, now);
}

void MonitorModel::take_serial(Controller& controller, const MonitorOutcome& outcome, Time now) {
    controller.identifying_ = false;
    if (!outcome.failure.empty()) {
        controller.next_identify_ = now + kIdentifyRepeat;
        return;
    }
    controller.serial = outcome.serial;
    // The place of the same controller at the address that it had before.
    const auto before =
        std::find_if(controllers_.begin(), controllers_.end(), [&](const Controller& other) {
            return other.id != controller.id && other.presence == Presence::unplugged &&
                   other.serial == controller.serial && !outcome.serial.empty();
        });
    if (before != controllers_.end()) {
        selected_ = before->id == selected_ ? controller.id : selected_;
        remove(before->id);
    }
}

/// A controller that was just plugged in cannot be told from one that cannot be opened, so only
/// what two searches have found is shown.
void MonitorModel::take_unopened(const MonitorOutcome& outcome, Time now) {
    searching_ = false;
    next_search_ = now + kSearchInterval;
    std::vector<JovuDeviceAddress> found;
    for (const auto& [address, reason] : outcome.unopened) {
        if (chosen_ && address != *chosen_) {
            continue;
        }
        found.push_back(address);
        const Controller* const known = find(address);
        if (std::find(unopened_.begin(), unopened_.end(), address) != unopened_.end() &&
            (known == nullptr || known->presence != Presence::connected)) {
            insert(address, Presence::not_open, now).obstacle = reason;
        }
    }
    unopened_ = std::move(found);
    controllers_.erase(std::remove_if(controllers_.begin(), controllers_.end(),
                                      [this](const Controller& controller) {
                                          return controller.presence == Presence::not_open &&
                                                 std::find(unopened_.begin(), unopened_.end(),
                                                           controller.address) == unopened_.end();
                                      }),
                       controllers_.end());
}

void MonitorModel::move(int step) {
    if (controllers_.empty()) {
        return;
    }
    const auto last = static_cast<int>(controllers_.size()) - 1;
    const int index = std::clamp(static_cast<int>(selected()) + step, 0, last);
    selected_ = controllers_[static_cast<std::size_t>(index)].id;
}

void MonitorModel::ask(Action action, Time now) {
    const Controller* const controller = find_selected();
    const std::string name = action_name(action);
    if (controller == nullptr) {
        say("no controller to " + name, now);
    } else if (controller->presence != Presence::connected) {
        say("cannot " + name + ": " + monitor_name(*controller) + " is not connected", now);
    } else if (controller->confirmed_) {
        say(std::string(action_name(controller->confirmed_->action)) + " is being sent to " +
                monitor_name(*controller),
            now);
    } else if (controller->report && !controller->silence(now) &&
               !has_job_for(action, *controller->report)) {
        say("no job to " + name + ": " + monitor_name(*controller) + " " +
                reported_state(*controller->report),
            now);
    } else {
        selected_ = controller->id;
        question_ = Question{action, controller->id, controller->connection};
    }
}

/// Takes the answer y.
void MonitorModel::confirm(Time now) {
    const Question question = *question_;
    question_.reset();
    message_.clear();  // It is about an earlier question.
    for (Controller& controller : controllers_) {
        if (controller.id == question.id && controller.connection == question.connection) {
            controller.confirmed_ =
                Confirmed{question.action, now, question.action == Action::abort};
        }
    }
}

/// Decides on a confirmed pause or resume by a report that was requested after the confirmation.
void MonitorModel::check(Controller& controller, Time now) {
    std::optional<Confirmed>& confirmed = controller.confirmed_;
    if (!confirmed || confirmed->checked || controller.asked_ < confirmed->since) {
        return;
    }
    if (has_job_for(confirmed->action, *controller.report)) {
        confirmed->checked = true;
        return;
    }
    say(std::string(action_name(confirmed->action)) + " was not sent: " + monitor_name(controller) +
            " " + reported_state(*controller.report),
        now);
    confirmed.reset();
}

bool MonitorModel::needs_report(const Controller& controller, Time now) const {
    if (controller.confirmed_ && controller.asked_ < controller.confirmed_->since) {
        return true;
    }
    return now - controller.asked_ >= (controller.unanswered_ == 0   ? kReportInterval
                                       : controller.unanswered_ == 1 ? kFirstRepeat
                                                                     : kLaterRepeat);
}

void MonitorModel::say(std::string message, Time now) {
    message_ = std::move(message);
    message_time_ = now;
}

}  // namespace jovu_cli
