// SPDX-License-Identifier: Apache-2.0
#include "usbip/protocol.h"

#include <linux/usb/ch9.h>

#include <algorithm>

namespace jovusim::usbip {

namespace {

constexpr std::uint16_t kRequestBit = 0x8000;

/// usbip_header_basic.command
enum : std::uint32_t { kSubmit = 1, kUnlink = 2, kSubmitResponse = 3, kUnlinkResponse = 4 };

constexpr std::size_t kPathSize = 256;
constexpr std::uint32_t kMostEndpoints = 16;

/// The number of packets of a transfer that is not isochronous: 0 from Linux, the other one by the
/// documentation.
constexpr std::uint32_t kNotIsochronous[] = {0, 0xFFFFFFFF};

unsigned byte_at(const char* bytes, std::size_t at) {
    return static_cast<unsigned char>(bytes[at]);
}

std::uint16_t half_at(const char* bytes, std::size_t at) {
    return static_cast<std::uint16_t>(byte_at(bytes, at) << 8U | byte_at(bytes, at + 1));
}

std::uint32_t word_at(const char* bytes, std::size_t at) {
    return std::uint32_t{half_at(bytes, at)} << 16U | half_at(bytes, at + 2);
}

void append_half(std::string& out, unsigned value) {
    out += static_cast<char>(value >> 8U);
    out += static_cast<char>(value);
}

void append_word(std::string& out, std::uint32_t value) {
    append_half(out, value >> 16U);
    append_half(out, value);
}

void append_padded(std::string& out, const std::string& text, std::size_t size) {
    out += text.substr(0, size - 1);
    out.append(size - std::min(text.size(), size - 1), '\0');
}

std::string header(std::uint32_t command, std::uint32_t sequence, int status) {
    std::string out;
    for (const std::uint32_t value :
         {command, sequence, 0U, 0U, 0U, static_cast<std::uint32_t>(status)})
        append_word(out, value);
    return out;
}

}  // namespace

OperationRequest parse_operation(const char* bytes) {
    OperationRequest request{half_at(bytes, 0), std::nullopt};
    for (const Operation operation : {Operation::import, Operation::list}) {
        if (half_at(bytes, 2) == (kRequestBit | static_cast<unsigned>(operation))) {
            request.operation = operation;
        }
    }
    return request;
}

std::string parse_bus_id(const char* bytes) {
    return {bytes, std::find(bytes, bytes + kBusIdSize, '\0')};
}

std::string operation_response(Operation operation, OperationStatus status) {
    std::string out;
    append_half(out, kVersion);
    append_half(out, static_cast<unsigned>(operation));
    append_word(out, static_cast<std::uint32_t>(status));
    return out;
}

std::string device_record(const ExportedDevice& device, bool interfaces) {
    const UsbIdentity& identity = device.identity;
    std::string out;
    append_padded(out, "/sys/devices/jovu-sim/" + device.bus_id, kPathSize);
    append_padded(out, device.bus_id, kBusIdSize);
    append_word(out, device.address.bus);
    append_word(out, device.address.address);
    append_word(out, speed_number(device.speed));
    append_half(out, identity.vendor);
    append_half(out, identity.product);
    append_half(out, identity.release);
    out += '\0';  // class, subclass and protocol are those of the interfaces
    out += '\0';
    out += '\0';
    out += static_cast<char>(kConfigurationValue);
    out += '\1';  // configurations
    out += static_cast<char>(identity.interfaces.size());
    if (!interfaces) return out;
    for (const InterfaceInfo& interface : identity.interfaces) {
        out += static_cast<char>(interface.interface_class);
        out += static_cast<char>(interface.subclass);
        out += static_cast<char>(interface.protocol);
        out += '\0';  // padding
    }
    return out;
}

std::string number(std::uint32_t value) {
    std::string out;
    append_word(out, value);
    return out;
}

unsigned speed_number(UsbSpeed speed) {
    return speed == UsbSpeed::high ? USB_SPEED_HIGH : USB_SPEED_FULL;
}

std::uint32_t device_number(BusAddress address) {
    return std::uint32_t{address.bus} << 16U | address.address;
}

std::optional<Command> parse_command(const char* bytes, std::size_t longest, std::string& fault) {
    Command command;
    const std::uint32_t code = word_at(bytes, 0);
    command.sequence = word_at(bytes, 4);
    if (code == kUnlink) {
        command.unlink = true;
        command.victim = word_at(bytes, 20);
        return command;
    }
    const std::uint32_t direction = word_at(bytes, 12);
    const std::uint32_t endpoint = word_at(bytes, 16);
    const std::uint32_t packets = word_at(bytes, 32);
    command.length = word_at(bytes, 24);
    if (code != kSubmit) {
        fault = "unknown command " + std::to_string(code);
    } else if (direction > 1) {
        fault = "unknown direction " + std::to_string(direction);
    } else if (endpoint >= kMostEndpoints) {
        fault = "there is no endpoint " + std::to_string(endpoint);
    } else if (command.length > longest) {
        fault = "a transfer of " + std::to_string(command.length) + " bytes, more than " +
                std::to_string(longest);
    } else if (packets != kNotIsochronous[0] && packets != kNotIsochronous[1]) {
        fault = "an isochronous transfer";
    }
    if (!fault.empty()) return std::nullopt;
    command.in = direction == 1;
    command.endpoint = static_cast<std::uint8_t>(endpoint);
    std::copy_n(bytes + 40, command.setup.size(), command.setup.begin());
    return command;
}

std::string submit_response(std::uint32_t sequence, int status, std::size_t actual) {
    std::string out = header(kSubmitResponse, sequence, status);
    append_word(out, static_cast<std::uint32_t>(actual));
    out.resize(kHeaderSize);
    return out;
}

std::string unlink_response(std::uint32_t sequence, int status) {
    std::string out = header(kUnlinkResponse, sequence, status);
    out.resize(kHeaderSize);
    return out;
}

}  // namespace jovusim::usbip
