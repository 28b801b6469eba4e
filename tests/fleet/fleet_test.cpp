// SPDX-License-Identifier: Apache-2.0
#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <functional>
#include <map>
#include <mutex>
#include <vector>

#include "cli_test.h"
#include "mqtt/client.h"
#include "mqtt/topics.h"
#include "support/broker.h"

namespace test {
namespace {

using jovu_mqtt::Client;
using jovu_mqtt::Message;
using namespace std::chrono_literals;

/// Puts a prefix before the options of a fleet.
std::string on(const Broker& broker, const std::string& line) {
    return "--fleet " + broker.url() + " " + line;
}

/// Stands for a bridge: publishes given messages, and responds by a function.
class StandIn {
public:
    /// A request as it arrived.
    struct Request {
        std::string serial;
        std::string operation;
        json payload;
    };
    /// @return the responses to a request; those without a state are completed as "done".
    using Respond = std::function<std::vector<json>(const Request&)>;

    StandIn(const Broker& broker, Respond respond)
        : respond_(std::move(respond)), client_(options(broker), handlers()) {
        client_.subscribe({"jovu/devices/+/request/#", 1, true, false});
        client_.start();
        publish("jovu/bridges/hall", {{"state", "online"}});
    }

    void add_device(const std::string& serial, json availability = {{"state", "online"}}) {
        availability["bridge"] = "hall";
        publish("jovu/devices/" + serial + "/identity",
                {{"serial", serial}, {"bridge", "hall"}, {"version", "9"}, {"port", "1-1"}});
        publish("jovu/devices/" + serial + "/availability", availability);
    }
    void publish(const std::string& topic, const json& payload) {
        client_.publish({topic, payload.dump(), 1, true});
        ASSERT_TRUE(client_.wait_unacknowledged(0, jovu_mqtt::Clock::now() + kPatience));
    }
    std::vector<Request> requests() {
        const std::scoped_lock lock(mutex_);
        return requests_;
    }

private:
    static jovu_mqtt::ClientOptions options(const Broker& broker) {
        jovu_mqtt::ClientOptions options;
        options.broker = jovu_mqtt::parse_broker_url(broker.url());
        options.client_id = "stand-in";
        options.min_pause = 10ms;
        options.max_pause = 50ms;
        return options;
    }
    jovu_mqtt::Handlers handlers() {
        jovu_mqtt::Handlers handlers;
        handlers.message = [this](const Message& message) { take(message); };
        return handlers;
    }
    void take(const Message& message) {
        const auto topic = jovu_mqtt::Topics().parse_device(message.topic);
        const Request request{topic->serial, topic->leaf.substr(8), json::parse(message.payload)};
        {
            const std::scoped_lock lock(mutex_);
            requests_.push_back(request);
        }
        for (json response : respond_(request)) {
            response.update({{"id", request.payload["id"]},
                             {"serial", request.serial},
                             {"operation", request.operation}});
            if (!response.contains("state")) response["state"] = "done";
            Message out{message.properties.response_topic, response.dump()};
            out.properties.correlation_data = message.properties.correlation_data;
            client_.publish(std::move(out));
        }
    }

    std::mutex mutex_;
    std::vector<Request> requests_;
    Respond respond_;
    Client client_;
};

json failed(const char* code, const char* message) {
    return {{"state", "failed"}, {"error", {{"code", code}, {"message", message}}}};
}

TEST(Fleet, ChoosesDevicesAndCountsThoseThatFail) {
    const Broker broker;
    StandIn bridge(broker, [](const StandIn::Request& request) -> std::vector<json> {
        if (request.serial == "B2") return {failed("refused", "no paper")};
        return {{{"result", {{"state", "idle " + request.serial}}}}};
    });
    EXPECT_THAT(jovu(on(broker, "list")), Exits(3, "no device at " + broker.url() + "/jovu"));
    for (const char* const serial : {"A1", "A2", "B2"})
        bridge.add_device(serial);
    const struct {
        const char* line;
        int status;
        const char* text;
    } cases[] = {
        {"list", 0, "B2  version 9  port 1-1  bridge hall"},
        {"status", 4, "A1, A2, B2"},
        {"status -s A1", 0, "State         idle A1"},
        {"status -s A?", 0, "A1  idle A1"},
        {"-s A1 -s A2 status", 0, "A2  idle A2"},
        {"status -s A1 -s B*", 21, "devices failed: 1 of 2"},
        {"status -s C*", 3, "no device 'C*'"},
        {"status -s A1 -s C1", 3, "no device 'C1'"},
        {"status --all", 21, "devices failed: 1 of 3"},
        {"status --all -s A1", 2, "exclude"},
        {"abort --all", 21, "devices failed: 1 of 3"},
        {"call -s A1 bio_get_nonsense", 2, "bio_get_nonsense"},
        {"-d 1:2 status", 2, "local devices"},
        {"update x.img", 2, "'update' is not available with --fleet"},
        {"push --attach", 2, "--attach is not available"},
        {"push --all https://h/x", 2, "--size and --sha256"},
    };
    for (const auto& one : cases)
        EXPECT_THAT(jovu(on(broker, one.line)), Exits(one.status, one.text)) << one.line;
    EXPECT_THAT(jovu("--all status"), Exits(2, "need --fleet"));

    // One that its bridge has lost, and one whose bridge has gone: their lines say so.
    bridge.add_device("B3", {{"state", "offline"}, {"reason", "unplugged"}});
    const std::string lost = jovu(on(broker, "list")).out;
    EXPECT_THAT(lost, HasSubstr("B3  failed   offline: unplugged"));
    bridge.publish("jovu/bridges/hall", {{"state", "offline"}});
    const std::size_t before = bridge.requests().size();
    const Ended all = jovu(on(broker, "--json abort --all"));
    EXPECT_EQ(all.status, 24);
    EXPECT_THAT(all.out, HasSubstr(R"({"serial":"A1","bridge":"hall","error":{"code":"unavailable")"
                                   R"(,"message":"its bridge hall is offline"}})"));
    EXPECT_EQ(bridge.requests().size(), before);

    setenv("JOVU_FLEET", broker.url().c_str(), 1);
    EXPECT_EQ(jovu("list").status, 24);
    EXPECT_EQ(jovu("help").status, 0);
    EXPECT_THAT(jovu("--fleet \"\" list"), Exits(3, "nothing is attached"));
    unsetenv("JOVU_FLEET");
}

TEST(Fleet, FindsTheDevicesWithoutPermissionToPublish) {
    const TemporaryFolder folder;
    const Broker broker("allow_anonymous true\nacl_file " +
                        folder.write("acl",
                                     "topic readwrite jovu/devices/#\n"
                                     "topic readwrite jovu/bridges/#\n"
                                     "topic read jovu/responses/#\n") +
                        "\n");
    StandIn bridge(broker, [](const StandIn::Request&) { return std::vector<json>(); });
    for (int number = 0; number < 100; ++number)
        bridge.add_device(std::to_string(number));
    const Ended ended = jovu(on(broker, "list"));
    EXPECT_THAT(ended, Exits(0, "99  version 9"));
    EXPECT_EQ(std::count(ended.out.begin(), ended.out.end(), '\n'), 100);
}

TEST(Fleet, RepeatsARequestUntilItsOutcomeArrives) {
    Broker broker;
    std::atomic<int> silent{1};
    StandIn bridge(broker, [&silent](const StandIn::Request&) -> std::vector<json> {
        if (silent-- > 0) return {};
        return {{{"state", "accepted"}}, {{"result", {{"state", "stopped"}}}}};
    });
    bridge.add_device("A1");
    // The repetition after a pause.
    EXPECT_THAT(jovu(on(broker, "abort")), Exits(0, "A1  abort  stopped"));
    ASSERT_EQ(bridge.requests().size(), 2U);
    EXPECT_EQ(bridge.requests()[0].payload, bridge.requests()[1].payload);

    // The repetition over another connection; a response to the first one is lost.
    silent = 1;
    Program program(on(broker, "abort"));
    ASSERT_TRUE(eventually([&] { return bridge.requests().size() == 3; }));
    broker.end();
    broker.start();
    const Ended ended = program.finish();
    EXPECT_THAT(ended, Exits(0, "A1  abort  stopped"));
    EXPECT_THAT(ended.err, HasSubstr("connection to the broker was lost"));
    EXPECT_EQ(bridge.requests().back().payload, bridge.requests()[2].payload);
    EXPECT_NE(bridge.requests().back().payload, bridge.requests()[0].payload);
}

TEST(Fleet, TellsWhenAnOutcomeIsUnknown) {
    const Broker broker;
    StandIn bridge(broker, [](const StandIn::Request&) { return std::vector<json>(); });
    bridge.add_device("A1");
    const auto received = [&](std::size_t count) {  // The program may end before that.
        return eventually([&] { return bridge.requests().size() == count; });
    };
    const Ended ended = jovu(on(broker, "gcode G28 --timeout 0.2"));
    ASSERT_TRUE(received(1));
    const std::string id = bridge.requests().at(0).payload["id"];
    EXPECT_THAT(id, MatchesRegex("[0-9a-f]{32}"));
    EXPECT_EQ(ended.status, 21);
    EXPECT_THAT(ended.out, HasSubstr("outcome unknown: no response within 0.2 s; the same command "
                                     "with --request-id " +
                                     id + " asks again"));
    EXPECT_THAT(jovu(on(broker, "--json gcode G28 --timeout 0.2 --request-id mine")).out,
                HasSubstr(R"("code":"outcome_unknown")"));
    ASSERT_TRUE(received(2));
    EXPECT_EQ(bridge.requests().back().payload["id"], "mine");
    EXPECT_THAT(jovu(on(broker, "status --timeout 0.2")).out, HasSubstr("failed   no response"));
    ASSERT_TRUE(received(3));

    Program program(on(broker, "gcode G28"));
    ASSERT_TRUE(received(4));
    program.signal(SIGINT);
    EXPECT_THAT(program.finish(), Exits(130, "interrupted: outcome unknown: A1"));
}

TEST(Fleet, FollowsEventsStatusAndJobs) {
    const Broker broker;
    StandIn bridge(broker, [](const StandIn::Request&) -> std::vector<json> {
        std::vector<json> responses{{{"state", "accepted"}}};
        for (const double percent : {1.0, 2.0, 55.0})
            responses.push_back({{"state", "progress"},
                                 {"progress", {{"phase", "sending"}, {"percent", percent}}}});
        responses.push_back({{"result", {{"job_id", "job-7"}}}});
        return responses;
    });
    bridge.add_device("A1");
    bridge.add_device("B1");

    const std::string job = broker.folder().write("part 1.gcode", "G28\n");
    EXPECT_THAT(jovu(on(broker, "-s A1 push \"" + job + "\"")),
                Exits(0, "A1  sending 1 %\nA1  sending 55 %\nA1  accepted: job job-7\n"));
    const json asked = bridge.requests().at(0).payload;
    EXPECT_EQ(asked["url"], "file://" + broker.folder().path() + "/part%201.gcode");
    EXPECT_EQ(asked["size"], 4);
    EXPECT_EQ(asked["sha256"], "8080cd1d636d28b227689516fdadfd2aaed94e57b113db13523a38b51d0d09e9");

    const json event = {{"time", "2030-01-02T03:04:05.678Z"}, {"kind", "debug"}, {"text", "hot\n"}};
    Program events(on(broker, "events -s A*"));
    ASSERT_TRUE(eventually([&] {
        bridge.publish("jovu/devices/B1/event", event);
        bridge.publish("jovu/devices/A1/event", event);
        return events.writes("hot", 50ms);
    }));
    EXPECT_THAT(events.out(), StartsWith("A1  03:04:05.678Z  hot\n"));
    EXPECT_THAT(events.out(), Not(HasSubstr("B1")));

    Program watch(on(broker, "--json status --all --watch --interval 0.1"));
    bridge.publish("jovu/devices/A1/status", {{"state", "printing"}, {"time", "now"}});
    EXPECT_TRUE(watch.writes(R"({"serial":"A1","bridge":"hall","state":"printing")"));

    Program monitor(on(broker, "monitor"), Out::console);
    EXPECT_TRUE(monitor.writes("printing"));
    bridge.add_device("B1", {{"state", "offline"}, {"reason", "unplugged"}});
    EXPECT_TRUE(monitor.writes("offline: unplugged"));
    monitor.type("q");
    EXPECT_EQ(monitor.finish().status, 0);
}

TEST(Fleet, TellsWhyItHasNoBroker) {
    const TemporaryFolder folder;
    const std::string wrong = folder.write("password", "wrong\n");
    const std::string passwords = folder.path() + "/passwords";
    ASSERT_EQ(std::system(("mosquitto_passwd -b -c " + passwords + " me right").c_str()), 0);
    const Broker broker("password_file " + passwords + "\n");
    const std::string host = broker.host();
    const struct {
        std::string line;
        int status;
        const char* text;
    } cases[] = {
        {on(broker, "list"), 1, "Not authorized"},
        {on(broker, "list --fleet-user me --fleet-password-file " + wrong), 1, "Not authorized"},
        {on(broker, "list --fleet-password-file /none"), 2, "cannot read the password file"},
        {"list --fleet mqtt://" + host + ":1 --timeout 0.5", 1, "Connection refused"},
        {"list --fleet mqtt://broker.lan", 2, "--fleet-plain-text"},
        {"list --fleet mqtt://broker.lan --fleet-plain-text", 2, "neither encrypted nor"},
        {"list --fleet http://broker.lan", 2, "mqtt:// or mqtts://"},
        {"list --fleet mqtts://" + host + " --fleet-ca /none", 2,
         "cannot read the file of trusted"},
    };
    for (const auto& one : cases)
        EXPECT_THAT(jovu(one.line), Exits(one.status, one.text)) << one.line;
    const std::string right = folder.write("password", "right\n");
    EXPECT_THAT(jovu(on(broker, "list --fleet-user me --fleet-password-file " + right)),
                Exits(3, "no device"));
}

#ifdef JOVU_BRIDGE_PROGRAM

/// A jovu-bridge on the simulated bus. The destructor ends it.
class Bridge {
public:
    explicit Bridge(const Broker& broker) : broker_(broker), parent_(getpid()) {
        configuration_ = broker.folder().write(
            "bridge.toml", "name = \"hall\"\nstate_folder = \"" + broker.folder().path() +
                               "/state\"\n[broker]\nurl = \"" + broker.url() +
                               "\"\n[jobs]\nkeep_free = 0\nfolders = [\"" + broker.folder().path() +
                               "\"]\n[metrics]\naddress = \"\"\n");
        mkdir((broker.folder().path() + "/state").c_str(), 0700);
        start();
    }
    ~Bridge() { end(SIGTERM); }
    Bridge(const Bridge&) = delete;
    Bridge& operator=(const Bridge&) = delete;

    void start() {
        const std::string log = broker_.folder().path() + "/bridge.log";
        pid_ = fork();
        if (pid_ < 0) throw std::runtime_error("fork");
        if (pid_ == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            if (getppid() != parent_) _exit(1);
            const int fd = open(log.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
            dup2(fd, STDOUT_FILENO);
            dup2(fd, STDERR_FILENO);
            execl(JOVU_BRIDGE_PROGRAM, "jovu-bridge", "--config", configuration_.c_str(), nullptr);
            _exit(127);
        }
    }
    void end(int signal) {
        kill(pid_, signal);
        waitpid(pid_, nullptr, 0);
    }

private:
    const Broker& broker_;
    const pid_t parent_;
    std::string configuration_;
    pid_t pid_ = -1;
};

TEST(Fleet, DrivesTheDevicesOfABridge) {
    const Broker broker;
    plug("serial=A1");
    const JovuDeviceAddress second = plug("serial=A2");
    Bridge bridge(broker);
    ASSERT_TRUE(eventually([&] { return jovu(on(broker, "list -s A1 -s A2")).status == 0; }));
    EXPECT_THAT(jovu(on(broker, "status --all")), Exits(0, "A2  idle  "));
    EXPECT_THAT(jovu(on(broker, "gcode --all G28 \"M105 ; x\"")),
                Exits(0, "A1  ok       G28\nA1  ok       M105\nA1           | ok T:"));
    EXPECT_THAT(jovu(on(broker, "call --all bio_get_serial")), Exits(0, "A2  A2\n"));
    EXPECT_THAT(jovu(on(broker, "pause --all")), Exits(22, "devices failed: 2 of 2"));
    const Ended object = jovu(on(broker, "--json gcode -s A1 G28"));
    EXPECT_EQ(object.out,
              "{\"serial\":\"A1\",\"bridge\":\"hall\",\"line\":1,\"command\":\"G28\","
              "\"result\":0,\"accepted\":true,\"texts\":[]}\n");

    const std::string job = broker.folder().write("part.gcode", std::string(20000, '\n'));
    EXPECT_THAT(jovu(on(broker, "push --all --wait " + job)), Exits(0, "A2  finished: job "));

    // The same request is carried out once.
    const std::string again = on(broker, "gcode -s A2 M105 --request-id once");
    const int before = requests(second, "gcode_process_command");
    EXPECT_THAT(jovu(again), Exits(0, "A2  ok       M105"));
    EXPECT_THAT(jovu(again), Exits(0, "A2  ok       M105"));
    EXPECT_EQ(requests(second, "gcode_process_command"), before + 1);

    sim("unplug " + name(second));
    ASSERT_TRUE(eventually([&] { return jovu(on(broker, "list")).status == 21; }));
    bridge.end(SIGKILL);
    ASSERT_TRUE(eventually(
        [&] { return jovu(on(broker, "list")).out.find("A1  failed   its bridge hall") == 0; }));
    bridge.start();
}

#endif

}  // namespace
}  // namespace test
