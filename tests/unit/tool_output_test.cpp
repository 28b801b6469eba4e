/// @file
/// What dfu-util prints, against the regular expressions that the matchers stand for.
#include "dfu/tool_output.h"

#include <gmock/gmock.h>

#include <ctime>
#include <random>
#include <regex>
#include <sstream>

namespace {

using namespace std::string_literals;
using Device = JovuDfu::DfuDevice_t;

std::string read_back(const std::list<Device>& devices) {
    std::string text;
    for (const Device& device : devices)
        text += device.vendor_id + ":" + device.product_id + " " + device.serial + ";";
    return text;
}

std::list<Device> listed_by_regex(const std::string& output) {
    static const std::regex line(
        R"(Found\s+DFU:\s+\[[a-zA-Z0-9]+:[a-zA-Z0-9]+\].*serial="[a-zA-Z0-9]+".*\n)");
    static const std::regex ids("[a-zA-Z0-9]+:[a-zA-Z0-9]+");
    static const std::regex steps_to_serial[] = {std::regex("serial=\"[a-zA-Z0-9]+\""),
                                                 std::regex("\"[a-zA-Z0-9]+\""),
                                                 std::regex("[a-zA-Z0-9]+")};
    const auto search = [](const std::string& text, const std::regex& pattern) {
        std::smatch match;
        std::regex_search(text, match, pattern);
        return match.str();
    };
    std::list<Device> devices;
    for (std::sregex_iterator match(output.begin(), output.end(), line), end; match != end;
         ++match) {
        const std::string id = search(match->str(), ids);
        std::string serial = match->str();
        for (const std::regex& step : steps_to_serial)
            serial = search(serial, step);
        devices.push_back({id.substr(0, id.find(':')), id.substr(id.find(':') + 1), serial});
    }
    return devices;
}

std::vector<double> percentages_by_regex(std::string piece) {
    static const std::regex pattern("\\s[0-9]+%\\s");
    std::vector<double> found;
    std::smatch match;
    while (std::regex_search(piece, match, pattern)) {
        const std::string text = match.str();
        found.push_back(std::stod(text.substr(1, text.size() - 3)));
        piece = match.suffix();
    }
    return found;
}

/// Strings put together from parts at random.
class RandomStrings {
public:
    /// @param parts with bars in between.
    explicit RandomStrings(const std::string& parts) {
        std::istringstream stream(parts);
        for (std::string part; std::getline(stream, part, '|');)
            parts_.push_back(part);
    }
    std::string next() {
        std::string text;
        for (std::size_t left = random_() % 16; left > 0; --left)
            text += parts_[random_() % parts_.size()];
        return text;
    }

private:
    std::vector<std::string> parts_;
    std::mt19937 random_{1};
};

constexpr int kStrings = 20000;

TEST(DfuListing, FindsWhatThePatternsFind) {
    // Some parts are listed more than once, to be chosen more often.
    RandomStrings strings(
        "Found|Found |Found DFU: [12:ab]|Found DFU: [12:ab]|Found DFU: [12:ab]|DFU:| |[|x:Y9|:|]|"
        "Found\n DFU:\r\t[aA0:zZ9]|serial=|\"|serial=\"azAZ09\"|serial=\"A1\"| serial=\"B2\", "
        "|serial=\"\"|"
        "serial=\"C 3\"|serial=\"D|\n|\n|\n|\r|\r\n|\v|\0|\xE2\x80\xA8"s);
    std::size_t devices = 0;
    for (int i = 0; i < kStrings; ++i) {
        const std::string text = strings.next();
        const auto expected = listed_by_regex(text);
        ASSERT_EQ(read_back(jovu::listed_devices(text)), read_back(expected)) << text;
        devices += expected.size();
    }
    EXPECT_GT(devices, kStrings / 20U) << "the strings match too rarely to prove anything";
}

TEST(DfuProgress, FindsWhatThePatternFinds) {
    RandomStrings strings(" |\t|\n|\r|\v|0|42|100|%|% | 7%|x|-|.");
    std::size_t numbers = 0;
    for (int i = 0; i < kStrings; ++i) {
        const std::string text = strings.next();
        const auto expected = percentages_by_regex(text);
        ASSERT_EQ(jovu::percentages(text), expected) << text;
        numbers += expected.size();
    }
    EXPECT_GT(numbers, kStrings / 20U);
    const std::string longest = " " + std::string(124, '9') + "% ";
    EXPECT_EQ(jovu::percentages(longest), percentages_by_regex(longest));
}

std::string repeated(const std::string& unit, std::size_t size) {
    std::string text;
    while (text.size() < size)
        text += unit;
    return text;
}

TEST(DfuListing, TakesTimeInProportionToItsLength) {
    const std::string header = "Found DFU: [a:b] ";
    const struct {
        std::string begin, unit, end;
    } cases[] = {
        {"", header, ""},
        {"", header, "\n"},
        {"", header + "serial=\"x\" ", "\r\n"},
        {"", header + "serial=\"\" ", "\n"},
        {"", header + "serial=\"x\"\n", ""},
        {"", "Found ", ""},
        {"", "Found", " DFU: ["},
        {"Found", "\n", ""},
        {"Found DFU: [", "a", ""},
        {header, "serial=\"", "\n"},
        {header, "x", " serial=\"x\"\n"},
    };
    const auto cost = [](const std::string& output) {
        const std::clock_t start = std::clock();
        for (int i = 0; i < 5; ++i)
            jovu::listed_devices(output);
        return static_cast<double>(std::clock() - start);
    };
    for (const auto& row : cases) {
        const double small = cost(row.begin + repeated(row.unit, std::size_t{1} << 14U) + row.end);
        const double large = cost(row.begin + repeated(row.unit, std::size_t{1} << 18U) + row.end);
        // Quadratic time would grow 256 times. The margin is for caches.
        EXPECT_LT(large, small * 64) << row.begin << row.unit << row.end;
    }
    const std::string line = header + "serial=\"x\"\n";
    EXPECT_EQ(jovu::listed_devices(repeated(line, line.size() * 40000)).size(), 40000U);
    EXPECT_EQ(jovu::listed_devices(header + std::string(100000, 'x') + line).size(), 1U);
}

}  // namespace
