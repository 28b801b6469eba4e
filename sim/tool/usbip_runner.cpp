// SPDX-License-Identifier: Apache-2.0
#include "tool/usbip_runner.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <functional>
#include <stdexcept>
#include <system_error>
#include <utility>

#include "device/capture.h"
#include "tool/child_process.h"
#include "tool/control_commands.h"
#include "tool/control_socket.h"
#include "tool/exit_status.h"
#include "tool/main_loop.h"
#include "usbip/export_bus.h"
#include "usbip/vhci_bus.h"

namespace jovusim {

namespace {

/// How long the kernel may take to enumerate the devices of the start.
constexpr Millis kEnumerationTime = 10'000;

/// The path of the control socket. Removes the socket, and the directory if it has made one.
class ControlPath {
public:
    /// @param wanted nothing: a path in a new directory that other users cannot enter
    /// @throws std::system_error
    explicit ControlPath(const std::optional<std::string>& wanted) {
        if (wanted) {
            path_ = *wanted;
            remove_stale();
            return;
        }
        std::string directory = std::filesystem::temp_directory_path() / "jovu-sim.XXXXXX";
        if (::mkdtemp(directory.data()) == nullptr) {
            throw std::system_error(errno, std::generic_category(), "cannot make " + directory);
        }
        directory_ = directory;
        path_ = directory + "/control";
    }
    ControlPath(const ControlPath&) = delete;
    ControlPath& operator=(const ControlPath&) = delete;
    ~ControlPath() {
        if (bound_) ::unlink(path_.c_str());
        if (!directory_.empty()) ::rmdir(directory_.c_str());
    }

    const std::string& path() const { return path_; }

    /// The path for programs with another working directory.
    std::string absolute() const { return std::filesystem::absolute(path_); }

    /// The socket exists from now on.
    void set_bound() { bound_ = true; }

private:
    /// Removes the socket of a simulator that was killed.
    void remove_stale() const {
        struct stat status {};
        if (::lstat(path_.c_str(), &status) != 0 || !S_ISSOCK(status.st_mode)) return;
        const UniqueFd fd = local_socket(SOCK_NONBLOCK);
        const sockaddr_un address = local_address(path_);
        if (::connect(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 &&
            errno == ECONNREFUSED) {
            ::unlink(path_.c_str());
        }
    }

    std::string directory_;
    std::string path_;
    bool bound_ = false;
};

/// A bus, its control socket and its main loop.
class Session {
public:
    Session(usbip::UsbipBus& bus, const UsbipOptions& options)
        : bus_(bus),
          control_(options.control),
          server_(control_.path(),
                  [&bus](const std::string& line) { return run_control_request(bus, line); }),
          loop_(bus, server_, waker_) {
        control_.set_bound();
        for (unsigned i = 0; i < options.devices; ++i)
            bus.plug(std::nullopt, PlugRequest{});
    }

    MainLoop& loop() { return loop_; }
    std::string control_path() const { return control_.absolute(); }

    /// Tells what there is. @param verb what has been done to the devices
    void announce(const char* verb) const {
        for (const auto& device : bus_.devices()) {
            std::printf("%s %s%s serial=%s\n", verb, device->name().c_str(),
                        device->address_attribute().c_str(), device->identity().serial.c_str());
        }
        std::printf("For requests to jovu-sim ctl: export %s=%s\n", kControlVariable,
                    control_path().c_str());
        (void)std::fflush(stdout);
    }

private:
    usbip::UsbipBus& bus_;
    ControlPath control_;
    ControlServer server_;
    Waker waker_;
    MainLoop loop_;
};

/// Makes the capture, runs work and reports.
/// @param work gets the settings of the bus
int run_captured(const UsbipOptions& options,
                 const std::function<int(const usbip::BusSettings&)>& work) {
    try {
        std::optional<BusCapture> capture;
        if (options.capture) capture.emplace(*options.capture);
        const int status = work({options.time_scale, options.speed, capture ? &*capture : nullptr});
        const std::string fault = capture ? capture->fault() : "";
        if (!fault.empty()) throw std::runtime_error(fault);
        return status;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "jovu-sim: %s\n", error.what());
        return kExitFailure;
    }
}

int run_program(Session& session, const UsbipOptions& options, const ProcessSettings& before) {
    auto environment = current_environment();
    set_variable(environment, kControlVariable, session.control_path());
    const pid_t child = start_program(options.program, environment, before);
    ChildGuard guard(child);
    const int status = session.loop().run(child);
    guard.dismiss();
    return status;
}

}  // namespace

int attach_to_kernel(const UsbipOptions& options) {
    return run_captured(options, [&options](const usbip::BusSettings& settings) {
        usbip::VhciPorts ports;
        const ProcessSettings before = take_over_process();
        usbip::VhciBus bus(std::move(ports), settings);
        Session session(bus, options);
        const auto configured = [&bus] { return bus.all_configured(); };
        if (const auto number = session.loop().serve_until(configured, kEnumerationTime)) {
            return kExitSignalBase + *number;
        }
        if (!bus.all_configured()) {
            throw std::runtime_error("the kernel has not configured the devices; dmesg tells why");
        }
        if (!options.program.empty()) return run_program(session, options, before);
        session.announce("attached");
        return session.loop().run();
    });
}

int serve_devices(const UsbipOptions& options) {
    return run_captured(options, [&options](const usbip::BusSettings& settings) {
        take_over_process();
        usbip::ExportBus bus(options.listen, settings);
        Session session(bus, options);
        session.announce("exported");
        std::printf("Listening at %s\n", bus.address().c_str());
        (void)std::fflush(stdout);
        return session.loop().run();
    });
}

}  // namespace jovusim
