/// @file
/// Lines of the shell: their words, and how they can go on.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "words.h"

#include "completion.h"
#include "failure.h"

namespace {

using jovu_cli::complete;
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

TEST(Completion, KnowsWhatCanFollow) {
    const std::vector<std::string> commands{".call", ".commands", ".events"};
    const auto words = [&](const std::string& line) {
        return complete(line, commands, {"1:2", "1:3"}).words;
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
}

}  // namespace
