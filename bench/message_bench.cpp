// SPDX-License-Identifier: Apache-2.0

/// @file
/// Exchanges, events and objects of the job channel, each as a ratio to bare yajl on the same
/// bytes, measured in the same run.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <ctime>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include "allocations.h"
#include "bare_yajl.h"
#include "fake_usb/framed.h"
#include "jovu/client.h"
#include "json/json_tree.h"
#include "responding_device.h"
#include "support/memory_backend.h"

namespace {

/// Calls of which the time is taken: long enough for the clock not to matter, short enough for both
/// sides to meet the same machine.
constexpr int kBatch = 100;

/// CPU time of the calling thread for one call, in microseconds: waiting for a processor does not
/// count. Everything that is measured happens on this thread.
template <class Call>
double cpu_us(int batch, Call call) {
    const auto now = [] {
        timespec time{};
        clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
        return static_cast<double>(time.tv_sec) * 1e6 + static_cast<double>(time.tv_nsec) / 1e3;
    };
    const double start = now();
    for (int i = 0; i < batch; ++i)
        call();
    return (now() - start) / batch;
}

double median(std::vector<double> values) {
    const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
    std::nth_element(values.begin(), middle, values.end());
    return *middle;
}

/// Runs what is measured and its floor by turns. Each number is the median over the batches, the
/// ratio that of the ratios within a batch, so that a disturbed batch does not count.
template <class Work, class Floor>
void compare(benchmark::State& state, Work work, Floor floor, int batch = kBatch) {
    std::vector<double> work_us;
    std::vector<double> floor_us;
    std::vector<double> ratios;
    const std::uint64_t before = bench::allocations();
    work();
    const std::uint64_t allocated = bench::allocations() - before;
    floor();
    const std::uint64_t floor_allocated = bench::allocations() - before - allocated;
    for ([[maybe_unused]] const auto iteration : state) {
        work_us.push_back(cpu_us(batch, work));
        floor_us.push_back(cpu_us(batch, floor));
        ratios.push_back(work_us.back() / floor_us.back());
        state.SetIterationTime(work_us.back() * batch * 1e-6);
    }
    state.counters["us"] = median(work_us);
    state.counters["yajl_us"] = median(floor_us);
    state.counters["ratio"] = median(ratios);
    state.counters["allocs"] = static_cast<double>(allocated);
    state.counters["yajl_allocs"] = static_cast<double>(floor_allocated);
}

class Client : public JovuClient {
public:
    std::uint64_t samples = 0;
    std::uint64_t reports = 0;

    void servo_dc_trace_event(JovuDeviceAddress /*address*/, servo_trace_msg sample) override {
        samples += sample.int_cnt != 0 ? 1 : 0;
    }
    void StatusReceived(JovuDeviceAddress /*address*/, StatusMsg status) override {
        reports += status.state.empty() ? 0 : 1;
    }
};

/// Never destroyed before main() has ended, as an application would have it.
Client& client() {
    static Client the_client;
    static const bool connected = (bench::connect_device(), true);
    benchmark::DoNotOptimize(connected);
    return the_client;
}

struct TreeFree {
    void operator()(yajl_val_s* tree) const { yajl_tree_free(tree); }
};
using Tree = std::unique_ptr<yajl_val_s, TreeFree>;

/// @param call one command; it must succeed.
void exchange(benchmark::State& state, const std::string& returned,
              const std::function<void(Client&)>& call) {
    bench::respond_with(returned);
    call(client());
    const Tree request(yajl_tree_parse(bench::sample_request().c_str(), nullptr, 0));
    const std::string response = [] {
        // A blank is no id; any number has the same length.
        std::string text = bench::sample_response();
        const std::size_t blank = text.find(' ');
        return text.replace(blank, 6, "123456");
    }();
    compare(
        state,
        [&] {
            call(client());
            if (!JovuTransport::last_send_error().empty()) throw std::logic_error("no response");
        },
        [&] {
            benchmark::DoNotOptimize(bench::generate(request.get()));
            bench::parse(response);
        });
    state.counters["bytes"] = static_cast<double>(bench::sample_request().size() + response.size());
}

void bio_get_version(benchmark::State& state) {
    exchange(state, "[49,46,50,46,51,0]", [](Client& c) { c.bio_get_version(bench::kAddress); });
}

void servo_dc_position_get(benchmark::State& state) {
    exchange(state, "123456",
             [](Client& c) { c.servo_dc_position_get(bench::kAddress, servo_dc_name_t{1}); });
}

void gcode_process_command(benchmark::State& state) {
    const std::string line = "G1 X102.375 Y87.210 E3.14159 F3600";
    const std::shared_ptr<char> text(new char[line.size() + 1]{}, [](char* p) { delete[] p; });
    line.copy(text.get(), line.size());
    exchange(state, "0", [text](Client& c) { c.gcode_process_command(bench::kAddress, text); });
}

void servo_dc_move(benchmark::State& state) {
    const auto move = std::make_shared<servo_dc_move_config_t>();
    *move = {1, false, 102.375, 10.5F, 80.0F, 1200.0F, 1200.0F, 0, 0, 0.5F, 0.25F, false, false, 1};
    exchange(state, "0",
             [move](Client& c) { c.servo_dc_move(bench::kAddress, servo_dc_name_t{1}, move); });
}

void wifi_client_configure(benchmark::State& state) {
    const auto config = std::make_shared<wifi_config_t>();
    exchange(state, "0", [config](Client& c) {
        c.wifi_client_configure(bench::kAddress, wifi_interface_t{0}, 1, config);
    });
}

void servo_dc_config_get(benchmark::State& state) {
    exchange(state,
             R"({"interrupt_frequency":1000,"gains":{"kp":1.5,"ki":0.25,"kd":3.5,"ka":4.0,)"
             R"("kv":5.0,"kf":6.0},"pwm_cap":1000,"pwm_cap_time":500,"units":1,)"
             R"("pos_res_eu_per_mm":80.0,"vel_res_mm_per_sec":0.01,"speed_max":200.0,)"
             R"("accel_max":3000.0,"move_dist_min_static":1,"move_dist_min_dynamic":2,"trace":0})",
             [](Client& c) { c.servo_dc_config_get(bench::kAddress, servo_dc_name_t{1}); });
}

void servo_dc_trace_event(benchmark::State& state) {
    const std::string text =
        R"({"transport":{"attrs":["request","oneway"],"id":1073745000},"data":{"event":{"name":)"
        R"("servo_dc_trace_event","args":{"msg":{"servo_name":1,"servo_state":2,"int_cnt":123456,)"
        R"("pos_cmd":81234,"pos":81201,"pwm":-312,"padout_dist":0}}}}})";
    std::string frame = test::framed(text);
    const std::uint64_t before = client().samples;
    std::uint64_t events = 0;
    compare(
        state,
        [&] {
            bench::receive(frame);
            ++events;
        },
        [&] { bench::parse(text); });
    if (client().samples - before != events) throw std::logic_error("an event was lost");
    state.counters["events_per_s"] = 1e6 / state.counters["us"];
    state.counters["of_yajl"] = 1 / state.counters["ratio"];
    state.counters["bytes"] = static_cast<double>(frame.size());
}

/// A status report with a record of temperatures, of about the given size.
std::string report_of(std::size_t size) {
    std::string text =
        R"({"metadata":{"version":1,"type":"status"},"printer":{"model_name":"J1","cpu_id":)"
        R"("0123456789abcdef","firmware":{"name":"controller","version":"1.2.3"},)"
        R"("accept_version":1},"status":{"state":"printing","build_plate":"present","filament":)"
        R"("loaded","extruder_temperature":214.75},"job":{"id":"5f0c9d","progress":42,"file":)"
        R"("part.gcode","time_elapsed":3605},"time":{"boot":86461,"idle":0},"error":0,"record":[)";
    for (unsigned time = 0; text.size() + 60 < size; ++time) {
        text += (time == 0 ? R"({"time":)" : R"(,{"time":)") + std::to_string(3600 + time) +
                R"(,"temperature":)" + std::to_string(200 + time % 20) + "." +
                std::to_string(time % 4 * 25) + R"(,"state":"printing"})";
    }
    return text + "]}";
}

int batch_of(const std::string& object) {
    return std::max(1, static_cast<int>(1000 * kBatch / object.size()));
}

void add_size(benchmark::State& state, const std::string& object) {
    const auto bytes = static_cast<double>(object.size());
    state.counters["bytes"] = bytes;
    state.counters["ns_per_byte"] = 1e3 * state.counters["us"] / bytes;
}

/// Parsing alone.
void job_parse(benchmark::State& state) {
    const std::string object = report_of(static_cast<std::size_t>(state.range(0)));
    jovu::JsonMemory memory;
    compare(
        state, [&] { benchmark::DoNotOptimize(jovu::JsonTree(object, memory).get()); },
        [&] { bench::parse(object); }, batch_of(object));
    add_size(state, object);
}

/// From packets to the report.
void job_object(benchmark::State& state) {
    std::string object = report_of(static_cast<std::size_t>(state.range(0)));
    bench::ObjectCutter cutter;
    const std::uint64_t before = client().reports;
    std::uint64_t objects = 0;
    compare(
        state,
        [&] {
            bench::receive(object, 1);
            ++objects;
        },
        [&] {
            for (std::size_t at = 0; at < object.size(); at += memory_backend::kPacket)
                cutter.receive(object.data() + at,
                               std::min(memory_backend::kPacket, object.size() - at));
        },
        batch_of(object));
    if (client().reports - before != objects) throw std::logic_error("a report was lost");
    add_size(state, object);
}

BENCHMARK(bio_get_version)->UseManualTime();
BENCHMARK(servo_dc_position_get)->UseManualTime();
BENCHMARK(gcode_process_command)->UseManualTime();
BENCHMARK(servo_dc_move)->UseManualTime();
BENCHMARK(servo_dc_config_get)->UseManualTime();
BENCHMARK(wifi_client_configure)->UseManualTime();
BENCHMARK(servo_dc_trace_event)->UseManualTime();
BENCHMARK(job_parse)->Arg(1000)->Arg(64000)->Arg(900000)->UseManualTime();
BENCHMARK(job_object)->Arg(1000)->Arg(64000)->Arg(900000)->UseManualTime();

}  // namespace

BENCHMARK_MAIN();
