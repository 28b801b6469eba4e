/// @file
/// The controller's boot loader: USB Device Firmware Upgrade 1.1, DFU mode.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "firmware/complaints.h"
#include "firmware/usb_function.h"

namespace jovusim {

/// Not the product id of an application: a program for controllers leaves it alone.
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

/// What stays the same when a device changes between its application and its boot loader.
struct DeviceNature {
    std::string serial;
    std::uint16_t product;  ///< of the application
    double pace;
    std::string version = "1.0.0";  ///< of the firmware that it has
    std::uint16_t vendor = kVendorId;
    std::string dfu_name = "Firmware";  ///< of its alternate setting in DFU mode
};

/// The device in DFU mode. It takes one image, checks it, waits for a bus reset and leaves the bus
/// to return as the application that the image is. Once a block has been written the old firmware
/// is gone: without a sound image the device stays in DFU mode.
class DfuDevice final : public UsbFunction {
public:
    DfuDevice(DeviceNature nature, const DfuFaults& faults);

    const UsbIdentity& identity() const override { return usb_; }
    std::uint16_t application_product() const override { return nature_.product; }
    std::optional<std::string> control(const SetupPacket& request, const std::string& data,
                                       Millis now) override;
    void bus_reset(Millis now) override;
    bool wants_to_leave(Millis now) const override;
    std::unique_ptr<UsbFunction> successor() override;
    void tick(Millis) override {}
    std::optional<Millis> next_tick() const override { return leaving_at_; }
    Json stats(Millis now) override;
    std::vector<std::string> take_complaints() override { return complaints_.take(); }
    DfuFaults& dfu_faults() override { return faults_; }

private:
    using Reply = std::optional<std::string>;

    Reply download(const SetupPacket& request, const std::string& data, Millis now);
    Reply upload(const SetupPacket& request);
    Reply get_status(Millis now);
    Reply clear_status();
    Reply get_state() const;
    Reply abort();
    Reply detach(Millis now);
    Reply refuse(const std::string& what);
    void fail(DfuStatus status);
    void write_block(const std::string& data);
    void boot(Millis now, Millis delay);

    DeviceNature nature_;
    UsbIdentity usb_;
    DfuFaults faults_;
    Complaints complaints_;
    DfuState state_ = DfuState::idle;
    DfuStatus status_ = DfuStatus::ok;
    Millis busy_until_ = 0;
    bool firmware_sound_ = true;  ///< there is something to boot
    bool gone_ = false;           ///< left for good
    std::string image_;           ///< what has arrived of the download
    std::uint64_t blocks_ = 0;
    std::size_t uploaded_ = 0;
    std::uint64_t downloads_ = 0;
    std::optional<Millis> leaving_at_;
};

}  // namespace jovusim
