// SPDX-License-Identifier: Apache-2.0
#include "json/json.h"

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <clocale>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <limits>
#include <new>
#include <random>

#include "commands/firmware_command.h"
#include "json/json_generator.h"
#include "json/json_tree.h"
#include "support/heap.h"
#include "support/json_reference.h"
#include "support/recording_client.h"

namespace {

using Random = std::mt19937_64;

/// How often the comparisons with yajl are made; JOVU_JSON_SCALE in the environment multiplies it.
unsigned repetitions() {
    const char* const scale = std::getenv("JOVU_JSON_SCALE");
    return 4000 * (scale == nullptr ? 1 : static_cast<unsigned>(std::atoi(scale)));
}

std::size_t below(Random& random, std::size_t limit) {
    return std::uniform_int_distribution<std::size_t>(0, limit - 1)(random);
}

std::string nested(std::size_t depth) {
    return std::string(depth, '[') + std::string(depth, ']');
}

/// A number of any size and precision: the bits of a double, a fraction, an integer.
double any_double(Random& random) {
    const std::uint64_t bits = random();
    double value = 0;
    switch (below(random, 4)) {
        case 0:
            std::memcpy(&value, &bits, sizeof value);
            return value;
        case 1:
            return static_cast<double>(static_cast<std::int32_t>(bits)) / 1000;
        case 2:
            return static_cast<double>(static_cast<float>(bits) * 1e-12F);
        default:
            return static_cast<double>(bits >> below(random, 64));
    }
}

/// A JSON number: one that a program prints, or made of digits.
std::string any_number(Random& random) {
    const auto digits = [&random](std::size_t limit) {
        std::string text(below(random, limit) + 1, '0');
        for (char& c : text)
            c = static_cast<char>('0' + below(random, 10));
        return text;
    };
    char text[64];
    const double value = any_double(random);
    if (below(random, 2) == 0 && std::isfinite(value)) {
        const int precision = static_cast<int>(below(random, 20));
        std::snprintf(text, sizeof text, "%.*g", precision, value);
        return text;
    }
    std::string number = below(random, 2) == 0 ? "-" : "";
    number += below(random, 3) == 0 ? "0" : std::to_string(1 + below(random, 9)) + digits(20);
    if (below(random, 2) == 0) number += "." + digits(30);
    if (below(random, 3) == 0) {
        number += below(random, 2) == 0 ? "e" : "E";
        number += std::array<const char*, 3>{"", "+", "-"}[below(random, 3)] + digits(3);
    }
    return number;
}

std::string any_document(Random& random, std::size_t depth) {
    static constexpr std::array<const char*, 12> kScalars{
        "null",        "true",          "false",
        R"("")",       R"("a\u0000b")", R"("\"\\\/\b\n")",
        R"("key")",    "\"\xC3\xA9\"",  R"("\ud83d\ude00")",
        R"("\ud83d")", R"("{[")",       " 0 "};
    const std::size_t kind = below(random, depth == 0 ? 2 : 4);
    if (kind == 0) return any_number(random);
    if (kind == 1) return kScalars[below(random, kScalars.size())];
    std::string text;
    for (std::size_t left = below(random, 4); left > 0; --left) {
        if (!text.empty()) text += below(random, 4) == 0 ? " ,\n" : ",";
        if (kind == 2)
            text += std::array<const char*, 4>{R"("a":)", R"("":)", R"("\u0061" : )",
                                               R"("k\u0000":)"}[below(random, 4)];
        text += any_document(random, depth - 1);
    }
    return kind == 2 ? "{" + text + "}" : "[" + text + "]";
}

/// Changes a few bytes, takes some away or puts others in.
void mutate(std::string& text, Random& random) {
    static constexpr char kBytes[] =
        "{}[]\",:\\/*0123456789.eE+-tfnu \n\t\x01\x7F\x80\xC3\xE2\xF0\xFF";
    for (std::size_t left = below(random, 4); left > 0 && !text.empty(); --left) {
        const std::size_t at = below(random, text.size());
        const char byte = kBytes[below(random, sizeof kBytes)];
        if (below(random, 3) == 0) {
            text.erase(at, 1 + below(random, 3));
        } else if (below(random, 2) == 0) {
            text.insert(at, 1, byte);
        } else {
            text[at] = byte;
        }
    }
}

TEST(Json, TreesAreThoseOfYajl) {
    jovu::JsonMemory memory;
    const std::string large = std::string(40000, 'x');
    const std::vector<std::string> texts{
        "", "42", "-0", "4.9e-324", "2.2250738585072011e-308", "1e-400", "1e999999999",
        "-9223372036854775808", R"({"a":1,"a":2})", "[]]", "1 2", std::string("[1]\0]", 5), "\"a",
        "\xEF\xBB\xBF[]", "[01]", "[1,]", nested(64), nested(65), std::string(1U << 20U, '['),
        // yajl skips comments; what stands in one must not hide what comes behind it.
        "/*\"*/" + nested(500000), "//\"\n[]", "[1/*\"*/,2]", "[\"\\n" + large + "\"]",
        "[\"\\n" + large, large, "[" + large + "]", "{\"" + large + "\\u0041\":\"" + large + "\"}"};
    for (const std::string& text : texts)
        EXPECT_TRUE(test::parsed_as_by_yajl(text, memory)) << text.substr(0, 100);
    Random random(15);
    unsigned taken = 0;
    const unsigned count = repetitions();
    for (unsigned i = 0; i < count; ++i) {
        std::string text = any_document(random, 5);
        mutate(text, random);
        ASSERT_TRUE(test::parsed_as_by_yajl(text, memory)) << text;
        taken += jovu::JsonTree(text, memory).get() != nullptr ? 1 : 0;
    }
    EXPECT_TRUE(taken > count / 4 && taken < count - count / 4) << taken;
}

TEST(Json, ATreeInAHandlerHasMemoryOfItsOwn) {
    jovu::JsonMemory memory;
    const jovu::JsonTree outer("[1,2]", memory);
    const jovu::JsonTree inner(R"(["inner"])", memory);
    EXPECT_EQ(jovu::integer_of(outer.get()->u.array.values[1]), 2);
}

TEST(Json, MemoryOfALargeDocumentIsFreedWithItsTree) {
    jovu::JsonMemory memory;
    std::string large = "[";
    while (large.size() < 500000)
        large += "12345,";
    large += "0]";
    const std::size_t before = test::heap_in_use();
    {
        const jovu::JsonTree tree(large, memory);
        ASSERT_NE(tree.get(), nullptr);
        EXPECT_GT(test::heap_in_use(), before + 1000000);
    }
    EXPECT_LT(test::heap_in_use(), before + 2 * jovu::kKeptJsonBytes);
}

#ifndef JOVU_SANITIZED  // A sanitizer reserves more than all of it.
/// Lets the process take that much more memory.
void limit_memory(std::size_t more) {
    unsigned long pages = 0;
    std::ifstream("/proc/self/statm") >> pages;
    const rlim_t limit = pages * static_cast<rlim_t>(::sysconf(_SC_PAGESIZE)) + more;
    const rlimit limits{limit, limit};
    ::setrlimit(RLIMIT_AS, &limits);
}

TEST(JsonDeathTest, WithoutMemoryThereIsNoPartOfADocument) {
    std::string array = "[0";
    while (array.size() < 2000000)
        array += ",0";
    const auto parse = [](const std::string& text, std::size_t limit) {
        limit_memory(limit);
        try {
            const jovu::JsonTree tree(text);
        } catch (const std::bad_alloc&) {
            std::_Exit(7);
        }
    };
    const auto write = [&] {
        jovu::JsonGenerator generator;
        limit_memory(1U << 20U);
        JovuMessage::gen_string(generator.get(), array);
        try {
            generator.take_text();
        } catch (const std::bad_alloc&) {
            std::_Exit(7);
        }
    };
    EXPECT_EXIT(parse(array + "]", 20U << 20U), testing::ExitedWithCode(7), "");
    // yajl decodes a string with an escape in a buffer.
    EXPECT_EXIT(parse("[\"\\n" + array, 4U << 20U), testing::ExitedWithCode(7), "");
    EXPECT_EXIT(write(), testing::ExitedWithCode(7), "");
}
#endif

TEST(Json, StringsOfAnyLengthAreWritten) {
    for (const std::size_t length : {0U, 495U, 496U, 3000U, 60000U}) {
        const std::string text(length, 'x');
        jovu::JsonGenerator generator;
        JovuMessage::gen_array_open(generator.get());
        JovuMessage::gen_string(generator.get(), text);
        JovuMessage::gen_array_close(generator.get());
        EXPECT_EQ(generator.take_text(), "[\"" + text + "\"]");
    }
}

TEST(Json, NumbersAreWrittenAsByYajl) {
    const auto written = [](auto write, auto value) {
        jovu::JsonGenerator generator;
        const yajl_gen_status status = write(generator.get(), value);
        return generator.take_text() + " " + std::to_string(status);
    };
    std::vector<double> doubles{0.0, -0.0, 0.1, 1e20, 1e21, 123456789012345678901.0, 1e-4, 1e-5};
    using Double = std::numeric_limits<double>;
    for (const double value : {Double::min(), Double::max(), Double::denorm_min(),
                               Double::infinity(), -Double::infinity(), Double::quiet_NaN()})
        doubles.push_back(value);
    Random random(5);
    for (unsigned i = repetitions(); i > 0; --i)
        doubles.push_back(any_double(random));
    for (const double value : doubles)
        ASSERT_EQ(written(jovu::write_double, value), written(yajl_gen_double, value));
    constexpr auto kSmallest = std::numeric_limits<long long>::min();
    for (const long long value : {0LL, -1LL, 1234567890123LL, kSmallest, -(kSmallest + 1)})
        EXPECT_EQ(written(jovu::write_integer, value), written(yajl_gen_integer, value));
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
            const jovu::JsonTree tree(std::string("{\"n\":") + number + "}");
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
    for (const auto& [text, value] : {std::pair("1.5", 1.5), std::pair("4.5e-310", 4.5e-310)})
        EXPECT_EQ(
            jovu::find_double(jovu::JsonTree(std::string(R"({"n":)") + text + "}").get(), {"n"}),
            value);
    char own[8] = "";
    std::snprintf(own, sizeof own, "%.1f", 1.5);
    EXPECT_STREQ(own, "1,5") << "the application keeps its locale";
    std::setlocale(LC_ALL, "C");
}

}  // namespace
