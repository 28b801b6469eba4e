# SPDX-License-Identifier: Apache-2.0
"""Checks of arguments, and their messages."""

from __future__ import annotations


def shown(value: object) -> str:
    """A value for a message: a short string that can be printed, whatever its repr() does."""
    try:
        text = repr(value)
    except Exception:
        text = object.__repr__(value)
    if len(text) > 80:
        text = text[:77] + "..."
    return text.encode("utf-8", "backslashreplace").decode()


def wrong_type(name: str, value: object, wanted: str) -> TypeError:
    return TypeError(f"{name}: needs {wanted}, not '{type(value).__name__}'")


def milliseconds(name: str, seconds: float) -> int:
    """A time limit of the library."""
    try:
        in_range = 0.01 <= seconds <= 86400
    except TypeError:
        raise wrong_type(name, seconds, "a number of seconds") from None
    if not in_range:
        raise ValueError(f"{name}: {shown(seconds)} is out of range, 0.01 to 86400 seconds")
    return round(float(seconds) * 1000)
