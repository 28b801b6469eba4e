// The job channel: requests, pushes, status reports.
#include <gtest/gtest.h>
#include <zlib.h>

#include <map>

#include "firmware_host.h"

namespace jovusim::test {
namespace {

std::string request(const std::string& type) {
    return R"({"metadata":{"version":1,"type":")" + type + R"("}})";
}

std::string pushing(const std::string& body) {
    return R"({"metadata":{"version":1,"type":"file_push"},"file_push":)" + body + "}";
}

std::string data(std::size_t size) {
    std::string out(size, '\0');
    for (std::size_t i = 0; i < size; ++i)
        out[i] = static_cast<char>(i * 31 >> 3U);
    return out;
}

/// The protocol's checksum starts from 0, not from 1.
unsigned long sum_of(const std::string& bytes) {
    return adler32_z(0, reinterpret_cast<const Bytef*>(bytes.data()), bytes.size());
}

/// @param wrong added to the checksum @param more members
std::string announcement(const std::string& bytes, const std::string& id = "",
                         unsigned long wrong = 0, const std::string& more = "") {
    return pushing("{\"size\":" + std::to_string(bytes.size()) +
                   ",\"adler32\":" + std::to_string(sum_of(bytes) + wrong) + ",\"job_id\":\"" + id +
                   "\"" + more + "}");
}

std::string push(const std::string& bytes, const std::string& id = "") {
    return announcement(bytes, id) + bytes;
}

Json report(FirmwareHost& host) {
    host.send(kJobOut, request("status"));
    return Json::parse(host.read(kJobIn));
}

TEST(JobChannel, ReportsEveryField) {
    FirmwareHost host;
    host.send(kJobOut, push(data(10), "my-job"));
    host.now += 1500;
    Json got = report(host);
    EXPECT_GT(got["status"]["extruder_temperature"], 100.0);
    got["status"].erase("extruder_temperature");
    EXPECT_EQ(got.dump(),
              R"({"metadata":{"version":1,"type":"status"},)"
              R"("printer":{"model_name":"JoVu Simulator","cpu_id":"JVSTEST",)"
              R"("firmware":{"name":"jovu-sim","version":"1.0.0"},"accept_version":1},)"
              R"("status":{"state":"printing","build_plate":"present","filament":"loaded"},)"
              R"("job":{"id":"my-job","progress":37,"file":"push-1.gcode","time_elapsed":1},)"
              R"("time":{"boot":1,"idle":0},"error":0})");
    EXPECT_EQ(host.violations(), 0U);
}

TEST(JobChannel, AReportIsARunOfPackets) {
    FirmwareHost host;
    for (std::size_t id_length = 0; id_length < 70; ++id_length) {
        host.send(kJobOut, push("", std::string(id_length, 'x')));
        host.send(kJobOut, request("status") + request("status") + request("abort"));
        std::vector<std::string> runs(1);
        for (const std::string& packet : host.packets(kJobIn)) {
            ASSERT_LE(packet.size(), kMaxPacket);
            runs.back() += packet;
            if (packet.size() < kMaxPacket) runs.emplace_back();
        }
        ASSERT_EQ(runs.size(), 3U) << "id of " << id_length;
        EXPECT_TRUE(Json::accept(runs[0]) && Json::accept(runs[1]) && runs[2].empty());
    }
}

/// Plays steps such as "push10 pause -> paused 0 0;": what is sent at once, by the names below, or
/// the milliseconds that pass, then state, progress and error of the job.
std::string play(FirmwareHost& host, const std::string& script) {
    static const std::map<std::string, std::string> sent = {
        {"pause", request("pause")},
        {"abort", request("abort")},
        {"status", request("status")},
        {"push0", push("")},
        {"push10", push(data(10))},
        {"push5121", push(data(5121))},
        {"push7000", push(data(7000))},
        {"pushabort", push(data(50) + request("abort"))},
        {"pushbraces", push("", R"({{ \"})")},
        {"pushabc", push("abc")},
        {"compressed", announcement("abc", "", 0,
                                    R"(,"compression":{"algorithm":"deflate",)"
                                    R"("decompressed_length":99})") +
                           "abc"},
        {"announceabc", announcement("abc")},
        {"badsum", announcement("abc", "", 1)},
        {"announce300", announcement(data(300))},
        {"data200", data(200)},
    };
    std::string out;
    std::istringstream steps(script);
    for (std::string step; std::getline(steps, step, ';');) {
        step = step.substr(0, step.find(" ->"));
        std::istringstream words(step);
        std::string bytes;
        for (std::string word; words >> word;) {
            if (word[0] == '+') {
                host.now += std::stol(word);
            } else {
                const auto found = sent.find(word);
                bytes += found == sent.end() ? word : found->second;
            }
        }
        if (!bytes.empty()) host.send(kJobOut, bytes);
        const Json job = host.stats()["job"];
        out += step + " -> " + job["state"].get<std::string>() + " " + job["progress"].dump() +
               " " + job["error"].dump() + ";";
    }
    return out;
}

TEST(JobChannel, Conversations) {
    const struct {
        const char* script;
        unsigned violations = 0;
        double time_scale = 1;
    } cases[] = {
        {"push5121 -> printing 0 0;+2000 -> printing 50 0;+2000 -> finished 100 0;"},
        {"push0 -> printing 0 0;"},
        {"compressed -> printing 0 0;"},
        {"pushbraces -> printing 0 0;"},
        {"push10 -> printing 0 0;+1000 -> printing 25 0;pause -> paused 25 0;+60000 -> paused 25 0;"
         "pause -> printing 25 0;+2900 -> printing 97 0;+100 -> finished 100 0;"},
        {"push10 pause -> paused 0 0;"},
        {"pause abort -> idle 0 0;"},
        {"pushabort -> printing 0 0;"},
        {"announce300 status abort -> receiving 0 0;"},
        {"badsum abc -> error 0 2;pushabc -> printing 0 0;", 1},
        {"announce300 data200 -> receiving 0 0;+10000 -> receiving 0 0;+1 -> error 0 1;", 1},
        {"announceabc a -> receiving 0 0;+9999 -> receiving 0 0;b -> receiving 0 0;"
         "+9999 -> receiving 0 0;c -> printing 0 0;"},
        {"push10 -> printing 0 0;push7000 -> printing 0 4;abort -> aborted 0 0;+5000 -> aborted 0 "
         "0;"},
        {"announceabc -> receiving 0 0;+9000 -> receiving 0 0;abc -> printing 0 0;"
         "+41 -> finished 100 0;",
         0, 100},
    };
    for (const auto& c : cases) {
        FirmwareHost host(c.time_scale);
        EXPECT_EQ(play(host, c.script), c.script);
        EXPECT_EQ(host.read(kJobIn), "") << c.script;
        EXPECT_EQ(host.violations(), c.violations) << c.script;
    }
    EXPECT_EQ(sum_of("abc"), 0x024A0126U);
}

TEST(JobChannel, RefusesWhatItCannotRead) {
    const std::pair<std::string, int> cases[] = {
        {"{oops}", 5},
        {R"({"a":1})", 5},
        {request("dance"), 5},
        {R"({"metadata":{"version":2,"type":"status"}})", 5},
        {R"({"metadata":{"type":"status","version":1}})", 5},
        {R"({"metadata":{"version":1,"type":1}})", 5},
        {"{\"a\":" + std::string(3000, '[') + std::string(3000, ']') + "}", 5},
        {std::string(70000, '{'), 5},
        {request("file_push"), 3},
        {pushing(R"({"size":-1,"adler32":0,"job_id":""})"), 3},
        {pushing(R"({"size":1,"adler32":4294967296,"job_id":""})"), 3},
        {pushing(R"({"size":1,"adler32":0,"job_id":1})"), 3},
        {pushing(R"({"adler32":0,"size":1,"job_id":""})"), 3},
        {announcement("a", "", 0, R"(,"compression":{"algorithm":"zip","decompressed_length":1})"),
         3},
    };
    for (const auto& [sent, error] : cases) {
        FirmwareHost host;
        host.send(kJobOut, sent);
        EXPECT_EQ(host.stats()["job"]["error"], error) << sent.substr(0, 99);
        EXPECT_EQ(host.stats()["job"]["state"], "error") << sent.substr(0, 99);
        EXPECT_GT(host.violations(), 0U) << sent.substr(0, 99);
        EXPECT_EQ(host.read(kJobIn), "") << sent.substr(0, 99);
    }
}

TEST(JobChannel, FindsARequestThatComesInPieces) {
    FirmwareHost host;
    for (const char c : request("status"))
        host.send(kJobOut, std::string(1, c));
    EXPECT_EQ(Json::parse(host.read(kJobIn))["error"], 0);
    host.send(kJobOut, "stray");
    EXPECT_EQ(report(host)["error"], 0);
    EXPECT_EQ(host.violations(), 1U);
}

}  // namespace
}  // namespace jovusim::test
