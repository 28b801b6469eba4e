// SPDX-License-Identifier: Apache-2.0

/// @file
/// Converts values between their C++ types and Python. All functions need the GIL.
///
/// Strings are UTF-8; bytes that are none become lone surrogates, as in file names of Python, and
/// back. Arrays of `char` are strings without the zeros at their end, arrays of `unsigned char`
/// are bytes. A pointer stands for the one value that it is sent with.
#pragma once

#include <pybind11/pybind11.h>

#include <algorithm>
#include <charconv>
#include <cstddef>
#include <cstring>
#include <limits>
#include <memory>
#include <string>
#include <string_view>
#include <tuple>
#include <type_traits>
#include <utility>

#include "commands/structures.h"
#include "commands/type_names.h"
#include "jovu/device_address.h"
#include "jovu/firmware_types.h"
#include "jovu/job_interface.h"
#include "jovu/string_conversion.h"

/// A member of a structure that the firmware's table does not have.
#define JOVU_PYTHON_MEMBER(S, name) std::make_pair(std::string_view(#name), &S::name)

namespace jovu_python {

namespace py = pybind11;

/// Structures that no command carries: name and members.
template <class S>
struct ReceivedStructure;

template <>
struct ReceivedStructure<servo_trace_msg> {
    static constexpr std::string_view name = "servo_trace_msg";
    static constexpr auto members = std::make_tuple(
        JOVU_PYTHON_MEMBER(servo_trace_msg, servo_name),
        JOVU_PYTHON_MEMBER(servo_trace_msg, servo_state),
        JOVU_PYTHON_MEMBER(servo_trace_msg, int_cnt), JOVU_PYTHON_MEMBER(servo_trace_msg, pos_cmd),
        JOVU_PYTHON_MEMBER(servo_trace_msg, pos), JOVU_PYTHON_MEMBER(servo_trace_msg, pwm),
        JOVU_PYTHON_MEMBER(servo_trace_msg, padout_dist));
};

using Status = JovuJobInterface::StatusMsg;
using Printer = decltype(Status::printer);

template <>
struct ReceivedStructure<Printer> {
    static constexpr std::string_view name = "Printer";
    static constexpr auto members = std::make_tuple(
        JOVU_PYTHON_MEMBER(Printer, model_name), JOVU_PYTHON_MEMBER(Printer, cpu_id),
        JOVU_PYTHON_MEMBER(Printer, firmware_name), JOVU_PYTHON_MEMBER(Printer, firmware_version),
        JOVU_PYTHON_MEMBER(Printer, accept_version));
};

template <>
struct ReceivedStructure<Status> {
    static constexpr std::string_view name = "StatusReport";
    static constexpr auto members = std::make_tuple(
        JOVU_PYTHON_MEMBER(Status, printer), JOVU_PYTHON_MEMBER(Status, state),
        JOVU_PYTHON_MEMBER(Status, build_plate), JOVU_PYTHON_MEMBER(Status, filament),
        JOVU_PYTHON_MEMBER(Status, extruder_temperature), JOVU_PYTHON_MEMBER(Status, job_id),
        JOVU_PYTHON_MEMBER(Status, progress), JOVU_PYTHON_MEMBER(Status, file),
        JOVU_PYTHON_MEMBER(Status, time_elapsed), JOVU_PYTHON_MEMBER(Status, boot_time),
        JOVU_PYTHON_MEMBER(Status, idle_time), JOVU_PYTHON_MEMBER(Status, error));
};

template <class T, class = void>
inline constexpr bool is_received = false;
template <class T>
inline constexpr bool is_received<T, std::void_t<decltype(ReceivedStructure<T>::name)>> = true;

/// Calls a function with the key and the pointer of each member.
template <class S, class Function>
void for_each_member(Function function) {
    if constexpr (jovu::is_structure<S>) {
        std::apply([&](const auto&... member) { (function(member.key, member.field), ...); },
                   jovu::Structure<S>::members);
    } else {
        std::apply([&](const auto&... member) { (function(member.first, member.second), ...); },
                   ReceivedStructure<S>::members);
    }
}

template <class T>
struct Pointee {
    using Type = void;
};
template <class T>
struct Pointee<std::shared_ptr<T>> {
    using Type = T;
};

template <class Field>
struct MemberType;
template <class S, class T>
struct MemberType<T S::*> {
    using Type = T;
};

/// @name What may run code of Python
/// On any thread; directly it may not be done where C++ frames have something to destroy. See
/// gil.h.
/// @{
py::object call(const py::handle& callable, const py::tuple& arguments,
                const py::object& keywords = {});
py::object attribute(const py::handle& object, const char* name);
/// @}

/// What Python defines for the module: a class, or a function.
class Defined {
public:
    explicit Defined(py::object object) : object_(std::move(object)) {}

    const py::object& object() const { return object_; }
    template <class... Argument>
    py::object operator()(Argument&&... argument) const {
        return call(object_, py::make_tuple(std::forward<Argument>(argument)...));
    }
    py::object with(const py::dict& keywords) const { return call(object_, py::tuple(), keywords); }

private:
    py::object object_;
};

/// What Python has defined with a name: a structure, an enumeration or "Address". Set at import.
Defined python_class(std::string_view name);
void set_python_classes(const py::dict& classes);

/// Where a value stands, for messages: "move_config.target".
struct Place {
    const Place* outer;
    std::string_view name;

    std::string string() const;
};

/// @name Values that the templates below read and write
/// The functions that read throw TypeError or ValueError, with the place, the value and the reason.
/// @{
long long load_integer(py::handle value, const Place& place, long long lowest, long long highest);
double load_number(py::handle value, const Place& place, double largest);
bool load_bool(py::handle value, const Place& place);
/// @return the bytes of a string, or of an object with the buffer protocol.
std::string load_string(py::handle value, const Place& place);
/// @throws also when it has a zero byte, where its readers would end it.
std::string load_terminated(py::handle value, const Place& place);
/// @param place of the array. @throws also for a string that is longer than the array.
void load_char_array(py::handle value, const Place& place, char* array, std::size_t size);
void load_byte_array(py::handle value, const Place& place, unsigned char* array, std::size_t size);
/// @throws TypeError unless the value is of that class.
void require_class(py::handle value, const Place& place, std::string_view name);
JovuDeviceAddress load_address(py::handle value, std::string_view name = "device");
/// @return null for None.
py::object load_callback(const py::object& value, const Place& place);

py::object store_string(std::string_view string);
py::object store_address(JovuDeviceAddress address);
/// @}

/// @return a description for Python: (kind, name or lowest or size, highest).
template <class T>
py::tuple describe() {
    if constexpr (std::is_void_v<T>) {
        return py::make_tuple("none");
    } else if constexpr (std::is_same_v<T, bool>) {
        return py::make_tuple("bool");
    } else if constexpr (std::is_enum_v<T>) {
        using Limits = std::numeric_limits<std::underlying_type_t<T>>;
        return py::make_tuple("enum", std::string(jovu::TypeName<T>::value), Limits::min(),
                              Limits::max());
    } else if constexpr (std::is_integral_v<T>) {
        using Limits = std::numeric_limits<T>;
        return py::make_tuple("int", static_cast<long long>(Limits::min()),
                              static_cast<long long>(Limits::max()));
    } else if constexpr (std::is_floating_point_v<T>) {
        return py::make_tuple("float", static_cast<double>(std::numeric_limits<T>::max()));
    } else if constexpr (std::is_array_v<T>) {
        constexpr bool kString = std::is_same_v<std::remove_extent_t<T>, char>;
        return py::make_tuple(kString ? "str" : "bytes", std::extent_v<T>);
    } else if constexpr (jovu::is_structure<T>) {
        return py::make_tuple("structure", std::string(jovu::Structure<T>::name));
    } else if constexpr (is_received<T>) {
        return py::make_tuple("structure", std::string(ReceivedStructure<T>::name));
    } else if constexpr (std::is_same_v<T, std::string> ||
                         std::is_same_v<T, std::shared_ptr<char>>) {
        return py::make_tuple("str");
    } else {
        return describe<typename Pointee<T>::Type>();
    }
}

/// @return the members of a structure: key and description of each.
template <class S>
py::list describe_members() {
    py::list members;
    for_each_member<S>([&](std::string_view key, auto field) {
        members.append(py::make_tuple(std::string(key),
                                      describe<typename MemberType<decltype(field)>::Type>()));
    });
    return members;
}

template <class T>
void load(py::handle value, const Place& place, T& target) {
    if constexpr (std::is_same_v<T, bool>) {
        target = load_bool(value, place);
    } else if constexpr (std::is_enum_v<T>) {
        std::underlying_type_t<T> number{};
        load(value, place, number);
        target = static_cast<T>(number);
    } else if constexpr (std::is_integral_v<T>) {
        target = static_cast<T>(load_integer(value, place, std::numeric_limits<T>::min(),
                                             std::numeric_limits<T>::max()));
    } else if constexpr (std::is_floating_point_v<T>) {
        target = static_cast<T>(
            load_number(value, place, static_cast<double>(std::numeric_limits<T>::max())));
    } else if constexpr (std::is_array_v<T>) {
        if constexpr (std::is_same_v<std::remove_extent_t<T>, char>) {
            load_char_array(value, place, target, std::extent_v<T>);
        } else {
            load_byte_array(value, place, target, std::extent_v<T>);
        }
    } else if constexpr (jovu::is_structure<T>) {
        require_class(value, place, jovu::Structure<T>::name);
        for_each_member<T>([&](std::string_view key, auto field) {
            const Place member{&place, key};
            load(attribute(value, std::string(key).c_str()), member, target.*field);
        });
    } else if constexpr (std::is_same_v<T, std::shared_ptr<char>>) {
        target = jovu_make_string(load_string(value, place));
    } else {
        target = std::make_shared<typename Pointee<T>::Type>();
        load(value, place, *target);
    }
}

/// @return a float as the shortest decimal number that identifies it: 0.1 for 0.10000000149.
inline double shortest(float value) {
    char digits[64];
    const auto [end, error] = std::to_chars(digits, digits + sizeof digits, value);
    double number = 0;
    if (error != std::errc() || std::from_chars(digits, end, number).ec != std::errc()) {
        return static_cast<double>(value);
    }
    return number;
}

template <class T>
py::object store(const T& value) {
    if constexpr (std::is_same_v<T, bool>) {
        return py::bool_(value);
    } else if constexpr (std::is_enum_v<T>) {
        return python_class(jovu::TypeName<T>::value)(
            py::int_(static_cast<std::underlying_type_t<T>>(value)));
    } else if constexpr (std::is_integral_v<T>) {
        return py::int_(static_cast<long long>(value));
    } else if constexpr (std::is_same_v<T, float>) {
        return py::float_(shortest(value));
    } else if constexpr (std::is_floating_point_v<T>) {
        return py::float_(value);
    } else if constexpr (std::is_array_v<T>) {
        if constexpr (std::is_same_v<std::remove_extent_t<T>, char>) {
            const auto* const end = std::find(value, value + std::extent_v<T>, '\0');
            return store_string({value, static_cast<std::size_t>(end - value)});
        } else {
            return py::bytes(reinterpret_cast<const char*>(value), std::extent_v<T>);
        }
    } else if constexpr (jovu::is_structure<T> || is_received<T>) {
        py::dict members;
        for_each_member<T>([&](std::string_view key, auto field) {
            members[py::str(key.data(), key.size())] = store(value.*field);
        });
        std::string_view name;
        if constexpr (is_received<T>) {
            name = ReceivedStructure<T>::name;
        } else {
            name = jovu::Structure<T>::name;
        }
        return python_class(name).with(members);
    } else if constexpr (std::is_same_v<T, std::string>) {
        return store_string(value);
    } else {
        return store_string(jovu_read_string(value));
    }
}

}  // namespace jovu_python
