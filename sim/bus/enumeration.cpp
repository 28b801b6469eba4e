// SPDX-License-Identifier: Apache-2.0
#include "bus/enumeration.h"

#include <linux/usb/ch9.h>

#include <cstdint>
#include <cstdio>
#include <vector>

namespace jovusim {

namespace {

constexpr std::uint16_t kUsb20 = 0x0200;
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
    append(out, 64);  // packet size of endpoint 0
    append_word(out, identity.vendor);
    append_word(out, identity.product);
    append_word(out, identity.release);
    append(out, kManufacturer);
    append(out, kProduct);
    append(out, kSerial);
    append(out, 1);  // configurations
    return out;
}

std::string configuration_descriptor(const UsbIdentity& identity) {
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
            append_word(body, endpoint.max_packet);
            append(body, 0);  // interval
        }
        ++number;
    }
    std::string out;
    append(out, USB_DT_CONFIG_SIZE);
    append(out, USB_DT_CONFIG);
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

std::string hex(const std::string& bytes) {
    std::string out;
    for (const char c : bytes) {
        char digits[3];
        std::snprintf(digits, sizeof digits, "%02x",
                      static_cast<unsigned>(static_cast<unsigned char>(c)));
        out += digits;
    }
    return out;
}

std::string hex(std::uint16_t word) {
    char digits[5];
    std::snprintf(digits, sizeof digits, "%04x", unsigned{word});
    return digits;
}

}  // namespace

std::optional<std::string> find_descriptor(const UsbIdentity& identity, std::uint8_t type,
                                           std::uint8_t index) {
    if (type == USB_DT_DEVICE && index == 0) return device_descriptor(identity);
    if (type == USB_DT_CONFIG && index == 0) return configuration_descriptor(identity);
    if (type == USB_DT_STRING) return string_descriptor(identity, index);
    return std::nullopt;
}

std::string sysfs_descriptors(const UsbIdentity& identity) {
    return device_descriptor(identity) + configuration_descriptor(identity);
}

std::string testbed_record(const UsbIdentity& identity, BusAddress address) {
    const std::string bus = std::to_string(address.bus);
    const std::string device = std::to_string(address.address);
    std::string out = "P: " + address.device_path() + "\n";
    const auto property = [&out](const std::string& text) { out += "E: " + text + "\n"; };
    property("SUBSYSTEM=usb");
    property("DEVTYPE=usb_device");
    property("DRIVER=usb");
    property("DEVNAME=" + address.node());
    property("BUSNUM=" + bus);
    property("DEVNUM=" + device);
    const auto attribute = [&out](const std::string& name, const std::string& value) {
        out += "A: " + name + "=";
        for (const char c : value)
            out += c == '\\' ? std::string("\\\\") : std::string(1, c);
        out += "\\n\n";
    };
    attribute("busnum", bus);
    attribute("devnum", device);
    attribute("bConfigurationValue", std::to_string(kConfigurationValue));
    attribute("speed", "12");
    attribute("idVendor", hex(identity.vendor));
    attribute("idProduct", hex(identity.product));
    attribute("manufacturer", identity.manufacturer);
    attribute("product", identity.product_name);
    attribute("serial", identity.serial);
    out += "H: descriptors=" + hex(sysfs_descriptors(identity)) + "\n";
    return out;
}

}  // namespace jovusim
