// How the firmware model goes wrong on demand.
#include <gtest/gtest.h>

#include "firmware_host.h"

namespace jovusim::test {
namespace {

using Host = FirmwareHost;

const std::string kStatus = R"({"metadata":{"version":1,"type":"status"}})";

std::string frame_of_version(std::uint32_t id) {
    return Host::framed(Host::command(id, 0, "bio_get_version"));
}

class MisbehaviourTest : public ::testing::Test {
protected:
    Misbehaviour& faults() { return host_.controller.misbehaviour(); }

    /// The bytes that answer a command.
    std::string answer() {
        host_.send(kMessageOut, frame_of_version(1));
        return host_.read(kMessageIn);
    }

    Host host_;
    const std::string good_ = Host().exchange(Host::command(1, 0, "bio_get_version"))[0].dump();
};

TEST_F(MisbehaviourTest, DamagesAnAnswerAsNamedAndOnlyOnce) {
    std::string bad_check = Host::framed(good_);
    bad_check[3] = static_cast<char>(~bad_check[3]);
    std::string bad_end = Host::framed(good_);
    bad_end.back() = '!';
    std::string without_attrs = good_;
    without_attrs.erase(without_attrs.find(R"("attrs":["response"],)"), 21);
    std::string other_id = good_;
    other_id.replace(other_id.find(":1}"), 3, ":536870913}");
    const struct {
        const char* name;
        std::string answer;
    } cases[] = {
        {"check", bad_check},
        {"terminator", bad_end},
        {"json", Host::framed(good_.substr(0, good_.size() - 1))},
        {"attrs", Host::framed(without_attrs)},
        {"id", Host::framed(other_id)},
        {"truncate", Host::framed(good_).substr(0, (good_.size() + 6) / 2)},
    };
    for (const auto& c : cases) {
        const auto kind = corruption_from_name(c.name);
        ASSERT_TRUE(kind) << c.name;
        faults().corrupt[static_cast<std::size_t>(*kind)].set(1);
        EXPECT_EQ(answer(), c.answer) << c.name;
        EXPECT_EQ(answer(), Host::framed(good_)) << c.name;
    }
    EXPECT_FALSE(corruption_from_name("everything"));
}

TEST_F(MisbehaviourTest, DamagesStatusReportsToo) {
    host_.send(kJobOut, kStatus);
    const std::string good = host_.read(kJobIn);
    faults().corrupt[static_cast<std::size_t>(Corruption::json)].set(1);
    host_.send(kJobOut, kStatus);
    EXPECT_EQ(host_.read(kJobIn), good.substr(0, good.size() - 1));
    faults().corrupt[static_cast<std::size_t>(Corruption::truncate)].set(1);
    host_.send(kJobOut, kStatus);
    EXPECT_EQ(host_.read(kJobIn), good.substr(0, good.size() / 2));
}

TEST_F(MisbehaviourTest, SilenceCarriesOutAndDropDoesNot) {
    faults().silent.set(1);
    EXPECT_TRUE(host_.exchange(Host::gcode(1, "G1 X5")).empty());
    faults().drop.set(1);
    EXPECT_TRUE(host_.exchange(Host::gcode(2, "G1 X9")).empty());
    const auto messages = host_.exchange(Host::gcode(3, "M114"));
    ASSERT_EQ(messages.size(), 2U);
    EXPECT_EQ(messages[0]["data"]["event"]["args"]["text"].dump(),
              Host::bytes_of("X:5.00 Y:0.00 Z:0.00 E:0.00"));
    faults().silent.set(kAlways);
    for (int i = 0; i < 5; ++i)
        EXPECT_EQ(answer(), "");
    faults() = {};
    EXPECT_EQ(answer(), Host::framed(good_));
}

TEST_F(MisbehaviourTest, DelaysAnswers) {
    faults().delay = 300;
    EXPECT_EQ(answer(), "");
    ASSERT_TRUE(host_.controller.next_due());
    EXPECT_EQ(*host_.controller.next_due(), host_.now + 300);
    host_.now += 299;
    EXPECT_EQ(host_.read(kMessageIn), "");
    host_.now += 1;
    EXPECT_EQ(host_.read(kMessageIn), Host::framed(good_));
    EXPECT_FALSE(host_.controller.next_due());
}

TEST_F(MisbehaviourTest, SplitsAnswers) {
    for (std::size_t size = 1; size <= kMaxPacket; ++size) {
        faults().packet_size = size;
        host_.send(kMessageOut, frame_of_version(1));
        std::string all;
        for (const std::string& packet : host_.packets(kMessageIn)) {
            EXPECT_LE(packet.size(), size);
            all += packet;
        }
        EXPECT_EQ(all, Host::framed(good_));
    }
}

TEST_F(MisbehaviourTest, NestsAResult) {
    faults().deep = 32000;
    const std::string bytes = answer();
    const std::string nested = std::string(32000, '[') + std::string(32000, ']');
    const std::string expected = R"("__return__":)" + nested + "}}}";
    EXPECT_EQ(bytes.substr(bytes.size() - expected.size() - 1), expected + ";");
    EXPECT_EQ(answer(), Host::framed(good_));
}

TEST_F(MisbehaviourTest, FloodsWithoutKeepingItAll) {
    host_.controller.flood(Channel::message, 1'000'000'000);
    for (int i = 0; i < 100; ++i)
        ASSERT_TRUE(host_.controller.next_packet(kMessageIn, host_.now));
    EXPECT_LT(host_.stats()["message"]["events"], 100);
    host_.controller.host_left();
    host_.controller.flood(Channel::message, 3);
    EXPECT_EQ(Host::messages(host_.read(kMessageIn)).size(), 3U);
    host_.controller.flood(Channel::job, 2);
    const std::string reports = host_.read(kJobIn);
    EXPECT_EQ(reports.substr(0, reports.size() / 2), reports.substr(reports.size() / 2));
}

TEST_F(MisbehaviourTest, SendsAnyNumberOfBytesAndFrames) {
    for (const std::uint64_t size : {1, 63, 64, 65, 1000}) {
        host_.controller.send_garbage(Channel::job, size);
        EXPECT_EQ(host_.read(kJobIn).size(), size);
    }
    host_.controller.send_raw(Channel::job, "}{", host_.now);
    EXPECT_EQ(host_.read(kJobIn), "}{");
    host_.controller.send_framed("no JSON", host_.now);
    EXPECT_EQ(host_.read(kMessageIn), Host::framed("no JSON"));
    host_.controller.send_framed(std::string(kMaxFramePayload, 'x'), host_.now);
    EXPECT_EQ(host_.read(kMessageIn).size(), kMaxFramePayload + 6);
    EXPECT_THROW(host_.controller.send_framed(std::string(kMaxFramePayload + 1, 'x'), host_.now),
                 std::length_error);
}

}  // namespace
}  // namespace jovusim::test
