// SPDX-License-Identifier: Apache-2.0
#include "bridge/metrics.h"

#include <prometheus/collectable.h>
#include <prometheus/counter.h>
#include <prometheus/exposer.h>
#include <prometheus/family.h>
#include <prometheus/gauge.h>
#include <prometheus/histogram.h>
#include <prometheus/registry.h>
#include <prometheus/text_serializer.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <map>
#include <stdexcept>
#include <string_view>
#include <utility>
#include <vector>

#include "jovu/exception.h"
#include "posix/mutex.h"
#include "terminal/printable.h"

namespace jovu_bridge {
namespace {

using prometheus::Counter;
using prometheus::Family;
using prometheus::Gauge;
using prometheus::Histogram;
using Boundaries = Histogram::BucketBoundaries;

constexpr std::size_t kMaxLabel = 64;  ///< Characters of a serial number.

/// Seconds. An exchange takes a millisecond; one that moves an axis may take a minute.
const Boundaries& exchange_boundaries() {
    static const Boundaries boundaries{0.0005, 0.001, 0.002, 0.005, 0.01, 0.02, 0.05,
                                       0.1,    0.25,  0.5,   1,     2.5,  10,   60};
    return boundaries;
}

/// Seconds. A request for a job lasts as long as the job is sent.
const Boundaries& request_boundaries() {
    static const Boundaries boundaries{0.001, 0.005, 0.02, 0.1, 0.5, 2, 10, 60, 300, 1800};
    return boundaries;
}

constexpr std::array<std::string_view, 8> kOperations{"call",  "gcode",  "pause", "resume",
                                                      "abort", "status", "job",   "trace"};
constexpr std::array<std::string_view, 4> kKinds{"state", "event", "response", "trace"};
constexpr std::array<std::string_view, 9> kPhases{
    "fetching", "sending", "verifying", "active", "paused", "finished", "aborted", "error", "idle"};
constexpr std::array<std::string_view, 12> kCodes{
    "invalid_request", "unknown_operation", "not_allowed",      "read_only", "busy",
    "refused",         "fetch_failed",      "checksum_differs", "too_large", "outcome_unknown",
    "expired",         "unavailable"};

/// The value if it is one of a fixed set, so that no request can add a series.
template <std::size_t kSize>
std::string one_of(const std::array<std::string_view, kSize>& values, const std::string& value) {
    const bool known = std::find(values.begin(), values.end(), value) != values.end();
    return known ? value : "other";
}

/// An error code of the library or of the bridge; others count as "other".
std::string known_code(const std::string& code) {
    constexpr int kCount = static_cast<int>(JovuError::cancelled) + 1;
    for (int number = 0; number < kCount; ++number) {
        if (code == jovu_error_name(static_cast<JovuError>(number))) {
            return code;
        }
    }
    return one_of(kCodes, code);
}

/// Time and memory of this process, read when they are asked for.
class ProcessFigures : public prometheus::Collectable {
public:
    std::vector<prometheus::MetricFamily> Collect() const override {
        std::vector<prometheus::MetricFamily> families;
        rusage used{};
        if (::getrusage(RUSAGE_SELF, &used) == 0) {
            families.push_back(family("process_cpu_seconds_total", "Processor time, in seconds.",
                                      prometheus::MetricType::Counter,
                                      seconds(used.ru_utime) + seconds(used.ru_stime)));
        }
        unsigned long pages = 0;
        const std::unique_ptr<std::FILE, decltype(&std::fclose)> file(
            std::fopen("/proc/self/statm", "re"), &std::fclose);
        if (file && std::fscanf(file.get(), "%*u %lu", &pages) == 1) {
            families.push_back(
                family("process_resident_memory_bytes", "Memory in use, in bytes.",
                       prometheus::MetricType::Gauge,
                       static_cast<double>(pages) * static_cast<double>(::sysconf(_SC_PAGESIZE))));
        }
        return families;
    }

private:
    static double seconds(const timeval& time) {
        constexpr double kMicroseconds = 1e6;
        return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / kMicroseconds;
    }

    static prometheus::MetricFamily family(const char* name, const char* help,
                                           prometheus::MetricType type, double value) {
        prometheus::ClientMetric metric;
        (type == prometheus::MetricType::Counter ? metric.counter.value : metric.gauge.value) =
            value;
        return {name, help, type, {metric}};
    }
};

}  // namespace

struct Metrics::Parts {
    Parts(const std::string& bridge, const std::string& version);

    Family<Counter>& counters(const char* name, const char* help) {
        return prometheus::BuildCounter().Name(name).Help(help).Register(*registry);
    }
    Family<Gauge>& gauges(const char* name, const char* help) {
        return prometheus::BuildGauge().Name(name).Help(help).Register(*registry);
    }
    Family<Histogram>& histograms(const char* name, const char* help) {
        return prometheus::BuildHistogram().Name(name).Help(help).Register(*registry);
    }

    /// The series of a device that is connected.
    struct Device {
        std::string label;
        Gauge* up;
        Gauge* queue;
        Gauge* percent;
        Gauge* phase = nullptr;
        Counter* exchanges;
        Counter* bytes;
        Counter* events;
        Counter* samples;
        Counter* lost_samples;
        std::map<std::string, Counter*> failures;  ///< By code.
    };

    /// Calls @p work with the series of a device, if it is connected.
    template <typename Work>
    void with(const std::string& serial, Work&& work) {
        const jovu_cli::MutexLock lock(mutex);
        const auto device = devices.find(serial);
        if (device != devices.end()) {
            work(device->second);
        }
    }

    void remove(Device& device);

    std::shared_ptr<prometheus::Registry> registry = std::make_shared<prometheus::Registry>();
    std::shared_ptr<prometheus::Collectable> process = std::make_shared<ProcessFigures>();

    Family<Gauge>& device_up = gauges("jovu_device_up", "1 for each device that is connected.");
    Family<Gauge>& device_queue = gauges("jovu_device_queue_requests", "Requests that wait.");
    Family<Gauge>& job_percent =
        gauges("jovu_job_percent", "Progress of the device's job, 0 to 100.");
    Family<Gauge>& job_phase =
        gauges("jovu_job_phase", "1 for the phase in which the device's job is.");
    Family<Counter>& exchanges =
        counters("jovu_exchanges_total", "Exchanges with the device: a command and its response.");
    Family<Counter>& exchange_failures =
        counters("jovu_exchange_failures_total", "Exchanges with the device that failed, by code.");
    Family<Counter>& job_bytes =
        counters("jovu_job_sent_bytes_total", "Bytes of job files that went to the device.");
    Family<Counter>& events = counters("jovu_events_total", "Events of the device.");
    Family<Counter>& trace_samples =
        counters("jovu_trace_samples_total", "Samples of traces that arrived.");
    Family<Counter>& lost_samples =
        counters("jovu_trace_lost_samples_total", "Samples of traces that were lost.");
    Family<Counter>& requests = counters("jovu_requests_total", "Requests that have ended.");
    Family<Counter>& request_failures =
        counters("jovu_request_failures_total", "Requests that failed or were refused, by code.");
    Family<Histogram>& request_seconds =
        histograms("jovu_request_seconds", "Time from a request to its final response.");
    Family<Counter>& jobs =
        counters("jovu_jobs_total", "Jobs that have ended, by code; \"done\" is success.");
    Family<Counter>& published =
        counters("jovu_published_messages_total", "Messages to the broker.");
    Family<Counter>& published_bytes =
        counters("jovu_published_bytes_total", "Bytes of payload to the broker.");
    Family<Counter>& lost_messages =
        counters("jovu_lost_messages_total", "Messages that a full queue dropped.");
    Family<Counter>& reloads =
        counters("jovu_reloads_total", "Times the configuration was read again.");

    Gauge& device_count = gauges("jovu_devices", "Devices that are connected.").Add({});
    Counter& connects = counters("jovu_device_connects_total", "Times a device connected.").Add({});
    Counter& disconnects =
        counters("jovu_device_disconnects_total", "Times a device disconnected.").Add({});
    Histogram& exchange_seconds =
        histograms("jovu_exchange_seconds", "Time from a command to its response.")
            .Add({}, exchange_boundaries());
    Counter& repeats =
        counters("jovu_repeated_requests_total", "Requests whose stored response was sent again.")
            .Add({});
    Counter& fetched =
        counters("jovu_job_fetched_bytes_total", "Bytes of job files that arrived.").Add({});
    Gauge& connected = gauges("jovu_broker_connected", "1 while the broker is connected.").Add({});
    Counter& broker_connects =
        counters("jovu_broker_connects_total", "Times the connection to the broker began.").Add({});
    Histogram& publish_seconds =
        histograms("jovu_publish_seconds", "Time until the broker acknowledged a message.")
            .Add({}, exchange_boundaries());
    Gauge& outbox = gauges("jovu_outbox_messages", "Messages that wait for the broker.").Add({});
    Gauge& journal_entries = gauges("jovu_journal_entries", "Requests in the journal.").Add({});
    Gauge& journal_bytes = gauges("jovu_journal_bytes", "Size of the journal's file.").Add({});

    jovu_cli::Mutex mutex;
    /// By serial number. Series are removed with the mutex held, so they are used with it held.
    std::map<std::string, Device> devices JOVU_GUARDED_BY(mutex);

    /// The last member: stops the threads that read the others.
    std::unique_ptr<prometheus::Exposer> exposer;
};

Metrics::Parts::Parts(const std::string& bridge, const std::string& version) {
    gauges("jovu_bridge_info", "The program's version and the bridge's name.")
        .Add({{"version", version},
              {"bridge", jovu_cli::fit(jovu_cli::printable(bridge), kMaxLabel)}})
        .Set(1);
    gauges("process_start_time_seconds", "When the bridge started, in seconds since 1970.")
        .Add({})
        .SetToCurrentTime();
    // Series that exist from the start let a rule see the first increment.
    for (const std::string_view kind : kKinds) {
        const prometheus::Labels labels{{"kind", std::string(kind)}};
        published.Add(labels);
        published_bytes.Add(labels);
        lost_messages.Add(labels);
    }
    for (const std::string_view operation : kOperations) {
        requests.Add({{"operation", std::string(operation)}});
    }
    jobs.Add({{"code", "done"}});
    for (const char* result : {"ok", "failed"}) {
        reloads.Add({{"result", result}});
    }
}

void Metrics::Parts::remove(Device& device) {
    device_up.Remove(device.up);
    device_queue.Remove(device.queue);
    job_percent.Remove(device.percent);
    if (device.phase != nullptr) {
        job_phase.Remove(device.phase);
    }
    exchanges.Remove(device.exchanges);
    job_bytes.Remove(device.bytes);
    events.Remove(device.events);
    trace_samples.Remove(device.samples);
    lost_samples.Remove(device.lost_samples);
    for (const auto& [code, counter] : device.failures) {
        exchange_failures.Remove(counter);
    }
}

Metrics::Metrics(const std::string& bridge, const std::string& version)
    : parts_(std::make_unique<Parts>(bridge, version)) {}

Metrics::~Metrics() = default;

int Metrics::serve(const std::string& address) {
    constexpr std::size_t kThreads = 2;
    try {
        parts_->exposer = std::make_unique<prometheus::Exposer>(address, kThreads);
    } catch (const std::runtime_error&) {  // Its message is the same for every reason.
        throw std::runtime_error("metrics.address: cannot listen at " + address +
                                 ": another program may use the port, or the address is not one of "
                                 "this computer");
    }
    parts_->exposer->RegisterCollectable(parts_->registry);
    parts_->exposer->RegisterCollectable(parts_->process);
    return parts_->exposer->GetListeningPorts().at(0);
}

std::string Metrics::text() const {
    std::vector<prometheus::MetricFamily> families = parts_->registry->Collect();
    for (prometheus::MetricFamily& family : parts_->process->Collect()) {
        families.push_back(std::move(family));
    }
    return prometheus::TextSerializer().Serialize(families);
}

void Metrics::device_connected(const std::string& serial) {
    const jovu_cli::MutexLock lock(parts_->mutex);
    if (parts_->devices.count(serial) != 0) {
        return;
    }
    // Serial numbers may have any bytes; the text format is UTF-8.
    const std::string label = jovu_cli::fit(jovu_cli::printable(serial), kMaxLabel);
    const bool taken =
        std::any_of(parts_->devices.begin(), parts_->devices.end(),
                    [&label](const auto& device) { return device.second.label == label; });
    parts_->connects.Increment();
    if (taken) {
        return;  // Two devices with one label would share series and remove each other's.
    }
    const prometheus::Labels labels{{"serial", label}};
    Parts::Device device{};
    device.label = label;
    device.up = &parts_->device_up.Add(labels);
    device.up->Set(1);
    device.queue = &parts_->device_queue.Add(labels);
    device.percent = &parts_->job_percent.Add(labels);
    device.exchanges = &parts_->exchanges.Add(labels);
    device.bytes = &parts_->job_bytes.Add(labels);
    device.events = &parts_->events.Add(labels);
    device.samples = &parts_->trace_samples.Add(labels);
    device.lost_samples = &parts_->lost_samples.Add(labels);
    parts_->devices.emplace(serial, std::move(device));
    parts_->device_count.Set(static_cast<double>(parts_->devices.size()));
}

void Metrics::device_disconnected(const std::string& serial) {
    const jovu_cli::MutexLock lock(parts_->mutex);
    const auto device = parts_->devices.find(serial);
    if (device == parts_->devices.end()) {
        return;
    }
    parts_->remove(device->second);
    parts_->devices.erase(device);
    parts_->disconnects.Increment();
    parts_->device_count.Set(static_cast<double>(parts_->devices.size()));
}

void Metrics::exchange(const std::string& serial, Seconds duration, const std::string& code) {
    parts_->exchange_seconds.Observe(duration.count());
    parts_->with(serial, [&](Parts::Device& device) {
        device.exchanges->Increment();
        if (!code.empty()) {
            const std::string known = known_code(code);
            Counter*& counter = device.failures[known];
            if (counter == nullptr) {
                counter =
                    &parts_->exchange_failures.Add({{"serial", device.label}, {"code", known}});
            }
            counter->Increment();
        }
    });
}

void Metrics::request(const std::string& operation, Seconds duration, const std::string& code) {
    const prometheus::Labels labels{{"operation", one_of(kOperations, operation)}};
    parts_->requests.Add(labels).Increment();
    parts_->request_seconds.Add(labels, request_boundaries()).Observe(duration.count());
    if (!code.empty()) {
        parts_->request_failures.Add({{"code", known_code(code)}}).Increment();
    }
}

void Metrics::repeated_request() {
    parts_->repeats.Increment();
}

void Metrics::device_queue(const std::string& serial, std::size_t length) {
    parts_->with(serial, [length](Parts::Device& device) {
        device.queue->Set(static_cast<double>(length));
    });
}

void Metrics::job(const std::string& serial, const std::string& phase, double percent) {
    parts_->with(serial, [&](Parts::Device& device) {
        Gauge& now =
            parts_->job_phase.Add({{"serial", device.label}, {"phase", one_of(kPhases, phase)}});
        if (device.phase != &now && device.phase != nullptr) {
            parts_->job_phase.Remove(device.phase);
        }
        device.phase = &now;
        now.Set(1);
        device.percent->Set(percent);
    });
}

void Metrics::job_ended(const std::string& code) {
    parts_->jobs.Add({{"code", code.empty() ? "done" : known_code(code)}}).Increment();
}

void Metrics::job_bytes_fetched(std::uint64_t bytes) {
    parts_->fetched.Increment(static_cast<double>(bytes));
}

void Metrics::job_bytes_sent(const std::string& serial, std::uint64_t bytes) {
    parts_->with(serial, [bytes](Parts::Device& device) {
        device.bytes->Increment(static_cast<double>(bytes));
    });
}

void Metrics::event(const std::string& serial) {
    parts_->with(serial, [](Parts::Device& device) { device.events->Increment(); });
}

void Metrics::trace_samples(const std::string& serial, std::uint64_t received, std::uint64_t lost) {
    parts_->with(serial, [received, lost](Parts::Device& device) {
        device.samples->Increment(static_cast<double>(received));
        device.lost_samples->Increment(static_cast<double>(lost));
    });
}

void Metrics::broker_connected(bool connected) {
    parts_->connected.Set(connected ? 1 : 0);
    if (connected) {
        parts_->broker_connects.Increment();
    }
}

void Metrics::published(const std::string& kind, std::size_t bytes) {
    const prometheus::Labels labels{{"kind", one_of(kKinds, kind)}};
    parts_->published.Add(labels).Increment();
    parts_->published_bytes.Add(labels).Increment(static_cast<double>(bytes));
}

void Metrics::acknowledged(Seconds duration) {
    parts_->publish_seconds.Observe(duration.count());
}

void Metrics::outbox(std::size_t messages) {
    parts_->outbox.Set(static_cast<double>(messages));
}

void Metrics::lost(const std::string& kind, std::uint64_t messages) {
    parts_->lost_messages.Add({{"kind", one_of(kKinds, kind)}})
        .Increment(static_cast<double>(messages));
}

void Metrics::journal(std::uint64_t entries, std::uint64_t bytes) {
    parts_->journal_entries.Set(static_cast<double>(entries));
    parts_->journal_bytes.Set(static_cast<double>(bytes));
}

void Metrics::reloaded(bool ok) {
    parts_->reloads.Add({{"result", ok ? "ok" : "failed"}}).Increment();
}

}  // namespace jovu_bridge
