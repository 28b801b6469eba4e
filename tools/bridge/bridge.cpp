// SPDX-License-Identifier: Apache-2.0
#include "bridge/bridge.h"

#include <unistd.h>

#include <algorithm>
#include <nlohmann/json.hpp>
#include <thread>
#include <utility>

#include "jovu/version.h"
#include "mqtt/broker_url.h"
#include "terminal/format.h"

namespace jovu_bridge {

using namespace std::chrono_literals;
using jovu_cli::Json;
using jovu_cli::MutexLock;

namespace {

constexpr auto kHousekeeping = 2s;
/// Bytes that the broker may send at once: more than any request that gets a response.
constexpr std::uint32_t kMaxPacket = 2U << 20U;
/// How long devices that are attached already may take to connect.
constexpr auto kSettleTime = 5s;
/// The scheduler is taken for stuck when it has not run for so long.
constexpr auto kTickLimit = 30s;
/// How long the last messages may take to reach the broker.
constexpr auto kFarewellLimit = 2s;
/// How long exchanges may take to end that were cancelled.
constexpr auto kCancelLimit = 3s;

std::string bridge_name(const Config& config) {
    if (!config.name.empty()) {
        return config.name;
    }
    char host[256] = {};
    return ::gethostname(host, sizeof host - 1) == 0 && host[0] != '\0' ? host : "bridge";
}

Outbox::Limits outbox_limits(const Config& config) {
    return {static_cast<std::size_t>(config.outbox.max_events),
            static_cast<std::size_t>(config.outbox.max_responses)};
}

Journal::Limits journal_limits(const Config& config) {
    return {config.journal.max_age, config.journal.max_entries};
}

/// What the library opens. Patterns are compared when a device has connected.
JovuDeviceFilter device_filter(const std::vector<std::string>& patterns) {
    const bool exact = std::all_of(patterns.begin(), patterns.end(), [](const std::string& name) {
        return name.find_first_of("*?[!") == std::string::npos && !name.empty() &&
               name.rfind("port-", 0) != 0;
    });
    JovuDeviceFilter filter = exact ? JovuDeviceFilter::none() : JovuDeviceFilter();
    for (const std::string& pattern : exact ? patterns : std::vector<std::string>()) {
        filter.add_serial(pattern);
    }
    return filter;
}

std::string name_of(const JovuDeviceInfo& info) {
    return info.serial.empty() ? jovu_mqtt::name_of_port(info.port) : info.serial;
}

std::optional<JovuDeviceInfo> look_up(JovuDeviceAddress address) {
    for (JovuDeviceInfo& info : JovuTransport::list_devices()) {
        if (info.address == address) {
            return std::move(info);
        }
    }
    return std::nullopt;
}

}  // namespace

Bridge::Bridge(const ReadConfig& read, Log& log)
    : log_(log),
      name_(bridge_name(read.config)),
      settings_(read.config),
      metrics_(name_, JOVU_VERSION),
      topics_(read.config.broker.prefix),
      outbox_(
          outbox_limits(read.config),
          [this](jovu_mqtt::Message message) { return client_->publish(std::move(message)); },
          metrics_),
      availability_(outbox_, log_, topics_, name_),
      journal_(read.config.state_folder, journal_limits(read.config)),
      jobs_(read.config.state_folder + "/jobs"),
      requests_(journal_, outbox_, metrics_, log_),
      services_{usb_,       requests_, outbox_,   metrics_, log_,
                scheduler_, jobs_,     settings_, topics_,  name_},
      events_(outbox_, topics_) {
    set_rules(read.config);
    client_ = std::make_unique<jovu_mqtt::Client>(client_options(read), handlers());
}

Bridge::~Bridge() {
    if (started_) {
        stop(0ms);
    }
}

jovu_mqtt::ClientOptions Bridge::client_options(const ReadConfig& read) const {
    const Config::Broker& broker = read.config.broker;
    const auto file = [&](const std::string& name) {
        return name.empty() ? name : resolve_file(read.file, name);
    };
    jovu_mqtt::ClientOptions options;
    options.broker = jovu_mqtt::parse_broker_url(broker.url);
    options.ca_file = file(broker.ca_file);
    options.certificate_file = file(broker.certificate_file);
    options.key_file = file(broker.key_file);
    options.user = broker.user;
    options.password = read_password(read);
    options.client_id = broker.client_id.empty() ? "jovu-bridge-" + name_ : broker.client_id;
    options.keep_alive = std::chrono::duration_cast<std::chrono::seconds>(broker.keep_alive);
    options.max_packet_size = kMaxPacket;
    jovu_mqtt::Message will;
    will.topic = topics_.bridge(name_);
    will.payload = R"({"state":"offline"})";
    will.retain = true;
    options.last_will = will;
    jovu_mqtt::Protection protection;
    protection.authenticated = !broker.user.empty() || !broker.certificate_file.empty();
    protection.allow_plain_text = broker.allow_plain_text;
    protection.allow_anonymous = broker.allow_anonymous;
    protection.plain_text_setting = "allow_plain_text = true";
    protection.anonymous_setting = "allow_anonymous = true";
    jovu_mqtt::check_protection(options.broker, protection);
    return options;
}

jovu_mqtt::Handlers Bridge::handlers() {
    jovu_mqtt::Handlers handlers;
    handlers.connected = [this](bool /*session_present*/) {
        log_.info("connected to the broker " + settings_.get()->broker.url);
        metrics_.broker_connected(true);
        availability_.reconnected(Clock::now());
        outbox_.connected();
    };
    handlers.disconnected = [this](const jovu_mqtt::Disconnection& disconnection) {
        outbox_.disconnected();
        metrics_.broker_connected(false);
        if (!stopping_) {
            log_.warning("no connection to the broker " + settings_.get()->broker.url + ": " +
                         disconnection.reason + "; next attempt in " +
                         std::to_string(disconnection.retry_in.count()) + " ms");
        }
    };
    handlers.message = [this](const jovu_mqtt::Message& message) { receive(message); };
    handlers.acknowledged = [this](const jovu_mqtt::Acknowledgement& acknowledgement) {
        if (!acknowledgement.refusal.empty()) {
            log_.warning("the broker refuses a message: " + acknowledgement.refusal +
                         "; see its access rules");
        }
        outbox_.acknowledged(acknowledgement);
    };
    handlers.subscribed = [this](const std::string& filter, const std::string& refusal) {
        if (!refusal.empty()) {
            log_.error("the broker refuses the subscription " + filter + ": " + refusal +
                       "; see its access rules");
        }
    };
    handlers.failed = [this](const std::exception_ptr& failure) {
        failed_ = true;
        try {
            std::rethrow_exception(failure);
        } catch (const std::exception& error) {
            log_.error(std::string("the connection to the broker has ended: ") + error.what());
        }
    };
    return handlers;
}

void Bridge::set_rules(const Config& config) {
    RequestRules rules;
    rules.topics = topics_;
    rules.commands = config.requests.commands;
    rules.read_only = config.devices.read_only;
    rules.max_payload = static_cast<std::size_t>(config.requests.max_payload);
    rules.max_lines = static_cast<std::size_t>(config.requests.max_lines);
    rules.max_trace = config.requests.max_trace;
    auto next = std::make_shared<const RequestRules>(std::move(rules));
    const MutexLock lock(rules_mutex_);
    rules_.swap(next);
}

void Bridge::start() {
    const std::shared_ptr<const Config> config = settings_.get();
    if (!config->metrics.address.empty()) {
        const int port = metrics_.serve(config->metrics.address);
        log_.info("metrics at " + config->metrics.address + ", port " + std::to_string(port));
    }
    started_at_ = Clock::now();
    started_ = true;
    jovu_mqtt::Subscription availability;
    availability.filter = topics_.all_devices("availability");
    client_->subscribe(availability);
    jovu_mqtt::Subscription bridges;
    bridges.filter = topics_.all_bridges();
    client_->subscribe(bridges);
    client_->start();
    last_tick_ = Clock::now().time_since_epoch().count();
    scheduler_.every(kHousekeeping, 0ms, [this] { keep_house(); });
    JovuTransport::set_device_filter(device_filter(config->devices.serials));
    JovuCallbacks callbacks;
    callbacks.connected = [this](JovuDeviceAddress address) { device_connected(address); };
    callbacks.disconnected = [this](JovuDeviceAddress address) { device_disconnected(address); };
    callbacks.unavailable = [this](JovuDeviceAddress /*address*/, const JovuDeviceInfo& info) {
        device_unavailable(info);
    };
    callbacks.debug_event = [this](JovuDeviceAddress address, const std::string& text) {
        if (const std::shared_ptr<Device> device = find(address)) {
            device->take_text(text);
            events_.push(device, text);
        }
    };
    callbacks.servo_trace_event = [this](JovuDeviceAddress address, const servo_trace_msg& sample) {
        if (const std::shared_ptr<Device> device = find(address)) {
            device->take_sample(sample);
        }
    };
    usb_.start(std::move(callbacks));
    publish_bridge();
    log_.info("jovu-bridge " JOVU_VERSION " runs as " + name_);
}

void Bridge::reload(const ReadConfig& read) {
    const std::shared_ptr<const Config> before = settings_.get();
    for (const std::string& key : changes_for_restart(*before, read.config)) {
        log_.warning(key + " has changed and takes effect when jovu-bridge is restarted");
    }
    for (const std::string& key : changes(*before, read.config)) {
        log_.info("reloaded: " + key);
    }
    Config next = read.config;
    next.broker = before->broker;
    next.devices.serials = before->devices.serials;
    settings_.set(std::move(next));
    log_.set_level(read.config.log_level);
    journal_.set_limits(journal_limits(read.config));
    set_rules(read.config);
    for (const std::shared_ptr<Device>& device : devices()) {
        device->take_settings();
    }
    metrics_.reloaded(true);
}

void Bridge::receive(const jovu_mqtt::Message& message) {
    const auto topic = topics_.parse_device(message.topic);
    if (topic && topic->leaf == "availability") {
        if (availability_.receive(topic->serial, message.payload, message.retain)) {
            outbox_.again(topics_.device(topic->serial, ""));
        }
    } else if (const auto bridge = topics_.parse_bridge(message.topic)) {
        availability_.receive_bridge(*bridge, message.payload);
    } else {
        receive_request(message);
    }
}

void Bridge::receive_request(const jovu_mqtt::Message& message) {
    std::shared_ptr<const RequestRules> rules;
    {
        const MutexLock lock(rules_mutex_);
        rules = rules_;
    }
    auto parsed = parse_request(
        {message.topic, message.payload, message.properties.response_topic,
         message.properties.correlation_data, message.retain, message.properties.expiry},
        *rules);
    if (const auto* const refusal = std::get_if<Refusal>(&parsed)) {
        if (!availability_.elsewhere(refusal->device)) {
            requests_.refuse(*refusal);
        }
        return;
    }
    const auto& request = std::get<Request>(parsed);
    if (availability_.elsewhere(request.device) && !requests_.knows(request)) {
        return;  // The other bridge responds.
    }
    const Running running = requests_.admit(std::move(std::get<Request>(parsed)));
    if (!running) {
        return;
    }
    const std::string& name = running->request.device;
    const std::shared_ptr<Device> device = find(name);
    const std::string rival = running->request.reading ? std::string() : availability_.rival(name);
    std::string problem;
    if (stopping_) {
        problem = "the bridge is stopping";
    } else if (!device) {
        problem = "the device is not connected: " + name;
    } else if (!rival.empty()) {
        problem =
            "the bridges " + name_ + " and " + rival + " both have a device of this name: " + name;
    } else {
        device->submit(running);
        return;
    }
    requests_.finish(*running, Outcome::failed("unavailable", problem));
}

std::shared_ptr<Device> Bridge::find(JovuDeviceAddress address) const {
    const MutexLock lock(table_mutex_);
    const auto found = table_.find(address);
    return found == table_.end() ? nullptr : found->second;
}

std::shared_ptr<Device> Bridge::find(const std::string& name) const {
    const MutexLock lock(table_mutex_);
    for (const auto& [address, device] : table_) {
        if (device->name() == name) {
            return device;
        }
    }
    return nullptr;
}

std::vector<std::shared_ptr<Device>> Bridge::devices() const {
    const MutexLock lock(table_mutex_);
    std::vector<std::shared_ptr<Device>> all;
    for (const auto& [address, device] : table_) {
        all.push_back(device);
    }
    return all;
}

/// Notifications of one address run on several threads at a time, in any order.
void Bridge::device_connected(JovuDeviceAddress address) {
    std::uint64_t number = 0;
    {
        const MutexLock lock(lifecycle_mutex_);
        Connections& connections = connections_[address];
        ++connections.open;
        if (connections.open == 0) {
            connections_.erase(address);
            return;  // Its disconnection came first.
        }
        if (connections.open < 0) {
            return;
        }
        number = connections.newest = ++last_connection_;
    }
    const std::optional<JovuDeviceInfo> info = look_up(address);
    if (!info || stopping_) {
        return;  // Unplugged already.
    }
    const std::string name = name_of(*info);
    if (!matches_any(settings_.get()->devices.serials, name)) {
        log_.info(name + " at port " + info->port + " is not one of devices.serials");
        try {
            usb_.client().close(address);
        } catch (const JovuException&) {
            // It has been unplugged.
        }
        return;
    }
    std::shared_ptr<Device> stale;
    {
        const MutexLock lock(lifecycle_mutex_);
        const auto connections = connections_.find(address);
        if (connections == connections_.end() || connections->second.newest != number) {
            return;  // Unplugged meanwhile, or replaced by another, which is looked up by now.
        }
        stale = take(address);
        duplicates_.erase(address);
        add(address, name, info->port);
    }
    if (stale) {
        end(*stale);
    }
    publish_bridge();
}

void Bridge::add(JovuDeviceAddress address, const std::string& name, const std::string& port) {
    if (const std::shared_ptr<Device> first = find(name)) {
        duplicates_[address] = {name, port};
        const std::string what = "another controller with the serial number " + name +
                                 " is at port " + port + "; it is left alone, the one at port " +
                                 first->port() + " is used";
        log_.error(what);
        availability_.tell(name, what);
        return;
    }
    std::shared_ptr<Device> device;
    bool is_new = false;
    {
        const MutexLock lock(table_mutex_);
        auto& events = event_counts_[name];
        is_new = events == nullptr;
        if (is_new) {
            events = std::make_shared<std::atomic<std::uint64_t>>(0);
        }
        device = std::make_shared<Device>(services_, address, name, port, events);
        table_[address] = device;
    }
    log_.info(name + " connected at port " + port);
    metrics_.device_connected(name);
    if (is_new) {
        jovu_mqtt::Subscription requests;
        requests.filter = topics_.all_requests(name);
        requests.receive_stored = false;
        requests.retain_as_published = true;  // So that such a request is refused.
        client_->subscribe(requests);
    }
    availability_.connected(name);
    device->start();
}

std::shared_ptr<Device> Bridge::take(JovuDeviceAddress address) {
    std::shared_ptr<Device> device;
    {
        const MutexLock lock(table_mutex_);
        const auto found = table_.find(address);
        if (found == table_.end()) {
            return nullptr;
        }
        device = std::move(found->second);
        table_.erase(found);
    }
    log_.info(device->name() + " disconnected from port " + device->port());
    metrics_.device_disconnected(device->name());
    availability_.disconnected(device->name(), "disconnected");
    return device;
}

void Bridge::end(Device& device) {
    device.leave();
    // From now on nothing is published of it. It may come back at another bridge: what this one
    // said is then not to be said again.
    const MutexLock lock(lifecycle_mutex_);
    if (!find(device.name())) {
        outbox_.forget(topics_.device(device.name(), ""),
                       topics_.device(device.name(), "availability"));
    }
}

void Bridge::device_disconnected(JovuDeviceAddress address) {
    std::shared_ptr<Device> device;
    {
        const MutexLock lock(lifecycle_mutex_);
        if (--connections_[address].open != 0) {
            return;  // The device was replaced, or its connection comes later.
        }
        connections_.erase(address);
        if (duplicates_.erase(address) != 0) {
            return;
        }
        device = take(address);
        if (!device) {
            return;
        }
        adopt_duplicate(device->name());
    }
    end(*device);
    publish_bridge();
}

void Bridge::adopt_duplicate(const std::string& name) {
    const auto found = std::find_if(duplicates_.begin(), duplicates_.end(),
                                    [&](const auto& entry) { return entry.second.name == name; });
    if (found == duplicates_.end() || stopping_) {
        return;
    }
    const auto [address, duplicate] = *found;
    duplicates_.erase(found);
    add(address, duplicate.name, duplicate.port);
}

void Bridge::device_unavailable(const JovuDeviceInfo& info) {
    const std::string name = name_of(info);
    const MutexLock lock(lifecycle_mutex_);
    if (!matches_any(settings_.get()->devices.serials, name) || find(name)) {
        return;
    }
    log_.warning(name + " at port " + info.port +
                 " cannot be opened: " + jovu_state_name(info.state));
    availability_.disconnected(name, jovu_state_name(info.state));
}

void Bridge::publish_bridge() {
    const std::uint64_t lost = outbox_.lost();
    published_lost_ = lost;
    const bool online = !stopping_;
    Json object = {{"state", online ? "online" : "offline"},
                   {"version", JOVU_VERSION},
                   {"devices", devices().size()},
                   {"lost", lost},
                   {"time", jovu_cli::utc_string(std::chrono::system_clock::now())}};
    outbox_.state(topics_.bridge(name_), to_payload(object));
}

void Bridge::keep_house() {
    last_tick_ = Clock::now().time_since_epoch().count();
    if (!stopping_ && outbox_.lost() != published_lost_) {
        publish_bridge();
    }
    if (!stopping_) {
        const auto now = Clock::now();
        availability_.settle(now, now - started_at_ > kSettleTime);
    }
    try {
        const Journal::Size size = journal_.size();
        metrics_.journal(size.entries, size.bytes);
    } catch (const JournalError& error) {
        log_.error(error.what());
    }
}

bool Bridge::healthy() const {
    const Clock::duration since = Clock::now().time_since_epoch() - Clock::duration(last_tick_);
    return !failed_ && since < kTickLimit && JovuTransport::is_watching();
}

void Bridge::stop(std::chrono::milliseconds limit) {
    if (stopping_.exchange(true)) {
        return;
    }
    const auto deadline = Clock::now() + limit;
    const std::vector<std::shared_ptr<Device>> all = devices();
    for (const std::shared_ptr<Device>& device : all) {
        device->begin_stop();
    }
    const auto all_idle = [&] {
        return std::all_of(all.begin(), all.end(),
                           [](const auto& device) { return device->idle(); });
    };
    const auto wait_idle = [&](Clock::time_point until) {
        while (!all_idle() && Clock::now() < until) {
            std::this_thread::sleep_for(20ms);
        }
        return all_idle();
    };
    if (!wait_idle(deadline)) {
        for (const std::shared_ptr<Device>& device : all) {
            if (!device->idle()) {
                log_.warning(device->name() +
                             " is still busy at the end: what it is doing is cancelled, and a job "
                             "that was being sent is left incomplete");
            }
        }
        for (const JovuDeviceAddress address : usb_.client().list_connected()) {
            usb_.client().cancel_exchanges(address);
        }
        wait_idle(Clock::now() + kCancelLimit);
    }
    usb_.stop();
    {
        const MutexLock lock(table_mutex_);
        table_.clear();
    }
    publish_bridge();  // First: without its bridge no device is available.
    for (const std::shared_ptr<Device>& device : all) {
        device->leave();
        availability_.disconnected(device->name(), "the bridge has stopped");
    }
    const auto farewell = Clock::now() + kFarewellLimit;
    while (client_->connected() && outbox_.size() > 0 && Clock::now() < farewell) {
        std::this_thread::sleep_for(10ms);
    }
    // The last will says that the bridge is offline, if there was not the time to say it.
    client_->disconnect(1s, outbox_.size() > 0);
}

}  // namespace jovu_bridge
