// SPDX-License-Identifier: Apache-2.0

/// @file
/// What is done while a call fails.

#include <algorithm>
#include <array>
#include <atomic>
#include <string>
#include <thread>

#include "fake_usb/framed.h"
#include "support/job_file.h"
#include "sweep/client.h"
#include "usb/usb.h"

namespace sweep {
namespace {

bool connected(World& world) {
    return world.wait("the device's notification", [](World& w) { return w.client->connects > 0; });
}

/// Plugs a device in, starts a client and waits for its notification.
bool connect(World& world) {
    world.plug();
    world.start();
    return world.client && connected(world);
}

void listing(World& world) {
    world.plug();
    const auto list = [&world] {
        std::vector<JovuUsbDevice> attached;
        if (world.call("listing", [&] { attached = JovuUsb::list_attached(); }) &&
            attached.size() != 1 && !world.faulty(Kind::descriptor)) {
            world.wrong("a device is missing in the list");
        }
    };
    list();  // Before the backend is started.
    world.start();
    if (!world.client) return;
    list();
    connected(world);
    std::vector<JovuDeviceAddress> addresses;
    world.call("listing", [&] { addresses = world.client->list_connected(); });
}

void commands(World& world) {
    if (!connect(world)) return;
    for (std::size_t i = 0; i < kCommands; ++i) {
        if (world.command(i)) continue;
        if (!fired) world.wrong("command " + std::to_string(i) + " fails");
        return;
    }
    if (!world.status() && !fired) world.wrong("no status report comes");
}

std::string event(const std::string& name, const std::string& argument) {
    return test::framed(
        R"({"transport":{"attrs":["request","oneway"],"id":7},"data":{"event":{"name":")" + name +
        R"(","args":{"x":)" + argument + "}}}}");
}

/// What the events of the next function come out as.
constexpr std::array<const char*, 5> kEvents{"AB", "1 -5", "CD", "2 -6", "EF"};

void send_events(DeviceModel& device) {
    const auto sample = [](const char* count, const char* position) {
        return R"({"servo_name":1,"servo_state":2,"int_cnt":)" + std::string(count) +
               R"(,"pos_cmd":3,"pos":)" + position + R"(,"pwm":-1,"padout_dist":0})";
    };
    device.send(kMessagesIn, event("debug_event", "[65,66,0]"));
    device.send(kMessagesIn, event("servo_dc_trace_event", sample("1", "-5")));
    device.send(kMessagesIn, event("debug_event", "[67,68,0]"));
    device.send(kMessagesIn, event("no_such_event", "[1]"));
    device.send(kMessagesIn, event("servo_dc_trace_event", sample("2", "-6")));
    device.send(kMessagesIn, event("debug_event", "[69,70,0]"));
}

/// Some may be lost, but what comes comes in order, once, and as it was sent.
void check_events(World& world) {
    const auto* next = kEvents.begin();
    for (const std::string& event : world.client->events()) {
        next = std::find(next, kEvents.end(), event);
        if (next == kEvents.end()) return world.wrong("an event that was not sent");
        ++next;
    }
}

void events(World& world) {
    if (!connect(world)) return;
    send_events(world.device());
    world.wait("the last event",
               [](World& w) { return w.client->events().size() == kEvents.size(); });
    check_events(world);
}

void push(World& world) {
    if (!connect(world)) return;
    const std::string job = test::job_content(12000);
    const test::TemporaryFile file("sweep-job", job);
    double percent = -1;
    const bool sent = world.call("a push", [&] {
        world.client->SendJobFile(
            kAddress, file.path(),
            [](double now, std::string /*job*/, void* user) { *static_cast<double*>(user) = now; },
            &percent, false);
    });
    if (!sent && !fired) world.wrong("a push fails");
    if (!sent) return;
    if (percent != 100.0) world.wrong("a push that did not throw ended before 100 %");
    // What a transfer moved before it ran out of time is sent once more, and what cannot be read is
    // not there. Nothing else touches the bytes.
    const bool repeated =
        world.faulty(Kind::bulk) && world.fault()->result.value == fake_usb::kPartial;
    if (repeated || world.faulty(Kind::file_read)) return;
    const std::string bytes = world.device().job_bytes();
    const std::string announced = R"("size":12000)";
    if (bytes.find(announced) == std::string::npos || bytes.size() < job.size() ||
        bytes.compare(bytes.size() - job.size(), job.size(), job) != 0) {
        world.wrong("a push that did not throw did not arrive");
    }
}

void replug(World& world) {
    world.start();
    if (!world.client) return;
    world.plug();
    if (!connected(world)) return;
    world.device().unplug();
    world.plug();
    world.wait("the second notification",
               [](World& w) { return w.client->connects >= 2 && w.client->disconnects >= 1; });
}

void close(World& world) {
    if (!connect(world)) return;
    const bool closed = world.call("closing", [&] { world.client->close(kAddress); });
    if (!closed) {
        if (!fired) world.wrong("closing fails");
        return;
    }
    if (world.command(0)) world.wrong("a closed device responds");
    world.wait("the notification of the close", [](World& w) { return w.client->disconnects > 0; });
}

/// The client is shut down while a command waits, a job is sent and events are received.
void stop_at_work(World& world) {
    if (!connect(world)) return;
    DeviceModel& device = world.device();
    device.mute = true;
    std::atomic<bool> failed{false};
    std::thread waiting([&] {
        role = Role::sender;
        if (world.command(0)) world.wrong("a mute device responds");
        failed = true;
    });
    std::thread sending([&] {
        role = Role::sender;
        const std::vector<unsigned char> piece(1000, 'x');
        while (world.call("sending", [&] {
            world.client->SendJobData(kAddress, piece.data(), static_cast<unsigned>(piece.size()));
        })) {
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
    });
    world.wait("the request", [&](World& w) { return w.device().requests > 0 || failed; });
    send_events(device);
    world.wait("the third event", [](World& w) { return w.client->events().size() > 2; });
    world.shut_down();
    waiting.join();
    sending.join();
    check_events(world);
    world.stop();
}

}  // namespace

const std::vector<Scenario>& scenarios() {
    static const std::vector<Scenario> all{
        {"listing", listing},
        {"commands", commands},
        {"events", events},
        {"push", push},
        {"replug", replug},
        {"close", close, true},
        {"stop-at-work", stop_at_work},
    };
    return all;
}

}  // namespace sweep
