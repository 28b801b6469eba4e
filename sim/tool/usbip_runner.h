// SPDX-License-Identifier: Apache-2.0

/// @file
/// Simulated controllers for real kernels.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "device/descriptors.h"

namespace jovusim {

/// Options of "jovu-sim attach" and "jovu-sim serve".
struct UsbipOptions {
    unsigned devices = 1;  ///< at the start
    UsbSpeed speed = UsbSpeed::full;
    double time_scale = 1.0;             ///< seconds of machine time in one real second
    std::optional<std::string> capture;  ///< file for what is on the bus
    std::optional<std::string> control;  ///< path of the control socket; nothing: made
    std::string listen = "127.0.0.1:3240";
    std::vector<std::string> program;  ///< attach: empty for none
};

/// Attaches devices to this machine's bus and serves them until the program has ended, or a signal
/// arrives if there is none.
/// @returns the program's exit status, kExitOk, or another one of exit_status.h
int attach_to_kernel(const UsbipOptions& options);

/// Exports devices over TCP until a signal arrives.
/// @returns kExitOk or kExitFailure
int serve_devices(const UsbipOptions& options);

}  // namespace jovusim
