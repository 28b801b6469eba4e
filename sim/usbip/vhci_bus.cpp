// SPDX-License-Identifier: Apache-2.0
#include "usbip/vhci_bus.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <fstream>
#include <stdexcept>
#include <system_error>
#include <utility>

namespace jovusim::usbip {

namespace {

/// The state of a port in the status file that nothing is attached to: VDEV_ST_NULL of the kernel.
constexpr unsigned kFreePort = 4;

/// While the kernel releases a port it refuses it as busy.
constexpr Millis kBusyPause = 10;
constexpr Millis kBusyLimit = 5000;

/// The number in a file of sysfs, or nothing.
std::optional<unsigned> read_number(const std::filesystem::path& file) {
    std::ifstream in(file);
    unsigned value = 0;
    if (!(in >> value)) return std::nullopt;
    return value;
}

/// The bus of a controller that has the ports for full and high speed; the other one is for
/// SuperSpeed.
std::optional<unsigned> find_bus(const std::filesystem::path& directory) {
    constexpr unsigned kHighSpeed = 480;  // in Mbit/s
    std::error_code ignored;
    for (const auto& entry : std::filesystem::directory_iterator(directory, ignored)) {
        const std::string name = entry.path().filename();
        if (name.rfind("usb", 0) != 0) continue;
        if (read_number(entry.path() / "speed") == kHighSpeed) {
            return read_number(entry.path() / "busnum");
        }
    }
    return std::nullopt;
}

}  // namespace

VhciPorts::VhciPorts(std::filesystem::path directory) : directory_(std::move(directory)) {
    const std::filesystem::path file = directory_ / "attach";
    if (!std::filesystem::exists(file)) {
        throw std::runtime_error(
            "this kernel has no vhci_hcd, the bus to which devices are attached: load it with "
            "\"modprobe vhci-hcd\"");
    }
    if (::access(file.c_str(), W_OK) != 0) {
        throw std::runtime_error("only root can attach devices: run jovu-sim with sudo (" +
                                 file.string() + " cannot be written)");
    }
    const auto bus = find_bus(directory_);
    count_ = static_cast<unsigned>(read_ports().size());
    if (!bus || count_ == 0) {
        throw std::runtime_error("vhci_hcd offers no port in " + directory_.string());
    }
    bus_number_ = *bus;
}

std::vector<VhciPorts::Port> VhciPorts::read_ports() const {
    std::vector<Port> ports;
    std::ifstream in(directory_ / "status");
    for (std::string line; std::getline(in, line);) {
        unsigned number = 0;
        unsigned state = 0;
        if (std::sscanf(line.c_str(), "hs %u %u", &number, &state) == 2) {
            ports.push_back({number, state == kFreePort});
        }
    }
    return ports;
}

bool VhciPorts::is_free(unsigned port) const {
    const auto ports = read_ports();
    return port - 1 < ports.size() && ports[port - 1].free;
}

int VhciPorts::attach(unsigned port, const UniqueFd& socket, std::uint32_t device,
                      UsbSpeed speed) const {
    const UniqueFd file(::open((directory_ / "attach").c_str(), O_WRONLY | O_CLOEXEC));
    if (!file) return errno;
    const std::string line = std::to_string(port - 1) + ' ' + std::to_string(socket.get()) + ' ' +
                             std::to_string(device) + ' ' + std::to_string(speed_number(speed));
    return ::write(file.get(), line.data(), line.size()) == -1 ? errno : 0;
}

std::optional<BusAddress> VhciPorts::address(unsigned port) const {
    const std::string bus = std::to_string(bus_number_);
    const auto number =
        read_number(directory_ / ("usb" + bus) / (bus + "-" + std::to_string(port)) / "devnum");
    if (!number || *number > kMaxBusAddress) return std::nullopt;
    return BusAddress{static_cast<std::uint8_t>(bus_number_), static_cast<std::uint8_t>(*number)};
}

VhciBus::VhciBus(VhciPorts ports, BusSettings settings)
    : UsbipBus(settings), ports_(std::move(ports)) {}

void VhciBus::plugged_in(Port port, UsbipDevice& device) {
    waiting_.erase(port);
    if (try_to_attach(port, device)) return;
    const Millis now = now_ms();
    waiting_[port] = {now + kBusyPause, now + kBusyLimit};
}

/// Returns false when the port is busy. @throws std::runtime_error
bool VhciBus::try_to_attach(Port port, UsbipDevice& device) {
    if (!ports_.is_free(port)) return false;  // the kernel logs an error for each try
    int pair[2];
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair) != 0) {
        throw std::system_error(errno, std::generic_category(), "cannot make a socket");
    }
    UniqueFd ours(pair[0]);
    const UniqueFd theirs(pair[1]);
    const ExportedDevice exported = device.exported();
    const int error = ports_.attach(port, theirs, device_number(exported.address), exported.speed);
    if (error == EBUSY) return false;
    if (error != 0) {
        throw std::system_error(error, std::generic_category(),
                                "vhci_hcd does not take a device at " + name_of(port));
    }
    device.connect(Stream(std::move(ours)));
    return true;
}

/// Another program, such as "usbip detach", has detached the device.
bool VhciBus::host_left(UsbipDevice& device) {
    std::fprintf(stderr, "jovu-sim: the kernel has detached %s\n", device.name().c_str());
    return false;
}

void VhciBus::service() {
    UsbipBus::service();
    const Millis now = now_ms();
    for (auto it = waiting_.begin(); it != waiting_.end();) {
        auto& [port, waiting] = *it;
        const auto device = find(port);
        bool done = !device || device->connected();
        if (!done && waiting.next_try <= now) {
            try {
                done = try_to_attach(port, *device);
                if (!done && waiting.deadline <= now) {
                    throw std::runtime_error("port " + device->name() + " stays busy");
                }
                waiting.next_try = now + kBusyPause;
            } catch (const std::exception& error) {
                std::fprintf(stderr, "jovu-sim: %s\n", error.what());
                remove(port);
                done = true;
            }
        }
        it = done ? waiting_.erase(it) : std::next(it);
    }
}

std::optional<Millis> VhciBus::next_due() const {
    auto first = UsbipBus::next_due();
    for (const auto& [port, waiting] : waiting_) {
        if (!first || waiting.next_try < *first) first = waiting.next_try;
    }
    return first;
}

}  // namespace jovusim::usbip
