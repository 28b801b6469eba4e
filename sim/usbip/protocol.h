// SPDX-License-Identifier: Apache-2.0

/// @file
/// The messages of USB/IP, version 1.1.1, as the kernel documents them. All numbers are big-endian.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

#include "device/descriptors.h"
#include "device/types.h"
#include "firmware/usb/usb_function.h"

namespace jovusim::usbip {

/// @name Before a device is imported: operations
/// @{
constexpr std::uint16_t kVersion = 0x0111;
constexpr std::size_t kOperationSize = 8;  ///< of the header of an operation
constexpr std::size_t kBusIdSize = 32;     ///< of the name of a device, padded with zeros

enum class Operation : std::uint16_t { import = 0x0003, list = 0x0005 };

enum class OperationStatus : std::uint32_t { ok = 0, busy = 2, no_device = 4 };

struct OperationRequest {
    std::uint16_t version;
    std::optional<Operation> operation;  ///< nothing when it is unknown
};

/// @param bytes kOperationSize bytes
OperationRequest parse_operation(const char* bytes);

/// The name of a device in an import request. @param bytes kBusIdSize bytes
std::string parse_bus_id(const char* bytes);

std::string operation_response(Operation operation, OperationStatus status);

/// A device that is exported.
struct ExportedDevice {
    std::string bus_id;
    BusAddress address;
    UsbSpeed speed;
    const UsbIdentity& identity;
};

/// The record of a device. @param interfaces whether those follow, as in a list
std::string device_record(const ExportedDevice& device, bool interfaces);

std::string number(std::uint32_t value);
/// @}

/// @name With an imported device: transfers
/// @{
constexpr std::size_t kHeaderSize = 48;

/// The number of a speed, in this protocol and in the kernel.
unsigned speed_number(UsbSpeed speed);

/// The number by which the two sides of a connection name the device.
std::uint32_t device_number(BusAddress address);

struct Command {
    bool unlink = false;  ///< otherwise a submission
    std::uint32_t sequence = 0;
    std::uint32_t victim = 0;  ///< unlink: sequence number of the submission
    bool in = false;
    std::uint8_t endpoint = 0;            ///< number, without the direction
    std::uint32_t length = 0;             ///< of the buffer
    std::array<std::uint8_t, 8> setup{};  ///< of a control transfer

    /// Bytes that follow the header.
    std::size_t data_size() const { return unlink || in ? 0 : length; }
};

/// Parses the header of a command. @param bytes kHeaderSize bytes
/// @param longest largest buffer of a transfer
/// @returns nothing when the header is invalid; fault is the reason then
std::optional<Command> parse_command(const char* bytes, std::size_t longest, std::string& fault);

/// The header of the response to a submission.
/// @param status 0 or a negative errno
std::string submit_response(std::uint32_t sequence, int status, std::size_t actual);

/// The response to an unlink. @param status 0 when the transfer had ended already
std::string unlink_response(std::uint32_t sequence, int status);
/// @}

}  // namespace jovusim::usbip
