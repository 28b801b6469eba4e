// SPDX-License-Identifier: Apache-2.0
#include "memory_controllers.h"

#include <libusb.h>

#include <array>
#include <atomic>
#include <deque>
#include <memory>
#include <mutex>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "fake_usb/fake_libusb.h"
#include "fake_usb/framed.h"

namespace bench {
namespace {

constexpr std::size_t kPacket = 64;
constexpr std::size_t kPerBus = 120;
constexpr std::size_t kFrameHeader = 5;
/// Of the message channel and of the job channel.
constexpr std::array<unsigned, 2> kReceive{0x81, 0x83};
constexpr std::array<unsigned, 2> kSend{0x02, 0x04};

std::atomic<std::uint64_t> response_count{0};

class Controller {
public:
    explicit Controller(libusb_device* device) : device_(device) {}

    libusb_device* device() const { return device_; }

    /// Bytes from the host.
    void take(std::size_t channel, const std::string& bytes) {
        std::string response;
        {
            const std::lock_guard lock(mutex_);
            response = channel == 0 ? respond_to_message(bytes) : respond_to_job_request(bytes);
        }
        if (!response.empty()) {
            ++response_count;
            send(channel, response);
        }
    }

    std::size_t send(std::size_t channel, const std::string& bytes) {
        {
            const std::lock_guard lock(mutex_);
            for (std::size_t at = 0; at < bytes.size(); at += kPacket)
                packets_[channel].push_back(bytes.substr(at, kPacket));
        }
        pump(channel);
        const std::lock_guard lock(mutex_);
        return packets_[channel].size();
    }

    /// Sends the next packet, if the host receives.
    void pump(std::size_t channel) {
        const std::lock_guard lock(mutex_);
        auto& packets = packets_[channel];
        if (packets.empty()) return;
        if (fake_usb::post(device_, kReceive[channel], LIBUSB_TRANSFER_COMPLETED, packets.front()))
            packets.pop_front();
    }

private:
    /// The library writes the header of a frame and the rest in two pieces.
    std::string respond_to_message(const std::string& bytes) {
        if (bytes.size() == kFrameHeader && bytes[0] == '$') return {};
        constexpr std::string_view head = R"({"transport":{"attrs":["request","twoway"],"id":)";
        if (bytes.compare(0, head.size(), head) != 0) return {};
        // The command as it came, with the result behind it.
        constexpr std::size_t kClosed = 4;  // Three braces and the end of the frame.
        return test::framed(R"({"transport":{"attrs":["response"],"id":)" +
                            bytes.substr(head.size(), bytes.size() - kClosed - head.size()) +
                            R"(,"__return__":[49,0]}}})");  // The string "1".
    }

    std::string respond_to_job_request(const std::string& bytes) {
        if (bytes.find(R"("status")") == std::string::npos) return {};
        const std::string temperature = std::to_string(20 + ++reports_ % 200);
        return R"({"metadata":{"version":1,"type":"status"},"printer":{"model_name":"memory",)"
               R"("cpu_id":"0","firmware":{"name":"memory","version":"1"},"accept_version":1},)"
               R"("status":{"state":"idle","build_plate":"present","filament":"loaded",)"
               R"("extruder_temperature":)" +
               temperature +
               R"(},"job":{"id":"","progress":0,"file":"","time_elapsed":0},)"
               R"("time":{"boot":1,"idle":1},"error":0})";
    }

    libusb_device* const device_;
    std::mutex mutex_;
    std::array<std::deque<std::string>, 2> packets_;
    std::uint64_t reports_ = 0;
};

std::vector<std::unique_ptr<Controller>> controllers;
std::unordered_map<libusb_device*, Controller*> by_device;  // Changes before the bus is used only.

std::size_t channel_of(const std::array<unsigned, 2>& endpoints, unsigned endpoint) {
    return endpoint == endpoints[0] ? 0 : 1;
}

}  // namespace

void plug_controllers(std::size_t count) {
    for (std::size_t i = 0; i < count; ++i) {
        const auto bus = static_cast<std::uint8_t>(1 + i / kPerBus);
        const auto place = static_cast<std::uint8_t>(1 + i % kPerBus);
        controllers.push_back(std::make_unique<Controller>(
            fake_usb::plug(bus, static_cast<std::uint8_t>(place + 1), 0x0002, 0x7A1C, place)));
        by_device[controllers.back()->device()] = controllers.back().get();
    }
    fake_usb::endless_event_waits = true;
    fake_usb::record_sent = false;
    fake_usb::set_hook({[](fake_usb::Call) { return 0; },
                        [](libusb_device* device, unsigned endpoint) {
                            by_device.at(device)->pump(channel_of(kReceive, endpoint));
                        },
                        [](libusb_device* device, unsigned endpoint, const std::string& bytes) {
                            by_device.at(device)->take(channel_of(kSend, endpoint), bytes);
                        }});
}

std::size_t send_debug_message(std::size_t controller, const std::string& text) {
    std::string bytes;
    for (const char c : text)
        bytes += std::to_string(static_cast<unsigned char>(c)) + ",";
    return controllers.at(controller)
        ->send(0, test::framed(R"({"transport":{"attrs":["request","oneway"],"id":1073745000},)"
                               R"("data":{"event":{"name":"debug_event","args":{"text":[)" +
                               bytes + "0]}}}}"));
}

std::uint64_t responses() {
    return response_count;
}

}  // namespace bench
