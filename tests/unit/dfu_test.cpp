// SPDX-License-Identifier: Apache-2.0

/// @file
/// JovuDfu with a stand-in for dfu-util: a script in a directory of its own.
#include "jovu/dfu.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>
#include <vector>

#include "support/recording_client.h"

namespace {

namespace fs = std::filesystem;

const JovuDfu::DfuDevice_t kDevice{"1234", "abcd", "ABC123"};
const std::string kFailed = "100 Failed to update device, pipe log: ";

/// What the progress callback received, and what it does.
std::ostringstream reported;
std::string reported_serial;
std::function<void()> during;

void record(double percent, JovuDfu::DfuDevice_t device) {
    reported << percent << ' ';
    reported_serial = device.serial;
    if (during) during();
}

bool has_children() {
    return ::waitpid(-1, nullptr, WNOHANG) != -1 || errno != ECHILD;
}

/// In a directory of its own.
class Dfu : public ::testing::Test {
protected:
    void SetUp() override {
        std::string pattern = before_ / "dfu-test-XXXXXX";
        ASSERT_NE(::mkdtemp(pattern.data()), nullptr);
        directory_ = pattern;
        fs::current_path(directory_);
        during = nullptr;
    }
    void TearDown() override {
        EXPECT_FALSE(has_children());
        fs::current_path(before_);
        fs::remove_all(directory_);
    }

    /// Makes the working directory's dfu-util.
    static void tool(const std::string& script) {
        std::ofstream("dfu-util") << "#!/bin/sh\n" << script << "\n";
        fs::permissions("dfu-util", fs::perms::owner_all);
    }

    /// @return what was reported, and what the exception says, if there was one.
    static std::string update(JovuDfu& dfu, const JovuDfu::DfuDevice_t& device = kDevice,
                              const std::string& file = "image.bin") {
        reported.str("");
        const std::string error = test::error_of([&] { dfu.UpdateDevice(device, file, record); });
        return reported.str() + error;
    }
    static std::string update() {
        JovuDfu dfu;
        return update(dfu);
    }

    const fs::path before_ = fs::temp_directory_path();
    fs::path directory_;
};

TEST_F(Dfu, ListsWhatTheToolFindsHoweverItEnds) {
    tool(R"(test "$*" = -l || exit 1
echo 'Found DFU: [1234:abcd] ver=0100, intf=0, alt=1, name="Flash", serial="ABC123"'
printf 'Found DFU: [1:2] %100000s, serial="LONG"\n' x
exit 1)");
    std::vector<std::string> serials;
    for (const auto& device : JovuDfu().GetDfuDevices())
        serials.push_back(device.vendor_id + device.product_id + device.serial);
    EXPECT_THAT(serials, testing::ElementsAre("1234abcdABC123", "12LONG"));
}

TEST_F(Dfu, ReportsEveryPercentageAndThenTheEnd) {
    const std::pair<const char*, std::string> cases[] = {
        {R"(printf 'Download\t[====    ]  42%%        1024 bytes\n')", "42 100 "},
        {R"(printf '\rErase [ ] 10%%\rErase [=] 20%%\r 250%% 3%%  4%% \n')", "10 20 250 4 100 "},
        {R"(printf '100%%\n')", kFailed + "100%\n"},
        {R"(printf '%123s42%% \n' '')", "42 100 "},
        {R"(printf '%124s42%% \n' '')", kFailed + std::string(124, ' ') + "42% \n"},
        {R"(printf '%200000s 42%% \n' x)", "42 100 "},
        {"echo first; echo second; echo unseen >&2; exit 1", kFailed + "first\nsecond\n"},
        {"echo ' 5% '; exit 127", "5 100 "},
        {"echo ' 5% '; kill -9 $$", "5 100 "},
        {"exit 0", kFailed},
    };
    for (const auto& [script, outcome] : cases) {
        tool(script);
        EXPECT_EQ(update(), outcome) << script;
        EXPECT_EQ(reported_serial, kDevice.serial);
    }
    tool("echo ' 5% '");
    JovuDfu().UpdateDevice(kDevice, "image.bin", nullptr);
    tool("echo 5");
    EXPECT_THROW(JovuDfu().UpdateDevice(kDevice, "image.bin", nullptr), JovuException);
}

TEST_F(Dfu, SaysWhyTheToolCannotBeRun) {
    EXPECT_EQ(update(), kFailed + directory_.string() + "/dfu-util: not found");
    EXPECT_TRUE(JovuDfu().GetDfuDevices().empty());
    std::ofstream("dfu-util") << "no program";
    EXPECT_EQ(update(), kFailed + directory_.string() + "/dfu-util: cannot be executed");
    tool("echo ' 5% '");
    JovuDfu dfu;
    EXPECT_EQ(update(dfu, kDevice, std::string(200000, 'x')), "Failed to open dfu-util pipe.");
    EXPECT_EQ(update(dfu), "5 100 ");
}

TEST_F(Dfu, HandsEveryCharacterToTheToolAsItIs) {
    tool(R"(printf '[%s]' "$@")");
    std::ofstream("_x_") << "for wildcards";
    JovuDfu dfu;
    for (int code = 1; code < 256; ++code) {
        const char c = static_cast<char>(code);
        if (c == ' ' || (c >= '\t' && c <= '\r' && c != '\n')) continue;
        const std::string text = {c, 'x', c};
        EXPECT_EQ(update(dfu, {text, text, text}, text), kFailed + "[-d][" + text + ":" + text +
                                                             "][-a][0][-S][" + text + "][-D][" +
                                                             (c == '-' ? "./" : "") + text + "]")
            << code;
    }
}

TEST_F(Dfu, RunsTheToolOfTheDirectoryThatItWasBuiltIn) {
    const fs::path odd = directory_ / "it's; exit 1 & (here)";
    fs::create_directory(odd);
    fs::current_path(odd);
    tool("echo ' 5% '");
    JovuDfu dfu;
    fs::current_path(directory_);
    tool("echo wrong");
    EXPECT_EQ(update(dfu), "5 100 ");

    for (int depth = 0; depth < 10; ++depth) {
        const std::string name(120, 'd');
        fs::create_directory(name);
        ASSERT_EQ(::chdir(name.c_str()), 0);
    }
    EXPECT_EQ(update(), kFailed + "/dfu-util: not found") << "its path is too long";
}

TEST_F(Dfu, AnExceptionInTheCallbackEndsTheToolAndPassesOn) {
    tool("while echo ' 5% '; do :; done");
    JovuDfu dfu;
    during = [] { throw 7; };
    EXPECT_THROW(update(dfu), int);
    EXPECT_FALSE(has_children());
    EXPECT_EQ(reported.str(), "5 ");

    during = [&dfu] { dfu.GetDfuDevices(); };
    EXPECT_EQ(update(dfu), "5 dfu-util is already running for this object.");
    EXPECT_FALSE(has_children());

    during = nullptr;
    tool("echo ' 6% '");
    EXPECT_EQ(update(dfu), "6 100 ");
}

TEST_F(Dfu, KeepsItsPipeFromOtherChildren) {
    const auto inheritable = [] {
        int count = 0;
        for (int fd = 0; fd < 256; ++fd)
            count += ::fcntl(fd, F_GETFD) == 0 ? 1 : 0;
        return count;
    };
    tool("echo ' 5% '");
    during = [&, before = inheritable()] { EXPECT_EQ(inheritable(), before); };
    EXPECT_EQ(update(), "5 100 ");
}

TEST_F(Dfu, ReadsOnAfterASignal) {
    static volatile std::sig_atomic_t signals = 0;
    struct sigaction action {};
    action.sa_handler = [](int) { signals = signals + 1; };
    ASSERT_EQ(::sigaction(SIGALRM, &action, nullptr), 0);
    tool("printf ' 4'; sleep 0.3; echo '2% '");
    ::ualarm(20000, 20000);
    const std::string outcome = update();
    ::ualarm(0, 0);
    std::signal(SIGALRM, SIG_DFL);
    EXPECT_GT(signals, 0);  // ThreadSanitizer holds signals back and lets several be one
    EXPECT_EQ(outcome, "42 100 ");
}

}  // namespace
