#include "bus/usbfs_session.h"

#include <linux/usb/ch9.h>
#include <linux/usbdevice_fs.h>
#include <sys/ioctl.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <thread>
#include <utility>
#include <vector>

#include "bus/clock.h"

namespace jovusim {

namespace {

/// How long an interface has to be held by another open file until that is believed.
constexpr Millis kContentionLimit = 100;
constexpr std::chrono::milliseconds kContentionPause(1);

/// More than any program sends in one transfer.
constexpr int kLongestTransfer = 64 << 20;

constexpr std::uint32_t kCapabilities =
    USBDEVFS_CAP_ZERO_PACKET | USBDEVFS_CAP_BULK_CONTINUATION | USBDEVFS_CAP_NO_PACKET_SIZE_LIM |
    USBDEVFS_CAP_BULK_SCATTER_GATHER | USBDEVFS_CAP_REAP_AFTER_DISCONNECT;

bool is_in(const usbdevfs_urb& request) {
    return request.type == USBDEVFS_URB_TYPE_BULK &&
           (request.endpoint & USB_ENDPOINT_DIR_MASK) != 0;
}

/// A transfer's structure, as the program made it, and a copy of its buffer.
struct UrbMemory {
    usbdevfs_urb* request() { return reinterpret_cast<usbdevfs_urb*>(structure.data()); }

    alignas(usbdevfs_urb) std::array<std::uint8_t, sizeof(usbdevfs_urb)> structure{};
    std::vector<std::uint8_t> buffer;
};

}  // namespace

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

/// Can be called again with the same request after kContended.
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
        case USBDEVFS_CLEAR_HALT:
        case USBDEVFS_RESETEP:
            return 0;
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
    // What a program wants to be filled is not read before.
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
        // A control transfer's data is behind its setup packet.
        const std::size_t filled = (urb->control ? sizeof(usb_ctrlrequest) : 0) + urb->actual;
        link_.write(reinterpret_cast<std::uintptr_t>(result.buffer), memory->buffer.data(),
                    std::min(filled, memory->buffer.size()));
    }
    link_.write(urb->handle, memory->structure.data(), memory->structure.size());
    link_.write(request.argument, &urb->handle, sizeof urb->handle);
    return 0;
}

}  // namespace jovusim
