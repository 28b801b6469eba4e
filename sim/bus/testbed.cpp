// SPDX-License-Identifier: Apache-2.0
#include "bus/testbed.h"

#include <fcntl.h>
#include <glob.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <system_error>
#include <utility>

#include "bus/testbed_record.h"
#include "device/types.h"

namespace jovusim {

namespace {
constexpr char kLockName[] = "/jovu-sim.lock";
}

DirectoryOwnership::DirectoryOwnership(const std::string& directory) {
    // The file is locked before it gets its name, so that other processes never see it unlocked.
    const std::string name = directory + kLockName;
    const std::string unnamed = name + ".new";
    lock_.reset(::open(unnamed.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
    if (!lock_ || ::flock(lock_.get(), LOCK_EX | LOCK_NB) != 0 ||
        ::rename(unnamed.c_str(), name.c_str()) != 0) {
        throw std::system_error(errno, std::generic_category(), "cannot mark " + directory);
    }
}

void remove_stale_testbeds(const std::string& temporary) {
    glob_t found{};
    const std::string pattern = temporary + "/umockdev.??????" + kLockName;
    // NOLINTNEXTLINE(concurrency-mt-unsafe): no other thread exists yet.
    if (::glob(pattern.c_str(), GLOB_NOSORT, nullptr, &found) == 0) {
        for (char** path = found.gl_pathv; *path != nullptr; ++path) {
            const UniqueFd lock(::open(*path, O_RDWR | O_CLOEXEC | O_NOFOLLOW));
            struct stat status {};
            ::fstat(lock.get(), &status);  // without the file this and the checks below fail
            if (status.st_uid != ::geteuid()) continue;
            if (::flock(lock.get(), LOCK_EX | LOCK_NB) != 0) continue;
            // Another simulator may be removing it too: errors are ignored.
            std::error_code ignored;
            std::filesystem::remove_all(std::filesystem::path(*path).parent_path(), ignored);
        }
    }
    ::globfree(&found);
}

namespace {

constexpr std::uint8_t kFirstBus = 1;
constexpr std::uint8_t kHubAddress = 1;

/// A socket in the testbed: opening it as a file fails with ENXIO.
constexpr char kUnopenable[] = "/ioctl/_default";

/// Longest directory for temporary files that is used; /tmp replaces a longer one. The path of a
/// socket in the testbed has to fit into sockaddr_un.
constexpr std::size_t kLongestTemporary = 32;

std::string temporary_directory() {
    // NOLINTNEXTLINE(concurrency-mt-unsafe): no other thread exists yet.
    const char* const chosen = std::getenv("TMPDIR");
    if (chosen == nullptr || *chosen != '/') return "/tmp";
    const std::string path = chosen;
    return path.size() <= kLongestTemporary && std::filesystem::is_directory(path) ? path : "/tmp";
}

/// @throws std::runtime_error
BusAddress address_of(const std::string& name) {
    if (const auto address = parse_address(name)) return *address;
    throw std::runtime_error("\"" + name +
                             "\" is not a valid BUS:ADDR: both are numbers from 1 to " +
                             std::to_string(kMaxBusAddress));
}

}  // namespace

Testbed::Testbed(double time_scale, std::function<void()> wake, BusCapture* capture)
    : time_scale_(time_scale), wake_(std::move(wake)), capture_(capture) {
    // NOLINTNEXTLINE(concurrency-mt-unsafe): no other thread exists yet.
    if (std::getenv(kTestbedVariable) != nullptr) {
        throw std::runtime_error(std::string(kTestbedVariable) +
                                 " is set: jovu-sim cannot run on a simulated bus");
    }
    const std::string temporary = temporary_directory();
    remove_stale_testbeds(temporary);
    // umockdev makes the directory of the testbed in $TMPDIR.
    // NOLINTNEXTLINE(concurrency-mt-unsafe): no other thread exists yet.
    ::setenv("TMPDIR", temporary.c_str(), 1);
    // umockdev starts a thread, which reads the environment, before it sets this variable. When the
    // variable exists already, setting it does not move the array that the thread reads.
    // NOLINTNEXTLINE(concurrency-mt-unsafe): no other thread exists yet.
    ::setenv(kTestbedVariable, "", 1);
    testbed_.reset(umockdev_testbed_new());
    const std::unique_ptr<gchar, decltype(&g_free)> root(
        umockdev_testbed_get_root_dir(testbed_.get()), g_free);
    root_ = root.get();
    ownership_.emplace(root_);
    listeners_.emplace(root_);
    uevents_.emplace(root_);
}

Testbed::~Testbed() {
    try {
        while (!devices_.empty()) {
            unplug(devices_.begin()->first);
        }
    } catch (const std::exception& error) {
        std::fprintf(stderr, "jovu-sim: cannot clear the bus: %s\n", error.what());
    }
}

BusAddress Testbed::free_address(std::uint8_t bus) {
    std::uint8_t& last = last_addresses_.emplace(bus, kHubAddress).first->second;
    const std::uint8_t begin = last;
    do {
        last = static_cast<std::uint8_t>(last % kMaxBusAddress + 1);
        const BusAddress address{bus, last};
        if (devices_.count(address) == 0) return address;
    } while (last != begin);
    throw std::runtime_error("no address is free on bus " + std::to_string(bus));
}

/// Two devices must differ: a device that returned at another address keeps its serial number.
bool Testbed::is_taken(const std::string& serial) const {
    return std::any_of(devices_.begin(), devices_.end(),
                       [&](const auto& d) { return d.second->identity().serial == serial; }) ||
           std::any_of(returning_.begin(), returning_.end(),
                       [&](const Returning& r) { return r.function->identity().serial == serial; });
}

std::string Testbed::plug(const std::optional<std::string>& name, const PlugRequest& request) {
    const BusAddress address = name ? address_of(*name) : free_address(kFirstBus);
    const std::string serial =
        free_serial(address.bus, address.address,
                    [this](const std::string& candidate) { return is_taken(candidate); });
    attach(address, make_function(request, serial, time_scale_));
    return address.to_string();
}

void Testbed::attach(BusAddress address, std::unique_ptr<UsbFunction> function) {
    if (devices_.count(address) != 0) {
        throw std::runtime_error("a device is plugged in at " + address.to_string());
    }
    UrbListener listener;
    if (capture_ != nullptr) {
        listener = [capture = capture_, address](UrbEvent event, const Urb& urb) {
            capture->record(address, event, urb);
        };
    }
    auto device =
        std::make_shared<SimDevice>(address, std::move(function), wake_, std::move(listener));
    auto& node = nodes_[address];
    if (!node) node = std::make_unique<UsbfsNode>(root_, address.node());
    node->set_device(device);
    make_node(*device);
    GError* error = nullptr;
    const std::string record = testbed_record(device->identity(), address);
    if (umockdev_testbed_add_from_string(testbed_.get(), record.c_str(), &error) == FALSE) {
        const std::unique_ptr<GError, decltype(&g_error_free)> reason(error, g_error_free);
        node->set_device(nullptr);
        remove_node(address);
        throw std::runtime_error("cannot add a device at " + address.to_string() + ": " +
                                 reason->message);
    }
    if (capture_ != nullptr) capture_->record_enumeration(address, device->identity());
    devices_[address] = std::move(device);
    // Last, because a program may open the device as soon as it gets the message.
    uevents_->send("add", address);
}

void Testbed::unplug(const std::string& name) {
    unplug(address_of(name));
}

void Testbed::unplug(BusAddress address) {
    const std::shared_ptr<SimDevice> device = at(address);
    remove_node(address);
    device->unplug();
    remove_device(address);
}

/// Removes a device whose node is gone, in the reverse order of attach(). The message comes last: a
/// program that gets it no longer finds the device.
void Testbed::remove_device(BusAddress address) {
    nodes_.at(address)->set_device(nullptr);
    devices_.erase(address);
    umockdev_testbed_remove_device(testbed_.get(), ("/sys" + address.device_path()).c_str());
    uevents_->send("remove", address);
}

std::shared_ptr<SimDevice> Testbed::at(BusAddress address) const {
    const auto found = devices_.find(address);
    if (found == devices_.end()) {
        throw std::runtime_error("no device at " + address.to_string());
    }
    return found->second;
}

std::shared_ptr<BusDevice> Testbed::at(const std::string& name) {
    return at(address_of(name));
}

std::vector<std::shared_ptr<BusDevice>> Testbed::devices() const {
    std::vector<std::shared_ptr<BusDevice>> all;
    for (const auto& [address, device] : devices_)
        all.push_back(device);
    return all;
}

void Testbed::make_node(const SimDevice& device) {
    const std::filesystem::path path = root_ + device.address().node();
    std::filesystem::create_directories(path.parent_path());
    std::filesystem::remove(path);
    std::filesystem::create_symlink(device.node_path(), path);
}

void Testbed::remove_node(BusAddress address) {
    const std::string path = root_ + address.node();
    std::filesystem::remove(path);
    // Without a node in the testbed the preloaded library opens the real node of that number. If
    // this machine has one, a node that cannot be opened stays.
    if (::access(address.node().c_str(), F_OK) == 0) {
        std::filesystem::create_symlink(root_ + kUnopenable, path);
    }
}

void Testbed::block_open(const std::string& name, bool blocked) {
    const BusAddress address = address_of(name);
    const std::shared_ptr<SimDevice> device = at(address);
    const std::filesystem::path path = root_ + address.node();
    const bool is_blocked = std::filesystem::is_directory(path);
    if (blocked == is_blocked) return;
    if (blocked) {
        std::filesystem::remove(path);
        std::filesystem::create_directory(path);
    } else {
        make_node(*device);
    }
}

void Testbed::service() {
    const Millis now = now_ms();
    const auto plugged_in = devices_;
    for (const auto& [address, device] : plugged_in) {
        if (!device->unplugged()) device->tick();
        device->print_violations();
        if (device->unplugged()) {
            remove_node(address);
            remove_device(address);
            if (auto successor = device->take_successor()) {
                returning_.push_back({now + kRestartTime, address.bus, std::move(successor)});
            }
        }
    }
    attach_returned(now);
}

void Testbed::attach_returned(Millis now) {
    for (auto it = returning_.begin(); it != returning_.end();) {
        if (it->due > now) {
            ++it;
            continue;
        }
        Returning back = std::move(*it);
        it = returning_.erase(it);
        attach(free_address(back.bus), std::move(back.function));
    }
}

std::optional<Millis> Testbed::next_due() const {
    std::optional<Millis> first;
    for (const auto& [address, device] : devices_) {
        const auto due = device->next_due();
        if (due && (!first || *due < *first)) first = due;
    }
    for (const Returning& returning : returning_) {
        if (!first || returning.due < *first) first = returning.due;
    }
    return first;
}

}  // namespace jovusim
