// SPDX-License-Identifier: Apache-2.0
#include "values.h"

#include <cmath>

#include "gil.h"

namespace jovu_python {

namespace {

/// Owned by the process: it is used as long as the interpreter lives.
py::dict*& classes() {
    static py::dict* classes = nullptr;
    return classes;
}

std::string type_name(py::handle value) {
    return Py_TYPE(value.ptr())->tp_name;
}

[[noreturn]] void wrong_type(py::handle value, const Place& place, const std::string& wanted) {
    throw py::type_error(place.string() + ": needs " + wanted + ", not '" + type_name(value) + "'");
}

/// @return a value for a message.
std::string shown(py::handle value) {
    return python_class("shown")(value).cast<std::string>();
}

/// @param wanted for the message of a value of another type.
std::string load_bytes(py::handle value, const Place& place, const char* wanted) {
    py::object bytes;
    if (PyUnicode_Check(value.ptr()) != 0) {
        bytes = py::reinterpret_steal<py::object>(
            PyUnicode_AsEncodedString(value.ptr(), "utf-8", "surrogateescape"));
        if (!bytes) {
            PyErr_Clear();
            throw py::value_error(place.string() + ": " + shown(value) +
                                  " has a surrogate that stands for no byte");
        }
    } else if (PyObject_CheckBuffer(value.ptr()) != 0) {
        bytes = py::reinterpret_steal<py::object>(PyBytes_FromObject(value.ptr()));
        if (!bytes) throw py::error_already_set();
    } else {
        wrong_type(value, place, wanted);
    }
    return {PyBytes_AS_STRING(bytes.ptr()),
            static_cast<std::size_t>(PyBytes_GET_SIZE(bytes.ptr()))};
}

}  // namespace

py::object call(const py::handle& callable, const py::tuple& arguments,
                const py::object& keywords) {
    auto result = py::reinterpret_steal<py::object>(
        call_python(callable.ptr(), arguments.ptr(), keywords.ptr()));
    if (!result) throw py::error_already_set();
    return result;
}

py::object attribute(const py::handle& object, const char* name) {
    auto result = py::reinterpret_steal<py::object>(
        call_until_exit([=] { return PyObject_GetAttrString(object.ptr(), name); }));
    if (!result) throw py::error_already_set();
    return result;
}

Defined python_class(std::string_view name) {
    return Defined((*classes())[py::str(name.data(), name.size())]);
}

void set_python_classes(const py::dict& given) {
    classes() = std::make_unique<py::dict>(given).release();
}

std::string Place::string() const {
    return outer == nullptr ? std::string(name) : outer->string() + "." + std::string(name);
}

long long load_integer(py::handle value, const Place& place, long long lowest, long long highest) {
    const auto number = py::reinterpret_steal<py::object>(
        call_until_exit([=] { return PyNumber_Index(value.ptr()); }));
    if (!number) {
        if (PyErr_ExceptionMatches(PyExc_TypeError) == 0) throw py::error_already_set();
        PyErr_Clear();
        wrong_type(value, place, "an integer");
    }
    int overflow = 0;
    const long long result = PyLong_AsLongLongAndOverflow(number.ptr(), &overflow);
    if (overflow != 0 || result < lowest || result > highest) {
        throw py::value_error(place.string() + ": " + shown(value) + " is out of range, " +
                              std::to_string(lowest) + " to " + std::to_string(highest));
    }
    return result;
}

double load_number(py::handle value, const Place& place, double largest) {
    const double number = call_until_exit([=] { return PyFloat_AsDouble(value.ptr()); });
    if (number == -1 && PyErr_Occurred() != nullptr) {
        const bool too_large = PyErr_ExceptionMatches(PyExc_OverflowError) != 0;
        if (!too_large && PyErr_ExceptionMatches(PyExc_TypeError) == 0) {
            throw py::error_already_set();
        }
        PyErr_Clear();
        if (!too_large) wrong_type(value, place, "a number");
        throw py::value_error(place.string() + ": " + shown(value) + " is out of range");
    }
    if (std::isfinite(number) && std::fabs(number) > largest) {
        throw py::value_error(place.string() + ": " + shown(value) +
                              " is out of range: the largest number is " +
                              std::string(py::repr(py::float_(largest))));
    }
    return number;
}

bool load_bool(py::handle value, const Place& place) {
    if (PyBool_Check(value.ptr()) == 0 && PyIndex_Check(value.ptr()) == 0) {
        wrong_type(value, place, "a bool");
    }
    return PyBool_Check(value.ptr()) != 0 ? value.ptr() == Py_True
                                          : load_integer(value, place, 0, 1) == 1;
}

std::string load_string(py::handle value, const Place& place) {
    return load_bytes(value, place, "a str or bytes");
}

std::string load_terminated(py::handle value, const Place& place) {
    std::string bytes = load_string(value, place);
    if (bytes.find('\0') != std::string::npos) {
        throw py::value_error(place.string() + ": a zero byte would end the string: remove it");
    }
    return bytes;
}

void load_char_array(py::handle value, const Place& place, char* array, std::size_t size) {
    const std::string bytes = load_terminated(value, place);
    if (bytes.size() > size) {
        throw py::value_error(place.string() + ": " + std::to_string(bytes.size()) +
                              " bytes are too long: at most " + std::to_string(size));
    }
    std::fill(std::copy(bytes.begin(), bytes.end(), array), array + size, '\0');
}

void load_byte_array(py::handle value, const Place& place, unsigned char* array, std::size_t size) {
    if (PyUnicode_Check(value.ptr()) != 0) wrong_type(value, place, "bytes");
    const std::string bytes = load_bytes(value, place, "bytes");
    if (bytes.size() != size) {
        throw py::value_error(place.string() + ": needs " + std::to_string(size) + " bytes, not " +
                              std::to_string(bytes.size()));
    }
    std::copy(bytes.begin(), bytes.end(), array);
}

void require_class(py::handle value, const Place& place, std::string_view name) {
    if (!py::isinstance(value, python_class(name).object())) {
        wrong_type(value, place, "a jovu." + std::string(name));
    }
}

JovuDeviceAddress load_address(py::handle value, std::string_view name) {
    const Place place{nullptr, name};
    if (PyTuple_Check(value.ptr()) == 0 || PyTuple_GET_SIZE(value.ptr()) != 2) {
        wrong_type(value, place, "a jovu.Address");
    }
    const auto part = [&](Py_ssize_t index, const char* part_name) {
        return static_cast<std::uint8_t>(
            load_integer(PyTuple_GET_ITEM(value.ptr(), index), Place{&place, part_name}, 0, 255));
    };
    return {part(0, "bus"), part(1, "address")};
}

py::object load_callback(const py::object& value, const Place& place) {
    if (value.is_none()) return {};
    if (PyCallable_Check(value.ptr()) == 0) wrong_type(value, place, "a callable or None");
    return value;
}

py::object store_string(std::string_view string) {
    auto result = py::reinterpret_steal<py::object>(PyUnicode_DecodeUTF8(
        string.data(), static_cast<Py_ssize_t>(string.size()), "surrogateescape"));
    if (!result) throw py::error_already_set();
    return result;
}

py::object store_address(JovuDeviceAddress address) {
    return python_class("Address")(address.bus, address.address);
}

}  // namespace jovu_python
