// SPDX-License-Identifier: Apache-2.0
#include "fleet/commands.h"

#include <algorithm>
#include <map>
#include <nlohmann/json.hpp>
#include <set>

#include "cli/failure.h"
#include "firmware/firmware_commands.h"
#include "firmware/status_report.h"
#include "firmware/value_strings.h"
#include "fleet/fleet.h"
#include "fleet/reporter.h"
#include "fleet/requests.h"
#include "session/reports.h"
#include "terminal/format.h"
#include "terminal/printable.h"

namespace jovu_cli {
namespace {

using Clock = Fleet::Clock;

/// Makes one request to each chosen device.
/// @param done called with each response of state "done".
template <class Done>
void request_all(const FleetContext& context, Fleet& fleet, FleetReporter& reporter,
                 const std::string& operation, const Json& body, Done done) {
    FleetRequests requests(fleet, context.options);
    for (const std::string& serial : reporter.serials()) {
        requests.add(serial, operation, body);
    }
    requests.run([&](const FleetResponse& response) {
        if (response.state == "done") {
            done(response);
        } else if (response.state == "failed") {
            reporter.fail(response);
        }
    });
    reporter.finish();
}

/// @return the moment that a payload names, for people.
std::string time_of(const Json& payload) {
    const std::string time = string_member(payload, "time");
    const std::size_t begin = time.find('T');
    return begin == std::string::npos ? "-" : time.substr(begin + 1);
}

void print_event_payload(FleetReporter& reporter, const std::string& serial, const Json& event) {
    if (string_member(event, "kind") == "lost") {
        const Json count = event.value("count", Json(0));
        print_error("jovu: events of " + printable(serial) + " lost: " + count.dump());
        return;
    }
    const std::string text = string_member(event, "text");
    if (reporter.out().json()) {
        Json members = {{"time", string_member(event, "time")},
                        {"event", string_member(event, "kind") + "_event"},
                        {"text", text}};
        reporter.object(serial, members);
        return;
    }
    const std::size_t end = text.find_last_not_of("\r\n");
    reporter.line(serial, time_of(event) + "  " + text.substr(0, end + 1));
}

}  // namespace

void list_fleet(const FleetContext& context) {
    const Fleet fleet(context.options, context.stop);
    FleetReporter reporter(context.out, fleet, fleet.choose(Fleet::Unchosen::all));
    for (const std::string& serial : reporter.serials()) {
        const FleetDevice& device = fleet.device(serial);
        const std::string obstacle = fleet.obstacle(device);
        if (!obstacle.empty()) {
            reporter.fail(serial, "unavailable", obstacle);
        } else if (context.out.json()) {
            reporter.object(serial, {{"port", device.port},
                                     {"version", device.version},
                                     {"read_only", device.read_only}});
        } else {
            reporter.line(serial, "version " + device.version +
                                      (device.port.empty() ? "" : "  port " + device.port) +
                                      "  bridge " + device.bridge +
                                      (device.read_only ? "  read-only" : ""));
        }
    }
    reporter.finish();
}

void show_fleet_status(const FleetContext& context,
                       std::optional<std::chrono::milliseconds> interval) {
    Fleet fleet(context.options, context.stop);
    FleetReporter reporter(context.out, fleet, fleet.choose(Fleet::Unchosen::only_one));
    const auto print = [&](const std::string& serial, const Json& status) {
        if (context.out.json()) {
            reporter.object(serial, status);
        } else {
            reporter.line(serial, report_line(read_status_json(status)));
        }
    };
    if (!interval) {
        const bool block = reporter.serials().size() == 1 && !context.out.json();
        request_all(context, fleet, reporter, "status", Json::object(),
                    [&](const FleetResponse& response) {
                        if (!block) {
                            print(response.serial, response.member("result"));
                            return;
                        }
                        const std::string name = "serial " + printable(response.serial) +
                                                 ", bridge " + fleet.device(response.serial).bridge;
                        for (const std::string& line :
                             report_block(name, read_status_json(response.member("result")))) {
                            context.out.line(line);
                        }
                    });
        return;
    }
    fleet.subscribe("status", 0, true);
    std::map<std::string, Json> news;
    Clock::time_point next_time = Clock::now();
    for (;;) {
        if (const auto message = fleet.next(next_time)) {
            const auto topic = fleet.topics().parse_device(message->topic);
            const auto& chosen = reporter.serials();
            if (topic && topic->leaf == "status" &&
                std::find(chosen.begin(), chosen.end(), topic->serial) != chosen.end()) {
                news[topic->serial] = parse_payload(message->payload);
            }
        }
        if (Clock::now() >= next_time) {
            for (const auto& [serial, status] : news) {
                print(serial, status);
            }
            news.clear();
            next_time = Clock::now() + *interval;
        }
    }
}

void print_fleet_events(const FleetContext& context,
                        std::optional<std::chrono::milliseconds> limit) {
    Fleet fleet(context.options, context.stop);
    FleetReporter reporter(context.out, fleet, fleet.choose(Fleet::Unchosen::all));
    const std::set<std::string> chosen(reporter.serials().begin(), reporter.serials().end());
    // A device that appears later is among all of them.
    const bool all = context.options.serials.empty();
    fleet.subscribe("event", 1, false);
    const Clock::time_point end = limit ? Clock::now() + *limit : Clock::time_point::max();
    while (Clock::now() < end) {
        const auto message = fleet.next(std::min(end, Clock::now() + std::chrono::seconds(1)));
        const auto topic = message ? fleet.topics().parse_device(message->topic) : std::nullopt;
        if (topic && topic->leaf == "event" && (all || chosen.count(topic->serial) > 0)) {
            print_event_payload(reporter, topic->serial, parse_payload(message->payload));
        }
        print_lost_events(fleet.take_lost());
    }
}

void send_fleet_gcode(const FleetContext& context, const std::vector<std::string>& lines,
                      bool keep_going) {
    constexpr std::size_t kMaxLines = 1000;
    if (lines.empty()) {
        return;
    }
    if (lines.size() > kMaxLines) {
        throw Failure(ExitCode::usage,
                      "too many lines of gcode for a fleet: " + std::to_string(lines.size()) +
                          ", more than " + std::to_string(kMaxLines),
                      "'jovu push' sends a whole job");
    }
    Fleet fleet(context.options, context.stop);
    FleetReporter reporter(context.out, fleet, fleet.choose(Fleet::Unchosen::only_one));
    FleetRequests requests(fleet, context.options);
    for (const std::string& serial : reporter.serials()) {
        requests.add(serial, "gcode", {{"lines", lines}, {"keep_going", keep_going}});
    }
    const auto print_lines = [&](const FleetResponse& response) {
        const Json& result = response.member("result");
        const Json& results =
            result.is_object() && result.contains("lines") ? result["lines"] : result;
        if (!results.is_array()) {
            return;
        }
        for (const Json& line : results) {
            if (context.out.json()) {
                reporter.object(response.serial, line);
                continue;
            }
            const bool accepted = line.is_object() && line.value("accepted", Json()) == Json(true);
            reporter.line(response.serial,
                          (accepted ? "ok       " : "refused  ") + string_member(line, "command"));
            for (const Json& text : line.is_object() ? line.value("texts", Json()) : Json()) {
                if (text.is_string()) {
                    reporter.line(response.serial, "         | " + text.get<std::string>());
                }
            }
        }
        if (result.is_object() && result.contains("left_out")) {
            print_error("jovu: lines of " + printable(response.serial) +
                        " without a result: " + result["left_out"].dump());
        }
    };
    requests.run([&](const FleetResponse& response) {
        if (response.is_final()) {
            print_lines(response);
        }
        if (response.state == "failed") {
            reporter.fail(response);
        }
    });
    reporter.finish();
}

void call_fleet(const FleetContext& context, const std::string& name, const Json& arguments) {
    const FirmwareCommand& command = firmware_command(name);
    Fleet fleet(context.options, context.stop);
    FleetReporter reporter(context.out, fleet, fleet.choose(Fleet::Unchosen::only_one));
    Json body = {{"arguments", arguments}};
    if (context.options.timeout) {
        // The device's time-out passes before that of the request, so that it is reported.
        const auto limit = *context.options.timeout;
        using std::chrono::milliseconds;
        const milliseconds left = limit - std::min(limit / 4, milliseconds(1000));
        body["timeout"] = std::chrono::duration<double>(std::max(left, milliseconds(10))).count();
    }
    request_all(context, fleet, reporter, "call/" + name, body, [&](const FleetResponse& response) {
        const Json& result = response.member("result");
        if (context.out.json()) {
            Json object = {{"command", command.name}, {"index", command.index}};
            object["result"] = result;
            reporter.object(response.serial, object);
        } else if (command.result.kind == Kind::nothing) {
            reporter.line(response.serial, "done");
        } else {
            for (const std::string& line : value_lines(result)) {
                reporter.line(response.serial, line);
            }
        }
    });
}

void control_fleet_jobs(const FleetContext& context, const std::string& request) {
    Fleet fleet(context.options, context.stop);
    FleetReporter reporter(context.out, fleet, fleet.choose(Fleet::Unchosen::only_one));
    request_all(context, fleet, reporter, request, Json::object(),
                [&](const FleetResponse& response) {
                    const Json& result = response.member("result");
                    if (context.out.json()) {
                        Json object = {{"request", request}};
                        if (result.is_object()) {
                            object.update(result);
                        }
                        reporter.object(response.serial, object);
                    } else {
                        reporter.line(response.serial,
                                      request + "  " + report_line(read_status_json(result)));
                    }
                });
}

}  // namespace jovu_cli
