// SPDX-License-Identifier: Apache-2.0
#include "sweep/client.h"

#include <unistd.h>

#include <array>
#include <cstdio>
#include <cstring>
#include <system_error>

#include "sweep/system_calls.h"

namespace sweep {
namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

/// Far more than anything takes on a machine under full load.
constexpr milliseconds kPatience{20000};

/// How long World::wait() waits for what a fault may have prevented, when it fails once and when
/// always: a scan of the bus and what follows from it, in hurried time. A run goes on after it, so
/// that too short a wait weakens that one run and fails nothing.
constexpr milliseconds kOnce{700};
constexpr milliseconds kAlways{250};

/// How much of standard output is ignored.
std::atomic<off_t> ignored{0};

constexpr int kVoid = -1;
constexpr int kWrong = -2;

/// The application's arguments, made while nothing fails.
const std::shared_ptr<char> kLine(new char[7]{"G1 X10"}, std::default_delete<char[]>());
const std::shared_ptr<float> kValue = std::make_shared<float>(1.5F);
const std::shared_ptr<unsigned char> kByte = std::make_shared<unsigned char>('x');

/// One command of each form: strings, numbers, buffers and structures, there and back.
struct Command {
    int result;             ///< The right one.
    int (*run)(Client& c);  ///< Returns 0 for no result.
};
constexpr std::array<Command, kCommands> kTable{{
    {1,
     [](Client& c) {
         const auto version = c.bio_get_version(kAddress);
         if (version == nullptr) return 0;
         return std::strcmp(version.get(), "1.2") == 0 ? 1 : kWrong;
     }},
    {7, [](Client& c) { return static_cast<int>(c.gcode_process_command(kAddress, kLine)); }},
    {5, [](Client& c) { return static_cast<int>(c.heater_var_get(kAddress, {}, kValue)); }},
    {1,
     [](Client& c) {
         const wifi_status_t status = c.wifi_client_get_status(kAddress, wifi_interface_t{0});
         const std::string ssid = status.ip_config.connected_ssid;
         if (!status.connected && ssid.empty()) return 0;
         return status.ip_config.mac_address[5] == 255 && ssid == "net" ? 1 : kWrong;
     }},
    {kVoid,
     [](Client& c) {
         c.servo_dc_config_set(kAddress, servo_dc_name_t{1}, servo_dc_client_config_t{});
         return kVoid;
     }},
    {9, [](Client& c) { return static_cast<int>(c.sd_mmc_read(kAddress, 4, kByte, 1)); }},
}};

}  // namespace

void World::wrong(const std::string& what) {
    right_ = false;
    std::fprintf(stderr, "%s\n", what.c_str());
}

bool World::call(const char* what, const std::function<void()>& call) {
    try {
        const Shield exposed(false);
        call();
        return true;
    } catch (const std::exception& error) {
        const bool allowed =
            dynamic_cast<const JovuException*>(&error) != nullptr ||
            (faulty(Kind::memory) && dynamic_cast<const std::bad_alloc*>(&error) != nullptr) ||
            (faulty(Kind::thread) && dynamic_cast<const std::system_error*>(&error) != nullptr);
        if (!allowed || (!fired && !down_)) wrong(std::string(what) + " threw " + error.what());
    }
    return false;
}

void World::unplug() {
    if (!devices_.empty()) device().unplug();
}

void World::shut_down() {
    down_ = true;
    const Shield exposed(false);
    client->shutdown();
}

void World::start() {
    down_ = false;
    role_of_started = Role::watcher;
    call("starting", [this] { client.emplace(); });
    role_of_started = Role::notification;
}

void World::stop() {
    if (!client) return;
    const Shield exposed(false);
    client.reset();
}

bool World::wait(const char* what, const std::function<bool(World&)>& come) {
    const auto begin = Clock::now();
    std::optional<Clock::time_point> failed_at;
    for (;;) {
        if (come(*this)) return true;
        if (client && !last_words().empty()) return false;
        const auto now = Clock::now();
        if (fault_ != nullptr && fired && !failed_at) failed_at = now;
        if (failed_at && now - *failed_at > (fault_->always ? kAlways : kOnce)) return false;
        if (!failed_at && now - begin > kPatience) break;
        std::this_thread::sleep_for(milliseconds(1));
    }
    wrong(std::string(what) + " does not come about");
    return false;
}

bool World::command(std::size_t number) {
    // The error string is set now, and an exchange clears it first.
    client->bio_get_version(JovuDeviceAddress{9, 9});
    const unsigned before = device().requests;
    int result = 0;
    if (!call("a command", [&] { result = kTable.at(number).run(*client); })) {
        // Only for want of memory to build the request or to return the result; an exchange that
        // fails sets the error string.
        if (!faulty(Kind::memory)) wrong("a command threw");
        if (JovuTransport::last_send_error().empty() && device().requests == before) {
            wrong("an exchange threw");
        }
        return false;
    }
    const std::string reason = JovuTransport::last_send_error();
    const std::string which = "command " + std::to_string(number);
    if (reason.empty() && result != kTable.at(number).result)
        wrong(which + " gave no reason and no result");
    if (!reason.empty() && result != 0 && result != kVoid) {
        wrong(which + " failed and gave a result: " + reason);
    }
    return reason.empty();
}

bool World::status() {
    const unsigned before = client->statuses;
    if (!call("a request", [this] { client->RequestStatus(kAddress); })) return false;
    const auto begin = Clock::now();
    while (client->statuses == before) {
        if (!last_words().empty() || Clock::now() - begin > kPatience) return false;
        if (!response_can_come() && Clock::now() - begin > milliseconds(100)) break;
        std::this_thread::sleep_for(milliseconds(1));
    }
    // Nothing on the job channel shows that bytes are missing.
    if (client->wrong_status && !faulty(Kind::completion)) wrong("a status report came out wrong");
    return client->statuses > before;
}

std::string last_words() {
    const std::string begin = "Fatal error in hotplug thread - ";
    const std::string printed = read_from(STDOUT_FILENO, ignored);
    const std::size_t at = printed.rfind(begin);
    if (at == std::string::npos) return "";
    const std::size_t first = at + begin.size();
    return printed.substr(first, printed.find(".\n", first) - first);
}

void forget_last_words() {
    ignored = ignored + static_cast<off_t>(read_from(STDOUT_FILENO, ignored).size());
}

}  // namespace sweep
