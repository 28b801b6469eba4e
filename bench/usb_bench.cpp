// SPDX-License-Identifier: Apache-2.0

/// @file
/// What the library costs beyond bare libusb, on the simulated bus or on a real one.
///
/// Both programs run in processes of their own and take turns; a ratio is the median of the ratios
/// of the rounds.
#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <atomic>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "child.h"
#include "measure.h"
#include "program.h"
#include "results.h"
#include "simulator.h"

namespace {

using bench::Address;
using bench::at_least;
using bench::at_most;
using bench::by_turns;
using bench::Child;
using bench::Clock;
using bench::control;
using bench::Figures;
using bench::kBare;
using bench::kJovu;
using bench::Measure;
using bench::median;
using bench::Meter;
using bench::milliseconds;
using bench::Name;
using bench::Program;
using bench::quantile;
using bench::ratio_at_least;
using bench::ratio_at_most;
using bench::Rounds;
using bench::Turn;

struct Options {
    std::string bus = "simulated bus";
    double effort = 1;
    double round_trip_limit = 1.05;
    bench::Results results;

    int rounds(double usual) const { return std::max(3, static_cast<int>(usual * effort)); }
};

[[noreturn]] void fail(const std::string& why) {
    throw std::runtime_error(why);
}

/// Times of the programs' own calls, in milliseconds.
template <class Call>
double timed(Call call) {
    const Clock::time_point begin = Clock::now();
    call();
    return milliseconds(Clock::now() - begin);
}

/// A thread for each controller that makes exchanges until the time is over.
/// @return how many.
int exchange_all(Program& program, const std::vector<std::size_t>& controllers,
                 std::chrono::milliseconds time) {
    std::atomic<int> exchanges{0};
    std::atomic<bool> failed{false};
    const auto end = Clock::now() + time;
    std::vector<std::thread> senders;
    for (const std::size_t i : controllers) {
        senders.emplace_back([&, i] {
            for (; Clock::now() < end; ++exchanges)
                if (!program.exchange(i)) failed = true;
        });
    }
    for (std::thread& sender : senders)
        sender.join();
    if (failed) fail("a healthy controller did not respond");
    return exchanges;
}

std::vector<std::size_t> first_numbers(std::size_t count) {
    std::vector<std::size_t> numbers;
    for (std::size_t i = 0; i < count; ++i)
        numbers.push_back(i);
    return numbers;
}

/// A process for either program, with as many new controllers each. They are renewed after a few
/// rounds, in the other order: where a process lies in memory, and which controller it has, changes
/// its time by some percent.
class Pair {
public:
    using Body = std::function<void(Turn&, Program&, const std::vector<Address>&)>;

    Pair(std::size_t controllers, Body body, bench::Threads threads = bench::Threads::event_thread)
        : controllers_(controllers), body_(std::move(body)), threads_(threads) {}

    Figures operator()(Name name) {
        if (turns_++ % (2 * kRounds) == 0) renew();
        return children_[name]->turn();
    }

private:
    static constexpr int kRounds = 4;

    void renew() {
        for (auto& child : children_)
            child.reset();
        const std::vector<Address> all = bench::plug_anew(2 * controllers_);
        const bool swapped = turns_ / (2 * kRounds) % 2 != 0;
        const auto middle = all.begin() + static_cast<std::ptrdiff_t>(controllers_);
        start(swapped ? kBare : kJovu, {all.begin(), middle});
        start(swapped ? kJovu : kBare, {middle, all.end()});
    }

    void start(Name name, const std::vector<Address>& own) {
        children_[name] = std::make_unique<Child>([&](Turn& turn) {
            const auto program = bench::start(name, own, threads_);
            program->wait_opened(controllers_);
            for (std::size_t i = 0; i < controllers_; ++i)
                program->exchange(i);
            body_(turn, *program, own);
        });
    }

    const std::size_t controllers_;
    const Body body_;
    const bench::Threads threads_;
    int turns_ = 0;
    std::unique_ptr<Child> children_[2];
};

/// A new process on a bus with new controllers, for one turn.
Figures once(std::size_t controllers,
             const std::function<void(Turn&, const std::vector<Address>&)>& body) {
    const std::vector<Address> own = bench::plug_anew(controllers);
    return Child([&](Turn& turn) {
               turn.next();
               body(turn, own);
               turn.next();
           })
        .turn();
}

void round_trip(Options& options) {
    // Short rounds, so that both programs find the computer in the same state.
    constexpr int kBatch = 100;
    Pair pair(1, [](Turn& turn, Program& program, const auto&) {
        while (turn.next()) {
            std::vector<double> times;
            const Meter meter;
            while (times.size() < kBatch) {
                times.push_back(1000 * timed([&] {
                                    if (!program.exchange(0)) fail("no response");
                                }));
            }
            turn.report("CPU", meter.cpu_us() / kBatch);
            turn.report("context switches", meter.switches() / kBatch);
            turn.report("median", median(times));
            turn.report("99 %", quantile(times, 0.99));
        }
    });
    options.results.add("round trip", options.bus,
                        by_turns("round trip", options.rounds(128), std::ref(pair)),
                        {{"median", "us", ratio_at_most(options.round_trip_limit)},
                         {"99 %", "us"},
                         {"CPU", "us"},
                         {"context switches", ""}});
}

/// A file of that many bytes, removed with this object.
class JobFile {
public:
    explicit JobFile(std::size_t size) {
        const int descriptor = ::mkstemp(path_.data());
        if (descriptor < 0) fail("no temporary file");
        ::close(descriptor);
        std::ofstream file(path_);
        std::string lines;
        for (unsigned i = 0; lines.size() < std::min<std::size_t>(size, 1U << 20U); ++i)
            lines += "G1 X" + std::to_string(i % 200) + ".25 Y" + std::to_string(i % 173) + " E1\n";
        for (std::size_t left = size; left > 0;) {
            const std::size_t count = std::min(left, lines.size());
            file.write(lines.data(), static_cast<std::streamsize>(count));
            left -= count;
        }
        if (!file.flush()) fail("cannot write " + path_);
    }
    ~JobFile() { std::remove(path_.c_str()); }
    JobFile(const JobFile&) = delete;
    JobFile& operator=(const JobFile&) = delete;

    const std::string& path() const { return path_; }

private:
    std::string path_ = std::filesystem::temp_directory_path() / "jovu-bench-XXXXXX";
};

constexpr std::size_t kMiB = 1U << 20U;

/// Pushes a file whose checksum the device confirms.
void push_checked(Program& program, const std::string& path, Address address) {
    program.push(0, path);
    if (!bench::push_verified(address)) fail("the pushed file did not arrive as it was");
}

/// Against a program of one thread, which waits for its own transfers, and against one with the
/// library's threads.
void push(Options& options) {
    const JobFile file(16 * kMiB);
    const auto body = [&](Turn& turn, Program& program, const std::vector<Address>& own) {
        while (turn.next()) {
            const Meter meter;
            push_checked(program, file.path(), own[0]);
            turn.report("CPU", meter.cpu_us() / 1000);
            turn.report("context switches", meter.switches());
            turn.report("rate", 16 / (meter.ms() / 1000));
        }
    };
    for (const auto threads : {bench::Threads::one, bench::Threads::event_thread}) {
        Pair pair(1, body, threads);
        options.results.add(
            "push 16 MiB", threads == bench::Threads::one ? "to one thread" : "to two threads",
            by_turns("push", options.rounds(12), std::ref(pair)),
            {{"rate", "MiB/s", ratio_at_least(0.95)}, {"CPU", "ms"}, {"context switches", ""}});
    }
}

/// A line of /proc/self/status, in KiB.
double memory(const std::string& key) {
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);) {
        if (line.rfind(key + ":", 0) == 0) return std::atof(line.c_str() + key.size() + 1);
    }
    fail("no " + key + " in /proc/self/status");
}

void memory_of_push(Options& options) {
    for (const std::size_t mib : {1U, 16U, 256U}) {
        const JobFile file(mib * kMiB);
        const auto body = [&](Name name) {
            return once(1, [&](Turn& turn, const std::vector<Address>& own) {
                const auto program = bench::start(name, own);
                program->wait_opened(1);
                program->exchange(0);
                std::ofstream("/proc/self/clear_refs") << 5;  // Resets the peak.
                const double before = memory("VmRSS");
                push_checked(*program, file.path(), own[0]);
                turn.report("peak growth", memory("VmHWM") - before);
            });
        };
        options.results.add("push memory", std::to_string(mib) + " MiB",
                            by_turns("push memory", 1, body),
                            {{"peak growth", "KiB", std::nullopt, 0.5, false}});
    }
}

void parallel(Options& options) {
    for (const std::size_t count : {1U, 2U, 4U, 8U}) {
        Pair pair(count, [&](Turn& turn, Program& program, const auto&) {
            while (turn.next()) {
                const Meter meter;
                const int exchanges =
                    exchange_all(program, first_numbers(count), std::chrono::milliseconds(400));
                turn.report("CPU", meter.cpu_us() / exchanges);
                turn.report("context switches", meter.switches() / exchanges);
                turn.report("rate", exchanges / (meter.ms() / 1000));
            }
        });
        const std::string subject =
            std::to_string(count) + (count == 1 ? " controller" : " controllers");
        options.results.add(
            "exchanges", subject, by_turns(subject, options.rounds(12), std::ref(pair)),
            {{"rate", "1/s", ratio_at_least(0.9)}, {"CPU", "us"}, {"context switches", ""}});
    }
}

/// Seven controllers with a thread each, and an eighth that is idle and then takes no data while a
/// thread sends commands to it. Both in one process: from one process to another, the rate of eight
/// controllers differs by more than the limit.
void stuck(Options& options) {
    static constexpr std::size_t kStuck = 7;
    const auto in_one_process = [](Name name) {
        return once(8, [&](Turn& turn, const std::vector<Address>& own) {
            // Lives as long as the process: the thread of the stuck controller does not end.
            static const auto program = bench::start(name, own);
            program->wait_opened(own.size());
            const auto rate = [] {
                exchange_all(*program, first_numbers(kStuck), std::chrono::milliseconds(100));
                const Meter meter;
                const int exchanges =
                    exchange_all(*program, first_numbers(kStuck), std::chrono::milliseconds(700));
                return exchanges / (meter.ms() / 1000);
            };
            const double idle = rate();
            control("fault " + bench::name_of(own[kStuck]) + " never 02 always");
            std::thread([] {
                for (;;) {
                    if (program->exchange(kStuck))
                        std::fputs("the stuck controller responds\n", stderr);
                    std::this_thread::sleep_for(std::chrono::milliseconds(1));
                }
            }).detach();
            turn.report("rate of the others", rate() / idle);
            turn.report("list_connected()", timed([&] { program->list(); }));
            turn.report("close()", timed([&] { program->close(0); }));
        });
    };
    const std::optional<bench::Wanted> none;
    options.results.add("one stuck of 8", options.bus,
                        by_turns("stuck", options.rounds(16), in_one_process),
                        {{"rate of the others", "of idle", at_least(0.95)},
                         {"list_connected()", "ms", none, 0.5, false},
                         {"close()", "ms", none, 0.5, false}});
}

void events(Options& options) {
    Pair pair(1, [](Turn& turn, Program& program, const std::vector<Address>&) {
        while (turn.next()) {
            program.trace(0, true);
            const std::uint64_t before = program.events();
            const Meter meter;
            std::this_thread::sleep_for(std::chrono::milliseconds(1000));
            const auto count = static_cast<double>(program.events() - before);
            turn.report("CPU", meter.cpu_us() / count);
            turn.report("rate", count / (meter.ms() / 1000));
            turn.report("context switches", meter.switches() / count);
            turn.report("lost", static_cast<double>(program.lost_events()));
            program.trace(0, false);
        }
    });
    options.results.add("events", options.bus,
                        by_turns("events", options.rounds(10), std::ref(pair)),
                        {{"CPU", "us", ratio_at_most(1)},
                         {"context switches", ""},
                         {"rate", "1/s"},
                         {"lost", "", at_most(0), 1, false}});
}

/// @param open how many of them are opened. The simulated bus limits that number: one program can
/// have some 45 device nodes open.
void devices(Options& options, std::size_t attached, std::size_t open) {
    constexpr int kScans = 20;
    const auto body = [&](Name name) {
        return once(attached, [&](Turn& turn, const std::vector<Address>& all) {
            const std::vector<Address> some(all.begin(),
                                            all.begin() + static_cast<std::ptrdiff_t>(open));
            const Meter start_meter;
            const auto program =
                bench::start(name, open == attached ? std::vector<Address>() : some);
            program->wait_opened(open);
            turn.report("all announced", start_meter.ms());
            const Meter scans;
            for (int i = 0; i < kScans; ++i) {
                program->scan();
                std::this_thread::sleep_for(std::chrono::milliseconds(10));
            }
            turn.report("scan", scans.cpu_us() / kScans / static_cast<double>(attached));
            const Meter idle;
            std::this_thread::sleep_for(std::chrono::milliseconds(1500));
            turn.report("idle CPU", idle.cpu_us() / (idle.ms() / 1000));
            turn.report("idle wake-ups", idle.switches() / (idle.ms() / 1000));
        });
    };
    const std::string subject = std::to_string(attached) +
                                (attached == 1 ? " device" : " devices") +
                                (open == attached ? "" : ", " + std::to_string(open) + " open");
    const std::optional<bench::Wanted> none;
    options.results.add("devices", subject, by_turns(subject, options.rounds(7), body),
                        {{"all announced", "ms"},
                         {"scan", "us each"},
                         {"idle CPU", "us/s", none, 0.5, false},
                         {"idle wake-ups", "1/s", none, 0.5, false}});
}

void all_devices(Options& options) {
    for (const std::size_t count : {1U, 8U, 32U})
        devices(options, count, count);
    devices(options, 100, 1);
}

/// From the start of a program to its end.
Figures run_program(const std::vector<std::string>& command) {
    std::vector<char*> arguments;
    for (const std::string& word : command)
        arguments.push_back(const_cast<char*>(word.c_str()));
    arguments.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    ::posix_spawn_file_actions_init(&actions);
    ::posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
    const Meter meter;
    pid_t process = 0;
    const int error =
        ::posix_spawn(&process, arguments[0], &actions, nullptr, arguments.data(), environ);
    ::posix_spawn_file_actions_destroy(&actions);
    int status = 0;
    rusage usage{};
    if (error != 0 || ::wait4(process, &status, 0, &usage) != process || status != 0)
        fail(command[0] + " failed");
    const auto us = [](const timeval& time) {
        return static_cast<double>(time.tv_sec) * 1e6 + static_cast<double>(time.tv_usec);
    };
    return {{"start to exit", meter.ms()},
            {"CPU", (us(usage.ru_utime) + us(usage.ru_stime)) / 1000}};
}

void start(Options& options) {
    const auto body = [](Name name) {
        return once(1, [&](Turn& turn, const std::vector<Address>&) {
            const Meter meter;
            auto program = bench::start(name, {});
            program->wait_opened(1);
            if (!program->exchange(0)) fail("no response");
            turn.report("to first response", meter.ms());
            turn.report("CPU", meter.cpu_us() / 1000);
            turn.report("destruction", timed([&] { program.reset(); }));
        });
    };
    options.results.add(
        "start", "program", by_turns("start", options.rounds(40), body),
        {{"to first response", "ms", ratio_at_most(1.2)}, {"CPU", "ms"}, {"destruction", "ms"}});
    const auto folder = std::filesystem::read_symlink("/proc/self/exe").parent_path();
    bench::plug_anew(1);
    const auto info = [&](Name name) {
        return run_program(name == kJovu ? std::vector<std::string>{folder / "jovu", "info"}
                                         : std::vector<std::string>{folder / "bare_info"});
    };
    options.results.add("start", "jovu info", by_turns("jovu info", options.rounds(30), info),
                        {{"start to exit", "ms"}, {"CPU", "ms"}});
}

void hot_plug(Options& options) {
    constexpr std::size_t kPlugs = 5;
    std::minstd_rand random_numbers{std::random_device{}()};
    const auto body = [&](Name name) {
        std::uniform_int_distribution<int> phases(0, 500);
        std::vector<std::chrono::milliseconds> pauses;
        while (pauses.size() < kPlugs)
            pauses.emplace_back(phases(random_numbers));
        return once(0, [&](Turn& turn, const std::vector<Address>&) {
            const auto program = bench::start(name, {});
            std::vector<double> times;
            for (const auto pause : pauses) {
                std::this_thread::sleep_for(pause);
                const std::string plugged = control("plug");
                times.push_back(timed([&] { program->wait_opened(times.size() + 1); }));
                control("unplug " + plugged);
                program->wait_closed(times.size());
            }
            turn.report("median", median(times));
            turn.report("longest", quantile(times, 1));
        });
    };
    options.results.add("hot-plug", "to announcement",
                        by_turns("hot-plug", options.rounds(6), body),
                        {{"median", "ms", at_most(50)}, {"longest", "ms", at_most(50), 1}});
}

using Table = std::pair<const char*, void (*)(Options&)>;
constexpr Table kTables[] = {
    {"round-trip", round_trip}, {"push", push},   {"memory", memory_of_push},
    {"parallel", parallel},     {"stuck", stuck}, {"events", events},
    {"devices", all_devices},   {"start", start}, {"hot-plug", hot_plug},
};

int run(int argc, char** argv) {
    CLI::App app(
        "Compares libjovu with bare libusb, on the bus of jovu-sim run --time-scale 1000 "
        "-- usb_bench. It replaces the controllers there by its own.");
    Options options;
    std::vector<std::string> names;
    std::transform(std::begin(kTables), std::end(kTables), std::back_inserter(names),
                   [](const Table& table) { return table.first; });
    std::vector<std::string> chosen;
    std::string json;
    app.add_option("TABLE", chosen, "What to measure; usually everything")
        ->check(CLI::IsMember(names));
    app.add_option("--effort", options.effort, "Number of rounds, as a factor (usually 1)")
        ->check(CLI::Range(0.1, 100.0));
    app.add_option("--json", json, "Write the results to that file, - for standard output")
        ->type_name("FILE");
    app.add_option("--bus", options.bus, "Name of the bus in the results")->capture_default_str();
    app.add_option("--round-trip-limit", options.round_trip_limit, "Wanted ratio of the round trip")
        ->capture_default_str();
    CLI11_PARSE(app, argc, argv);
    std::printf("%-12s %-22s %-22s %9s %9s %-9s %6s\n", "table", "of", "measure", "libjovu",
                "floor", "unit", "ratio (quartiles)");
    for (const auto& [name, measure] : kTables) {
        if (chosen.empty() || std::find(chosen.begin(), chosen.end(), name) != chosen.end())
            measure(options);
    }
    if (!json.empty()) options.results.write_json(json);
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    try {
        return run(argc, argv);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "usb_bench: %s\n", error.what());
        return 1;
    }
}
