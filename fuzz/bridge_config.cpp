// SPDX-License-Identifier: Apache-2.0

/// @file
/// Configuration files of the bridge.
#include <cstdint>
#include <string>

#include "bridge/config.h"
#include "require.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string text(data, data + size);
    const jovu_bridge::ReadConfig read = jovu_bridge::parse_config(text, "c.toml");
    for (const jovu_bridge::ConfigProblem& problem : read.problems) {
        const std::string line = to_string(problem);
        REQUIRE(!problem.what.empty());
        REQUIRE(line.size() < 4000);
        REQUIRE(line.find('\n') == std::string::npos);
    }
    // Whatever the text, the values are within their limits.
    const jovu_bridge::Config& config = read.config;
    REQUIRE(config.requests.max_payload >= 1024 && config.requests.max_payload <= 1048576);
    REQUIRE(config.requests.max_lines >= 1 && config.requests.max_queue >= 1);
    REQUIRE(config.devices.status_interval.count() >= 100);
    REQUIRE(config.state_folder.front() == '/');
    REQUIRE(!config.broker.prefix.empty());
    REQUIRE(jovu_bridge::changes(config, config).empty());
    return 0;
}
