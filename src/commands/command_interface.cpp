// SPDX-License-Identifier: Apache-2.0
#include "jovu/command_interface.h"

#include <string>
#include <tuple>
#include <type_traits>
#include <utility>
#include <vector>

#include "commands/catalogue.h"
#include "commands/firmware_command.h"

namespace {

/// Runs one exchange of a method's command and hands back its result, zero-initialised if the
/// exchange failed.
template <auto method, class... Args>
auto call(JovuTransport& transport, JovuDeviceAddress address, Args... args) {
    const auto& row = jovu::row<method>;
    using Result = typename jovu::CommandRow<method>::Result;
    constexpr bool kVoid = std::is_void_v<Result>;
    const auto send = [address](auto command) {
        command.send(address);
        if constexpr (!kVoid) return std::move(command.result());
    };
    if constexpr (sizeof...(Args) == 0) {
        using Command = std::conditional_t<kVoid, VoidJovuFirmwareCommandNoArg,
                                           JovuFirmwareCommandNoArg<Result>>;
        return send(Command(transport, std::string(row.name), row.idx));
    } else {
        using Command = std::conditional_t<kVoid, VoidJovuFirmwareCommand<Args...>,
                                           JovuFirmwareCommand<Result, Args...>>;
        return send(Command(transport, std::string(row.name), row.idx, {std::move(args)...},
                            std::vector<std::string>(row.keys.begin(), row.keys.end())));
    }
}

}  // namespace

JovuCommandInterface::JovuCommandInterface(JovuTransport& transport) : transport_(transport) {}

std::shared_ptr<char> JovuCommandInterface::bio_get_version(JovuDeviceAddress address) {
    return call<&JovuCommandInterface::bio_get_version>(transport_, address);
}

std::shared_ptr<char> JovuCommandInterface::bio_get_serial(JovuDeviceAddress address) {
    return call<&JovuCommandInterface::bio_get_serial>(transport_, address);
}

bool JovuCommandInterface::gpio_get_raw(JovuDeviceAddress address, gpio_name_t gpio) {
    return call<&JovuCommandInterface::gpio_get_raw>(transport_, address, gpio);
}

input_state_t JovuCommandInterface::gpio_input_get(JovuDeviceAddress address, gpio_input_name_t pin,
                                                   bool debounce) {
    return call<&JovuCommandInterface::gpio_input_get>(transport_, address, pin, debounce);
}

void JovuCommandInterface::gpio_output_set(JovuDeviceAddress address, gpio_name_t pin, bool value) {
    return call<&JovuCommandInterface::gpio_output_set>(transport_, address, pin, value);
}

gcode_process_result_t JovuCommandInterface::gcode_process_command(JovuDeviceAddress address,
                                                                   std::shared_ptr<char> command) {
    return call<jovu::row_method(&JovuCommandInterface::gcode_process_command)>(transport_, address,
                                                                                std::move(command));
}

gcode_process_result_t JovuCommandInterface::gcode_process_command(JovuDeviceAddress address,
                                                                   JovuStringArgument command) {
    return call<jovu::row_method(&JovuCommandInterface::gcode_process_command)>(transport_, address,
                                                                                command.view());
}

gcode_process_result_t JovuCommandInterface::gcode_process_macro(JovuDeviceAddress address,
                                                                 std::shared_ptr<char> macro) {
    return call<jovu::row_method(&JovuCommandInterface::gcode_process_macro)>(transport_, address,
                                                                              std::move(macro));
}

gcode_process_result_t JovuCommandInterface::gcode_process_macro(JovuDeviceAddress address,
                                                                 JovuStringArgument macro) {
    return call<jovu::row_method(&JovuCommandInterface::gcode_process_macro)>(transport_, address,
                                                                              macro.view());
}

short JovuCommandInterface::heater_param_set(JovuDeviceAddress address, heater_params_t param_num,
                                             float param_val) {
    return call<&JovuCommandInterface::heater_param_set>(transport_, address, param_num, param_val);
}

short JovuCommandInterface::heater_param_get(JovuDeviceAddress address, heater_params_t param_num,
                                             std::shared_ptr<float> param_val) {
    return call<&JovuCommandInterface::heater_param_get>(transport_, address, param_num,
                                                         std::move(param_val));
}

void JovuCommandInterface::heater_param_set_defaults(JovuDeviceAddress address) {
    return call<&JovuCommandInterface::heater_param_set_defaults>(transport_, address);
}

void JovuCommandInterface::heater_var_set_defaults(JovuDeviceAddress address) {
    return call<&JovuCommandInterface::heater_var_set_defaults>(transport_, address);
}

short JovuCommandInterface::heater_turn_on(JovuDeviceAddress address) {
    return call<&JovuCommandInterface::heater_turn_on>(transport_, address);
}

short JovuCommandInterface::heater_turn_off(JovuDeviceAddress address) {
    return call<&JovuCommandInterface::heater_turn_off>(transport_, address);
}

heater_guardband_t JovuCommandInterface::heater_in_guardband(JovuDeviceAddress address) {
    return call<&JovuCommandInterface::heater_in_guardband>(transport_, address);
}

heater_state_t JovuCommandInterface::heater_state_get(JovuDeviceAddress address) {
    return call<&JovuCommandInterface::heater_state_get>(transport_, address);
}

heater_fault_t JovuCommandInterface::heater_fault_get(JovuDeviceAddress address) {
    return call<&JovuCommandInterface::heater_fault_get>(transport_, address);
}

short JovuCommandInterface::heater_var_set(JovuDeviceAddress address, HEATER_VARS_m var_num,
                                           float var_val) {
    return call<&JovuCommandInterface::heater_var_set>(transport_, address, var_num, var_val);
}

short JovuCommandInterface::heater_var_get(JovuDeviceAddress address, HEATER_VARS_m var_num,
                                           std::shared_ptr<float> var_val) {
    return call<&JovuCommandInterface::heater_var_get>(transport_, address, var_num,
                                                       std::move(var_val));
}

int JovuCommandInterface::wifi_start_wifi(JovuDeviceAddress address, wifi_interface_t interface_t) {
    return call<&JovuCommandInterface::wifi_start_wifi>(transport_, address, interface_t);
}

int JovuCommandInterface::wifi_stop_wifi(JovuDeviceAddress address, wifi_interface_t interface_t) {
    return call<&JovuCommandInterface::wifi_stop_wifi>(transport_, address, interface_t);
}

int JovuCommandInterface::wifi_client_connect(JovuDeviceAddress address,
                                              wifi_interface_t interface_t,
                                              wifi_client_connect_t connect_t) {
    return call<&JovuCommandInterface::wifi_client_connect>(transport_, address, interface_t,
                                                            connect_t);
}

int JovuCommandInterface::wifi_disconnect(JovuDeviceAddress address, wifi_interface_t interface_t) {
    return call<&JovuCommandInterface::wifi_disconnect>(transport_, address, interface_t);
}

wifi_status_t JovuCommandInterface::wifi_client_get_status(JovuDeviceAddress address,
                                                           wifi_interface_t interface_t) {
    return call<&JovuCommandInterface::wifi_client_get_status>(transport_, address, interface_t);
}

wifi_config_t JovuCommandInterface::wifi_client_get_configuration(JovuDeviceAddress address,
                                                                  wifi_interface_t interface_t) {
    return call<&JovuCommandInterface::wifi_client_get_configuration>(transport_, address,
                                                                      interface_t);
}

int JovuCommandInterface::wifi_save_configuration(JovuDeviceAddress address,
                                                  wifi_interface_t interface_t) {
    return call<&JovuCommandInterface::wifi_save_configuration>(transport_, address, interface_t);
}

int JovuCommandInterface::wifi_set_auto_start_configuration_item(JovuDeviceAddress address,
                                                                 wifi_interface_t interface_t,
                                                                 bool auto_start) {
    return call<&JovuCommandInterface::wifi_set_auto_start_configuration_item>(
        transport_, address, interface_t, auto_start);
}

int JovuCommandInterface::wifi_set_auto_connect_configuration_item(JovuDeviceAddress address,
                                                                   wifi_interface_t interface_t,
                                                                   bool auto_connect) {
    return call<&JovuCommandInterface::wifi_set_auto_connect_configuration_item>(
        transport_, address, interface_t, auto_connect);
}

int JovuCommandInterface::wifi_set_auto_connect_ssid_configuration_item(
    JovuDeviceAddress address, wifi_interface_t interface_t,
    std::shared_ptr<char> auto_connect_ssid) {
    constexpr auto kMethod =
        jovu::row_method(&JovuCommandInterface::wifi_set_auto_connect_ssid_configuration_item);
    return call<kMethod>(transport_, address, interface_t, std::move(auto_connect_ssid));
}

int JovuCommandInterface::wifi_set_auto_connect_ssid_configuration_item(
    JovuDeviceAddress address, wifi_interface_t interface_t, JovuStringArgument auto_connect_ssid) {
    constexpr auto kMethod =
        jovu::row_method(&JovuCommandInterface::wifi_set_auto_connect_ssid_configuration_item);
    return call<kMethod>(transport_, address, interface_t, auto_connect_ssid.view());
}

int JovuCommandInterface::wifi_set_auto_connect_key_configuration_item(
    JovuDeviceAddress address, wifi_interface_t interface_t,
    std::shared_ptr<char> auto_connect_key) {
    constexpr auto kMethod =
        jovu::row_method(&JovuCommandInterface::wifi_set_auto_connect_key_configuration_item);
    return call<kMethod>(transport_, address, interface_t, std::move(auto_connect_key));
}

int JovuCommandInterface::wifi_set_auto_connect_key_configuration_item(
    JovuDeviceAddress address, wifi_interface_t interface_t, JovuStringArgument auto_connect_key) {
    constexpr auto kMethod =
        jovu::row_method(&JovuCommandInterface::wifi_set_auto_connect_key_configuration_item);
    return call<kMethod>(transport_, address, interface_t, auto_connect_key.view());
}

int JovuCommandInterface::wifi_client_configure(JovuDeviceAddress address,
                                                wifi_interface_t interface_t, int cmd,
                                                std::shared_ptr<wifi_config_t> config) {
    return call<&JovuCommandInterface::wifi_client_configure>(transport_, address, interface_t, cmd,
                                                              std::move(config));
}

int JovuCommandInterface::wifi_client_scan_refresh(JovuDeviceAddress address,
                                                   wifi_interface_t interface_t) {
    return call<&JovuCommandInterface::wifi_client_scan_refresh>(transport_, address, interface_t);
}

wifi_scan_network_t JovuCommandInterface::wifi_client_scan_get(JovuDeviceAddress address,
                                                               wifi_interface_t interface_t,
                                                               unsigned char index) {
    return call<&JovuCommandInterface::wifi_client_scan_get>(transport_, address, interface_t,
                                                             index);
}

servo_dc_client_config_t JovuCommandInterface::servo_dc_config_get(JovuDeviceAddress address,
                                                                   servo_dc_name_t servo_name) {
    return call<&JovuCommandInterface::servo_dc_config_get>(transport_, address, servo_name);
}

void JovuCommandInterface::servo_dc_config_set(JovuDeviceAddress address,
                                               servo_dc_name_t servo_name,
                                               servo_dc_client_config_t config) {
    return call<&JovuCommandInterface::servo_dc_config_set>(transport_, address, servo_name,
                                                            config);
}

servo_dc_move_config_t JovuCommandInterface::servo_dc_move_default(JovuDeviceAddress address) {
    return call<&JovuCommandInterface::servo_dc_move_default>(transport_, address);
}

servo_move_call_result_t JovuCommandInterface::servo_dc_move(
    JovuDeviceAddress address, servo_dc_name_t servo_name,
    std::shared_ptr<servo_dc_move_config_t> move_config) {
    return call<&JovuCommandInterface::servo_dc_move>(transport_, address, servo_name,
                                                      std::move(move_config));
}

void JovuCommandInterface::servo_dc_move_start_sync(JovuDeviceAddress address) {
    return call<&JovuCommandInterface::servo_dc_move_start_sync>(transport_, address);
}

bool JovuCommandInterface::servo_dc_move_active(JovuDeviceAddress address,
                                                servo_dc_name_t servo_name) {
    return call<&JovuCommandInterface::servo_dc_move_active>(transport_, address, servo_name);
}

bool JovuCommandInterface::servo_dc_put_idle(JovuDeviceAddress address,
                                             servo_dc_name_t servo_name) {
    return call<&JovuCommandInterface::servo_dc_put_idle>(transport_, address, servo_name);
}

unsigned char JovuCommandInterface::servo_dc_move_modify(
    JovuDeviceAddress address, std::shared_ptr<servo_dc_move_modifier_data_t> modifer_data,
    unsigned int count, bool validate) {
    return call<&JovuCommandInterface::servo_dc_move_modify>(
        transport_, address, std::move(modifer_data), count, validate);
}

bool JovuCommandInterface::servo_dc_move_modifier_validate(
    JovuDeviceAddress address, std::shared_ptr<servo_dc_move_modifier_data_t> modifier_data,
    unsigned int count) {
    return call<&JovuCommandInterface::servo_dc_move_modifier_validate>(
        transport_, address, std::move(modifier_data), count);
}

servo_dc_move_metrics_t JovuCommandInterface::servo_dc_move_metrics_get(
    JovuDeviceAddress address, servo_dc_name_t servo_name) {
    return call<&JovuCommandInterface::servo_dc_move_metrics_get>(transport_, address, servo_name);
}

servo_dc_move_dir_t JovuCommandInterface::servo_dc_move_dir_get(JovuDeviceAddress address,
                                                                servo_dc_name_t servo_name) {
    return call<&JovuCommandInterface::servo_dc_move_dir_get>(transport_, address, servo_name);
}

int JovuCommandInterface::servo_dc_position_get(JovuDeviceAddress address,
                                                servo_dc_name_t servo_name) {
    return call<&JovuCommandInterface::servo_dc_position_get>(transport_, address, servo_name);
}

float JovuCommandInterface::servo_dc_position_get_client(JovuDeviceAddress address,
                                                         servo_dc_name_t servo_name) {
    return call<&JovuCommandInterface::servo_dc_position_get_client>(transport_, address,
                                                                     servo_name);
}

void JovuCommandInterface::servo_dc_position_set(JovuDeviceAddress address,
                                                 servo_dc_name_t servo_name, int position) {
    return call<&JovuCommandInterface::servo_dc_position_set>(transport_, address, servo_name,
                                                              position);
}

void JovuCommandInterface::servo_dc_position_set_client(JovuDeviceAddress address,
                                                        servo_dc_name_t servo_name,
                                                        float position) {
    return call<&JovuCommandInterface::servo_dc_position_set_client>(transport_, address,
                                                                     servo_name, position);
}

float JovuCommandInterface::servo_dc_target_get_client(JovuDeviceAddress address,
                                                       servo_dc_name_t servo_name) {
    return call<&JovuCommandInterface::servo_dc_target_get_client>(transport_, address, servo_name);
}

int JovuCommandInterface::servo_dc_units_client_to_native(JovuDeviceAddress address,
                                                          servo_dc_name_t servo_name,
                                                          float pos_client) {
    return call<&JovuCommandInterface::servo_dc_units_client_to_native>(transport_, address,
                                                                        servo_name, pos_client);
}

float JovuCommandInterface::servo_dc_units_native_to_client(JovuDeviceAddress address,
                                                            servo_dc_name_t servo_name,
                                                            int pos_native) {
    return call<&JovuCommandInterface::servo_dc_units_native_to_client>(transport_, address,
                                                                        servo_name, pos_native);
}

std::shared_ptr<char> JovuCommandInterface::servo_dc_name_str_get(JovuDeviceAddress address,
                                                                  servo_dc_name_t servo_name) {
    return call<&JovuCommandInterface::servo_dc_name_str_get>(transport_, address, servo_name);
}

void JovuCommandInterface::servo_dc_backlash_set(JovuDeviceAddress address,
                                                 servo_dc_name_t servo_name, short backlash_value,
                                                 bool flush) {
    return call<&JovuCommandInterface::servo_dc_backlash_set>(transport_, address, servo_name,
                                                              backlash_value, flush);
}

void JovuCommandInterface::servo_dc_trace_enable(JovuDeviceAddress address,
                                                 servo_dc_name_t servo_name, bool enable) {
    return call<&JovuCommandInterface::servo_dc_trace_enable>(transport_, address, servo_name,
                                                              enable);
}

unsigned char JovuCommandInterface::unload_initiate(JovuDeviceAddress address) {
    return call<&JovuCommandInterface::unload_initiate>(transport_, address);
}

unsigned char JovuCommandInterface::load_initiate(JovuDeviceAddress address) {
    return call<&JovuCommandInterface::load_initiate>(transport_, address);
}

int JovuCommandInterface::sd_mmc_write(JovuDeviceAddress address, unsigned int offset,
                                       std::shared_ptr<unsigned char> buf, unsigned int length) {
    return call<&JovuCommandInterface::sd_mmc_write>(transport_, address, offset, std::move(buf),
                                                     length);
}

write_byte_return_t JovuCommandInterface::sd_mmc_write_byte(JovuDeviceAddress address,
                                                            unsigned int offset,
                                                            unsigned char write_buf) {
    return call<&JovuCommandInterface::sd_mmc_write_byte>(transport_, address, offset, write_buf);
}

read_byte_return_t JovuCommandInterface::sd_mmc_read_byte(JovuDeviceAddress address,
                                                          unsigned int offset) {
    return call<&JovuCommandInterface::sd_mmc_read_byte>(transport_, address, offset);
}

int JovuCommandInterface::sd_mmc_read(JovuDeviceAddress address, unsigned int offset,
                                      std::shared_ptr<unsigned char> read_buf,
                                      unsigned int length) {
    return call<&JovuCommandInterface::sd_mmc_read>(transport_, address, offset,
                                                    std::move(read_buf), length);
}

storage_info_t JovuCommandInterface::sd_mmc_get_storage_info(JovuDeviceAddress address) {
    return call<&JovuCommandInterface::sd_mmc_get_storage_info>(transport_, address);
}

void JovuCommandInterface::ui_led(JovuDeviceAddress address, ui_led_t led, short on_count,
                                  short off_count) {
    return call<&JovuCommandInterface::ui_led>(transport_, address, led, on_count, off_count);
}

void JovuCommandInterface::hbridge_duty_set(JovuDeviceAddress address, hbridge_name_t hbridge,
                                            int duty) {
    return call<&JovuCommandInterface::hbridge_duty_set>(transport_, address, hbridge, duty);
}

void JovuCommandInterface::Enter_dfu_mode(JovuDeviceAddress address) {
    return call<&JovuCommandInterface::Enter_dfu_mode>(transport_, address);
}

unsigned char JovuCommandInterface::jm_disable_network_tasks(JovuDeviceAddress address) {
    return call<&JovuCommandInterface::jm_disable_network_tasks>(transport_, address);
}

void JovuCommandInterface::jm_enable_network_tasks(JovuDeviceAddress address) {
    return call<&JovuCommandInterface::jm_enable_network_tasks>(transport_, address);
}

bool JovuCommandInterface::jm_are_network_tasks_enabled(JovuDeviceAddress address) {
    return call<&JovuCommandInterface::jm_are_network_tasks_enabled>(transport_, address);
}

unsigned char JovuCommandInterface::check_store_connection(JovuDeviceAddress address) {
    return call<&JovuCommandInterface::check_store_connection>(transport_, address);
}

void JovuCommandInterface::Reset_printer(JovuDeviceAddress address) {
    return call<&JovuCommandInterface::Reset_printer>(transport_, address);
}
