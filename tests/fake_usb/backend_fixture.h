// SPDX-License-Identifier: Apache-2.0

/// @file
/// The USB backend on a fake bus: clients that record their callbacks, and the fixtures.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <future>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "fake_usb/fake_libusb.h"
#include "fake_usb/framed.h"
#include "support/recording_client.h"
#include "support/wait.h"
#include "usb/usb.h"

namespace test {

inline constexpr JovuDeviceAddress kAddress{1, 5};
inline constexpr unsigned kMessagesIn = 0x81, kJobsIn = 0x83;

/// The callbacks of clients, in order: "a+1.5" (client a: device 1.5 connected), "a-1.5"
/// (disconnected), "a<1.5 abc" (sent abc), "a!1.5 in_use" (cannot be opened).
class Journal {
public:
    void add(std::string entry) {
        const std::lock_guard<std::mutex> lock(mutex_);
        entries_.push_back(std::move(entry));
    }
    std::vector<std::string> entries() const {
        const std::lock_guard<std::mutex> lock(mutex_);
        return entries_;
    }
    /// @return whether @p entry comes to be in the journal, that many times.
    bool wait(const std::string& entry, long times = 1) const {
        return eventually([&] {
            const auto so_far = entries();
            return std::count(so_far.begin(), so_far.end(), entry) >= times;
        });
    }

private:
    mutable std::mutex mutex_;
    std::vector<std::string> entries_;
};

/// A client of the backend for as long as it lives.
class BackendClient : public JovuUsbClient {
public:
    BackendClient(Journal& journal, std::string name, unsigned interface)
        : journal_(journal),
          name_(std::move(name)),
          interface_(static_cast<JovuUsb::jovu_usb_interface_t>(interface)) {
        JovuUsb::client_register(*this, interface_);
    }
    ~BackendClient() override { JovuUsb::client_unregister(*this, interface_); }

    /// Called, if set before, in each callback, after its entry in the journal.
    /// @param what '+', '-' or '<', as in the journal.
    std::function<void(char what, unsigned char* data)> then;

    void usb_device_connected(JovuDeviceAddress address) override { note('+', address); }
    void usb_device_disconnected(JovuDeviceAddress address) override { note('-', address); }
    void data_received(unsigned char* data, unsigned int length,
                       JovuDeviceAddress address) override {
        note('<', address, " " + std::string(data, data + length), data);
    }

    void usb_device_unavailable(const JovuDeviceInfo& device) override {
        note('!', device.address, std::string(" ") + jovu_state_name(device.state));
    }

private:
    void note(char what, JovuDeviceAddress address, const std::string& rest = "",
              unsigned char* data = nullptr) {
        const auto call = then;  // A test may set it once it has seen the entry.
        journal_.add(name_ + what + std::to_string(address.bus) + "." +
                     std::to_string(address.address) + rest);
        if (call) call(what, data);
    }

    Journal& journal_;
    const std::string name_;
    const JovuUsb::jovu_usb_interface_t interface_;
};

/// The backend, running with a device at 1.5 and a client on each interface: "a" on 0, "b" on 1.
struct Backend {
    /// @param prepare called before the device is opened; without it the device is connected.
    explicit Backend(Journal& journal, const std::function<void(Backend&)>& prepare = nullptr)
        : messages(journal, "a", 0), jobs(std::in_place, journal, "b", 1) {
        if (prepare) prepare(*this);
        pause.reset();
        EXPECT_TRUE(prepare || journal.wait("b+1.5"));
    }

    libusb_device* device = fake_usb::plug(1, 5);
    std::optional<JovuScanPause> pause{std::in_place};
    BackendClient messages;
    std::optional<BackendClient> jobs;
};

/// @return the error, empty when there was none.
inline std::string write(const std::string& bytes, JovuDeviceAddress address = kAddress) {
    return error_of([&] {
        JovuUsb::write(reinterpret_cast<const unsigned char*>(bytes.data()),
                       static_cast<unsigned>(bytes.size()), address,
                       JovuUsb::JOVU_USB_INTERFACE_MESSAGES);
    });
}

/// Whether a thread still runs, for long enough to show that it waits.
template <class T>
bool waits(const std::future<T>& running) {
    return running.wait_for(std::chrono::milliseconds(30)) == std::future_status::timeout;
}

class BackendTest : public testing::Test {
protected:
    /// By now everything has been released, and nothing misused.
    ~BackendTest() override { finish(); }
    static void finish() { EXPECT_THAT(fake_usb::finish(), testing::IsEmpty()); }

    /// @return whether an error ends the watcher.
    static bool watcher_ends() {
        return eventually([] { return !JovuTransport::is_watching(); });
    }

    Journal journal;
};

/// Has a device send a frame, in packets.
inline void send_frame(libusb_device* device, const std::string& text) {
    const std::string bytes = framed(text);
    for (std::size_t at = 0; at < bytes.size(); at += 64) {
        EXPECT_TRUE(fake_usb::complete(device, kMessagesIn, LIBUSB_TRANSFER_COMPLETED,
                                       bytes.substr(at, 64)));
    }
}

inline void send_event(libusb_device* device) {
    send_frame(device, R"({"transport":{"attrs":[],"id":1},)"
                       R"("data":{"event":{"name":"debug_event"}}})");
}

/// A client and a device that receives requests and sends responses byte by byte.
class ExchangeTest : public BackendTest {
protected:
    void SetUp() override { ASSERT_TRUE(client.wait_connected(kAddress)); }

    /// Runs a command on another thread; @return the text of its request, checked for its frame,
    /// with "#" for its id.
    std::string request_of(std::function<std::string()> command) {
        const std::size_t before = fake_usb::sent().size();
        running_ = std::async(std::launch::async, std::move(command));
        EXPECT_TRUE(eventually(
            [&] { return fake_usb::sent().size() >= before + 2 && !fake_usb::untold(); }));
        const auto sent = fake_usb::sent();
        std::string body = sent[before + 1].bytes;
        EXPECT_EQ(sent[before].endpoint, 0x02U);
        EXPECT_EQ(sent[before + 1].endpoint, 0x02U);
        EXPECT_EQ(sent[before].bytes + body, framed(body.substr(0, body.size() - 1)));
        body.pop_back();
        const std::size_t begin = body.find("\"id\":") + 5;
        id_ = body.substr(begin, body.find('}', begin) - begin);
        return body.replace(begin, id_.size(), "#");
    }

    /// Sends a document, "#" standing for the id of the request.
    /// @param from a device other than the one that received it; null for that one.
    void respond(std::string document, libusb_device* from = nullptr) {
        const std::size_t hash = document.find('#');
        if (hash != std::string::npos) document.replace(hash, 1, id_);
        send_frame(from == nullptr ? device : from, document);
    }

    /// Sends the response with this "command".
    void respond_with(const std::string& command, libusb_device* from = nullptr) {
        respond(R"({"transport":{"attrs":["response"],"id":#},"data":{"command":)" + command + "}}",
                from);
    }

    std::string result() { return running_.get(); }

    libusb_device* device = fake_usb::plug(1, 5);
    RecordingClient client;

private:
    std::future<std::string> running_;
    std::string id_;
};

}  // namespace test
