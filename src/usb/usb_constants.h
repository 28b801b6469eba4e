// SPDX-License-Identifier: Apache-2.0

/// @file
/// What identifies a controller on the bus and how its channels are laid out, both fixed by the
/// device, and the time-outs of the USB backend.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>

/// USB vendor id of the controllers.
inline constexpr std::uint16_t JOVU_USB_VENDOR_ID = 0x7A1C;

namespace jovu {

inline constexpr std::uint16_t kProductOpened = 0x0002;  ///< The kind that the library opens.
inline constexpr std::uint16_t kProductListed = 0x0003;  ///< Listed as kind 2, never opened.

/// How many interface numbers, and so channels, a device has.
inline constexpr std::size_t kInterfaceCount = 2;

/// Only this interface is claimed, also for the traffic of the other one.
inline constexpr int kClaimedInterface = 0;

inline constexpr std::uint8_t kReceiveEndpoint[kInterfaceCount] = {0x81, 0x83};
inline constexpr std::uint8_t kSendEndpoint[kInterfaceCount] = {0x02, 0x04};

inline constexpr int kReceiveBufferSize = 64;     ///< Bytes; one full-speed bulk packet.
inline constexpr unsigned kSendTimeoutMs = 1500;  ///< Per bulk call.
inline constexpr unsigned kSendRetries = 3;       ///< After a timed-out or busy bulk call.
inline constexpr unsigned kMaxEmptySends = 16;    ///< Bulk calls in a row that move nothing.

/// Pause before a receive transfer is submitted again that failed without data. An endpoint that
/// fails at once every time would otherwise take half a core; nothing is received meanwhile.
inline constexpr std::chrono::milliseconds kReceiveErrorPause{4};

/// Pause after a failed event handling, which returns at once: limits what a bus that fails at
/// every call costs.
inline constexpr std::chrono::milliseconds kEventErrorPause{50};

/// How long a sender relies on another thread to handle events before it looks whether one does;
/// doubled after each look, up to the second value.
inline constexpr std::chrono::milliseconds kSenderReliance{5};
inline constexpr std::chrono::milliseconds kMaxSenderReliance{80};

/// Longest event wait of a sender; its own completion ends it earlier.
inline constexpr std::chrono::milliseconds kSenderEventWait{100};

/// How long the watcher leaves event handling to a sender before it looks whether that still
/// handles events; the longest time that nobody does.
inline constexpr std::chrono::milliseconds kAsideSlice{2};

/// Event wait of the watcher while a scan is due but paused, and while a device cannot be closed
/// yet.
inline constexpr std::chrono::milliseconds kRetryPeriod{10};

/// How long a closing device waits for events before it cancels its transfers again.
inline constexpr std::chrono::milliseconds kDrainSlice{20};

/// How long a closing device may take to give its transfers back. The kernel returns a cancelled
/// transfer within milliseconds; past this the transfer is set aside, never freed under libusb.
inline constexpr std::chrono::milliseconds kDrainLimit{3000};

}  // namespace jovu
