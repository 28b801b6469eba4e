/// @file
/// `jovu update`: writes a new firmware to a device, and sees that the device runs it.

#include <algorithm>
#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include "commands.h"
#include "dfu_tool.h"
#include "failure.h"
#include "identity.h"
#include "job_file.h"
#include "session.h"
#include "session_lease.h"
#include "update_reporter.h"

namespace jovu_cli {
namespace {

using namespace std::chrono_literals;

/// How long a device may take to leave the bus and to come back as something else.
constexpr auto change_limit = 20s;
constexpr auto change_poll = 300ms;
/// A device that is still in DFU mode so long after the download will not leave it.
constexpr auto leave_limit = 8s;

/// The vendor id of every controller, in DFU mode too, as dfu-util writes it. What else is in DFU
/// mode is another maker's, and is left alone unless it is asked for by its serial number.
constexpr const char* controller_vendor = "7a1c";

constexpr const char* again_hint = "it is still in DFU mode: 'jovu update' can be run again";

/// What is to be updated.
struct Chosen {
    std::optional<DfuDevice> dfu;                 ///< A device in DFU mode, or
    std::optional<JovuDeviceAddress> controller;  ///< one that runs its firmware.
    Identity identity;                            ///< Of the controller.
};

class Update {
public:
    Update(const Context& context, Session& session, DfuTool& tool, const UpdateOptions& options)
        : session_(session), tool_(tool), options_(options), reporter_(context.out) {}

    void run() {
        const std::vector<DfuDevice> before = tool_.list().devices;
        Chosen chosen = choose(before);
        if (chosen.controller) {
            reporter_.step("controller", chosen.identity.serial,
                           to_string(*chosen.controller) + ": serial " + chosen.identity.serial +
                               ", version " + chosen.identity.version);
            chosen.dfu = enter_dfu_mode(*chosen.controller, chosen.identity, before);
        }
        const DfuDevice& device = *chosen.dfu;
        reporter_.step("dfu_mode", device.serial,
                       "in DFU mode: " + device.vendor_id + ":" + device.product_id + ", serial " +
                           device.serial);
        const std::vector<JovuDeviceAddress> others = session_.usable_devices();
        const DfuTool::Outcome outcome = download(device);
        wait_for_return(chosen, others, outcome);
    }

private:
    using Clock = std::chrono::steady_clock;

    Chosen choose(const std::vector<DfuDevice>& in_dfu_mode) {
        Chosen chosen;
        std::vector<JovuDeviceAddress> controllers = session_.find_devices();
        std::vector<DfuDevice> devices = in_dfu_mode;
        const auto unwanted = [&](const DfuDevice& device) {
            return options_.serial.empty() ? device.vendor_id != controller_vendor
                                           : device.serial != options_.serial;
        };
        devices.erase(std::remove_if(devices.begin(), devices.end(), unwanted), devices.end());
        if (options_.device) {
            chosen.controller = session_.pick_device();
            chosen.identity = read_identity(session_, *chosen.controller);
            return chosen;
        }
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
        } else {
            throw_none();
        }
        return chosen;
    }

    [[noreturn]] static void throw_several(const std::vector<JovuDeviceAddress>& controllers,
                                           const std::vector<DfuDevice>& devices) {
        std::string text = to_string(controllers);
        for (const DfuDevice& device : devices) {
            text += (text.empty() ? "" : ", ") + ("in DFU mode " + device.serial);
        }
        throw Failure(ExitCode::several_devices, "several devices: " + text,
                      "choose one with -d BUS:ADDR or --serial SERIAL");
    }

    [[noreturn]] void throw_none() {
        if (const auto node = refused_node(tool_.list().words)) {
            throw Failure(ExitCode::no_device, "no permission on " + *node, access_hint);
        }
        if (!options_.serial.empty()) {
            throw Failure(ExitCode::no_device, "no device with serial number " + options_.serial,
                          "'jovu list' and 'jovu dfu' show those that there are");
        }
        session_.throw_no_device();
    }

    DfuDevice enter_dfu_mode(JovuDeviceAddress address, const Identity& identity,
                             const std::vector<DfuDevice>& before) {
        std::string trouble;
        try {
            session_.exchange(address, "Enter_dfu_mode", [&] {
                session_.client().Enter_dfu_mode(address);
                return 0;
            });
        } catch (const Failure& failure) {
            if (failure.code() != ExitCode::exchange_failed) {
                throw;
            }
            trouble = failure.what();  // It may have left before it could answer.
        }
        const auto is_new = [&](const DfuDevice& device) {
            return std::none_of(before.begin(), before.end(), [&](const DfuDevice& known) {
                return known.serial == device.serial && known.product_id == device.product_id;
            });
        };
        const auto deadline = Clock::now() + change_limit;
        std::string words;
        while (Clock::now() < deadline) {
            const DfuTool::Listing listing = tool_.list();
            words = listing.words;
            std::vector<DfuDevice> news;
            for (const DfuDevice& device : listing.devices) {
                if (device.serial == identity.serial) {
                    return device;
                }
                if (is_new(device) && device.vendor_id == controller_vendor) {
                    news.push_back(device);
                }
            }
            if (news.size() == 1 && !session_.is_connected(address)) {
                return news.front();
            }
            pause();
        }
        if (const auto node = refused_node(words)) {
            throw Failure(ExitCode::no_device, "no permission on " + *node, access_hint);
        }
        throw Failure(ExitCode::exchange_failed,
                      to_string(address) + " did not show up in DFU mode" +
                          (trouble.empty() ? "" : ": " + trouble) +
                          (words.empty() ? "" : "; dfu-util says: " + words));
    }

    DfuTool::Outcome download(const DfuDevice& device) {
        bool told = false;
        DfuTool::Outcome outcome = tool_.download(device, options_.image, [&](double percent) {
            reporter_.downloading(device.serial, percent);
            if (session_.stop().state() == Stop::signal && !told) {
                told = true;
                tool_.tell(
                    "jovu: the download goes on, as the device would be left without firmware; "
                    "Ctrl-C again leaves it to itself");
            }
        });
        reporter_.end_download();
        return outcome;
    }

    /// Waits for the device as a controller. What it says then decides.
    /// @param others the controllers that are not it.
    void wait_for_return(const Chosen& chosen, const std::vector<JovuDeviceAddress>& others,
                         const DfuTool::Outcome& outcome) {
        const auto begin = Clock::now();
        while (Clock::now() < begin + change_limit) {
            if (const auto address = returned(chosen, others, outcome)) {
                const Identity now = read_identity(session_, *address);
                const std::string& before = chosen.identity.version;
                // Without a version from before, the download's word is all there is to go by.
                if (!outcome.completed && (now.version == before || before.empty())) {
                    throw Failure(ExitCode::exchange_failed,
                                  "the update failed, " + to_string(*address) + " runs version " +
                                      now.version + (before.empty() ? "" : " as before") +
                                      said(outcome));
                }
                reporter_.updated(to_string(*address), now.serial, before, now.version);
                return;
            }
            const bool late = Clock::now() > begin + leave_limit;
            if ((late || !outcome.completed) && in_dfu_mode(*chosen.dfu)) {
                throw Failure(ExitCode::exchange_failed,
                              (outcome.completed ? "the device does not run the image: "
                                                 : "the download failed: ") +
                                  chosen.dfu->serial + said(outcome),
                              again_hint);
            }
            pause();
        }
        throw Failure(ExitCode::exchange_failed,
                      "the device has not come back: " + chosen.dfu->serial + said(outcome),
                      "unplug it and plug it in again; 'jovu list' and 'jovu dfu' show what it is");
    }

    /// The controller that the updated device has become.
    std::optional<JovuDeviceAddress> returned(const Chosen& chosen,
                                              const std::vector<JovuDeviceAddress>& others,
                                              const DfuTool::Outcome& outcome) {
        std::vector<JovuDeviceAddress> strangers;
        for (const JovuDeviceAddress address : session_.usable_devices()) {
            if (std::find(others.begin(), others.end(), address) != others.end()) {
                continue;
            }
            const std::optional<Identity> identity = try_identity(address);
            if (!identity) {
                continue;
            }
            if (identity->serial == chosen.dfu->serial ||
                identity->serial == chosen.identity.serial) {
                return address;
            }
            strangers.push_back(address);
        }
        // Boot loader and controller need not have one serial number. Whoever was found in DFU mode
        // may be the one that has come, when it can be no other.
        const bool may_be_it = !chosen.controller && outcome.completed && strangers.size() == 1;
        if (may_be_it && !in_dfu_mode(*chosen.dfu)) {
            return strangers.front();
        }
        return std::nullopt;
    }

    /// @return nothing when the device does not answer.
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

    bool in_dfu_mode(const DfuDevice& device) {
        const std::vector<DfuDevice> devices = tool_.list().devices;
        return std::any_of(devices.begin(), devices.end(), [&](const DfuDevice& other) {
            return other.serial == device.serial && other.product_id == device.product_id;
        });
    }

    static std::string said(const DfuTool::Outcome& outcome) {
        return outcome.words.empty() ? "" : "; dfu-util says: " + outcome.words;
    }

    void pause() {
        const auto until = Clock::now() + change_poll;
        while (session_.inbox().next(until)) {
        }
        if (session_.stop().state() == Stop::signal) {
            throw Failure(ExitCode::interrupted,
                          "interrupted: the device is in DFU mode, or on its way there or back",
                          "'jovu list' and 'jovu dfu' show what it is");
        }
        session_.stop().throw_if_stopped();
    }

    Session& session_;
    DfuTool& tool_;
    const UpdateOptions& options_;
    UpdateReporter reporter_;
};

}  // namespace

void run_update(const Context& context, const UpdateOptions& options) {
    check_whole_file(options.image, "use");
    DfuTool tool;  // Before the link, whose threads need not see the working directory change.
    const SessionLease lease(context, Interest{});
    UpdateOptions chosen = options;
    chosen.device = context.options.device;
    Update(context, lease.session(), tool, chosen).run();
    context.stop.throw_if_stopped();
}

}  // namespace jovu_cli
