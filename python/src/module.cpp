// SPDX-License-Identifier: Apache-2.0

/// @file
/// The module jovu._jovu. Private to the package jovu, whose Python files make an interface of it.
#include <pybind11/pybind11.h>

#include <exception>
#include <string>

#include "bindings.h"
#include "commands.h"
#include "commands/catalogue.h"
#include "gil.h"
#include "interruptible.h"
#include "jovu/exception.h"
#include "values.h"

namespace jovu_python {

namespace {

template <class S>
void add_structure(py::dict& structures) {
    std::string name;
    if constexpr (is_received<S>) {
        name = ReceivedStructure<S>::name;
    } else {
        name = jovu::Structure<S>::name;
    }
    if (structures.contains(name)) return;
    for_each_member<S>([&](std::string_view /*key*/, auto field) {
        using Field = typename MemberType<decltype(field)>::Type;
        if constexpr (jovu::is_structure<Field> || is_received<Field>) {
            add_structure<Field>(structures);
        }
    });
    structures[name.c_str()] = describe_members<S>();
}

template <class T>
void add_type(py::dict& structures) {
    using Value =
        std::conditional_t<std::is_void_v<typename Pointee<T>::Type>, T, typename Pointee<T>::Type>;
    if constexpr (jovu::is_structure<Value>) add_structure<Value>(structures);
}

template <auto method>
void add_types(const jovu::CommandRow<method>& /*row*/, py::dict& structures) {
    using Row = jovu::CommandRow<method>;
    std::apply([&](auto... argument) { (add_type<decltype(argument)>(structures), ...); },
               typename Row::Arguments{});
    add_type<typename Row::Result>(structures);
}

/// @return every structure, each after those that are its members: name and members.
py::dict structures() {
    py::dict structures;
    std::apply([&](const auto&... row) { (add_types(row, structures), ...); }, jovu::catalogue);
    add_structure<servo_trace_msg>(structures);
    add_structure<Status>(structures);
    return structures;
}

py::list described_commands() {
    py::list described;
    for (const Command& command : commands()) {
        py::list keys;
        for (const char* const key : command.keys)
            keys.append(key);
        described.append(py::make_tuple(command.name, command.summary, keys,
                                        command.describe_arguments(), command.describe_result()));
    }
    return described;
}

/// Runs in a handler, so it runs no code of Python: see gil.h.
void translate(std::exception_ptr pointer) {
    try {
        if (pointer) std::rethrow_exception(pointer);
    } catch (const JovuException& error) {
        const Defined raised = python_class(std::string("error ") + jovu_error_name(error.code()));
        PyErr_SetObject(raised.object().ptr(), store_string(error.what()).ptr());
    }
}

}  // namespace

}  // namespace jovu_python

// NOLINTNEXTLINE: the macro declares what the interpreter looks for.
PYBIND11_MODULE(_jovu, module) {
    (void)jovu_python::is_forked();  // From now on a fork is noticed.
    jovu_python::remember_main_thread();
    module.doc() = "Private to the package jovu.";
    module.def("structures", &jovu_python::structures);
    module.def("commands", &jovu_python::described_commands);
    module.def("set_classes", &jovu_python::set_python_classes);
    pybind11::register_exception_translator(&jovu_python::translate);
    jovu_python::bind_client(module);
    jovu_python::bind_process(module);
}
