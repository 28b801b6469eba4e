// SPDX-License-Identifier: Apache-2.0

/// @file
/// The floor: the library's transfers made with libusb alone.
///
/// As in the library, receive transfers of 64 bytes on both channels are submitted again when they
/// complete, and a request is two writes. One thread handles events, and who writes waits for it to
/// complete the transfer; or there is one thread in all, which handles events while it waits.
#pragma once

#include <libusb.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

namespace bench {

struct LibusbFree {
    void operator()(libusb_context* context) const { libusb_exit(context); }
    void operator()(libusb_device* device) const { libusb_unref_device(device); }
    void operator()(libusb_device_handle* handle) const { libusb_close(handle); }
    void operator()(libusb_transfer* transfer) const { libusb_free_transfer(transfer); }
};
template <class T>
using Owned = std::unique_ptr<T, LibusbFree>;

inline void check_libusb(int result, const char* what) {
    if (result < 0) throw std::runtime_error(what + std::string(": ") + std::to_string(result));
}

/// Handles what has happened, or what happens next.
inline void handle_libusb_events(libusb_context* context) {
    timeval limit{60, 0};
    libusb_handle_events_timeout_completed(context, &limit, nullptr);
}

/// Takes the payload of a frame that is no awaited response, with a NUL behind it.
using FrameSink = void (*)(void* user, const char* payload, std::size_t size);

enum class Threads { one, event_thread };
enum class Data { read, dropped };  ///< What becomes of received data.

/// How a bare program works.
struct BareStyle {
    Threads threads = Threads::event_thread;
    FrameSink sink = nullptr;
    void* user = nullptr;
    Data data = Data::read;
};

/// One open controller.
class BareController {
public:
    /// Opens and claims the device and submits its receive transfers.
    BareController(libusb_device* device, libusb_context* context, const BareStyle& style)
        : context_(context), style_(style) {
        libusb_device_handle* raw = nullptr;
        check_libusb(libusb_open(device, &raw), "libusb_open");
        handle_.reset(raw);
        check_libusb(libusb_claim_interface(raw, 0), "libusb_claim_interface");
        const std::lock_guard<std::mutex> lock(mutex_);
        for (std::size_t i = 0; i < receive_.size(); ++i) {
            const auto endpoint = static_cast<unsigned char>(i == 0 ? 0x81 : 0x83);
            libusb_fill_bulk_transfer(receive_[i].get(), raw, endpoint, buffers_[i].data(),
                                      kReceiveBufferSize, on_received, this, 0);
            check_libusb(libusb_submit_transfer(receive_[i].get()), "libusb_submit_transfer");
            ++in_flight_;
        }
    }

    /// Sends a command and waits for its response.
    /// @param command the JSON object. @return whether the response came.
    bool exchange(std::string_view command) {
        const std::string id = std::to_string(++last_id_);
        std::string body =
            R"({"transport":{"attrs":["request","twoway"],"id":)" + id + R"(},"data":{"command":)";
        body.append(command).append("}};");
        const auto length = static_cast<unsigned>(body.size());
        const char header[] = {'$', static_cast<char>(length), static_cast<char>(length >> 8U),
                               static_cast<char>(~length), static_cast<char>(~length >> 8U)};
        {
            const std::lock_guard<std::mutex> lock(mutex_);
            expected_ = R"("id":)" + id + "}";
            responded_ = false;
        }
        if (!write(kMessageOut, header, sizeof header) ||
            !write(kMessageOut, body.data(), body.size()))
            return false;
        return wait_open([this] { return responded_; });
    }

    /// Requests a status report and waits for it.
    bool status() {
        constexpr std::string_view kRequest = R"({"metadata":{"version":1,"type":"status"}})";
        unsigned before = 0;
        {
            const std::lock_guard<std::mutex> lock(mutex_);
            before = reports_;
        }
        return write(kJobOut, kRequest.data(), kRequest.size()) &&
               wait_open([this, before] { return reports_ != before; });
    }

    bool write_job(const void* data, std::size_t size) { return write(kJobOut, data, size); }

    /// Waits until the device has disconnected.
    bool wait_gone() {
        return wait_open([this] { return gone_; });
    }

    /// Ends all transfers, so that none refers to this object any more. Not in a callback.
    void close() {
        std::unique_lock<std::mutex> lock(mutex_);
        if (closing_) return;
        closing_ = true;
        changed_.notify_all();
        for (const Owned<libusb_transfer>* transfer : {&receive_[0], &receive_[1], &sending_})
            libusb_cancel_transfer(transfer->get());
        wait(lock, [this] { return in_flight_ == 0; });
        libusb_release_interface(handle_.get(), 0);
        handle_.reset();
    }

private:
    static constexpr std::chrono::seconds kLimit{15};  ///< For a response, as in the library.
    static constexpr unsigned kWriteTimeoutMs = 1500;  ///< As in the library.
    static constexpr unsigned char kMessageOut = 2;
    static constexpr unsigned char kJobOut = 4;
    static constexpr std::size_t kHeaderSize = 5;  ///< Start, length and its complement.
    static constexpr std::size_t kReceiveBufferSize = 64;

    template <class Condition>
    bool wait_open(Condition condition) {
        std::unique_lock<std::mutex> lock(mutex_);
        wait(lock, [&] { return condition() || closing_; });
        return condition();
    }

    template <class Condition>
    void wait(std::unique_lock<std::mutex>& lock, Condition condition) {
        if (style_.threads == Threads::event_thread) {
            changed_.wait_for(lock, kLimit, condition);
            return;
        }
        while (!condition()) {
            lock.unlock();
            handle_libusb_events(context_);
            lock.lock();
        }
    }

    bool write(unsigned char endpoint, const void* data, std::size_t size) {
        std::unique_lock<std::mutex> lock(mutex_);
        if (closing_) return false;
        // libusb does not write to the data of an outgoing transfer.
        auto* const bytes = static_cast<unsigned char*>(const_cast<void*>(data));
        libusb_fill_bulk_transfer(sending_.get(), handle_.get(), endpoint, bytes,
                                  static_cast<int>(size), on_sent, this, kWriteTimeoutMs);
        if (libusb_submit_transfer(sending_.get()) != 0) return false;
        ++in_flight_;
        writing_ = true;
        wait(lock, [this] { return !writing_; });
        return sending_->status == LIBUSB_TRANSFER_COMPLETED &&
               sending_->actual_length == static_cast<int>(size);
    }

    /// Caller holds the mutex.
    void take(const libusb_transfer& transfer) {
        if (transfer.endpoint == 0x81) {
            take_message(transfer.buffer, transfer.actual_length);
        } else {
            take_report(transfer.buffer, transfer.actual_length);
        }
    }

    /// Caller holds the mutex.
    void take_message(const unsigned char* data, int size) {
        received_.append(data, data + size);
        std::size_t begin = 0;
        while (received_.size() - begin >= kHeaderSize) {
            const auto low = static_cast<unsigned char>(received_[begin + 1]);
            const auto high = static_cast<unsigned char>(received_[begin + 2]);
            const std::size_t frame = kHeaderSize + low + 256U * high;
            if (received_.size() - begin < frame) break;
            const std::string_view payload(&received_[begin + kHeaderSize],
                                           frame - kHeaderSize - 1);
            if (!responded_ && payload.find(expected_) != std::string_view::npos) {
                responded_ = true;
            } else if (style_.sink != nullptr) {
                received_[begin + frame - 1] = '\0';
                style_.sink(style_.user, payload.data(), payload.size());
            }
            begin += frame;
        }
        received_.erase(0, begin);
    }

    /// Caller holds the mutex. Counts a report when its braces are balanced.
    void take_report(const unsigned char* data, int size) {
        for (int i = 0; i < size; ++i) {
            if (data[i] == '{') ++depth_;
            if (data[i] == '}' && --depth_ == 0) ++reports_;
        }
    }

    static void LIBUSB_CALL on_sent(libusb_transfer* transfer) {
        BareController& self = *static_cast<BareController*>(transfer->user_data);
        const std::lock_guard<std::mutex> lock(self.mutex_);
        self.writing_ = false;
        --self.in_flight_;
        self.changed_.notify_all();
    }

    static void LIBUSB_CALL on_received(libusb_transfer* transfer) {
        BareController& self = *static_cast<BareController*>(transfer->user_data);
        const std::lock_guard<std::mutex> lock(self.mutex_);
        if (transfer->status == LIBUSB_TRANSFER_COMPLETED) {
            const unsigned reports = self.reports_;
            const bool waiting = !self.responded_;
            if (self.style_.data == Data::read) self.take(*transfer);
            if ((waiting && self.responded_) || reports != self.reports_)
                self.changed_.notify_all();
            if (!self.closing_ && libusb_submit_transfer(transfer) == 0) return;
        }
        self.gone_ = true;
        --self.in_flight_;
        self.changed_.notify_all();
    }

    libusb_context* const context_;
    const BareStyle style_;
    Owned<libusb_device_handle> handle_;
    std::array<Owned<libusb_transfer>, 2> receive_{
        Owned<libusb_transfer>(libusb_alloc_transfer(0)),
        Owned<libusb_transfer>(libusb_alloc_transfer(0))};
    std::array<std::array<unsigned char, kReceiveBufferSize>, 2> buffers_{};
    Owned<libusb_transfer> sending_{libusb_alloc_transfer(0)};
    std::uint32_t last_id_ = 0;
    std::mutex mutex_;  ///< Guards what follows.
    std::condition_variable changed_;
    int in_flight_ = 0;
    bool closing_ = false;
    bool writing_ = false;
    bool gone_ = false;
    bool responded_ = true;
    std::string expected_;
    std::string received_;
    int depth_ = 0;
    unsigned reports_ = 0;
};

/// libusb and the thread that handles its events.
class BareLibusb {
public:
    explicit BareLibusb(const BareStyle& style = BareStyle()) : style_(style) {
        libusb_context* context = nullptr;
        check_libusb(libusb_init(&context), "libusb_init");
        context_.reset(context);
        if (style.threads == Threads::one) return;
        events_ = std::thread([context, this] {
            while (!ended_)
                handle_libusb_events(context);
        });
    }

    ~BareLibusb() { shutdown(); }
    BareLibusb(const BareLibusb&) = delete;
    BareLibusb& operator=(const BareLibusb&) = delete;

    /// Opens the attached controllers that are wanted, in the order of the list.
    /// @param wanted called with bus and address.
    template <class Wanted>
    void open_attached(Wanted wanted) {
        for_each_attached([&](libusb_device* device) {
            if (wanted(libusb_get_bus_number(device), libusb_get_device_address(device)))
                open(device);
        });
    }

    void open(libusb_device* device) {
        controllers_.push_back(std::make_unique<BareController>(device, context_.get(), style_));
    }

    /// Calls a function with each attached controller.
    template <class Call>
    void for_each_attached(Call call) const {
        libusb_device** devices = nullptr;
        const ssize_t count = libusb_get_device_list(context_.get(), &devices);
        check_libusb(static_cast<int>(count), "libusb_get_device_list");
        struct List {
            ~List() { libusb_free_device_list(devices, 1); }
            libusb_device** devices;
        } const list{devices};
        for (ssize_t i = 0; i < count; ++i) {
            libusb_device_descriptor descriptor{};
            if (libusb_get_device_descriptor(devices[i], &descriptor) == 0 &&
                descriptor.idVendor == 0x7A1C && descriptor.idProduct == 0x0002) {
                call(devices[i]);
            }
        }
    }

    /// From now on wait_arrival() knows what arrives.
    void watch_arrivals() {
        check_libusb(
            libusb_hotplug_register_callback(context_.get(), LIBUSB_HOTPLUG_EVENT_DEVICE_ARRIVED,
                                             LIBUSB_HOTPLUG_ENUMERATE, 0x7A1C, 0x0002,
                                             LIBUSB_HOTPLUG_MATCH_ANY, on_arrival, this, nullptr),
            "libusb_hotplug_register_callback");
    }

    /// Opens the next controller that arrives.
    void open_arrival() {
        std::unique_lock<std::mutex> lock(arrivals_mutex_);
        if (!arrived_.wait_for(lock, std::chrono::seconds(15),
                               [this] { return !arrivals_.empty(); }))
            throw std::runtime_error("libusb reports no controller");
        const Owned<libusb_device> device = std::move(arrivals_.back());
        arrivals_.pop_back();
        lock.unlock();
        open(device.get());
    }

    std::vector<std::unique_ptr<BareController>>& controllers() { return controllers_; }

    void shutdown() {
        if (context_ == nullptr) return;
        for (const auto& controller : controllers_)
            controller->close();
        ended_ = true;
        libusb_interrupt_event_handler(context_.get());
        if (events_.joinable()) events_.join();
        controllers_.clear();
        arrivals_.clear();
        context_.reset();
    }

private:
    static int LIBUSB_CALL on_arrival(libusb_context* /*context*/, libusb_device* device,
                                      libusb_hotplug_event /*event*/, void* user) {
        auto& self = *static_cast<BareLibusb*>(user);
        const std::lock_guard<std::mutex> lock(self.arrivals_mutex_);
        self.arrivals_.emplace_back(libusb_ref_device(device));
        self.arrived_.notify_all();
        return 0;
    }

    const BareStyle style_;
    Owned<libusb_context> context_;
    std::vector<std::unique_ptr<BareController>> controllers_;
    std::mutex arrivals_mutex_;
    std::condition_variable arrived_;
    std::vector<Owned<libusb_device>> arrivals_;
    std::atomic<bool> ended_{false};
    std::thread events_;
};

}  // namespace bench
