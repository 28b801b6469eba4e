#include "libusb_host.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <stdexcept>

namespace jovusim::test {

namespace {

constexpr std::chrono::seconds kPatience{10};
constexpr int kVendor = 0x7A1C;
constexpr unsigned kWriteLimitMs = 1500;

/// Calls visit for each controller on the bus.
void for_each_device(libusb_context* context, const std::function<void(libusb_device*)>& visit) {
    libusb_device** list = nullptr;
    const ssize_t count = libusb_get_device_list(context, &list);
    for (ssize_t i = 0; i < count; ++i) {
        libusb_device_descriptor descriptor{};
        libusb_get_device_descriptor(list[i], &descriptor);
        if (descriptor.idVendor == kVendor) visit(list[i]);
    }
    if (count >= 0) libusb_free_device_list(list, 1);
}

}  // namespace

std::string control(const std::string& request) {
    const char* const path = std::getenv("JOVU_SIM_CONTROL");
    if (path == nullptr) throw std::runtime_error("not inside jovu-sim");
    const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::string(path).copy(address.sun_path, sizeof address.sun_path - 1);
    std::string reply;
    if (::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0) {
        const std::string line = request + "\n";
        if (::send(fd, line.data(), line.size(), 0) == static_cast<ssize_t>(line.size())) {
            char c = 0;
            while (::recv(fd, &c, 1, 0) == 1 && c != '\n')
                reply += c;
        }
    }
    ::close(fd);
    return reply;
}

std::string sim(const std::string& request) {
    const std::string reply = control(request);
    if (reply == "ok") return "";
    if (reply.rfind("ok ", 0) != 0) throw std::runtime_error(request + ": " + reply);
    return reply.substr(3);
}

UsbHost::UsbHost() {
    if (libusb_init(&context_) != 0) throw std::runtime_error("libusb_init");
    events_ = std::thread([this] {
        while (!stop_) {
            timeval limit{0, 20000};
            libusb_handle_events_timeout(context_, &limit);
        }
    });
}

UsbHost::~UsbHost() {
    stop_ = true;
    events_.join();
    libusb_exit(context_);
}

std::vector<int> UsbHost::addresses() const {
    std::vector<int> out;
    for_each_device(context_, [&out](libusb_device* device) {
        out.push_back(libusb_get_device_address(device));
    });
    return out;
}

bool UsbHost::wait_for(int address, bool present) const {
    const auto deadline = std::chrono::steady_clock::now() + kPatience;
    for (;;) {
        const auto all = addresses();
        if ((std::find(all.begin(), all.end(), address) != all.end()) == present) return true;
        if (std::chrono::steady_clock::now() > deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
}

Handle UsbHost::open(int address, int& error) const {
    libusb_device_handle* handle = nullptr;
    error = LIBUSB_ERROR_NOT_FOUND;
    for_each_device(context_, [&](libusb_device* device) {
        if (handle == nullptr && libusb_get_device_address(device) == address) {
            error = libusb_open(device, &handle);
        }
    });
    return Handle(handle);
}

Handle UsbHost::claim(int address) const {
    int error = 0;
    Handle handle = open(address, error);
    EXPECT_EQ(error, 0);
    if (handle) {
        EXPECT_EQ(libusb_claim_interface(handle.get(), 0), 0);
    }
    return handle;
}

Reception::Reception(libusb_device_handle* handle, unsigned char endpoint)
    : transfer_(libusb_alloc_transfer(0)) {
    libusb_fill_bulk_transfer(transfer_, handle, endpoint, buffer_.data(),
                              static_cast<int>(buffer_.size()), on_completion, this, 0);
    if (libusb_submit_transfer(transfer_) != 0) ended_ = true;
}

Reception::~Reception() {
    cancel();
    libusb_free_transfer(transfer_);
}

void Reception::on_completion(libusb_transfer* transfer) {
    auto& self = *static_cast<Reception*>(transfer->user_data);
    const std::lock_guard<std::mutex> lock(self.mutex_);
    self.status_ = transfer->status;
    if (transfer->status == LIBUSB_TRANSFER_COMPLETED) {
        self.received_.append(reinterpret_cast<const char*>(transfer->buffer),
                              static_cast<std::size_t>(transfer->actual_length));
        self.sizes_.push_back(transfer->actual_length);
        self.ended_ = libusb_submit_transfer(transfer) != 0;
    } else {
        self.ended_ = true;
    }
    self.changed_.notify_all();
}

bool Reception::wait(const std::function<bool()>& condition) {
    std::unique_lock<std::mutex> lock(mutex_);
    return changed_.wait_for(lock, kPatience, condition);
}

bool Reception::wait_for(const std::string& text) {
    return wait([&] { return received_.find(text) != std::string::npos; });
}

bool Reception::wait_for(std::size_t size) {
    return wait([&] { return received_.size() >= size; });
}

int Reception::wait_for_end() {
    return wait([this] { return ended_; }) ? status_ : -1;
}

int Reception::cancel() {
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        if (ended_) return status_;
    }
    // A packet that comes at this moment starts the transfer once more.
    for (;;) {
        libusb_cancel_transfer(transfer_);
        std::unique_lock<std::mutex> lock(mutex_);
        if (changed_.wait_for(lock, std::chrono::milliseconds(50), [this] { return ended_; })) {
            return status_;
        }
    }
}

std::string Reception::received() {
    const std::lock_guard<std::mutex> lock(mutex_);
    return received_;
}

std::vector<int> Reception::sizes() {
    const std::lock_guard<std::mutex> lock(mutex_);
    return sizes_;
}

void Reception::forget() {
    const std::lock_guard<std::mutex> lock(mutex_);
    received_.clear();
    sizes_.clear();
}

int write(const Handle& handle, unsigned char endpoint, const std::string& bytes,
          int* transferred) {
    int count = 0;
    std::string copy = bytes;  // libusb wants it mutable
    const int result =
        libusb_bulk_transfer(handle.get(), endpoint, reinterpret_cast<unsigned char*>(copy.data()),
                             static_cast<int>(copy.size()),
                             transferred != nullptr ? transferred : &count, kWriteLimitMs);
    return result;
}

}  // namespace jovusim::test
