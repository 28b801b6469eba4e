// SPDX-License-Identifier: Apache-2.0

/// @file
/// How the library identifies a device: by its address on the bus.
#pragma once

#include <cstddef>
#include <cstdint>
#include <typeindex>  // Declares std::hash; cheaper than <functional>.

/// Identifies one attached device by its address on the bus. A plain value, passed by value.
///
/// A controller that is unplugged and plugged in again gets another address from the system, or the
/// same one; to the library it is a new device.
struct JovuDeviceAddress {
    std::uint8_t bus;      ///< USB bus number, 0..255.
    std::uint8_t address;  ///< Device address on that bus, 0..255 (assigned at enumeration).
};

/// Both bytes are equal. There is no ordering.
constexpr bool operator==(JovuDeviceAddress a, JovuDeviceAddress b) noexcept {
    return a.bus == b.bus && a.address == b.address;
}

/// Not equal in at least one byte.
constexpr bool operator!=(JovuDeviceAddress a, JovuDeviceAddress b) noexcept {
    return !(a == b);
}

/// @cond The reference cannot place a specialisation of another namespace's template.
/// Hash of an address: `bus + 256 * address`, so distinct addresses never collide.
template <>
struct std::hash<JovuDeviceAddress> {
    /// @return `bus + 256 * address`.
    std::size_t operator()(JovuDeviceAddress a) const noexcept {
        return static_cast<std::size_t>(a.bus) + 256U * static_cast<std::size_t>(a.address);
    }
};
/// @endcond

/// One device of the accepted vendor that is on the bus, whether the library opened it or not.
struct JovuUsbDevice {
    std::int32_t
        type;  ///< 1: USB product id 0x0002 (the kind that is opened); 2: 0x0003; 0: other.
    std::uint8_t port;  ///< USB port number that the device is plugged into.
};
