// SPDX-License-Identifier: Apache-2.0

/// @file
/// The firmware's data types as they cross the public interface.
///
/// Every structure is a plain aggregate, laid out in the order of its members, and copied by value.
/// A string in a fixed array of characters is padded with NULs; one that fills the array has no NUL
/// at its end. A member that a response lacks, or holds as another kind of value, is zero.
///
/// Where no unit, range or meaning is given, the firmware defines it, and the library passes the
/// value through unchanged.
#pragma once

#include <cstdint>

/// @name Enumerations
/// The numeric values are the firmware's own and are passed through unchanged; every
/// 32-bit value is accepted in both directions. `gpio_name_t{3}` makes one from a number.
/// @{

/// A pin of the controller.
enum gpio_name_t : std::uint32_t {};
/// A pin that is an input.
enum gpio_input_name_t : std::uint32_t {};
/// State of an input.
enum input_state_t : std::uint32_t {};
/// Outcome of a line of gcode or of a macro.
enum gcode_process_result_t : std::uint32_t {};
/// A parameter of the heater's control loop.
enum heater_params_t : std::uint32_t {};
/// Whether the heater is close to its target.
enum heater_guardband_t : std::uint32_t {};
/// State of the heater.
enum heater_state_t : std::uint32_t {};
/// Why the heater has stopped.
enum heater_fault_t : std::uint32_t {};
/// A variable of the heater, such as its target.
enum HEATER_VARS_m : std::uint32_t {};
/// A Wi-Fi interface of the controller.
enum wifi_interface_t : std::uint32_t {};
/// A DC servo axis; the only signed enumeration.
enum servo_dc_name_t : std::int32_t {};
/// Whether a move was accepted.
enum servo_move_call_result_t : std::uint32_t {};
/// Direction of a move.
enum servo_dc_move_dir_t : std::uint32_t {};
/// An LED of the controller.
enum ui_led_t : std::uint32_t {};
/// An H-bridge output.
enum hbridge_name_t : std::uint32_t {};

/// @}
/// @name Wi-Fi
/// @{

/// A network to join.
struct wifi_client_connect_t {
    char ssid[32];          ///< Name of the network, padded with NULs.
    char key[64];           ///< Its key, padded with NULs; all NUL for an open network.
    std::uint32_t timeout;  ///< How long to try, in the firmware's unit.
};

/// What a Wi-Fi interface does when the controller starts.
struct wifi_ifc_config_t {
    bool auto_start;                    ///< Start with the controller.
    bool auto_connect;                  ///< Join a network when started.
    char auto_connect_ssid[32];         ///< Which network, padded with NULs.
    char auto_connect_key[64];          ///< Its key, padded with NULs.
    std::int32_t auto_connect_timeout;  ///< How long to try, in the firmware's unit.
};

/// The Wi-Fi hardware.
struct wifi_hdw_config_t {
    unsigned char mac_address[6];    ///< Hardware address.
    unsigned char patch_version[2];  ///< Version of its patch.
};

/// Addresses of a Wi-Fi interface, in the order in which they are written (192 first).
struct wifi_ip_config_t {
    unsigned char ip[4];               ///< Address of the interface.
    unsigned char subnet_mask[4];      ///< Mask of its network.
    unsigned char default_gateway[4];  ///< Gateway to other networks.
    unsigned char dhcp_server[4];      ///< DHCP server.
    unsigned char dns_server[4];       ///< Name server.
    unsigned char mac_address[6];      ///< Hardware address.
    char connected_ssid[32];           ///< The network that is joined, padded with NULs.
};

/// Configuration of a Wi-Fi interface.
struct wifi_config_t {
    wifi_ifc_config_t ifc_config;  ///< What the interface does at the start.
    wifi_hdw_config_t hdw_config;  ///< The hardware.
    wifi_ip_config_t ip_config;    ///< Its addresses.
};

/// Whether a Wi-Fi interface has joined a network, and with which addresses.
struct wifi_status_t {
    bool connected;              ///< Whether it has joined a network.
    wifi_ip_config_t ip_config;  ///< Its addresses.
};

/// A network that a scan has found.
struct wifi_scan_network_t {
    char ssid[32];            ///< Its name, padded with NULs.
    std::int32_t encryption;  ///< Kind of encryption, the firmware's own value.
    std::int8_t strength;     ///< Signal strength, in the firmware's unit.
};

/// @}
/// @name DC servos
/// @{

/// Gains of a servo's control loop.
struct servo_dc_gains_t {
    float kp;  ///< Proportional.
    float ki;  ///< Integral.
    float kd;  ///< Derivative.
    float ka;  ///< Feed-forward of the acceleration.
    float kv;  ///< Feed-forward of the velocity.
    float kf;  ///< Feed-forward of the friction.
};

/// Configuration of a servo.
struct servo_dc_client_config_t {
    std::uint16_t interrupt_frequency;    ///< Rate of the control loop.
    servo_dc_gains_t gains;               ///< Gains of the control loop.
    std::int32_t pwm_cap;                 ///< Largest drive.
    std::uint32_t pwm_cap_time;           ///< How long the largest drive is allowed.
    std::uint32_t units;                  ///< Kind of client units.
    float pos_res_eu_per_mm;              ///< Encoder units (native units) in a millimetre.
    float vel_res_mm_per_sec;             ///< Resolution of velocities, mm/s.
    float speed_max;                      ///< Limit of the speed.
    float accel_max;                      ///< Limit of the acceleration.
    std::uint32_t move_dist_min_static;   ///< Shortest move from rest.
    std::uint32_t move_dist_min_dynamic;  ///< Shortest move while moving.
    std::uint32_t trace;                  ///< Tracing, the firmware's own value.
};

/// A move of a servo. Begin with what servo_dc_move_default() returns.
struct servo_dc_move_config_t {
    std::uint32_t move_type;        ///< Kind of move.
    bool start_sync;                ///< Wait for servo_dc_move_start_sync() before moving.
    double target;                  ///< Where to.
    float distance;                 ///< How far.
    float speed_f;                  ///< Speed.
    float accel_f;                  ///< Acceleration at the start.
    float decel_f;                  ///< Deceleration at the end.
    std::uint32_t max_cycles;       ///< Limit of the control-loop cycles that the move may take.
    std::uint32_t metric_skip;      ///< Control-loop cycles left out of the metrics.
    float speed_offset_upramp_f;    ///< Correction of the speed while accelerating.
    float speed_offset_downramp_f;  ///< Correction of the speed while decelerating.
    bool ignore_stalls;             ///< Go on when the axis does not follow.
    bool slaved;                    ///< Follow another servo.
    float slave_ratio;              ///< Ratio to the servo that is followed.
};

/// A change of a move in progress.
struct servo_dc_move_modifier_data_t {
    servo_dc_name_t servo_name;     ///< Which servo.
    std::uint32_t type;             ///< Kind of change.
    float pos;                      ///< Position at which it takes place.
    float vel;                      ///< New velocity.
    float accel;                    ///< New acceleration.
    float decel;                    ///< New deceleration.
    float validation_pos;           ///< Position for the validation.
    bool use_validation_pos;        ///< Whether `validation_pos` counts.
    unsigned char decel_ramp_skip;  ///< Whether to leave out the deceleration.
    std::int32_t data;              ///< Depends on the kind of change.
    unsigned char active;           ///< Whether this entry counts.
};

/// How well a servo has followed its last move. The variance is M2 / (n - 1).
struct servo_dc_move_metrics_t {
    std::int32_t n;  ///< Number of samples.
    float mean;      ///< Running mean.
    float M2;        ///< Running sum of squared deviations from the mean.
};

/// One sample of a DC servo's control loop. Every field is the whole part of the number that the
/// device sent, cut to the field's width.
struct servo_trace_msg {
    std::int16_t servo_name;   ///< Which servo, in the firmware's numbering.
    std::int16_t servo_state;  ///< State of the servo's control loop, the firmware's own value.
    std::uint32_t int_cnt;     ///< Count of the control loop's interrupts; one per sample.
    std::int32_t pos_cmd;      ///< Commanded position, native units.
    std::int32_t pos;          ///< Actual position, native units.
    std::int16_t pwm;          ///< Drive, signed PWM duty in the firmware's own units.
    std::int32_t padout_dist;  ///< Pad-out distance, native units.
};

/// @}
/// @name SD store
/// @{

/// Outcome of writing one byte.
struct write_byte_return_t {
    std::int16_t success;       ///< The firmware's own status.
    std::uint32_t timetowrite;  ///< How long it took, in the firmware's unit.
};

/// Outcome of reading one byte.
struct read_byte_return_t {
    std::int16_t byteread;     ///< The byte, or the firmware's own status.
    std::uint32_t timetoread;  ///< How long it took, in the firmware's unit.
};

/// Size of the SD store.
struct storage_info_t {
    std::uint32_t total_size;   ///< As the firmware counts it.
    std::uint32_t block_count;  ///< Number of blocks.
    std::uint32_t block_size;   ///< Bytes in a block.
};

/// @}
