// SPDX-License-Identifier: Apache-2.0
#include "bus/testbed_record.h"

#include <cstdint>
#include <cstdio>

#include "device/descriptors.h"

namespace jovusim {

namespace {

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
