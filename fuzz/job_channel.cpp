/// @file
/// Bytes that a device sends on the job channel.
///
/// An input is the number of bytes that come at once, and what the device sends. The same bytes in
/// other pieces come to the same objects, as long as no piece holds more than one.
#include <algorithm>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>

#include "jobs/job_stream.h"
#include "jovu/job_interface.h"
#include "require.h"
#include "support/memory_link.h"

namespace {

constexpr JovuDeviceAddress kAddress{1, 2};

class Jobs : public JovuJobInterface {
public:
    ~Jobs() override { shutdown(); }
    std::size_t objects = 0;
    std::size_t seen = 0;

    void StatusReceived(JovuDeviceAddress /*address*/, StatusMsg status) override {
        seen += status.printer.model_name.size();
    }
    void JobDataReceived(JovuDeviceAddress /*address*/, const unsigned char* text,
                         unsigned int length) override {
        ++objects;
        REQUIRE(length >= 2 && text[length - 1] == '}' && text[length] == '\0');
        for (unsigned i = 0; i < length; ++i)
            seen += text[i];
    }
};

/// What the stream of a device comes to, cut by counting braces from the start for every byte.
std::size_t objects_counted_anew(const std::string& bytes, std::size_t piece) {
    std::string buffer;
    std::size_t objects = 0;
    for (std::size_t at = 0; at < bytes.size(); at += piece) {
        buffer += bytes.substr(at, piece);
        long open = 0;
        for (std::size_t i = 0; i < buffer.size(); ++i) {
            if (buffer[i] == '{') ++open;
            if (buffer[i] != '}') continue;
            if (--open > 0) continue;
            if (open == 0) ++objects;
            buffer.erase(0, i + 1);
            break;
        }
    }
    return objects;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size < 1) return 0;
    const std::size_t piece = data[0] % memory_link::kPacket + 1;
    const std::string bytes(data + 1, data + size);
    Jobs jobs;
    for (std::size_t at = 0; at < bytes.size(); at += piece) {
        const std::size_t length = std::min(piece, bytes.size() - at);
        const auto block = std::make_unique<unsigned char[]>(length);
        std::memcpy(block.get(), bytes.data() + at, length);
        memory_link::client(1).data_received(block.get(), static_cast<unsigned>(length), kAddress);
    }
    if (bytes.size() < jovu::kMaxJobBacklog)
        REQUIRE(jobs.objects == objects_counted_anew(bytes, piece));
    return 0;
}
