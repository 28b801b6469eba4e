# SPDX-License-Identifier: Apache-2.0
"""Writes the type stubs of the package jovu from the package itself, which must be importable.

    generate/make_stubs.py [--check]

With --check it writes nothing, and fails when a stub differs.
"""

import dataclasses
import inspect
import pathlib
import re
import sys
from typing import Any

from jovu import _jovu, _table

FOLDER = pathlib.Path(__file__).parent.parent / "jovu"
HEAD = '# SPDX-License-Identifier: Apache-2.0\n"""Written by python/generate/make_stubs.py."""\n\n'


def type_name(annotation: Any) -> str:
    if isinstance(annotation, type):
        return annotation.__name__
    return str(annotation).replace("typing.", "")


def given_type_name(annotation: Any) -> str:
    """The type of an argument: numbers of NumPy are none of int and float."""
    return {int: "SupportsIndex", float: "SupportsFloat"}.get(annotation) or type_name(annotation)


def table_stub() -> str:
    lines = ["import enum", "from dataclasses import dataclass", "from typing import SupportsFloat, SupportsIndex, Union", "", "from ._values import Address"]
    lines += ["", "__all__ = ["]
    lines += [f'    "{name}",' for name in _table.__all__]
    lines += ["]", "", "class ErrorCode(enum.IntEnum):"]
    lines += [f"    {code.name} = {code.value}" for code in _table.ErrorCode]
    lines += ["", "class Error(Exception):", "    code: ErrorCode"]
    for error in _table.ERRORS.values():
        bases = ", ".join(base.__name__ for base in error.__bases__)
        lines.append(f"class {error.__name__}({bases}): ...")
    lines += ["", "class FirmwareNumber(int):", "    lowest: int", "    highest: int"]
    lines += [f"class {name}(FirmwareNumber): ..." for name in _table.NUMBERS]
    for name, structure in _table.STRUCTURES.items():
        lines += ["", "@dataclass", f"class {name}:"]
        lines += [
            f"    {field.name}: {type_name(field.type)} = ..."
            for field in dataclasses.fields(structure)
        ]
    lines += ["", "class Commands:"]
    for name, method in vars(_table.Commands).items():
        if name.startswith("_"):
            continue
        signature = inspect.signature(method)
        parameters = ["self"] + [
            f"{parameter.name}: {given_type_name(parameter.annotation)}"
            for parameter in list(signature.parameters.values())[1:]
        ]
        result = type_name(signature.return_annotation)
        summary = method.__doc__.splitlines()[0]
        lines += [f"    def {name}({', '.join(parameters)}) -> {result}:", f'        """{summary}"""']
    return HEAD + "\n".join(lines) + "\n"


def function_stub(name: str, docstring: str, indent: str = "") -> str:
    """The stub of a function of the module, whose docstring begins with its signature."""
    signature = docstring.splitlines()[0].removeprefix(name)
    signature = re.sub(r"\bjovu\._jovu\.", "", signature)
    signature = re.sub(r"\(self: \w+|\(self: object", "(self", signature)
    signature = signature.replace("*args)", "*args: object)")
    # What the module makes of the classes of Python that it has been given.
    returned = {
        "connected": "list[Address]", "list_attached": "list[UsbDevice]",
        "list_devices": "list[DeviceInfo]", "sample_layout": "Any", "devices": "list[DfuDevice]",
        "status": "StatusReport", "structures": "dict[str, list[tuple[str, tuple[Any, ...]]]]",
        "commands": "list[tuple[str, str, list[str], list[tuple[Any, ...]], tuple[Any, ...]]]",
        "take": "list[tuple[int, tuple[Any, ...]]]", "__enter__": "ScanPause", "log_queue": "Queue",
    }
    if name in returned:
        signature = re.sub(r"-> .*", f"-> {returned[name]}", signature)
    for old, new in (("handle", "object"), ("tuple", "tuple[Any, ...]"), ("dict", "dict[str, Any]")):
        if name not in returned or new == "object":
            signature = re.sub(rf"\b{old}\b(?!\[)", new, signature)
    return f"{indent}def {name}{signature}: ..."


def module_stub() -> str:
    lines = ["from typing import Any", "", "from ._table import StatusReport"]
    lines += ["from ._values import Address, DeviceInfo, DfuDevice, UsbDevice", ""]
    functions, classes = [], []
    for name, value in sorted(vars(_jovu).items()):
        if isinstance(value, type):
            classes += ["", f"class {name}:"]
            for member, what in vars(value).items():
                if isinstance(what, property):
                    kind = (what.fget.__doc__ or "").partition("-> ")[2].splitlines()[0]
                    kind = re.sub(r"jovu\._jovu\.", "", kind)
                    classes += ["    @property", f"    def {member}(self) -> {kind}: ..."]
                elif callable(what) and (what.__doc__ or "").startswith(f"{member}("):
                    classes.append(function_stub(member, what.__doc__, "    "))
        elif callable(value):
            functions.append(function_stub(name, value.__doc__))
        elif isinstance(value, list):
            functions.append(f"{name}: list[str]")
    return HEAD + "\n".join(lines + functions + classes) + "\n"


def main() -> int:
    stale = []
    for path, text in (
        (FOLDER / "_table.pyi", table_stub()),
        (FOLDER / "_jovu.pyi", module_stub()),
    ):
        if "--check" not in sys.argv:
            path.write_text(text, encoding="utf-8")
        elif not path.exists() or path.read_text(encoding="utf-8") != text:
            stale.append(path.name)
    if stale:
        print(f"stale: {', '.join(stale)}; run python/generate/make_stubs.py", file=sys.stderr)
    return 1 if stale else 0


if __name__ == "__main__":
    sys.exit(main())
