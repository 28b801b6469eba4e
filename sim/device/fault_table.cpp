// SPDX-License-Identifier: Apache-2.0
#include "device/fault_table.h"

namespace jovusim {

void FaultTable::add(BusFault fault, std::uint8_t endpoint, int error, std::uint32_t count,
                     std::uint32_t skip) {
    if (count == 0) return;
    const int value = fault == BusFault::never ? 1 : error;
    settings_[{fault, endpoint}].push_back({value, count, skip});
}

int FaultTable::take(BusFault fault, std::uint8_t endpoint) {
    const auto found = settings_.find({fault, endpoint});
    if (found == settings_.end() || found->second.empty()) return 0;
    Setting& setting = found->second.front();
    if (setting.skip > 0) {
        --setting.skip;
        return 0;
    }
    const int error = setting.error;
    if (setting.count != kAlways && --setting.count == 0) found->second.pop_front();
    return error;
}

void FaultTable::unplug_after(std::uint8_t endpoint, std::uint64_t bytes) {
    unplug_after_[endpoint] = bytes;
}

std::optional<std::size_t> FaultTable::count_out(std::uint8_t endpoint, std::size_t size) {
    const auto found = unplug_after_.find(endpoint);
    if (found == unplug_after_.end()) return std::nullopt;
    if (size < found->second) {
        found->second -= size;
        return std::nullopt;
    }
    const auto left = static_cast<std::size_t>(found->second);
    unplug_after_.erase(found);
    return left;
}

void FaultTable::clear() {
    settings_.clear();
    unplug_after_.clear();
}

}  // namespace jovusim
