// SPDX-License-Identifier: Apache-2.0
#include "usbip/export_bus.h"

#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <charconv>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <stdexcept>
#include <system_error>
#include <utility>

namespace jovusim::usbip {

namespace {

constexpr int kBacklog = 64;
constexpr Millis kAcceptPause = 100;

/// ADDRESS:PORT in two.
std::pair<std::string, std::string> split(const std::string& listen) {
    const std::size_t colon = listen.rfind(':');
    std::string host = listen.substr(0, colon);
    if (host.size() > 2 && host.front() == '[' && host.back() == ']') {
        host = host.substr(1, host.size() - 2);
    } else if (host.find(':') != std::string::npos) {
        host.clear();
    }
    const std::string port = colon == std::string::npos ? "" : listen.substr(colon + 1);
    // getaddrinfo() would take the lower 16 bits of a larger number.
    std::uint16_t number = 0;
    const char* const end = port.data() + port.size();
    const auto [parsed, error] = std::from_chars(port.data(), end, number);
    if (host.empty() || error != std::errc() || parsed != end) {
        throw std::runtime_error("\"" + listen +
                                 "\" is not ADDRESS:PORT, such as 127.0.0.1:3240 or [::1]:3240; a "
                                 "port is a number up to 65535");
    }
    return {host, port};
}

/// Returns no descriptor, and sets errno, when it cannot listen there.
UniqueFd listen_at(const addrinfo& address) {
    UniqueFd fd(::socket(address.ai_family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    const int on = 1;
    if (!fd || ::setsockopt(fd.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) != 0 ||
        ::bind(fd.get(), address.ai_addr, address.ai_addrlen) != 0 ||
        ::listen(fd.get(), kBacklog) != 0) {
        return {};
    }
    return fd;
}

/// Listens at the first address of a name at which that is possible: a name may have an IPv6
/// address on a system without IPv6.
UniqueFd listen_at(const std::string& listen) {
    const auto [host, port] = split(listen);
    addrinfo hints{};
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = AI_PASSIVE | AI_NUMERICSERV;
    addrinfo* found = nullptr;
    if (const int error = ::getaddrinfo(host.c_str(), port.c_str(), &hints, &found)) {
        throw std::runtime_error("cannot listen at " + listen + ": " + ::gai_strerror(error));
    }
    const std::unique_ptr<addrinfo, decltype(&::freeaddrinfo)> owner(found, ::freeaddrinfo);
    for (const addrinfo* address = found; address != nullptr; address = address->ai_next) {
        if (UniqueFd fd = listen_at(*address)) return fd;
    }
    throw std::system_error(errno, std::generic_category(), "cannot listen at " + listen);
}

void prepare(const UniqueFd& socket) {
    const int on = 1;
    // Without it each round trip takes as long as a delayed acknowledgement: 40 ms.
    (void)::setsockopt(socket.get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    // A host that has vanished releases its device after two minutes.
    const int idle = 60, interval = 20, count = 3;
    (void)::setsockopt(socket.get(), SOL_SOCKET, SO_KEEPALIVE, &on, sizeof on);
    (void)::setsockopt(socket.get(), IPPROTO_TCP, TCP_KEEPIDLE, &idle, sizeof idle);
    (void)::setsockopt(socket.get(), IPPROTO_TCP, TCP_KEEPINTVL, &interval, sizeof interval);
    (void)::setsockopt(socket.get(), IPPROTO_TCP, TCP_KEEPCNT, &count, sizeof count);
}

}  // namespace

ExportBus::ExportBus(const std::string& listen, BusSettings settings)
    : UsbipBus(settings), listener_(listen_at(listen)) {}

std::string ExportBus::address() const {
    sockaddr_storage address{};
    socklen_t size = sizeof address;
    std::array<char, NI_MAXHOST> host{};
    std::array<char, NI_MAXSERV> port{};
    auto* const generic = reinterpret_cast<sockaddr*>(&address);
    if (::getsockname(listener_.get(), generic, &size) != 0 ||
        ::getnameinfo(generic, size, host.data(), host.size(), port.data(), port.size(),
                      NI_NUMERICHOST | NI_NUMERICSERV) != 0) {
        throw std::runtime_error("the address of the listening socket is unknown");
    }
    const std::string name = host.data();
    const bool brackets = address.ss_family == AF_INET6;
    return (brackets ? "[" + name + "]" : name) + ":" + port.data();
}

std::optional<BusAddress> ExportBus::find_address(Port port) const {
    const auto device = find(port);
    if (!device) return std::nullopt;
    return device->exported().address;
}

bool ExportBus::host_left(UsbipDevice& device) {
    std::fprintf(stderr, "jovu-sim: the host of %s has left\n", device.name().c_str());
    return true;
}

void ExportBus::add_to(std::vector<pollfd>& waits) const {
    UsbipBus::add_to(waits);
    if (accepting()) waits.push_back({listener_.get(), POLLIN, 0});
    for (const Client& client : clients_)
        waits.push_back({client.stream.fd(), client.stream.events(), 0});
}

void ExportBus::serve(const std::vector<pollfd>& waits) {
    UsbipBus::serve(waits);
    clients_.remove_if([&](Client& client) {
        const short events = events_of(waits, client.stream.fd());
        return events != 0 && !serve(client, events);
    });
    if (events_of(waits, listener_.get()) != 0) accept_all();
}

void ExportBus::accept_all() {
    while (accepting()) {
        UniqueFd fd(::accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
        if (!fd) {
            // The listener stays readable, and polling it would not wait.
            if (errno == EMFILE || errno == ENFILE || errno == ENOMEM || errno == ENOBUFS) {
                pause_until_ = now_ms() + kAcceptPause;
            }
            return;
        }
        prepare(fd);
        clients_.push_back({Stream(std::move(fd)), now_ms() + kRequestTime});
    }
}

/// Returns false when the client has gone, or has become the host of a device.
bool ExportBus::serve(Client& client, short events) {
    client.stream.serve(events);
    if (client.answered) {
        client.stream.consume(client.stream.received().size());
    } else if (!carry_out(client)) {
        return false;
    }
    return !client.stream.ended() && !(client.answered && client.stream.unsent() == 0);
}

/// Carries out the request as soon as it is complete. Returns as serve().
bool ExportBus::carry_out(Client& client) {
    const std::string& in = client.stream.received();
    if (in.size() < kOperationSize) return true;
    const OperationRequest request = parse_operation(in.data());
    if (request.version != kVersion || !request.operation) {
        std::fprintf(stderr, "jovu-sim: a client sends what is not a request of USB/IP %x.%x.%x\n",
                     kVersion >> 8U, kVersion >> 4U & 0xFU, kVersion & 0xFU);
        return false;
    }
    if (*request.operation == Operation::list) {
        client.answered = true;
        client.stream.send(list());
        return true;
    }
    if (in.size() < kOperationSize + kBusIdSize) return true;
    const std::string bus_id = parse_bus_id(in.data() + kOperationSize);
    client.stream.consume(kOperationSize + kBusIdSize);
    return import_device(client, bus_id);
}

std::string ExportBus::list() const {
    std::string records;
    std::uint32_t count = 0;
    for (Port port = 1; port <= kPorts; ++port) {
        const auto device = find(port);
        if (!device || device->connected()) continue;  // one host at a time
        records += device_record(device->exported(), true);
        ++count;
    }
    return operation_response(Operation::list, OperationStatus::ok) + number(count) + records;
}

bool ExportBus::import_device(Client& client, const std::string& bus_id) {
    std::shared_ptr<UsbipDevice> device;
    for (Port port = 1; port <= kPorts && !device; ++port) {
        const auto candidate = find(port);
        if (candidate && candidate->name() == bus_id) device = candidate;
    }
    if (!device || device->connected()) {
        client.answered = true;
        client.stream.send(operation_response(
            Operation::import, device ? OperationStatus::busy : OperationStatus::no_device));
        return true;
    }
    client.stream.send(operation_response(Operation::import, OperationStatus::ok) +
                       device_record(device->exported(), false));
    device->connect(std::move(client.stream));
    return false;
}

void ExportBus::service() {
    UsbipBus::service();
    const Millis now = now_ms();
    clients_.remove_if([now](const Client& client) { return client.deadline <= now; });
    if (pause_until_ && *pause_until_ <= now) pause_until_.reset();
}

std::optional<Millis> ExportBus::next_due() const {
    auto first = UsbipBus::next_due();
    for (const Client& client : clients_) {
        if (!first || client.deadline < *first) first = client.deadline;
    }
    if (pause_until_ && (!first || *pause_until_ < *first)) first = pause_until_;
    return first;
}

}  // namespace jovusim::usbip
