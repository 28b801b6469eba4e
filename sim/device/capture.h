// SPDX-License-Identifier: Apache-2.0

/// @file
/// A record of what is on the bus, for Wireshark.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "device/file_descriptor.h"
#include "device/mutex.h"
#include "device/types.h"
#include "device/urb_engine.h"
#include "firmware/usb/usb_function.h"

namespace jovusim {

/// Writes the transfers of all devices to a pcap file of the link type
/// LINKTYPE_USB_LINUX_MMAPPED (220), as usbmon shows them on a real bus: each transfer is one
/// packet when it is submitted and one when it ends.
///
/// Each packet is one write to the file, so a killed simulator loses none. The first packet that
/// cannot be written, or would exceed the limit, ends the capture; the bus goes on.
///
/// Thread-safe. Its lock is a leaf and may be acquired with a device's lock held.
class BusCapture {
public:
    /// Largest file, in bytes.
    static constexpr std::uint64_t kLimit = std::uint64_t{1} << 30U;

    /// Replaces the file. @throws std::system_error when it cannot be written
    explicit BusCapture(const std::string& path, std::uint64_t limit = kLimit);
    BusCapture(const BusCapture&) = delete;
    BusCapture& operator=(const BusCapture&) = delete;

    /// Records one event of a bulk or control transfer.
    void record(BusAddress address, UrbEvent event, const Urb& urb);

    /// Records the control transfers with which Linux reads the descriptors of a new device and
    /// selects its configuration. On the simulated bus no program makes them.
    void record_enumeration(BusAddress address, const UsbIdentity& identity);

    /// Returns why packets are missing, as a sentence without a full stop; empty when none are.
    std::string fault();

private:
    void append(std::string& packet) JOVU_REQUIRES(mutex_);

    const std::string path_;
    const std::uint64_t limit_;
    UniqueFd file_;

    Mutex mutex_;
    std::uint64_t size_ JOVU_GUARDED_BY(mutex_) = 0;
    std::string fault_ JOVU_GUARDED_BY(mutex_);
};

}  // namespace jovusim
