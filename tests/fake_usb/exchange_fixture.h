/// @file
/// A device that is asked and answers byte by byte.
#pragma once

#include <functional>
#include <future>
#include <string>

#include "fake_usb/framed.h"
#include "fake_usb/link_test.h"
#include "support/recording_client.h"

namespace test {

/// @return the text with "#" for the number that stands behind @p label.
inline std::string with_hash(std::string text, const std::string& label,
                             std::string* number = nullptr) {
    const std::size_t begin = text.find(label) + label.size();
    const std::size_t end = text.find_first_not_of("0123456789", begin);
    if (number != nullptr) *number = text.substr(begin, end - begin);
    return text.replace(begin, end - begin, "#");
}

/// Has a device send a debug event.
inline void complete_event(libusb_device* device) {
    const std::string bytes = framed(R"({"transport":{"attrs":[],"id":1},)"
                                     R"("data":{"event":{"name":"debug_event"}}})");
    for (std::size_t at = 0; at < bytes.size(); at += 64) {
        EXPECT_TRUE(fake_usb::complete(device, kMessagesIn, LIBUSB_TRANSFER_COMPLETED,
                                       bytes.substr(at, 64)));
    }
}

class ExchangeTest : public LinkTest {
protected:
    void SetUp() override { ASSERT_TRUE(client.wait_connected(kAddress)); }

    /// Runs a command on another thread; @return the text of its request, checked for its frame.
    std::string request_of(std::function<std::string()> command) {
        const std::size_t before = fake_usb::sent().size();
        running_ = std::async(std::launch::async, std::move(command));
        EXPECT_TRUE(eventually(
            [&] { return fake_usb::sent().size() >= before + 2 && !fake_usb::untold(); }));
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
    /// @param from a device other than the one that was asked; null for that one.
    void answer(const std::string& document, libusb_device* from = nullptr) {
        std::string text = document;
        const std::size_t hash = text.find('#');
        if (hash != std::string::npos) text.replace(hash, 1, id_);
        const std::string bytes = framed(text);
        for (std::size_t at = 0; at < bytes.size(); at += 64) {
            ASSERT_TRUE(fake_usb::complete(from == nullptr ? device : from, kMessagesIn,
                                           LIBUSB_TRANSFER_COMPLETED, bytes.substr(at, 64)));
        }
    }

    std::string result() { return running_.get(); }

    libusb_device* device = fake_usb::plug(1, 5);
    RecordingClient client;

private:
    std::future<std::string> running_;
    std::string id_;
};

/// The envelope of an answer, as far as the body.
inline constexpr const char* kResponse = R"({"transport":{"attrs":["response"],"id":#},"data":)";

}  // namespace test
