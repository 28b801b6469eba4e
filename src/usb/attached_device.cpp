// SPDX-License-Identifier: Apache-2.0
#include "usb/attached_device.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <fstream>
#include <string>
#include <string_view>
#include <vector>

#include "jovu/exception.h"
#include "usb/usb_constants.h"

namespace jovu {
namespace {

/// As many as USB allows between a root port and a device.
constexpr std::size_t kMaxPorts = 7;

/// @return as JovuDeviceInfo::port; empty for a root hub.
std::string port_of(libusb_device* device) {
    std::array<std::uint8_t, kMaxPorts> ports{};
    const int count = libusb_get_port_numbers(device, ports.data(), ports.size());
    std::string path = std::to_string(libusb_get_bus_number(device));
    for (int i = 0; i < count; ++i)
        path += (i == 0 ? '-' : '.') + std::to_string(ports.at(static_cast<std::size_t>(i)));
    return count > 0 ? path : "";
}

/// @return the serial number of the device at a port; empty when the system does not show it.
std::string serial_at(const std::string& port) {
    std::string serial;
    if (!port.empty()) {
        std::ifstream file("/sys/bus/usb/devices/" + port + "/serial");
        std::getline(file, serial);
    }
    return serial;
}

/// Removes a number and what follows it, if that is @p end or the end of the text. Buses and ports
/// count from 1.
bool take_number(std::string_view& text, char end) {
    const auto digits = static_cast<std::size_t>(
        std::find_if_not(text.begin(), text.end(),
                         [](unsigned char c) { return std::isdigit(c) != 0; }) -
        text.begin());
    if (digits == 0 || digits > 3 || text[0] == '0') return false;
    if (digits < text.size() && text[digits] != end) return false;
    text.remove_prefix(std::min(digits + 1, text.size()));
    return true;
}

bool is_port(std::string_view text) {
    if (text.empty() || text.back() == '.') return false;
    if (text.find('-') == std::string_view::npos || !take_number(text, '-')) return false;
    std::size_t ports = 0;
    while (!text.empty()) {
        if (!take_number(text, '.')) return false;
        ++ports;
    }
    return ports > 0 && ports <= kMaxPorts;
}

template <class Value>
bool contains(const std::vector<Value>& values, const Value& value) {
    return std::find(values.begin(), values.end(), value) != values.end();
}

}  // namespace

std::int32_t kind_of(std::uint16_t product_id) noexcept {
    switch (product_id) {
        case kProductOpened:
            return 1;
        case kProductListed:
            return 2;
        default:
            return 0;
    }
}

JovuDeviceInfo describe(libusb_device* device, const libusb_device_descriptor& descriptor,
                        Serial serial) {
    JovuDeviceInfo info;
    info.address = {libusb_get_bus_number(device), libusb_get_device_address(device)};
    info.port = port_of(device);
    info.type = kind_of(descriptor.idProduct);
    if (serial == Serial::read) info.serial = serial_at(info.port);
    return info;
}

JovuDeviceState state_after(int libusb_error) noexcept {
    switch (libusb_error) {
        case LIBUSB_ERROR_ACCESS:
            return JovuDeviceState::not_permitted;
        case LIBUSB_ERROR_BUSY:
            return JovuDeviceState::in_use;
        case LIBUSB_ERROR_NO_DEVICE:
        case LIBUSB_ERROR_NOT_FOUND:
            return JovuDeviceState::vanished;
        default:
            return JovuDeviceState::failed;
    }
}

}  // namespace jovu

const char* jovu_state_name(JovuDeviceState state) noexcept {
    switch (state) {
        case JovuDeviceState::open:
            return "open";
        case JovuDeviceState::closed:
            return "closed";
        case JovuDeviceState::waiting:
            return "waiting";
        case JovuDeviceState::left_out:
            return "left_out";
        case JovuDeviceState::not_permitted:
            return "not_permitted";
        case JovuDeviceState::in_use:
            return "in_use";
        case JovuDeviceState::vanished:
            return "vanished";
        case JovuDeviceState::failed:
            return "failed";
        case JovuDeviceState::other_kind:
            return "other_kind";
    }
    return "unknown";
}

JovuDeviceFilter JovuDeviceFilter::none() {
    JovuDeviceFilter filter;
    filter.all_ = false;
    return filter;
}

JovuDeviceFilter& JovuDeviceFilter::add_serial(const std::string& serial) {
    if (serial.empty())
        throw JovuException("A serial number must not be empty.", JovuError::rejected);
    serials_.push_back(serial);
    all_ = false;
    return *this;
}

JovuDeviceFilter& JovuDeviceFilter::add_port(const std::string& port) {
    if (!jovu::is_port(port)) throw JovuException("Not a port: " + port, JovuError::rejected);
    ports_.push_back(port);
    all_ = false;
    return *this;
}

JovuDeviceFilter& JovuDeviceFilter::add_address(JovuDeviceAddress address) {
    addresses_.push_back(address);
    all_ = false;
    return *this;
}

bool JovuDeviceFilter::matches(const JovuDeviceInfo& device) const {
    return all_ || jovu::contains(serials_, device.serial) || jovu::contains(ports_, device.port) ||
           jovu::contains(addresses_, device.address);
}
