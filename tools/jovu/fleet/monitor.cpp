// SPDX-License-Identifier: Apache-2.0

/// @file
/// The monitor's screen for a fleet.

#include <algorithm>
#include <map>
#include <nlohmann/json.hpp>
#include <set>

#include "cli/failure.h"
#include "firmware/status_report.h"
#include "fleet/commands.h"
#include "fleet/fleet.h"
#include "fleet/requests.h"
#include "monitor/model.h"
#include "monitor/screen.h"
#include "monitor/view.h"

namespace jovu_cli {
namespace {

using namespace std::chrono_literals;
using Clock = Fleet::Clock;

/// Number of messages that are taken before keys are read again.
constexpr int kMaxMessagesAtOnce = 1000;
/// A bridge publishes each status every few seconds. An older one is out of date.
constexpr auto kFresh = 30s;

/// Feeds the model of the local monitor: each device of the fleet gets an address there.
class FleetMonitor {
public:
    explicit FleetMonitor(const FleetContext& context)
        : context_(context),
          fleet_(context.options, context.stop),
          requests_(fleet_, context.options) {
        const std::vector<std::string> chosen = fleet_.choose(Fleet::Unchosen::all);
        chosen_.insert(chosen.begin(), chosen.end());
        fleet_.subscribe("status", 0, true);
        fleet_.subscribe("event", 1, false);
        screen_.emplace(context.out);
    }

    void run() {
        while (!model_.has_quit()) {
            const Clock::time_point now = Clock::now();
            take_availability(now);  // First: the model takes reports of known devices only.
            take_messages(now);
            serve(now);
            while (const std::optional<MonitorKey> key = screen_->read_key()) {
                model_.press(*key, now);
            }
            screen_->draw(monitor_lines(model_, screen_->size(), now));
            Screen::wait_for_frame(context_.stop, now, {fleet_.fd()});
        }
    }

private:
    struct Row {
        JovuDeviceAddress address;
        bool connected = false;
        std::string obstacle{};
        std::optional<StatusReport> report{};
        Clock::time_point reported{};
        std::optional<MonitorRequest> request{};  ///< In progress.
    };

    bool is_chosen(const std::string& serial) const {
        return context_.options.serials.empty() || chosen_.count(serial) > 0;
    }

    Row& row(const std::string& serial) {
        const auto found = rows_.find(serial);
        if (found != rows_.end()) {
            return found->second;
        }
        const auto number = static_cast<unsigned>(rows_.size());
        const JovuDeviceAddress address{static_cast<std::uint8_t>(number >> 8U),
                                        static_cast<std::uint8_t>(number & 255U)};
        return rows_.emplace(serial, Row{address}).first->second;
    }

    static void add(MonitorModel& model, const Row& row, decltype(Notification::what) what,
                    Clock::time_point now) {
        model.take({row.address, std::chrono::system_clock::now(), std::move(what)}, now);
    }

    void take_messages(Clock::time_point now) {
        for (int i = 0; i < kMaxMessagesAtOnce; ++i) {
            const auto message = fleet_.poll();
            if (!message) {
                return;
            }
            if (const auto response = requests_.take(*message)) {
                finish(*response, now);
                continue;
            }
            const auto topic = fleet_.topics().parse_device(message->topic);
            if (!topic || !is_chosen(topic->serial)) {
                continue;
            }
            Row& device = row(topic->serial);
            if (topic->leaf == "status") {
                device.report = read_status_json(parse_payload(message->payload));
                device.reported = now;
                add(model_, device, *device.report, now);
            } else if (topic->leaf == "event") {
                add(model_, device,
                    DebugMessage(string_member(parse_payload(message->payload), "text")), now);
            }
        }
    }

    void take_availability(Clock::time_point now) {
        for (const auto& [serial, device] : fleet_.devices()) {
            if (!is_chosen(serial)) {
                continue;
            }
            const bool is_new = rows_.find(serial) == rows_.end();
            Row& shown = row(serial);
            const std::string obstacle = fleet_.obstacle(device);
            const bool usable = obstacle.empty();
            // A device that is offline from the beginning was connected once.
            if (is_new || (usable && !shown.connected)) {
                add(model_, shown, Connected{}, now);
            }
            model_.describe(shown.address, {serial, device.bridge, obstacle});
            if (!usable && (is_new || shown.connected)) {
                add(model_, shown, Disconnected{}, now);
            }
            shown.connected = usable;
        }
    }

    /// Makes the model's requests: reports come from the retained topic, actions from the bridge.
    void serve(Clock::time_point now) {
        for (const MonitorRequest& request : model_.due(now)) {
            if (request.kind == MonitorRequest::Kind::find_unopened ||
                request.kind == MonitorRequest::Kind::identify) {
                model_.take(MonitorOutcome{request, "", "", {}}, now);
                continue;
            }
            const auto found = std::find_if(rows_.begin(), rows_.end(), [&](const auto& entry) {
                return entry.second.address == request.address;
            });
            if (found == rows_.end()) {
                continue;
            }
            Row& device = found->second;
            if (request.kind == MonitorRequest::Kind::status) {
                if (device.report && now - device.reported < kFresh) {
                    add(model_, device, *device.report, now);
                }
                model_.take(MonitorOutcome{request, "", "", {}}, now);
                continue;
            }
            const bool paused =
                device.report && state_phase(device.report->state) == JobPhase::paused;
            device.request = request;
            requests_.renew_id();
            requests_.add(found->first,
                          request.kind == MonitorRequest::Kind::abort ? "abort"
                          : paused                                    ? "resume"
                                                                      : "pause",
                          Json::object());
        }
        for (const FleetResponse& end : requests_.work(now)) {
            finish(end, now);
        }
    }

    void finish(const FleetResponse& response, Clock::time_point now) {
        Row& device = row(response.serial);
        if (response.is_final() && device.request) {
            const std::string failure = response.state == "done"
                                            ? ""
                                            : response.operation + " of " + response.serial + ": " +
                                                  response.error_message();
            model_.take(MonitorOutcome{*device.request, failure, "", {}}, now);
            device.request.reset();
        }
    }

    const FleetContext& context_;
    Fleet fleet_;
    FleetRequests requests_;
    std::set<std::string> chosen_;
    std::map<std::string, Row> rows_;  ///< By serial number.
    MonitorModel model_;
    std::optional<Screen> screen_;
};

}  // namespace

void monitor_fleet(const FleetContext& context) {
    FleetMonitor(context).run();
}

}  // namespace jovu_cli
