// SPDX-License-Identifier: Apache-2.0
#include "session/attached_devices.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <system_error>

#include "cli/options.h"
#include "posix/files.h"

namespace jovu_cli {
namespace {

namespace fs = std::filesystem;

constexpr const char* kSystemDevices = "/sys/bus/usb/devices";
constexpr const char* kRuleName = "70-jovu.rules";

/// @name Descriptors
/// Each begins with its length and its type.
/// @{
constexpr std::size_t kDeviceDescriptorSize = 18;
constexpr std::size_t kVendorOffset = 8;  ///< Two bytes, little-endian, as the product.
constexpr std::size_t kProductOffset = 10;
constexpr unsigned kInterfaceDescriptor = 4;
constexpr std::size_t kInterfaceClassOffset = 5;  ///< Class, subclass and protocol, a byte each.
constexpr unsigned char kDfuInterface[] = {0xfe, 1, 2};
/// @}

/// The kernel's driver of interfaces that programs use.
constexpr const char* kDriverOfPrograms = "usbfs";

std::string content(const fs::path& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

/// @return the names in a directory; none when it cannot be read.
std::vector<std::string> entries(const fs::path& directory) {
    std::vector<std::string> names;
    std::error_code error;
    for (fs::directory_iterator entry(directory, error), end; !error && entry != end;
         entry.increment(error)) {
        names.push_back(entry->path().filename().string());
    }
    return names;
}

bool is_in_dfu_mode(const std::string& descriptors) {
    const auto byte = [&](std::size_t at) { return static_cast<unsigned char>(descriptors[at]); };
    for (std::size_t at = 0; at + 2 <= descriptors.size() && byte(at) >= 2; at += byte(at)) {
        const std::size_t triple = at + kInterfaceClassOffset;
        if (byte(at + 1) == kInterfaceDescriptor && triple + 3 <= descriptors.size() &&
            std::equal(
                std::begin(kDfuInterface), std::end(kDfuInterface),
                descriptors.begin() + static_cast<std::ptrdiff_t>(triple),
                [](unsigned char a, char b) { return a == static_cast<unsigned char>(b); })) {
            return true;
        }
    }
    return false;
}

std::optional<AttachedDevice> read_device(const std::string& name) {
    const fs::path directory = fs::path(kSystemDevices) / name;
    const std::string descriptors = content(directory / "descriptors");
    const auto attribute = [&](const char* file) {
        std::string text = content(directory / file);
        text.erase(text.find_last_not_of('\n') + 1);
        return text;
    };
    const auto address = parse_address(attribute("busnum") + ":" + attribute("devnum"));
    const auto word = [&](std::size_t at) {
        return static_cast<unsigned char>(descriptors[at]) |
               static_cast<unsigned>(static_cast<unsigned char>(descriptors[at + 1])) << 8U;
    };
    if (!address || descriptors.size() < kDeviceDescriptorSize ||
        word(kVendorOffset) != kControllerVendor) {
        return std::nullopt;
    }
    const auto kind = word(kProductOffset) == kControllerProduct ? AttachedDevice::Kind::controller
                      : is_in_dfu_mode(descriptors)              ? AttachedDevice::Kind::dfu
                                                                 : AttachedDevice::Kind::other;
    return AttachedDevice{*address, kind, name, attribute("serial")};
}

/// Finds the kernel's driver of a device's interfaces; prefers one other than usbfs.
void find_driver(const std::string& name, NodeState& node) {
    for (const std::string& entry : entries(kSystemDevices)) {
        if (entry.compare(0, name.size() + 1, name + ":") != 0) {
            continue;
        }
        std::error_code error;
        const fs::path link = fs::path(kSystemDevices) / entry / "driver";
        const fs::path driver = fs::read_symlink(link, error);
        if (!error && (node.driver.empty() || node.driver == kDriverOfPrograms)) {
            node.driver = driver.filename().string();
        }
        node.unused = node.driver.empty();
    }
}

bool has_open(const std::string& process, const struct stat& node) {
    const fs::path directory = fs::path("/proc") / process / "fd";
    for (const std::string& entry : entries(directory)) {
        const fs::path link = directory / entry;
        std::error_code error;
        // A stat() of other files could block.
        if (fs::read_symlink(link, error).string().compare(0, 5, "/dev/") != 0) {
            continue;
        }
        struct stat file {};
        if (stat(link.c_str(), &file) == 0 && file.st_dev == node.st_dev &&
            file.st_ino == node.st_ino) {
            return true;
        }
    }
    return false;
}

void find_holders(NodeState& node) {
    struct stat info {};
    if (stat(node.path.c_str(), &info) != 0) {
        return;
    }
    for (const std::string& process : entries("/proc")) {
        if (process.find_first_not_of("0123456789") != std::string::npos ||
            !has_open(process, info)) {
            continue;
        }
        if (process == std::to_string(getpid())) {
            node.ours = true;
            continue;
        }
        std::string name = content(fs::path("/proc") / process / "comm");
        name.erase(name.find_last_not_of('\n') + 1);
        node.holders.push_back((name.empty() ? "a program" : name) + " (process " + process + ")");
    }
}

std::string joined(const std::vector<std::string>& names) {
    std::string list;
    for (const std::string& name : names) {
        list += (list.empty() ? "" : ", ") + name;
    }
    return list;
}

}  // namespace

std::vector<AttachedDevice> attached_devices() {
    std::vector<AttachedDevice> devices;
    for (const std::string& name : entries(kSystemDevices)) {
        if (const std::optional<AttachedDevice> device = read_device(name)) {
            devices.push_back(*device);
        }
    }
    std::sort(devices.begin(), devices.end(), [](const auto& one, const auto& other) {
        return comes_before(one.address, other.address);
    });
    return devices;
}

NodeState look_at_node(const AttachedDevice& device) {
    char path[40];
    std::snprintf(path, sizeof path, "/dev/bus/usb/%03u/%03u", unsigned{device.address.bus},
                  unsigned{device.address.address});
    NodeState node;
    node.path = path;
    if (!FileDescriptor(open(path, O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC)).valid()) {
        node.open_error = errno;
        return node;
    }
    find_driver(device.system_name, node);
    find_holders(node);
    return node;
}

Obstacle obstacle_at(const NodeState& node) {
    switch (node.open_error) {
        case 0:
            break;
        case EACCES:
        case EPERM:
            return {"no permission on " + node.path, permission_hint()};
        case ENOENT:
        case ENODEV:
        case ENXIO:
            return {node.path + " is not there", "it was unplugged or plugged in a moment ago"};
        default:
            return {node.path + ": " + std::generic_category().message(node.open_error), ""};
    }
    if (!node.driver.empty() && node.driver != kDriverOfPrograms) {
        return {"the kernel's driver " + node.driver + " uses " + node.path,
                "unbind the driver from the device, or unload it"};
    }
    if (node.unused) {
        return {node.path + " was in use and is free now", "try again"};
    }
    if (node.holders.empty()) {
        return {node.path + " is in use by another program",
                "end that program; 'sudo fuser -v " + node.path + "' names it"};
    }
    return {node.path + " is in use by " + joined(node.holders),
            "only one program at a time can use a device: end that program"};
}

std::string permission_hint() {
    std::error_code error;
    const fs::path program = fs::read_symlink("/proc/self/exe", error);
    const fs::path rule = (program.parent_path() / JOVU_RULE_FROM_PROGRAM).lexically_normal();
    if (error || !fs::exists(rule, error)) {
        return std::string("install the udev rule packaging/") + kRuleName +
               " of the sources, and plug the device in again";
    }
    // The directories that udev reads.
    for (const char* directory : {"/usr/lib/udev/rules.d", "/usr/local/lib/udev/rules.d"}) {
        if (rule.parent_path() == directory) {
            return "plug the device in again, or join the group plugdev: see the udev rule " +
                   rule.string();
        }
    }
    return "copy the udev rule " + rule.string() +
           " to /etc/udev/rules.d, and plug the device in again";
}

}  // namespace jovu_cli
