// SPDX-License-Identifier: Apache-2.0
#include "device/capture.h"

#include <fcntl.h>
#include <linux/usb/ch9.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <optional>
#include <system_error>
#include <utility>
#include <vector>

#include "device/descriptors.h"

namespace jovusim {

namespace {

constexpr std::uint32_t kPcapMagic = 0xA1B2C3D4;  // times in microseconds
constexpr std::uint32_t kLinkType = 220;          // LINKTYPE_USB_LINUX_MMAPPED
constexpr std::uint32_t kSnapLength = 262144;     // the longest packet that Wireshark reads

/// The pcap file header, in host byte order.
struct PcapFile {
    std::uint32_t magic = kPcapMagic;
    std::uint16_t major = 2;
    std::uint16_t minor = 4;
    std::int32_t zone = 0;
    std::uint32_t accuracy = 0;
    std::uint32_t snap_length = kSnapLength;
    std::uint32_t link_type = kLinkType;
};
static_assert(sizeof(PcapFile) == 24);

/// Before each packet, in host byte order.
struct PcapRecord {
    std::uint32_t seconds;
    std::uint32_t microseconds;
    std::uint32_t captured;
    std::uint32_t length;
};
static_assert(sizeof(PcapRecord) == 16);

/// The header of usbmon, in host byte order: struct mon_bin_hdr of the kernel.
struct UrbHeader {
    std::uint64_t id = 0;
    char event = 0;                  // 'S', 'C' or 'E'
    std::uint8_t transfer_type = 0;  // 2: control, 3: bulk
    std::uint8_t endpoint = 0;
    std::uint8_t device = 0;
    std::uint16_t bus = 0;
    char setup_flag = '-';  // 0 when there is a setup packet
    char data_flag =
        0;  // 0 when there is data, or would be; '<' or '>' when the other event has it
    std::int64_t seconds = 0;
    std::int32_t microseconds = 0;
    std::int32_t status = 0;
    std::uint32_t length = 0;    // of the buffer when submitted, of the data when completed
    std::uint32_t captured = 0;  // bytes that follow this header
    std::uint8_t setup[8] = {};
    std::int32_t interval = 0;
    std::int32_t start_frame = 0;
    std::uint32_t flags = 0;
    std::uint32_t descriptors = 0;  // of isochronous transfers
};
static_assert(sizeof(UrbHeader) == 64);

constexpr std::uint8_t kControlTransfer = 2;
constexpr std::uint8_t kBulkTransfer = 3;
constexpr std::uint32_t kDirectionIn = 0x0200;  // URB_DIR_IN of the kernel

/// Returns an id that no other transfer has. The kernel takes the address of its structure.
std::uint64_t unique_id(BusAddress address, std::uint64_t id) {
    return std::uint64_t{address.bus} << 56U | std::uint64_t{address.address} << 48U | id;
}

/// The packet with its record header, both without their times.
/// @param header without the sizes of the data
std::string make_packet(UrbHeader header, const std::uint8_t* data, std::size_t size) {
    const std::size_t captured = std::min(size, kSnapLength - sizeof header);
    header.captured = static_cast<std::uint32_t>(captured);
    const PcapRecord record{0, 0, static_cast<std::uint32_t>(sizeof header + captured),
                            static_cast<std::uint32_t>(sizeof header + size)};
    std::string packet(reinterpret_cast<const char*>(&record), sizeof record);
    packet.append(reinterpret_cast<const char*>(&header), sizeof header);
    if (captured > 0) packet.append(reinterpret_cast<const char*>(data), captured);
    return packet;
}

/// Writes the present time into both headers.
void stamp(std::string& packet) {
    using std::chrono::duration_cast;
    using std::chrono::microseconds;
    using std::chrono::system_clock;
    constexpr std::int64_t kMillion = 1000000;
    const std::int64_t now =
        duration_cast<microseconds>(system_clock::now().time_since_epoch()).count();
    PcapRecord record{};
    UrbHeader header;
    std::memcpy(&record, packet.data(), sizeof record);
    std::memcpy(&header, packet.data() + sizeof record, sizeof header);
    header.seconds = now / kMillion;
    header.microseconds = static_cast<std::int32_t>(now % kMillion);
    record.seconds = static_cast<std::uint32_t>(header.seconds);
    record.microseconds = static_cast<std::uint32_t>(header.microseconds);
    std::memcpy(packet.data(), &record, sizeof record);
    std::memcpy(packet.data() + sizeof record, &header, sizeof header);
}

std::string packet_of(BusAddress address, UrbEvent event, const Urb& urb) {
    const std::uint8_t* data = urb.buffer;
    std::size_t length = urb.length;
    UrbHeader header;
    header.id = unique_id(address, urb.id);
    header.transfer_type = kBulkTransfer;
    header.endpoint = urb.endpoint;
    header.device = address.address;
    header.bus = address.bus;
    if (urb.control) {
        const std::size_t setup = std::min(length, sizeof header.setup);
        header.transfer_type = kControlTransfer;
        header.endpoint = setup > 0 ? data[0] & USB_ENDPOINT_DIR_MASK : 0;
        if (event == UrbEvent::submitted) {
            header.setup_flag = 0;
            std::copy_n(data, setup, header.setup);
        }
        data += setup;
        length -= setup;
    }
    const bool in = (header.endpoint & USB_ENDPOINT_DIR_MASK) != 0;
    header.flags = in ? kDirectionIn : 0;
    switch (event) {
        case UrbEvent::submitted:
            header.event = 'S';
            header.status = -EINPROGRESS;
            header.length = static_cast<std::uint32_t>(length);
            header.data_flag = in ? '<' : '\0';
            return make_packet(header, data, in ? 0 : length);
        case UrbEvent::refused:
            header.event = 'E';
            header.status = urb.status;
            header.data_flag = 'E';
            return make_packet(header, data, 0);
        case UrbEvent::completed:
            header.event = 'C';
            header.status = urb.status;
            header.length = static_cast<std::uint32_t>(urb.actual);
            header.data_flag = in ? '\0' : '>';
            return make_packet(header, data, in ? std::min(urb.actual, length) : 0);
    }
    return {};
}

constexpr std::uint16_t descriptor(std::uint8_t type, std::uint8_t index) {
    return static_cast<std::uint16_t>(type << 8U | index);
}

}  // namespace

BusCapture::BusCapture(const std::string& path, std::uint64_t limit)
    : path_(path),
      limit_(limit),
      file_(::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666)) {
    const PcapFile header;
    if (!file_ || ::write(file_.get(), &header, sizeof header) != sizeof header) {
        throw std::system_error(errno, std::generic_category(),
                                "cannot write the capture \"" + path + "\"");
    }
    size_ = sizeof header;
}

void BusCapture::record(BusAddress address, UrbEvent event, const Urb& urb) {
    std::string packet = packet_of(address, event, urb);
    const MutexLock lock(mutex_);
    append(packet);
}

void BusCapture::record_enumeration(BusAddress address, const UsbIdentity& identity) {
    std::vector<std::string> packets;
    std::uint64_t id = std::uint64_t{1} << 47U;  // apart from the ids of the device's transfers
    const auto transfer = [&](std::uint8_t type, std::uint8_t request, std::uint16_t value,
                              std::uint16_t index, const std::optional<std::string>& response,
                              std::size_t length) {
        std::vector<std::uint8_t> bytes(sizeof(usb_ctrlrequest) + length);
        const usb_ctrlrequest setup{type, request, value, index,
                                    static_cast<std::uint16_t>(length)};
        std::memcpy(bytes.data(), &setup, sizeof setup);
        Urb urb;
        urb.id = ++id;
        urb.control = true;
        urb.buffer = bytes.data();
        urb.length = bytes.size();
        packets.push_back(packet_of(address, UrbEvent::submitted, urb));
        urb.status = response ? 0 : -EPIPE;
        if (response) {
            urb.actual = std::min(length, response->size());
            std::copy_n(response->begin(), urb.actual, bytes.begin() + sizeof setup);
        }
        packets.push_back(packet_of(address, UrbEvent::completed, urb));
    };
    const auto read = [&](std::uint8_t type, std::uint8_t index, std::uint16_t language,
                          std::size_t length) {
        const auto response = find_descriptor(identity, UsbSpeed::full, type, index);
        transfer(USB_DIR_IN, USB_REQ_GET_DESCRIPTOR, descriptor(type, index), language, response,
                 length == 0 && response ? response->size() : length);
    };
    constexpr std::size_t kLongestString = 255;
    constexpr std::uint16_t kEnglish = 0x0409;
    read(USB_DT_DEVICE, 0, 0, USB_DT_DEVICE_SIZE);
    read(USB_DT_CONFIG, 0, 0, USB_DT_CONFIG_SIZE);
    read(USB_DT_CONFIG, 0, 0, 0);
    read(USB_DT_STRING, 0, 0, kLongestString);
    for (const std::uint8_t index : std::array<std::uint8_t, 3>{2, 1, 3})  // product, maker, serial
        read(USB_DT_STRING, index, kEnglish, kLongestString);
    transfer(USB_DIR_OUT, USB_REQ_SET_CONFIGURATION, kConfigurationValue, 0, "", 0);
    const MutexLock lock(mutex_);
    for (std::string& packet : packets)
        append(packet);
}

std::string BusCapture::fault() {
    const MutexLock lock(mutex_);
    return fault_;
}

void BusCapture::append(std::string& packet) {
    if (!fault_.empty()) return;
    stamp(packet);  // here, so that the times are in the order of the packets
    if (size_ + packet.size() > limit_) {
        fault_ = "the capture \"" + path_ + "\" is full: it has reached its limit of " +
                 std::to_string(limit_) + " bytes";
        return;
    }
    const ssize_t written = TEMP_FAILURE_RETRY(::write(file_.get(), packet.data(), packet.size()));
    if (written == static_cast<ssize_t>(packet.size())) {
        size_ += packet.size();
        return;
    }
    fault_ = "the capture \"" + path_ + "\" cannot be written any more: " +
             std::generic_category().message(written == -1 ? errno : ENOSPC);
    // Without the part of the packet that was written the file can be read. A pipe cannot be cut.
    (void)!::ftruncate(file_.get(), static_cast<off_t>(size_));
}

}  // namespace jovusim
