// SPDX-License-Identifier: Apache-2.0
#include "usbip/usbip_device.h"

#include <linux/usb/ch9.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <utility>
#include <vector>

namespace jovusim::usbip {

namespace {

/// The host is the only client of the engine.
constexpr ClientId kHost = 1;

bool is_in(std::uint8_t address) {
    return (address & USB_ENDPOINT_DIR_MASK) != 0;
}

/// Whether the data stage has another direction than the header tells. Without data the kernel
/// calls it OUT.
bool contradicts(const usb_ctrlrequest& setup, bool in) {
    return setup.wLength != 0 && is_in(setup.bRequestType) != in;
}

}  // namespace

UsbipDevice::UsbipDevice(std::string name, BusAddress address, UsbSpeed speed,
                         std::unique_ptr<UsbFunction> function,
                         std::function<std::optional<BusAddress>()> find_address,
                         UrbListener listener)
    : name_(std::move(name)),
      address_(address),
      speed_(speed),
      find_address_(std::move(find_address)),
      core_(std::move(function), speed, std::move(listener)) {
    core_.engine().power_on();
}

std::string UsbipDevice::address_attribute() const {
    const auto address = find_address_();
    return " address=" + (address ? address->to_string() : "none");
}

void UsbipDevice::connect(Stream stream) {
    ++counters_.connections;
    stream_ = std::move(stream);
    carry_out_commands();
}

void UsbipDevice::disconnect() {
    stream_.reset();
    core_.engine().power_on();
    in_flight_.clear();
    bytes_in_flight_ = 0;
    reads_in_flight_ = 0;
    descriptor_read_ = false;
    if (std::exchange(host_reads_, false)) core_.function().host_closed();
}

void UsbipDevice::serve(short events) {
    if (!stream_) return;
    stream_->serve(events);
    carry_out_commands();
}

void UsbipDevice::carry_out_commands() {
    std::size_t at = 0;
    // A host that does not read its responses waits for its next commands.
    while (stream_ && !stream_->ended() && !unplugged_ &&
           stream_->unsent() < Stream::kUnsentLimit) {
        const std::string& in = stream_->received();
        if (in.size() - at < kHeaderSize) break;
        std::string fault;
        const auto command = parse_command(in.data() + at, kLongestTransfer, fault);
        if (!command) {
            fail(fault);
            return;
        }
        const std::size_t size = kHeaderSize + command->data_size();
        if (in.size() - at < size) break;
        if (command->unlink) {
            unlink(*command);
        } else {
            submit(*command, in.data() + at + kHeaderSize);
        }
        // Before the next command, because vhci_hcd drops a device that responds to a transfer
        // after the unlink of that transfer.
        update_state(now_ms());
        at += size;
    }
    if (stream_) stream_->consume(at);
}

void UsbipDevice::submit(const Command& command, const char* data) {
    ++counters_.submits;
    // First of all: the response to another transfer of that number would end the accounting of
    // the one in flight.
    if (in_flight_.count(command.sequence) != 0) {
        fail("sequence number " + std::to_string(command.sequence) + " is in flight already");
        return;
    }
    const bool control = command.endpoint == 0;
    const std::size_t front = control ? command.setup.size() : 0;
    Urb urb;
    urb.client = kHost;
    urb.handle = command.sequence;
    urb.control = control;
    urb.endpoint = static_cast<std::uint8_t>(command.endpoint | (command.in ? USB_DIR_IN : 0));
    urb.length = front + command.length;
    const auto refuse = [&](int status) {
        urb.status = status;
        urb.length = 0;
        respond(urb);
    };
    if (in_flight_.size() >= kMostTransfers || bytes_in_flight_ + urb.length > kMostBytes) {
        ++counters_.refused;
        refuse(-ENOMEM);
        return;
    }
    auto memory = std::make_shared<std::vector<std::uint8_t>>(urb.length);
    std::copy_n(command.setup.begin(), front, memory->begin());
    if (!command.in) std::copy_n(data, command.length, memory->data() + front);
    urb.buffer = memory->data();
    urb.memory = std::move(memory);
    const Millis now = now_ms();
    if (control) {
        usb_ctrlrequest setup{};
        std::memcpy(&setup, urb.buffer, sizeof setup);
        if (contradicts(setup, command.in)) {
            refuse(-EPIPE);
            return;
        }
        watch_for_reset(urb, now);
    }
    in_flight_.emplace(command.sequence, urb.length);
    bytes_in_flight_ += urb.length;
    if (!control && command.in) {
        ++reads_in_flight_;
        if (!std::exchange(host_reads_, true)) core_.function().host_opened(now);
    }
    Urb refused = urb;
    // The kernel knows the endpoints and asks for no other.
    if (core_.engine().submit(std::move(urb), now) != 0) {
        refused.status = -EPROTO;
        respond(refused);
    }
}

/// vhci_hcd makes no bus reset visible. What a device sees is that the kernel reads its device
/// descriptor again and then selects the configuration; a program that only selects it does not
/// read the descriptor.
void UsbipDevice::watch_for_reset(const Urb& urb, Millis now) {
    usb_ctrlrequest setup{};
    std::memcpy(&setup, urb.buffer, sizeof setup);
    if (setup.bRequestType == USB_DIR_IN && setup.bRequest == USB_REQ_GET_DESCRIPTOR &&
        setup.wValue >> 8U == USB_DT_DEVICE) {
        descriptor_read_ = true;
    }
    if (setup.bRequestType == USB_DIR_OUT && setup.bRequest == USB_REQ_SET_CONFIGURATION) {
        if (std::exchange(descriptor_read_, false) && configured()) {
            ++counters_.resets;
            core_.function().bus_reset(now);
        }
    }
}

void UsbipDevice::unlink(const Command& command) {
    ++counters_.unlinks;
    int status = 0;
    if (core_.engine().discard(kHost, command.victim) == 0) {
        status = -ECONNRESET;
        const Urb urb = core_.engine().reap(kHost).value();
        forget(urb);
        if (host_reads_ && reads_in_flight_ == 0) {
            host_reads_ = false;
            core_.function().host_closed();
        }
    } else {
        ++counters_.late_unlinks;
    }
    stream_->send(unlink_response(command.sequence, status));
}

void UsbipDevice::respond_to_finished() {
    while (const auto urb = core_.engine().reap(kHost))
        respond(*urb);
}

void UsbipDevice::respond(const Urb& urb) {
    const auto sequence = static_cast<std::uint32_t>(urb.handle);
    forget(urb);
    std::string response = submit_response(sequence, urb.status, urb.actual);
    const std::size_t front = urb.control ? sizeof(usb_ctrlrequest) : 0;
    if (is_in(urb.endpoint) && urb.length > front) {
        response.append(reinterpret_cast<const char*>(urb.buffer) + front, urb.actual);
    }
    if (stream_) stream_->send(response);
}

/// Removes a transfer from those in flight; does nothing for one that was refused.
void UsbipDevice::forget(const Urb& urb) {
    const auto found = in_flight_.find(static_cast<std::uint32_t>(urb.handle));
    if (found == in_flight_.end()) return;
    bytes_in_flight_ -= found->second;
    in_flight_.erase(found);
    if (!urb.control && is_in(urb.endpoint)) --reads_in_flight_;
}

/// Call it after every change that can finish a transfer or produce output.
void UsbipDevice::update_state(Millis now) {
    if (unplugged_) return;
    respond_to_finished();
    unplugged_ = core_.unplug_due(now);
    DeviceCore::print(core_.function().take_violations(), name_);
}

void UsbipDevice::fail(const std::string& reason) {
    std::fprintf(stderr, "jovu-sim: device %s: the host sends what is not USB/IP: %s\n",
                 name_.c_str(), reason.c_str());
    stream_->end();
}

void UsbipDevice::with_function(const std::function<void(UsbFunction&, Millis)>& work) {
    const Millis now = now_ms();
    work(core_.function(), now);
    core_.engine().pump(now);
    update_state(now);
}

void UsbipDevice::with_faults(const std::function<void(FaultTable&)>& work) {
    work(core_.faults());
}

void UsbipDevice::tick() {
    const Millis now = now_ms();
    if (stream_) stream_->tick(now);
    core_.tick(now);
    update_state(now);
}

std::optional<Millis> UsbipDevice::next_due() const {
    if (unplugged_ || host_gone()) return 0;
    auto due = core_.due_at(now_ms());
    const auto stall = stream_ ? stream_->next_due() : std::nullopt;
    if (stall && (!due || *stall < *due)) due = stall;
    return due;
}

Json UsbipDevice::stats() {
    const auto address = find_address_();
    Json out = {{"name", name_},
                {"address", address ? Json(address->to_string()) : Json()},
                {"connected", connected()},
                {"clients", open_clients()},
                {"connections", counters_.connections},
                {"submits", counters_.submits},
                {"unlinks", counters_.unlinks},
                {"late_unlinks", counters_.late_unlinks},
                {"refused", counters_.refused},
                {"resets", counters_.resets}};
    core_.add_stats(out, now_ms());
    return out;
}

}  // namespace jovusim::usbip
