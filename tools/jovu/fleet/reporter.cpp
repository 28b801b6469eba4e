// SPDX-License-Identifier: Apache-2.0
#include "fleet/reporter.h"

#include <algorithm>
#include <nlohmann/json.hpp>
#include <utility>

#include "cli/failure.h"
#include "terminal/printable.h"

namespace jovu_cli {

FleetReporter::FleetReporter(Output& out, const Fleet& fleet, std::vector<std::string> serials)
    : out_(out), fleet_(fleet), serials_(std::move(serials)) {
    constexpr std::size_t kMaxWidth = 20;
    for (const std::string& serial : serials_) {
        width_ = std::max(width_, std::min(character_count(printable(serial)), kMaxWidth));
    }
}

void FleetReporter::line(const std::string& serial, const std::string& text) {
    std::string name = printable(serial);
    const std::size_t length = character_count(name);
    name.append(length < width_ ? width_ - length : 0, ' ');
    out_.line(name + "  " + text);
}

void FleetReporter::object(const std::string& serial, const Json& members, const char* event) {
    Json object = Json::object();
    if (event != nullptr) {
        object["event"] = event;
    }
    object["serial"] = serial;
    object["bridge"] = fleet_.device(serial).bridge;
    if (members.is_object()) {
        for (const auto& [key, value] : members.items()) {
            if (key != "device" && key != "serial") {
                object[key] = value;
            }
        }
    }
    out_.object(object);
}

void FleetReporter::fail(const std::string& serial, const std::string& code,
                         const std::string& message) {
    failed_.insert(serial);
    if (out_.json()) {
        object(serial, {{"error", {{"code", code}, {"message", message}}}});
    } else {
        line(serial, "failed   " + message);
    }
}

void FleetReporter::finish() const {
    if (!failed_.empty()) {
        throw Failure(fleet_exit_code(failed_.size()),
                      "devices failed: " + std::to_string(failed_.size()) + " of " +
                          std::to_string(serials_.size()));
    }
}

}  // namespace jovu_cli
