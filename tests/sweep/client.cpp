#include "sweep/client.h"

#include <unistd.h>

#include <array>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <functional>
#include <system_error>
#include <thread>
#include <utility>

namespace sweep {
namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

/// Far more than anything takes on a machine that is loaded to the brim.
constexpr milliseconds kPatience{20000};

/// How long what a fault may have prevented is waited for, when it fails once and when for good:
/// a scan of the bus and what follows from it, in hurried time. A run goes on after it, so that too
/// short a wait weakens that one run and fails nothing.
constexpr milliseconds kOnce{700};
constexpr milliseconds kAlways{250};

/// How much of standard output is not looked at any more.
std::atomic<off_t> forgotten{0};

std::string printed() {
    std::string text;
    std::array<char, 4096> buffer{};
    for (;;) {
        const off_t at = forgotten + static_cast<off_t>(text.size());
        const ssize_t count = ::pread(STDOUT_FILENO, buffer.data(), buffer.size(), at);
        if (count <= 0) return text;
        text.append(buffer.data(), static_cast<std::size_t>(count));
    }
}

enum class Answer { right, nothing, wrong };

Answer judge(bool right, bool nothing) {
    if (right) return Answer::right;
    return nothing ? Answer::nothing : Answer::wrong;
}

std::shared_ptr<char> text(const char* value) {
    const std::size_t size = std::strlen(value) + 1;
    std::shared_ptr<char> copy(new char[size], std::default_delete<char[]>());
    std::memcpy(copy.get(), value, size);
    return copy;
}

template <class T>
Answer number(T value, int right) {
    const int known = static_cast<int>(value);
    return judge(known == right, known == 0);
}

/// One command of each form: texts, numbers, buffers and structures, there and back. The arguments
/// are the application's, so they are made while nothing fails.
const std::array<std::function<Answer(Client&)>, 10>& commands() {
    static const std::array<std::function<Answer(Client&)>, 10> all{{
        [](Client& c) {
            const auto version = c.bio_get_version(kAddress);
            return judge(version != nullptr && std::strcmp(version.get(), "1.2") == 0,
                         version == nullptr);
        },
        [](Client& c) { return number(c.gpio_input_get(kAddress, gpio_input_name_t{3}, true), 3); },
        [](Client& c) {
            c.gpio_output_set(kAddress, gpio_name_t{3}, true);
            return Answer::right;
        },
        [line = text("G1 X10")](Client& c) {
            return number(c.gcode_process_command(kAddress, line), 7);
        },
        [value = std::make_shared<float>(1.5F)](Client& c) {
            return number(c.heater_var_get(kAddress, HEATER_VARS_m{1}, value), 5);
        },
        [](Client& c) {
            const wifi_status_t status = c.wifi_client_get_status(kAddress, wifi_interface_t{0});
            const char* const ssid = status.ip_config.connected_ssid;
            return judge(status.connected && status.ip_config.mac_address[5] == 255 &&
                             std::strcmp(ssid, "net") == 0,
                         !status.connected && ssid[0] == 0);
        },
        [](Client& c) {
            c.servo_dc_config_set(kAddress, servo_dc_name_t{1}, servo_dc_client_config_t{});
            return Answer::right;
        },
        [](Client& c) {
            const servo_dc_move_config_t move = c.servo_dc_move_default(kAddress);
            return judge(move.move_type == 1 && move.slave_ratio == 10,
                         move.move_type == 0 && move.slave_ratio == 0);
        },
        [](Client& c) {
            const storage_info_t store = c.sd_mmc_get_storage_info(kAddress);
            return judge(store.total_size == 6 && store.block_size == 2,
                         store.total_size == 0 && store.block_size == 0);
        },
        [byte = std::make_shared<unsigned char>('x')](Client& c) {
            return number(c.sd_mmc_read(kAddress, 4, byte, 1), 9);
        },
    }};
    return all;
}

}  // namespace

const std::size_t kCommands = 10;

void Client::note(std::string event) {
    const std::lock_guard<std::mutex> lock(mutex_);
    events_.push_back(std::move(event));
}

void Client::debug_event(JovuDeviceAddress /*address*/, std::shared_ptr<char> text) {
    const Shield shield;
    note(text == nullptr ? "nothing" : text.get());
}

void Client::servo_dc_trace_event(JovuDeviceAddress /*address*/, servo_trace_msg sample) {
    const Shield shield;
    note(std::to_string(sample.int_cnt) + " " + std::to_string(sample.pos));
}

void Client::StatusReceived(JovuDeviceAddress /*address*/, StatusMsg status) {
    if (status.printer.model_name != "Model" || status.extruder_temperature != 21.5 ||
        status.progress != 25 || status.idle_time != 7) {
        wrong_status = true;
    }
    ++statuses;
}

std::vector<std::string> Client::events() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return events_;
}

void World::wrong(const std::string& what) {
    right_ = false;
    std::fprintf(stderr, "%s\n", what.c_str());
}

void World::check_exception(const char* what, const std::exception& error) {
    const bool allowed =
        dynamic_cast<const JovuException*>(&error) != nullptr ||
        (faulty(Kind::memory) && dynamic_cast<const std::bad_alloc*>(&error) != nullptr) ||
        (faulty(Kind::thread) && dynamic_cast<const std::system_error*>(&error) != nullptr);
    if (!allowed || (!fired() && !down_)) wrong(std::string(what) + " threw " + error.what());
}

void World::shut_down() {
    down_ = true;
    const Exposed exposed;
    client->shutdown();
}

void World::start() {
    down_ = false;
    role_of_started = Role::watcher;
    call("starting", [this] { client.emplace(); });
    role_of_started = Role::notice;
}

void World::stop() {
    if (!client) return;
    const Exposed exposed;
    client.reset();
}

bool World::wait(const char* what, const std::function<bool(World&)>& come) {
    const auto begin = Clock::now();
    std::optional<Clock::time_point> struck;
    for (;;) {
        if (come(*this)) return true;
        if (client && !last_words().empty()) return false;
        const auto now = Clock::now();
        if (fault_ != nullptr && fired() && !struck) struck = now;
        if (struck && now - *struck > (fault_->always ? kAlways : kOnce)) return false;
        if (!struck && now - begin > kPatience) break;
        std::this_thread::sleep_for(milliseconds(1));
    }
    wrong(std::string(what) + " does not come about");
    return false;
}

bool World::command(std::size_t number) {
    const auto& run = commands()[number % kCommands];
    std::optional<Answer> answer;
    if (!call("a command", [&] { answer = run(*client); })) {
        // For want of memory to build the request; whatever else happens has to be told otherwise.
        if (!faulty(Kind::memory)) wrong("a command threw");
        return false;
    }
    const std::string reason = JovuTransport::last_send_error();
    const std::string which = "command " + std::to_string(number);
    if (reason.empty() && *answer != Answer::right) wrong(which + " gave no reason and no result");
    // Commands that return nothing are always right.
    const bool returns = number % kCommands != 2 && number % kCommands != 6;
    if (!reason.empty() && returns && *answer != Answer::nothing) {
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
        if (!answer_can_come() && Clock::now() - begin > milliseconds(100)) break;
        std::this_thread::sleep_for(milliseconds(1));
    }
    // Nothing on the job channel tells of bytes that are missing.
    if (client->wrong_status && !faulty(Kind::completion)) wrong("a status report came out wrong");
    return client->statuses > before;
}

std::string last_words() {
    const std::string begin = "Fatal error in hotplug thread - ";
    const std::string text = printed();
    const std::size_t at = text.rfind(begin);
    if (at == std::string::npos) return "";
    const std::size_t first = at + begin.size();
    return text.substr(first, text.find(".\n", first) - first);
}

void forget_last_words() {
    forgotten = forgotten + static_cast<off_t>(printed().size());
}

}  // namespace sweep
