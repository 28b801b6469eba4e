/// @file
/// The firmware's commands, one method each.
#pragma once

#include <memory>

#include "jovu/device_address.h"
#include "jovu/export.h"
#include "jovu/firmware_types.h"

class JovuTransport;

/// One method per firmware command. Each sends one request to one device and blocks until the
/// answer is in or the exchange has failed.
///
/// Failure: no method throws because an exchange failed. It prints one line on standard output and
/// returns a zero-initialised result (null for a text); JovuTransport::last_send_error() then says
/// why, on the calling thread, and is empty when the device answered. Where the firmware's own
/// result says whether a command was carried out, 0 may well mean success: ask last_send_error()
/// first. An answer without a result, which is how a device may refuse a command, counts as
/// answered and returns zero or null as well.
///
/// Arguments: values are passed through unchanged, units and ranges are the firmware's where
/// nothing else is said. Refused before anything is sent, as a failed exchange: a null pointer, and
/// a NaN or an infinity, which have no form on the wire and could reach a heater as something else.
///
/// Buffers and structures behind a `std::shared_ptr` are read, never written: whatever a device
/// sends back under an argument's name is not copied into the caller's memory. Of a buffer only the
/// first element travels, however long it is.
///
/// Threads: any, also several at once; exchanges with one device are serialised. An exchange takes
/// 15 s at the most without a sign from the device. From a handler that is called with received
/// data (events, job-channel callbacks) every command fails at once: it could not be answered while
/// that handler runs.
class JOVU_API JovuCommandInterface {
public:
    /// @param transport sends the commands; must outlive this object.
    explicit JovuCommandInterface(JovuTransport& transport);

    /// @name Identity
    /// @return a NUL-terminated text, or null when the exchange failed.
    /// @{

    /// Version text of the firmware.
    std::shared_ptr<char> bio_get_version(JovuDeviceAddress address);

    /// Serial number text of the controller.
    std::shared_ptr<char> bio_get_serial(JovuDeviceAddress address);

    /// @}
    /// @name GPIO
    /// @{

    /// Level of a pin as it is.
    bool gpio_get_raw(JovuDeviceAddress address, gpio_name_t gpio);

    /// State of an input.
    /// @param debounce true for the settled state, false for the one of this moment.
    input_state_t gpio_input_get(JovuDeviceAddress address, gpio_input_name_t pin, bool debounce);

    /// Sets an output.
    void gpio_output_set(JovuDeviceAddress address, gpio_name_t pin, bool value);

    /// @}
    /// @name Gcode
    /// @return the interpreter's verdict, the firmware's own value passed through unchanged.
    /// @{

    /// Hands one line of gcode to the controller's interpreter.
    /// @param command the line, a non-null NUL-terminated text.
    gcode_process_result_t gcode_process_command(JovuDeviceAddress address,
                                                 std::shared_ptr<char> command);

    /// Runs a macro that is stored in the controller.
    /// @param macro its name, a non-null NUL-terminated text.
    gcode_process_result_t gcode_process_macro(JovuDeviceAddress address,
                                               std::shared_ptr<char> macro);

    /// @}
    /// @name Heater
    /// Results of type `short` are the firmware's own verdict.
    /// @{

    /// Sets a parameter of the heater's control loop.
    short heater_param_set(JovuDeviceAddress address, heater_params_t param_num, float param_val);

    /// Asks for a parameter of the heater's control loop. The value itself does not reach the
    /// caller.
    /// @param param_val non-null; its first element is sent along and nothing is written to it.
    short heater_param_get(JovuDeviceAddress address, heater_params_t param_num,
                           std::shared_ptr<float> param_val);

    /// Puts all parameters back to the firmware's defaults.
    void heater_param_set_defaults(JovuDeviceAddress address);

    /// Puts all variables back to the firmware's defaults.
    void heater_var_set_defaults(JovuDeviceAddress address);

    /// Starts heating.
    short heater_turn_on(JovuDeviceAddress address);

    /// Stops heating.
    short heater_turn_off(JovuDeviceAddress address);

    /// Whether the temperature is within the band around the target.
    heater_guardband_t heater_in_guardband(JovuDeviceAddress address);

    /// What the heater is doing.
    heater_state_t heater_state_get(JovuDeviceAddress address);

    /// Why the heater has stopped, if it has.
    heater_fault_t heater_fault_get(JovuDeviceAddress address);

    /// Sets a variable of the heater, such as its target.
    short heater_var_set(JovuDeviceAddress address, HEATER_VARS_m var_num, float var_val);

    /// Asks for a variable of the heater. The value itself does not reach the caller.
    /// @param var_val non-null; its first element is sent along and nothing is written to it.
    short heater_var_get(JovuDeviceAddress address, HEATER_VARS_m var_num,
                         std::shared_ptr<float> var_val);

    /// @}
    /// @name Wi-Fi
    /// Results of type `int` are the firmware's own verdict.
    /// @{

    /// Switches a Wi-Fi interface on.
    int wifi_start_wifi(JovuDeviceAddress address, wifi_interface_t interface_t);

    /// Switches a Wi-Fi interface off.
    int wifi_stop_wifi(JovuDeviceAddress address, wifi_interface_t interface_t);

    /// Joins a network.
    int wifi_client_connect(JovuDeviceAddress address, wifi_interface_t interface_t,
                            wifi_client_connect_t connect_t);

    /// Leaves the network.
    int wifi_disconnect(JovuDeviceAddress address, wifi_interface_t interface_t);

    /// Whether a network is joined, and with which addresses.
    wifi_status_t wifi_client_get_status(JovuDeviceAddress address, wifi_interface_t interface_t);

    /// The configuration of a Wi-Fi interface.
    wifi_config_t wifi_client_get_configuration(JovuDeviceAddress address,
                                                wifi_interface_t interface_t);

    /// Keeps the configuration over a restart of the controller.
    int wifi_save_configuration(JovuDeviceAddress address, wifi_interface_t interface_t);

    /// Whether the interface starts with the controller.
    int wifi_set_auto_start_configuration_item(JovuDeviceAddress address,
                                               wifi_interface_t interface_t, bool auto_start);

    /// Whether the interface joins a network when it is started.
    int wifi_set_auto_connect_configuration_item(JovuDeviceAddress address,
                                                 wifi_interface_t interface_t, bool auto_connect);

    /// Which network the interface joins by itself.
    /// @param auto_connect_ssid its name, a non-null NUL-terminated text.
    int wifi_set_auto_connect_ssid_configuration_item(JovuDeviceAddress address,
                                                      wifi_interface_t interface_t,
                                                      std::shared_ptr<char> auto_connect_ssid);

    /// The key of the network that the interface joins by itself.
    /// @param auto_connect_key a non-null NUL-terminated text.
    int wifi_set_auto_connect_key_configuration_item(JovuDeviceAddress address,
                                                     wifi_interface_t interface_t,
                                                     std::shared_ptr<char> auto_connect_key);

    /// Configures a Wi-Fi interface as a whole.
    /// @param cmd which part of the configuration counts, the firmware's own value.
    /// @param config non-null; its first element is sent.
    int wifi_client_configure(JovuDeviceAddress address, wifi_interface_t interface_t, int cmd,
                              std::shared_ptr<wifi_config_t> config);

    /// Looks for networks. wifi_client_scan_get() then tells what was found.
    int wifi_client_scan_refresh(JovuDeviceAddress address, wifi_interface_t interface_t);

    /// One network of the last scan.
    /// @param index 0 to 255, the first is 0.
    wifi_scan_network_t wifi_client_scan_get(JovuDeviceAddress address,
                                             wifi_interface_t interface_t, unsigned char index);

    /// @}
    /// @name DC servos
    /// Native units are those of the encoder; client units are what the servo's configuration makes
    /// of them, such as millimetres. All conversions are done by the device.
    /// @{

    /// Configuration of a servo.
    servo_dc_client_config_t servo_dc_config_get(JovuDeviceAddress address,
                                                 servo_dc_name_t servo_name);

    /// Configures a servo.
    void servo_dc_config_set(JovuDeviceAddress address, servo_dc_name_t servo_name,
                             servo_dc_client_config_t config);

    /// A move with every member at the firmware's default.
    servo_dc_move_config_t servo_dc_move_default(JovuDeviceAddress address);

    /// Starts a move, or prepares one that waits for servo_dc_move_start_sync(). Does not wait for
    /// its end.
    /// @param move_config non-null; its first element is sent.
    servo_move_call_result_t servo_dc_move(JovuDeviceAddress address, servo_dc_name_t servo_name,
                                           std::shared_ptr<servo_dc_move_config_t> move_config);

    /// Starts all prepared moves at the same time.
    void servo_dc_move_start_sync(JovuDeviceAddress address);

    /// Whether a move is under way.
    bool servo_dc_move_active(JovuDeviceAddress address, servo_dc_name_t servo_name);

    /// Takes the drive off a servo.
    bool servo_dc_put_idle(JovuDeviceAddress address, servo_dc_name_t servo_name);

    /// Changes a move that is under way.
    /// @param modifer_data non-null; its first element is sent, whatever @p count says. The name is
    ///     the key on the wire, so spelled.
    /// @param count passed through unchanged.
    /// @param validate whether the device checks the change first.
    unsigned char servo_dc_move_modify(JovuDeviceAddress address,
                                       std::shared_ptr<servo_dc_move_modifier_data_t> modifer_data,
                                       unsigned int count, bool validate);

    /// Whether a change of a move could be carried out.
    /// @param modifier_data non-null; its first element is sent, whatever @p count says.
    /// @param count passed through unchanged.
    bool servo_dc_move_modifier_validate(
        JovuDeviceAddress address, std::shared_ptr<servo_dc_move_modifier_data_t> modifier_data,
        unsigned int count);

    /// How well a servo has followed its last move.
    servo_dc_move_metrics_t servo_dc_move_metrics_get(JovuDeviceAddress address,
                                                      servo_dc_name_t servo_name);

    /// Direction of the move.
    servo_dc_move_dir_t servo_dc_move_dir_get(JovuDeviceAddress address,
                                              servo_dc_name_t servo_name);

    /// Position in native units.
    int servo_dc_position_get(JovuDeviceAddress address, servo_dc_name_t servo_name);

    /// Position in client units.
    float servo_dc_position_get_client(JovuDeviceAddress address, servo_dc_name_t servo_name);

    /// Says which position this is, in native units. Nothing moves.
    void servo_dc_position_set(JovuDeviceAddress address, servo_dc_name_t servo_name, int position);

    /// Says which position this is, in client units. Nothing moves.
    void servo_dc_position_set_client(JovuDeviceAddress address, servo_dc_name_t servo_name,
                                      float position);

    /// Where the move leads, in client units.
    float servo_dc_target_get_client(JovuDeviceAddress address, servo_dc_name_t servo_name);

    /// Converts a position from client units to native ones.
    int servo_dc_units_client_to_native(JovuDeviceAddress address, servo_dc_name_t servo_name,
                                        float pos_client);

    /// Converts a position from native units to client ones.
    float servo_dc_units_native_to_client(JovuDeviceAddress address, servo_dc_name_t servo_name,
                                          int pos_native);

    /// Name of a servo for people to read.
    /// @return a NUL-terminated text, or null when the exchange failed.
    std::shared_ptr<char> servo_dc_name_str_get(JovuDeviceAddress address,
                                                servo_dc_name_t servo_name);

    /// Sets the backlash of a servo.
    /// @param backlash_value native units.
    /// @param flush whether to apply it at once.
    void servo_dc_backlash_set(JovuDeviceAddress address, servo_dc_name_t servo_name,
                               short backlash_value, bool flush);

    /// Switches the trace events of a servo on or off: see
    /// JovuEventInterface::servo_dc_trace_event().
    void servo_dc_trace_enable(JovuDeviceAddress address, servo_dc_name_t servo_name, bool enable);

    /// @}
    /// @name Filament
    /// @return the firmware's own verdict.
    /// @{

    /// Begins to unload the filament. Does not wait for the end.
    unsigned char unload_initiate(JovuDeviceAddress address);

    /// Begins to load a filament. Does not wait for the end.
    unsigned char load_initiate(JovuDeviceAddress address);

    /// @}
    /// @name SD store
    /// @{

    /// Writes to the store.
    /// @param offset where to, bytes from the start.
    /// @param buf non-null; only its first byte is sent, whatever @p length says.
    /// @param length passed through unchanged.
    /// @return the firmware's own verdict.
    int sd_mmc_write(JovuDeviceAddress address, unsigned int offset,
                     std::shared_ptr<unsigned char> buf, unsigned int length);

    /// Writes one byte to the store.
    /// @param offset where to, bytes from the start.
    write_byte_return_t sd_mmc_write_byte(JovuDeviceAddress address, unsigned int offset,
                                          unsigned char write_buf);

    /// Reads one byte from the store.
    /// @param offset where from, bytes from the start.
    read_byte_return_t sd_mmc_read_byte(JovuDeviceAddress address, unsigned int offset);

    /// Asks the device to read from the store. The bytes do not reach the caller.
    /// @param offset where from, bytes from the start.
    /// @param read_buf non-null; its first byte is sent along and nothing is written to it.
    /// @param length passed through unchanged.
    /// @return the firmware's own verdict.
    int sd_mmc_read(JovuDeviceAddress address, unsigned int offset,
                    std::shared_ptr<unsigned char> read_buf, unsigned int length);

    /// Size of the store.
    storage_info_t sd_mmc_get_storage_info(JovuDeviceAddress address);

    /// @}
    /// @name Outputs
    /// @{

    /// Lets a light blink.
    /// @param on_count how long it is on, in the firmware's unit.
    /// @param off_count how long it is off, in the firmware's unit.
    void ui_led(JovuDeviceAddress address, ui_led_t led, short on_count, short off_count);

    /// Sets the duty of an H-bridge.
    void hbridge_duty_set(JovuDeviceAddress address, hbridge_name_t hbridge, int duty);

    /// @}
    /// @name System
    /// @{

    /// Restarts the controller as a USB DFU device, ready for a new firmware. It leaves the bus;
    /// the exchange may fail although the command was carried out.
    void Enter_dfu_mode(JovuDeviceAddress address);

    /// Stops the controller's network tasks.
    /// @return the firmware's own verdict.
    unsigned char jm_disable_network_tasks(JovuDeviceAddress address);

    /// Lets the controller's network tasks run.
    void jm_enable_network_tasks(JovuDeviceAddress address);

    /// Whether the controller's network tasks run.
    bool jm_are_network_tasks_enabled(JovuDeviceAddress address);

    /// Whether the controller can reach its store.
    /// @return the firmware's own verdict.
    unsigned char check_store_connection(JovuDeviceAddress address);

    /// Restarts the printer. The exchange may fail although the command was carried out.
    void Reset_printer(JovuDeviceAddress address);

    /// @}

private:
    JovuTransport& transport_;
};
