// SPDX-License-Identifier: Apache-2.0
#include "program.h"

#include <zlib.h>

#include <array>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <mutex>
#include <stdexcept>
#include <utility>

#include "bare_events.h"
#include "jovu/client.h"

namespace bench {
namespace {

JovuDeviceFilter filter_of(const std::vector<Address>& controllers) {
    if (controllers.empty()) return {};
    JovuDeviceFilter filter = JovuDeviceFilter::none();
    for (const Address address : controllers)
        filter.add_address(address);
    return filter;
}

class Libjovu : public Program {
public:
    explicit Libjovu(std::vector<Address> controllers) : controllers_(std::move(controllers)) {
        JovuClient::set_device_filter(filter_of(controllers_));
        client_ = std::make_unique<Client>();
    }

    void wait_opened(std::size_t count) override { client_->wait(client_->connected, count); }
    void wait_closed(std::size_t count) override { client_->wait(client_->disconnected, count); }
    bool exchange(std::size_t controller) override {
        client_->bio_get_version(address(controller));
        return JovuClient::last_send_error().empty();
    }
    void push(std::size_t controller, const std::string& path) override {
        client_->SendJobFile(address(controller), path, nullptr, nullptr, false);
    }
    void trace(std::size_t controller, bool enable) override {
        if (enable) begin_series();
        client_->servo_dc_trace_enable(address(controller), servo_dc_name_t{0}, enable);
    }
    void begin_series() override { client_->events.begin_series(); }
    std::uint64_t events() const override { return client_->events.count(); }
    std::uint64_t lost_events() const override { return client_->events.lost(); }
    /// The watcher scans soon after the call.
    void scan() override { JovuClient::set_device_filter(filter_of(controllers_)); }
    std::size_t list() override { return client_->list_connected().size(); }
    void close(std::size_t controller) override { client_->close(address(controller)); }
    void shutdown() override { client_->shutdown(); }

private:
    class Client : public JovuClient {
    public:
        explicit Client(const JovuScanPause& /*pause*/ = JovuScanPause()) {}
        ~Client() override { shutdown(); }

        void device_connected(JovuDeviceAddress address) override {
            const std::lock_guard<std::mutex> lock(mutex);
            last_connected = address;
            ++connected;
            changed.notify_all();
        }
        void device_disconnected(JovuDeviceAddress /*address*/) override {
            const std::lock_guard<std::mutex> lock(mutex);
            ++disconnected;
            changed.notify_all();
        }
        void servo_dc_trace_event(JovuDeviceAddress /*address*/, servo_trace_msg sample) override {
            events.add(sample.int_cnt);
        }
        void wait(const std::size_t& counter, std::size_t count) {
            std::unique_lock<std::mutex> lock(mutex);
            if (!changed.wait_for(lock, std::chrono::seconds(15), [&] { return counter >= count; }))
                throw std::runtime_error("libjovu notifies too few controllers");
        }

        std::mutex mutex;
        std::condition_variable changed;
        std::size_t connected = 0;
        std::size_t disconnected = 0;
        JovuDeviceAddress last_connected{};
        EventCount events;
    };

    /// A program for all controllers speaks to the latest.
    Address address(std::size_t controller) const {
        return controllers_.empty() ? client_->last_connected : controllers_.at(controller);
    }

    const std::vector<Address> controllers_;
    std::unique_ptr<Client> client_;
};

class Bare : public Program {
public:
    Bare(const std::vector<Address>& controllers, Threads threads)
        : watches_(controllers.empty()), libusb_({threads, read_event, &events_}) {
        if (watches_) {
            libusb_.watch_arrivals();
            return;
        }
        for (const Address address : controllers) {
            libusb_.open_attached([address](std::uint8_t bus, std::uint8_t number) {
                return Address{bus, number} == address;
            });
        }
    }

    void wait_opened(std::size_t count) override {
        for (; watches_ && opened_ < count; ++opened_)
            libusb_.open_arrival();
        if (libusb_.controllers().size() + closed_ < count)
            throw std::runtime_error("libusb does not list a controller");
    }
    void wait_closed(std::size_t count) override {
        for (; closed_ < count; ++closed_) {
            BareController& controller = *libusb_.controllers().front();
            if (!controller.wait_gone()) throw std::runtime_error("no controller disconnects");
            controller.close();
            libusb_.controllers().erase(libusb_.controllers().begin());
        }
    }
    bool exchange(std::size_t controller) override {
        return at(controller).exchange(R"({"idx":0,"name":"bio_get_version"})");
    }
    /// Measures the file first: the announcement has its size and checksum.
    void push(std::size_t controller, const std::string& path) override {
        struct Close {
            void operator()(std::FILE* file) const { std::fclose(file); }
        };
        const std::unique_ptr<std::FILE, Close> file(std::fopen(path.c_str(), "rb"));
        if (file == nullptr) throw std::runtime_error("cannot open " + path);
        std::array<unsigned char, 5120> piece{};
        const auto read = [&] { return std::fread(piece.data(), 1, piece.size(), file.get()); };
        std::size_t size = 0;
        unsigned long checksum = 0;
        while (const std::size_t count = read()) {
            checksum = ::adler32(checksum, piece.data(), static_cast<unsigned>(count));
            size += count;
        }
        const std::string announcement =
            R"({"metadata":{"version":1,"type":"file_push"},"file_push":{"size":)" +
            std::to_string(size) + R"(,"adler32":)" + std::to_string(checksum) +
            R"(,"job_id":""}})";
        bool sent = at(controller).write_job(announcement.data(), announcement.size());
        std::rewind(file.get());
        while (const std::size_t count = sent ? read() : 0)
            sent = at(controller).write_job(piece.data(), count);
        if (!sent) throw std::runtime_error("a push with bare libusb failed");
    }
    void trace(std::size_t controller, bool enable) override {
        if (enable) begin_series();
        const std::string value = enable ? "1" : "0";
        at(controller)
            .exchange(
                R"({"idx":50,"name":"servo_dc_trace_enable","args":{"servo_name":0,"enable":)" +
                value + "}}");
    }
    void begin_series() override { events_.begin_series(); }
    std::uint64_t events() const override { return events_.count(); }
    std::uint64_t lost_events() const override { return events_.lost(); }
    void scan() override {
        libusb_.for_each_attached([](libusb_device*) {});
    }
    std::size_t list() override { return libusb_.controllers().size(); }
    void close(std::size_t controller) override { at(controller).close(); }
    void shutdown() override { libusb_.shutdown(); }

private:
    BareController& at(std::size_t controller) { return *libusb_.controllers().at(controller); }

    const bool watches_;
    std::size_t opened_ = 0;
    std::size_t closed_ = 0;
    EventCount events_;
    BareLibusb libusb_;
};

}  // namespace

std::unique_ptr<Program> start(Name name, const std::vector<Address>& controllers,
                               Threads threads) {
    if (name == kBare) return std::make_unique<Bare>(controllers, threads);
    return std::make_unique<Libjovu>(controllers);
}

}  // namespace bench
