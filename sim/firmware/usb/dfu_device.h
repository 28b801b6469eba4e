// SPDX-License-Identifier: Apache-2.0

/// @file
/// The controller's boot loader: USB Device Firmware Upgrade 1.1, DFU mode.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "firmware/base/host_input.h"
#include "firmware/usb/usb_function.h"

namespace jovusim {

/// Product id in DFU mode; programs for controllers ignore it.
constexpr std::uint16_t kDfuProduct = 0x00DF;

/// bState of the standard's section 6.1.2.
enum class DfuState : std::uint8_t {
    idle = 2,
    download_sync = 3,
    download_busy = 4,
    download_idle = 5,
    manifest_sync = 6,
    manifest = 7,
    manifest_wait_reset = 8,
    upload_idle = 9,
    error = 10,
};

/// bStatus of the same section, those that this device reports.
enum class DfuStatus : std::uint8_t {
    ok = 0x00,
    write = 0x03,
    verify = 0x07,
    not_done = 0x09,
    firmware = 0x0A,
    stalled_packet = 0x0F,
};

/// The device in DFU mode. It receives one image, checks it, waits for a bus reset, disconnects and
/// returns as the application in the image. The first block overwrites the old firmware: without an
/// intact image the device stays in DFU mode.
class DfuDevice final : public UsbFunction {
public:
    DfuDevice(DeviceConfig config, const DfuFaults& faults);

    const UsbIdentity& identity() const override { return usb_; }
    std::uint16_t application_product() const override { return config_.product; }
    std::optional<std::string> control(const SetupPacket& request, const std::string& data,
                                       Millis now) override;
    void bus_reset(Millis now) override;
    bool disconnect_due(Millis now) const override;
    std::unique_ptr<UsbFunction> successor() override;
    void tick(Millis) override {}
    std::optional<Millis> next_tick() const override { return disconnect_at_; }
    Json stats(Millis now) override;
    std::vector<std::string> take_violations() override { return violations_.take(); }
    DfuFaults& dfu_faults() override { return faults_; }

private:
    using Response = std::optional<std::string>;

    Response download(const SetupPacket& request, const std::string& data, Millis now);
    Response upload(const SetupPacket& request);
    Response get_status(Millis now);
    Response clear_status();
    Response get_state() const;
    Response abort();
    Response detach(Millis now);
    Response refuse(const std::string& what);
    void fail(DfuStatus status);
    void write_block(const std::string& data);
    void boot(Millis now, Millis delay);

    DeviceConfig config_;
    UsbIdentity usb_;
    DfuFaults faults_;
    ProtocolViolations violations_;
    DfuState state_ = DfuState::idle;
    DfuStatus status_ = DfuStatus::ok;
    Millis busy_until_ = 0;
    bool firmware_intact_ = true;  ///< the flash memory has an intact firmware
    bool gone_ = false;            ///< disconnected permanently
    std::string image_;            ///< received part of the download
    std::uint64_t blocks_ = 0;
    std::size_t uploaded_ = 0;
    std::uint64_t downloads_ = 0;
    std::optional<Millis> disconnect_at_;
};

}  // namespace jovusim
