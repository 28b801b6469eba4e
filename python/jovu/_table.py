# SPDX-License-Identifier: Apache-2.0
"""What follows from the library's tables: structures, enumerations, commands, exceptions.

The types for checkers are in _table.pyi, which python/generate/make_stubs.py writes.
"""

import dataclasses
import enum
import functools
import inspect
import json
import os
import textwrap
import typing

from . import _arguments, _jovu, _values

with open(os.path.join(os.path.dirname(__file__), "header_comments.json"), encoding="utf-8") as _file:
    _comments = json.load(_file)

_SCALARS = {"none": None, "bool": bool, "int": int, "float": float, "str": str, "bytes": bytes}

ErrorCode = enum.IntEnum(
    "ErrorCode", {name: code for code, name in enumerate(_jovu.error_names)}, module="jovu"
)
ErrorCode.__doc__ = "Why a call failed; the attribute `code` of each jovu.Error."


class Error(Exception):
    """The base of all exceptions of the library. `code` tells why a call failed."""

    code = ErrorCode.unspecified


Error.__module__ = "jovu"

#: Built-in exceptions that a code stands for as well.
_BUILT_IN = {
    "send_timed_out": TimeoutError,
    "response_timed_out": TimeoutError,
    "not_permitted": PermissionError,
    "file_unreadable": OSError,
}


def _camel(name):
    return "".join(part.capitalize() for part in name.split("_"))


def _error_class(code):
    built_in = _BUILT_IN.get(code.name)
    namespace = {
        "code": code,
        "__doc__": _comments["members"]["JovuError"].get(code.name, ""),
        "__module__": "jovu",
    }
    return type(_camel(code.name), (Error, built_in) if built_in else (Error,), namespace)


ERRORS = {code: _error_class(code) for code in ErrorCode if code != ErrorCode.none}


class FirmwareNumber(int):
    """A number that the firmware gives a meaning, such as the name of a servo.

    The values have no names in the library; any number of 32 bits is accepted.
    """

    __slots__ = ()
    lowest = 0
    highest = 0

    def __new__(cls, value=0):
        number = super().__new__(cls, value)
        if not cls.lowest <= number <= cls.highest:
            given = _arguments.shown(value)
            raise ValueError(f"{given} is out of range, {cls.lowest} to {cls.highest}")
        return number

    def __repr__(self):
        return f"{type(self).__name__}({int(self)})"

    __str__ = int.__repr__


FirmwareNumber.__module__ = "jovu"

NUMBERS = {}
STRUCTURES = {}


def _python_type(description):
    """The type of a value that the module _jovu has described."""
    kind, *details = description
    if kind == "structure":
        return STRUCTURES[details[0]]
    if kind == "enum":
        name, lowest, highest = details
        if name not in NUMBERS:
            NUMBERS[name] = type(
                name,
                (FirmwareNumber,),
                {
                    "__slots__": (),
                    "__module__": "jovu",
                    "__doc__": _comments["types"].get(name),
                    "lowest": lowest,
                    "highest": highest,
                },
            )
        return NUMBERS[name]
    return _SCALARS[kind]


def _given_type(description):
    """The type of a value that programs give: less narrow than that of a result."""
    type_ = _python_type(description)
    if issubclass(type_, FirmwareNumber):
        return int
    return typing.Union[str, bytes] if type_ is str else type_


def _range(description):
    """The range of a value, for docstrings."""
    kind, *details = description
    if kind == "structure":
        return details[0]
    if kind == "enum":
        return "{}, {} to {}".format(*details)
    if kind == "int":
        return f"{details[0]} to {details[1]}"
    if kind == "bytes":
        return f"{details[0]} bytes"
    if kind == "str" and details:
        return f"str, at most {details[0]} bytes"
    return kind


def _entry(name, words, description):
    if not words and description[0] in ("structure", "enum"):
        words = _comments["types"].get(description[1], "")
    words = words.rstrip(".")
    return textwrap.fill(
        f"{name}: {words + '; ' if words else ''}{_range(description)}.",
        width=96,
        initial_indent="    ",
        subsequent_indent="        ",
    )


def _default(description):
    kind, *details = description
    if kind == "structure":
        return dataclasses.field(default_factory=STRUCTURES[details[0]])
    if kind == "bytes":
        return dataclasses.field(default=bytes(details[0]))
    return dataclasses.field(default=_python_type(description)())


def _member_type(description):
    type_ = _python_type(description)
    return int if issubclass(type_, FirmwareNumber) else type_


def _structure(name, members):
    # The library calls the report differently.
    key = {"StatusReport": "StatusMsg"}.get(name, name)
    words = _comments["members"].get(key, {})
    lines = [_comments["types"].get(key, ""), "", "Members:"]
    lines += [_entry(member, words.get(member, ""), kind) for member, kind in members]
    return dataclasses.make_dataclass(
        name,
        [(member, _member_type(kind), _default(kind)) for member, kind in members],
        namespace={"__doc__": "\n".join(lines), "__module__": "jovu"},
        slots=True,
    )


for _name, _members in _jovu.structures().items():
    STRUCTURES[_name] = _structure(_name, _members)


def _docstring(name, summary, keys, kinds, result):
    words = _comments["methods"].get(name, {"text": "", "params": {}, "returns": ""})
    lines = [summary + ".", ""]
    if words["text"].rstrip(".") != summary:
        lines += [textwrap.fill(words["text"], width=100), ""]
    lines += ["Args:", "    device: the controller."]
    lines += [_entry(key, words["params"].get(key, ""), kind) for key, kind in zip(keys, kinds)]
    if result[0] != "none":
        lines += ["", "Returns:", _entry(_python_type(result).__name__, words["returns"], result)]
    lines += ["", "Raises:", "    Error: the exchange has failed; the subclass tells why."]
    return "\n".join(lines)


def _method(index, name, summary, keys, kinds, result):
    parameter = functools.partial(
        inspect.Parameter, kind=inspect.Parameter.POSITIONAL_OR_KEYWORD
    )
    types = [_given_type(kind) for kind in kinds]
    signature = inspect.Signature(
        [parameter("self"), parameter("device", annotation=_values.Address)]
        + [parameter(key, annotation=type_) for key, type_ in zip(keys, types)],
        return_annotation=_python_type(result),
    )

    def method(*args, **kwargs):
        try:
            client, device, *arguments = signature.bind(*args, **kwargs).args
        except TypeError as error:
            raise TypeError(f"{name}(): {error}") from None
        return client._command(index, device, tuple(arguments))

    method.__name__ = name
    method.__qualname__ = f"Client.{name}"
    method.__module__ = "jovu"
    method.__doc__ = _docstring(name, summary, keys, kinds, result)
    method.__signature__ = signature
    method.__annotations__ = {"device": _values.Address, **dict(zip(keys, types))}
    method.__annotations__["return"] = signature.return_annotation
    return method


class Commands:
    """The firmware's commands, one method each.

    Each sends one request to one device and returns once its response has arrived.
    """


for _index, _row in enumerate(_jovu.commands()):
    setattr(Commands, _row[0], _method(_index, *_row))

globals().update(STRUCTURES)
globals().update(NUMBERS)
globals().update({error.__name__: error for error in ERRORS.values()})

_jovu.set_classes(
    {
        **STRUCTURES,
        **NUMBERS,
        **{
            name: getattr(_values, name)
            for name in (
                "Address",
                "DeviceInfo",
                "DeviceState",
                "DfuDevice",
                "PushProgress",
                "UsbDevice",
            )
        },
        "error unknown": Error,
        **{f"error {code.name}": ERRORS.get(code, Error) for code in ErrorCode},
        "shown": _arguments.shown,
    }
)

__all__ = ["Commands", "Error", "ErrorCode", "FirmwareNumber"]
__all__ += [*STRUCTURES, *NUMBERS, *(error.__name__ for error in ERRORS.values())]
