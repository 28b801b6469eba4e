/// @file
/// Exchanges with a device, byte by byte.
#include "fake_usb/exchange_fixture.h"

namespace {

using test::kAddress;
using test::kResponse;
using test::with_hash;

class Exchange : public test::ExchangeTest {};

/// What a command returned, and why it failed if it did.
std::string told(const std::shared_ptr<char>& text) {
    return (text == nullptr ? std::string("null") : text.get()) + "|" +
           JovuTransport::last_send_error();
}

TEST_F(Exchange, OnlyTheRightResponseEndsIt) {
    request_of([this] { return told(client.bio_get_version(kAddress)); });
    const std::string good = R"({"command":{"__return__":[49]}}})";
    const std::string deep(65, '[');
    const std::string cases[] = {
        "not json",
        deep + std::string(65, ']'),
        R"({"transport":{"attrs":["response"]},"data":)" + good,
        R"({"transport":{"attrs":["response"],"id":"#"},"data":)" + good,
        R"({"transport":{"id":#},"data":)" + good,
        R"({"transport":{"attrs":"response","id":#},"data":)" + good,
        R"({"transport":{"attrs":["Response","request",2,null],"id":#},"data":)" + good,
        R"({"transport":{"attrs":["response"],"id":1#},"data":)" + good,
        R"({"transport":{"attrs":["response"],"id":#},"data":[]})",
    };
    for (const std::string& dropped : cases)
        answer(dropped);
    answer(std::string(kResponse) + R"({"command":{"__return__":[50]}}})");
    EXPECT_EQ(result(), "2|");
    answer(std::string(kResponse) + good);  // Nobody waits for it any more.
    request_of([this] { return told(client.bio_get_version(kAddress)); });
    answer(std::string(kResponse) + good);
    EXPECT_EQ(result(), "1|");
}

TEST_F(Exchange, FailsInOneLineThatNamesTheReason) {
    const auto version = [this](JovuDeviceAddress address) {
        testing::internal::CaptureStdout();
        const std::string answer = told(client.bio_get_version(address));
        const std::string printed = testing::internal::GetCapturedStdout();
        return answer + "|" + with_hash(printed, "JovuMessage: ");
    };
    const std::string gone = "Transport Error - Device has been disconnected.";
    EXPECT_EQ(version({1, 6}), "null|" + gone + "|JovuMessage: # -- " + gone + "\n");
    EXPECT_TRUE(fake_usb::sent().empty());
    fake_usb::script_bulk({{}, {LIBUSB_ERROR_PIPE, 0}});
    const std::string stalled = "Send failed - libusb error: -9";
    EXPECT_EQ(version(kAddress), "null|" + stalled + "|JovuMessage: # -- " + stalled + "\n");

    request_of([this] { return told(client.bio_get_version(kAddress)); });
    answer(std::string(kResponse) + R"({"command":{"__return__":true}}})");
    EXPECT_EQ(result(), "null|Transport Error - No response received.");
    request_of([this] { return told(client.bio_get_version(kAddress)); });
    fake_usb::unplug(device);
    EXPECT_EQ(result(), "null|Transport Error - No response received.");
}

TEST_F(Exchange, TheNextOneWithADeviceWaitsForTheLast) {
    request_of([this] { return told(client.bio_get_version(kAddress)); });
    auto second =
        std::async(std::launch::async, [this] { return told(client.bio_get_serial(kAddress)); });
    EXPECT_EQ(second.wait_for(std::chrono::milliseconds(30)), std::future_status::timeout);
    EXPECT_EQ(fake_usb::sent().size(), 2U);
    answer(std::string(kResponse) + R"({"command":{"__return__":[49]}}})");
    EXPECT_EQ(result(), "1|");
    ASSERT_TRUE(test::eventually([] { return fake_usb::sent().size() == 4; }));
    client.shutdown();
    EXPECT_EQ(second.get(), "null|Transport Error - No response received.");
}

}  // namespace
