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

    std::string state() { return status()["status"]["state"]; }
    int error() { return status()["error"]; }

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

    void push(const std::string& bytes, const std::string& id = "") {
        host_.send(kJobOut, announcement(bytes.size(), sum_of(bytes), id));
        for (std::size_t at = 0; at < bytes.size(); at += 5120) {
            host_.send(kJobOut, bytes.substr(at, 5120));
        }
    }

    FirmwareHost host_;
};

TEST_F(JobChannelTest, ReportsEveryField) {
    push(data(10), "my-job");
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
    EXPECT_EQ(host_.complaints(), 0U);
}

TEST_F(JobChannelTest, AReportIsARunOfPacketsOfItsOwn) {
    for (int id_length = 0; id_length < 70; ++id_length) {
        push("", std::string(static_cast<std::size_t>(id_length), 'x'));
        host_.send(kJobOut, request("status"));
        host_.send(kJobOut, request("status") + request("abort"));
        const auto packets = host_.packets(kJobIn);
        std::size_t short_packets = 0;
        std::string run;
        for (const std::string& packet : packets) {
            ASSERT_LE(packet.size(), kMaxPacket);
            run += packet;
            if (packet.size() == kMaxPacket) continue;
            ++short_packets;
            EXPECT_TRUE(Json::accept(run)) << run;
            run.clear();
        }
        EXPECT_EQ(short_packets, 2U) << "id of " << id_length;
        EXPECT_EQ(run, "");
    }
}

TEST_F(JobChannelTest, VerifiesAPush) {
    for (const std::size_t size : {0U, 1U, 5119U, 5120U, 12000U}) {
        const std::string bytes = data(size);
        push(bytes);
        const Json stats = host_.stats()["job"];
        EXPECT_EQ(stats["size"], size);
        EXPECT_EQ(stats["received"], size);
        EXPECT_EQ(stats["adler32"], sum_of(bytes));
        EXPECT_EQ(stats["computed"], sum_of(bytes));
        EXPECT_EQ(stats["verified"], true) << size;
        EXPECT_EQ(state(), "printing") << size;
        host_.send(kJobOut, request("abort"));
    }
    EXPECT_EQ(sum_of("abc"), 0x024A0126U);
    EXPECT_EQ(host_.complaints(), 0U);
}

TEST_F(JobChannelTest, FindsTheRequestBehindThePush) {
    const std::string bytes = data(100);
    host_.send(kJobOut, announcement(100, sum_of(bytes)) + bytes + request("status"));
    EXPECT_EQ(Json::parse(host_.read(kJobIn))["status"]["state"], "printing");
}

TEST_F(JobChannelTest, EverythingOwedIsJobData) {
    const std::string bytes = data(50) + request("abort");
    push(bytes);
    EXPECT_EQ(state(), "printing");
    host_.send(kJobOut, request("abort"));
    host_.send(kJobOut, announcement(1000, 0));
    host_.send(kJobOut, request("status") + request("abort"));
    EXPECT_EQ(host_.read(kJobIn), "");
    EXPECT_EQ(host_.stats()["job"]["state"], "receiving");
    EXPECT_EQ(host_.stats()["job"]["received"], request("status").size() + request("abort").size());
}

TEST_F(JobChannelTest, ReportsABadChecksum) {
    const std::string bytes = data(300);
    host_.send(kJobOut, announcement(300, sum_of(bytes) + 1) + bytes);
    EXPECT_EQ(state(), "error");
    EXPECT_EQ(error(), 2);
    EXPECT_EQ(host_.stats()["job"]["verified"], false);
    EXPECT_EQ(host_.complaints(), 1U);
    push(bytes);
    EXPECT_EQ(error(), 0);
    EXPECT_EQ(state(), "printing");
}

TEST_F(JobChannelTest, GivesUpOnAPushThatStops) {
    host_.send(kJobOut, announcement(300, 1) + data(200));
    host_.now += 10001;
    EXPECT_EQ(state(), "error");
    EXPECT_EQ(error(), 1);
    EXPECT_EQ(host_.stats()["job"]["finished"], 0);
}

TEST_F(JobChannelTest, ASlowPushIsNotGivenUp) {
    host_.send(kJobOut, announcement(3, sum_of("abc")));
    for (const char* piece : {"a", "b", "c"}) {
        host_.now += 9999;
        host_.send(kJobOut, piece);
    }
    EXPECT_EQ(state(), "printing");
}

TEST_F(JobChannelTest, PrintsAJobToItsEnd) {
    push(data(10));
    int last = -1;
    for (int i = 0; i < 8; ++i) {
        const Json report = status();
        EXPECT_EQ(report["status"]["state"], "printing");
        EXPECT_GT(report["job"]["progress"], last);
        last = report["job"]["progress"];
        host_.now += 500;
    }
    const Json report = status();
    EXPECT_EQ(report["status"]["state"], "finished");
    EXPECT_EQ(report["job"]["progress"], 100);
    EXPECT_EQ(report["job"]["time_elapsed"], 4);
    EXPECT_EQ(host_.stats()["job"]["finished"], 1);
    host_.now += 10000;
    EXPECT_LT(status()["status"]["extruder_temperature"], 30.0);
    EXPECT_EQ(status()["time"]["idle"], 0);  // asking is activity
}

TEST_F(JobChannelTest, APauseStopsTheClockOfTheJob) {
    push(data(10));
    host_.now += 1000;
    host_.send(kJobOut, request("pause"));
    host_.now += 60000;
    const Json paused = status();
    EXPECT_EQ(paused["status"]["state"], "paused");
    EXPECT_EQ(paused["job"]["progress"], 25);
    EXPECT_GT(paused["status"]["extruder_temperature"], 200.0);
    host_.send(kJobOut, request("pause"));
    EXPECT_EQ(state(), "printing");
    host_.now += 3100;
    EXPECT_EQ(state(), "finished");
}

TEST_F(JobChannelTest, PauseAndAbortWithoutAJobChangeNothing) {
    host_.send(kJobOut, request("pause") + request("abort"));
    EXPECT_EQ(state(), "idle");
    EXPECT_EQ(error(), 0);
    EXPECT_EQ(host_.complaints(), 0U);
}

TEST_F(JobChannelTest, AJobThatRunsIsNotDisturbedByAPush) {
    push(data(10), "first");
    push(data(7000), "second");
    const Json report = status();
    EXPECT_EQ(report["status"]["state"], "printing");
    EXPECT_EQ(report["job"]["id"], "first");
    EXPECT_EQ(report["error"], 4);
    host_.send(kJobOut, request("abort"));
    EXPECT_EQ(state(), "aborted");
    EXPECT_EQ(error(), 0);
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
        EXPECT_GT(host.complaints(), 0U) << c.what;
        EXPECT_EQ(host.read(kJobIn), "") << c.what;
    }
}

TEST_F(JobChannelTest, TakesAnAnnouncementWithCompression) {
    host_.send(kJobOut,
               R"({"metadata":{"version":1,"type":"file_push"},"file_push":{"size":3,"adler32":)" +
                   std::to_string(sum_of("abc")) +
                   R"(,"job_id":"","compression":{"algorithm":"deflate",)"
                   R"("decompressed_length":99}}}abc)");
    EXPECT_EQ(state(), "printing");
    EXPECT_EQ(host_.complaints(), 0U);
}

TEST_F(JobChannelTest, BracesInStringsDoNotCount) {
    push(data(5), "{{\\\"}");
    EXPECT_EQ(status()["job"]["id"], "{{\"}");
}

TEST_F(JobChannelTest, FindsARequestThatComesInPieces) {
    for (const char c : request("status"))
        host_.send(kJobOut, std::string(1, c));
    EXPECT_EQ(Json::parse(host_.read(kJobIn))["error"], 0);
    host_.send(kJobOut, "stray" + request("status"));
    EXPECT_EQ(Json::parse(host_.read(kJobIn))["error"], 0);
    EXPECT_EQ(host_.complaints(), 1U);
}

TEST(JobPace, SpeedsTheMachineUpButNotTheProtocol) {
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
