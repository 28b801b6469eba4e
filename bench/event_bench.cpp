// SPDX-License-Identifier: Apache-2.0

/// @file
/// The most trace events that can be read in a second: from a bus in memory, which hands over the
/// next packet as soon as a receive transfer is submitted. No device is as fast, so the limit is
/// the processor time of the reading thread.
///
/// Library and bare program stand on a libusb made of memory. What its own calls take is measured
/// in each turn with a reader that drops all data, and subtracted.
#include <CLI/CLI.hpp>
#include <atomic>
#include <cstdio>
#include <exception>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "fake_usb/fake_libusb.h"
#include "fake_usb/framed.h"
#include "measure.h"
#include "program.h"
#include "results.h"

namespace {

using bench::Meter;

constexpr bench::Address kRead{1, 2};
constexpr bench::Address kDropped{1, 3};
constexpr std::size_t kPacket = 64;

/// Sends packets, each one when the one before has been read.
struct Source {
    std::vector<std::string> packets;
    libusb_device* device = nullptr;
    std::atomic<std::size_t> next{0};
    std::atomic<bool> running{false};

    /// Sends the next packet if a transfer is in flight for it.
    void send() {
        if (!running) return;
        const std::size_t i = next;
        if (i == packets.size()) {
            running = false;
        } else if (fake_usb::in_flight(device, 0x81)) {
            ++next;
            fake_usb::post(device, 0x81, LIBUSB_TRANSFER_COMPLETED, packets[i]);
        }
    }

    /// Sends all packets. @return false if that takes more than a minute.
    bool run(libusb_device* to) {
        device = to;
        next = 0;
        running = true;
        send();
        for (int i = 0; running && i < 60000; ++i)
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        return !running.exchange(false);
    }
} source;

/// The frames of that many events, cut into packets. A frame begins with a packet of its own, as a
/// device sends it.
std::vector<std::string> packets_of(std::size_t events) {
    std::vector<std::string> packets;
    for (std::size_t i = 0; i < events; ++i) {
        const std::string frame = test::framed(
            R"({"transport":{"attrs":["request","oneway"],"id":1073745000},"data":{"event":{"name":)"
            R"("servo_dc_trace_event","args":{"msg":{"servo_name":0,"servo_state":2,"int_cnt":)" +
            std::to_string(i) + R"(,"pos_cmd":81234,"pos":81201,"pwm":-312,"padout_dist":0}}}}})");
        for (std::size_t at = 0; at < frame.size(); at += kPacket)
            packets.push_back(frame.substr(at, kPacket));
    }
    return packets;
}

void measure(bench::Turn& turn, bench::Name name, std::size_t events) {
    libusb_device* const read = fake_usb::plug(kRead.bus, kRead.address);
    libusb_device* const dropped = fake_usb::plug(kDropped.bus, kDropped.address);
    fake_usb::endless_event_waits = true;
    fake_usb::set_hook({[](fake_usb::Call) { return 0; },
                        [](libusb_device*, unsigned) { source.send(); }, nullptr});
    source.packets = packets_of(events);
    const auto program = bench::start(name, {kRead});
    program->wait_opened(1);
    while (turn.next()) {
        bench::BareStyle style;
        style.data = bench::Data::dropped;
        bench::BareLibusb dropper(style);
        dropper.open_attached([](std::uint8_t bus, std::uint8_t address) {
            return bench::Address{bus, address} == kDropped;
        });
        const Meter floor;
        if (!source.run(dropped)) throw std::runtime_error("the packets are not read");
        const double floor_us = floor.cpu_us();
        const std::uint64_t before = program->events();
        const std::uint64_t lost = program->lost_events();
        program->begin_series();
        const Meter meter;
        if (!source.run(read)) throw std::runtime_error("the events are not read");
        const double cpu = meter.cpu_us();
        const double ms = meter.ms();
        const auto count = static_cast<double>(program->events() - before);
        turn.report("CPU", (cpu - floor_us) / count);
        turn.report("CPU of the bus", floor_us / count);
        turn.report("most events", count / (ms / 1000));
        turn.report("lost", static_cast<double>(events) - count +
                                static_cast<double>(program->lost_events() - lost));
    }
}

int run(int argc, char** argv) {
    CLI::App app("Measures how many trace events a second can be read, from a bus in memory.");
    std::string json;
    int rounds = 15;
    std::size_t events = 20000;
    app.add_option("--json", json, "Write the results to that file")->type_name("FILE");
    app.add_option("--rounds", rounds)->check(CLI::Range(1, 1000))->capture_default_str();
    app.add_option("--events", events, "Events of a round")->capture_default_str();
    CLI11_PARSE(app, argc, argv);
    bench::Child jovu([&](bench::Turn& turn) { measure(turn, bench::kJovu, events); });
    bench::Child bare([&](bench::Turn& turn) { measure(turn, bench::kBare, events); });
    bench::Results results;
    results.add("events", "bus in memory",
                bench::by_turns(
                    "events", rounds,
                    [&](bench::Name name) { return (name == bench::kJovu ? jovu : bare).turn(); }),
                {{"most events", "1/s"},
                 {"CPU", "us", bench::ratio_at_most(1)},
                 {"CPU of the bus", "us"},
                 {"lost", "", bench::at_most(0), 1, false}});
    if (!json.empty()) results.write_json(json);
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    try {
        return run(argc, argv);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "event_bench: %s\n", error.what());
        return 1;
    }
}
