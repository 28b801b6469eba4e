// SPDX-License-Identifier: Apache-2.0

/// @file
/// Firmware updates, with the installed dfu-util and with a fake one.
#include <sys/stat.h>

#include <csignal>
#include <filesystem>

#include "cli_test.h"

namespace test {
namespace {

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
    /// @param script runs the installed one as "real"; that one logs command lines and exit codes.
    explicit FakeTool(const std::string& script = "real \"$@\"")
        : directory_(testing::TempDir() + std::to_string(getpid()) + " tools"),
          path_(std::getenv("PATH")) {
        std::filesystem::create_directory(directory_);
        std::ofstream(directory_ + "/dfu-util")
            << "#!/bin/sh\nreal() { PATH='" << path_
            << "' dfu-util \"$@\"; end=$?; echo \"$end $*\" >> '" << directory_
            << "/log'; return $end; }\n"
            << script;
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
    /// Runs an update without a question.
    static Ended update(const std::string& image, const std::string& more = "") {
        return jovu("update --yes \"" + image + "\" " + more);
    }

    const JovuDeviceAddress device_ = plug();
    const std::string serial_ = stats(device_)["serial"];
    const std::string content_ = sound_image("2.5.0");
    const TemporaryFile image_{"new 'image'.bin", content_};
    const std::string update_ = "update \"" + image_.path() + "\"";
};

TEST_F(Update, EndsWithTheNewVersion) {
    const TemporaryFile image("suffix.bin", with_suffix(content_, "-v 7a1c -p 0002 -d 0250"));
    const std::string serial = "\"serial\":\"" + serial_ + "\"";
    EXPECT_THAT(
        update(image.path(), "--json").out,
        MatchesRegex("\\{\"event\":\"controller\"," + serial + "\\}\n\\{\"event\":\"dfu_mode\"," +
                     serial + "\\}\n(\\{\"event\":\"downloading\"," + serial + ",[^\n]*\n)+" +
                     "\\{\"event\":\"updated\",\"device\":\"1:[0-9]+\"," + serial +
                     ",\"version_before\":\"1.0.0\",\"version\":\"2.5.0\"\\}\n"));

    const Ended asked = jovu("update " + image.path(), "Yes\n", Out::dialog);
    EXPECT_THAT(asked, Exits(0, "\r\x1b[2KDownloading "));
    EXPECT_THAT(asked.out, ContainsRegex("device:  1:[0-9]+, serial " + serial_ +
                                         "\r\nversion: 2.5.0\r\nimage:   .*suffix.bin, "
                                         "32784 bytes, release 2.50\r\n.*y/N"));
    EXPECT_THAT(asked.out, ContainsRegex("written: .* version 2.5.0, as before\r\n"));
}

TEST_F(Update, IsNotBegunUnlessItIsConfirmed) {
    EXPECT_THAT(jovu(update_, "y\n", Out::console), Exits(2, "--yes is needed"));
    for (const char* const answer : {"\n", "no\n", "yeah\n", "\x04", "\x03"}) {
        Program program(update_, Out::dialog);
        program.type("y\n");  // ahead of the question, which it does not answer
        ASSERT_TRUE(program.writes("[y/N] "));
        program.type(answer);
        EXPECT_EQ(program.finish().status, 130) << answer;
    }
    Program shell("shell --json", Out::dialog);
    shell.type("." + update_ + "\n");
    ASSERT_TRUE(shell.writes("write the image? [y/N] "));
    shell.type("n\n");
    EXPECT_EQ(shell.finish().status, 130);
    Program program(update_, Out::dialog);
    ASSERT_TRUE(program.writes("[y/N] "));
    EXPECT_EQ(requests(device_, "Enter_dfu_mode"), 0);
    sim("unplug " + name(device_));
    plug(name(device_) + " serial=OTHER");
    // Receiving starts after the library has taken up the new connection.
    EXPECT_TRUE(eventually([&] { return stats(device_)["endpoints"]["81"]["in_flight"] == 1; }));
    program.type("y\n");
    EXPECT_EQ(program.finish().status, 3) << program.out();
    EXPECT_EQ(requests(device_, "Enter_dfu_mode"), 0) << "another one has come to its place";
}

TEST_F(Update, TakesUpADeviceThatIsInDfuMode) {
    const TemporaryFile cut("cut.bin", content_.substr(0, 3000));
    EXPECT_THAT(update(cut.path()), Exits(5, "'jovu update' can be run again"));
    EXPECT_THAT(jovu("dfu"), Exits(0, "  serial " + serial_ + "\n"));
    plug();
    const TemporaryFile image("suffix.bin", with_suffix(content_, "-v ffff -p 00df"));
    const Ended ended =
        jovu("update " + image.path() + " --serial " + serial_ + " --json", "y\n", Out::dialog);
    EXPECT_THAT(ended, Exits(0, "version: unknown in DFU mode"));
    EXPECT_THAT(ended, Exits(0, "\"version_before\":null,\"version\":\"2.5.0\"}"));
    EXPECT_THAT(jovu("dfu"), Exits(3, ""));
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
    const char* more;      ///< Options.
    int status;
    const char* says;
    const char* log;  ///< Of dfu-util.
};

void PrintTo(const Judged& row, std::ostream* out) {
    *out << row.says << row.version << row.stranger;
}

const Judged kJudged[] = {
    {"", {"disconnect-at-reset"}, "", "2", "", 0, "runs version 2, before it was 1.0.0", kBroken},
    {"", {"write-error 5"}, "", "2", "", 5, kWriteError, kBroken},
    {"", {"keep-firmware"}, "", "2", "", 5, "runs version 1.0.0 as before, which is not", kDone},
    {"", {"keep-firmware"}, "", "2", "--force", 0, "written: 1:", kDone},
    {"", {"keep-firmware"}, "", "1.0.0", "", 0, "written: 1:", kDone},
    {"", {"keep-firmware", "unplug-at 5"}, "", "1.0.0", "", 5, "the update failed, ", kBroken},
    {"product=00df", {"keep-firmware"}, "", "2", "", 0, "runs version 1.0.0\n", kDone},
    {"product=00df", {"keep-firmware", "unplug-at 5"}, "", "2", "", 5, "failed, ", kBroken},
    {"", {"serial T"}, "", "2", "", 0, "updated: ", "0 -d 7a1c:00df -a 0 -S T "},
    {"", {}, "vendor=1209 serial=S", "2", "", 0, "updated: ", kDone},
    {"", {}, "serial=X", "2", "", 0, "updated: ", kDone},
    {"", {}, "serial=S", "2", "", 4, "several devices: in DFU mode S (7a1c:00df at 1-", "-l"},
    {"", {"serial T"}, "serial=X", "2", "", 4, "several devices: in DFU mode ", "-l"},
    {"product=00df", {"unplug-at 5"}, "product=2", "2", "", 5, "has not returned: S", kBroken},
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
    Program program("update --yes " + image.path() + " " + row.more);
    if (*row.stranger != 0) {
        EXPECT_TRUE(eventually([&] { return sim("list").find(name(device) + " ") != 0; }));
        plug(std::string("product=00df ") + row.stranger);
    }
    EXPECT_THAT(program.finish(), Exits(row.status, row.says));
    EXPECT_THAT(tool.log(), HasSubstr(row.log));
    EXPECT_THAT(tool.log(), Not(HasSubstr("1209")));
}

INSTANTIATE_TEST_SUITE_P(Each, JudgedUpdate, testing::ValuesIn(kJudged));

/// A device that was in DFU mode before reconnects with another number and the serial number S.
TEST_F(Update, TakesNoDeviceThatWasListedBefore) {
    sim("unplug " + name(device_));
    const FakeTool tool(R"([ "$1" = -l ] || { real "$@"; exit; }
out=$(real -l); echo "$out"
now='9, path="9-9", alt=0, serial="X"'
case $out in *'Found DFU'*) now='10, path="9-9", alt=0, serial="S"';; esac
echo "Found DFU: [7a1c:00df] devnum=$now")");
    const JovuDeviceAddress device = plug("serial=S");
    sim("fault " + name(device) + " dfu serial T");
    EXPECT_THAT(update(image_.path(), "-d " + name(device)), Exits(0, ""));
}

TEST_F(Update, IsNotBegunWhenItCannotEndWell) {
    const std::string others = with_suffix(content_, "-v 1209 -p 0001");
    const std::string chosen = "-d " + name(device_);
    // The image, another device in DFU mode, options.
    const std::tuple<std::string, std::string, std::string, int, const char*> rows[] = {
        {with_suffix("G28\n", ""), "", "", 7, "it is plain text"},
        {others, "", "", 7, "is for another device, 1209:0001, this one is 7a1c:0002"},
        {with_suffix(content_, "-v 7a1c -p 0003"), "", "", 7, "for another device, 7a1c:0003"},
        {content_, "vendor=1209 serial=" + serial_, "", 4, "two devices claim one serial number"},
        {content_, "serial=" + serial_, chosen, 4, "two devices claim one serial number"},
        {content_, "serial=-\"%20serial=\"X", chosen, 4, "cannot tell the devices in DFU mode ap"},
        {content_, "name=x\",%20serial=\"B\"%0Ax", chosen, 4, "cannot tell the devices in DFU mo"},
        {content_, "vendor=1209 serial=X", "--serial X", 3, "of another vendor: in DFU mode X "},
        {content_, "serial=A-B", "--serial A-B", 3, "must be alphanumeric"},
        {content_, "serial=X", "--serial NONE", 3, "no device with serial number NONE"},
        {content_, "", chosen + " --serial X", 2, "--device excludes --serial"},
        {content_, "serial=X", "-d 7:7", 3, "no such device: 7:7"},
        {content_, "serial=X", "", 4, ", in DFU mode X (7a1c:00df at 1-"},
    };
    for (const auto& [content, other, options, status, told] : rows) {
        const TemporaryFile image("tried.bin", content);
        const std::string stranger = other.empty() ? "" : name(plug("product=00df " + other));
        EXPECT_THAT(update(image.path(), options), Exits(status, told)) << other;
        if (!stranger.empty()) sim("unplug " + stranger);
    }
    EXPECT_EQ(requests(device_, "Enter_dfu_mode"), 0);
    const TemporaryFile forced("forced.bin", others);
    EXPECT_THAT(update(forced.path(), "--force"), Exits(0, ""));
}

TEST_F(Update, NamesTheNodeThatItMayNotOpen) {
    const FakeTool tool(
        "echo 'Cannot open DFU device 7a1c:00df found on devnum 9 (LIBUSB_ERROR_ACCESS)' >&2\n");
    const Ended ended = jovu("dfu");
    EXPECT_THAT(ended, Exits(3, "no permission on /dev/bus/usb/*/009 ("));
    EXPECT_THAT(ended, Exits(3, "70-jovu.rules"));
}

TEST_F(Update, IsNotCutByAnInterrupt) {
    const TemporaryFile large("large.bin", sound_image("2.5.0", "500000"));
    Program program("update --yes " + large.path());
    ASSERT_TRUE(program.writes("downloading"));
    program.signal(SIGINT);
    EXPECT_THAT(program.finish(), Exits(130, "jovu: the download continues"));
    EXPECT_TRUE(eventually(
        [] { return jovu("info --json").out.find("\"version\":\"2.5.0\"") != std::string::npos; }));
}

}  // namespace
}  // namespace test
