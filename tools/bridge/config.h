// SPDX-License-Identifier: Apache-2.0

/// @file
/// The configuration of the bridge: a TOML file, read into a plain structure.
#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "bridge/log.h"

namespace jovu_bridge {

/// The configuration. Each member is a key of the file, of the table that the structure is named
/// after; the initial values are the defaults of the file.
struct Config {
    /// The least severe lines that are logged.
    LogLevel log_level = LogLevel::info;
    /// Of this bridge in topics. Empty: the name of the host.
    std::string name;
    /// Absolute. Journal and jobs that are being fetched.
    std::string state_folder = "/var/lib/jovu-bridge";

    struct Broker {
        /// mqtt://HOST[:PORT] without TLS, mqtts://HOST[:PORT] with it.
        std::string url = "mqtt://localhost:1883";
        std::string prefix = "jovu";  ///< Of all topics; one or more levels.
        std::string client_id;        ///< Empty: "jovu-bridge-" and the bridge's name.
        std::string user;
        std::string password_file;     ///< As the files below: see resolve_file().
        std::string ca_file;           ///< Empty: the system's certificates.
        std::string certificate_file;  ///< With key_file: the bridge's own.
        std::string key_file;
        std::chrono::milliseconds keep_alive{30000};  ///< Whole seconds.
        bool allow_plain_text = false;  ///< Also for a broker that is not on this computer.
        bool allow_anonymous = false;   ///< Likewise, with neither user nor certificate.
    } broker;

    struct Devices {
        std::vector<std::string> serials{"*"};  ///< Patterns of those that this bridge owns.
        std::vector<std::string> read_only;     ///< Patterns of serial numbers.
        std::chrono::milliseconds status_interval{5000};  ///< Between two published reports.
    } devices;

    struct Requests {
        /// Patterns. One that begins with '!' takes away what it matches, wherever it stands.
        std::vector<std::string> commands{"*", "!Enter_dfu_mode", "!Reset_printer"};
        std::uint64_t max_payload = 65536;  ///< Bytes.
        std::uint64_t max_lines = 1000;     ///< Of one gcode request.
        std::uint64_t max_queue = 32;       ///< Requests that wait for one device.
        std::chrono::milliseconds max_trace{60000};
    } requests;

    struct Jobs {
        std::vector<std::string> folders;      ///< Of file: URLs. Absolute; links are resolved.
        std::string ca_file;                   ///< For https, instead of the system's certificates.
        std::uint64_t max_size = 512U << 20U;  ///< Bytes.
        std::uint64_t keep_free = 256U << 20U;  ///< Bytes that stay free in the state folder.
        std::chrono::milliseconds connect_timeout{30000};
        std::chrono::milliseconds stall_timeout{60000};  ///< Below 1 KiB/s for so long.
    } jobs;

    struct Journal {
        std::chrono::milliseconds max_age = std::chrono::hours(7 * 24);
        std::uint64_t max_entries = 100000;
    } journal;

    struct Outbox {
        std::uint64_t max_events = 10000;     ///< While the broker is away.
        std::uint64_t max_responses = 10000;  ///< Likewise.
    } outbox;

    struct MetricsEndpoint {
        std::string address = "127.0.0.1:9464";  ///< ADDRESS:PORT. Empty: none.
    } metrics;
};

/// A mistake in the configuration.
struct ConfigProblem {
    std::string file;
    unsigned line = 0;  ///< From 1; 0 when the mistake has no place in the file.
    unsigned column = 0;
    std::string what;  ///< The key, the value, the reason and what is possible.
};

/// @return "FILE:LINE:COLUMN: WHAT", without control characters.
std::string to_string(const ConfigProblem& problem);

/// Where a key stands in its file.
struct ConfigPlace {
    unsigned line = 0;
    unsigned column = 0;
};

/// A configuration with all the mistakes that its text has.
struct ReadConfig {
    std::string file;  ///< Absolute, unless the text was read from elsewhere.
    Config config;     ///< Where a value is wrong, its default.
    std::vector<ConfigProblem> problems;
    std::map<std::string, ConfigPlace> places;  ///< Of the keys that are given, as "broker.url".
};

/// Reads a configuration. Reads no file that it names.
/// @param name of the file, for messages.
ReadConfig parse_config(std::string_view text, const std::string& name);

/// Reads a configuration file of at most 1 MiB. A file that cannot be read is a problem as well.
ReadConfig read_config(const std::string& file);

/// Checks what parse_config() cannot: that files can be read, that nobody else can read the
/// password and the key, that certificate and key belong together, and that the state folder is
/// writable. Changes nothing.
/// @return the mistakes, with the places of their keys.
std::vector<ConfigProblem> check_files(const ReadConfig& read);

/// The keys that differ and take effect only when the bridge starts, as "broker.url".
std::vector<std::string> changes_for_restart(const Config& before, const Config& after);

/// The keys that differ, as "broker.url".
std::vector<std::string> changes(const Config& before, const Config& after);

/// All keys, in the order of the example, as "broker.url".
std::vector<std::string> config_keys();

/// The path of a file that a key names. A relative name is a credential that the service manager
/// passes (the folder CREDENTIALS_DIRECTORY) if it has one of that name, otherwise relative to the
/// folder of the configuration file.
std::string resolve_file(const std::string& config_file, const std::string& value);

/// Reads the password: the first line of its file.
/// @return empty when no file is configured.
/// @throws jovu_mqtt::Error that names the file and the reason.
std::string read_password(const ReadConfig& read);

/// Whether a pattern matches, as jovu_mqtt::matches_glob() does, and none that begins with '!'.
bool matches_any(const std::vector<std::string>& patterns, const std::string& name);

}  // namespace jovu_bridge
