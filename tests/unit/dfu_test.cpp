/// @file
/// JovuDfu with a stand-in for dfu-util: a script in a directory of its own.
#include "jovu/dfu.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "jovu/exception.h"

namespace {

namespace fs = std::filesystem;

using testing::ElementsAre;

const JovuDfu::DfuDevice_t kDevice{"1234", "abcd", "ABC123"};
const std::string kFailed = "Failed to update device, pipe log: ";

/// What the progress callback received, and what it does.
std::vector<double> reported;
std::string reported_serial;
void (*during)() = nullptr;
JovuDfu* running = nullptr;

void record(double percent, JovuDfu::DfuDevice_t device) {
    reported.push_back(percent);
    reported_serial = device.serial;
    if (during != nullptr) during();
}

bool has_children() {
    return ::waitpid(-1, nullptr, WNOHANG) != -1 || errno != ECHILD;
}

/// File descriptors that a new process would get.
int inheritable() {
    int count = 0;
    for (int fd = 0; fd < 256; ++fd) {
        const int flags = ::fcntl(fd, F_GETFD);
        count += flags != -1 && (flags & FD_CLOEXEC) == 0 ? 1 : 0;
    }
    return count;
}

class Dfu : public ::testing::Test {
protected:
    void SetUp() override {
        std::string pattern = fs::temp_directory_path() / "dfu-test-XXXXXX";
        ASSERT_NE(::mkdtemp(pattern.data()), nullptr);
        directory_ = pattern;
        fs::current_path(directory_);
        reported.clear();
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

    /// @return what the exception says, empty when there was none.
    static std::string update(JovuDfu& dfu, const JovuDfu::DfuDevice_t& device = kDevice,
                              const std::string& file = "image.bin") {
        try {
            dfu.UpdateDevice(device, file, record);
            return "";
        } catch (const JovuException& error) {
            return error.what();
        }
    }
    static std::string update() {
        JovuDfu dfu;
        return update(dfu);
    }

    const fs::path before_ = fs::current_path();
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
    EXPECT_THAT(serials, ElementsAre("1234abcdABC123", "12LONG"));
}

TEST_F(Dfu, ReportsEveryPercentageAndThenTheEnd) {
    const struct {
        const char* script;
        std::vector<double> percents;
        std::string error;
    } cases[] = {
        {R"(printf 'Download\t[====    ]  42%%        1024 bytes\n')", {42, 100}, ""},
        {R"(printf '\rErase [ ] 10%%\rErase [=] 20%%\r 250%% 3%%  4%% \n')",
         {10, 20, 250, 4, 100},
         ""},
        {R"(printf '100%%\n')", {100}, kFailed + "100%\n"},
        {R"(printf '%123s42%% \n' '')", {42, 100}, ""},
        {R"(printf '%124s42%% \n' '')", {100}, kFailed + std::string(124, ' ') + "42% \n"},
        {R"(printf '%200000s 42%% \n' x)", {42, 100}, ""},
        {"echo first; echo second; echo unseen >&2; exit 1", {100}, kFailed + "first\nsecond\n"},
        {"echo ' 5% '; exit 127", {5, 100}, ""},
        {"echo ' 5% '; kill -9 $$", {5, 100}, ""},
        {"exit 0", {100}, kFailed},
    };
    for (const auto& row : cases) {
        tool(row.script);
        reported.clear();
        EXPECT_EQ(update(), row.error) << row.script;
        EXPECT_EQ(reported, row.percents) << row.script;
        EXPECT_EQ(reported_serial, kDevice.serial);
    }
    tool("echo ' 5% '");
    JovuDfu().UpdateDevice(kDevice, "image.bin", nullptr);
    tool("echo 5");
    EXPECT_THROW(JovuDfu().UpdateDevice(kDevice, "image.bin", nullptr), JovuException);
}

TEST_F(Dfu, SaysThatTheToolCannotBeRun) {
    EXPECT_EQ(update(), kFailed + directory_.string() + "/dfu-util: not found");
    EXPECT_THAT(reported, ElementsAre(100));
    EXPECT_TRUE(JovuDfu().GetDfuDevices().empty());
    std::ofstream("dfu-util") << "no program";
    EXPECT_EQ(update(), kFailed + directory_.string() + "/dfu-util: cannot be executed");
}

TEST_F(Dfu, ThrowsWhenNoProcessCanBeStarted) {
    tool("echo ' 5% '");
    JovuDfu dfu;
    EXPECT_EQ(update(dfu, kDevice, std::string(200000, 'x')), "Failed to open dfu-util pipe.");
    EXPECT_TRUE(reported.empty());
    EXPECT_EQ(update(dfu), "");
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
    EXPECT_EQ(update(dfu, kDevice, "$(touch a) `touch b`; touch c & 'd' -e"),
              kFailed +
                  "[-d][1234:abcd][-a][0][-S][ABC123][-D]"
                  "[$(touch a) `touch b`; touch c & 'd' -e]");
}

TEST_F(Dfu, RunsTheToolOfTheDirectoryThatItWasBuiltIn) {
    const fs::path odd = directory_ / "it's; exit 1 & (here)";
    fs::create_directory(odd);
    fs::current_path(odd);
    tool("echo ' 5% '");
    JovuDfu dfu;
    fs::current_path(directory_);
    tool("echo wrong");
    EXPECT_EQ(update(dfu), "");

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
    EXPECT_THROW(dfu.UpdateDevice(kDevice, "image.bin", record), int);
    EXPECT_FALSE(has_children());
    EXPECT_THAT(reported, ElementsAre(5));

    running = &dfu;
    during = [] { running->GetDfuDevices(); };
    EXPECT_EQ(update(dfu), "dfu-util is already running for this object.");
    EXPECT_FALSE(has_children());

    during = nullptr;
    tool("echo ' 6% '");
    EXPECT_EQ(update(dfu), "");
}

TEST_F(Dfu, KeepsItsPipeFromOtherChildren) {
    static int before = 0;
    before = inheritable();
    tool("echo ' 5% '");
    during = [] { EXPECT_EQ(inheritable(), before); };
    EXPECT_EQ(update(), "");
    EXPECT_THAT(reported, ElementsAre(5, 100));
}

TEST_F(Dfu, ReadsOnAfterASignal) {
    struct sigaction action {};
    struct sigaction old_action {};
    static volatile std::sig_atomic_t signals;
    signals = 0;
    action.sa_handler = [](int) { signals = signals + 1; };
    ASSERT_EQ(::sigaction(SIGALRM, &action, &old_action), 0);
    const itimerval every_20_ms{{0, 20000}, {0, 20000}};
    const itimerval never{};
    tool("printf ' 4'; sleep 0.3; echo '2% '");
    ::setitimer(ITIMER_REAL, &every_20_ms, nullptr);
    const std::string error = update();
    ::setitimer(ITIMER_REAL, &never, nullptr);
    ::sigaction(SIGALRM, &old_action, nullptr);
    EXPECT_GT(signals, 0);  // ThreadSanitizer holds signals back and lets several be one
    EXPECT_EQ(error, "");
    EXPECT_THAT(reported, ElementsAre(42, 100));
}

}  // namespace
