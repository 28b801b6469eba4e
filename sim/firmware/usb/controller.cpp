// SPDX-License-Identifier: Apache-2.0
#include "firmware/usb/controller.h"

#include <algorithm>
#include <random>
#include <utility>

namespace jovusim {

namespace {

constexpr std::uint16_t kDeviceRelease = 0x0100;
constexpr std::uint8_t kVendorSpecificClass = 0xFF;

Identity identity_of(const DeviceConfig& config) {
    Identity identity;
    identity.firmware_version = config.version;
    identity.serial = config.serial;
    return identity;
}

InterfaceInfo bulk_pair(std::uint8_t in, std::uint8_t out) {
    return {kVendorSpecificClass, 0, 0, {{in, kMaxPacket}, {out, kMaxPacket}}};
}

UsbIdentity usb_identity(const DeviceConfig& config) {
    return {config.vendor,
            config.product,
            kDeviceRelease,
            "JoVu",
            "JoVu Controller (simulated)",
            config.serial,
            {bulk_pair(kMessageIn, kMessageOut), bulk_pair(kJobIn, kJobOut)}};
}

}  // namespace

Controller::Controller(DeviceConfig config)
    : config_(std::move(config)),
      identity_(identity_of(config_)),
      usb_(usb_identity(config_)),
      machine_(config_.time_scale, config_.serial),
      messages_(identity_, machine_, faults_, violations_),
      jobs_(identity_, machine_, faults_, violations_) {}

void Controller::advance(Millis now) {
    // Judged by the moment before: a simulator that was held up has kept the host from reading.
    machine_.advance(now, messages_.room_for_samples(machine_.now().value_or(now)));
    messages_.send_samples(machine_.take_samples(), now);
}

void Controller::receive(std::uint8_t endpoint, const std::uint8_t* data, std::size_t size,
                         Millis now) {
    advance(now);
    if (endpoint == kMessageOut) messages_.receive(data, size, now);
    if (endpoint == kJobOut) {
        jobs_.tick(now);
        jobs_.receive(data, size, now);
    }
}

std::optional<std::string> Controller::next_packet(std::uint8_t endpoint, Millis now) {
    advance(now);
    if (endpoint == kMessageIn) return messages_.transmit_queue().next_packet(now);
    if (endpoint == kJobIn) return jobs_.transmit_queue().next_packet(now);
    return std::nullopt;
}

std::optional<Millis> Controller::next_due() const {
    const auto message = messages_.transmit_queue().next_due();
    const auto job = jobs_.transmit_queue().next_due();
    if (message && job) return std::min(*message, *job);
    return message ? message : job;
}

void Controller::reset_channels() {
    messages_.reset();
    jobs_.reset();
}

/// No samples of the time before.
void Controller::host_opened(Millis now) {
    advance(now);
    machine_.record_samples(true);
}

/// The next program would read old samples before the response to its first command.
void Controller::host_closed() {
    machine_.record_samples(false);
    messages_.transmit_queue().drop_minor();
}

bool Controller::disconnect_due(Millis now) const {
    const auto moment = machine_.disconnect_at();
    return moment && now >= *moment;
}

std::unique_ptr<UsbFunction> Controller::successor() {
    return std::make_unique<DfuDevice>(config_, dfu_faults_);
}

Json Controller::stats(Millis now) {
    advance(now);
    jobs_.tick(now);
    return {{"serial", identity_.serial},   {"version", identity_.firmware_version},
            {"message", messages_.stats()}, {"job", jobs_.stats()},
            {"machine", machine_.stats()},  {"protocol_violations", violations_.stats()}};
}

void Controller::send_debug_event(const std::string& text, Millis now) {
    messages_.send_debug_event(text, now);
}

void Controller::send_raw(Channel channel, std::string bytes, Millis now) {
    transmit_queue(channel).push(std::move(bytes), now);
}

void Controller::send_framed(const std::string& text, Millis now) {
    messages_.transmit_queue().push(encode_frame(text), now);
}

void Controller::flood(Channel channel, std::uint64_t count) {
    if (channel == Channel::message) {
        messages_.flood(count);
    } else {
        jobs_.flood(count);
    }
}

void Controller::send_garbage(Channel channel, std::uint64_t bytes) {
    const std::uint64_t blocks = (bytes + kMaxPacket - 1) / kMaxPacket;
    transmit_queue(channel).push_burst(
        blocks, [random = std::minstd_rand(1), bytes](std::uint64_t block) mutable {
            const std::uint64_t left = bytes - block * kMaxPacket;
            std::string piece(static_cast<std::size_t>(std::min<std::uint64_t>(left, kMaxPacket)),
                              '\0');
            for (char& c : piece)
                c = static_cast<char>(random() / 256U);
            return piece;
        });
}

TransmitQueue& Controller::transmit_queue(Channel channel) {
    return channel == Channel::message ? messages_.transmit_queue() : jobs_.transmit_queue();
}

std::unique_ptr<UsbFunction> make_application(DeviceConfig config) {
    return std::make_unique<Controller>(std::move(config));
}

}  // namespace jovusim
