/// @file
/// The job channel over the real libusb.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "support/job_file.h"
#include "support/recording_client.h"
#include "support/sim_control.h"

namespace {

using test::complaints;
using test::eventually;
using test::job_content;
using test::name;
using test::plug;
using test::RecordingClient;
using test::sim;
using test::stats;
using test::TemporaryFile;

void note(double percent, std::string /*job_id*/, void* user) {
    static_cast<std::vector<double>*>(user)->push_back(percent);
}

class Jobs : public testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(client.wait_connected(device)); }

    std::string push_error(const std::string& path, bool compressed = false) {
        try {
            client.SendJobFile(device, path, nullptr, nullptr, compressed);
        } catch (const JovuException& error) {
            return error.what();
        }
        return "";
    }

    JovuDeviceAddress device = plug();
    RecordingClient client;
};

TEST_F(Jobs, PushesOfEverySizeArriveWholeAndReportProgress) {
    const struct {
        std::size_t size;
        std::vector<double> progress;
    } cases[] = {
        {0, {0.0, 99.9, 100.0}},
        {1, {0.0, 99.9, 100.0}},
        {5120, {0.0, 99.9, 99.9, 100.0}},
        {12000, {0.0, 5120 * 100.0 / 12000, 10240 * 100.0 / 12000, 99.9, 100.0}},
    };
    for (const auto& item : cases) {
        const TemporaryFile file("job", job_content(item.size));
        std::vector<double> progress;
        client.SendJobFile(device, file.path(), note, &progress, false);
        EXPECT_EQ(progress, item.progress) << item.size;
        ASSERT_TRUE(eventually([&] { return stats(device)["job"]["received"] == item.size; }));
        const auto job = stats(device)["job"];
        EXPECT_EQ(job["size"], item.size);
        EXPECT_EQ(job["verified"], true) << job;
        client.SendAbort(device);
    }
    EXPECT_EQ(complaints(device), 0);
}

TEST_F(Jobs, BadFilesAndDevicesAreRefusedInTheWordsOfTheLibrary) {
    const TemporaryFile file("job", job_content(10));
    const std::string fifo = file.path() + ".fifo";
    ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
    EXPECT_EQ(push_error("/nonexistent/job"), "Failed to open job file.");
    EXPECT_EQ(push_error("/nonexistent/job", true), "Failed to open job file.");
    EXPECT_EQ(push_error("/tmp"), "Failed to open job file.");
    EXPECT_EQ(push_error(fifo), "Failed to open job file.");
    EXPECT_EQ(push_error(file.path(), true), "Compression not supported yet.");
    ::unlink(fifo.c_str());
    sim("unplug " + name(device));
    ASSERT_TRUE(client.wait_disconnected(device));
    EXPECT_TRUE(eventually([&] { return client.list_connected().empty(); }));
    EXPECT_EQ(push_error(file.path()), "Send failed - Device no longer connected.");
}

}  // namespace
