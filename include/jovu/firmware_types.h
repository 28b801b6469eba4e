/// @file
/// The firmware's data types as they cross the public interface.
#pragma once

#include <cstdint>

/// Outcome of one gcode line or macro. The numeric values are the firmware's own and are passed
/// through unchanged; any 32-bit value may come.
enum gcode_process_result_t : std::uint32_t {};

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
