/// @file
/// The link on a fake bus: a journal of what clients are told, and the fixture.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <future>
#include <iterator>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "fake_usb/fake_libusb.h"
#include "support/recording_client.h"
#include "support/wait.h"
#include "usb/usb.h"

namespace test {

/// What clients were told, in order: "a+1.5" (client a: device 1.5 connected), "a-1.5" (has gone),
/// "a<1.5 abc" (sent abc).
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
            const std::lock_guard<std::mutex> lock(mutex_);
            return std::count(entries_.begin(), entries_.end(), entry) >= times;
        });
    }

private:
    mutable std::mutex mutex_;
    std::vector<std::string> entries_;
};

/// A client of the link for as long as it lives.
class LinkClient : public JovuUsbClient {
public:
    LinkClient(Journal& journal, std::string name, unsigned interface)
        : journal_(journal),
          name_(std::move(name)),
          interface_(static_cast<JovuUsb::jovu_usb_interface_t>(interface)) {
        JovuUsb::client_register(*this, interface_);
    }
    ~LinkClient() override { JovuUsb::client_unregister(*this, interface_); }

    /// Called, if set, behind the entry in the journal. To be set before there is anything to tell.
    std::function<void()> on_connected;
    std::function<void()> on_disconnected;
    std::function<void(unsigned char* data)> on_data;

    void usb_device_connected(JovuDeviceAddress address) override {
        note('+', address);
        if (on_connected) on_connected();
    }
    void usb_device_disconnected(JovuDeviceAddress address) override {
        note('-', address);
        if (on_disconnected) on_disconnected();
    }
    void data_received(unsigned char* data, unsigned int length,
                       JovuDeviceAddress address) override {
        note('<', address, " " + std::string(data, data + length));
        if (on_data) on_data(data);
    }

private:
    void note(char what, JovuDeviceAddress address, const std::string& rest = "") {
        journal_.add(name_ + what + std::to_string(address.bus) + "." +
                     std::to_string(address.address) + rest);
    }

    Journal& journal_;
    const std::string name_;
    const JovuUsb::jovu_usb_interface_t interface_;
};

inline constexpr JovuDeviceAddress kAddress{1, 5};
inline constexpr unsigned kMessagesIn = 0x81, kJobsIn = 0x83;

/// @param code receives the kind of the error, if it is one.
inline std::string write(const std::string& bytes, JovuDeviceAddress address = kAddress,
                         unsigned interface = 0, JovuError* code = nullptr) {
    try {
        JovuUsb::write(reinterpret_cast<const unsigned char*>(bytes.data()),
                       static_cast<unsigned>(bytes.size()), address,
                       static_cast<JovuUsb::jovu_usb_interface_t>(interface));
    } catch (const JovuException& error) {
        if (code != nullptr) *code = error.code();
        return error.what();
    }
    return "";
}

/// Runs something that may hang if the library is broken; the process ends then.
inline void in_time(const char* what, const std::function<void()>& call) {
    auto running = std::async(std::launch::async, call);
    if (running.wait_for(kPatience) == std::future_status::ready) return running.get();
    fprintf(stderr, "%s hangs\n", what);
    std::_Exit(1);
}

/// Blocks a thread until it is opened.
class Barrier {
public:
    void open() { promise_.set_value(); }
    void wait() const { opened_.wait(); }

private:
    std::promise<void> promise_;
    std::shared_future<void> opened_ = promise_.get_future().share();
};

/// The link, running with a device at 1.5 and a client on each interface: "a" on 0, "b" on 1.
class Link {
public:
    /// @param prepare called before the device is opened.
    explicit Link(Journal& journal, const std::function<void(Link&)>& prepare = nullptr)
        : messages(journal, "a", 0), jobs(std::in_place, journal, "b", 1) {
        if (prepare) prepare(*this);
        hold_.reset();
    }

    libusb_device* device = fake_usb::plug(1, 5);

private:
    std::optional<JovuScanPause> hold_{std::in_place};

public:
    LinkClient messages;
    std::optional<LinkClient> jobs;
};

class LinkTest : public testing::Test {
protected:
    /// By now everything has been released, and nothing misused.
    ~LinkTest() override { finish(); }
    static void finish() { EXPECT_THAT(fake_usb::finish(), testing::IsEmpty()); }

    /// @return whether the watcher comes to an end by itself.
    bool watcher_ends() const {
        return eventually([this] { return threads() == threads_before_; });
    }

    Journal journal;

private:
    static std::ptrdiff_t threads() {
        return std::distance(std::filesystem::directory_iterator("/proc/self/task"), {});
    }
    static std::ptrdiff_t threads_before() {
        // ThreadSanitizer has a thread of its own, which begins with the first other one. A thread
        // that has been joined may still be counted for a moment.
        std::string task;
        std::thread([&task] { task = "/proc/self/task/" + std::to_string(gettid()); }).join();
        EXPECT_TRUE(eventually([&task] { return !std::filesystem::exists(task); }));
        return threads();
    }

    const std::ptrdiff_t threads_before_ = threads_before();
};

}  // namespace test
