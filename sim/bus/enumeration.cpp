#include "bus/enumeration.h"

#include <arpa/inet.h>
#include <glob.h>
#include <linux/usb/ch9.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <vector>

#include "bus/file_descriptor.h"

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

namespace {

/// The header that libudev expects before the properties (systemd, device-monitor.c).
struct MonitorHeader {
    char prefix[8];
    std::uint32_t magic;
    std::uint32_t header_size;
    std::uint32_t properties_offset;
    std::uint32_t properties_size;
    std::uint32_t subsystem_hash;
    std::uint32_t devtype_hash;
    std::uint32_t tag_bloom_high;
    std::uint32_t tag_bloom_low;
};

constexpr std::uint32_t kMonitorMagic = 0xFEEDCAFE;
constexpr char kSubsystem[] = "usb";
constexpr char kDevtype[] = "usb_device";

/// MurmurHash2 with seed 0. Listeners filter by it.
std::uint32_t murmur2(const std::string& text) {
    constexpr std::uint32_t kMix = 0x5BD1E995;
    auto hash = static_cast<std::uint32_t>(text.size());
    const std::size_t whole = text.size() - text.size() % 4;
    for (std::size_t at = 0; at != whole; at += 4) {
        std::uint32_t word;
        std::memcpy(&word, text.data() + at, sizeof word);
        word *= kMix;
        word ^= word >> 24U;
        hash = (hash * kMix) ^ (word * kMix);
    }
    if (whole != text.size()) {
        for (std::size_t i = text.size(); i-- > whole;) {
            hash ^= static_cast<std::uint32_t>(static_cast<unsigned char>(text[i]))
                    << (8U * (i - whole));
        }
        hash *= kMix;
    }
    hash ^= hash >> 13U;
    hash *= kMix;
    return hash ^ (hash >> 15U);
}

std::string monitor_message(const std::vector<std::string>& properties) {
    std::string body;
    for (const std::string& property : properties)
        body += property + '\0';
    MonitorHeader header{};
    std::memcpy(header.prefix, "libudev", sizeof header.prefix);
    header.magic = htonl(kMonitorMagic);
    header.header_size = sizeof header;
    header.properties_offset = sizeof header;
    header.properties_size = static_cast<std::uint32_t>(body.size());
    header.subsystem_hash = htonl(murmur2(kSubsystem));
    header.devtype_hash = htonl(murmur2(kDevtype));
    std::string message(sizeof header, '\0');
    std::memcpy(message.data(), &header, sizeof header);
    return message + body;
}

void send_to(const std::string& path, const std::string& message) {
    const sockaddr_un to = local_address(path);
    const UniqueFd fd(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    if (!fd) return;
    // Bounds the wait for a listener that does not read.
    const timeval limit{1, 0};
    ::setsockopt(fd.get(), SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
    if (::connect(fd.get(), reinterpret_cast<const sockaddr*>(&to), sizeof to) != 0) {
        if (errno == ECONNREFUSED) ::unlink(path.c_str());
        return;
    }
    // The listener may have closed its socket since; that is no error.
    (void)::send(fd.get(), message.data(), message.size(), MSG_NOSIGNAL);
}

}  // namespace

void UeventSender::send(const std::string& action, BusAddress address) {
    const std::string message = monitor_message({
        "ACTION=" + action,
        "DEVPATH=" + address.device_path(),
        std::string("SUBSYSTEM=") + kSubsystem,
        "SEQNUM=" + std::to_string(++sequence_),
        std::string("DEVTYPE=") + kDevtype,
        "DEVNAME=" + address.node(),
        "BUSNUM=" + std::to_string(address.bus),
        "DEVNUM=" + std::to_string(address.address),
    });
    glob_t found{};
    // NOLINTNEXTLINE(concurrency-mt-unsafe): main thread only.
    if (::glob((root_ + "/event[0-9]*").c_str(), GLOB_NOSORT, nullptr, &found) == 0) {
        for (char** path = found.gl_pathv; *path != nullptr; ++path)
            send_to(*path, message);
    }
    ::globfree(&found);
}

}  // namespace jovusim
