/// @file
/// Firmware updates, with the installed dfu-util and with a fake one.
#include <sys/stat.h>

#include <csignal>
#include <filesystem>

#include "cli_test.h"

namespace test {
namespace {

using nlohmann::json;
using testing::HasSubstr;

/// @return the file $f after a shell command.
std::string after(const std::string& command, const std::string& content = "") {
    const TemporaryFile file("made", content);
    const std::string line = "f='" + file.path() + "'; { " + command + "; } > /dev/null 2>&1";
    EXPECT_EQ(std::system(line.c_str()), 0) << command;
    return content_of(file.path());
}

/// @return an image that the simulated controller accepts.
std::string sound_image(const std::string& version, const std::string& size = "32768") {
    return after(JOVU_SIM_PROGRAM " firmware " + version + " --size " + size + " > $f");
}

/// @return the content with a DFU suffix for a device.
std::string with_suffix(const std::string& content, const std::string& ids) {
    return after("dfu-suffix " + ids + " -a $f", content);
}

/// Puts a program called dfu-util before the installed one on PATH.
class FakeTool {
public:
    /// @param script when empty: runs the installed one, and logs command lines and exit codes.
    explicit FakeTool(std::string script = "")
        : directory_(testing::TempDir() + std::to_string(getpid()) + " tools"),
          path_(std::getenv("PATH")) {
        if (script.empty()) {
            script = "PATH='" + path_ + "' dfu-util \"$@\"; end=$?\necho \"$end $*\" >> '" +
                     directory_ + "/log'\nexit $end\n";
        }
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
    std::string log() const { return content_of(directory_ + "/log"); }

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

    /// Runs an update without a question.
    static Ended update(const std::string& image, std::vector<std::string> more = {}) {
        more.insert(more.begin(), {"update", "--yes", image});
        return jovu(more);
    }

    static void clear_bus() {
        for (std::string left = sim("list"); !left.empty(); left = sim("list"))
            sim("unplug " + left.substr(0, left.find(' ')));
    }

    const JovuDeviceAddress device_ = plug();
    const std::string serial_ = result_of({"call", "bio_get_serial", "--json"});
    const std::string content_ = sound_image("2.5.0");
    const TemporaryFile image_{"new 'image'.bin", content_};
};

TEST_F(Update, EndsWithTheNewVersion) {
    const TemporaryFile image("suffix.bin", with_suffix(content_, "-v 7a1c -p 0002 -d 0250"));
    const Ended ended = update(image.path(), {"--json"});
    ASSERT_EQ(ended.status, 0) << ended.err;
    const std::vector<json> events = json_lines(ended.out);
    EXPECT_EQ(events[0], json({{"event", "controller"}, {"serial", serial_}}));
    EXPECT_EQ(events[1]["event"], "dfu_mode");
    EXPECT_EQ(events[2]["event"], "downloading");
    const json info = json::parse(jovu({"info", "--json"}).out);
    EXPECT_EQ(events.back(), json({{"event", "updated"},
                                   {"device", info["device"]},
                                   {"serial", serial_},
                                   {"version_before", "1.0.0"},
                                   {"version", "2.5.0"}}));

    const Ended asked = jovu({"update", image.path()}, "Yes\n", Out::dialog);
    EXPECT_EQ(asked.status, 0) << asked.out;
    EXPECT_THAT(asked.out, testing::ContainsRegex("device:  1:[0-9]+, serial " + serial_ +
                                                  "\r\nversion: 2.5.0\r\nimage:   .*suffix.bin, "
                                                  "32784 bytes, release 2.50\r\n.*y/N"));
    EXPECT_THAT(asked.out, HasSubstr("\r\x1b[2KDownloading "));
    EXPECT_THAT(asked.out, testing::ContainsRegex("written: .* version 2.5.0, as before\r\n"));
}

TEST_F(Update, IsNotBegunUnlessItIsConfirmed) {
    const Ended nobody = jovu({"update", image_.path()}, "y\n", Out::console);
    EXPECT_EQ(nobody.status, 2);
    EXPECT_THAT(nobody.err, HasSubstr("--yes is needed"));
    for (const char* const answer : {"\n", "no\n", "yeah\n", "\x04", "\x03"}) {
        Program program({"update", image_.path()}, Out::dialog);
        program.type("y\n");  // ahead of the question, which it does not answer
        ASSERT_TRUE(program.writes("[y/N] "));
        program.type(answer);
        EXPECT_EQ(program.finish(), 130) << answer;
    }
    Program shell({"shell", "--json"}, Out::dialog);
    shell.type(".update \"" + image_.path() + "\"\n");
    ASSERT_TRUE(shell.writes("write the image? [y/N] "));
    shell.type("n\n");
    EXPECT_EQ(shell.finish(), 130);
    Program program({"update", image_.path()}, Out::dialog);
    ASSERT_TRUE(program.writes("[y/N] "));
    EXPECT_EQ(requests(device_, "Enter_dfu_mode"), 0);
    sim("unplug " + name(device_));
    plug(name(device_) + " serial=OTHER");
    EXPECT_TRUE(eventually([&] { return stats(device_)["clients"] == 1; }));
    program.type("y\n");
    EXPECT_EQ(program.finish(), 3) << program.out();
    EXPECT_EQ(requests(device_, "Enter_dfu_mode"), 0) << "another one has come to its place";
}

TEST_F(Update, TakesUpADeviceThatIsInDfuMode) {
    const TemporaryFile cut("cut.bin", content_.substr(0, 3000));
    EXPECT_THAT(update(cut.path()).err, HasSubstr("'jovu update' can be run again"));
    EXPECT_THAT(jovu({"dfu"}).out, HasSubstr("  serial " + serial_ + "\n"));
    plug();
    const TemporaryFile image("suffix.bin", with_suffix(content_, "-v ffff -p 00df"));
    const Ended ended =
        jovu({"update", image.path(), "--serial", serial_, "--json"}, "y\n", Out::dialog);
    EXPECT_EQ(ended.status, 0) << ended.out;
    EXPECT_THAT(ended.out, HasSubstr("version: unknown in DFU mode"));
    EXPECT_THAT(ended.out, HasSubstr("\"version_before\":null,\"version\":\"2.5.0\"}"));
    EXPECT_EQ(jovu({"dfu"}).status, 3);
}

constexpr const char* kDone = "0 -d 7a1c:00df -a 0 -S S ";
constexpr const char* kBroken = "74 -d 7a1c:00df -a 0 -S S ";

constexpr const char* kWriteError =
    "the download failed: S; dfu-util says: DFU state(10) = dfuERROR, status(3) = Device is unable "
    "to write memory (it is still";

/// One update of a device with the serial number S.
struct Judged {
    const char* plugged;
    std::vector<std::string> faults;
    const char* stranger;  ///< In DFU mode, unless it says otherwise; comes when the device goes.
    const char* version;   ///< Of the image.
    std::vector<std::string> more;
    int status;
    const char* says;
    const char* log;  ///< Of dfu-util.
};

void PrintTo(const Judged& row, std::ostream* out) {
    *out << row.says << row.version << row.stranger;
}

const Judged kJudged[] = {
    {"", {"disconnect-at-reset"}, "", "2", {}, 0, "runs version 2, before it was 1.0.0", kBroken},
    {"", {"write-error 5"}, "", "2", {}, 5, kWriteError, kBroken},
    {"", {"keep-firmware"}, "", "2", {}, 5, "runs version 1.0.0 as before, which is not", kDone},
    {"", {"keep-firmware"}, "", "2", {"--force"}, 0, "written: 1:", kDone},
    {"", {"keep-firmware"}, "", "1.0.0", {}, 0, "written: 1:", kDone},
    {"", {"keep-firmware", "unplug-at 5"}, "", "1.0.0", {}, 5, "the update failed, ", kBroken},
    {"product=00df", {"keep-firmware"}, "", "2", {}, 0, "runs version 1.0.0\n", kDone},
    {"product=00df", {"keep-firmware", "unplug-at 5"}, "", "2", {}, 5, "failed, ", kBroken},
    {"", {"serial T"}, "", "2", {}, 0, "updated: ", "0 -d 7a1c:00df -a 0 -S T "},
    {"", {}, "vendor=1209 serial=S", "2", {}, 0, "updated: ", kDone},
    {"", {}, "serial=X", "2", {}, 0, "updated: ", kDone},
    {"", {}, "serial=S", "2", {}, 4, "several devices: in DFU mode S (7a1c:00df at 1-", "-l"},
    {"", {"serial T"}, "serial=X", "2", {}, 4, "several devices: in DFU mode ", "-l"},
    {"product=00df", {"unplug-at 5"}, "product=2", "2", {}, 5, "has not returned: S", kBroken},
};

class JudgedUpdate : public Update, public testing::WithParamInterface<Judged> {};

TEST_P(JudgedUpdate, IsThatOfTheDeviceThatWasChosen) {
    sim("unplug " + name(device_));
    const Judged& row = GetParam();
    const FakeTool tool;
    const JovuDeviceAddress device = plug(row.plugged + std::string(" serial=S"));
    for (const std::string& fault : row.faults)
        sim("fault " + name(device) + " dfu " + fault);
    const TemporaryFile image("judged.bin", sound_image(row.version));
    std::vector<std::string> words{"update", "--yes", image.path()};
    words.insert(words.end(), row.more.begin(), row.more.end());
    Program program(words);
    if (*row.stranger != 0) {
        EXPECT_TRUE(eventually([&] { return sim("list").find(name(device) + " ") != 0; }));
        plug(std::string("product=00df ") + row.stranger);
    }
    EXPECT_EQ(program.finish(), row.status);
    EXPECT_THAT(program.out() + program.err(), HasSubstr(row.says));
    EXPECT_THAT(tool.log(), HasSubstr(row.log));
    EXPECT_THAT(tool.log(), testing::Not(HasSubstr("1209")));
}

INSTANTIATE_TEST_SUITE_P(Each, JudgedUpdate, testing::ValuesIn(kJudged));

/// A device that was in DFU mode before reconnects with another number and the serial number S.
TEST_F(Update, TakesNoDeviceThatWasListedBefore) {
    sim("unplug " + name(device_));
    const std::string run = "PATH='" + std::string(std::getenv("PATH")) + "' dfu-util ";
    const std::string rest = ", path=\"9-9\", alt=0, serial=";
    const FakeTool tool("[ \"$1\" = -l ] || { " + run + "\"$@\"; exit; }\nout=$(" + run +
                        "-l); echo \"$out\"\nnow='9" + rest +
                        "\"X\"'\ncase $out in *'Found DFU'*) "
                        "now='10" +
                        rest +
                        "\"S\"';; esac\n"
                        "echo \"Found DFU: [7a1c:00df] devnum=$now\"\n");
    const JovuDeviceAddress device = plug("serial=S");
    sim("fault " + name(device) + " dfu serial T");
    EXPECT_EQ(update(image_.path(), {"-d", name(device)}).status, 0);
}

TEST_F(Update, IsNotBegunWhenItCannotEndWell) {
    const std::string others = with_suffix(content_, "-v 1209 -p 0001");
    const std::vector<std::string> chosen{"-d", name(device_)};
    const struct {
        std::string image;
        std::string stranger;  // In DFU mode.
        std::vector<std::string> more;
        int status;
        const char* says;
    } cases[] = {
        {with_suffix("G28\n", ""), "", {}, 7, "it is plain text"},
        {std::string(8192, '\xFF') + content_, "", {"-d", "7:7"}, 3, "no such device: 7:7"},
        {others, "", {}, 7, "is for another device, 1209:0001, this one is 7a1c:0002"},
        {with_suffix(content_, "-v 7a1c -p 0003"), "", {}, 7, "for another device, 7a1c:0003"},
        {content_, "vendor=1209 serial=" + serial_, {}, 4, "two devices claim one serial number"},
        {content_, "serial=" + serial_, chosen, 4, "two devices claim one serial number"},
        {content_, "serial=-\"%20serial=\"X", chosen, 4, "cannot tell the devices in DFU mode ap"},
        {content_, "name=x\",%20serial=\"B\"%0Ax", chosen, 4, "cannot tell the devices in DFU mo"},
        {content_,
         "vendor=1209 serial=X",
         {"--serial", "X"},
         3,
         "device of another vendor: in DFU mode X "},
        {content_, "serial=A-B", {"--serial", "A-B"}, 3, "must be of letters and digits"},
        {content_, "serial=X", {"--serial", "NONE"}, 3, "no device with serial number NONE"},
        {content_, "", {"-d", name(device_), "--serial", "X"}, 3, ", not X"},
        {content_, "serial=X", {"-d", "7:7"}, 3, "no such device: 7:7"},
        {content_, "serial=X", {}, 4, ", in DFU mode X (7a1c:00df at 1-"},
    };
    for (const auto& row : cases) {
        const TemporaryFile image("tried.bin", row.image);
        const std::string stranger =
            row.stranger.empty() ? "" : name(plug(std::string("product=00df ") + row.stranger));
        const Ended ended = update(image.path(), row.more);
        EXPECT_EQ(ended.status, row.status) << row.says << row.stranger;
        EXPECT_THAT(ended.err, HasSubstr(row.says));
        if (!stranger.empty()) sim("unplug " + stranger);
    }
    EXPECT_EQ(update(image_.path() + "-missing").status, 7);
    EXPECT_EQ(jovu({"update"}).status, 2);
    const std::string path = std::getenv("PATH");
    setenv("PATH", testing::TempDir().c_str(), 1);
    const Ended missing = update(image_.path());
    setenv("PATH", path.c_str(), 1);
    EXPECT_EQ(missing.status, 1);
    EXPECT_THAT(missing.err, HasSubstr("needs dfu-util, which is not installed"));
    EXPECT_EQ(requests(device_, "Enter_dfu_mode"), 0);
    const TemporaryFile forced("forced.bin", others);
    EXPECT_EQ(update(forced.path(), {"--force"}).status, 0);
}

TEST_F(Update, NamesTheNodeThatItMayNotOpen) {
    const FakeTool tool(
        "echo 'Cannot open DFU device 7a1c:00df found on devnum 9 (LIBUSB_ERROR_ACCESS)' >&2\n");
    const Ended ended = jovu({"dfu"});
    EXPECT_EQ(ended.status, 3);
    EXPECT_THAT(ended.err, HasSubstr("no permission on /dev/bus/usb/*/009 ("));
    EXPECT_THAT(ended.err, HasSubstr("70-jovu.rules"));
}

TEST_F(Update, IsNotCutByAnInterrupt) {
    const TemporaryFile large("large.bin", sound_image("2.5.0", "500000"));
    Program program({"update", "--yes", large.path()});
    ASSERT_TRUE(program.writes("downloading"));
    program.signal(SIGINT);
    EXPECT_EQ(program.finish(), 130);
    EXPECT_THAT(program.err(), HasSubstr("jovu: the download continues"));
    EXPECT_TRUE(eventually([] {
        const Ended info = jovu({"info", "--json"});
        return info.status == 0 && json::parse(info.out)["version"] == "2.5.0";
    }));
}

}  // namespace
}  // namespace test
