// SPDX-License-Identifier: Apache-2.0

/// @file
/// How far controllers delay one another, compared with a bare libusb program on the same bus.
///
/// Each measurement runs in a child process on a bus that is plugged anew. The child ends without
/// cleanup once it has reported, and is killed when it overruns its limit.
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <limits>
#include <map>
#include <random>
#include <string_view>
#include <utility>

#include "parallel_programs.h"

namespace {

using bench::BareLibusb;
using bench::Libjovu;
using bench::Program;
using Clock = std::chrono::steady_clock;
using Writes = BareLibusb::Writes;

constexpr std::size_t kHealthy = 0;
constexpr std::size_t kStuck = 1;
constexpr std::size_t kLists = 100;  ///< Calls of list() in a round.

/// A measurement that takes longer, beside its time of exchanges, is ended.
constexpr std::chrono::seconds kLimit{60};

/// Stands for the time of a call that was still running then.
constexpr double kEndless = std::numeric_limits<double>::infinity();

/// Chooses when in a scan interval a controller is plugged in.
std::minstd_rand random_numbers{std::random_device{}()};

struct Options {
    int rounds = 5;
    double seconds = 2;
    std::size_t controllers = 2;
    std::string only;
};

constexpr const char* kHelp =
    R"(Usage: jovu-sim run -- parallel_bench [OPTION...]

Shows how far controllers delay one another, with libjovu and with bare libusb.

  --rounds N       repeat each measurement, libjovu and bare by turns (1 to 1000, usually 5)
  --seconds S      time of exchanges in a round (0.1 to 600, usually 2)
  --controllers N  number for the latency table, the stuck one included (2 to 16, usually 2)
  --only TABLE     latency, rates or calls; usually all three

It replaces the controllers on the bus by its own. A measurement that hangs is ended after a minute;
its time shows as inf, and what would have followed as nan.
)";

enum Name { kJovu, kBare };
constexpr const char* kNames[] = {"libjovu", "bare"};

std::unique_ptr<Program> start(Name name, Writes writes) {
    if (name == kBare) return std::make_unique<BareLibusb>(writes);
    return std::make_unique<Libjovu>();
}

std::string address_of(std::size_t controller) {
    return "1:" + std::to_string(controller + 2);
}

/// Sends a request to the simulator. @return what follows "ok ".
std::string control(const std::string& request) {
    const auto fail = [&](const std::string& why) {
        throw std::runtime_error("simulator request \"" + request + "\": " + why);
    };
    const char* const path = std::getenv("JOVU_SIM_CONTROL");
    if (path == nullptr) throw std::runtime_error("start it with jovu-sim run -- parallel_bench");
    sockaddr_un name{};
    name.sun_family = AF_UNIX;
    std::strncpy(name.sun_path, path, sizeof name.sun_path - 1);
    struct Socket {
        ~Socket() { ::close(fd); }
        const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    } const socket;
    const std::string line = request + "\n";
    if (::connect(socket.fd, reinterpret_cast<const sockaddr*>(&name), sizeof name) != 0 ||
        ::send(socket.fd, line.data(), line.size(), MSG_NOSIGNAL) !=
            static_cast<ssize_t>(line.size())) {
        fail(std::strerror(errno));
    }
    std::string reply;
    char buffer[4096];
    while (reply.empty() || reply.back() != '\n') {
        const ssize_t size = ::recv(socket.fd, buffer, sizeof buffer, 0);
        if (size <= 0) fail("no reply");
        reply.append(buffer, static_cast<std::size_t>(size));
    }
    reply.pop_back();
    if (reply.rfind("ok", 0) != 0) fail(reply);
    return reply.substr(std::min<std::size_t>(3, reply.size()));
}

/// Leaves that many new controllers on the bus.
void plug_anew(std::size_t count) {
    const std::string list = control("list");
    for (std::size_t at = 0; at < list.size();) {
        control("unplug " + list.substr(at, list.find(' ', at) - at));
        const std::size_t comma = list.find(", ", at);
        at = comma == std::string::npos ? list.size() : comma + 2;
    }
    for (std::size_t i = 0; i < count; ++i)
        control("plug " + address_of(i));
}

enum Kind { kLatency, kFailures, kRate, kCpu, kList, kArrival, kClose, kShutdown };
using Results = std::map<Kind, std::vector<double>>;
using Report = std::function<void(Kind, double)>;

struct Sample {
    Kind kind;
    double value;
};

struct Measurement {
    Name name;
    Writes writes;
    std::size_t controllers;
    std::function<void(Program&, const Report&)> work;
};

[[noreturn]] void run_child(const Measurement& what, int pipe_end) {
    try {
        // The library prints a line for each failed exchange.
        if (std::freopen("/dev/null", "w", stdout) == nullptr) throw std::runtime_error("no null");
        const std::unique_ptr<Program> program = start(what.name, what.writes);
        program->wait_opened(what.controllers);
        for (std::size_t i = 0; i < what.controllers; ++i)
            program->exchange(i);
        what.work(*program, [pipe_end](Kind kind, double value) {
            const Sample sample{kind, value};
            if (::write(pipe_end, &sample, sizeof sample) != sizeof sample) ::_exit(1);
        });
        ::_exit(0);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "parallel_bench: %s\n", error.what());
        ::_exit(1);
    }
}

/// Adds what a child process reports to the results.
/// @return false if it was killed at the limit.
bool in_child(const Options& options, Results& results, const Measurement& what) {
    plug_anew(what.controllers);
    int ends[2];
    if (::pipe(ends) != 0) throw std::runtime_error("no pipe");
    std::fflush(nullptr);
    const pid_t child = ::fork();
    if (child < 0) throw std::runtime_error("no child process");
    if (child == 0) run_child(what, ends[1]);
    ::close(ends[1]);
    const auto deadline = Clock::now() + kLimit + std::chrono::duration<double>(options.seconds);
    bool killed = false;
    for (Sample sample{}; !killed;) {
        const double left = std::chrono::duration<double>(deadline - Clock::now()).count();
        pollfd ready{ends[0], POLLIN, 0};
        killed = left <= 0 || ::poll(&ready, 1, static_cast<int>(left * 1000) + 1) == 0;
        // A sample is smaller than PIPE_BUF, so it arrives whole.
        if (!killed && ::read(ends[0], &sample, sizeof sample) != sizeof sample) break;
        if (!killed) results[sample.kind].push_back(sample.value);
    }
    ::close(ends[0]);
    if (killed) ::kill(child, SIGKILL);
    int status = 0;
    ::waitpid(child, &status, 0);
    if (!killed && status != 0) throw std::runtime_error("a measurement failed");
    return !killed;
}

double timed(const std::function<void()>& call) {
    const Clock::time_point begin = Clock::now();
    call();
    return std::chrono::duration<double, std::milli>(Clock::now() - begin).count();
}

/// Waits until a write to the stuck controller is under way.
void wait_stuck() {
    constexpr std::string_view kKey = R"("in_flight":)";
    for (int tries = 0; tries < 2000; ++tries) {
        const std::string stats = control("stats " + address_of(kStuck));
        const std::size_t endpoint = stats.find(R"("02":{)");
        const std::size_t at = stats.find(kKey, std::min(endpoint, stats.size()));
        if (at != std::string::npos && stats[at + kKey.size()] != '0') return;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    throw std::runtime_error("no write to the stuck controller");
}

/// From now on the controller takes no data, while a thread sends commands to it.
void make_stuck(Program& program) {
    control("fault " + address_of(kStuck) + " never 02 always");
    std::thread([&program] {
        for (;;) {
            if (program.exchange(kStuck)) std::fputs("the stuck controller responds\n", stderr);
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    }).detach();
    wait_stuck();
}

void measure_latency(const Options& options, Name name, bool stuck, Results& results) {
    const auto work = [&](Program& program, const Report& report) {
        if (stuck) make_stuck(program);
        const auto end = Clock::now() + std::chrono::duration<double>(options.seconds);
        std::vector<std::thread> senders;
        for (std::size_t i = 0; i < options.controllers; ++i) {
            if (i == kStuck) continue;
            senders.emplace_back([&, i] {
                while (Clock::now() < end) {
                    bool done = false;
                    report(kLatency, timed([&] { done = program.exchange(i); }));
                    if (!done) report(kFailures, 1);
                }
            });
        }
        for (std::thread& sender : senders)
            sender.join();
    };
    if (!in_child(options, results, {name, Writes::synchronous, options.controllers, work})) {
        results[kLatency].push_back(kEndless);
    }
}

double cpu_seconds() {
    rusage usage{};
    ::getrusage(RUSAGE_SELF, &usage);
    return static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
           static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

void measure_rate(const Options& options, Name name, std::size_t controllers, Results& results) {
    const auto work = [&](Program& program, const Report& report) {
        std::atomic<int> exchanges{0};
        std::atomic<bool> failed{false};
        const double cpu = cpu_seconds();
        const double milliseconds = timed([&] {
            const auto end = Clock::now() + std::chrono::duration<double>(options.seconds);
            std::vector<std::thread> senders;
            for (std::size_t i = 0; i < controllers; ++i) {
                senders.emplace_back([&, i] {
                    for (; Clock::now() < end; ++exchanges)
                        if (!program.exchange(i)) failed = true;
                });
            }
            for (std::thread& sender : senders)
                sender.join();
        });
        if (failed) throw std::runtime_error("a healthy controller did not respond");
        report(kRate, exchanges * 1000 / milliseconds);
        report(kCpu, (cpu_seconds() - cpu) * 1e6 / exchanges);
    };
    if (!in_child(options, results, {name, Writes::asynchronous, controllers, work})) {
        throw std::runtime_error("exchanges with healthy controllers overran the limit");
    }
}

void measure_calls(const Options& options, Name name, bool stuck, Results& results) {
    Results round;
    const int delay = std::uniform_int_distribution<int>(0, 500)(random_numbers);
    const auto work = [&](Program& program, const Report& report) {
        if (stuck) make_stuck(program);
        const auto measure = [&](Kind kind, const std::function<void()>& call) {
            if (stuck) wait_stuck();
            report(kind, timed(call));
        };
        for (std::size_t i = 0; i < kLists; ++i)
            measure(kList, [&] { program.list(); });
        std::this_thread::sleep_for(std::chrono::milliseconds(delay));
        measure(kArrival, [&] {
            control("plug " + address_of(2));
            program.wait_opened(3);
        });
        measure(kClose, [&] { program.close(kHealthy); });
        measure(kShutdown, [&] { program.shutdown(); });
    };
    const bool whole = in_child(options, round, {name, Writes::asynchronous, 2, work});
    for (const Kind kind : {kList, kArrival, kClose, kShutdown}) {
        std::vector<double>& all = results[kind];
        all.insert(all.end(), round[kind].begin(), round[kind].end());
        if (!whole && round[kind].size() < (kind == kList ? kLists : 1U)) {
            all.push_back(kEndless);
            break;
        }
    }
}

/// @param part 0.5 for the median, 1 for the largest. @return NaN if there is none.
double quantile(std::vector<double> values, double part) {
    if (values.empty()) return std::nan("");
    std::sort(values.begin(), values.end());
    const double rank = std::ceil(part * static_cast<double>(values.size()));
    return values[static_cast<std::size_t>(std::max(rank, 1.0)) - 1];
}

double median(const std::vector<double>& values) {
    return quantile(values, 0.5);
}

std::vector<double> ratios(const std::vector<double>& values, const std::vector<double>& to) {
    std::vector<double> out;
    for (std::size_t i = 0; i < values.size(); ++i)
        out.push_back(values[i] / to[i]);
    return out;
}

/// Measures each variant with both programs by turns, in several rounds.
template <std::size_t Variants>
struct Table {
    Results all[2][Variants];

    template <class Measure>
    Table(const Options& options, Measure measure) {
        for (int i = 0; i < options.rounds; ++i) {
            for (std::size_t variant = 0; variant < Variants; ++variant) {
                for (const Name name : {i % 2 == 0 ? kJovu : kBare, i % 2 == 0 ? kBare : kJovu})
                    measure(name, variant, all[name][variant]);
            }
        }
    }
};

void print_latency(const Options& options) {
    Table<2> table(options, [&](Name name, std::size_t stuck, Results& results) {
        measure_latency(options, name, stuck != 0, results);
    });
    std::printf("\nExchanges with healthy controllers (%zu), ms\n%-8s %-14s %9s %7s %9s %9s %9s\n",
                options.controllers - 1, "program", "other one", "exchanges", "failed", "median",
                "99 %", "max");
    for (const Name name : {kJovu, kBare}) {
        for (const bool stuck : {false, true}) {
            Results& results = table.all[name][stuck];
            const std::vector<double>& times = results[kLatency];
            std::printf("%-8s %-14s %9zu %7zu %9.2f %9.2f %9.2f\n", kNames[name],
                        stuck ? "takes nothing" : "idle", times.size(), results[kFailures].size(),
                        median(times), quantile(times, 0.99), quantile(times, 1));
        }
    }
}

void print_rates(const Options& options) {
    constexpr std::size_t kCounts[] = {1, 2, 4, 8};
    Table<4> table(options, [&](Name name, std::size_t variant, Results& results) {
        measure_rate(options, name, kCounts[variant], results);
    });
    std::printf("\nExchanges a second, one thread for each controller\n%11s", "controllers");
    for (const char* const name : kNames)
        std::printf(" %9s %7s %7s", name, "to one", "CPU us");
    std::printf(" %13s\n", "libjovu/bare");
    for (std::size_t i = 0; i < 4; ++i) {
        std::printf("%11zu", kCounts[i]);
        for (auto& program : table.all) {
            std::printf(" %9.0f %7.2f %7.0f", median(program[i][kRate]),
                        median(ratios(program[i][kRate], program[0][kRate])),
                        median(program[i][kCpu]));
        }
        std::printf(" %13.2f\n",
                    median(ratios(table.all[kJovu][i][kRate], table.all[kBare][i][kRate])));
    }
}

void print_calls(const Options& options) {
    Table<2> table(options, [&](Name name, std::size_t stuck, Results& results) {
        measure_calls(options, name, stuck != 0, results);
    });
    std::printf("\nCalls, ms: median (max)\n%-22s", "");
    for (const char* const name : kNames)
        std::printf(" %13s, %-5s %13s, %-5s", name, "idle", name, "stuck");
    std::puts("");
    constexpr std::pair<Kind, const char*> kRows[] = {{kList, "list_connected()"},
                                                      {kArrival, "arrival of a third one"},
                                                      {kClose, "close(healthy)"},
                                                      {kShutdown, "shutdown()"}};
    for (const auto& [kind, label] : kRows) {
        std::printf("%-22s", label);
        for (auto& program : table.all) {
            for (Results& results : program)
                std::printf(" %9.3f (%8.3f)", median(results[kind]), quantile(results[kind], 1));
        }
        std::puts("");
    }
}

double number(const std::string& flag, const char* text, double low, double high) {
    char* end = nullptr;
    const double value = text == nullptr ? 0 : std::strtod(text, &end);
    if (text == nullptr || end == text || *end != '\0' || !(value >= low && value <= high)) {
        throw std::runtime_error("the number of " + flag + " is missing or bad; see --help");
    }
    return value;
}

Options parse(char** arguments) {
    Options options;
    for (++arguments; *arguments != nullptr; arguments += 2) {
        const std::string flag = arguments[0];
        const char* const value = arguments[1];
        if (flag == "--help") {
            std::fputs(kHelp, stdout);
            std::exit(0);
        } else if (flag == "--rounds") {
            options.rounds = static_cast<int>(number(flag, value, 1, 1000));
        } else if (flag == "--seconds") {
            options.seconds = number(flag, value, 0.1, 600);
        } else if (flag == "--controllers") {
            options.controllers = static_cast<std::size_t>(number(flag, value, 2, 16));
        } else if (flag == "--only" && value != nullptr) {
            options.only = value;
        } else {
            throw std::runtime_error("bad argument " + flag + "; see --help");
        }
    }
    return options;
}

}  // namespace

int main(int /*argc*/, char** argv) {
    try {
        const Options options = parse(argv);
        const std::pair<const char*, void (*)(const Options&)> tables[] = {
            {"latency", print_latency}, {"rates", print_rates}, {"calls", print_calls}};
        bool printed = false;
        for (const auto& [table, print] : tables) {
            if (!options.only.empty() && options.only != table) continue;
            print(options);
            printed = true;
        }
        if (!printed) throw std::runtime_error("--only takes latency, rates or calls");
    } catch (const std::exception& error) {
        std::fprintf(stderr, "parallel_bench: %s\n", error.what());
        return 1;
    }
    return 0;
}
