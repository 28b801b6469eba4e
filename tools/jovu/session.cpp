#include "session.h"

#include <algorithm>
#include <chrono>
#include <string_view>

namespace jovu_cli {
namespace {

using namespace std::chrono_literals;

/// How long a command waits for what is attached when nothing else is asked for. The link scans
/// the bus twice a second; a device that is not open after this is not going to be.
constexpr std::chrono::milliseconds default_wait = 2s;

/// A device answers in milliseconds. A report can stay behind in the receive buffer until more
/// bytes come, so the request is repeated; only once, because a device that waits for the rest of a
/// job takes each request for job data, and never gives up.
constexpr auto report_repeat = 5s;
constexpr int report_attempts = 2;

/// How often a wait without end looks whether the link is still there.
constexpr auto link_check = 1s;

bool ends_with(std::string_view text, std::string_view end) {
    return text.size() >= end.size() && text.substr(text.size() - end.size()) == end;
}

bool contains(const std::vector<JovuDeviceAddress>& addresses, JovuDeviceAddress address) {
    return std::find(addresses.begin(), addresses.end(), address) != addresses.end();
}

std::string without_period(std::string text) {
    if (!text.empty() && text.back() == '.') {
        text.pop_back();
    }
    return text;
}

}  // namespace

Session::Session(const CommonOptions& options, StopSource& stop, Interest interest) try
    : options_(options), stop_(stop), inbox_(stop, interest), client_(inbox_) {
} catch (const JovuException& error) {
    throw Failure(ExitCode::failure, std::string("cannot start the USB link: ") + error.what(),
                  "is USB available on this machine?");
}

void Session::begin(const CommonOptions& options, Interest interest) {
    options_ = options;
    inbox_.begin(interest);
}

std::vector<JovuDeviceAddress> Session::find_devices() {
    auto deadline = Inbox::Clock::now() + options_.wait_device.value_or(default_wait);
    bool found = false;
    for (;;) {
        stop_.throw_if_stopped();
        const std::vector<JovuDeviceAddress> usable = usable_devices();
        std::vector<JovuDeviceAddress> devices = usable;
        if (options_.device) {
            devices.clear();
            if (contains(usable, *options_.device)) {
                devices.push_back(*options_.device);
            }
        }
        if (!worth_waiting(usable, !devices.empty())) {
            return devices;
        }
        if (!found && !devices.empty()) {
            // Others may follow, but those that another program holds never will.
            found = true;
            deadline = std::min(deadline, Inbox::Clock::now() + default_wait);
        }
        if (!inbox_.next(deadline)) {  // Whatever comes is reason to look again.
            stop_.throw_if_stopped();
            return devices;
        }
    }
}

JovuDeviceAddress Session::pick_device() {
    const std::vector<JovuDeviceAddress> devices = find_devices();
    if (devices.empty()) {
        throw_no_device();
    }
    if (devices.size() > 1) {
        throw Failure(ExitCode::several_devices, "several devices: " + to_string(devices),
                      "choose one with -d BUS:ADDR");
    }
    check_pick(devices.front());
    return devices.front();
}

/// Whether a device that matters may still come.
/// @param found whether there is already a device for the command.
bool Session::worth_waiting(const std::vector<JovuDeviceAddress>& usable, bool found) {
    if (options_.device && found) {
        return false;
    }
    if (options_.wait_device && !found) {
        return true;
    }
    return usable.size() < attached_controllers();
}

std::vector<JovuDeviceAddress> Session::usable_devices() {
    // The link's list alone is not enough: a device enters it a moment before it can be talked to.
    const std::vector<JovuDeviceAddress> announced = inbox_.announced();
    std::vector<JovuDeviceAddress> devices;
    for (const JovuDeviceAddress address : client_.list_connected()) {
        if (contains(announced, address)) {
            devices.push_back(address);
        }
    }
    std::sort(devices.begin(), devices.end(), [](JovuDeviceAddress a, JovuDeviceAddress b) {
        return a.bus != b.bus ? a.bus < b.bus : a.address < b.address;
    });
    return devices;
}

bool Session::is_connected(JovuDeviceAddress address) const {
    return contains(client_.list_connected(), address);
}

std::size_t Session::attached_controllers() {
    const std::vector<JovuUsbDevice> attached = client_.list_attached();
    const auto is_controller = [](const JovuUsbDevice& d) { return d.type == controller_type; };
    return static_cast<std::size_t>(std::count_if(attached.begin(), attached.end(), is_controller));
}

void Session::throw_no_device() {
    const std::vector<JovuDeviceAddress> connected = client_.list_connected();
    const std::size_t controllers = attached_controllers();
    const std::string wanted = options_.device ? ": " + to_string(*options_.device) : "";
    if (controllers > connected.size()) {
        throw Failure(ExitCode::no_device,
                      "no device can be opened" + wanted + ": " +
                          std::to_string(controllers - connected.size()) +
                          " attached, but access is refused",
                      access_hint);
    }
    if (!connected.empty()) {
        throw Failure(ExitCode::no_device, "no such device" + wanted,
                      "connected: " + to_string(connected));
    }
    throw Failure(ExitCode::no_device,
                  options_.device ? "no such device" + wanted : "no device: nothing is attached",
                  "--wait-device SECONDS waits for one");
}

void Session::close_on_signal(JovuDeviceAddress address, Stop reason) {
    if (reason == Stop::signal) {
        close(address);
    }
}

void Session::close(JovuDeviceAddress address) noexcept {
    has_closed_ = true;
    try {
        client_.close(address);
    } catch (const JovuException&) {
        // Gone or closed already, which ends the exchange as well.
    }
}

void Session::check_exchange(JovuDeviceAddress address, const std::string& name) const {
    const std::string reason = JovuTransport::last_send_error();
    if (reason.empty()) {
        return;
    }
    if (stop_.state() == Stop::signal) {
        throw Failure(ExitCode::interrupted, "interrupted: " + name +
                                                 " may or may not have been carried out by " +
                                                 to_string(address));
    }
    throw exchange_failure(name + " to " + to_string(address), reason);
}

StatusReport Session::request_status(JovuDeviceAddress address) {
    inbox_.drop_reports();
    for (int attempt = 0; attempt < report_attempts; ++attempt) {
        send(address, "status request", [&] { client_.RequestStatus(address); });
        const auto repeat_at = Inbox::Clock::now() + report_repeat;
        while (std::optional<Notice> notice = inbox_.next(repeat_at)) {
            check_connected(address, *notice);
            auto* report = std::get_if<StatusReport>(&notice->what);
            if (report != nullptr && notice->address == address) {
                return std::move(*report);
            }
        }
        stop_.throw_if_stopped();
    }
    throw Failure(ExitCode::exchange_failed,
                  "status request to " + to_string(address) + " failed: timed out",
                  "after an interrupted push the device may wait for the rest of the job: leave it "
                  "alone until it gives up, or unplug it");
}

std::optional<Notice> Session::next_notice(Inbox::Clock::time_point deadline) {
    for (;;) {
        const auto now = Inbox::Clock::now();
        if (std::optional<Notice> notice = inbox_.next(std::min(deadline, now + link_check))) {
            return notice;
        }
        if (stop_.state() != Stop::none || now >= deadline) {
            return std::nullopt;
        }
        if (has_ended()) {
            throw Failure(ExitCode::exchange_failed,
                          "the USB link has ended, for the reason given above",
                          "this can happen when a device cannot be opened; start again");
        }
    }
}

void Session::check_connected(JovuDeviceAddress address, const Notice& notice) const {
    if (std::holds_alternative<Disconnected>(notice.what) && notice.address == address) {
        throw Failure(ExitCode::exchange_failed, "device is gone: " + to_string(address),
                      "it was unplugged, or has reset");
    }
}

std::string exchange_hint(const std::string& reason) {
    struct Row {
        const char* end;
        const char* hint;
    };
    // The numbers are those of libusb.
    static constexpr Row rows[] = {
        {"timed out.",
         "the device is attached but does not answer: unplug it and plug it in again"},
        {"No response received.", "it was unplugged meanwhile, or has reset"},
        {"has been disconnected.", "it was unplugged"},
        {"no longer connected.", "it was unplugged"},
        {"error: -1", "input/output error on the bus: check the cable"},
        {"error: -4", "it was unplugged"},
        {"error: -7", "the device takes no data: unplug it and plug it in again"},
        {"error: -9", "the device has stalled: unplug it and plug it in again"},
    };
    for (const Row& row : rows) {
        if (ends_with(reason, row.end)) {
            return row.hint;
        }
    }
    return {};
}

Failure exchange_failure(const std::string& what, const std::string& reason) {
    return Failure(ExitCode::exchange_failed, what + " failed: " + without_period(reason),
                   exchange_hint(reason));
}

}  // namespace jovu_cli
