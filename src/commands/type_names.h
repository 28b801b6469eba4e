// SPDX-License-Identifier: Apache-2.0

/// @file
/// The names of the types that commands carry, for help texts and documents.
#pragma once

#include <memory>
#include <string>
#include <string_view>

#include "commands/structures.h"

namespace jovu {

/// The name of T as C++ programs write it. Defined for every type of the catalogue.
template <class T, class = void>
struct TypeName;

#define JOVU_TYPE_NAME(type)                             \
    template <>                                          \
    struct TypeName<type> {                              \
        static constexpr std::string_view value = #type; \
    }

JOVU_TYPE_NAME(void);
JOVU_TYPE_NAME(bool);
JOVU_TYPE_NAME(unsigned char);
JOVU_TYPE_NAME(signed char);
JOVU_TYPE_NAME(short);
JOVU_TYPE_NAME(unsigned short);
JOVU_TYPE_NAME(int);
JOVU_TYPE_NAME(unsigned int);
JOVU_TYPE_NAME(float);
JOVU_TYPE_NAME(double);
JOVU_TYPE_NAME(gpio_name_t);
JOVU_TYPE_NAME(gpio_input_name_t);
JOVU_TYPE_NAME(input_state_t);
JOVU_TYPE_NAME(gcode_process_result_t);
JOVU_TYPE_NAME(heater_params_t);
JOVU_TYPE_NAME(heater_guardband_t);
JOVU_TYPE_NAME(heater_state_t);
JOVU_TYPE_NAME(heater_fault_t);
JOVU_TYPE_NAME(HEATER_VARS_m);
JOVU_TYPE_NAME(wifi_interface_t);
JOVU_TYPE_NAME(servo_dc_name_t);
JOVU_TYPE_NAME(servo_move_call_result_t);
JOVU_TYPE_NAME(servo_dc_move_dir_t);
JOVU_TYPE_NAME(ui_led_t);
JOVU_TYPE_NAME(hbridge_name_t);
JOVU_TYPE_NAME(std::shared_ptr<char>);
JOVU_TYPE_NAME(std::shared_ptr<float>);
JOVU_TYPE_NAME(std::shared_ptr<unsigned char>);
JOVU_TYPE_NAME(std::shared_ptr<wifi_config_t>);
JOVU_TYPE_NAME(std::shared_ptr<servo_dc_move_config_t>);
JOVU_TYPE_NAME(std::shared_ptr<servo_dc_move_modifier_data_t>);

#undef JOVU_TYPE_NAME

template <class S>
struct TypeName<S, std::enable_if_t<is_structure<S>>> {
    static constexpr std::string_view value = Structure<S>::name;
};

}  // namespace jovu
