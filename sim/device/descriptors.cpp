// SPDX-License-Identifier: Apache-2.0
#include "device/descriptors.h"

#include <linux/usb/ch9.h>

#include <cstdint>
#include <vector>

namespace jovusim {

namespace {

constexpr std::uint16_t kUsb20 = 0x0200;
constexpr std::uint8_t kControlPacket = 64;  // largest packet of endpoint 0
constexpr std::uint16_t kHighSpeedBulkPacket = 512;
constexpr std::uint8_t kMaxPower = 50;  // in units of 2 mA
constexpr std::uint16_t kEnglish = 0x0409;

enum StringIndex : std::uint8_t { kNoString, kManufacturer, kProduct, kSerial, kFirstInterface };

void append(std::string& out, unsigned byte) {
    out += static_cast<char>(byte & 0xFFU);
}

void append_word(std::string& out, unsigned word) {
    append(out, word);
    append(out, word >> 8U);
}

std::string device_descriptor(const UsbIdentity& identity) {
    std::string out;
    append(out, USB_DT_DEVICE_SIZE);
    append(out, USB_DT_DEVICE);
    append_word(out, kUsb20);
    append(out, 0);  // class, subclass and protocol are those of the interfaces
    append(out, 0);
    append(out, 0);
    append(out, kControlPacket);
    append_word(out, identity.vendor);
    append_word(out, identity.product);
    append_word(out, identity.release);
    append(out, kManufacturer);
    append(out, kProduct);
    append(out, kSerial);
    append(out, 1);  // configurations
    return out;
}

/// What differs at the other speed, of a device that runs at high speed.
std::string device_qualifier() {
    std::string out;
    append(out, sizeof(usb_qualifier_descriptor));
    append(out, USB_DT_DEVICE_QUALIFIER);
    append_word(out, kUsb20);
    append(out, 0);
    append(out, 0);
    append(out, 0);
    append(out, kControlPacket);
    append(out, 1);  // configurations
    append(out, 0);  // reserved
    return out;
}

/// @param type USB_DT_CONFIG or USB_DT_OTHER_SPEED_CONFIG
std::string configuration_descriptor(const UsbIdentity& identity, UsbSpeed speed,
                                     std::uint8_t type = USB_DT_CONFIG) {
    std::string body;
    std::uint8_t number = 0;
    for (const InterfaceInfo& info : identity.interfaces) {
        append(body, USB_DT_INTERFACE_SIZE);
        append(body, USB_DT_INTERFACE);
        append(body, number);
        append(body, 0);  // alternate setting
        append(body, static_cast<unsigned>(info.endpoints.size()));
        append(body, info.interface_class);
        append(body, info.subclass);
        append(body, info.protocol);
        append(body, info.name.empty() ? kNoString : kFirstInterface + number);
        body += info.extra;
        for (const EndpointInfo& endpoint : info.endpoints) {
            append(body, USB_DT_ENDPOINT_SIZE);
            append(body, USB_DT_ENDPOINT);
            append(body, endpoint.address);
            append(body, USB_ENDPOINT_XFER_BULK);
            append_word(body, max_packet(endpoint, speed));
            append(body, 0);  // interval
        }
        ++number;
    }
    std::string out;
    append(out, USB_DT_CONFIG_SIZE);
    append(out, type);
    append_word(out, static_cast<unsigned>(USB_DT_CONFIG_SIZE + body.size()));
    append(out, static_cast<unsigned>(identity.interfaces.size()));
    append(out, kConfigurationValue);
    append(out, kNoString);
    append(out, USB_CONFIG_ATT_ONE);
    append(out, kMaxPower);
    return out + body;
}

std::optional<std::string> string_descriptor(const UsbIdentity& identity, std::uint8_t index) {
    std::string body;
    if (index == 0) {
        append_word(body, kEnglish);
    } else {
        std::vector<std::string> texts = {"", identity.manufacturer, identity.product_name,
                                          identity.serial};
        for (const InterfaceInfo& info : identity.interfaces)
            texts.push_back(info.name);
        if (index >= texts.size() || texts[index].empty()) return std::nullopt;
        for (const char c : texts[index])
            append_word(body, static_cast<unsigned char>(c));
    }
    std::string out;
    append(out, static_cast<unsigned>(2 + body.size()));
    append(out, USB_DT_STRING);
    return out + body;
}

}  // namespace

std::uint16_t max_packet(const EndpointInfo& endpoint, UsbSpeed speed) {
    return speed == UsbSpeed::high ? kHighSpeedBulkPacket : endpoint.max_packet;
}

std::optional<std::string> find_descriptor(const UsbIdentity& identity, UsbSpeed speed,
                                           std::uint8_t type, std::uint8_t index) {
    if (type == USB_DT_STRING) return string_descriptor(identity, index);
    if (index != 0) return std::nullopt;
    if (type == USB_DT_DEVICE) return device_descriptor(identity);
    if (type == USB_DT_CONFIG) return configuration_descriptor(identity, speed);
    if (speed != UsbSpeed::high) return std::nullopt;
    if (type == USB_DT_DEVICE_QUALIFIER) return device_qualifier();
    if (type == USB_DT_OTHER_SPEED_CONFIG) {
        return configuration_descriptor(identity, UsbSpeed::full, type);
    }
    return std::nullopt;
}

std::string sysfs_descriptors(const UsbIdentity& identity) {
    return device_descriptor(identity) + configuration_descriptor(identity, UsbSpeed::full);
}

}  // namespace jovusim
