// SPDX-License-Identifier: Apache-2.0
#include "core/message.h"

#include <gtest/gtest.h>

#include "support/recording_client.h"

namespace {

class Message : public testing::Test {
protected:
    test::RecordingClient client;
};

TEST_F(Message, AttributesAndIdStandInTheEnvelope) {
    const std::pair<unsigned, const char*> cases[] = {
        {9, R"("request","twoway")"},
        {5, R"("request","oneway")"},
        {31, R"("request","response","twoway","oneway","ack")"},
        {0xFFFFFF40, ""},
    };
    for (const auto& [flags, names] : cases) {
        JovuMessage message(client, flags, 4294967295U, nullptr);
        EXPECT_EQ(message.compile(), std::string(R"({"transport":{"attrs":[)") + names +
                                         R"(],"id":4294967295},"data":{}})");
        EXPECT_EQ(message.twoway(), flags == 9 || flags == 31);
        EXPECT_EQ(message.is_response(), flags == 31);
    }
    EXPECT_EQ(JovuTransport::attrs(0xFFFFFFFF),
              (std::vector<std::string>{"request", "response", "twoway", "oneway", "ack"}));
}

TEST_F(Message, IsNotWrittenWithAValueWhereAKeyBelongs) {
    struct Careless : JovuCommand {
        using JovuCommand::JovuCommand;
        void compile_command(yajl_gen g) override { gen_double(g, 1.0); }
    };
    EXPECT_THROW(Careless(client).compile(), JovuException);
}

TEST_F(Message, IdsAreConsecutiveAndEveryKindTakesFromOneCounter) {
    const JovuCommand first(client);
    const JovuEvent second(client);
    const JovuMessage third(client, 1, nullptr);
    EXPECT_EQ(second.id(), first.id() + 1);
    EXPECT_EQ(third.id(), first.id() + 2);
    // Moved on to anywhere, but once.
    JovuMessage::start_ids_anywhere();
    const JovuCommand moved(client);
    EXPECT_NE(moved.id(), third.id() + 1);
    JovuMessage::start_ids_anywhere();
    EXPECT_EQ(JovuCommand(client).id(), moved.id() + 1);
}

TEST_F(Message, ACopyHasNoResponseAndAnAssignmentKeepsItsOwn) {
    JovuMessage request(client, 1, 1, nullptr);
    auto response = std::make_shared<JovuMessage>(client, 2, 1, nullptr);
    request.set_response(response);
    JovuMessage copy = request;
    EXPECT_FALSE(copy.response_available());
    copy = request;
    EXPECT_FALSE(copy.response_available());
    request = JovuMessage(client, 8, 2, nullptr);
    EXPECT_TRUE(request.response_available() && request.twoway() && request.id() == 2);
}

}  // namespace
