// SPDX-License-Identifier: Apache-2.0
#include "bridge/config.h"

#include <arpa/inet.h>

#include <toml++/toml.h>
#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <optional>
#include <sstream>
#include <system_error>
#include <utility>
#include <variant>

#include "cli/suggestions.h"
#include "mqtt/broker_url.h"
#include "mqtt/error.h"
#include "mqtt/topics.h"
#include "terminal/printable.h"

namespace jovu_bridge {
namespace {

using Milliseconds = std::chrono::milliseconds;
using Strings = std::vector<std::string>;
using Value = std::variant<std::string*, bool*, std::uint64_t*, Milliseconds*, Strings*, LogLevel*>;

constexpr std::size_t kMaxShown = 80;  ///< Characters of a value in a message.
constexpr std::uint64_t kTebibyte = 1ULL << 40U;
constexpr std::uint64_t kYear = 366ULL * 24 * 3600;  ///< Seconds.
constexpr std::uint64_t kDay = 24ULL * 3600;         ///< Seconds.

constexpr std::array<std::pair<const char*, LogLevel>, 4> kLevels{{{"error", LogLevel::error},
                                                                   {"warning", LogLevel::warning},
                                                                   {"info", LogLevel::info},
                                                                   {"debug", LogLevel::debug}}};

/// Whether text can stand in a file name or a topic: UTF-8 without control characters.
bool is_plain(const std::string& text) {
    return jovu_cli::printable(text) == text;
}

bool is_absolute(const std::string& path) {
    return is_plain(path) && path.rfind('/', 0) == 0;
}

bool is_prefix(const std::string& prefix) {
    constexpr std::size_t kMaxPrefix = 200;
    try {
        static_cast<void>(jovu_mqtt::Topics(prefix));
        return is_plain(prefix) && !prefix.empty() && prefix.size() <= kMaxPrefix;
    } catch (const jovu_mqtt::Error&) {
        return false;
    }
}

bool is_name(const std::string& name) {
    constexpr std::size_t kMaxName = 64;
    return is_plain(name) && name.size() <= kMaxName;
}

bool is_pattern(const std::string& pattern) {
    return is_plain(pattern) && !pattern.empty();
}

bool is_job_folder(const std::string& path) {
    return is_absolute(path) && path.find_first_not_of('/') != std::string::npos;
}

std::optional<int> parse_port(std::string_view digits, int least) {
    constexpr int kMaxPort = 65535;
    int port = 0;
    const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), port);
    if (error != std::errc() || end != digits.data() + digits.size() || port < least ||
        port > kMaxPort) {
        return std::nullopt;
    }
    return port;
}

bool is_listen_address(const std::string& address) {
    if (address.empty()) {
        return true;
    }
    const std::size_t colon = address.rfind(':');
    if (colon == std::string::npos || !parse_port(std::string_view(address).substr(colon + 1), 0)) {
        return false;
    }
    std::string host = address.substr(0, colon);
    in6_addr parsed{};
    if (host.size() > 2 && host.front() == '[' && host.back() == ']') {
        return inet_pton(AF_INET6, host.substr(1, host.size() - 2).c_str(), &parsed) == 1;
    }
    return inet_pton(AF_INET, host.c_str(), &parsed) == 1;
}

bool is_broker_url(const std::string& url) {
    try {
        return jovu_mqtt::parse_broker_url(url).prefix.empty();
    } catch (const jovu_mqtt::Error&) {
        return false;
    }
}

/// One key of the file.
struct Row {
    const char* table;  ///< Empty for the keys at the top.
    const char* name;
    bool restart;  ///< A change takes effect when the bridge starts.
    Value (*member)(Config& config);
    const char* possible;  ///< Completes "must be ...".
    std::uint64_t least = 0;
    std::uint64_t most = 0;  ///< Both of numbers, and of durations in seconds.
    bool (*valid)(const std::string& value) = is_plain;  ///< Of a string, or each of a list.

    std::string key() const { return (*table == '\0' ? "" : std::string(table) + ".") + name; }
};

constexpr const char* kFilePossible =
    "the name of a file: a credential of the service, or a path, also one relative to this file";
constexpr const char* kYesNo = "true or false";

#define JOVU_MEMBER(member) [](Config& config) -> Value { return &config.member; }

const std::vector<Row>& rows() {
    static const std::vector<Row> table{
        {"", "log_level", false, JOVU_MEMBER(log_level),
         "\"error\", \"warning\", \"info\" or \"debug\""},
        {"", "name", true, JOVU_MEMBER(name),
         "a name of at most 64 bytes without control characters", 0, 0, is_name},
        {"", "state_folder", true, JOVU_MEMBER(state_folder), "an absolute path", 0, 0,
         is_absolute},
        {"broker", "url", true, JOVU_MEMBER(broker.url),
         "mqtt://HOST[:PORT] or mqtts://HOST[:PORT]", 0, 0, is_broker_url},
        {"broker", "prefix", true, JOVU_MEMBER(broker.prefix),
         "levels of a topic, as \"jovu\" or \"site/jovu\": none is empty, has + or #, and the "
         "first "
         "does not begin with $",
         0, 0, is_prefix},
        {"broker", "client_id", true, JOVU_MEMBER(broker.client_id),
         "a name of at most 64 bytes without control characters", 0, 0, is_name},
        {"broker", "user", true, JOVU_MEMBER(broker.user), "a name without control characters"},
        {"broker", "password_file", true, JOVU_MEMBER(broker.password_file), kFilePossible},
        {"broker", "ca_file", true, JOVU_MEMBER(broker.ca_file), kFilePossible},
        {"broker", "certificate_file", true, JOVU_MEMBER(broker.certificate_file), kFilePossible},
        {"broker", "key_file", true, JOVU_MEMBER(broker.key_file), kFilePossible},
        {"broker", "keep_alive", true, JOVU_MEMBER(broker.keep_alive), "seconds from 5 to 3600", 5,
         3600},
        {"broker", "allow_plain_text", true, JOVU_MEMBER(broker.allow_plain_text), kYesNo},
        {"broker", "allow_anonymous", true, JOVU_MEMBER(broker.allow_anonymous), kYesNo},
        {"devices", "serials", true, JOVU_MEMBER(devices.serials),
         "a list of patterns, as [\"JVS*\"]", 0, 0, is_pattern},
        {"devices", "read_only", false, JOVU_MEMBER(devices.read_only),
         "a list of patterns, as [\"JVS*\"]", 0, 0, is_pattern},
        {"devices", "status_interval", false, JOVU_MEMBER(devices.status_interval),
         "seconds from 0.1 to 3600", 0, 3600},
        {"requests", "commands", false, JOVU_MEMBER(requests.commands),
         "a list of patterns, as [\"*_get\"]", 0, 0, is_pattern},
        {"requests", "max_payload", false, JOVU_MEMBER(requests.max_payload),
         "bytes from 1024 to 1048576", 1024, 1048576},
        {"requests", "max_lines", false, JOVU_MEMBER(requests.max_lines),
         "a whole number from 1 to 100000", 1, 100000},
        {"requests", "max_queue", false, JOVU_MEMBER(requests.max_queue),
         "a whole number from 1 to 10000", 1, 10000},
        {"requests", "max_trace", false, JOVU_MEMBER(requests.max_trace), "seconds from 1 to 3600",
         1, 3600},
        {"jobs", "folders", false, JOVU_MEMBER(jobs.folders),
         "a list of absolute paths other than \"/\", which would permit every file", 0, 0,
         is_job_folder},
        {"jobs", "ca_file", false, JOVU_MEMBER(jobs.ca_file), kFilePossible},
        {"jobs", "max_size", false, JOVU_MEMBER(jobs.max_size), "bytes from 1 to 2^40", 1,
         kTebibyte},
        {"jobs", "keep_free", false, JOVU_MEMBER(jobs.keep_free), "bytes from 0 to 2^40", 0,
         kTebibyte},
        {"jobs", "connect_timeout", false, JOVU_MEMBER(jobs.connect_timeout),
         "seconds from 1 to 300", 1, 300},
        {"jobs", "stall_timeout", false, JOVU_MEMBER(jobs.stall_timeout), "seconds from 1 to 3600",
         1, 3600},
        {"journal", "max_age", false, JOVU_MEMBER(journal.max_age),
         "seconds from 86400, a day, to 31622400, a year", kDay, kYear},
        {"journal", "max_entries", false, JOVU_MEMBER(journal.max_entries),
         "a whole number from 100 to 10000000", 100, 10000000},
        {"outbox", "max_events", true, JOVU_MEMBER(outbox.max_events),
         "a whole number from 1 to 1000000", 1, 1000000},
        {"outbox", "max_responses", true, JOVU_MEMBER(outbox.max_responses),
         "a whole number from 1 to 1000000", 1, 1000000},
        {"metrics", "address", true, JOVU_MEMBER(metrics.address),
         "ADDRESS:PORT with an IP address, as \"127.0.0.1:9464\" or \"[::1]:9464\", or empty", 0, 0,
         is_listen_address},
    };
    return table;
}

#undef JOVU_MEMBER

/// A value as the file has it, cut.
std::string shown(const toml::node& node) {
    std::ostringstream out;  // With six digits: 0.05 is not 0.050000000000000003.
    if (const toml::value<double>* number = node.as_floating_point()) {
        out << number->get();
    } else {
        node.visit([&out](const auto& value) { out << value; });
    }
    return jovu_cli::fit(jovu_cli::printable(out.str()), kMaxShown);
}

std::optional<std::uint64_t> read_integer(const toml::node& node) {
    const toml::value<std::int64_t>* value = node.as_integer();
    if (value == nullptr || value->get() < 0) {
        return std::nullopt;
    }
    return static_cast<std::uint64_t>(value->get());
}

std::optional<Milliseconds> read_seconds(const toml::node& node) {
    constexpr double kPerSecond = 1000;
    if (!node.is_number()) {
        return std::nullopt;
    }
    const double seconds = node.value<double>().value_or(-1);
    if (!(seconds >= 0 && seconds <= static_cast<double>(kYear))) {
        return std::nullopt;
    }
    return Milliseconds(std::llround(seconds * kPerSecond));
}

std::optional<std::string> read_string(const Row& row, const toml::node& node) {
    const std::optional<std::string> value = node.value_exact<std::string>();
    return value && row.valid(*value) ? value : std::nullopt;
}

/// Reads the values of a file into a configuration.
class Reader {
public:
    Reader(const std::string& name, ReadConfig& read) : name_(name), read_(read) {}

    void read(const toml::table& top) {
        for (const Row& row : rows()) {
            const toml::node* node = *row.table == '\0' ? top.get(row.name) : nullptr;
            if (*row.table != '\0') {
                const toml::table* table = top[row.table].as_table();
                node = table == nullptr ? nullptr : table->get(row.name);
            }
            if (node != nullptr) {
                const toml::source_position& place = node->source().begin;
                read_.places[row.key()] = {place.line, place.column};
                read_value(row, *node);
            }
        }
        for (const auto& [key, node] : top) {
            find_unknown(std::string(key.str()), node, key.source().begin);
        }
    }

    /// Checks what several keys mean together.
    void check_together() {
        const Config::Broker& broker = read_.config.broker;
        if (broker.certificate_file.empty() != broker.key_file.empty()) {
            const bool key_given = broker.certificate_file.empty();
            problem(key_given ? "broker.key_file" : "broker.certificate_file",
                    std::string("needs the other one, ") +
                        (key_given ? "broker.certificate_file" : "broker.key_file"));
        }
        if (!broker.password_file.empty() && broker.user.empty()) {
            problem("broker.password_file", "needs broker.user");
        }
        if (!broker.user.empty() && broker.password_file.empty()) {
            problem("broker.user", "needs broker.password_file");
        }
        if (has_problem("broker.url")) {
            return;
        }
        const jovu_mqtt::BrokerUrl url = jovu_mqtt::parse_broker_url(broker.url);
        for (const char* key : {"broker.ca_file", "broker.certificate_file"}) {
            if (!url.tls && !has_default(key)) {
                problem(key, "has no effect without TLS: write mqtts:// in broker.url");
            }
        }
        jovu_mqtt::Protection protection;
        protection.authenticated = !broker.user.empty();
        protection.allow_plain_text = broker.allow_plain_text;
        protection.allow_anonymous = broker.allow_anonymous;
        protection.plain_text_setting = "broker.allow_plain_text = true";
        protection.anonymous_setting = "broker.allow_anonymous = true";
        try {
            jovu_mqtt::check_protection(url, protection);
        } catch (const jovu_mqtt::Error& error) {
            problem("broker.url", std::string(error.what()) + ": " + error.hint());
        }
    }

private:
    void problem(const std::string& key, const std::string& what) {
        const auto place = read_.places.find(key);
        const ConfigPlace at = place == read_.places.end() ? ConfigPlace{} : place->second;
        read_.problems.push_back({name_, at.line, at.column, key + ": " + what});
    }

    /// Whether a key has its default, given or not.
    bool has_default(const std::string& key) const {
        const Strings changed = changes(Config{}, read_.config);
        return std::find(changed.begin(), changed.end(), key) == changed.end();
    }

    bool has_problem(const std::string& key) const {
        return std::any_of(
            read_.problems.begin(), read_.problems.end(),
            [&key](const ConfigProblem& known) { return known.what.rfind(key + ":", 0) == 0; });
    }

    void read_value(const Row& row, const toml::node& node) {
        const bool taken = std::visit([&](auto* target) { return assign(row, node, *target); },
                                      row.member(read_.config));
        // A URL with a user may have a password, which is not shown.
        const std::string value = shown(node);
        if (!taken && row.valid == is_broker_url && value.find('@') != std::string::npos) {
            problem(row.key(),
                    "must have no user and no password: write them in broker.user and in "
                    "the file broker.password_file");
        } else if (!taken) {
            problem(row.key(), value + ": must be " + row.possible);
        }
    }

    static bool assign(const Row& row, const toml::node& node, std::string& target) {
        const std::optional<std::string> value = read_string(row, node);
        target = value.value_or(target);
        return value.has_value();
    }

    static bool assign(const Row& /*row*/, const toml::node& node, bool& target) {
        const std::optional<bool> value = node.value_exact<bool>();
        target = value.value_or(target);
        return value.has_value();
    }

    static bool assign(const Row& row, const toml::node& node, std::uint64_t& target) {
        const std::optional<std::uint64_t> value = read_integer(node);
        if (!value || *value < row.least || *value > row.most) {
            return false;
        }
        target = *value;
        return true;
    }

    static bool assign(const Row& row, const toml::node& node, Milliseconds& target) {
        constexpr Milliseconds kShortest{100};
        const std::optional<Milliseconds> value = read_seconds(node);
        if (!value || *value < std::max(kShortest, Milliseconds(row.least * 1000)) ||
            *value > Milliseconds(row.most * 1000)) {
            return false;
        }
        target = *value;
        return true;
    }

    static bool assign(const Row& row, const toml::node& node, Strings& target) {
        const toml::array* list = node.as_array();
        Strings values;
        if (list == nullptr) {
            return false;
        }
        for (const toml::node& element : *list) {
            const std::optional<std::string> value = read_string(row, element);
            if (!value) {
                return false;
            }
            values.push_back(*value);
        }
        target = std::move(values);
        return true;
    }

    static bool assign(const Row& /*row*/, const toml::node& node, LogLevel& target) {
        const std::optional<std::string> value = node.value_exact<std::string>();
        for (const auto& [name, level] : kLevels) {
            if (value == name) {
                target = level;
                return true;
            }
        }
        return false;
    }

    /// Reports a key or a table that does not exist. Never its value, which may be a secret.
    void find_unknown(const std::string& key, const toml::node& node,
                      const toml::source_position& place) {
        Strings names;
        bool is_table = false;
        for (const Row& row : rows()) {
            is_table = is_table || key == row.table;
            names.emplace_back(*row.table == '\0' ? row.name : row.table);
        }
        if (is_table) {
            if (const toml::table* table = node.as_table()) {
                find_unknown_in(key, *table);
            } else {
                add_unknown(key, place, "must be a table: [" + key + "]");
            }
        } else if (std::find(names.begin(), names.end(), key) == names.end()) {
            names.erase(std::unique(names.begin(), names.end()), names.end());
            unknown(key, key, names, place);
        }
    }

    void find_unknown_in(const std::string& table, const toml::table& keys) {
        Strings names;
        for (const Row& row : rows()) {
            if (table == row.table) {
                names.emplace_back(row.name);
            }
        }
        for (const auto& [key, node] : keys) {
            if (std::find(names.begin(), names.end(), key.str()) == names.end()) {
                const std::string name(key.str());
                unknown(name, std::string(table).append(".").append(name), names,
                        key.source().begin);
            }
        }
    }

    void unknown(const std::string& typed, const std::string& key, const Strings& names,
                 const toml::source_position& place) {
        const std::string hint = jovu_cli::did_you_mean(typed, names);
        std::string all;
        for (const std::string& name : names) {
            all.append(all.empty() ? "possible are " : ", ").append(name);
        }
        add_unknown(key, place, "is no key of the configuration: " + (hint.empty() ? all : hint));
    }

    void add_unknown(const std::string& key, const toml::source_position& place,
                     const std::string& what) {
        read_.problems.push_back(
            {name_, place.line, place.column,
             jovu_cli::fit(jovu_cli::printable(key), kMaxShown) + ": " + what});
    }

    const std::string& name_;
    ReadConfig& read_;
};

/// The keys that differ, of those that @p row_counts accepts.
template <typename Predicate>
Strings different_keys(const Config& before, const Config& after, Predicate row_counts) {
    Config first = before;
    Config second = after;
    Strings keys;
    for (const Row& row : rows()) {
        const Value other = row.member(second);
        const bool same = std::visit(
            [&other](auto* value) { return *value == *std::get<decltype(value)>(other); },
            row.member(first));
        if (!same && row_counts(row)) {
            keys.push_back(row.key());
        }
    }
    return keys;
}

}  // namespace

std::string to_string(const ConfigProblem& problem) {
    std::string place = problem.file;
    if (problem.line != 0) {
        place += ":" + std::to_string(problem.line) + ":" + std::to_string(problem.column);
    }
    return jovu_cli::printable(place + ": " + problem.what);
}

ReadConfig parse_config(std::string_view text, const std::string& name) {
    ReadConfig read;
    read.file = name;
    try {
        const toml::table table = toml::parse(text, name);
        Reader reader(name, read);
        reader.read(table);
        reader.check_together();
    } catch (const toml::parse_error& error) {
        const toml::source_position& place = error.source().begin;
        // The parser's sentence can contain what stands there, but it never crosses the line's end.
        read.problems.push_back({name, place.line, place.column, std::string(error.description())});
    }
    std::stable_sort(read.problems.begin(), read.problems.end(),
                     [](const ConfigProblem& a, const ConfigProblem& b) {
                         return std::pair(a.line, a.column) < std::pair(b.line, b.column);
                     });
    return read;
}

std::vector<std::string> changes_for_restart(const Config& before, const Config& after) {
    return different_keys(before, after, [](const Row& row) { return row.restart; });
}

std::vector<std::string> changes(const Config& before, const Config& after) {
    return different_keys(before, after, [](const Row& /*row*/) { return true; });
}

std::vector<std::string> config_keys() {
    Strings keys;
    for (const Row& row : rows()) {
        keys.push_back(row.key());
    }
    return keys;
}

bool matches_any(const std::vector<std::string>& patterns, const std::string& name) {
    bool found = false;
    for (const std::string& pattern : patterns) {
        const bool takes_away = pattern.rfind('!', 0) == 0;
        if (jovu_mqtt::matches_glob(takes_away ? pattern.substr(1) : pattern, name)) {
            if (takes_away) {
                return false;
            }
            found = true;
        }
    }
    return found;
}

}  // namespace jovu_bridge
