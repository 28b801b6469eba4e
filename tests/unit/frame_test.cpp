// SPDX-License-Identifier: Apache-2.0
#include "core/frame.h"

#include <gtest/gtest.h>

#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

#include "fake_usb/framed.h"
#include "support/recording_client.h"

namespace {

using test::framed;
using Payloads = std::vector<std::string>;

void feed(jovu::FrameDecoder& decoder, const std::string& bytes,
          const std::function<void(const std::string&)>& reader) {
    decoder.feed(reinterpret_cast<const unsigned char*>(bytes.data()), bytes.size(),
                 [&](const unsigned char* payload, unsigned length) {
                     reader(std::string(payload, payload + length));
                 });
}

/// Decodes bytes that arrive in two pieces, the first of @p head bytes.
Payloads decoded(const std::string& bytes, std::size_t head) {
    Payloads payloads;
    jovu::FrameDecoder decoder;
    for (const std::string& piece :
         {bytes.substr(0, head), bytes.substr(std::min(head, bytes.size()))})
        feed(decoder, piece, [&](const std::string& payload) { payloads.push_back(payload); });
    return payloads;
}

TEST(Frame, IsFoundHoweverItsBytesAreSplit) {
    using namespace std::string_literals;
    const std::string ab = framed("ab");
    const std::string bad_check = "$\x03\x00\xFC\xFE"s;
    const struct {
        const char* what;
        std::string bytes;
        Payloads expected;
    } cases[] = {
        {"one", ab, {"ab"}},
        {"two", ab + framed("{\"$\":\";\"}"), {"ab", "{\"$\":\";\"}"}},
        {"garbage around", "x;;y" + ab + "\0z"s + ab, {"ab", "ab"}},
        {"a start in garbage", "$$$$$" + ab, {"ab"}},
        {"bad check, frame right behind", bad_check + ab, {"ab"}},
        {"bad check with a start", "$" + ab.substr(0, 4) + "ab;" + ab, {"ab"}},
        {"wrong terminator", framed("ab").substr(0, 7) + "x" + ab, {"ab"}},
        {"wrong terminator that starts a frame", framed("ab").substr(0, 7) + ab, {"ab"}},
        {"empty payload", framed("") + ab, {"", "ab"}},
        {"binary payload", framed("\0\xFF$;\0"s), {"\0\xFF$;\0"s}},
        {"cut off", ab.substr(0, 7), {}},
        {"long", framed(std::string(300, 'l')) + ab, {std::string(300, 'l'), "ab"}},
    };
    for (const auto& row : cases) {
        for (std::size_t head = 0; head <= row.bytes.size(); ++head) {
            EXPECT_EQ(decoded(row.bytes, head), row.expected)
                << row.what << ", split behind " << head;
        }
    }
}

TEST(Frame, ALengthOfZeroWrapsToTheLongest) {
    const std::string header("$\x00\x00\xFF\xFF", 5);
    const std::string payload(65535, 'p');
    EXPECT_EQ(decoded(header + payload + ";" + framed("ab"), 40000), (Payloads{payload, "ab"}));
}

TEST(Frame, IsMadeUpToTheLongestPayload) {
    for (const std::size_t size : {0U, 2U, 254U, 255U, 65533U, 65534U}) {
        const std::string payload(size, 'p');
        const jovu::Frame frame = jovu::make_frame(payload);
        const std::string bytes(frame.header, frame.header + sizeof frame.header);
        EXPECT_EQ(bytes + frame.body, framed(payload)) << size;
        EXPECT_EQ(decoded(bytes + frame.body, 64), Payloads{payload}) << size;
    }
    EXPECT_EQ(test::error_of([] { jovu::make_frame(std::string(65535, 'p')); }),
              "Send failed - message of 65535 bytes is too long.");
}

TEST(Frame, DecoderIsReadyForTheNextOneWhenItsReaderThrows) {
    jovu::FrameDecoder decoder;
    const auto refuse = [](const std::string&) { throw std::runtime_error("no"); };
    EXPECT_THROW(feed(decoder, framed("ab"), refuse), std::runtime_error);
    std::string read;
    feed(decoder, framed("cd"), [&read](const std::string& payload) { read = payload; });
    EXPECT_EQ(read, "cd");
}

}  // namespace
