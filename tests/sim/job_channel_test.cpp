// The job channel of the firmware model: requests, pushes, status reports.
#include <gtest/gtest.h>
#include <zlib.h>

#include "firmware_host.h"

namespace jovusim::test {
namespace {

std::string request(const std::string& type) {
    return R"({"metadata":{"version":1,"type":")" + type + R"("}})";
}

class JobChannelTest : public ::testing::Test {
protected:
    Json status() {
        host_.send(kJobOut, request("status"));
        return Json::parse(host_.read(kJobIn));
    }

    static std::string data(std::size_t size) {
        std::string out(size, '\0');
        for (std::size_t i = 0; i < size; ++i)
            out[i] = static_cast<char>(i * 31 >> 3U);
        return out;
    }

    static std::string announcement(std::size_t size, unsigned long sum,
                                    const std::string& id = "") {
        return R"({"metadata":{"version":1,"type":"file_push"},"file_push":{"size":)" +
               std::to_string(size) + R"(,"adler32":)" + std::to_string(sum) + R"(,"job_id":")" +
               id + R"("}})";
    }

    /// The protocol's checksum starts from 0, not from 1.
    static unsigned long sum_of(const std::string& bytes) {
        return adler32_z(0, reinterpret_cast<const Bytef*>(bytes.data()), bytes.size());
    }

    static std::string push(const std::string& bytes, const std::string& id = "") {
        return announcement(bytes.size(), sum_of(bytes), id) + bytes;
    }

    FirmwareHost host_;
};

TEST_F(JobChannelTest, ReportsEveryField) {
    host_.send(kJobOut, push(data(10), "my-job"));
    host_.now += 1500;
    const Json report = status();
    EXPECT_EQ(report["metadata"].dump(), R"({"version":1,"type":"status"})");
    EXPECT_EQ(report["printer"].dump(),
              R"({"model_name":"JoVu Simulator","cpu_id":"JVSTEST",)"
              R"("firmware":{"name":"jovu-sim","version":"1.0.0"},"accept_version":1})");
    EXPECT_EQ(report["status"]["state"], "printing");
    EXPECT_EQ(report["status"]["build_plate"], "present");
    EXPECT_EQ(report["status"]["filament"], "loaded");
    EXPECT_GT(report["status"]["extruder_temperature"], 100.0);
    EXPECT_EQ(report["job"].dump(),
              R"({"id":"my-job","progress":37,"file":"push-1.gcode","time_elapsed":1})");
    EXPECT_EQ(report["time"].dump(), R"({"boot":1,"idle":0})");
    EXPECT_EQ(report["error"], 0);
    EXPECT_EQ(host_.violations(), 0U);
}

TEST_F(JobChannelTest, AReportIsARunOfPacketsOfItsOwn) {
    for (int id_length = 0; id_length < 70; ++id_length) {
        host_.send(kJobOut, push("", std::string(static_cast<std::size_t>(id_length), 'x')));
        host_.send(kJobOut, request("status") + request("status") + request("abort"));
        std::vector<std::string> runs(1);
        for (const std::string& packet : host_.packets(kJobIn)) {
            ASSERT_LE(packet.size(), kMaxPacket);
            runs.back() += packet;
            if (packet.size() < kMaxPacket) runs.emplace_back();
        }
        ASSERT_EQ(runs.size(), 3U) << "id of " << id_length;
        EXPECT_TRUE(Json::accept(runs[0]) && Json::accept(runs[1]) && runs[2].empty());
    }
}

TEST_F(JobChannelTest, JobsComeAndGo) {
    struct Step {
        std::string sent;
        Millis wait;
        std::string state;
        int progress;
        int error;
    };
    const std::string pause = request("pause");
    const std::string abort = request("abort");
    const std::string compressed =
        R"({"metadata":{"version":1,"type":"file_push"},"file_push":{"size":3,"adler32":)" +
        std::to_string(sum_of("abc")) +
        R"(,"job_id":"","compression":{"algorithm":"deflate","decompressed_length":99}}}abc)";
    const struct {
        const char* what;
        std::vector<Step> steps;
        unsigned violations = 0;
    } cases[] = {
        {"to its end",
         {{push(data(5121)), 0, "printing", 0, 0},
          {"", 2000, "printing", 50, 0},
          {"", 2000, "finished", 100, 0}}},
        {"without a byte", {{push(""), 0, "printing", 0, 0}}},
        {"compressed", {{compressed, 0, "printing", 0, 0}}},
        {"blanks and braces in a string", {{push("", "{{ \\\"}"), 0, "printing", 0, 0}}},
        {"paused",
         {{push(data(10)), 1000, "printing", 25, 0},
          {pause, 60000, "paused", 25, 0},
          {pause, 2900, "printing", 97, 0},
          {"", 100, "finished", 100, 0}}},
        {"paused by the request behind it", {{push(data(100)) + pause, 0, "paused", 0, 0}}},
        {"no job to pause or abort", {{pause + abort, 0, "idle", 0, 0}}},
        {"a request in the data", {{push(data(50) + abort), 0, "printing", 0, 0}}},
        {"a request while data is owed",
         {{announcement(1000, 0) + request("status") + abort, 0, "receiving", 0, 0}}},
        {"another checksum",
         {{announcement(3, sum_of("abc") + 1) + "abc", 0, "error", 0, 2},
          {push("abc"), 0, "printing", 0, 0}},
         1},
        {"stopped",
         {{announcement(300, 1) + data(200), 10000, "receiving", 0, 0}, {"", 1, "error", 0, 1}},
         1},
        {"slow",
         {{announcement(3, sum_of("abc")) + "a", 9999, "receiving", 0, 0},
          {"b", 9999, "receiving", 0, 0},
          {"c", 0, "printing", 0, 0}}},
        {"another job while it runs",
         {{push(data(10)), 0, "printing", 0, 0},
          {push(data(7000)), 0, "printing", 0, 4},
          {abort, 5000, "aborted", 0, 0}}},
    };
    for (const auto& c : cases) {
        FirmwareHost host;
        for (const Step& step : c.steps) {
            if (!step.sent.empty()) host.send(kJobOut, step.sent);
            host.now += step.wait;
            const Json job = host.stats()["job"];
            EXPECT_EQ(job["state"], step.state) << c.what;
            EXPECT_EQ(job["progress"], step.progress) << c.what;
            EXPECT_EQ(job["error"], step.error) << c.what;
        }
        EXPECT_EQ(host.read(kJobIn), "") << c.what;
        EXPECT_EQ(host.violations(), c.violations) << c.what;
    }
    EXPECT_EQ(sum_of("abc"), 0x024A0126U);
}

TEST_F(JobChannelTest, RefusesWhatItCannotRead) {
    const auto pushing = [](const std::string& body) {
        return R"({"metadata":{"version":1,"type":"file_push"},"file_push":)" + body + "}";
    };
    const struct {
        const char* what;
        std::string text;
        int error;
    } cases[] = {
        {"no JSON", "{oops}", 5},
        {"no metadata", R"({"a":1})", 5},
        {"unknown type", request("dance"), 5},
        {"other version", R"({"metadata":{"version":2,"type":"status"}})", 5},
        {"order", R"({"metadata":{"type":"status","version":1}})", 5},
        {"type no string", R"({"metadata":{"version":1,"type":1}})", 5},
        {"deep", "{\"a\":" + std::string(3000, '[') + std::string(3000, ']') + "}", 5},
        {"endless", std::string(70000, '{'), 5},
        {"no body", request("file_push"), 3},
        {"negative size", pushing(R"({"size":-1,"adler32":0,"job_id":""})"), 3},
        {"checksum too large", pushing(R"({"size":1,"adler32":4294967296,"job_id":""})"), 3},
        {"id no string", pushing(R"({"size":1,"adler32":0,"job_id":1})"), 3},
        {"order of the body", pushing(R"({"adler32":0,"size":1,"job_id":""})"), 3},
        {"other compression",
         pushing(R"({"size":1,"adler32":0,"job_id":"","compression":{"algorithm":"zip",)"
                 R"("decompressed_length":1}})"),
         3},
    };
    for (const auto& c : cases) {
        FirmwareHost host;
        host.send(kJobOut, c.text);
        EXPECT_EQ(host.stats()["job"]["error"], c.error) << c.what;
        EXPECT_EQ(host.stats()["job"]["state"], "error") << c.what;
        EXPECT_GT(host.violations(), 0U) << c.what;
        EXPECT_EQ(host.read(kJobIn), "") << c.what;
    }
}

TEST_F(JobChannelTest, FindsARequestThatComesInPieces) {
    for (const char c : request("status"))
        host_.send(kJobOut, std::string(1, c));
    EXPECT_EQ(Json::parse(host_.read(kJobIn))["error"], 0);
    host_.send(kJobOut, "stray" + request("status"));
    EXPECT_EQ(Json::parse(host_.read(kJobIn))["error"], 0);
    EXPECT_EQ(host_.violations(), 1U);
}

TEST(JobTimeScale, AppliesToTheMachineAndNotToTheProtocol) {
    FirmwareHost host(100.0);
    host.send(kJobOut, R"({"metadata":{"version":1,"type":"file_push"},)"
                       R"("file_push":{"size":1,"adler32":0,"job_id":""}})");
    host.now += 9000;
    EXPECT_EQ(host.stats()["job"]["state"], "receiving");
    host.send(kJobOut, std::string(1, '\0'));
    host.now += 41;
    EXPECT_EQ(host.stats()["job"]["state"], "finished");
}

}  // namespace
}  // namespace jovusim::test
