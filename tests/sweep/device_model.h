// SPDX-License-Identifier: Apache-2.0

/// @file
/// A controller on the fake bus that responds.
#pragma once

#include <libusb.h>

#include <atomic>
#include <deque>
#include <map>
#include <mutex>
#include <string>

#include "core/frame.h"
#include "jovu/device_address.h"

namespace sweep {

inline constexpr JovuDeviceAddress kAddress{1, 5};
inline constexpr unsigned kMessagesIn = 0x81, kJobsIn = 0x83, kMessagesOut = 0x02;

/// A device at kAddress from its construction to unplug() or its destruction, one at a time. To be
/// kept until no thread of the library is left: it reads requests and sends its responses on
/// whatever thread calls the fake libusb.
class DeviceModel {
public:
    DeviceModel();
    ~DeviceModel() { unplug(); }
    DeviceModel(const DeviceModel&) = delete;
    DeviceModel& operator=(const DeviceModel&) = delete;

    libusb_device* device() const { return device_; }
    void unplug();

    /// Sends bytes, in packets, as soon as the host takes them.
    void send(unsigned endpoint, const std::string& bytes);

    /// Everything that has come on the job channel.
    std::string job_bytes() const;

    std::atomic<bool> mute{false};      ///< Requests get no response.
    std::atomic<unsigned> requests{0};  ///< On the message channel.

    void received(unsigned endpoint, const std::string& bytes);
    /// Sends what the host takes now.
    void pump();

private:
    void respond(const std::string& body);

    libusb_device* device_;
    mutable std::recursive_mutex mutex_;
    bool plugged_ = true;
    jovu::FrameDecoder decoder_;
    std::string jobs_in_;
    std::map<unsigned, std::deque<std::string>> out_;
};

/// Makes the calls of the fake libusb count as calls of the sweep and reach the device.
void hook_libusb();
/// @return whether a thread that waits for a response may still be woken.
bool response_can_come();

}  // namespace sweep
