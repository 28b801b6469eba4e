// SPDX-License-Identifier: Apache-2.0
//
// The program jovu-bridge between a Mosquitto and the simulated bus.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <condition_variable>
#include <csignal>
#include <map>
#include <mutex>
#include <nlohmann/json.hpp>

#include "mqtt/client.h"
#include "support/broker.h"
#include "support/job_file.h"
#include "support/sim_control.h"
#include "support/wait.h"

using namespace std::chrono_literals;
using nlohmann::json;
using test::eventually;
using testing::HasSubstr;

namespace {

constexpr const char* kResponses = "jovu/responses/test";

/// The bridge as a child process, with a state folder that outlives it.
class BridgeProcess {
public:
    BridgeProcess(const test::TemporaryFolder& folder, const std::string& url,
                  const std::string& settings)
        : folder_(folder),
          config_(
              folder.write("bridge.toml", "name = \"b1\"\nstate_folder = \"" + folder.path() +
                                              "\"\n[metrics]\naddress = \"\"\n[broker]\nurl = \"" +
                                              url + "\"\n" + settings)) {
        start();
    }
    ~BridgeProcess() { end(SIGKILL); }
    BridgeProcess(const BridgeProcess&) = delete;
    BridgeProcess& operator=(const BridgeProcess&) = delete;

    void start() {
        const std::string log = folder_.path() + "/bridge.log";
        const pid_t parent = getpid();
        pid_ = fork();
        if (pid_ == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            if (getppid() != parent) _exit(1);
            dup2(open(log.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600), STDERR_FILENO);
            execl(JOVU_BRIDGE_PROGRAM, "jovu-bridge", "--config", config_.c_str(), nullptr);
            _exit(127);
        }
    }
    /// @return the exit status; -signal when a signal ended it.
    int end(int number) {
        if (pid_ <= 0) return 0;
        int status = 0;
        kill(pid_, number);
        waitpid(pid_, &status, 0);
        pid_ = -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
    }
    void signal(int number) const { kill(pid_, number); }
    std::string log() const { return test::content_of(folder_.path() + "/bridge.log"); }

private:
    const test::TemporaryFolder& folder_;
    const std::string config_;
    pid_t pid_ = -1;
};

/// Sends requests, and keeps what it receives.
class Requester {
public:
    explicit Requester(const test::Broker& broker) : client_(options(broker), handlers()) {
        client_.subscribe({kResponses});
        client_.subscribe({"jovu/devices/+/+"});
        client_.subscribe({"jovu/bridges/+"});
        client_.start();
    }

    /// @return what identifies the responses.
    std::string send(const std::string& serial, const std::string& operation, json payload,
                     bool retain = false, const std::string& response_topic = kResponses) {
        return send_bytes(serial, operation, payload.dump(), retain, response_topic);
    }
    std::string send_bytes(const std::string& serial, const std::string& operation,
                           const std::string& payload, bool retain = false,
                           const std::string& response_topic = kResponses) {
        jovu_mqtt::Message message;
        message.topic = "jovu/devices/" + serial + "/request/" + operation;
        message.payload = payload;
        message.retain = retain;
        message.properties.response_topic = response_topic;
        message.properties.correlation_data = "c" + std::to_string(++last_);
        client_.publish(message);
        return "c" + std::to_string(last_);
    }

    /// Publishes the availability of a device as another bridge does.
    void tell(const std::string& serial, const std::string& state) {
        jovu_mqtt::Message message;
        message.topic = "jovu/devices/" + serial + "/availability";
        message.payload = json{{"state", state}, {"bridge", "b2"}, {"reason", "b2"}}.dump();
        message.retain = true;
        client_.publish(message);
    }

    /// @return the final response; null when there is none.
    json final(const std::string& correlation, std::chrono::seconds limit = test::kPatience) {
        std::unique_lock lock(mutex_);
        json found;
        changed_.wait_for(lock, limit, [&] {
            for (const json& response : responses_[correlation]) {
                if (response["state"] == "done" || response["state"] == "failed") found = response;
            }
            return !found.is_null();
        });
        return found;
    }
    json ask(const std::string& serial, const std::string& operation, const json& payload) {
        return final(send(serial, operation, payload));
    }
    /// As a requester does that must know: repeats until there is a final response.
    json insist(const std::string& serial, const std::string& operation, const json& payload) {
        for (int i = 0; i < 30; ++i) {
            const json response = final(send(serial, operation, payload), 2s);
            if (!response.is_null()) return response;
        }
        return {};
    }
    std::size_t responses(const std::string& correlation) {
        const std::scoped_lock lock(mutex_);
        return responses_[correlation].size();
    }

    /// @return whether the value of a topic comes to fulfil a condition.
    template <class Condition>
    bool sees(const std::string& topic, Condition condition) {
        std::unique_lock lock(mutex_);
        return changed_.wait_for(lock, test::kPatience, [&] {
            const auto value = values_.find(topic);
            return value != values_.end() && value->second.is_object() && condition(value->second);
        });
    }
    bool online(const std::string& serial, const std::string& state = "online") {
        return sees("jovu/devices/" + serial + "/availability",
                    [&](const json& value) { return value["state"] == state; });
    }
    /// All events of a device, in their order.
    std::vector<json> events(const std::string& serial) {
        const std::scoped_lock lock(mutex_);
        return events_["jovu/devices/" + serial + "/event"];
    }

private:
    static jovu_mqtt::ClientOptions options(const test::Broker& broker) {
        jovu_mqtt::ClientOptions options;
        options.broker = jovu_mqtt::parse_broker_url(broker.url());
        options.client_id = "requester";
        options.min_pause = 20ms;
        options.max_pause = 100ms;
        return options;
    }
    jovu_mqtt::Handlers handlers() {
        jovu_mqtt::Handlers handlers;
        handlers.message = [this](const jovu_mqtt::Message& message) {
            const json payload = json::parse(message.payload);
            const std::scoped_lock lock(mutex_);
            if (message.topic == kResponses) {
                responses_[message.properties.correlation_data].push_back(payload);
            } else {
                values_[message.topic] = payload;
                events_[message.topic].push_back(payload);
            }
            changed_.notify_all();
        };
        return handlers;
    }

    std::mutex mutex_;
    std::condition_variable changed_;
    std::map<std::string, std::vector<json>> responses_;
    std::map<std::string, json> values_;
    std::map<std::string, std::vector<json>> events_;
    int last_ = 0;
    jovu_mqtt::Client client_;
};

/// Blinks an LED: a command that the simulator counts.
json blink(const std::string& id) {
    return {{"id", id}, {"arguments", {{"led", 0}, {"on_count", 1}, {"off_count", 2}}}};
}

/// @return "done", or the code of a failure.
std::string end_of(const json& response) {
    if (response.is_null()) return "no response";
    return response["state"] == "done" ? "done" : response["error"]["code"].get<std::string>();
}

class Service : public testing::Test {
protected:
    void begin(const std::string& settings = "") {
        bridge_ = std::make_unique<BridgeProcess>(folder_, broker_.url(), settings);
        requester_ = std::make_unique<Requester>(broker_);
    }
    /// @return the serial number of a new device that the bridge has.
    std::string add(JovuDeviceAddress& device, const std::string& what = "") {
        device = test::plug(what);
        std::string serial = test::stats(device)["serial"];
        EXPECT_TRUE(requester_->online(serial)) << bridge_->log();
        return serial;
    }
    json job(const std::string& id, const std::string& path, std::size_t size, bool wait) const {
        const std::string line = "sha256sum " + path + " >" + folder_.path() + "/sum";
        EXPECT_EQ(std::system(line.c_str()), 0);
        return {{"id", id},
                {"url", "file://" + path},
                {"size", size},
                {"sha256", test::content_of(folder_.path() + "/sum").substr(0, 64)},
                {"wait", wait}};
    }
    void TearDown() override {
        if (HasFailure()) std::cerr << bridge_->log();
    }

    test::TemporaryFolder folder_;
    test::Broker broker_;
    std::unique_ptr<BridgeProcess> bridge_;
    std::unique_ptr<Requester> requester_;
    JovuDeviceAddress device_{};
};

TEST_F(Service, CarriesOutWhatIsPermittedAndRefusesTheRest) {
    begin("[requests]\nmax_lines = 3\n[devices]\nread_only = [\"READ*\"]\n");
    const std::string serial = add(device_);
    JovuDeviceAddress second{};
    add(second, "serial=READ1");
    EXPECT_TRUE(requester_->sees("jovu/devices/READ1/identity",
                                 [](const json& value) { return value["read_only"] == true; }));
    const struct {
        const char* serial;
        const char* operation;
        std::string payload;
        const char* end;
        const char* names;  ///< Stands in the response.
    } rows[] = {
        {"S", "call/bio_get_version", "{}", "done", "1.0.0"},
        {"S", "status", "{}", "done", R"("state":"idle")"},
        {"S", "gcode", R"({"id":"1","lines":["M115 ; version","","G28"]})", "done", R"("line":3)"},
        {"S", "gcode", R"({"id":"2","lines":["G28","NOPE","G28"]})", "refused", "line 2"},
        {"S", "gcode", R"({"id":"3","lines":["NOPE","G28"],"keep_going":true})", "refused",
         "1 of 2"},
        {"S", "gcode", R"({"id":"4","lines":["1","2","3","4"]})", "too_large", "4 elements"},
        {"S", "gcode", R"({"id":"5","lines":["G28\nG28"]})", "invalid_request", "not one line"},
        {"S", "pause", R"({"id":"6"})", "refused", "no job to pause"},
        {"S", "call/ui_led", R"({"id":"7","arguments":{"led":0,"on_count":1,"off_count":2}})",
         "done", "null"},
        {"S", "call/ui_led", R"({"arguments":{"led":0,"on_count":1,"off_count":2}})",
         "invalid_request", "id"},
        {"S", "call/ui_led", R"({"id":"8","arguments":{"led":"red","on_count":1,"off_count":2}})",
         "invalid_request", "red"},
        {"S", "call/ui_led", R"({"id":"8","arguments":{"led":0,"led":1}})", "invalid_request",
         "twice"},
        {"S", "call/heater_param_set",
         R"({"id":"8","arguments":{"param_num":0,"param_val":1e400}})", "invalid_request", "1e400"},
        {"S", "call/bio_get_version", R"({"argument":{}})", "invalid_request", "unknown member"},
        {"S", "call/bio_get_version", std::string(100, '['), "invalid_request", "nested"},
        {"S", "call/bio_get_version", "\xff", "invalid_request", "JSON"},
        {"S", "status", "{\"x\":\"" + std::string(65536, 'x') + "\"}", "too_large", "65536"},
        {"S", "call/Reset_printer", R"({"id":"9"})", "not_allowed", "Reset_printer"},
        {"S", "call/nope", R"({"id":"9"})", "unknown_operation", "nope"},
        {"READ1", "call/bio_get_serial", "{}", "done", ""},
        {"READ1", "call/ui_led", R"({"id":"9","arguments":{"led":0,"on_count":1,"off_count":2}})",
         "read_only", "ui_led"},
        {"READ1", "gcode", R"({"id":"9","lines":["G28"]})", "read_only", "gcode"},
        {"READ1", "trace", R"({"id":"9","servo":0,"seconds":1})", "read_only", "trace"},
        {"READ1", "abort", R"({"id":"9"})", "read_only", "abort"},
    };
    for (const auto& row : rows) {
        const std::string target = *row.serial == 'S' ? serial : row.serial;
        const json response =
            requester_->final(requester_->send_bytes(target, row.operation, row.payload));
        EXPECT_EQ(end_of(response), row.end) << row.operation << row.payload.substr(0, 80);
        EXPECT_THAT(response.dump(), HasSubstr(row.names));
    }
    // A retained request would be carried out at each connection. No response may look like a
    // state.
    EXPECT_EQ(end_of(requester_->final(requester_->send(serial, "call/ui_led", blink("r"), true))),
              "invalid_request");
    requester_->send(serial, "call/ui_led", blink("t"), false,
                     "jovu/devices/" + serial + "/status");
    EXPECT_EQ(end_of(requester_->ask(serial, "call/bio_get_version", json::object())), "done");
    EXPECT_EQ(test::requests(device_, "ui_led"), 1);
    EXPECT_EQ(test::requests(second, "ui_led") + test::requests(second, "servo_dc_trace_enable"),
              0);
    EXPECT_EQ(test::protocol_violations(device_), 0);
}

TEST_F(Service, CarriesARequestOutOnceWhateverEndsMeanwhile) {
    begin();
    const std::string serial = add(device_);
    EXPECT_EQ(end_of(requester_->ask(serial, "call/ui_led", blink("one"))), "done");
    json again = requester_->ask(serial, "call/ui_led", blink("one"));
    EXPECT_EQ(end_of(again), "done");
    EXPECT_EQ(again["repeated"], true);
    json other = blink("one");
    other["arguments"]["led"] = 1;
    EXPECT_EQ(end_of(requester_->ask(serial, "call/ui_led", other)), "invalid_request");

    // A repeat joins the request in progress. The broker dies while another is carried out.
    test::sim("fault " + test::name(device_) + " delay 1500");
    const std::string first = requester_->send(serial, "call/ui_led", blink("joined"));
    ASSERT_TRUE(eventually([&] { return test::requests(device_, "ui_led") == 2; }));
    again = requester_->ask(serial, "call/ui_led", blink("joined"));
    EXPECT_EQ(end_of(again), "done");
    EXPECT_EQ(again["repeated"], true);
    EXPECT_EQ(end_of(requester_->final(first)), "done");
    requester_->send(serial, "call/ui_led", blink("two"));
    ASSERT_TRUE(eventually([&] { return test::requests(device_, "ui_led") == 3; }));
    broker_.end();
    broker_.start();
    again = requester_->insist(serial, "call/ui_led", blink("two"));
    EXPECT_EQ(end_of(again), "done");
    test::sim("fault " + test::name(device_) + " clear");

    // The bridge dies: what it had begun is never begun again, and who left meanwhile is offline.
    JovuDeviceAddress second{};
    const std::string leaver = add(second);
    test::sim("fault " + test::name(device_) + " silent 1");
    requester_->send(serial, "call/ui_led", blink("three"));
    ASSERT_TRUE(eventually([&] { return test::requests(device_, "ui_led") == 4; }));
    EXPECT_EQ(bridge_->end(SIGKILL), -SIGKILL);
    EXPECT_TRUE(requester_->sees("jovu/bridges/b1",
                                 [](const json& value) { return value["state"] == "offline"; }));
    test::sim("unplug " + test::name(second));
    bridge_->start();
    EXPECT_TRUE(requester_->online(leaver, "offline"));
    again = requester_->insist(serial, "call/ui_led", blink("three"));
    EXPECT_EQ(end_of(again), "outcome_unknown");
    EXPECT_EQ(again["repeated"], true);
    again = requester_->insist(serial, "call/ui_led", blink("two"));
    EXPECT_EQ(end_of(again), "done");
    EXPECT_EQ(again["repeated"], true);
    EXPECT_EQ(test::requests(device_, "ui_led"), 4);

    EXPECT_EQ(bridge_->end(SIGTERM), 0);
    EXPECT_TRUE(requester_->online(serial, "offline"));
}

TEST_F(Service, ADeviceThatHangsOrLeavesEndsItsOwnRequestsOnly) {
    begin("[requests]\nmax_queue = 4\n");
    const std::string hangs = add(device_);
    JovuDeviceAddress second{};
    const std::string works = add(second);
    JovuDeviceAddress same = test::plug("serial=" + works);
    EXPECT_TRUE(requester_->sees("jovu/devices/" + works + "/availability", [](const json& value) {
        return value["reason"].get<std::string>().find("left alone") != std::string::npos;
    }));

    test::sim("fault " + test::name(device_) + " silent always");
    // The first is in progress before the others come, of which four may wait.
    std::vector<std::string> sent{requester_->send(hangs, "call/ui_led", blink("0"))};
    ASSERT_TRUE(eventually([&] { return test::requests(device_, "ui_led") == 1; }));
    for (int i = 1; i < 8; ++i) {
        sent.push_back(requester_->send(hangs, "call/ui_led", blink(std::to_string(i))));
    }
    EXPECT_EQ(end_of(requester_->ask(works, "call/ui_led", blink("w"))), "done");
    EXPECT_EQ(end_of(requester_->final(sent.back())), "busy");
    EXPECT_EQ(requester_->responses(sent.front()), 0U);

    test::sim("unplug " + test::name(device_));
    EXPECT_EQ(end_of(requester_->final(sent[0])), "disconnected");
    EXPECT_EQ(end_of(requester_->final(sent[1])), "disconnected");
    EXPECT_TRUE(requester_->online(hangs, "offline"));
    EXPECT_EQ(end_of(requester_->ask(hangs, "call/ui_led", blink("late"))), "unavailable");
    EXPECT_EQ(end_of(requester_->ask(hangs, "call/ui_led", blink("0"))), "disconnected");

    // The other controller of the same serial number takes the place of the one that leaves.
    EXPECT_EQ(test::requests(same, "bio_get_version"), 0);
    test::sim("unplug " + test::name(second));
    EXPECT_TRUE(eventually([&] { return test::requests(same, "bio_get_version") > 0; }));
    EXPECT_EQ(end_of(requester_->insist(works, "call/ui_led", blink("x"))), "done");
    EXPECT_EQ(test::requests(same, "ui_led"), 1);

    // Two bridges have a device of this name: neither moves one.
    requester_->tell(works, "online");
    EXPECT_TRUE(requester_->sees("jovu/devices/" + works + "/availability", [](const json& value) {
        return value["reason"].get<std::string>().find("the bridge b2") != std::string::npos;
    }));
    EXPECT_EQ(end_of(requester_->ask(works, "call/ui_led", blink("y"))), "unavailable");
    EXPECT_EQ(end_of(requester_->ask(works, "call/bio_get_version", json::object())), "done");
    requester_->tell(works, "offline");
    EXPECT_TRUE(requester_->online(works));
    EXPECT_EQ(end_of(requester_->insist(works, "call/ui_led", blink("y"))), "done");
    EXPECT_EQ(test::requests(same, "ui_led"), 2);

    // What was plugged into another computer is not said to be offline at the next connection.
    requester_->tell(hangs, "online");
    ASSERT_TRUE(requester_->online(hangs));
    broker_.end();
    broker_.start();
    EXPECT_EQ(end_of(requester_->insist(works, "status", json::object())), "done");
    EXPECT_TRUE(requester_->online(hangs));
}

TEST_F(Service, TellsWhatItLostWhileTheBrokerWasAway) {
    begin("[outbox]\nmax_events = 5\n");
    const std::string serial = add(device_);
    test::sim("event " + test::name(device_) + " before");
    ASSERT_TRUE(requester_->sees("jovu/devices/" + serial + "/event",
                                 [](const json& value) { return value["text"] == "before"; }));
    const std::size_t seen = requester_->events(serial).size();
    broker_.end();
    // What was handed to the connection before it noticed is sent again and not lost.
    ASSERT_TRUE(
        eventually([&] { return bridge_->log().find("no connection") != std::string::npos; }));
    for (int i = 0; i < 30; ++i) {
        test::sim("event " + test::name(device_) + " e" + std::to_string(i));
    }
    broker_.start();
    ASSERT_TRUE(requester_->sees("jovu/devices/" + serial + "/event", [](const json& value) {
        return value.value("text", "") == "e29";
    }));
    const std::vector<json> events = requester_->events(serial);
    std::uint64_t told = 0;
    std::uint64_t received = 0;
    for (std::size_t i = seen; i < events.size(); ++i) {
        if (events[i]["kind"] == "lost") told += events[i]["count"].get<std::uint64_t>();
        if (events[i]["kind"] == "debug" && events[i]["text"] != "before") ++received;
    }
    EXPECT_EQ(told, 25U);
    EXPECT_EQ(received, 5U);
    EXPECT_TRUE(
        requester_->sees("jovu/bridges/b1", [](const json& value) { return value["lost"] == 25; }));
}

TEST_F(Service, FetchesSendsAndFollowsJobs) {
    begin("[jobs]\nfolders = [\"" + folder_.path() + "\"]\n");
    const std::string serial = add(device_);
    const std::string small = folder_.write("small", test::job_content(100'000));
    const std::string large = folder_.write("large", test::job_content(60'000'000));
    json request = job("j1", small, 100'000, true);
    request["sha256"] = std::string(64, '0');
    EXPECT_EQ(end_of(requester_->ask(serial, "job", request)), "checksum_differs");
    request["url"] = "file:///etc/passwd";
    EXPECT_EQ(end_of(requester_->ask(serial, "job", request)), "not_allowed");
    EXPECT_EQ(test::stats(device_)["job"]["pushes"], 0);

    // A failed fetch did nothing, so its id can be used again.
    json response = requester_->ask(serial, "job", job("j1", small, 100'000, true));
    EXPECT_EQ(end_of(response), "done") << response;
    EXPECT_EQ(response["result"]["phase"], "finished") << response;
    EXPECT_EQ(test::stats(device_)["job"]["verified"], true);
    response = requester_->ask(serial, "job", job("j1", small, 100'000, true));
    EXPECT_EQ(response["repeated"], true);
    EXPECT_EQ(test::stats(device_)["job"]["pushes"], 1);

    const std::string push = requester_->send(serial, "job", job("j2", large, 60'000'000, false));
    const std::string topic = "jovu/devices/" + serial + "/job";
    ASSERT_TRUE(requester_->sees(topic, [](const json& value) {
        return value["id"] == "j2" && value["phase"] == "sending" && value["sent"] > 0;
    }));
    EXPECT_EQ(end_of(requester_->ask(serial, "pause", {{"id", "p"}})), "busy");
    EXPECT_EQ(end_of(requester_->ask(serial, "abort", {{"id", "a"}})), "done");
    EXPECT_EQ(end_of(requester_->final(push)), "cancelled");
    EXPECT_EQ(test::stats(device_)["job"]["verified"], false);
    EXPECT_EQ(end_of(requester_->ask(serial, "status", json::object())), "done");
}

TEST_F(Service, TurnsATraceOffHoweverItEnds) {
    begin();
    const std::string serial = add(device_);
    const auto traced = [&] { return test::stats(device_)["machine"]["servos"][1]["traced"]; };
    json response = requester_->ask(serial, "trace", {{"id", "t"}, {"servo", 1}, {"seconds", 0.3}});
    EXPECT_EQ(end_of(response), "done");
    EXPECT_GT(response["result"]["samples"], 100);
    EXPECT_EQ(traced(), false);
    const auto begin_long = [&](const std::string& id) {
        requester_->send(serial, "trace", {{"id", id}, {"servo", 1}, {"seconds", 50}});
        return eventually([&] { return traced() == true; });
    };
    ASSERT_TRUE(begin_long("killed"));
    bridge_->end(SIGKILL);
    EXPECT_EQ(traced(), true);
    bridge_->start();
    EXPECT_TRUE(eventually([&] { return traced() == false; }));
    ASSERT_TRUE(begin_long("stopped"));
    // Samples of another servo are none of this trace.
    response =
        requester_->ask(serial, "call/servo_dc_trace_enable",
                        {{"id", "other"}, {"arguments", {{"servo_name", 0}, {"enable", true}}}});
    EXPECT_EQ(end_of(response), "done");
    EXPECT_TRUE(eventually(
        [&] { return test::stats(device_)["machine"]["servos"][0]["traced"] == false; }));
    EXPECT_EQ(traced(), true);
    EXPECT_EQ(bridge_->end(SIGTERM), 0);
    EXPECT_EQ(traced(), false);
}

}  // namespace
