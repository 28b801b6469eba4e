/// @file
/// Lines of the shell: split into words, completed, and printed.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "shell/shell_words.h"

#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "cli/failure.h"
#include "terminal/printable.h"

namespace {

using jovu_cli::complete;
using jovu_cli::printable;
using jovu_cli::split_words;
using testing::ElementsAre;
using testing::IsEmpty;

TEST(Words, AreSplitAsInAShell) {
    EXPECT_THAT(split_words("  push  my\\ file 'a b' \"c \\\"d\\\" 'e'\" x''y"),
                ElementsAre("push", "my file", "a b", "c \"d\" 'e'", "xy"));
    EXPECT_THAT(split_words("call x config='{\"a\": 1}' t=''"),
                ElementsAre("call", "x", "config={\"a\": 1}", "t="));
    EXPECT_THAT(split_words("'' \"\""), ElementsAre("", ""));
    EXPECT_THAT(split_words(" \t\r"), IsEmpty());
    for (const char* line : {"a 'b", "a \"b'", "a\\"}) {
        EXPECT_THROW(split_words(line), jovu_cli::Failure) << line;
    }
}

TEST(Printable, ShowsWhatCannotBeSeen) {
    const std::pair<std::string_view, const char*> rows[] = {
        {"caf\u00E9 \u4E2D \U0001F600 ~", "caf\u00E9 \u4E2D \U0001F600 ~"},
        {{"\0\t\n\r\x1b\x7F\xC2\x9B", 8}, R"(\x00\t\n\r\x1b\x7f\u009b)"},
        {"\u061C\u200B\u200E\u2028\u202E\u2066\u2069",
         R"(\u061c\u200b\u200e\u2028\u202e\u2066\u2069)"},
        {"\u00A0\u00AD\u034F\u2060\u3164\uFE0F\uFEFF",
         R"(\u00a0\u00ad\u034f\u2060\u3164\ufe0f\ufeff)"},
        {"\uE000\uFDD0\U0001FFFE\U000E0041", R"(\ue000\ufdd0\U0001fffe\U000e0041)"},
        {"\xC1\x9B\xE0\x80\x9B\xF0\x80\x80\x9B", R"(\xc1\x9b\xe0\x80\x9b\xf0\x80\x80\x9b)"},
        {"\xC2\x80\xED\xBF\xBF\uFFFF\xF1\x80\x80\x80\xF4\x8F\xBF\xBF\u0800\U00010000",
         R"(\u0080\xed\xbf\xbf\uffff\U00040000\U0010ffff)"
         "\u0800\U00010000"},
        {"\xED\xA0\x80\xF4\x90\x80\x80\xE2\x80", R"(\xed\xa0\x80\xf4\x90\x80\x80\xe2\x80)"},
    };
    for (const auto& [text, shown] : rows) {
        EXPECT_EQ(printable(text), shown);
        EXPECT_EQ(printable(shown), shown);
    }
    EXPECT_EQ(jovu_cli::fit("\u00E9b", 1) + jovu_cli::fit("\u00E9b", 9), "\u00E9\u00E9b");
}

TEST(Completion, KnowsWhatCanFollow) {
    const std::vector<std::string> commands{".call", ".commands", ".events"};
    const auto words = [&](const std::string& line) {
        return complete(line, commands, {"1:2", "1:3"}).candidates;
    };
    EXPECT_THAT(words(".c"), ElementsAre(".call", ".commands"));
    EXPECT_THAT(words("c"), IsEmpty());
    EXPECT_THAT(words(".commands bio_"), ElementsAre("bio_get_version", "bio_get_serial"));
    EXPECT_THAT(words(".call gpio_input_get "), ElementsAre("pin=", "debounce="));
    EXPECT_THAT(words(".call gpio_input_get pin=1 "), ElementsAre("debounce="));
    EXPECT_THAT(words(".call wifi_client_configure con"), ElementsAre("config."));
    EXPECT_THAT(words(".call wifi_client_configure config."),
                ElementsAre("config.ifc_config.", "config.hdw_config.", "config.ip_config."));
    EXPECT_THAT(words(".call wifi_client_configure config.hdw_config.m"),
                ElementsAre("config.hdw_config.mac_address="));
    EXPECT_THAT(words(".call nonsense "), IsEmpty());
    EXPECT_THAT(words(".device 1"), ElementsAre("1:2", "1:3"));
    EXPECT_THAT(words(".events o"), ElementsAre("on", "off"));
    EXPECT_EQ(complete(".call gpio_input_get de", commands, {}).typed, 2U);

    const std::string folder = testing::TempDir() + std::to_string(getpid()) + "-folder/";
    std::filesystem::create_directories(folder + "sub");
    for (const char* const file : {"b", "a", ".hidden"})
        std::ofstream(folder + file);
    EXPECT_THAT(words(".push " + folder), ElementsAre(folder + "a", folder + "b", folder + "sub/"));
    EXPECT_THAT(words(".push " + folder + "."), ElementsAre(folder + ".hidden"));
    EXPECT_THAT(words("G28 " + folder), IsEmpty());
    std::filesystem::remove_all(folder);
}

}  // namespace
