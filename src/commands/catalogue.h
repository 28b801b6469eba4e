// SPDX-License-Identifier: Apache-2.0

/// @file
/// The firmware's commands as one table. The methods of JovuCommandInterface, the names and keys on
/// the wire, and the program's commands, help and completion follow from it.
///
/// Needs no JSON library, so that programs can include it.
#pragma once

#include <array>
#include <cstddef>
#include <memory>
#include <string_view>
#include <tuple>

#include "jovu/command_interface.h"

namespace jovu {

/// What a method of JovuCommandInterface takes behind the address, and returns.
template <class Method>
struct CommandTypes;

template <class R, class... A>
struct CommandTypes<R (JovuCommandInterface::*)(JovuDeviceAddress, A...)> {
    using Result = R;
    using Arguments = std::tuple<A...>;
};

/// @name The method that a row stands for
/// A method with a string, its last argument, is overloaded: the row's is the one whose string is
/// a std::shared_ptr<char>. The first of these functions takes no overloaded method, the others do.
/// @{
template <class R, class... A>
constexpr auto row_method(R (JovuCommandInterface::*method)(JovuDeviceAddress, A...)) {
    return method;
}
template <class R>
constexpr auto row_method(R (JovuCommandInterface::*method)(JovuDeviceAddress,
                                                            std::shared_ptr<char>)) {
    return method;
}
template <class R, class A>
constexpr auto row_method(R (JovuCommandInterface::*method)(JovuDeviceAddress, A,
                                                            std::shared_ptr<char>)) {
    return method;
}
/// @}

/// One command. The types of its arguments and its result are those of its method.
template <auto M>
struct CommandRow {
    static constexpr auto method = M;
    using Result = typename CommandTypes<decltype(M)>::Result;
    using Arguments = typename CommandTypes<decltype(M)>::Arguments;
    static constexpr std::size_t kArguments = std::tuple_size_v<Arguments>;

    int idx;                   ///< Its place in the firmware's own table.
    std::string_view name;     ///< On the wire; the method has the same.
    std::string_view summary;  ///< One line in the imperative, without a full stop.
    std::array<std::string_view, kArguments> keys;  ///< One for each argument, in their order.
};

template <auto method, class... Keys>
constexpr CommandRow<method> command(int idx, std::string_view name, std::string_view summary,
                                     Keys... keys) {
    static_assert(sizeof...(Keys) == CommandRow<method>::kArguments,
                  "a command has one key per argument");
    return {idx, name, summary, {std::string_view(keys)...}};
}

/// A row; a macro, so that the name on the wire and the method's cannot differ.
#define JOVU_COMMAND(idx, name, ...) \
    ::jovu::command<::jovu::row_method(&JovuCommandInterface::name)>(idx, #name, __VA_ARGS__)

/// Every command, in the order of the firmware's indices.
inline constexpr auto catalogue = std::make_tuple(
    JOVU_COMMAND(0, bio_get_version, "Read the firmware version"),
    JOVU_COMMAND(1, bio_get_serial, "Read the controller's serial number"),
    JOVU_COMMAND(2, gpio_get_raw, "Read the level of a pin", "gpio"),
    JOVU_COMMAND(3, gpio_input_get, "Read the state of an input", "pin", "debounce"),
    JOVU_COMMAND(4, gpio_output_set, "Set an output", "pin", "value"),
    JOVU_COMMAND(5, gcode_process_command, "Run a line of gcode", "command"),
    JOVU_COMMAND(6, gcode_process_macro, "Run a macro stored in the controller", "macro"),
    JOVU_COMMAND(7, heater_param_set, "Set a parameter of the heater's control loop", "param_num",
                 "param_val"),
    JOVU_COMMAND(8, heater_param_get, "Query a parameter of the heater's control loop", "param_num",
                 "param_val"),
    JOVU_COMMAND(9, heater_param_set_defaults, "Reset the heater's parameters to the defaults"),
    JOVU_COMMAND(10, heater_var_set_defaults, "Reset the heater's variables to the defaults"),
    JOVU_COMMAND(11, heater_turn_on, "Start heating"),
    JOVU_COMMAND(12, heater_turn_off, "Stop heating"),
    JOVU_COMMAND(13, heater_in_guardband, "Check whether the heater is close to its target"),
    JOVU_COMMAND(14, heater_state_get, "Read the heater's state"),
    JOVU_COMMAND(15, heater_fault_get, "Read the fault that stopped the heater"),
    JOVU_COMMAND(16, heater_var_set, "Set a variable of the heater", "var_num", "var_val"),
    JOVU_COMMAND(17, heater_var_get, "Query a variable of the heater", "var_num", "var_val"),
    JOVU_COMMAND(18, wifi_start_wifi, "Turn a Wi-Fi interface on", "interface_t"),
    JOVU_COMMAND(19, wifi_stop_wifi, "Turn a Wi-Fi interface off", "interface_t"),
    JOVU_COMMAND(20, wifi_client_connect, "Join a network", "interface_t", "connect_t"),
    JOVU_COMMAND(21, wifi_disconnect, "Leave the network", "interface_t"),
    JOVU_COMMAND(22, wifi_client_get_status,
                 "Read the connection state and addresses of a Wi-Fi interface", "interface_t"),
    JOVU_COMMAND(23, wifi_client_get_configuration, "Read the configuration of a Wi-Fi interface",
                 "interface_t"),
    JOVU_COMMAND(24, wifi_save_configuration, "Save the Wi-Fi configuration permanently",
                 "interface_t"),
    JOVU_COMMAND(25, wifi_set_auto_start_configuration_item,
                 "Set whether Wi-Fi starts with the controller", "interface_t", "auto_start"),
    JOVU_COMMAND(26, wifi_set_auto_connect_configuration_item,
                 "Set whether Wi-Fi joins a network when it starts", "interface_t", "auto_connect"),
    JOVU_COMMAND(27, wifi_set_auto_connect_ssid_configuration_item,
                 "Set the network that Wi-Fi joins automatically", "interface_t",
                 "auto_connect_ssid"),
    JOVU_COMMAND(28, wifi_set_auto_connect_key_configuration_item,
                 "Set the key of the network that Wi-Fi joins automatically", "interface_t",
                 "auto_connect_key"),
    JOVU_COMMAND(29, wifi_client_configure, "Set the whole configuration of a Wi-Fi interface",
                 "interface_t", "cmd", "config"),
    JOVU_COMMAND(30, servo_dc_config_get, "Read the configuration of a servo", "servo_name"),
    JOVU_COMMAND(31, servo_dc_config_set, "Set the configuration of a servo", "servo_name",
                 "config"),
    JOVU_COMMAND(32, servo_dc_move_default, "Read a move with every member at its default"),
    JOVU_COMMAND(33, servo_dc_move, "Start or prepare a move", "servo_name", "move_config"),
    JOVU_COMMAND(34, servo_dc_move_start_sync, "Start all prepared moves"),
    JOVU_COMMAND(35, servo_dc_move_active, "Check whether a move is in progress", "servo_name"),
    JOVU_COMMAND(36, servo_dc_put_idle, "Disable a servo's drive", "servo_name"),
    JOVU_COMMAND(37, servo_dc_move_modify, "Change a move in progress", "modifer_data", "count",
                 "validate"),
    JOVU_COMMAND(38, servo_dc_move_modifier_validate,
                 "Check whether a change of a move is possible", "modifier_data", "count"),
    JOVU_COMMAND(39, servo_dc_move_metrics_get, "Read how closely a servo followed its last move",
                 "servo_name"),
    JOVU_COMMAND(40, servo_dc_move_dir_get, "Read the direction of the current move", "servo_name"),
    JOVU_COMMAND(41, servo_dc_position_get, "Read the position in native units", "servo_name"),
    JOVU_COMMAND(42, servo_dc_position_get_client, "Read the position in client units",
                 "servo_name"),
    JOVU_COMMAND(43, servo_dc_position_set,
                 "Set the current position in native units, without moving", "servo_name",
                 "position"),
    JOVU_COMMAND(44, servo_dc_position_set_client,
                 "Set the current position in client units, without moving", "servo_name",
                 "position"),
    JOVU_COMMAND(45, servo_dc_target_get_client,
                 "Read the target of the current move in client units", "servo_name"),
    JOVU_COMMAND(46, servo_dc_units_client_to_native, "Convert client units to native units",
                 "servo_name", "pos_client"),
    JOVU_COMMAND(47, servo_dc_units_native_to_client, "Convert native units to client units",
                 "servo_name", "pos_native"),
    JOVU_COMMAND(48, servo_dc_name_str_get, "Read the name of a servo", "servo_name"),
    JOVU_COMMAND(49, servo_dc_backlash_set, "Set the backlash of a servo", "servo_name",
                 "backlash_value", "flush"),
    JOVU_COMMAND(50, servo_dc_trace_enable, "Turn the trace events of a servo on or off",
                 "servo_name", "enable"),
    JOVU_COMMAND(51, unload_initiate, "Start unloading the filament"),
    JOVU_COMMAND(52, load_initiate, "Start loading a filament"),
    JOVU_COMMAND(53, Enter_dfu_mode, "Restart the controller for a firmware update"),
    JOVU_COMMAND(54, ui_led, "Blink an LED", "led", "on_count", "off_count"),
    JOVU_COMMAND(55, sd_mmc_write, "Write the first byte of a buffer to the SD store", "offset",
                 "buf", "length"),
    JOVU_COMMAND(56, sd_mmc_write_byte, "Write one byte to the SD store", "offset", "write_buf"),
    JOVU_COMMAND(57, sd_mmc_read_byte, "Read one byte from the SD store", "offset"),
    JOVU_COMMAND(58, sd_mmc_read, "Have the device read from the SD store", "offset", "read_buf",
                 "length"),
    JOVU_COMMAND(59, sd_mmc_get_storage_info, "Read the size of the SD store"),
    JOVU_COMMAND(60, hbridge_duty_set, "Set the duty cycle of an H-bridge", "hbridge", "duty"),
    JOVU_COMMAND(61, wifi_client_scan_refresh, "Scan for networks", "interface_t"),
    JOVU_COMMAND(62, wifi_client_scan_get, "Read one network of the last scan", "interface_t",
                 "index"),
    JOVU_COMMAND(63, jm_disable_network_tasks, "Stop the controller's network tasks"),
    JOVU_COMMAND(64, jm_enable_network_tasks, "Start the controller's network tasks"),
    JOVU_COMMAND(65, jm_are_network_tasks_enabled, "Check whether the network tasks run"),
    JOVU_COMMAND(66, check_store_connection, "Check whether the controller can reach its store"),
    JOVU_COMMAND(67, Reset_printer, "Restart the printer"));

#undef JOVU_COMMAND

inline constexpr std::size_t kCommandCount = std::tuple_size_v<decltype(catalogue)>;

namespace detail {

/// How many rows have the index that follows that of the row before, from 0. Names are those of
/// methods, each of which has one row.
constexpr int rows_in_order() {
    int next = 0;
    std::apply([&next](const auto&... row) { ((next += row.idx == next ? 1 : 0), ...); },
               catalogue);
    return next;
}

static_assert(rows_in_order() == static_cast<int>(kCommandCount),
              "rows are in the order of their indices");

}  // namespace detail

/// The row of a method of JovuCommandInterface; does not compile unless there is just one.
template <auto method>
inline constexpr const auto& row = std::get<CommandRow<method>>(catalogue);

}  // namespace jovu
