// SPDX-License-Identifier: Apache-2.0

/// @file
/// The members of the firmware's structures, each listed once: what is written, what is read, and
/// what programs show and take all follow from these lists.
///
/// Needs no JSON library, so that programs can include it.
#pragma once

#include <string_view>
#include <tuple>
#include <type_traits>

#include "jovu/firmware_types.h"

namespace jovu {

/// How the elements of an array of bytes travel.
enum class Bytes : unsigned char {
    by_type,      ///< `char` as -128 to 127, `unsigned char` as 0 to 255.
    as_unsigned,  ///< As 0 to 255.
};

/// One member of the structure S.
template <class S, class T>
struct Member {
    using Type = T;

    std::string_view key;  ///< On the wire; the member has the same name.
    T S::*field;
    Bytes bytes;
};

template <class S, class T>
constexpr Member<S, T> member(std::string_view key, T S::*field, Bytes bytes = Bytes::by_type) {
    return {key, field, bytes};
}

/// What is known of a structure: `name`, and `members` in the order in which they lie in memory and
/// travel. Specialised below for each of them, and for nothing else.
template <class S>
struct Structure;

template <class T, class = void>
inline constexpr bool is_structure = false;

template <class T>
inline constexpr bool is_structure<T, std::void_t<decltype(Structure<T>::name)>> = true;

/// A member's row; a macro, so that its key and its name cannot differ.
#define JOVU_MEMBER(S, name) ::jovu::member(#name, &S::name)

template <>
struct Structure<wifi_client_connect_t> {
    static constexpr std::string_view name = "wifi_client_connect_t";
    static constexpr auto members = std::make_tuple(JOVU_MEMBER(wifi_client_connect_t, ssid),
                                                    JOVU_MEMBER(wifi_client_connect_t, key),
                                                    JOVU_MEMBER(wifi_client_connect_t, timeout));
};

template <>
struct Structure<wifi_ifc_config_t> {
    static constexpr std::string_view name = "wifi_ifc_config_t";
    static constexpr auto members = std::make_tuple(
        JOVU_MEMBER(wifi_ifc_config_t, auto_start), JOVU_MEMBER(wifi_ifc_config_t, auto_connect),
        JOVU_MEMBER(wifi_ifc_config_t, auto_connect_ssid),
        JOVU_MEMBER(wifi_ifc_config_t, auto_connect_key),
        JOVU_MEMBER(wifi_ifc_config_t, auto_connect_timeout));
};

template <>
struct Structure<wifi_hdw_config_t> {
    static constexpr std::string_view name = "wifi_hdw_config_t";
    static constexpr auto members = std::make_tuple(JOVU_MEMBER(wifi_hdw_config_t, mac_address),
                                                    JOVU_MEMBER(wifi_hdw_config_t, patch_version));
};

template <>
struct Structure<wifi_ip_config_t> {
    static constexpr std::string_view name = "wifi_ip_config_t";
    static constexpr auto members = std::make_tuple(
        JOVU_MEMBER(wifi_ip_config_t, ip), JOVU_MEMBER(wifi_ip_config_t, subnet_mask),
        JOVU_MEMBER(wifi_ip_config_t, default_gateway), JOVU_MEMBER(wifi_ip_config_t, dhcp_server),
        JOVU_MEMBER(wifi_ip_config_t, dns_server), JOVU_MEMBER(wifi_ip_config_t, mac_address),
        member("connected_ssid", &wifi_ip_config_t::connected_ssid, Bytes::as_unsigned));
};

template <>
struct Structure<wifi_config_t> {
    static constexpr std::string_view name = "wifi_config_t";
    static constexpr auto members = std::make_tuple(JOVU_MEMBER(wifi_config_t, ifc_config),
                                                    JOVU_MEMBER(wifi_config_t, hdw_config),
                                                    JOVU_MEMBER(wifi_config_t, ip_config));
};

template <>
struct Structure<wifi_status_t> {
    static constexpr std::string_view name = "wifi_status_t";
    static constexpr auto members = std::make_tuple(JOVU_MEMBER(wifi_status_t, connected),
                                                    JOVU_MEMBER(wifi_status_t, ip_config));
};

template <>
struct Structure<wifi_scan_network_t> {
    static constexpr std::string_view name = "wifi_scan_network_t";
    static constexpr auto members = std::make_tuple(JOVU_MEMBER(wifi_scan_network_t, ssid),
                                                    JOVU_MEMBER(wifi_scan_network_t, encryption),
                                                    JOVU_MEMBER(wifi_scan_network_t, strength));
};

template <>
struct Structure<servo_dc_gains_t> {
    static constexpr std::string_view name = "servo_dc_gains_t";
    static constexpr auto members =
        std::make_tuple(JOVU_MEMBER(servo_dc_gains_t, kp), JOVU_MEMBER(servo_dc_gains_t, ki),
                        JOVU_MEMBER(servo_dc_gains_t, kd), JOVU_MEMBER(servo_dc_gains_t, ka),
                        JOVU_MEMBER(servo_dc_gains_t, kv), JOVU_MEMBER(servo_dc_gains_t, kf));
};

template <>
struct Structure<servo_dc_client_config_t> {
    static constexpr std::string_view name = "servo_dc_client_config_t";
    static constexpr auto members =
        std::make_tuple(JOVU_MEMBER(servo_dc_client_config_t, interrupt_frequency),
                        JOVU_MEMBER(servo_dc_client_config_t, gains),
                        JOVU_MEMBER(servo_dc_client_config_t, pwm_cap),
                        JOVU_MEMBER(servo_dc_client_config_t, pwm_cap_time),
                        JOVU_MEMBER(servo_dc_client_config_t, units),
                        JOVU_MEMBER(servo_dc_client_config_t, pos_res_eu_per_mm),
                        JOVU_MEMBER(servo_dc_client_config_t, vel_res_mm_per_sec),
                        JOVU_MEMBER(servo_dc_client_config_t, speed_max),
                        JOVU_MEMBER(servo_dc_client_config_t, accel_max),
                        JOVU_MEMBER(servo_dc_client_config_t, move_dist_min_static),
                        JOVU_MEMBER(servo_dc_client_config_t, move_dist_min_dynamic),
                        JOVU_MEMBER(servo_dc_client_config_t, trace));
};

template <>
struct Structure<servo_dc_move_config_t> {
    static constexpr std::string_view name = "servo_dc_move_config_t";
    static constexpr auto members = std::make_tuple(
        JOVU_MEMBER(servo_dc_move_config_t, move_type),
        JOVU_MEMBER(servo_dc_move_config_t, start_sync),
        JOVU_MEMBER(servo_dc_move_config_t, target), JOVU_MEMBER(servo_dc_move_config_t, distance),
        JOVU_MEMBER(servo_dc_move_config_t, speed_f), JOVU_MEMBER(servo_dc_move_config_t, accel_f),
        JOVU_MEMBER(servo_dc_move_config_t, decel_f),
        JOVU_MEMBER(servo_dc_move_config_t, max_cycles),
        JOVU_MEMBER(servo_dc_move_config_t, metric_skip),
        JOVU_MEMBER(servo_dc_move_config_t, speed_offset_upramp_f),
        JOVU_MEMBER(servo_dc_move_config_t, speed_offset_downramp_f),
        JOVU_MEMBER(servo_dc_move_config_t, ignore_stalls),
        JOVU_MEMBER(servo_dc_move_config_t, slaved),
        JOVU_MEMBER(servo_dc_move_config_t, slave_ratio));
};

template <>
struct Structure<servo_dc_move_modifier_data_t> {
    static constexpr std::string_view name = "servo_dc_move_modifier_data_t";
    static constexpr auto members =
        std::make_tuple(JOVU_MEMBER(servo_dc_move_modifier_data_t, servo_name),
                        JOVU_MEMBER(servo_dc_move_modifier_data_t, type),
                        JOVU_MEMBER(servo_dc_move_modifier_data_t, pos),
                        JOVU_MEMBER(servo_dc_move_modifier_data_t, vel),
                        JOVU_MEMBER(servo_dc_move_modifier_data_t, accel),
                        JOVU_MEMBER(servo_dc_move_modifier_data_t, decel),
                        JOVU_MEMBER(servo_dc_move_modifier_data_t, validation_pos),
                        JOVU_MEMBER(servo_dc_move_modifier_data_t, use_validation_pos),
                        JOVU_MEMBER(servo_dc_move_modifier_data_t, decel_ramp_skip),
                        JOVU_MEMBER(servo_dc_move_modifier_data_t, data),
                        JOVU_MEMBER(servo_dc_move_modifier_data_t, active));
};

template <>
struct Structure<servo_dc_move_metrics_t> {
    static constexpr std::string_view name = "servo_dc_move_metrics_t";
    static constexpr auto members = std::make_tuple(JOVU_MEMBER(servo_dc_move_metrics_t, n),
                                                    JOVU_MEMBER(servo_dc_move_metrics_t, mean),
                                                    JOVU_MEMBER(servo_dc_move_metrics_t, M2));
};

template <>
struct Structure<write_byte_return_t> {
    static constexpr std::string_view name = "write_byte_return_t";
    static constexpr auto members = std::make_tuple(JOVU_MEMBER(write_byte_return_t, success),
                                                    JOVU_MEMBER(write_byte_return_t, timetowrite));
};

template <>
struct Structure<read_byte_return_t> {
    static constexpr std::string_view name = "read_byte_return_t";
    static constexpr auto members = std::make_tuple(JOVU_MEMBER(read_byte_return_t, byteread),
                                                    JOVU_MEMBER(read_byte_return_t, timetoread));
};

template <>
struct Structure<storage_info_t> {
    static constexpr std::string_view name = "storage_info_t";
    static constexpr auto members = std::make_tuple(JOVU_MEMBER(storage_info_t, total_size),
                                                    JOVU_MEMBER(storage_info_t, block_count),
                                                    JOVU_MEMBER(storage_info_t, block_size));
};

#undef JOVU_MEMBER

}  // namespace jovu
