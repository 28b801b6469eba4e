// SPDX-License-Identifier: Apache-2.0

/// @file
/// A bridge with many controllers, a broker, and many subscribers, all on this computer: how long a
/// debug message takes from a controller to each subscriber, what the bridge costs, and whether its
/// memory grows.
///
/// The controllers are on a libusb made of memory, which this program has in place of the system's.
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <atomic>
#include <charconv>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <exception>
#include <fstream>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "bridge/bridge.h"
#include "measure.h"
#include "memory_controllers.h"
#include "support/broker.h"

namespace {

using bench::Clock;

std::int64_t now_us() {
    return std::chrono::duration_cast<std::chrono::microseconds>(Clock::now().time_since_epoch())
        .count();
}

double cpu_seconds(const rusage& usage) {
    const auto seconds = [](const timeval& time) {
        return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
    };
    return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

/// Processor time of another process.
double cpu_seconds(pid_t process) {
    std::ifstream stat("/proc/" + std::to_string(process) + "/stat");
    std::string word;  // The name in brackets, mosquitto, is one word.
    double ticks = 0;
    for (int field = 1; stat >> word; ++field) {
        if (field == 14 || field == 15) ticks += std::stod(word);
    }
    return ticks / static_cast<double>(sysconf(_SC_CLK_TCK));
}

double resident_mib() {
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);) {
        if (line.rfind("VmRSS:", 0) == 0) return std::atof(line.c_str() + 6) / 1024;
    }
    return 0;
}

struct Options {
    std::size_t devices = 200;
    std::size_t subscribers = 50;
    double rate = 1;             ///< Debug messages of each device in a second.
    double status_interval = 5;  ///< Seconds.
    std::size_t messages = 0;    ///< Of all devices; 0 for as many as fit in `seconds`.
    double seconds = 30;
};

/// The subscribers, in a process of their own. Writes what they have received to standard output.
class Subscribers {
public:
    Subscribers(const Options& options, const std::string& url) {
        int ends[2];
        int output[2];
        if (pipe(ends) != 0 || pipe(output) != 0) throw std::runtime_error("no pipe");
        process_ = fork();
        if (process_ < 0) throw std::runtime_error("no process");
        if (process_ == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            close(ends[1]);
            int status = 1;
            try {
                receive(options, url, ends[0], output[1]);
                status = 0;
            } catch (const std::exception& error) {
                std::fprintf(stderr, "bridge_bench: a subscriber: %s\n", error.what());
            }
            _exit(status);
        }
        close(ends[0]);
        close(output[1]);
        stop_ = ends[1];
        output_ = output[0];
    }
    ~Subscribers() {
        kill(process_, SIGKILL);
        waitpid(process_, nullptr, 0);
    }
    Subscribers(const Subscribers&) = delete;
    Subscribers& operator=(const Subscribers&) = delete;

    /// Waits until all have subscribed.
    void wait_ready() const {
        char byte = 0;
        if (read(output_, &byte, 1) != 1) throw std::runtime_error("the subscribers have ended");
    }

    /// @return what they have received, as text.
    std::string end() const {
        close(stop_);
        std::string text;
        char block[4096];
        for (ssize_t size = 0; (size = read(output_, block, sizeof block)) > 0;)
            text.append(block, static_cast<std::size_t>(size));
        return text;
    }

private:
    static void receive(const Options& options, const std::string& url, int stop, int output) {
        struct Received {
            std::mutex mutex;
            std::vector<double> latencies;  ///< Milliseconds.
        };
        std::vector<std::unique_ptr<Received>> received;
        std::atomic<std::size_t> ready{0};
        std::vector<std::unique_ptr<jovu_mqtt::Client>> clients;
        const jovu_mqtt::Topics topics;
        for (std::size_t i = 0; i < options.subscribers; ++i) {
            received.push_back(std::make_unique<Received>());
            jovu_mqtt::ClientOptions client;
            client.broker = jovu_mqtt::parse_broker_url(url);
            client.client_id = "subscriber-" + std::to_string(i);
            jovu_mqtt::Handlers handlers;
            handlers.subscribed = [&ready](const std::string&, const std::string& refusal) {
                if (refusal.empty()) ++ready;
            };
            handlers.message = [own = received.back().get()](const jovu_mqtt::Message& message) {
                const std::int64_t now = now_us();
                const std::size_t at = message.payload.find("t=");
                std::int64_t sent = 0;
                if (at == std::string::npos) return;
                std::from_chars(message.payload.data() + at + 2,
                                message.payload.data() + message.payload.size(), sent);
                const std::lock_guard lock(own->mutex);
                own->latencies.push_back(static_cast<double>(now - sent) / 1000);
            };
            clients.push_back(
                std::make_unique<jovu_mqtt::Client>(std::move(client), std::move(handlers)));
            clients.back()->subscribe({topics.all_devices("event"), 1, false, false});
            clients.back()->start();
        }
        while (ready < options.subscribers)
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        if (write(output, "r", 1) != 1) return;
        char byte = 0;
        while (read(stop, &byte, 1) > 0) {
        }
        clients.clear();
        std::vector<double> all;
        for (const auto& own : received)
            all.insert(all.end(), own->latencies.begin(), own->latencies.end());
        rusage usage{};
        getrusage(RUSAGE_SELF, &usage);
        const std::string text =
            "received           " + std::to_string(all.size()) + "\n" + "latency, median    " +
            std::to_string(bench::quantile(all, 0.5)) + " ms\n" + "latency, 99 %      " +
            std::to_string(bench::quantile(all, 0.99)) + " ms\n" + "latency, longest   " +
            std::to_string(bench::quantile(all, 1)) + " ms\n" + "CPU of subscribers " +
            std::to_string(cpu_seconds(usage)) + " s\n";
        if (write(output, text.data(), text.size()) < 0) _exit(1);
    }

    pid_t process_ = -1;
    int stop_ = -1;
    int output_ = -1;
};

/// Waits until the bridge has announced every device.
void wait_announced(const Options& options, const std::string& url) {
    std::atomic<std::size_t> online{0};
    jovu_mqtt::ClientOptions client;
    client.broker = jovu_mqtt::parse_broker_url(url);
    client.client_id = "observer";
    jovu_mqtt::Handlers handlers;
    handlers.message = [&online](const jovu_mqtt::Message& message) {
        if (message.payload.find("\"online\"") != std::string::npos) ++online;
    };
    jovu_mqtt::Client observer(std::move(client), std::move(handlers));
    observer.subscribe({jovu_mqtt::Topics().all_devices("availability")});
    observer.start();
    const auto deadline = Clock::now() + std::chrono::minutes(2);
    while (online < options.devices) {
        if (Clock::now() > deadline) {
            throw std::runtime_error("only " + std::to_string(online) + " devices are announced");
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
}

void run(const Options& options) {
    const test::Broker broker("allow_anonymous true\nmax_queued_messages 0\n");
    Subscribers subscribers(options, broker.url());  // A process of its own, before any thread.
    subscribers.wait_ready();
    bench::plug_controllers(options.devices);

    const test::TemporaryFolder folder;
    char configuration[512];
    std::snprintf(configuration, sizeof configuration,
                  "name = 'bench'\nstate_folder = '%s'\n[broker]\nurl = '%s'\n[devices]\n"
                  "status_interval = %g\n[metrics]\naddress = ''\n",
                  folder.path().c_str(), broker.url().c_str(), options.status_interval);
    jovu_bridge::Log log(STDERR_FILENO, false);
    log.set_level(jovu_bridge::LogLevel::warning);
    const jovu_bridge::ReadConfig read = jovu_bridge::parse_config(configuration, "bench");
    for (const auto& problem : read.problems)
        throw std::runtime_error(to_string(problem));
    jovu_bridge::Bridge bridge(read, log);
    const auto begin = Clock::now();
    bridge.start();
    wait_announced(options, broker.url());
    std::printf("devices            %zu, announced after %.0f ms\n", options.devices,
                bench::milliseconds(Clock::now() - begin));

    const double total =
        options.messages != 0
            ? static_cast<double>(options.messages)
            : options.rate * static_cast<double>(options.devices) * options.seconds;
    const double per_second = options.rate * static_cast<double>(options.devices);
    const double broker_cpu = cpu_seconds(broker.process());
    const std::uint64_t responses = bench::responses();
    const bench::Meter meter;
    std::vector<double> memory{resident_mib()};
    const auto first = Clock::now();
    for (std::size_t i = 0; i < static_cast<std::size_t>(total); ++i) {
        std::this_thread::sleep_until(
            first + std::chrono::duration_cast<Clock::duration>(
                        std::chrono::duration<double>(static_cast<double>(i) / per_second)));
        bench::send_debug_message(i % options.devices, "t=" + std::to_string(now_us()) + " x");
        if (i % (static_cast<std::size_t>(total) / 10 + 1) == 0) memory.push_back(resident_mib());
    }
    const double ms = meter.ms();
    const double cpu = meter.cpu_us() / 1e6;
    const double broker_used = cpu_seconds(broker.process()) - broker_cpu;
    std::this_thread::sleep_for(std::chrono::seconds(2));  // What is on its way arrives.
    memory.push_back(resident_mib());
    std::printf("messages           %.0f in %.1f s, %.0f/s; %llu responses\n", total, ms / 1000,
                total / (ms / 1000),
                static_cast<unsigned long long>(bench::responses() - responses));
    std::printf("%s", subscribers.end().c_str());
    std::printf("expected           %.0f\n", total * static_cast<double>(options.subscribers));
    std::printf("CPU of the bridge  %.2f %% of a core, %.3f %% for each device\n", cpu / ms * 1e5,
                cpu / ms * 1e5 / static_cast<double>(options.devices));
    std::printf("CPU of the broker  %.2f %% of a core\n", broker_used / ms * 1e5);
    std::printf("memory, MiB       ");
    for (const double mib : memory)
        std::printf(" %.1f", mib);
    std::printf("\n");
    bridge.stop(std::chrono::seconds(5));
}

}  // namespace

int main(int argc, char** argv) {
    std::setvbuf(stdout, nullptr, _IOLBF, 0);
    try {
        CLI::App app(
            "Measures a bridge with many controllers in memory, a broker and subscribers.");
        Options options;
        app.add_option("--devices", options.devices)
            ->check(CLI::Range(1, 3000))
            ->capture_default_str();
        app.add_option("--subscribers", options.subscribers)
            ->check(CLI::Range(0, 500))
            ->capture_default_str();
        app.add_option("--rate", options.rate, "Debug messages of each device in a second")
            ->check(CLI::PositiveNumber)
            ->capture_default_str();
        app.add_option("--status-interval", options.status_interval, "Seconds")
            ->capture_default_str();
        app.add_option("--messages", options.messages, "Of all devices together");
        app.add_option("--seconds", options.seconds)
            ->check(CLI::PositiveNumber)
            ->capture_default_str();
        CLI11_PARSE(app, argc, argv);
        run(options);
        return 0;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "bridge_bench: %s\n", error.what());
        return 1;
    }
}
