// SPDX-License-Identifier: Apache-2.0

/// @file
/// What dfu-util prints, against the regular expressions that the matchers stand for.
#include "dfu/tool_output.h"

#include <gtest/gtest.h>

#include <ctime>
#include <random>
#include <regex>
#include <sstream>

namespace {

using namespace std::string_literals;
using Parts = std::vector<std::string>;

/// @return the groups of every match.
std::vector<Parts> groups(const std::string& text, const std::regex& pattern) {
    std::vector<Parts> found;
    for (std::sregex_iterator match(text.begin(), text.end(), pattern), end; match != end; ++match)
        found.emplace_back(std::next(match->begin()), match->end());
    return found;
}

std::vector<Parts> listed(const std::string& text) {
    std::vector<Parts> found;
    for (const auto& device : jovu::listed_devices(text))
        found.push_back({device.vendor_id, device.product_id, device.serial});
    return found;
}

/// @param bars parts, with bars in between.
/// @return strings that are put together from the parts at random.
std::vector<std::string> random_strings(const std::string& bars) {
    std::vector<std::string> parts, strings(20000);
    std::istringstream stream(bars);
    for (std::string part; std::getline(stream, part, '|');)
        parts.push_back(part);
    std::mt19937 random(1);
    for (std::string& text : strings) {
        for (std::size_t left = random() % 16; left > 0; --left)
            text += parts[random() % parts.size()];
    }
    return strings;
}

TEST(DfuListing, FindsWhatThePatternsFind) {
    const std::regex pattern(R"x(Found\s+DFU:\s+\[([a-zA-Z0-9]+):([a-zA-Z0-9]+)\])x"
                             R"x(.*?serial="([a-zA-Z0-9]+)".*\n)x");
    // Some parts are listed more than once, to be chosen more often.
    const std::string parts =
        "Found|Found |Found DFU: [12:ab]|Found DFU: [12:ab]|Found DFU: [12:ab]|DFU:| |[|x:Y9|:|]|"
        "Found\n DFU:\r\t[aA0:zZ9]|serial=|\"|serial=\"azAZ09\"|serial=\"A1\"| serial=\"B2\", |"
        "serial=\"\"|serial=\"C 3\"|serial=\"D|\n|\n|\n|\r|\r\n|\v|\0|\xE2\x80\xA8"s;
    std::size_t devices = 0;
    for (const std::string& text : random_strings(parts)) {
        const auto expected = groups(text, pattern);
        ASSERT_EQ(listed(text), expected) << text;
        devices += expected.size();
    }
    EXPECT_GT(devices, 1000U) << "the strings match too rarely to prove anything";
}

TEST(DfuProgress, FindsWhatThePatternFinds) {
    const std::regex pattern(R"(\s([0-9]+)%\s)");
    std::size_t numbers = 0;
    auto strings = random_strings(" |\t|\n|\r|\v|0|42|100|%|% | 7%|x|-|.");
    strings.push_back(" " + std::string(124, '9') + "% ");
    for (const std::string& text : strings) {
        std::vector<double> expected;
        for (const Parts& number : groups(text, pattern))
            expected.push_back(std::stod(number[0]));
        ASSERT_EQ(jovu::percentages(text), expected) << text;
        numbers += expected.size();
    }
    EXPECT_GT(numbers, 1000U);
}

TEST(DfuListing, TakesTimeInProportionToItsLength) {
    const std::string header = "Found DFU: [a:b] ";
    const std::string line = header + "serial=\"x\"\n";
    const struct {
        std::string begin, unit, end;
        std::size_t found = 0;
    } cases[] = {
        {"", header, ""},
        {"", header, "\n"},
        {"", header + "serial=\"x\" ", "\r\n"},
        {"", header + "serial=\"\" ", "\n"},
        {"", line, "", 300000},
        {"", "Found ", ""},
        {"Found", "\n", ""},
        {"Found DFU: [", "a", ""},
        {header, "serial=\"", "\n"},
        {header, "x", " serial=\"x\"\n", 1},
        {header, "x", line, 1},
    };
    for (const auto& row : cases) {
        std::string output = row.begin;
        for (int i = 0; i < 300000; ++i)
            output += row.unit;
        const std::clock_t begin = std::clock();
        EXPECT_EQ(jovu::listed_devices(output + row.end).size(), row.found) << row.unit << row.end;
        EXPECT_LT(std::clock() - begin, 10 * CLOCKS_PER_SEC) << "quadratic time would be more";
    }
}

}  // namespace
