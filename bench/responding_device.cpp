// SPDX-License-Identifier: Apache-2.0
#include "responding_device.h"

#include <algorithm>
#include <string_view>

#include "fake_usb/framed.h"
#include "support/memory_backend.h"

namespace {

constexpr std::size_t kFrameHeader = 5;

std::string returned;
std::string request;
std::string response;
std::string response_frame;

/// Where the id stands in a request, and in a response.
constexpr std::string_view kRequestHead = R"({"transport":{"attrs":["request","twoway"],"id":)";
constexpr std::string_view kResponseHead = R"({"transport":{"attrs":["response"],"id":)";
constexpr std::size_t kIdWidth = 10;  ///< Digits of the largest id; blanks stand in for the rest.

/// Makes the response to a request, all but its id. As a device does, it sends the command back as
/// it came, with the result behind it.
void prepare_response() {
    const std::size_t body = request.find('}', kRequestHead.size());
    response = kResponseHead;
    response.append(kIdWidth, ' ').append(request, body, request.size() - 3 - body);
    response += R"(,"__return__":)" + returned + "}}}";
    response_frame = test::framed(response);
}

/// Puts the id of a request into the prepared response.
void copy_id(const char* text) {
    constexpr std::size_t at = kFrameHeader + kResponseHead.size();
    const char* const digits = text + kRequestHead.size();
    for (std::size_t i = 0, blank = 0; i < kIdWidth; ++i) {
        blank = blank != 0 || digits[i] == '}' ? 1 : 0;
        response_frame[at + i] = blank != 0 ? ' ' : digits[i];
    }
}

/// Takes the payload and terminator of a frame.
void respond_to(const char* text, std::size_t size) {
    if (response_frame.empty()) {
        request.assign(text, size - 1);
        prepare_response();
    }
    copy_id(text);
    bench::receive(response_frame);
}

}  // namespace

namespace bench {

void connect_device() {
    memory_backend::on_write(
        [](unsigned /*interface*/, const unsigned char* data, std::size_t size) {
            if (size == kFrameHeader && *data == '$') return;
            respond_to(reinterpret_cast<const char*>(data), size);
        });
    memory_backend::connect(kAddress);
}

void respond_with(const std::string& value) {
    returned = value;
    response_frame.clear();
}

void receive(std::string& bytes, unsigned interface) {
    JovuUsbClient& client = memory_backend::client(interface);
    auto* const data = reinterpret_cast<unsigned char*>(bytes.data());
    for (std::size_t at = 0; at < bytes.size(); at += memory_backend::kPacket) {
        const std::size_t size = std::min(memory_backend::kPacket, bytes.size() - at);
        client.data_received(data + at, static_cast<unsigned>(size), kAddress);
    }
}

const std::string& sample_request() {
    return request;
}

const std::string& sample_response() {
    return response;
}

}  // namespace bench
