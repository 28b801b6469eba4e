// SPDX-License-Identifier: Apache-2.0

/// @file
/// The firmware's commands, one method each.
#pragma once

#include <memory>

#include "jovu/device_address.h"
#include "jovu/export.h"
#include "jovu/firmware_types.h"
#include "jovu/string_conversion.h"

class JovuTransport;

/// One method per firmware command. Each sends one request to one device and blocks until the
/// response has arrived or the exchange has failed.
///
/// Failure: no method throws because an exchange failed. It prints one line on standard output and
/// returns a zero-initialised result (null for a string). JovuTransport::last_send_error() then
/// returns the reason, on the calling thread; it is empty when the device has responded. Where the
/// firmware's own result is a status, 0 may mean success: check last_send_error() first. A response
/// without a result, by which a device may refuse a command, is a response: the method returns zero
/// or null and last_send_error() is empty.
///
/// Arguments: values are passed through unchanged, units and ranges are the firmware's where
/// nothing else is said. Refused before anything is sent, as a failed exchange: a null pointer,
/// NaN and infinity, which cannot be represented in JSON, and a zero byte in a string that carries
/// its length. Every command with a string has an overload that takes what converts to a
/// `std::string_view` in place of the `std::shared_ptr<char>`.
///
/// Buffers and structures behind a `std::shared_ptr` are read, never written: whatever a device
/// sends back under an argument's name is not copied into the caller's memory. Of a buffer only the
/// first element is sent, however long it is.
///
/// Threads: any, also several at once; exchanges with one device are serialised. An exchange takes
/// at most 15 s when the device does not respond (see JovuTransport::set_response_timeout(),
/// JovuResponseTimeout and JovuTransport::cancel_exchanges()). In a handler that is called with
/// received data (events, job-channel callbacks) every command fails at once, since its response
/// could not be received while that handler runs.
class JOVU_API JovuCommandInterface {
public:
    /// @param transport sends the commands; must outlive this object.
    explicit JovuCommandInterface(JovuTransport& transport);

    /// @name Identity
    /// @return a NUL-terminated string, or null when the exchange failed.
    /// @{

    /// Read the firmware version.
    std::shared_ptr<char> bio_get_version(JovuDeviceAddress address);

    /// Read the controller's serial number.
    std::shared_ptr<char> bio_get_serial(JovuDeviceAddress address);

    /// @}
    /// @name GPIO
    /// @{

    /// Read the level of a pin.
    bool gpio_get_raw(JovuDeviceAddress address, gpio_name_t gpio);

    /// Read the state of an input.
    /// @param debounce true for the settled state, false for the one of this moment.
    input_state_t gpio_input_get(JovuDeviceAddress address, gpio_input_name_t pin, bool debounce);

    /// Set an output.
    void gpio_output_set(JovuDeviceAddress address, gpio_name_t pin, bool value);

    /// @}
    /// @name Gcode
    /// @return the interpreter's status, the firmware's own value passed through unchanged.
    /// @{

    /// Run one line of gcode.
    /// @param command the line, a non-null NUL-terminated string.
    gcode_process_result_t gcode_process_command(JovuDeviceAddress address,
                                                 std::shared_ptr<char> command);
    /// The same with a string of any kind.
    gcode_process_result_t gcode_process_command(JovuDeviceAddress address,
                                                 JovuStringArgument command);

    /// Run a macro stored in the controller.
    /// @param macro its name, a non-null NUL-terminated string.
    gcode_process_result_t gcode_process_macro(JovuDeviceAddress address,
                                               std::shared_ptr<char> macro);
    /// The same with a string of any kind.
    gcode_process_result_t gcode_process_macro(JovuDeviceAddress address, JovuStringArgument macro);

    /// @}
    /// @name Heater
    /// Results of type `short` are the firmware's own status.
    /// @{

    /// Set a parameter of the heater's control loop.
    short heater_param_set(JovuDeviceAddress address, heater_params_t param_num, float param_val);

    /// Query a parameter of the heater's control loop. The value itself does not reach the caller.
    /// @param param_val non-null; its first element is sent along and nothing is written to it.
    short heater_param_get(JovuDeviceAddress address, heater_params_t param_num,
                           std::shared_ptr<float> param_val);

    /// Reset all parameters to the firmware's defaults.
    void heater_param_set_defaults(JovuDeviceAddress address);

    /// Reset all variables to the firmware's defaults.
    void heater_var_set_defaults(JovuDeviceAddress address);

    /// Start heating.
    short heater_turn_on(JovuDeviceAddress address);

    /// Stop heating.
    short heater_turn_off(JovuDeviceAddress address);

    /// Check whether the temperature is within the band around the target.
    heater_guardband_t heater_in_guardband(JovuDeviceAddress address);

    /// Read the heater's state.
    heater_state_t heater_state_get(JovuDeviceAddress address);

    /// Read the fault that stopped the heater, if any.
    heater_fault_t heater_fault_get(JovuDeviceAddress address);

    /// Set a variable of the heater, such as its target.
    short heater_var_set(JovuDeviceAddress address, HEATER_VARS_m var_num, float var_val);

    /// Query a variable of the heater. The value itself does not reach the caller.
    /// @param var_val non-null; its first element is sent along and nothing is written to it.
    short heater_var_get(JovuDeviceAddress address, HEATER_VARS_m var_num,
                         std::shared_ptr<float> var_val);

    /// @}
    /// @name Wi-Fi
    /// Results of type `int` are the firmware's own status.
    /// @{

    /// Turn a Wi-Fi interface on.
    int wifi_start_wifi(JovuDeviceAddress address, wifi_interface_t interface_t);

    /// Turn a Wi-Fi interface off.
    int wifi_stop_wifi(JovuDeviceAddress address, wifi_interface_t interface_t);

    /// Join a network.
    int wifi_client_connect(JovuDeviceAddress address, wifi_interface_t interface_t,
                            wifi_client_connect_t connect_t);

    /// Leave the network.
    int wifi_disconnect(JovuDeviceAddress address, wifi_interface_t interface_t);

    /// Read the connection state and addresses of a Wi-Fi interface.
    wifi_status_t wifi_client_get_status(JovuDeviceAddress address, wifi_interface_t interface_t);

    /// Read the configuration of a Wi-Fi interface.
    wifi_config_t wifi_client_get_configuration(JovuDeviceAddress address,
                                                wifi_interface_t interface_t);

    /// Save the configuration permanently.
    int wifi_save_configuration(JovuDeviceAddress address, wifi_interface_t interface_t);

    /// Set whether the interface starts with the controller.
    int wifi_set_auto_start_configuration_item(JovuDeviceAddress address,
                                               wifi_interface_t interface_t, bool auto_start);

    /// Set whether the interface joins a network when it starts.
    int wifi_set_auto_connect_configuration_item(JovuDeviceAddress address,
                                                 wifi_interface_t interface_t, bool auto_connect);

    /// Set the network that the interface joins automatically.
    /// @param auto_connect_ssid its name, a non-null NUL-terminated string.
    int wifi_set_auto_connect_ssid_configuration_item(JovuDeviceAddress address,
                                                      wifi_interface_t interface_t,
                                                      std::shared_ptr<char> auto_connect_ssid);
    /// The same with a string of any kind.
    int wifi_set_auto_connect_ssid_configuration_item(JovuDeviceAddress address,
                                                      wifi_interface_t interface_t,
                                                      JovuStringArgument auto_connect_ssid);

    /// Set the key of the network that the interface joins automatically.
    /// @param auto_connect_key a non-null NUL-terminated string.
    int wifi_set_auto_connect_key_configuration_item(JovuDeviceAddress address,
                                                     wifi_interface_t interface_t,
                                                     std::shared_ptr<char> auto_connect_key);
    /// The same with a string of any kind.
    int wifi_set_auto_connect_key_configuration_item(JovuDeviceAddress address,
                                                     wifi_interface_t interface_t,
                                                     JovuStringArgument auto_connect_key);

    /// Set the whole configuration of a Wi-Fi interface.
    /// @param cmd which part of the configuration counts, the firmware's own value.
    /// @param config non-null; its first element is sent.
    int wifi_client_configure(JovuDeviceAddress address, wifi_interface_t interface_t, int cmd,
                              std::shared_ptr<wifi_config_t> config);

    /// Scan for networks; wifi_client_scan_get() then returns them.
    int wifi_client_scan_refresh(JovuDeviceAddress address, wifi_interface_t interface_t);

    /// Read one network of the last scan.
    /// @param index 0 to 255, the first is 0.
    wifi_scan_network_t wifi_client_scan_get(JovuDeviceAddress address,
                                             wifi_interface_t interface_t, unsigned char index);

    /// @}
    /// @name DC servos
    /// Native units are those of the encoder; client units are what the servo's configuration makes
    /// of them, such as millimetres. All conversions are done by the device.
    /// @{

    /// Read the configuration of a servo.
    servo_dc_client_config_t servo_dc_config_get(JovuDeviceAddress address,
                                                 servo_dc_name_t servo_name);

    /// Set the configuration of a servo.
    void servo_dc_config_set(JovuDeviceAddress address, servo_dc_name_t servo_name,
                             servo_dc_client_config_t config);

    /// Read a move with every member at the firmware's default.
    servo_dc_move_config_t servo_dc_move_default(JovuDeviceAddress address);

    /// Start a move, or prepare one that waits for servo_dc_move_start_sync(). Does not wait for
    /// its end.
    /// @param move_config non-null; its first element is sent.
    servo_move_call_result_t servo_dc_move(JovuDeviceAddress address, servo_dc_name_t servo_name,
                                           std::shared_ptr<servo_dc_move_config_t> move_config);

    /// Start all prepared moves at the same time.
    void servo_dc_move_start_sync(JovuDeviceAddress address);

    /// Check whether a move is in progress.
    bool servo_dc_move_active(JovuDeviceAddress address, servo_dc_name_t servo_name);

    /// Disable a servo's drive.
    bool servo_dc_put_idle(JovuDeviceAddress address, servo_dc_name_t servo_name);

    /// Change a move in progress.
    /// @param modifer_data non-null; its first element is sent, whatever @p count says. The name is
    ///     the key on the wire, so spelled.
    /// @param count passed through unchanged.
    /// @param validate whether the device checks the change first.
    unsigned char servo_dc_move_modify(JovuDeviceAddress address,
                                       std::shared_ptr<servo_dc_move_modifier_data_t> modifer_data,
                                       unsigned int count, bool validate);

    /// Check whether a change of a move is possible.
    /// @param modifier_data non-null; its first element is sent, whatever @p count says.
    /// @param count passed through unchanged.
    bool servo_dc_move_modifier_validate(
        JovuDeviceAddress address, std::shared_ptr<servo_dc_move_modifier_data_t> modifier_data,
        unsigned int count);

    /// Read how closely a servo followed its last move.
    servo_dc_move_metrics_t servo_dc_move_metrics_get(JovuDeviceAddress address,
                                                      servo_dc_name_t servo_name);

    /// Read the direction of the current move.
    servo_dc_move_dir_t servo_dc_move_dir_get(JovuDeviceAddress address,
                                              servo_dc_name_t servo_name);

    /// Read the position in native units.
    int servo_dc_position_get(JovuDeviceAddress address, servo_dc_name_t servo_name);

    /// Read the position in client units.
    float servo_dc_position_get_client(JovuDeviceAddress address, servo_dc_name_t servo_name);

    /// Set the current position in native units, without moving.
    void servo_dc_position_set(JovuDeviceAddress address, servo_dc_name_t servo_name, int position);

    /// Set the current position in client units, without moving.
    void servo_dc_position_set_client(JovuDeviceAddress address, servo_dc_name_t servo_name,
                                      float position);

    /// Read the target of the current move in client units.
    float servo_dc_target_get_client(JovuDeviceAddress address, servo_dc_name_t servo_name);

    /// Convert a position from client units to native units.
    int servo_dc_units_client_to_native(JovuDeviceAddress address, servo_dc_name_t servo_name,
                                        float pos_client);

    /// Convert a position from native units to client units.
    float servo_dc_units_native_to_client(JovuDeviceAddress address, servo_dc_name_t servo_name,
                                          int pos_native);

    /// Read the name of a servo.
    /// @return a NUL-terminated string, or null when the exchange failed.
    std::shared_ptr<char> servo_dc_name_str_get(JovuDeviceAddress address,
                                                servo_dc_name_t servo_name);

    /// Set the backlash of a servo.
    /// @param backlash_value native units.
    /// @param flush whether to apply it at once.
    void servo_dc_backlash_set(JovuDeviceAddress address, servo_dc_name_t servo_name,
                               short backlash_value, bool flush);

    /// Turn the trace events of a servo on or off: see
    /// JovuEventInterface::servo_dc_trace_event().
    void servo_dc_trace_enable(JovuDeviceAddress address, servo_dc_name_t servo_name, bool enable);

    /// @}
    /// @name Filament
    /// @return the firmware's own status.
    /// @{

    /// Start unloading the filament. Does not wait for the end.
    unsigned char unload_initiate(JovuDeviceAddress address);

    /// Start loading a filament. Does not wait for the end.
    unsigned char load_initiate(JovuDeviceAddress address);

    /// @}
    /// @name SD store
    /// @{

    /// Write the first byte of a buffer to the store.
    /// @param offset where to, bytes from the start.
    /// @param buf non-null; only its first byte is sent, whatever @p length says.
    /// @param length passed through unchanged.
    /// @return the firmware's own status.
    int sd_mmc_write(JovuDeviceAddress address, unsigned int offset,
                     std::shared_ptr<unsigned char> buf, unsigned int length);

    /// Write one byte to the store.
    /// @param offset where to, bytes from the start.
    write_byte_return_t sd_mmc_write_byte(JovuDeviceAddress address, unsigned int offset,
                                          unsigned char write_buf);

    /// Read one byte from the store.
    /// @param offset where from, bytes from the start.
    read_byte_return_t sd_mmc_read_byte(JovuDeviceAddress address, unsigned int offset);

    /// Have the device read from the store. The bytes do not reach the caller.
    /// @param offset where from, bytes from the start.
    /// @param read_buf non-null; its first byte is sent along and nothing is written to it.
    /// @param length passed through unchanged.
    /// @return the firmware's own status.
    int sd_mmc_read(JovuDeviceAddress address, unsigned int offset,
                    std::shared_ptr<unsigned char> read_buf, unsigned int length);

    /// Read the size of the store.
    storage_info_t sd_mmc_get_storage_info(JovuDeviceAddress address);

    /// @}
    /// @name Outputs
    /// @{

    /// Blink an LED.
    /// @param on_count how long it is on, in the firmware's unit.
    /// @param off_count how long it is off, in the firmware's unit.
    void ui_led(JovuDeviceAddress address, ui_led_t led, short on_count, short off_count);

    /// Set the duty cycle of an H-bridge.
    void hbridge_duty_set(JovuDeviceAddress address, hbridge_name_t hbridge, int duty);

    /// @}
    /// @name System
    /// @{

    /// Restart the controller as a USB DFU device, ready for a new firmware. It leaves the bus;
    /// the exchange may fail although the command was carried out.
    void Enter_dfu_mode(JovuDeviceAddress address);

    /// Stop the controller's network tasks.
    /// @return the firmware's own status.
    unsigned char jm_disable_network_tasks(JovuDeviceAddress address);

    /// Start the controller's network tasks.
    void jm_enable_network_tasks(JovuDeviceAddress address);

    /// Check whether the controller's network tasks run.
    bool jm_are_network_tasks_enabled(JovuDeviceAddress address);

    /// Check whether the controller can reach its store.
    /// @return the firmware's own status.
    unsigned char check_store_connection(JovuDeviceAddress address);

    /// Restart the printer. The exchange may fail although the command was carried out.
    void Reset_printer(JovuDeviceAddress address);

    /// @}

private:
    JovuTransport& transport_;
};
