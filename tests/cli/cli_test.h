/// @file
/// Helpers of the tests of the program.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <vector>

#include "program.h"
#include "support/job_file.h"
#include "support/sim_control.h"
#include "support/wait.h"

namespace test {

/// @return the JSON values of an output with one on each line.
/// @throws nlohmann::json::parse_error when a line is not valid JSON.
inline std::vector<nlohmann::json> json_lines(const std::string& text) {
    std::vector<nlohmann::json> values;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        values.push_back(nlohmann::json::parse(line));
    }
    return values;
}

/// Lets a device send debug messages until a program prints one.
inline bool listens(Program& program, JovuDeviceAddress device) {
    return eventually([&] {
        sim("event " + name(device) + " listening?");
        return program.writes("listening?", std::chrono::milliseconds(50));
    });
}

/// @return the number of status requests that a device received.
inline int status_requests(JovuDeviceAddress device) {
    return stats(device)["job"]["requests"].value("status", 0);
}

/// Lets a device send this status report.
inline void send_report(JovuDeviceAddress device, nlohmann::json report) {
    report["metadata"] = {{"type", "status"}};
    std::ostringstream hex;
    for (const char c : report.dump()) {
        const auto byte = static_cast<unsigned char>(c);
        hex << "0123456789abcdef"[byte >> 4U] << "0123456789abcdef"[byte & 15U];
    }
    sim("send " + name(device) + " job " + hex.str());
}

/// Responds to a program's next status request with this report instead of the device's own.
inline void respond_to_next_request(JovuDeviceAddress device, const nlohmann::json& report) {
    sim("fault " + name(device) + " silent always");
    const int before = status_requests(device);
    ASSERT_TRUE(eventually([&] { return status_requests(device) > before; }));
    send_report(device, report);
}

}  // namespace test
