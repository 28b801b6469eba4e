// SPDX-License-Identifier: Apache-2.0

/// @file
/// Owners of the objects of libmosquitto, its settings and its errors.
#pragma once

#include <mosquitto.h>
#include <mqtt_protocol.h>

#include <cstdint>
#include <memory>
#include <string>
#include <utility>

#include "mqtt/client.h"

namespace jovu_mqtt {

constexpr int kFirstErrorReason = 0x80;  ///< MQTT 5 reason codes from here on are errors.

struct DestroyMosquitto {
    void operator()(mosquitto* handle) const noexcept { mosquitto_destroy(handle); }
};
using Handle = std::unique_ptr<mosquitto, DestroyMosquitto>;

/// @param user passed to the callbacks.
/// @return a handle with all settings of the options, which is not connected and has no callbacks.
/// @throws Error when a setting cannot be used.
Handle make_handle(const ClientOptions& options, void* user);

/// A list of properties; the library changes its head while it grows. Empty strings are left out.
class PropertyList {
public:
    PropertyList() = default;
    ~PropertyList() { mosquitto_property_free_all(&head_); }
    PropertyList(const PropertyList&) = delete;
    PropertyList& operator=(const PropertyList&) = delete;

    /// @throws Error for a value that the protocol cannot carry, as below.
    void add_int32(int identifier, std::uint32_t value);
    void add_string(int identifier, const std::string& value);
    void add_binary(int identifier, const std::string& value);
    void add(const Properties& properties);

    const mosquitto_property* get() const noexcept { return head_; }
    mosquitto_property* release() noexcept { return std::exchange(head_, nullptr); }

private:
    mosquitto_property* head_ = nullptr;
};

/// @return the properties of a received message.
Properties read_properties(const mosquitto_property* list);

/// @return what an error of the library means. Codes of the broker begin at kFirstErrorReason.
/// @param error_number errno, as the call has left it.
std::string error_string(int code, int error_number);

}  // namespace jovu_mqtt
