/// @file
/// Firmware updates, by the dfu-util that is installed, and by one that only says things.
#include <sys/stat.h>

#include <csignal>
#include <filesystem>

#include "cli_test.h"

namespace test {
namespace {

using nlohmann::json;
using testing::HasSubstr;
using testing::IsEmpty;

/// An image that the simulated controller takes; it reports version 2.5.0 with it.
std::string sound_image(std::size_t size) {
    const std::string path = testing::TempDir() + std::to_string(getpid()) + "-image";
    EXPECT_EQ(std::system((std::string(JOVU_SIM_PROGRAM) + " firmware 2.5.0 --size " +
                           std::to_string(size) + " > " + path)
                              .c_str()),
              0);
    std::ifstream file(path, std::ios::binary);
    std::string image{std::istreambuf_iterator<char>(file), {}};
    std::filesystem::remove(path);
    return image;
}

/// Puts a program called dfu-util in front of the installed one.
class FakeTool {
public:
    explicit FakeTool(const std::string& script)
        : directory_(testing::TempDir() + std::to_string(getpid()) + " tools"),
          path_(std::getenv("PATH")) {
        std::filesystem::create_directory(directory_);
        std::ofstream(directory_ + "/dfu-util") << "#!/bin/sh\n" << script;
        chmod((directory_ + "/dfu-util").c_str(), 0700);
        setenv("PATH", (directory_ + ":" + path_).c_str(), 1);
    }
    ~FakeTool() {
        setenv("PATH", path_.c_str(), 1);
        std::filesystem::remove_all(directory_);
    }
    FakeTool(const FakeTool&) = delete;
    FakeTool& operator=(const FakeTool&) = delete;

private:
    std::string directory_;
    std::string path_;
};

class Update : public testing::Test {
protected:
    static json result_of(const std::vector<std::string>& words) {
        const Ended ended = jovu(words);
        EXPECT_EQ(ended.status, 0) << ended.err;
        return json::parse(ended.out)["result"];
    }

    const JovuDeviceAddress device_ = plug();
    const std::string serial_ = result_of({"call", "bio_get_serial", "--json"});
    const std::string content_ = sound_image(32768);
    const TemporaryFile image_{"new 'image'.bin", content_};
};

TEST_F(Update, EndsWithTheNewVersion) {
    const Ended ended = jovu({"update", image_.path(), "--json"});
    ASSERT_EQ(ended.status, 0) << ended.err;
    const std::vector<json> events = json_lines(ended.out);
    EXPECT_EQ(events[0], json({{"event", "controller"}, {"serial", serial_}}));
    EXPECT_EQ(events[1]["event"], "dfu_mode");
    EXPECT_EQ(events[2]["event"], "downloading");
    const json& last = events.back();
    EXPECT_EQ(last["event"], "updated");
    EXPECT_EQ(last["serial"], serial_);
    EXPECT_EQ(last["version_before"], "1.0.0");
    EXPECT_EQ(last["version"], "2.5.0");
    EXPECT_EQ(json::parse(jovu({"info", "--json"}).out)["version"], "2.5.0");

    const Ended drawn = jovu({"update", image_.path(), "--serial", serial_}, "", Out::terminal);
    EXPECT_EQ(drawn.status, 0) << drawn.err;
    EXPECT_THAT(drawn.out, HasSubstr("\r\x1b[2KDownloading "));
    EXPECT_THAT(drawn.out, HasSubstr(" runs version 2.5.0, as before\r\n"));
}

TEST_F(Update, TakesUpADeviceThatIsInDfuMode) {
    const TemporaryFile cut("cut.bin", content_.substr(0, 3000));
    const Ended failed = jovu({"update", cut.path()});
    EXPECT_EQ(failed.status, 5);
    EXPECT_THAT(failed.err, HasSubstr("'jovu update' can be run again"));
    EXPECT_THAT(jovu({"dfu"}).out, HasSubstr("  serial " + serial_ + "\n"));
    EXPECT_EQ(json::parse(jovu({"dfu", "--json"}).out)["devices"][0]["serial"], serial_);

    plug();
    const Ended several = jovu({"update", image_.path()});
    EXPECT_EQ(several.status, 4);
    EXPECT_THAT(several.err, HasSubstr("in DFU mode " + serial_));
    const Ended ended = jovu({"update", image_.path(), "--serial", serial_});
    EXPECT_EQ(ended.status, 0) << ended.err;
    EXPECT_THAT(ended.out, HasSubstr(" runs version 2.5.0\n"));
    EXPECT_EQ(jovu({"dfu"}).status, 3);
}

TEST_F(Update, IsJudgedByTheDeviceNotByTheTool) {
    sim("fault " + name(device_) + " dfu leave-at-reset");
    const Ended left = jovu({"update", image_.path()});
    EXPECT_EQ(left.status, 0) << left.err;
    EXPECT_THAT(left.out, HasSubstr("runs version 2.5.0, before it was 1.0.0"));
}

TEST_F(Update, TellsOfADownloadThatFails) {
    sim("fault " + name(device_) + " dfu write-error 5");
    const Ended ended = jovu({"update", image_.path()});
    EXPECT_EQ(ended.status, 5);
    EXPECT_THAT(ended.err, HasSubstr("the download failed: " + serial_ + "; dfu-util says: "));
    EXPECT_EQ(jovu({"dfu"}).status, 0);
}

TEST_F(Update, TellsOfADeviceThatLeavesForGoodAndTakesNoOtherForIt) {
    sim("unplug " + name(device_));
    const JovuDeviceAddress leaving = plug("product=00df");
    sim("fault " + name(leaving) + " dfu unplug-at 5");
    const std::string serial = stats(leaving)["serial"];
    const auto start = std::chrono::steady_clock::now();
    Program program({"update", image_.path()});
    ASSERT_TRUE(eventually([] { return sim("list").empty(); }));
    plug();
    EXPECT_EQ(program.finish(), 5) << program.out();
    EXPECT_THAT(program.err(), HasSubstr("the device has not come back: " + serial));
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(60));
}

TEST_F(Update, IsNotBegunWhenItCannotEndWell) {
    const TemporaryFile empty("empty.bin", "");
    EXPECT_EQ(jovu({"update", empty.path()}).status, 7);
    EXPECT_EQ(jovu({"update", image_.path() + "-missing"}).status, 7);
    EXPECT_EQ(jovu({"update", image_.path(), "--serial", "NONE"}).status, 3);
    EXPECT_EQ(jovu({"update", image_.path(), "-d", "7:7"}).status, 3);
    EXPECT_EQ(jovu({"update"}).status, 2);
    const std::string path = std::getenv("PATH");
    setenv("PATH", testing::TempDir().c_str(), 1);
    const Ended missing = jovu({"update", image_.path()});
    setenv("PATH", path.c_str(), 1);
    EXPECT_EQ(missing.status, 1);
    EXPECT_THAT(missing.err, HasSubstr("needs dfu-util, which is not installed"));
    EXPECT_EQ(requests(device_, "Enter_dfu_mode"), 0);
}

TEST_F(Update, NamesTheNodeThatItMayNotOpen) {
    const FakeTool tool(
        "echo 'Cannot open DFU device 7a1c:00df found on devnum 9 (LIBUSB_ERROR_ACCESS)' >&2\n");
    const Ended ended = jovu({"dfu"});
    EXPECT_EQ(ended.status, 3);
    EXPECT_THAT(ended.err, HasSubstr("no permission on /dev/bus/usb/*/009 ("));
    EXPECT_THAT(ended.err, HasSubstr("70-jovu.rules"));
}

TEST_F(Update, LeavesOtherMakersDevicesAlone) {
    sim("unplug " + name(device_));
    const FakeTool tool(
        "echo 'Found DFU: [1209:0001] ver=0100, devnum=9, alt=0, serial=\"ABC\"'\n"
        "if [ \"$1\" != -l ]; then echo written to >&2; fi\n");
    const Ended ended = jovu({"update", image_.path()});
    EXPECT_EQ(ended.status, 3);
    EXPECT_THAT(ended.err, testing::Not(HasSubstr("written to")));
    EXPECT_THAT(jovu({"update", image_.path(), "--serial", "ABC"}).err, HasSubstr("written to"));
}

TEST_F(Update, PassesOnWhatTheToolSays) {
    const FakeTool tool(
        "echo \"Found DFU: [7a1c:00df] ver=0100, devnum=9, alt=1, serial=\\\"" + serial_ +
        "\\\"\"\n"
        "echo \"Found DFU: [7a1c:00df] ver=0100, devnum=9, alt=0, serial=\\\"" +
        serial_ +
        "\\\"\"\n"
        "if [ \"$1\" != -l ]; then echo 'Lost device after download'; echo \"as $*\" >&2; fi\n");
    const Ended list = jovu({"dfu", "--json"});
    EXPECT_EQ(json::parse(list.out)["devices"].size(), 1U) << "one device, two settings";
    sim("unplug " + name(device_));
    const Ended ended = jovu({"update", image_.path()});
    EXPECT_EQ(ended.status, 5);
    EXPECT_THAT(ended.err, HasSubstr("Lost device after download"));
    EXPECT_THAT(ended.err, testing::ContainsRegex("as -d 7a1c:00df -a 0 -S [A-Z0-9]+ -D /[^ ]+"));
    EXPECT_THAT(ended.out, testing::Not(HasSubstr("updated")));
}

TEST_F(Update, IsNotCutByAnInterrupt) {
    const TemporaryFile large("large.bin", sound_image(500000));
    Program program({"update", large.path()});
    ASSERT_TRUE(program.writes("downloading"));
    program.signal(SIGINT);
    EXPECT_EQ(program.finish(), 130);
    EXPECT_THAT(program.err(), HasSubstr("jovu: the download goes on"));
    EXPECT_TRUE(eventually([] {
        const Ended info = jovu({"info", "--json"});
        return info.status == 0 && json::parse(info.out)["version"] == "2.5.0";
    }));
}

}  // namespace
}  // namespace test
