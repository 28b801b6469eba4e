/// @file
/// A controller on the fake bus that answers.
#pragma once

#include <libusb.h>

#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <mutex>
#include <string>

#include "jovu/device_address.h"

namespace sweep {

inline constexpr JovuDeviceAddress kAddress{1, 5};
inline constexpr unsigned kMessagesIn = 0x81, kJobsIn = 0x83;
inline constexpr unsigned char kMessagesOut = 0x02;

/// The request that the device answers on the job channel, and the answer.
inline constexpr const char* kStatusRequest = R"({"metadata":{"version":1,"type":"status"}})";

/// A device at kAddress from its construction to unplug() or its destruction, one at a time. To be
/// kept until no thread of the library is left: it reads requests and sends its answers on whatever
/// thread calls the fake libusb.
class DeviceModel {
public:
    DeviceModel();
    ~DeviceModel();
    DeviceModel(const DeviceModel&) = delete;
    DeviceModel& operator=(const DeviceModel&) = delete;

    libusb_device* device() const { return device_; }

    void unplug();

    /// From now on requests are read and not answered.
    void mute();

    /// Sends bytes, in packets, as soon as the host takes them.
    void send(unsigned endpoint, const std::string& bytes);

    /// How many requests have come, on the message channel.
    unsigned requests() const;
    /// Everything that has come on the job channel.
    std::string job_bytes() const;

    /// @return whether it is the device's way not to answer, so that whoever waits waits in
    /// earnest.
    bool silent_for_now() const;

    void received(unsigned char endpoint, const unsigned char* data, std::size_t size);
    void pump();

private:
    void read_messages();
    void answer(const std::string& body);
    void queue(unsigned endpoint, const std::string& bytes);
    void post();

    libusb_device* device_;
    mutable std::mutex mutex_;
    bool mute_ = false;
    bool plugged_ = true;
    unsigned requests_ = 0;
    std::string in_;
    std::string jobs_in_;
    std::map<unsigned, std::deque<std::string>> out_;
};

/// @name Where the calls of the fake libusb come by
/// @{
void opened(libusb_device_handle* handle, libusb_device* device);
void closed(libusb_device_handle* handle);
void received(libusb_device_handle* handle, unsigned char endpoint, const unsigned char* data,
              std::size_t size);
/// A transfer has been submitted.
void pump();
/// @return whether somebody who waits for an answer may still be woken.
bool answer_can_come();
/// @}

}  // namespace sweep
