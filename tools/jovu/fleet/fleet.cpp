// SPDX-License-Identifier: Apache-2.0
#include "fleet/fleet.h"

#include <poll.h>
#include <sys/eventfd.h>

#include <algorithm>
#include <cerrno>
#include <nlohmann/json.hpp>
#include <random>
#include <system_error>
#include <utility>

#include "cli/failure.h"
#include "firmware/value_strings.h"
#include "mqtt/error.h"
#include "terminal/output.h"

namespace jovu_cli {
namespace {

using namespace std::chrono_literals;
using jovu_mqtt::Message;

constexpr auto kConnectLimit = 10s;
/// Without permission to publish to itself, the program takes this pause for the end of the stored
/// messages.
constexpr auto kListenTime = 1s;
/// Messages that wait to be taken out.
constexpr std::size_t kMaxItems = 20'000;
constexpr const char* kMarker = "all stored messages have been received";

template <class Call>
auto with_failures(Call call) {
    try {
        return call();
    } catch (const jovu_mqtt::Error& error) {
        throw Failure(ExitCode::usage, error.what(), error.hint());
    }
}

}  // namespace

std::string random_id() {
    constexpr std::string_view kDigits = "0123456789abcdef";
    constexpr std::size_t kLength = 32;
    std::random_device source;
    std::string id;
    while (id.size() < kLength) {
        id += kDigits[source() % kDigits.size()];
    }
    return id;
}

std::string string_member(const Json& object, const char* key) {
    const auto found = object.is_object() ? object.find(key) : object.end();
    return found != object.end() && found->is_string() ? found->get<std::string>() : std::string();
}

/// @return null for anything but an object that a bridge could have sent; others may publish.
Json parse_payload(const std::string& payload) {
    try {
        Json json = parse_strict_json(payload);  // Deeper nesting would exhaust the stack.
        if (json.is_object()) {
            return json;
        }
    } catch (const BadValue&) {
        return {};
    }
    return {};
}

Fleet::Inbox::Inbox() : event(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
    if (!event.valid()) {
        throw std::system_error(errno, std::system_category(), "eventfd");
    }
}

void Fleet::Inbox::put(Item item) {
    const MutexLock lock(mutex);
    if (items.size() >= kMaxItems && std::holds_alternative<Message>(item)) {
        ++lost;
        return;
    }
    items.push_back(std::move(item));
    const std::uint64_t one = 1;
    static_cast<void>(!write(event.get(), &one, sizeof one));
}

Fleet::Fleet(const CommonOptions& options, StopSource& stop)
    : stop_(stop),
      options_(options.fleet),
      patterns_(options.serials),
      url_(with_failures([&] { return jovu_mqtt::parse_broker_url(options.fleet.url); })),
      topics_(url_.prefix),
      client_id_("jovu-" + random_id()),
      response_topic_(topics_.responses(client_id_)) {
    client_ = with_failures(
        [&] { return std::make_unique<jovu_mqtt::Client>(client_options(options), handlers()); });
    const Clock::time_point deadline = Clock::now() + options.timeout.value_or(kConnectLimit);
    client_->subscribe({response_topic_, 1, false, false});
    client_->subscribe({topics_.all_bridges(), 0});
    client_->subscribe({topics_.all_devices("identity"), 0});
    client_->subscribe({topics_.all_devices("availability"), 0});
    client_->start();
    connect(deadline);
    discover(deadline);
}

jovu_mqtt::ClientOptions Fleet::client_options(const CommonOptions& options) {
    const FleetOptions& fleet = options.fleet;
    jovu_mqtt::check_protection(url_, {!fleet.user.empty() || !fleet.certificate_file.empty(),
                                       fleet.plain_text, false, "--fleet-plain-text", ""});
    jovu_mqtt::ClientOptions result;
    result.broker = url_;
    result.ca_file = fleet.ca_file;
    result.certificate_file = fleet.certificate_file;
    result.key_file = fleet.key_file;
    result.user = fleet.user;
    if (!fleet.password_file.empty()) {
        result.password = jovu_mqtt::read_password_file(fleet.password_file);
    }
    result.client_id = client_id_;
    return result;
}

jovu_mqtt::Handlers Fleet::handlers() {
    jovu_mqtt::Handlers handlers;
    handlers.connected = [this](bool /*session_present*/) { inbox_.put(Connected{}); };
    handlers.disconnected = [this](const auto& disconnection) { inbox_.put(disconnection); };
    handlers.message = [this](const Message& message) { inbox_.put(message); };
    handlers.acknowledged = [this](const jovu_mqtt::Acknowledgement& acknowledgement) {
        if (!acknowledgement.refusal.empty()) {
            inbox_.put(acknowledgement);
        }
    };
    handlers.subscribed = [this](const std::string& filter, const std::string& refusal) {
        if (!refusal.empty()) {
            inbox_.put(Subscribed{filter, refusal});
        }
    };
    return handlers;
}

void Fleet::connect(Clock::time_point deadline) {
    while (connections_ == 0) {
        static_cast<void>(next(deadline));
        const bool late = Clock::now() >= deadline;
        if (connections_ == 0 && (refused_ || late)) {
            throw Failure(ExitCode::failure,
                          "cannot connect to the broker " + to_string(url_) + ": " +
                              (last_reason_.empty() ? "it does not respond" : last_reason_),
                          refused_ ? "check --fleet-user, --fleet-password-file and the broker's "
                                     "rules of access"
                                   : "check the URL, and that the broker is running");
        }
    }
}

/// Waits for all stored messages: a message to this program itself arrives after them.
void Fleet::discover(Clock::time_point deadline) {
    std::optional<Clock::time_point> quiet_end;
    const auto token = client_->publish({response_topic_, kMarker});
    for (;;) {
        const auto message = next(std::min(deadline, quiet_end.value_or(deadline)));
        if (message && message->topic == response_topic_ && message->payload == kMarker) {
            return;
        }
        if (token && refusals_.erase(*token) > 0) {
            quiet_end = Clock::now() + kListenTime;
        }
        if (quiet_end && message) {
            quiet_end = Clock::now() + kListenTime;
        }
        if (quiet_end && !message && Clock::now() >= *quiet_end) {
            return;
        }
        if (Clock::now() >= deadline) {
            throw Failure(ExitCode::failure,
                          "the broker " + to_string(url_) + " does not send what it has stored");
        }
    }
}

const FleetDevice& Fleet::device(const std::string& serial) const {
    static const FleetDevice unknown{};
    const auto found = devices_.find(serial);
    return found == devices_.end() ? unknown : found->second;
}

std::string Fleet::obstacle(const FleetDevice& device) const {
    const auto bridge = bridges_.find(device.bridge);
    if (bridge == bridges_.end() || !bridge->second) {
        return device.bridge.empty() ? "no bridge knows it"
                                     : "its bridge " + device.bridge + " is offline";
    }
    return device.online ? "" : "offline" + (device.reason.empty() ? "" : ": " + device.reason);
}

std::string Fleet::where() const {
    return to_string(url_) + "/" + topics_.prefix();
}

std::vector<std::string> Fleet::choose(Unchosen unchosen) const {
    std::vector<std::string> chosen;
    for (const std::string& pattern : patterns_) {
        const std::size_t before = chosen.size();
        bool matched = false;
        for (const auto& [serial, device] : devices_) {
            if (jovu_mqtt::matches_glob(pattern, serial)) {
                matched = true;
                if (std::find(chosen.begin(), chosen.end(), serial) == chosen.end()) {
                    chosen.push_back(serial);
                }
            }
        }
        if (!matched && chosen.size() == before) {
            throw Failure(ExitCode::no_device, "no device '" + pattern + "' at " + where(),
                          "'jovu --fleet URL list' shows the devices");
        }
    }
    if (!patterns_.empty()) {
        return chosen;
    }
    const bool all = options_.all || unchosen == Unchosen::all;
    std::string names;
    for (const auto& [serial, device] : devices_) {
        if (all || obstacle(device).empty()) {
            chosen.push_back(serial);
            names += (names.empty() ? "" : ", ") + serial;
        }
    }
    if (chosen.empty()) {
        throw Failure(ExitCode::no_device,
                      (devices_.empty() ? "no device at " : "no device is available at ") + where(),
                      "check that jovu-bridge runs, and the prefix in the broker's URL");
    }
    if (!all && chosen.size() > 1) {
        throw Failure(ExitCode::several_devices,
                      "several devices are available and none was chosen: " + names,
                      "-s SERIAL chooses one, -s 'PATTERN' several, --all takes all");
    }
    return chosen;
}

void Fleet::subscribe(const std::string& leaf, int qos, bool stored) {
    client_->subscribe({topics_.all_devices(leaf), qos, false, stored});
}

int Fleet::fd() const noexcept {
    return inbox_.event.get();
}

std::size_t Fleet::take_lost() {
    const MutexLock lock(inbox_.mutex);
    return std::exchange(inbox_.lost, 0);
}

std::optional<Fleet::Item> Fleet::take_item() {
    const MutexLock lock(inbox_.mutex);
    if (inbox_.items.empty()) {
        std::uint64_t count = 0;
        static_cast<void>(!read(inbox_.event.get(), &count, sizeof count));
        return std::nullopt;
    }
    Item item = std::move(inbox_.items.front());
    inbox_.items.pop_front();
    return item;
}

void Fleet::wait(Clock::time_point deadline) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now());
    pollfd waited[] = {{stop_.fd(), POLLIN, 0}, {fd(), POLLIN, 0}};
    ::poll(waited, std::size(waited),
           static_cast<int>(std::clamp<std::int64_t>(left.count(), 0, 1000)));
    stop_.throw_if_stopped();
}

std::optional<Message> Fleet::next(Clock::time_point deadline) {
    std::optional<Message> message = poll();
    if (!message) {
        wait(deadline);
        message = poll();
    }
    return message;
}

std::optional<Message> Fleet::poll() {
    stop_.throw_if_stopped();
    while (std::optional<Item> item = take_item()) {
        if (auto* const message = std::get_if<Message>(&*item)) {
            take_state(*message);
            return std::move(*message);
        }
        if (const auto* const end = std::get_if<jovu_mqtt::Disconnection>(&*item)) {
            take_disconnection(*end);
        } else if (const auto* const subscribed = std::get_if<Subscribed>(&*item)) {
            throw Failure(ExitCode::failure, "the broker refuses the subscription to " +
                                                 subscribed->filter + ": " + subscribed->refusal);
        } else if (const auto* const refused = std::get_if<jovu_mqtt::Acknowledgement>(&*item)) {
            refusals_[refused->token] = refused->refusal;
        } else {
            ++connections_;
        }
    }
    return std::nullopt;
}

void Fleet::take_disconnection(const jovu_mqtt::Disconnection& disconnection) {
    last_reason_ = disconnection.reason;
    refused_ = disconnection.refused;
    if (disconnection.was_connected) {
        print_error("jovu: the connection to the broker was lost, trying again: " + last_reason_);
    }
}

void Fleet::take_state(const Message& message) {
    if (const auto bridge = topics_.parse_bridge(message.topic)) {
        bridges_[*bridge] = string_member(parse_payload(message.payload), "state") == "online";
        return;
    }
    const auto topic = topics_.parse_device(message.topic);
    if (!topic || (topic->leaf != "availability" && topic->leaf != "identity")) {
        return;
    }
    if (message.payload.empty()) {  // The topic was removed from the broker.
        devices_.erase(topic->serial);
        return;
    }
    const Json payload = parse_payload(message.payload);
    FleetDevice& device = devices_[topic->serial];
    device.serial = topic->serial;
    device.bridge = string_member(payload, "bridge");
    if (topic->leaf == "availability") {
        device.online = string_member(payload, "state") == "online";
        device.reason = device.online ? "" : string_member(payload, "reason");
        return;
    }
    device.version = string_member(payload, "version");
    device.port = string_member(payload, "port");
    device.read_only =
        payload.is_object() && payload.contains("read_only") && payload["read_only"] == Json(true);
}

}  // namespace jovu_cli
