// SPDX-License-Identifier: Apache-2.0

/// @file
/// The controller with its application firmware.
#pragma once

#include "firmware/base/host_input.h"
#include "firmware/commands/commands.h"
#include "firmware/machine/machine.h"
#include "firmware/usb/dfu_device.h"
#include "firmware/usb/job_channel.h"
#include "firmware/usb/message_channel.h"
#include "firmware/usb/transmit_queue.h"
#include "firmware/usb/usb_function.h"

namespace jovusim {

constexpr std::uint16_t kApplicationProduct = 0x0002;

/// Endpoints of the two channels.
constexpr std::uint8_t kMessageIn = 0x81;
constexpr std::uint8_t kMessageOut = 0x02;
constexpr std::uint8_t kJobIn = 0x83;
constexpr std::uint8_t kJobOut = 0x04;

/// The application: a message channel, a job channel and the machine.
class Controller final : public UsbFunction {
public:
    /// @param config its serial number must be unique on the bus
    explicit Controller(DeviceConfig config);

    const UsbIdentity& identity() const override { return usb_; }
    std::uint16_t application_product() const override { return config_.product; }
    void receive(std::uint8_t endpoint, const std::uint8_t* data, std::size_t size,
                 Millis now) override;
    std::optional<std::string> next_packet(std::uint8_t endpoint, Millis now) override;
    std::optional<Millis> next_due() const override;
    void bus_reset(Millis /*now*/) override { reset_channels(); }
    void configure() override { reset_channels(); }
    bool disconnect_due(Millis now) const override;
    std::unique_ptr<UsbFunction> successor() override;
    DfuFaults& dfu_faults() override { return dfu_faults_; }
    void tick(Millis now) override { advance(now); }
    std::optional<Millis> next_tick() const override { return machine_.next_due(); }
    void host_opened(Millis now) override;
    void host_closed() override;
    Json stats(Millis now) override;
    std::vector<std::string> take_violations() override { return violations_.take(); }

    /// Sends a debug event with the first kMaxEventString bytes of a string.
    void send_debug_event(const std::string& text, Millis now);

    /// Sends bytes unchanged.
    void send_raw(Channel channel, std::string bytes, Millis now);

    /// Sends a string in a frame of the message channel. @throws std::length_error if too long
    void send_framed(const std::string& text, Millis now);

    /// Sends that many events or status reports as fast as the host reads them.
    void flood(Channel channel, std::uint64_t count);

    /// Sends that many meaningless bytes, the same ones in each call.
    void send_garbage(Channel channel, std::uint64_t bytes);

    ResponseFaults& response_faults() { return faults_; }
    Machine& machine() { return machine_; }

private:
    void advance(Millis now);
    void reset_channels();
    TransmitQueue& transmit_queue(Channel channel);

    const DeviceConfig config_;
    const Identity identity_;
    const UsbIdentity usb_;
    ProtocolViolations violations_;
    ResponseFaults faults_;
    DfuFaults dfu_faults_;
    Machine machine_;
    MessageChannel messages_;
    JobChannel jobs_;
};

}  // namespace jovusim
