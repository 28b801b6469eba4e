/// @file
/// What identifies a controller on the bus and how its channels are laid out. Fixed by the device.
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

/// How long a closing device may take to give its transfers back. The kernel returns a cancelled
/// transfer within milliseconds; past this the transfer is set aside, never freed under libusb.
inline constexpr std::chrono::milliseconds kDrainLimit{3000};

}  // namespace jovu
