/// @file
/// Exchanges with a device, byte by byte.
#include "fake_usb/framed.h"
#include "fake_usb/link_test.h"
#include "support/recording_client.h"

namespace {

using test::framed;
using test::kAddress;
using test::kMessagesIn;

/// @return the text with "#" for the number that stands behind @p label.
std::string with_hash(std::string text, const std::string& label, std::string* number = nullptr) {
    const std::size_t begin = text.find(label) + label.size();
    const std::size_t end = text.find_first_not_of("0123456789", begin);
    if (number != nullptr) *number = text.substr(begin, end - begin);
    return text.replace(begin, end - begin, "#");
}

class Exchange : public test::LinkTest {
protected:
    void SetUp() override { ASSERT_TRUE(client.wait_connected(kAddress)); }

    /// Runs a command on another thread; @return the text of its request, checked for its frame.
    std::string request_of(std::function<std::string()> command) {
        const std::size_t before = fake_usb::sent().size();
        running_ = std::async(std::launch::async, std::move(command));
        EXPECT_TRUE(test::eventually([&] { return fake_usb::sent().size() >= before + 2; }));
        const auto sent = fake_usb::sent();
        const std::string& header = sent[before].bytes;
        std::string body = sent[before + 1].bytes;
        EXPECT_EQ(sent[before].endpoint, 0x02U);
        EXPECT_EQ(sent[before + 1].endpoint, 0x02U);
        EXPECT_EQ(header, framed(body.substr(0, body.size() - 1)).substr(0, 5));
        EXPECT_EQ(body.back(), ';');
        body.pop_back();
        return with_hash(body, "\"id\":", &id_);
    }

    /// Sends a document, "#" standing for the id of the request.
    void answer(const std::string& document) {
        std::string text = document;
        const std::size_t hash = text.find('#');
        if (hash != std::string::npos) text.replace(hash, 1, id_);
        const std::string bytes = framed(text);
        for (std::size_t at = 0; at < bytes.size(); at += 64) {
            ASSERT_TRUE(fake_usb::complete(device, kMessagesIn, LIBUSB_TRANSFER_COMPLETED,
                                           bytes.substr(at, 64)));
        }
    }

    std::string result() { return running_.get(); }

    libusb_device* device = fake_usb::plug(1, 5);
    test::RecordingClient client;

private:
    std::future<std::string> running_;
    std::string id_;
};

/// What a command returned, and why it failed if it did.
std::string told(const std::shared_ptr<char>& text) {
    return (text == nullptr ? std::string("null") : text.get()) + "|" +
           JovuTransport::last_send_error();
}

constexpr const char* kResponse = R"({"transport":{"attrs":["response"],"id":#},"data":)";

TEST_F(Exchange, TheCommandsAreWrittenAsTheFirmwareWantsThem) {
    const std::string head = R"({"transport":{"attrs":["request","twoway"],"id":#},"data":)";
    std::string every_byte, written;
    for (int byte = 1; byte < 256; ++byte) {
        every_byte.push_back(static_cast<char>(byte));
        written += std::to_string(byte < 128 ? byte : byte - 256) + ",";
    }
    const std::tuple<std::function<std::string()>, std::string, const char*, const char*> cases[] =
        {
            {[this] { return told(client.bio_get_version(kAddress)); },
             R"({"idx":0,"name":"bio_get_version"})", "[49,46,48,0]", "1.0|"},
            {[this] { return told(client.bio_get_serial(kAddress)); },
             R"({"idx":1,"name":"bio_get_serial"})", "[]", "|"},
            {[&] {
                 return std::to_string(
                     client.gcode_process_command(kAddress, test::text(every_byte)));
             },
             R"({"idx":5,"name":"gcode_process_command","args":{"command":[)" + written + "0]}}",
             "4294967295", "4294967295"},
        };
    for (const auto& [command, written_command, returned, result_text] : cases) {
        EXPECT_EQ(request_of(command), head + R"({"command":)" + written_command + "}}");
        answer(std::string(kResponse) + R"({"command":{"__return__":)" + returned + "}}}");
        EXPECT_EQ(result(), result_text);
    }
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
