// SPDX-License-Identifier: Apache-2.0

/// @file
/// A simulated device without its bus.
#pragma once

#include <memory>
#include <optional>
#include <string>

#include "device/fault_table.h"
#include "device/urb_engine.h"
#include "firmware/usb/usb_function.h"

namespace jovusim {

/// A function, the engine that carries out transfers with it, and the faults of both. Not
/// thread-safe: its owner's lock guards it. The owner reaps finished transfers, and unplugs the
/// device when unplug_due() is true.
class DeviceCore {
public:
    /// @param listener sees every transfer; may be empty
    DeviceCore(std::unique_ptr<UsbFunction> function, UsbSpeed speed, UrbListener listener);

    UsbFunction& function() { return *function_; }
    const UsbFunction& function() const { return *function_; }
    FaultTable& faults() { return faults_; }
    UrbEngine& engine() { return engine_; }
    const UrbEngine& engine() const { return engine_; }

    /// Advances the function and transfers the packets that are due.
    void tick(Millis now);

    /// When tick() has to be called next, if ever.
    std::optional<Millis> due_at(Millis now) const;

    /// Whether the device leaves the bus now: a fault requires it, or it disconnects itself.
    bool unplug_due(Millis now);

    /// Returns the function with which a device that disconnected itself returns to the bus, or
    /// null. Call it once.
    std::unique_ptr<UsbFunction> take_successor();

    /// Adds the counters of the endpoints and of the function to an object.
    void add_stats(Json& out, Millis now);

    /// Prints new protocol violations to standard error. @param device its name
    static void print(const std::vector<std::string>& violations, const std::string& device);

private:
    std::unique_ptr<UsbFunction> function_;
    FaultTable faults_;
    UrbEngine engine_;
    bool disconnected_itself_ = false;
};

}  // namespace jovusim
