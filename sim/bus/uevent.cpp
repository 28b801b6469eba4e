#include "bus/uevent.h"

#include <arpa/inet.h>
#include <glob.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <vector>

#include "bus/local_socket.h"

namespace jovusim {

namespace {

/// What libudev puts before the properties of a device (systemd, device-monitor.c).
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

/// MurmurHash2 with seed 0, by which listeners filter.
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
    // A listener that does not read must not hold the bus up.
    const timeval limit{1, 0};
    ::setsockopt(fd.get(), SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
    if (::connect(fd.get(), reinterpret_cast<const sockaddr*>(&to), sizeof to) != 0) {
        if (errno == ECONNREFUSED) ::unlink(path.c_str());
        return;
    }
    // A listener that has gone since is no error.
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
    if (::glob((root_ + "/event[0-9]*").c_str(), GLOB_NOSORT, nullptr, &found) == 0) {
        for (char** path = found.gl_pathv; *path != nullptr; ++path)
            send_to(*path, message);
    }
    ::globfree(&found);
}

}  // namespace jovusim
