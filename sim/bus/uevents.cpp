// SPDX-License-Identifier: Apache-2.0
#include "bus/uevents.h"

#include <arpa/inet.h>
#include <glob.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <utility>
#include <vector>

namespace jovusim {

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

constexpr char kListenerPrefix[] = "event";

/// Whether umockdev's library has given a socket this name: "event" and a descriptor number.
bool is_new_listener(const std::string& name) {
    const std::size_t prefix = sizeof kListenerPrefix - 1;
    return name.size() > prefix && name.compare(0, prefix, kListenerPrefix) == 0 &&
           name.find_first_not_of("0123456789", prefix) == std::string::npos;
}

UniqueFd checked(int fd, const char* what) {
    if (fd == -1) throw std::system_error(errno, std::generic_category(), what);
    return UniqueFd(fd);
}

}  // namespace

ListenerSockets::ListenerSockets(std::string root)
    : root_(std::move(root)),
      created_(checked(::inotify_init1(IN_CLOEXEC | IN_NONBLOCK), "inotify_init1")),
      stop_(checked(::eventfd(0, EFD_CLOEXEC), "eventfd")) {
    if (::inotify_add_watch(created_.get(), root_.c_str(), IN_CREATE) == -1)
        throw std::system_error(errno, std::generic_category(), root_);
    thread_ = std::thread([this] { rename_new_ones(); });
}

ListenerSockets::~ListenerSockets() {
    const std::uint64_t one = 1;
    (void)!::write(stop_.get(), &one, sizeof one);
    thread_.join();
}

void ListenerSockets::rename_new_ones() {
    alignas(inotify_event) char events[sizeof(inotify_event) + NAME_MAX + 1];
    for (;;) {
        pollfd watched[] = {{created_.get(), POLLIN, 0}, {stop_.get(), POLLIN, 0}};
        if (::poll(watched, 2, -1) == -1 && errno != EINTR) return;
        if (watched[1].revents != 0) return;
        const ssize_t size = ::read(created_.get(), events, sizeof events);
        for (ssize_t at = 0; at < size;) {
            const auto* event = reinterpret_cast<const inotify_event*>(events + at);
            at += static_cast<ssize_t>(sizeof *event + event->len);
            const std::string name = event->len > 0 ? event->name : "";
            if (!is_new_listener(name)) continue;
            const std::string path = root_ + '/' + name;
            // A listener that has closed its socket since has removed it; that is no error.
            (void)!::rename(path.c_str(), (path + '.' + std::to_string(++renamed_)).c_str());
        }
    }
}

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
