// SPDX-License-Identifier: Apache-2.0

/// @file
/// The structures that commands take, with their members in wire order.
#pragma once

#include "firmware/base/values.h"

namespace jovusim {

inline constexpr std::size_t kSsidSize = 32;
inline constexpr std::size_t kWifiKeySize = 64;
inline constexpr std::size_t kMacSize = 6;
inline constexpr std::size_t kIpSize = 4;

namespace structure {

inline constexpr Rule kSsid = array_of(kSsidSize, kSignedByte);
inline constexpr Rule kWifiKey = array_of(kWifiKeySize, kSignedByte);
inline constexpr Rule kConnectedSsid = array_of(kSsidSize, kByte);
inline constexpr Rule kMac = array_of(kMacSize, kByte);
inline constexpr Rule kPatchVersion = array_of(2, kByte);
inline constexpr Rule kIp = array_of(kIpSize, kByte);

inline constexpr Member kWifiConnectMembers[] = {
    {"ssid", &kSsid},
    {"key", &kWifiKey},
    {"timeout", &kUnsigned},
};
inline constexpr Rule kWifiConnect = object_of(kWifiConnectMembers);

inline constexpr Member kWifiInterfaceMembers[] = {
    {"auto_start", &kBoolean},       {"auto_connect", &kBoolean},     {"auto_connect_ssid", &kSsid},
    {"auto_connect_key", &kWifiKey}, {"auto_connect_timeout", &kInt},
};
inline constexpr Rule kWifiInterface = object_of(kWifiInterfaceMembers);

inline constexpr Member kWifiHardwareMembers[] = {
    {"mac_address", &kMac},
    {"patch_version", &kPatchVersion},
};
inline constexpr Rule kWifiHardware = object_of(kWifiHardwareMembers);

inline constexpr Member kWifiAddressMembers[] = {
    {"ip", &kIp},
    {"subnet_mask", &kIp},
    {"default_gateway", &kIp},
    {"dhcp_server", &kIp},
    {"dns_server", &kIp},
    {"mac_address", &kMac},
    {"connected_ssid", &kConnectedSsid},
};
inline constexpr Rule kWifiAddress = object_of(kWifiAddressMembers);

inline constexpr Member kWifiConfigMembers[] = {
    {"ifc_config", &kWifiInterface},
    {"hdw_config", &kWifiHardware},
    {"ip_config", &kWifiAddress},
};
inline constexpr Rule kWifiConfig = object_of(kWifiConfigMembers);
inline constexpr Rule kWifiConfigPointer = array_of(1, kWifiConfig);

inline constexpr Member kServoGainsMembers[] = {
    {"kp", &kFloat}, {"ki", &kFloat}, {"kd", &kFloat},
    {"ka", &kFloat}, {"kv", &kFloat}, {"kf", &kFloat},
};
inline constexpr Rule kServoGains = object_of(kServoGainsMembers);

inline constexpr Member kServoConfigMembers[] = {
    {"interrupt_frequency", &kUnsignedShort},
    {"gains", &kServoGains},
    {"pwm_cap", &kInt},
    {"pwm_cap_time", &kUnsigned},
    {"units", &kUnsigned},
    {"pos_res_eu_per_mm", &kFloat},
    {"vel_res_mm_per_sec", &kFloat},
    {"speed_max", &kFloat},
    {"accel_max", &kFloat},
    {"move_dist_min_static", &kUnsigned},
    {"move_dist_min_dynamic", &kUnsigned},
    {"trace", &kUnsigned},
};
inline constexpr Rule kServoConfig = object_of(kServoConfigMembers);

inline constexpr Member kServoMoveMembers[] = {
    {"move_type", &kUnsigned},
    {"start_sync", &kBoolean},
    {"target", &kDouble},
    {"distance", &kFloat},
    {"speed_f", &kFloat},
    {"accel_f", &kFloat},
    {"decel_f", &kFloat},
    {"max_cycles", &kUnsigned},
    {"metric_skip", &kUnsigned},
    {"speed_offset_upramp_f", &kFloat},
    {"speed_offset_downramp_f", &kFloat},
    {"ignore_stalls", &kBoolean},
    {"slaved", &kBoolean},
    {"slave_ratio", &kFloat},
};
inline constexpr Rule kServoMove = object_of(kServoMoveMembers);
inline constexpr Rule kServoMovePointer = array_of(1, kServoMove);

inline constexpr Member kServoModifierMembers[] = {
    {"servo_name", &kServoName},
    {"type", &kUnsigned},
    {"pos", &kFloat},
    {"vel", &kFloat},
    {"accel", &kFloat},
    {"decel", &kFloat},
    {"validation_pos", &kFloat},
    {"use_validation_pos", &kBoolean},
    {"decel_ramp_skip", &kByte},
    {"data", &kInt},
    {"active", &kByte},
};
inline constexpr Rule kServoModifier = object_of(kServoModifierMembers);
inline constexpr Rule kServoModifierPointer = array_of(1, kServoModifier);

}  // namespace structure
}  // namespace jovusim
