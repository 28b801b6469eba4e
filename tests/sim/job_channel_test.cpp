// SPDX-License-Identifier: Apache-2.0

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

const std::string kJob(300, 'x');

std::string announcement(const std::string& id = "") {
    // The protocol's checksum starts from 0, not from 1.
    const auto sum = adler32_z(0, reinterpret_cast<const Bytef*>(kJob.data()), kJob.size());
    return pushing(R"({"size":300,"adler32":)" + std::to_string(sum) + R"(,"job_id":")" + id +
                   "\"}");
}

/// The response to a request that comes in pieces.
Json report(FirmwareHost& host) {
    for (const char c : request("status"))
        host.send(kJobOut, std::string(1, c));
    return Json::parse(host.read(kJobIn));
}

TEST(JobChannel, ReportsEveryField) {
    FirmwareHost host;
    host.send(kJobOut, announcement("my-job") + kJob);
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
    for (const int seconds : {5, 2}) {
        host.now += Millis{1000} * seconds;
        EXPECT_EQ(report(host)["time"]["idle"], seconds) << "since the request before";
    }
    host.now += 1000;
    host.ask("bio_get_version");
    host.now += 1000;
    EXPECT_EQ(report(host)["time"]["idle"], 1) << "since a request on the other channel";
}

/// Plays steps such as "push pause -> paused 0 0;": what is sent at once, by the names below, or
/// the milliseconds that pass, then state, progress and error of the job and "!" for each
/// violation.
std::string play(FirmwareHost& host, const std::string& script) {
    static const std::map<std::string, std::string> sent = {
        {"pause", request("pause")},
        {"abort", request("abort")},
        {"status", request("status")},
        {"push", announcement() + kJob},
        {"announce", announcement()},
        {"third", kJob.substr(200)},
        {"deep", "{\"a\":" + std::string(3000, '[') + std::string(3000, ']') + "}"},
        {"endless", std::string(65537, '{')},
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
                bytes += found != sent.end()       ? found->second
                         : word.find("push{") == 0 ? pushing(word.substr(4))
                                                   : word;
            }
        }
        if (!bytes.empty()) host.send(kJobOut, bytes);
        const Json job = host.stats()["job"];
        out += step + " -> " + job["state"].get<std::string>() + " " + job["progress"].dump() +
               " " + job["error"].dump() +
               std::string(host.controller.take_violations().size(), '!') + ";";
    }
    return out;
}

constexpr const char* kConversations[] = {
    "push -> printing 0 0;+2000 -> printing 50 0;+2000 -> finished 100 0;",
    R"(push{"size":0,"adler32":0,"job_id":"{{\"}"} -> printing 0 0;)",
    R"(push{"size":3,"adler32":38404390,"job_id":"","compression":{"algorithm":"deflate","decompressed_length":9}}
abc -> printing 0 0;)",
    R"(push -> printing 0 0;+1000 -> printing 25 0;pause -> paused 25 0;+60000 -> paused 25 0;
pause -> printing 25 0;+2900 -> printing 97 0;+100 -> finished 100 0;)",
    "push pause -> paused 0 0;",
    "pause abort -> idle 0 0;",
    "announce status abort -> receiving 0 0;",
    R"(push{"size":3,"adler32":1,"job_id":""} abc -> error 0 2!;push -> printing 0 0;)",
    "announce third -> receiving 0 0;+10000 -> receiving 0 0;+1 -> error 0 1!;",
    R"(announce third -> receiving 0 0;+9999 -> receiving 0 0;third -> receiving 0 0;
+9999 -> receiving 0 0;third -> printing 0 0;)",
    "push -> printing 0 0;push -> printing 0 4;abort -> aborted 0 0;+5000 -> aborted 0 0;",
    "{oops} -> error 0 5!;",
    "stray -> idle 0 0!;push -> printing 0 0;",
    R"({"a":1} -> error 0 5!;)",
    R"({"metadata":{"version":1,"type":"dance"}} -> error 0 5!;)",
    R"({"metadata":{"version":2,"type":"status"}} -> error 0 5!;)",
    R"({"metadata":{"type":"status","version":1}} -> error 0 5!;)",
    R"({"metadata":{"version":1,"type":1}} -> error 0 5!;)",
    "deep -> error 0 5!;",
    "endless -> error 0 5!;",
    R"({"metadata":{"version":1,"type":"file_push"}} -> error 0 3!!;)",
    R"(push{"size":-1,"adler32":0,"job_id":""} -> error 0 3!;)",
    R"(push{"size":1,"adler32":4294967296,"job_id":""} -> error 0 3!;)",
    R"(push{"size":1,"adler32":0,"job_id":1} -> error 0 3!;)",
    R"(push{"adler32":0,"size":1,"job_id":""} -> error 0 3!;)",
    R"(push{"size":1,"adler32":0,"job_id":"","compression":{"algorithm":"zip","decompressed_length":1}} -> error 0 3!;)",
};

TEST(JobChannel, Conversations) {
    for (const char* const script : kConversations) {
        FirmwareHost host;
        EXPECT_EQ(play(host, script), script);
        EXPECT_EQ(host.read(kJobIn), "") << script;
    }
    FirmwareHost fast(100);
    const char* const script =
        "announce -> receiving 0 0;+9000 -> receiving 0 0;"
        "third third third -> printing 0 0;+41 -> finished 100 0;";
    EXPECT_EQ(play(fast, script), script);
}

}  // namespace
}  // namespace jovusim::test
