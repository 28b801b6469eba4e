// SPDX-License-Identifier: Apache-2.0

/// @file
/// Bytes that a device sends on the message channel while a command waits for its response.
///
/// An input is the number of the command, a byte of modes (see Input), and what the device sends.
/// Every '#' stands for the id of the request. Whatever was received, the next response is
/// accepted; a string in a frame is parsed as by yajl.
#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "commands/catalogue.h"
#include "fake_usb/framed.h"
#include "jovu/client.h"
#include "require.h"
#include "support/json_reference.h"
#include "support/memory_backend.h"

namespace {

using test::framed;

constexpr JovuDeviceAddress kAddress{1, 2};
constexpr std::size_t kLongestPayload = 65534;

class Client : public JovuClient {
public:
    ~Client() override { shutdown(); }
    std::size_t seen = 0;

    void debug_event(JovuDeviceAddress /*address*/, std::shared_ptr<char> text) override {
        if (text != nullptr) seen += std::strlen(text.get());
    }
    void servo_dc_trace_event(JovuDeviceAddress /*address*/, servo_trace_msg sample) override {
        seen += sample.int_cnt;
    }
};

/// Something to send for an argument, or to read a result to its end.
template <class T>
T argument(const T* /*type*/) {
    return T{};
}
template <class T>
std::shared_ptr<T> argument(const std::shared_ptr<T>* /*type*/) {
    return std::make_shared<T>();
}
template <class T>
void use(const T& /*result*/) {}
void use(const std::shared_ptr<char>& text) {
    if (text != nullptr) REQUIRE(std::strlen(text.get()) < kLongestPayload);
}

using Call = void (*)(JovuCommandInterface&);

template <class Row, class... Args>
void call(JovuCommandInterface& commands, const std::tuple<Args...>* /*types*/) {
    if constexpr (std::is_void_v<typename Row::Result>) {
        (commands.*Row::method)(kAddress, argument(static_cast<const Args*>(nullptr))...);
    } else {
        use((commands.*Row::method)(kAddress, argument(static_cast<const Args*>(nullptr))...));
    }
}

template <class... Rows>
constexpr std::array<Call, sizeof...(Rows)> calls_of(const std::tuple<Rows...>& /*rows*/) {
    return {[](JovuCommandInterface& commands) {
        call<Rows>(commands, static_cast<const typename Rows::Arguments*>(nullptr));
    }...};
}

constexpr auto calls = calls_of(jovu::catalogue);

struct Input {
    std::size_t command;
    bool framed;        ///< What is sent is one string, and is put into a frame.
    std::size_t piece;  ///< How many bytes come at once.
    std::string bytes;

    Input(const std::uint8_t* data, std::size_t size)
        : command(data[0] % calls.size()),
          framed((data[1] & 1U) != 0),
          piece(std::min<std::size_t>((data[1] >> 1U) + 1U, memory_backend::kPacket)),
          bytes(data + 2, data + size) {}
};

/// Each piece in a block of its own, as long as the piece: reading behind it is noticed.
void receive(const std::string& bytes, std::size_t piece) {
    for (std::size_t at = 0; at < bytes.size(); at += piece) {
        const std::size_t size = std::min(piece, bytes.size() - at);
        const auto block = std::make_unique<unsigned char[]>(size);
        std::memcpy(block.get(), bytes.data() + at, size);
        memory_backend::client(0).data_received(block.get(), static_cast<unsigned>(size), kAddress);
    }
}

void respond(const Input& input, const std::string& request) {
    const std::string label = R"("id":)";
    const std::size_t begin = request.find(label) + label.size();
    const std::string id = request.substr(begin, request.find('}', begin) - begin);
    std::string bytes;
    for (const char c : input.bytes)
        bytes += c == '#' ? id : std::string(1, c);
    static jovu::JsonMemory memory;
    if (input.framed) REQUIRE(test::parsed_as_by_yajl(bytes, memory));
    receive(input.framed && bytes.size() <= kLongestPayload ? framed(bytes) : bytes, input.piece);
    // Ends whatever frame is open, header included, and is nothing by itself.
    static const std::string filler =
        framed('/' + std::string(kLongestPayload - 1, ';')) + std::string(16, ';');
    receive(filler, filler.size());
    receive(framed(R"({"transport":{"attrs":["response"],"id":)" + id + R"(},"data":{}})"), 64);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size < 2) return 0;
    // The library reports failed exchanges on standard output.
    static std::FILE* const quiet = std::freopen("/dev/null", "w", stdout);
    REQUIRE(quiet != nullptr);
    const Input input(data, size);
    Client client;
    memory_backend::connect(kAddress);
    memory_backend::on_write(
        [&](unsigned interface, const unsigned char* bytes, std::size_t length) {
            const std::string text(bytes, bytes + length);
            if (interface == 0 && text.front() == '{') respond(input, text);
        });
    calls[input.command](client);
    const std::string error = JovuTransport::last_send_error();
    REQUIRE(error.empty() || error == "Transport Error - No response received.");
    memory_backend::on_write(nullptr);
    return 0;
}
