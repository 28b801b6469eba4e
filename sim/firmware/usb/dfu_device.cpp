// SPDX-License-Identifier: Apache-2.0
#include "firmware/usb/dfu_device.h"

#include <zlib.h>

#include <algorithm>
#include <utility>

#include "firmware/usb/firmware_image.h"

namespace jovusim {

namespace {

/// bRequest of the standard's table 3.2.
enum DfuRequest : std::uint8_t {
    kDetach,
    kDownload,
    kUpload,
    kGetStatus,
    kClearStatus,
    kGetState,
    kAbort,
};

constexpr std::uint8_t kClassToInterface = 0x21;
constexpr std::uint8_t kInterfaceToHost = 0xA1;

constexpr std::uint8_t kApplicationSpecificClass = 0xFE;
constexpr std::uint8_t kFirmwareUpgradeSubclass = 0x01;
constexpr std::uint8_t kDfuModeProtocol = 0x02;

constexpr std::uint16_t kTransferSize = 1024;
constexpr std::uint16_t kDetachTimeout = 1000;

/// Durations of a flash memory, in milliseconds.
constexpr Millis kBlockTime = 2;
constexpr Millis kManifestTime = 100;

/// Delay between the bus reset and the disconnect.
constexpr Millis kBootDelay = 150;

std::string functional_descriptor() {
    const auto low = [](std::uint16_t word) { return static_cast<char>(word & 0xFFU); };
    const auto high = [](std::uint16_t word) { return static_cast<char>(word >> 8U); };
    constexpr char kAttributes = 0x0B;  // bitCanDnload, bitCanUpload, bitWillDetach
    return {9,
            0x21,
            kAttributes,
            low(kDetachTimeout),
            high(kDetachTimeout),
            low(kTransferSize),
            high(kTransferSize),
            0x10,
            0x01};  // version 1.1
}

UsbIdentity usb_identity(const DeviceConfig& config, const DfuFaults& faults) {
    InterfaceInfo interface {
        kApplicationSpecificClass, kFirmwareUpgradeSubclass, kDfuModeProtocol, {}
    };
    interface.name = config.dfu_name;
    interface.extra = functional_descriptor();
    return {config.vendor,
            kDfuProduct,
            0x0100,
            "JoVu",
            "JoVu Boot Loader (simulated)",
            faults.serial.value_or(config.serial),
            {interface}};
}

const char* to_string(DfuState state) {
    switch (state) {
        case DfuState::idle:
            return "dfuIDLE";
        case DfuState::download_sync:
            return "dfuDNLOAD-SYNC";
        case DfuState::download_busy:
            return "dfuDNBUSY";
        case DfuState::download_idle:
            return "dfuDNLOAD-IDLE";
        case DfuState::manifest_sync:
            return "dfuMANIFEST-SYNC";
        case DfuState::manifest:
            return "dfuMANIFEST";
        case DfuState::manifest_wait_reset:
            return "dfuMANIFEST-WAIT-RESET";
        case DfuState::upload_idle:
            return "dfuUPLOAD-IDLE";
        case DfuState::error:
            return "dfuERROR";
    }
    return "unknown";
}

DfuStatus status_of(ImageError fault) {
    switch (fault) {
        case ImageError::none:
            return DfuStatus::ok;
        case ImageError::foreign:
            return DfuStatus::firmware;
        case ImageError::incomplete:
            return DfuStatus::not_done;
        case ImageError::damaged:
            return DfuStatus::verify;
    }
    return DfuStatus::firmware;
}

}  // namespace

DfuDevice::DfuDevice(DeviceConfig config, const DfuFaults& faults)
    : config_(std::move(config)), usb_(usb_identity(config_, faults)), faults_(faults) {}

std::optional<std::string> DfuDevice::control(const SetupPacket& request, const std::string& data,
                                              Millis now) {
    if (disconnect_at_) return std::nullopt;
    const bool in = request.type == kInterfaceToHost;
    if (!in && request.type != kClassToInterface) return std::nullopt;
    switch (request.request) {
        case kDetach:
            return in ? std::nullopt : detach(now);
        case kDownload:
            return in ? std::nullopt : download(request, data, now);
        case kUpload:
            return in ? upload(request) : std::nullopt;
        case kGetStatus:
            return in ? get_status(now) : std::nullopt;
        case kClearStatus:
            return in ? std::nullopt : clear_status();
        case kGetState:
            return in ? get_state() : std::nullopt;
        case kAbort:
            return in ? std::nullopt : abort();
        default:
            return refuse("request " + std::to_string(request.request));
    }
}

DfuDevice::Response DfuDevice::refuse(const std::string& what) {
    violations_.add("DFU: " + what + " in the state " + to_string(state_));
    fail(DfuStatus::stalled_packet);
    return std::nullopt;
}

void DfuDevice::fail(DfuStatus status) {
    state_ = DfuState::error;
    status_ = status;
}

DfuDevice::Response DfuDevice::download(const SetupPacket& request, const std::string& data,
                                        Millis now) {
    if (state_ == DfuState::idle) {
        if (data.empty()) return refuse("a download without data");
        image_.clear();
        blocks_ = 0;
    } else if (state_ != DfuState::download_idle) {
        return refuse("a download");
    }
    if (data.size() > kTransferSize) {
        return refuse("a block of " + std::to_string(data.size()) + " bytes");
    }
    if (data.empty()) {
        const ImageError fault = check_firmware_image(image_);
        if (fault != ImageError::none) {
            fail(status_of(fault));
            return std::nullopt;
        }
        state_ = DfuState::manifest_sync;
        return std::string();
    }
    if (request.value != (blocks_ & 0xFFFFU)) {
        return refuse("block " + std::to_string(request.value) + " instead of " +
                      std::to_string(blocks_));
    }
    if (faults_.unplug_at == blocks_) {
        gone_ = !faults_.keep_firmware;
        disconnect_at_ = now;
        return std::nullopt;
    }
    state_ = DfuState::download_sync;
    busy_until_ = now + kBlockTime;
    write_block(data);
    return std::string();
}

void DfuDevice::write_block(const std::string& data) {
    firmware_intact_ = faults_.keep_firmware;
    if (faults_.write_error == blocks_++) {
        fail(DfuStatus::write);
        return;
    }
    image_ += data;
    // Report errors immediately: hosts may not query the status of the last block.
    const ImageError fault = check_firmware_image(image_);
    if (fault == ImageError::foreign || fault == ImageError::damaged) fail(status_of(fault));
}

DfuDevice::Response DfuDevice::upload(const SetupPacket& request) {
    if (state_ == DfuState::idle) {
        if (!firmware_intact_) return refuse("an upload without a firmware");
        uploaded_ = 0;
    } else if (state_ != DfuState::upload_idle) {
        return refuse("an upload");
    }
    const std::string image = make_firmware_image(config_.version);
    const std::string part = image.substr(uploaded_, std::min(request.length, kTransferSize));
    uploaded_ += part.size();
    // A short block is the last one.
    state_ = part.size() < request.length ? DfuState::idle : DfuState::upload_idle;
    return part;
}

DfuDevice::Response DfuDevice::get_status(Millis now) {
    if (state_ == DfuState::download_sync) {
        state_ = now < busy_until_ ? DfuState::download_busy : DfuState::download_idle;
    } else if (state_ == DfuState::download_busy && now >= busy_until_) {
        state_ = DfuState::download_idle;
    } else if (state_ == DfuState::manifest_sync) {
        state_ = DfuState::manifest;
        busy_until_ = now + kManifestTime;
    } else if (state_ == DfuState::manifest && now >= busy_until_) {
        state_ = DfuState::manifest_wait_reset;
        if (!faults_.keep_firmware) config_.version = version_of_image(image_);
        firmware_intact_ = true;
        ++downloads_;
    }
    const bool busy = state_ == DfuState::download_busy || state_ == DfuState::manifest;
    const auto wait = static_cast<unsigned>(busy ? std::max<Millis>(busy_until_ - now, 0) : 0);
    std::string response(1, static_cast<char>(status_));
    for (unsigned shift = 0; shift < 24; shift += 8)
        response += static_cast<char>(wait >> shift);
    return response + std::string{static_cast<char>(state_), 0};
}

DfuDevice::Response DfuDevice::clear_status() {
    if (state_ != DfuState::error) return refuse("clearing the status");
    state_ = DfuState::idle;
    status_ = DfuStatus::ok;
    return std::string();
}

DfuDevice::Response DfuDevice::get_state() const {
    return std::string(1, static_cast<char>(state_));
}

DfuDevice::Response DfuDevice::abort() {
    if (state_ == DfuState::error || state_ == DfuState::manifest ||
        state_ == DfuState::manifest_wait_reset) {
        return refuse("an abort");
    }
    state_ = DfuState::idle;
    return std::string();
}

DfuDevice::Response DfuDevice::detach(Millis now) {
    if (state_ != DfuState::idle && state_ != DfuState::manifest_wait_reset) {
        return refuse("a detach");
    }
    boot(now, kBootDelay);
    return std::string();
}

void DfuDevice::bus_reset(Millis now) {
    boot(now, faults_.disconnect_at_reset ? 0 : kBootDelay);
}

void DfuDevice::boot(Millis now, Millis delay) {
    if (disconnect_at_) return;
    if (!firmware_intact_) {
        state_ = DfuState::idle;
        status_ = DfuStatus::ok;
        return;
    }
    disconnect_at_ = now + delay;
}

bool DfuDevice::disconnect_due(Millis now) const {
    return disconnect_at_ && now >= *disconnect_at_;
}

std::unique_ptr<UsbFunction> DfuDevice::successor() {
    if (gone_) return nullptr;
    return make_application(config_);
}

Json DfuDevice::stats(Millis) {
    const auto sum = crc32_z(0, reinterpret_cast<const Bytef*>(image_.data()), image_.size());
    return {{"serial", config_.serial},
            {"dfu",
             {{"state", to_string(state_)},
              {"status", static_cast<int>(status_)},
              {"blocks", blocks_},
              {"bytes", image_.size()},
              {"crc32", sum},
              {"downloads", downloads_},
              {"version", config_.version},
              {"bootable", firmware_intact_}}},
            {"protocol_violations", violations_.stats()}};
}

}  // namespace jovusim
