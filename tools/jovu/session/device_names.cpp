// SPDX-License-Identifier: Apache-2.0
#include "session/device_names.h"

#include <optional>
#include <string>
#include <unordered_map>
#include <utility>

#include <nlohmann/json.hpp>

#include "cli/options.h"
#include "jovu/exception.h"
#include "jovu/transport.h"
#include "posix/mutex.h"
#include "terminal/printable.h"

namespace jovu_cli {
namespace {

/// The serial numbers of the devices that were named, so that one that has been unplugged keeps its
/// name, and an event a millisecond costs no look at the bus.
class SerialNumbers {
public:
    std::string of(JovuDeviceAddress address) {
        {
            const MutexLock lock(mutex_);
            const auto known = known_.find(address);
            if (known != known_.end()) {
                return known->second;
            }
        }
        return look_up(address);
    }

    /// Forgets the device that had the address before.
    std::string look_up(JovuDeviceAddress address) {
        std::optional<std::string> serial = read(address);
        const MutexLock lock(mutex_);
        known_.erase(address);
        if (serial) {
            known_.emplace(address, *serial);
        }
        return serial.value_or("");
    }

private:
    static std::optional<std::string> read(JovuDeviceAddress address) try {
        for (JovuDeviceInfo& device : JovuTransport::list_devices()) {
            if (device.address == address) {
                return std::move(device.serial);
            }
        }
        return std::nullopt;
    } catch (const JovuException&) {
        return std::nullopt;  // The bus cannot be listed: the name is the address alone.
    }

    Mutex mutex_;
    std::unordered_map<JovuDeviceAddress, std::string> known_ JOVU_GUARDED_BY(mutex_);
};

SerialNumbers& serial_numbers() {
    static SerialNumbers numbers;
    return numbers;
}

}  // namespace

std::string device_name(JovuDeviceAddress address) {
    const std::string serial = serial_numbers().of(address);
    return to_string(address) + (serial.empty() ? "" : " serial " + printable(serial));
}

Json device_json(JovuDeviceAddress address) {
    return {{"device", to_string(address)}, {"serial", serial_numbers().of(address)}};
}

void remember_device(JovuDeviceAddress address) {
    serial_numbers().look_up(address);
}

}  // namespace jovu_cli
