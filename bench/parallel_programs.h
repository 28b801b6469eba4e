// SPDX-License-Identifier: Apache-2.0

/// @file
/// The two programs that the parallel benchmark compares.
#pragma once

#include <libusb.h>

#include <array>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "jovu/client.h"

namespace bench {

constexpr std::size_t kMaxControllers = 16;

/// What the benchmark measures. Controller I is the one at address 1:(I + 2).
class Program {
public:
    Program() = default;
    virtual ~Program() = default;
    Program(const Program&) = delete;
    Program& operator=(const Program&) = delete;

    /// Waits until that many controllers have been opened since the program began.
    virtual void wait_opened(std::size_t count) = 0;
    /// Requests the version from a controller. One thread for each controller at a time.
    /// @return whether the response came.
    virtual bool exchange(std::size_t controller) = 0;
    virtual void close(std::size_t controller) = 0;
    virtual std::size_t list() = 0;
    virtual void shutdown() = 0;
};

class Libjovu : public Program {
public:
    void wait_opened(std::size_t count) override { client_.wait_connected(count); }
    bool exchange(std::size_t controller) override {
        client_.bio_get_version(address(controller));
        return JovuClient::last_send_error().empty();
    }
    void close(std::size_t controller) override { client_.close(address(controller)); }
    std::size_t list() override { return client_.list_connected().size(); }
    void shutdown() override { client_.shutdown(); }

private:
    class Client : public JovuClient {
    public:
        explicit Client(const JovuScanPause& /*pause*/ = JovuScanPause()) {}
        ~Client() override { shutdown(); }

        void device_connected(JovuDeviceAddress /*address*/) override {
            const std::lock_guard<std::mutex> lock(mutex_);
            ++connected_;
            changed_.notify_all();
        }

        void wait_connected(std::size_t count) {
            std::unique_lock<std::mutex> lock(mutex_);
            changed_.wait(lock, [&] { return connected_ >= count; });
        }

    private:
        std::mutex mutex_;
        std::condition_variable changed_;
        std::size_t connected_ = 0;
    };

    static JovuDeviceAddress address(std::size_t controller) {
        return {1, static_cast<std::uint8_t>(controller + 2)};
    }

    Client client_;
};

/// The floor: the same transfers with libusb alone. One thread handles events; receive transfers of
/// 64 bytes on both channels are submitted again when they complete; a request is two writes.
class BareLibusb : public Program {
public:
    enum class Writes {
        synchronous,   ///< libusb_bulk_transfer() on the sender's thread; close() cannot end it
        asynchronous,  ///< the sender waits for the event-handling thread to complete the transfer
    };

    explicit BareLibusb(Writes writes) : writes_(writes) {
        libusb_context* context = nullptr;
        check(libusb_init(&context), "libusb_init");
        context_.reset(context);
        check(libusb_hotplug_register_callback(context, LIBUSB_HOTPLUG_EVENT_DEVICE_ARRIVED,
                                               LIBUSB_HOTPLUG_ENUMERATE, 0x7a1c, 0x0002,
                                               LIBUSB_HOTPLUG_MATCH_ANY, on_arrival, this, nullptr),
              "libusb_hotplug_register_callback");
        events_ = std::thread([context, this] {
            while (!ended_)
                libusb_handle_events_completed(context, nullptr);
        });
    }

    ~BareLibusb() override { shutdown(); }

    void wait_opened(std::size_t count) override {
        for (; opened_ < count; ++opened_) {
            std::unique_lock<std::mutex> lock(arrivals_mutex_);
            if (!arrived_.wait_for(lock, kLimit, [this] { return !arrivals_.empty(); })) {
                throw std::runtime_error("libusb reports no controller");
            }
            const DeviceRef device = std::move(arrivals_.back());
            arrivals_.pop_back();
            lock.unlock();
            const std::size_t index = libusb_get_device_address(device.get()) - std::size_t{2};
            if (index >= kMaxControllers) throw std::runtime_error("a controller beyond 1:17");
            controllers_[index] = std::make_unique<Controller>(device.get());
        }
    }

    bool exchange(std::size_t controller) override {
        Controller& c = *controllers_[controller];
        const std::string id = std::to_string(++last_id_);
        std::string body = R"({"transport":{"attrs":["request","twoway"],"id":)" + id +
                           R"(},"data":{"command":{"idx":0,"name":"bio_get_version"}}};)";
        const auto length = static_cast<unsigned>(body.size());
        std::string header{'$', static_cast<char>(length), static_cast<char>(length >> 8U),
                           static_cast<char>(~length), static_cast<char>(~length >> 8U)};
        {
            const std::lock_guard<std::mutex> lock(c.mutex);
            c.expected = R"("id":)" + id + "}";
            c.responded = false;
        }
        if (!write(c, header) || !write(c, body)) return false;
        std::unique_lock<std::mutex> lock(c.mutex);
        c.changed.wait_for(lock, kLimit, [&] { return c.responded || c.closing; });
        return c.responded;
    }

    void close(std::size_t controller) override { controllers_[controller]->close(); }

    std::size_t list() override {
        libusb_device** devices = nullptr;
        const ssize_t count = libusb_get_device_list(context_.get(), &devices);
        check(count < 0 ? static_cast<int>(count) : 0, "libusb_get_device_list");
        libusb_free_device_list(devices, 1);
        return static_cast<std::size_t>(count);
    }

    void shutdown() override {
        if (context_ == nullptr) return;
        for (const std::unique_ptr<Controller>& controller : controllers_) {
            if (controller != nullptr) controller->close();
        }
        ended_ = true;
        libusb_interrupt_event_handler(context_.get());
        if (events_.joinable()) events_.join();
        arrivals_.clear();
        context_.reset();
    }

private:
    struct Release {
        void operator()(libusb_context* context) const { libusb_exit(context); }
        void operator()(libusb_device* device) const { libusb_unref_device(device); }
        void operator()(libusb_device_handle* handle) const { libusb_close(handle); }
        void operator()(libusb_transfer* transfer) const { libusb_free_transfer(transfer); }
    };
    using DeviceRef = std::unique_ptr<libusb_device, Release>;
    using Transfer = std::unique_ptr<libusb_transfer, Release>;

    static constexpr std::chrono::seconds kLimit{15};   ///< For a response, as in the library.
    static constexpr unsigned kWriteTimeoutMs = 1500;   ///< As in the library.
    static constexpr unsigned char kWriteEndpoint = 2;  ///< Of the message channel.
    static constexpr std::size_t kFrameHeaderSize = 5;  ///< Start, length and its complement.
    static constexpr std::size_t kReceiveBufferSize = 64;

    static void check(int result, const char* what) {
        if (result < 0) {
            throw std::runtime_error(std::string(what) + ": " + libusb_error_name(result));
        }
    }

    struct Controller {
        explicit Controller(libusb_device* device) {
            libusb_device_handle* raw = nullptr;
            check(libusb_open(device, &raw), "libusb_open");
            handle.reset(raw);
            check(libusb_claim_interface(raw, 0), "libusb_claim_interface");
            const std::lock_guard<std::mutex> lock(mutex);
            for (std::size_t i = 0; i < receive.size(); ++i) {
                const auto endpoint = static_cast<unsigned char>(i == 0 ? 0x81 : 0x83);
                libusb_fill_bulk_transfer(receive[i].get(), raw, endpoint, buffers[i].data(),
                                          kReceiveBufferSize, on_received, this, 0);
                check(libusb_submit_transfer(receive[i].get()), "libusb_submit_transfer");
                ++in_flight;
            }
        }

        /// Ends all transfers, so that none refers to this object any more.
        void close() {
            std::unique_lock<std::mutex> lock(mutex);
            if (closing) return;
            closing = true;
            changed.notify_all();
            for (const Transfer* transfer : {&receive[0], &receive[1], &sending})
                libusb_cancel_transfer(transfer->get());
            changed.wait(lock, [this] { return in_flight == 0; });
            libusb_release_interface(handle.get(), 0);
            handle.reset();
        }

        /// Caller holds the mutex.
        void take(const unsigned char* data, int size) {
            received.append(data, data + size);
            while (received.size() >= kFrameHeaderSize) {
                const auto low = static_cast<unsigned char>(received[1]);
                const auto high = static_cast<unsigned char>(received[2]);
                const std::size_t frame = kFrameHeaderSize + low + 256U * high;
                if (received.size() < frame) return;
                if (received.substr(0, frame).find(expected) != std::string::npos) responded = true;
                received.erase(0, frame);
            }
        }

        std::unique_ptr<libusb_device_handle, Release> handle;
        std::array<Transfer, 2> receive{Transfer(libusb_alloc_transfer(0)),
                                        Transfer(libusb_alloc_transfer(0))};
        std::array<std::array<unsigned char, kReceiveBufferSize>, 2> buffers{};
        Transfer sending{libusb_alloc_transfer(0)};
        std::mutex mutex;  ///< Guards what follows.
        std::condition_variable changed;
        int in_flight = 0;
        bool closing = false;
        bool writing = false;
        bool responded = false;
        std::string expected;
        std::string received;
    };

    bool write(Controller& c, std::string& data) {
        auto* const bytes = reinterpret_cast<unsigned char*>(data.data());
        const int size = static_cast<int>(data.size());
        if (writes_ == Writes::synchronous) {
            int sent = 0;
            return libusb_bulk_transfer(c.handle.get(), kWriteEndpoint, bytes, size, &sent,
                                        kWriteTimeoutMs) == 0 &&
                   sent == size;
        }
        std::unique_lock<std::mutex> lock(c.mutex);
        if (c.closing) return false;
        libusb_fill_bulk_transfer(c.sending.get(), c.handle.get(), kWriteEndpoint, bytes, size,
                                  on_sent, &c, kWriteTimeoutMs);
        if (libusb_submit_transfer(c.sending.get()) != 0) return false;
        ++c.in_flight;
        c.writing = true;
        c.changed.wait(lock, [&] { return !c.writing; });
        return c.sending->status == LIBUSB_TRANSFER_COMPLETED && c.sending->actual_length == size;
    }

    static void LIBUSB_CALL on_sent(libusb_transfer* transfer) {
        Controller& c = *static_cast<Controller*>(transfer->user_data);
        const std::lock_guard<std::mutex> lock(c.mutex);
        c.writing = false;
        --c.in_flight;
        c.changed.notify_all();
    }

    static void LIBUSB_CALL on_received(libusb_transfer* transfer) {
        Controller& c = *static_cast<Controller*>(transfer->user_data);
        const std::lock_guard<std::mutex> lock(c.mutex);
        if (transfer->status == LIBUSB_TRANSFER_COMPLETED) {
            c.take(transfer->buffer, transfer->actual_length);
            if (c.responded) c.changed.notify_all();
            if (!c.closing && libusb_submit_transfer(transfer) == 0) return;
        }
        --c.in_flight;
        c.changed.notify_all();
    }

    static int LIBUSB_CALL on_arrival(libusb_context* /*context*/, libusb_device* device,
                                      libusb_hotplug_event /*event*/, void* user) {
        auto& self = *static_cast<BareLibusb*>(user);
        const std::lock_guard<std::mutex> lock(self.arrivals_mutex_);
        self.arrivals_.emplace_back(libusb_ref_device(device));
        self.arrived_.notify_all();
        return 0;
    }

    const Writes writes_;
    std::unique_ptr<libusb_context, Release> context_;
    std::array<std::unique_ptr<Controller>, kMaxControllers> controllers_;
    std::size_t opened_ = 0;
    std::atomic<std::uint32_t> last_id_{0};
    std::mutex arrivals_mutex_;
    std::condition_variable arrived_;
    std::vector<DeviceRef> arrivals_;
    std::atomic<bool> ended_{false};
    std::thread events_;
};

}  // namespace bench
