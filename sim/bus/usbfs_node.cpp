// SPDX-License-Identifier: Apache-2.0
#include "bus/usbfs_node.h"

#include <linux/usb/ch9.h>
#include <linux/usbdevice_fs.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <memory>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include "bus/ioctl_link.h"
#include "bus/sim_device.h"
#include "device/file_descriptor.h"
#include "device/types.h"

namespace jovusim {

namespace {

/// Before the next try when descriptors or memory have run out.
constexpr std::chrono::milliseconds kAcceptPause(10);

/// How long a claim is retried while another open file has the interface.
constexpr Millis kContentionLimit = 100;
constexpr std::chrono::milliseconds kContentionPause(1);

/// Largest transfer that is accepted, in bytes.
constexpr int kLongestTransfer = 64 << 20;

constexpr std::uint32_t kCapabilities =
    USBDEVFS_CAP_ZERO_PACKET | USBDEVFS_CAP_BULK_CONTINUATION | USBDEVFS_CAP_NO_PACKET_SIZE_LIM |
    USBDEVFS_CAP_BULK_SCATTER_GATHER | USBDEVFS_CAP_REAP_AFTER_DISCONNECT;

bool is_in(const usbdevfs_urb& request) {
    return request.type == USBDEVFS_URB_TYPE_BULK &&
           (request.endpoint & USB_ENDPOINT_DIR_MASK) != 0;
}

/// The usbdevfs_urb of a program and a copy of its buffer.
struct UrbMemory {
    usbdevfs_urb* request() { return reinterpret_cast<usbdevfs_urb*>(structure.data()); }

    alignas(usbdevfs_urb) std::array<std::uint8_t, sizeof(usbdevfs_urb)> structure{};
    std::vector<std::uint8_t> buffer;
};

/// Serves one open file until it is closed. Each has its own thread, so that a program that is
/// stopped during an ioctl delays no other.
class UsbfsSession {
public:
    /// @param device plugged in when the file was opened; null for none
    UsbfsSession(IoctlLink& link, std::shared_ptr<SimDevice> device);
    UsbfsSession(const UsbfsSession&) = delete;
    UsbfsSession& operator=(const UsbfsSession&) = delete;
    ~UsbfsSession();

    /// Returns when the file has been closed.
    void run();

private:
    using Request = IoctlLink::Request;

    /// What an ioctl returns: 0, an errno, or kContended.
    using Outcome = int;

    Outcome carry_out(const Request& request);
    Outcome capabilities(const Request& request);
    Outcome with_interface(const Request& request, int (SimDevice::*work)(ClientId, unsigned));
    Outcome set_configuration(const Request& request);
    Outcome clear_halt(const Request& request);
    Outcome disconnect_claim(const Request& request);
    Outcome submit(const Request& request);
    Outcome reap(const Request& request);

    IoctlLink& link_;
    const std::shared_ptr<SimDevice> device_;
    ClientId client_ = 0;
};

UsbfsSession::UsbfsSession(IoctlLink& link, std::shared_ptr<SimDevice> device)
    : link_(link), device_(std::move(device)) {
    if (device_) client_ = device_->open();
}

UsbfsSession::~UsbfsSession() {
    if (device_) device_->close(client_);
}

void UsbfsSession::run() {
    while (const auto request = link_.next()) {
        if (device_) device_->count_ioctl();
        Outcome outcome = carry_out(*request);
        const Millis deadline = now_ms() + kContentionLimit;
        while (outcome == kContended && now_ms() < deadline) {
            std::this_thread::sleep_for(kContentionPause);
            outcome = carry_out(*request);
        }
        if (outcome == kContended) {
            device_->count_refused_claim();
            outcome = EBUSY;
        }
        link_.complete(outcome);
        if (device_) device_->print_violations();
    }
}

/// May be called again with the same request after kContended.
UsbfsSession::Outcome UsbfsSession::carry_out(const Request& request) {
    if (!device_) return ENODEV;
    if (request.code == USBDEVFS_REAPURBNDELAY) return reap(request);
    if (const Outcome gone = device_->check_present()) return gone;
    switch (request.code) {
        case USBDEVFS_GET_CAPABILITIES:
            return capabilities(request);
        case USBDEVFS_CLAIMINTERFACE:
            return with_interface(request, &SimDevice::claim);
        case USBDEVFS_RELEASEINTERFACE:
            return with_interface(request, &SimDevice::release);
        case USBDEVFS_DISCONNECT_CLAIM:
            return disconnect_claim(request);
        case USBDEVFS_SUBMITURB:
            return submit(request);
        case USBDEVFS_DISCARDURB:
            return device_->discard(client_, request.argument);
        case USBDEVFS_GETDRIVER:
        case USBDEVFS_IOCTL:
            return ENODATA;  // no kernel driver is bound to this device
        case USBDEVFS_SETCONFIGURATION:
            return set_configuration(request);
        case USBDEVFS_SETINTERFACE:
        case USBDEVFS_RESETEP:
            return 0;
        case USBDEVFS_CLEAR_HALT:
            return clear_halt(request);
        case USBDEVFS_RESET:
            return device_->reset();
        default:
            std::fprintf(stderr, "jovu-sim: device %s: ioctl 0x%lx is not simulated\n",
                         device_->address().to_string().c_str(), request.code);
            return ENOTTY;
    }
}

UsbfsSession::Outcome UsbfsSession::capabilities(const Request& request) {
    link_.write(request.argument, &kCapabilities, sizeof kCapabilities);
    return 0;
}

UsbfsSession::Outcome UsbfsSession::with_interface(const Request& request,
                                                   int (SimDevice::*work)(ClientId, unsigned)) {
    unsigned number = 0;
    if (!link_.read(request.argument, &number, sizeof number)) return EFAULT;
    return (device_.get()->*work)(client_, number);
}

UsbfsSession::Outcome UsbfsSession::set_configuration(const Request& request) {
    unsigned value = 0;
    if (!link_.read(request.argument, &value, sizeof value)) return EFAULT;
    return device_->set_configuration(value);
}

UsbfsSession::Outcome UsbfsSession::clear_halt(const Request& request) {
    unsigned endpoint = 0;
    if (!link_.read(request.argument, &endpoint, sizeof endpoint)) return EFAULT;
    return device_->clear_halt(endpoint);
}

UsbfsSession::Outcome UsbfsSession::disconnect_claim(const Request& request) {
    usbdevfs_disconnect_claim claim{};
    if (!link_.read(request.argument, &claim, sizeof claim)) return EFAULT;
    return device_->claim(client_, claim.interface);
}

UsbfsSession::Outcome UsbfsSession::submit(const Request& request) {
    auto memory = std::make_shared<UrbMemory>();
    if (!link_.read(request.argument, memory->structure.data(), memory->structure.size())) {
        return EFAULT;
    }
    const usbdevfs_urb& given = *memory->request();
    if (given.type != USBDEVFS_URB_TYPE_BULK && given.type != USBDEVFS_URB_TYPE_CONTROL) {
        return EINVAL;
    }
    if (given.buffer_length < 0 || given.buffer_length > kLongestTransfer) return EINVAL;
    memory->buffer.resize(static_cast<std::size_t>(given.buffer_length));
    // An IN buffer is only written, never read.
    if (!is_in(given) && !memory->buffer.empty() &&
        !link_.read(reinterpret_cast<std::uintptr_t>(given.buffer), memory->buffer.data(),
                    memory->buffer.size())) {
        return EFAULT;
    }
    Urb urb;
    urb.client = client_;
    urb.handle = request.argument;
    urb.control = given.type == USBDEVFS_URB_TYPE_CONTROL;
    urb.endpoint = given.endpoint;
    urb.buffer = memory->buffer.data();
    urb.length = memory->buffer.size();
    urb.memory = std::move(memory);
    return device_->submit(std::move(urb));
}

UsbfsSession::Outcome UsbfsSession::reap(const Request& request) {
    std::optional<Urb> urb;
    if (const Outcome nothing = device_->reap(client_, urb)) return nothing;
    const auto memory = std::static_pointer_cast<UrbMemory>(urb->memory);
    usbdevfs_urb& result = *memory->request();
    result.status = urb->status;
    result.actual_length = static_cast<int>(urb->actual);
    if (urb->control || is_in(result)) {
        // In a control transfer the data follows the setup packet.
        const std::size_t filled = (urb->control ? sizeof(usb_ctrlrequest) : 0) + urb->actual;
        link_.write(reinterpret_cast<std::uintptr_t>(result.buffer), memory->buffer.data(),
                    std::min(filled, memory->buffer.size()));
    }
    link_.write(urb->handle, memory->structure.data(), memory->structure.size());
    link_.write(request.argument, &urb->handle, sizeof urb->handle);
    return 0;
}

}  // namespace

UsbfsNode::UsbfsNode(const std::string& root, const std::string& node) {
    // The preloaded library connects to this socket when a program opens the node.
    const std::string path = root + "/ioctl" + node;
    std::filesystem::create_directories(std::filesystem::path(path).parent_path());
    listener_ = local_socket(0);
    const sockaddr_un address = local_address(path);
    if (::bind(listener_.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
        ::listen(listener_.get(), SOMAXCONN) != 0) {
        throw std::system_error(errno, std::generic_category(), "cannot serve " + node);
    }
    acceptor_ = std::thread([this] { accept_files(); });
}

UsbfsNode::~UsbfsNode() {
    ::shutdown(listener_.get(), SHUT_RDWR);
    acceptor_.join();
    for (OpenFile& file : files_) {
        file.link.hang_up();
        file.thread.join();
    }
}

void UsbfsNode::accept_files() {
    for (;;) {
        UniqueFd socket(::accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC));
        if (!socket) {
            if (errno == EINTR || errno == ECONNABORTED) continue;
            if (errno == EINVAL) return;  // shut down
            std::perror("jovu-sim: cannot accept an open file");
            std::this_thread::sleep_for(kAcceptPause);
            continue;
        }
        files_.remove_if([](OpenFile& file) {
            if (!file.ended) return false;
            file.thread.join();
            return true;
        });
        OpenFile& file = files_.emplace_back(std::move(socket));
        try {
            file.thread = std::thread([this, &file] { serve(file); });
        } catch (const std::system_error& error) {
            std::fprintf(stderr, "jovu-sim: cannot serve an open file: %s\n", error.what());
            files_.pop_back();
        }
    }
}

void UsbfsNode::serve(OpenFile& file) {
    try {
        UsbfsSession(file.link, device()).run();
    } catch (const std::exception& error) {
        std::fprintf(stderr, "jovu-sim: an ioctl failed: %s\n", error.what());
        file.link.hang_up();
    }
    file.ended = true;
}

std::shared_ptr<SimDevice> UsbfsNode::device() {
    const MutexLock lock(mutex_);
    return device_;
}

void UsbfsNode::set_device(std::shared_ptr<SimDevice> device) {
    const MutexLock lock(mutex_);
    device_.swap(device);
}

}  // namespace jovusim
