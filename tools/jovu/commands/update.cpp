// SPDX-License-Identifier: Apache-2.0

/// @file
/// `jovu update`: writes a new firmware to a device and checks that the device runs it.

#include <CLI/CLI.hpp>
#include <algorithm>
#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "cli/failure.h"
#include "commands/command.h"
#include "progress/progress_reporters.h"
#include "session/attached_devices.h"
#include "terminal/line_reader.h"
#include "terminal/printable.h"
#include "update/dfu_mode.h"
#include "update/dfu_tool.h"
#include "update/firmware_image.h"

namespace jovu_cli {
namespace {

struct UpdateOptions {
    std::string image;
    std::string serial;                       ///< Of the device to update; empty for any.
    std::string port;                         ///< Likewise, where it is plugged in.
    bool yes = false;                         ///< Do not ask.
    bool force = false;                       ///< Write also an image that the checks refuse.
    std::optional<JovuDeviceAddress> device;  ///< Likewise, by its address.
};

using namespace std::chrono_literals;

/// A device that is in DFU mode this long after the download does not leave it.
constexpr auto kLeaveLimit = 8s;
constexpr const char* kAgainHint = "it is still in DFU mode: 'jovu update' can be run again";
constexpr const char* kForceHint = "--force writes it nevertheless";

/// The device to update.
struct Chosen {
    std::optional<ListedDevice> dfu;              ///< A device in DFU mode, or
    std::optional<JovuDeviceAddress> controller;  ///< one that runs its firmware.
    Identity identity;                            ///< Of the controller.
};

class Update {
public:
    Update(const Context& context, Session& session, DfuTool& tool, const FirmwareImage& image,
           const UpdateOptions& options)
        : context_(context),
          session_(session),
          tool_(tool),
          image_(image),
          options_(options),
          reporter_(context.out) {}

    void run() {
        Chosen chosen = choose();
        const std::string product = chosen.dfu ? chosen.dfu->id.product_id : "";
        refuse_image_for_others(product.empty() ? hexadecimal(kBootLoaderProduct) : product);
        if (!options_.yes) {
            confirm(chosen);
        }
        if (chosen.controller) {
            reporter_.step("controller", chosen.identity.serial,
                           to_string(*chosen.controller) + ": serial " + chosen.identity.serial +
                               ", version " + chosen.identity.version);
            chosen.dfu = enter_dfu_mode(session_, tool_, *chosen.controller, chosen.identity);
            refuse_image_for_others(chosen.dfu->id.product_id);
        }
        const std::string& serial = chosen.dfu->id.serial;
        reporter_.step("dfu_mode", serial,
                       "in DFU mode: " + chosen.dfu->kind() + ", serial " + serial);
        const std::vector<JovuDeviceAddress> others = session_.usable_devices();
        const DfuTool::Outcome outcome = download(*chosen.dfu);
        wait_for_return(chosen, others, outcome);
    }

private:
    using Clock = std::chrono::steady_clock;

    Chosen choose() {
        Chosen chosen;
        std::vector<JovuDeviceAddress> controllers = session_.find_devices();
        if (options_.device) {
            chosen.controller = session_.pick_device();
            chosen.identity = read_identity(session_, *chosen.controller);
            if (!options_.serial.empty() && options_.serial != chosen.identity.serial) {
                throw Failure(ExitCode::no_device,
                              to_string(*chosen.controller) + " has the serial number " +
                                  chosen.identity.serial + ", not " + options_.serial,
                              "choose the device with one of -d BUS:ADDR and --serial SERIAL");
            }
            return chosen;
        }
        const DfuListing listing = unambiguous_listing(tool_);
        std::vector<ListedDevice> devices = listing.devices;
        const auto unwanted = [&](const ListedDevice& device) {
            return !is_controller(device) ||
                   (!options_.serial.empty() && device.id.serial != options_.serial) ||
                   (!options_.port.empty() && device.path != options_.port);
        };
        devices.erase(std::remove_if(devices.begin(), devices.end(), unwanted), devices.end());
        if (!options_.serial.empty()) {
            const auto different = [&](JovuDeviceAddress address) {
                const std::optional<Identity> identity = try_identity(address);
                return !identity || identity->serial != options_.serial;
            };
            controllers.erase(std::remove_if(controllers.begin(), controllers.end(), different),
                              controllers.end());
        }
        if (controllers.size() + devices.size() > 1) {
            throw_several(controllers, devices);
        }
        if (!controllers.empty()) {
            session_.check_pick(controllers.front());
            chosen.controller = controllers.front();
            chosen.identity = read_identity(session_, *chosen.controller);
        } else if (!devices.empty()) {
            chosen.dfu = devices.front();
            check_serial(*chosen.dfu);
        } else {
            throw_none(listing);
        }
        return chosen;
    }

    [[noreturn]] void throw_none(const DfuListing& listing) {
        if (const auto node = refused_node(listing.diagnostics)) {
            throw Failure(ExitCode::no_device, "no permission on " + *node, permission_hint());
        }
        if (!options_.serial.empty()) {
            for (const ListedDevice& device : listing.devices) {
                if (device.id.serial == options_.serial) {
                    throw Failure(ExitCode::no_device,
                                  "device of another vendor: " + dfu_device_name(device),
                                  "only devices of vendor " + hexadecimal(kControllerVendor) +
                                      " are updated");
                }
            }
            throw Failure(ExitCode::no_device, "no device with serial number " + options_.serial,
                          "'jovu list' and 'jovu dfu' show the attached devices");
        }
        session_.throw_no_device();
    }

    /// @param product of the device in DFU mode.
    /// @throws Failure file_problem when the image names another device than this one.
    void refuse_image_for_others(const std::string& product) const {
        const std::optional<FirmwareImage::Suffix>& suffix = image_.suffix();
        if (!suffix || options_.force) {
            return;
        }
        constexpr std::uint16_t kAny = FirmwareImage::kAnyId;
        const bool vendor_fits = suffix->vendor == kAny || suffix->vendor == kControllerVendor;
        const bool product_fits = suffix->product == kAny ||
                                  suffix->product == kControllerProduct ||
                                  hexadecimal(suffix->product) == product;
        if (!vendor_fits || !product_fits) {
            const std::string vendor = hexadecimal(kControllerVendor) + ":";
            throw Failure(ExitCode::file_problem,
                          "refused: " + image_.path() + ": its DFU suffix is for another device, " +
                              hexadecimal(suffix->vendor) + ":" + hexadecimal(suffix->product) +
                              ", this one is " + vendor + hexadecimal(kControllerProduct) +
                              ", in DFU mode " + vendor + product,
                          kForceHint);
        }
    }

    /// Asks for a confirmation.
    /// @throws Failure interrupted without it, no_device when the device has changed meanwhile.
    void confirm(const Chosen& chosen) {
        const std::string device =
            chosen.dfu ? dfu_device_name(*chosen.dfu)
                       : to_string(*chosen.controller) + ", serial " + chosen.identity.serial;
        const std::string version = chosen.dfu ? "unknown in DFU mode" : chosen.identity.version;
        const std::string release = image_.release();
        const std::string details =
            "device:  " + printable(device) + "\nversion: " + printable(version) +
            "\nimage:   " + printable(image_.path()) + ", " + std::to_string(image_.size()) +
            " bytes, " + (release.empty() ? "version unknown" : "release " + release) + "\n";
        if (!ask(context_.stop, context_.read_line, details,
                 "Erase the device's firmware and write the image?")) {
            throw Failure(ExitCode::interrupted, "not updated: not confirmed");
        }
        const bool same = chosen.dfu ? is_listed(*chosen.dfu)
                                     : session_.is_connected(*chosen.controller) &&
                                           read_identity(session_, *chosen.controller).serial ==
                                               chosen.identity.serial;
        if (!same) {
            throw Failure(ExitCode::no_device, "device has disconnected: " + device);
        }
    }

    bool is_listed(const ListedDevice& device) {
        const std::vector<ListedDevice> devices = unambiguous_listing(tool_).devices;
        return std::any_of(devices.begin(), devices.end(), [&](const ListedDevice& other) {
            return same_location(device, other) && other.id.serial == device.id.serial;
        });
    }

    DfuTool::Outcome download(const ListedDevice& device) {
        bool reported = false;
        DfuTool::Outcome outcome = tool_.download(device, image_, [&](double percent) {
            reporter_.downloading(device.id.serial, percent);
            if (session_.stop().state() == Stop::signal && !reported) {
                reported = true;
                tool_.print_line(
                    "jovu: the download continues, as the device would have no firmware; Ctrl-C "
                    "again "
                    "ends jovu but not the download");
            }
        });
        reporter_.end_download();
        return outcome;
    }

    /// Waits until the device returns as a controller and checks its version.
    /// @param others the other controllers.
    void wait_for_return(const Chosen& chosen, const std::vector<JovuDeviceAddress>& others,
                         const DfuTool::Outcome& outcome) {
        const auto begin = Clock::now();
        while (Clock::now() < begin + kChangeLimit) {
            if (const auto address = returned(chosen, others, outcome)) {
                const Identity now = read_identity(session_, *address);
                check_version(to_string(*address), chosen.identity.version, now.version, outcome);
                reporter_.done(to_string(*address), now.serial, chosen.identity.version,
                               now.version);
                return;
            }
            const bool late = Clock::now() > begin + kLeaveLimit;
            if ((late || !outcome.completed) && in_dfu_mode(*chosen.dfu)) {
                throw Failure(ExitCode::exchange_failed,
                              (outcome.completed ? "the device does not run the image: "
                                                 : "the download failed: ") +
                                  chosen.dfu->id.serial + diagnostics_of(outcome),
                              kAgainHint);
            }
            pause_in_change(session_);
        }
        throw Failure(
            ExitCode::exchange_failed,
            "the device has not returned: " + chosen.dfu->id.serial + diagnostics_of(outcome),
            "unplug it and plug it in again; 'jovu list' and 'jovu dfu' show its mode");
    }

    /// @throws Failure exchange_failed when the device runs the old firmware.
    void check_version(const std::string& device, const std::string& before, const std::string& now,
                       const DfuTool::Outcome& outcome) const {
        const bool as_before = !before.empty() && now == before;
        const std::string runs = device + " runs version " + now + (as_before ? " as before" : "");
        // Without the version before, only dfu-util shows whether the download succeeded.
        if (!outcome.completed && (as_before || before.empty())) {
            throw Failure(ExitCode::exchange_failed,
                          "the update failed, " + runs + diagnostics_of(outcome));
        }
        // An image that contains the version string may be the same version.
        if (as_before && !options_.force && !image_.may_be_version(now)) {
            throw Failure(ExitCode::exchange_failed,
                          "not updated: " + runs + ", which is not the version of " + image_.path(),
                          "if the image is packed or encrypted, --force accepts the same version");
        }
    }

    /// @return the address of the updated device as a controller.
    std::optional<JovuDeviceAddress> returned(const Chosen& chosen,
                                              const std::vector<JovuDeviceAddress>& others,
                                              const DfuTool::Outcome& outcome) {
        std::vector<JovuDeviceAddress> candidates;
        for (const JovuDeviceAddress address : session_.usable_devices()) {
            if (std::find(others.begin(), others.end(), address) != others.end()) {
                continue;
            }
            const std::optional<Identity> identity = try_identity(address);
            if (!identity) {
                continue;
            }
            if (identity->serial == chosen.dfu->id.serial ||
                (chosen.controller && identity->serial == chosen.identity.serial)) {
                return address;
            }
            candidates.push_back(address);
        }
        // Boot loader and firmware may have different serial numbers: accept the only new
        // controller when the device has left DFU mode.
        const bool may_be_it = !chosen.controller && outcome.completed && candidates.size() == 1;
        if (may_be_it && !in_dfu_mode(*chosen.dfu)) {
            return candidates.front();
        }
        return std::nullopt;
    }

    /// @return nothing when the device does not respond.
    std::optional<Identity> try_identity(JovuDeviceAddress address) {
        try {
            return read_identity(session_, address);
        } catch (const Failure& failure) {
            if (failure.code() != ExitCode::exchange_failed) {
                throw;
            }
            return std::nullopt;
        }
    }

    bool in_dfu_mode(const ListedDevice& device) {
        const std::vector<ListedDevice> devices = tool_.list().devices;
        return std::any_of(devices.begin(), devices.end(), [&](const ListedDevice& other) {
            return other.id.serial == device.id.serial && other.kind() == device.kind();
        });
    }

    static std::string diagnostics_of(const DfuTool::Outcome& outcome) {
        return outcome.diagnostics.empty() ? "" : "; dfu-util says: " + outcome.diagnostics;
    }

    const Context& context_;
    Session& session_;
    DfuTool& tool_;
    const FirmwareImage& image_;
    const UpdateOptions& options_;
    UpdateReporter reporter_;
};

void run_update(const Context& context, const UpdateOptions& options) {
    if (!options.yes && !can_ask()) {
        throw Failure(ExitCode::usage, "not confirmed: an update erases the device's firmware",
                      "--yes is needed when standard input or standard error is not a terminal");
    }
    const FirmwareImage image(options.image);
    if (!image.fault().empty() && !options.force) {
        throw Failure(ExitCode::file_problem, "refused: " + image.path() + ": " + image.fault(),
                      kForceHint);
    }
    DfuTool
        tool;  // Before the session: no other thread runs while it changes the working directory.
    const SessionLease lease(context, Interest{});
    // The device may come back with another address and another serial number.
    Client::set_device_filter(JovuDeviceFilter());
    UpdateOptions chosen = options;
    chosen.device = context.options.device;
    chosen.serial = context.options.serial;
    chosen.port = context.options.port;
    Update(context, lease.session(), tool, image, chosen).run();
    context.stop.throw_if_stopped();
}

Run define_update(CLI::App& app) {
    const auto options = std::make_shared<UpdateOptions>();
    app.add_option("IMAGE", options->image, "The firmware image, at most 16 MiB")
        ->type_name("")
        ->required();
    app.add_flag("-y,--yes", options->yes, "Do not ask; needed without a terminal");
    app.add_flag("--force", options->force, "Write an image that the checks refuse");
    app.footer(
        "Puts a controller into DFU mode, writes the image with dfu-util, and reads the version\n"
        "when the controller has returned. Also updates a device that is in DFU mode. Erases the\n"
        "device's firmware. Refuses files that cannot be its image: plain text, larger than\n"
        "16 MiB, or with a DFU suffix that is damaged or names another device.");
    return [options](const Context& context) { run_update(context, *options); };
}

}  // namespace

const Command kUpdateCommand{"update", "Write a new firmware to a device", define_update};

}  // namespace jovu_cli
