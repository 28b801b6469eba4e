// SPDX-License-Identifier: Apache-2.0
#include "json/json.h"

#include <gtest/gtest.h>

#include <clocale>
#include <cstdio>
#include <cstdlib>
#include <limits>

#include "commands/firmware_command.h"
#include "support/recording_client.h"

namespace {

std::string nested(std::size_t depth) {
    return std::string(depth, '[') + std::string(depth, ']');
}

TEST(Json, NestingIsBoundedBeforeATreeIsBuilt) {
    EXPECT_NE(jovu::parse_json(nested(64)), nullptr);
    EXPECT_EQ(jovu::parse_json(nested(65)), nullptr);
    EXPECT_EQ(jovu::parse_json(std::string(1U << 20U, '[')), nullptr);
    // yajl skips comments; what stands in one must not hide what comes behind it.
    for (const char* const comment : {"/*\"*/", "//\"\n", "/"})
        EXPECT_EQ(jovu::parse_json(comment + nested(500000)), nullptr) << comment;
    for (const char* const text :
         {"", "[{}]", R"({"[[[[":"{{{{"})", R"(["\"[[[["])", R"(["\\\"[[[["])", "[]{}[]{}[]",
          R"(["/","//"])", "]]]][[", R"({"a":"/*"})"})
        EXPECT_TRUE(jovu::nests_within(text, 2)) << text;
    for (const char* const text : {"[{[", R"(["\\",[[]]])", "]]]][[[", R"([1/*"*/,[[1]]/*"*/])"})
        EXPECT_FALSE(jovu::nests_within(text, 2)) << text;
}

TEST(Json, TheIntegerReadingIsTheWholePartWithinItsLimits) {
    constexpr auto kSmallest = std::numeric_limits<long long>::min();
    constexpr auto kLargest = std::numeric_limits<long long>::max();
    const std::pair<long long, std::vector<const char*>> cases[] = {
        {0, {"0", "-0.9", "1e-400"}},
        {1, {"1.5"}},
        {-7, {"-7.9"}},
        {1000, {"1e3"}},
        {9007199254740993, {"9007199254740993"}},
        {kLargest, {"9223372036854775807", "9223372036854775808", "1e19", "1e400"}},
        {kSmallest, {"-9223372036854775808", "-9223372036854775808.0", "-1e19", "-1e400"}},
    };
    for (const auto& [expected, numbers] : cases) {
        for (const char* const number : numbers) {
            const jovu::JsonTree tree = jovu::parse_json(std::string("{\"n\":") + number + "}");
            EXPECT_EQ(jovu::find_integer(tree.get(), {"n"}), expected) << number;
        }
    }
}

/// In an application with a locale of its own.
TEST(Json, NumbersHaveADecimalPointWhateverTheLocale) {
    test::RecordingClient client;
    ASSERT_EQ(::setenv("LOCPATH", TEST_LOCALES, 1), 0);
    ASSERT_NE(std::setlocale(LC_ALL, "de_DE.UTF-8"), nullptr);
    VoidJovuFirmwareCommand<float> message(client, "n", 1, {21.5F}, {"value"});
    EXPECT_NE(message.compile().find(R"({"value":21.5})"), std::string::npos) << message.compile();
    EXPECT_EQ(jovu::find_double(jovu::parse_json(R"({"n":1.5})").get(), {"n"}), 1.5);
    char own[8] = "";
    std::snprintf(own, sizeof own, "%.1f", 1.5);
    EXPECT_STREQ(own, "1,5") << "the application keeps its locale";
    std::setlocale(LC_ALL, "C");
}

}  // namespace
