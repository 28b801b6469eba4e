#include <gtest/gtest.h>

#include <limits>

#include "commands/firmware_command.h"
#include "jovu/exception.h"
#include "support/recording_client.h"

namespace {

using Text = std::shared_ptr<char>;

class Command : public testing::Test {
protected:
    /// Hands a reply with this "command" to a command.
    void reply(JovuMessage& request, const std::string& command) {
        const jovu::JsonTree tree = jovu::parse_json(R"({"command":)" + command + "}");
        auto message = std::make_shared<JovuMessage>(client, 2U, request.id(), tree.get());
        request.set_response(message);
    }

    test::RecordingClient client;
};

TEST_F(Command, IsNotWrittenWithAValueWhereAKeyBelongs) {
    struct Careless : JovuCommand {
        using JovuCommand::JovuCommand;
        void compile_command(yajl_gen g) override { gen_double(g, 1.0); }
    };
    EXPECT_THROW(Careless(client).compile(), JovuException);
}

TEST_F(Command, ReadsFloatsAndArraysOrNothing) {
    const auto read = [this](const char* value, auto result) {
        JovuFirmwareCommand<decltype(result), int> command(client, "n", 1);
        reply(command, std::string(R"({"__return__":)") + value + "}");
        return std::make_pair(command.result(), command.response_available());
    };
    const float infinity = std::numeric_limits<float>::infinity();
    EXPECT_EQ(read("-0.5", 0.0F), std::make_pair(-0.5F, true));
    EXPECT_EQ(read("7", 0.0), std::make_pair(7.0, true));
    EXPECT_EQ(read("-1e39", 0.0F), std::make_pair(-infinity, true));
    const float largest = std::numeric_limits<float>::max();
    EXPECT_EQ(read("3.4028235e38", 0.0F), std::make_pair(largest, true));
    EXPECT_EQ(read("-3.40282356779733e38", 0.0F), std::make_pair(-largest, true));
    EXPECT_EQ(read("3.4028235677973366e38", 0.0F), std::make_pair(infinity, true));
    EXPECT_EQ(read("\"1\"", 0.0F), std::make_pair(0.0F, false));
    const auto floats = read("[1.5,-2,1e39]", std::shared_ptr<float>()).first;
    ASSERT_NE(floats, nullptr);
    EXPECT_EQ(std::vector<float>(floats.get(), floats.get() + 3),
              (std::vector<float>{1.5F, -2.0F, infinity}));
    const auto bytes = read("[255,256,-1]", std::shared_ptr<unsigned char>()).first;
    ASSERT_NE(bytes, nullptr);
    EXPECT_EQ(std::vector<int>(bytes.get(), bytes.get() + 4), (std::vector<int>{255, 0, 255, 0}));
    using Networks = std::shared_ptr<wifi_scan_network_t>;
    const auto networks = read(R"([{"strength":-7},{"ssid":[98]}])", Networks()).first;
    ASSERT_NE(networks, nullptr);
    EXPECT_EQ(networks.get()[0].strength, -7);
    EXPECT_STREQ(networks.get()[1].ssid, "b");
    EXPECT_STREQ(networks.get()[2].ssid, "") << "one more than there are";
    EXPECT_NE(read("[]", std::shared_ptr<float>()).first, nullptr);
    EXPECT_NE(read("[]", std::shared_ptr<unsigned char>()).first, nullptr);
    EXPECT_NE(read("[]", Networks()).first, nullptr);
    for (const char* const broken : {"1.5", "[1,\"2\"]", "[[1]]", "null", "[{},1]"}) {
        const auto nothing = [](const auto& got) { return !got.first && !got.second; };
        EXPECT_TRUE(nothing(read(broken, std::shared_ptr<float>()))) << broken;
        EXPECT_TRUE(nothing(read(broken, std::shared_ptr<unsigned char>()))) << broken;
        EXPECT_TRUE(nothing(read(broken, Networks()))) << broken;
    }
}

TEST_F(Command, ReadsItsResultAndTreatsABrokenReplyAsNone) {
    const struct {
        const char* reply;
        std::int16_t result;
        bool answered;
    } cases[] = {
        {R"({"idx":1,"name":"n","__return__":-5})", -5, true},
        {R"({"__return__":70000})", 4464, true},
        {R"({"__return__":0,"args":{}})", 0, true},
        {R"({"idx":1,"name":"n"})", 0, true},
        {R"({})", 0, true},
        {R"([])", 0, true},
        {R"({"__return__":"5"})", 0, false},
        {R"({"__return__":null})", 0, false},
        {R"({"__return__":true})", 0, false},
        {R"({"__return__":[5]})", 0, false},
    };
    for (const auto& row : cases) {
        JovuFirmwareCommand<std::int16_t, int> command(client, "n", 1, {3}, {"k"});
        reply(command, row.reply);
        EXPECT_EQ(command.result(), row.result) << row.reply;
        EXPECT_EQ(command.response_available(), row.answered) << row.reply;
    }
}

TEST_F(Command, ReadsTextsAndKeepsAZeroBehindThem) {
    const std::pair<const char*, const char*> cases[] = {
        {"[72,105,0]", "Hi"},      {"[72,105]", "Hi"},       {"[]", ""},
        {"[-23,489]", "\xE9\xE9"}, {R"([72,"i"])", nullptr}, {R"("Hi")", nullptr},
    };
    for (const auto& [value, text] : cases) {
        JovuFirmwareCommand<Text, int> command(client, "n", 1);
        reply(command, std::string(R"({"__return__":)") + value + "}");
        EXPECT_STREQ(command.result().get(), text) << value;
        EXPECT_EQ(command.response_available(), text != nullptr) << value;
    }
}

TEST(EchoedArguments, AreReadByPositionWhateverTheirKeys) {
    using Args = std::tuple<int, bool, Text>;
    const struct {
        const char* args;
        Args expected;
        std::vector<std::string> keys;
    } cases[] = {
        {R"({"a":4,"b":1,"c":[72,0]})", {4, true, test::text("H")}, {"a", "b", "c"}},
        {R"({"z":4,"y":0,"x":[72]})", {4, false, test::text("H")}, {"z", "y", "x"}},
        {R"({"b":1,"a":4})", {1, true, nullptr}, {"b", "a", ""}},
        {R"({"a":4,"b":1,"c":[],"d":5})", {4, true, test::text("")}, {"a", "b", "c"}},
        {R"({"a":"4","b":{},"c":72})", {0, false, nullptr}, {"a", "b", "c"}},
        {R"({})", {0, false, nullptr}, {"", "", ""}},
    };
    for (const auto& row : cases) {
        const jovu::JsonTree tree = jovu::parse_json(row.args);
        Args args{};
        std::vector<std::string> keys(3);
        CmdArgDeserializer::for_each(tree->u.object.keys, tree->u.object.len, tree.get(), args,
                                     keys);
        EXPECT_EQ(keys, row.keys) << row.args;
        EXPECT_EQ(std::get<0>(args), std::get<0>(row.expected)) << row.args;
        EXPECT_EQ(std::get<1>(args), std::get<1>(row.expected)) << row.args;
        EXPECT_STREQ(std::get<2>(args).get(), std::get<2>(row.expected).get()) << row.args;
    }
}

}  // namespace
