// SPDX-License-Identifier: Apache-2.0
#include <curl/curl.h>
#include <gmock/gmock.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <memory>
#include <regex>
#include <set>
#include <string>
#include <thread>

#include "bridge/log.h"
#include "bridge/metrics.h"

namespace jovu_bridge {
namespace {

using ::testing::AllOf;
using ::testing::ContainsRegex;
using ::testing::HasSubstr;
using ::testing::Not;
using Seconds = Metrics::Seconds;

/// What a log writes while @p work uses it.
template <typename Work>
std::string logged(bool priorities, Work&& work) {
    const std::unique_ptr<std::FILE, decltype(&std::fclose)> file(std::tmpfile(), &std::fclose);
    {
        Log log(::fileno(file.get()), priorities);
        work(log);
    }
    std::string text(1U << 23U, '\0');
    std::rewind(file.get());
    text.resize(std::fread(text.data(), 1, text.size(), file.get()));
    return text;
}

TEST(BridgeLog, WritesOneLineForEachEvent) {
    EXPECT_EQ(logged(true,
                     [](Log& log) {
                         log.error("a\n<3>forged\x1b[2J");
                         log.info("b");
                         log.debug("not shown");
                         log.set_level(LogLevel::debug);
                         log.debug("c");
                     }),
              "<3>a\\n<3>forged\\x1b[2J\n<6>b\n<7>c\n");
    EXPECT_EQ(logged(false, [](Log& log) { log.warning("plain"); }), "plain\n");
}

TEST(BridgeLog, LimitsLinesThatDifferInNumbersOnly) {
    const std::string text = logged(false, [](Log& log) {
        for (int i = 0; i < 1000; ++i) {
            log.warning("device 1:" + std::to_string(i) + " failed");
        }
        log.warning("another line");
    });
    EXPECT_EQ(text,
              "device 1:0 failed\ndevice 1:1 failed\ndevice 1:2 failed\ndevice 1:3 failed\n"
              "device 1:4 failed\nanother line\n"
              "995 more lines like this one were left out: device 1:999 failed\n");
}

TEST(BridgeLog, RemembersFewKindsOfLines) {
    const std::string text = logged(false, [](Log& log) {
        for (int i = 0; i < 7; ++i) {
            log.info("the first kind");
        }
        for (int i = 1; i < 400; ++i) {
            log.info("kind " + std::string(static_cast<std::size_t>(i), 'x'));
        }
        log.info(std::string(100000, 'l'));
    });
    EXPECT_THAT(text,
                ContainsRegex("2 more lines like this one were left out: the first kind\nkind x"));
    EXPECT_LT(text.size() - text.rfind('\n', text.size() - 2), 4200U);
}

TEST(BridgeMetrics, CountWhatHappens) {
    Metrics metrics("lab", "1.2.3");
    metrics.device_connected("A1");
    metrics.exchange("A1", Seconds(0.003), "");
    metrics.exchange("A1", Seconds(0.3), "stalled");
    metrics.request("job", Seconds(3), "fetch_failed");
    metrics.request("status", Seconds(0.002), "");
    metrics.job("A1", "sending", 25);
    metrics.job("A1", "active", 50);
    metrics.job_ended("");
    metrics.job_bytes_sent("A1", 1000);
    metrics.trace_samples("A1", 10, 2);
    metrics.broker_connected(true);
    metrics.published("event", 33);
    metrics.lost("event", 4);
    metrics.reloaded(false);
    const std::string text = metrics.text();
    for (const char* line : {
             "jovu_bridge_info{bridge=\"lab\",version=\"1.2.3\"} 1\n",
             "jovu_devices 1\n",
             "jovu_device_up{serial=\"A1\"} 1\n",
             "jovu_exchanges_total{serial=\"A1\"} 2\n",
             "jovu_exchange_failures_total{code=\"stalled\",serial=\"A1\"} 1\n",
             "jovu_exchange_seconds_bucket{le=\"0.005\"} 1\n",
             "jovu_requests_total{operation=\"job\"} 1\n",
             "jovu_request_failures_total{code=\"fetch_failed\"} 1\n",
             "jovu_job_phase{phase=\"active\",serial=\"A1\"} 1\n",
             "jovu_job_percent{serial=\"A1\"} 50\n",
             "jovu_jobs_total{code=\"done\"} 1\n",
             "jovu_job_sent_bytes_total{serial=\"A1\"} 1000\n",
             "jovu_trace_lost_samples_total{serial=\"A1\"} 2\n",
             "jovu_broker_connected 1\n",
             "jovu_published_bytes_total{kind=\"event\"} 33\n",
             "jovu_lost_messages_total{kind=\"event\"} 4\n",
             "jovu_reloads_total{result=\"failed\"} 1\n",
         }) {
        EXPECT_THAT(text, HasSubstr(line));
    }
    EXPECT_THAT(text, Not(HasSubstr("sending")));
    EXPECT_THAT(text, ContainsRegex("process_resident_memory_bytes [1-9]"));
}

/// The names in a text that look like metrics of the bridge.
std::set<std::string> metric_names(const std::string& text) {
    static const std::regex name("\\b(jovu|process)_[a-z_]+_[a-z_]+\\b|\\bjovu_devices\\b");
    std::set<std::string> names;
    for (std::sregex_iterator match(text.begin(), text.end(), name), end; match != end; ++match) {
        names.insert(std::regex_replace(match->str(), std::regex("_(bucket|sum|count)$"), ""));
    }
    return names;
}

// The dashboard, the alert rules and the manual name no metric that does not exist, and the manual
// names all.
TEST(BridgeMetrics, AreThoseOfTheDashboardTheRulesAndTheManual) {
    Metrics metrics("lab", "1");
    metrics.device_connected("A1");
    metrics.exchange("A1", Seconds(1), "busy");
    metrics.request("job", Seconds(1), "busy");
    metrics.job("A1", "sending", 1);
    const std::set<std::string> existing = metric_names(metrics.text());
    for (const char* name : {"packaging/bridge/grafana-dashboard.json",
                             "packaging/bridge/jovu-alerts.yml", "docs/bridge.md"}) {
        std::ifstream file(std::string(JOVU_SOURCES "/") + name);
        const std::string text{std::istreambuf_iterator<char>(file), {}};
        const std::set<std::string> named = metric_names(text);
        EXPECT_GT(named.size(), 5U) << name;
        EXPECT_THAT(named, ::testing::IsSubsetOf(existing)) << name;
        if (std::string(name) == "docs/bridge.md") {
            EXPECT_THAT(existing, ::testing::IsSubsetOf(named));
        }
    }
}

TEST(BridgeMetrics, KeepNoSeriesOfADeviceThatLeft) {
    Metrics metrics("lab", "1");
    const std::string before = metrics.text();
    const auto lines = [](const std::string& text) {
        return std::count(text.begin(), text.end(), '\n');
    };
    for (int i = 0; i < 500; ++i) {
        const std::string serial = "S" + std::to_string(i);
        metrics.device_connected(serial);
        metrics.exchange(serial, Seconds(1), "busy");
        metrics.job(serial, "sending", 1);
        metrics.device_disconnected(serial);
        metrics.exchange(serial, Seconds(1), "busy");
        // What a requester or a device chooses adds no series either.
        metrics.request("operation " + serial, Seconds(1), "code " + serial);
        metrics.published("kind " + serial, 1);
    }
    const std::string after = metrics.text();
    EXPECT_THAT(after, Not(HasSubstr("serial=")));
    EXPECT_THAT(after, Not(HasSubstr("S499")));
    EXPECT_LT(lines(after), lines(before) + 40);
    EXPECT_THAT(after, HasSubstr("jovu_device_connects_total 500\n"));
}

TEST(BridgeMetrics, LabelsAreTextWhateverTheSerialNumber) {
    Metrics metrics("lab", "1");
    metrics.device_connected("\xff\"\n{" + std::string(1000, 'x'));
    metrics.device_connected("\xff\"\n{" + std::string(1000, 'x') + "other");
    const std::string text = metrics.text();
    EXPECT_THAT(text, HasSubstr("jovu_device_up{serial=\"\\\\xff\\\"\\\\n{xxx"));
    EXPECT_THAT(text, HasSubstr("jovu_devices 1\n"));
    metrics.device_disconnected("\xff\"\n{" + std::string(1000, 'x') + "other");
    EXPECT_THAT(metrics.text(), HasSubstr("jovu_devices 1\n"));
}

std::string get(const std::string& url) {
    const std::unique_ptr<CURL, decltype(&curl_easy_cleanup)> transfer(curl_easy_init(),
                                                                       &curl_easy_cleanup);
    std::string text;
    const auto take = +[](char* data, std::size_t, std::size_t size, void* target) {
        static_cast<std::string*>(target)->append(data, size);
        return size;
    };
    curl_easy_setopt(transfer.get(), CURLOPT_URL, url.c_str());
    curl_easy_setopt(transfer.get(), CURLOPT_WRITEFUNCTION, take);
    curl_easy_setopt(transfer.get(), CURLOPT_WRITEDATA, &text);
    curl_easy_setopt(transfer.get(), CURLOPT_NOSIGNAL, 1L);
    return curl_easy_perform(transfer.get()) == CURLE_OK ? text : "failed";
}

TEST(BridgeMetrics, AreServedWhileDevicesComeAndGo) {
    Metrics metrics("lab", "1");
    const std::string address = "127.0.0.1:" + std::to_string(metrics.serve("127.0.0.1:0"));
    std::thread changes([&metrics] {
        for (int i = 0; i < 2000; ++i) {
            metrics.device_connected("A1");
            metrics.exchange("A1", Seconds(0.1), i % 2 == 0 ? "" : "busy");
            metrics.job("A1", i % 2 == 0 ? "sending" : "active", 1);
            metrics.device_disconnected("A1");
        }
    });
    for (int i = 0; i < 20; ++i) {
        EXPECT_THAT(get("http://" + address + "/metrics"),
                    AllOf(HasSubstr("jovu_devices "), HasSubstr("process_cpu_seconds_total ")));
    }
    changes.join();
    Metrics second("lab", "1");
    try {
        second.serve(address);
        ADD_FAILURE() << "the address was free";
    } catch (const std::runtime_error& error) {
        EXPECT_THAT(error.what(), HasSubstr("metrics.address: cannot listen at " + address));
    }
}

}  // namespace
}  // namespace jovu_bridge
