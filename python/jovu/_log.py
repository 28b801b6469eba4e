# SPDX-License-Identifier: Apache-2.0
"""The library's diagnostic lines."""

from __future__ import annotations

import enum
import logging
import threading
from collections.abc import Callable
from typing import Any, Optional

from . import _jovu
from ._arguments import wrong_type
from ._values import Address


class LogLevel(enum.IntEnum):
    """How severe a diagnostic line is."""

    detail = -1  #: An exchange has failed whose failure is raised as an exception too.
    warning = 0  #: The library goes on.
    error = 1  #: An operation has failed.
    fatal = 2  #: An error has ended the watcher thread: see is_watching().


LogHandler = Callable[[LogLevel, Optional[Address], str], object]

_logger = logging.getLogger("jovu")
_logging_levels = {
    LogLevel.detail: logging.DEBUG,
    LogLevel.warning: logging.WARNING,
    LogLevel.error: logging.ERROR,
    LogLevel.fatal: logging.CRITICAL,
}


def _to_logging(level: LogLevel, device: Optional[Address], text: str) -> None:
    if device is None:
        _logger.log(_logging_levels[level], "%s", text)
    else:
        _logger.log(_logging_levels[level], "%s: %s", device, text)


_handler: LogHandler = _to_logging
_thread: Optional[threading.Thread] = None
_thread_lock = threading.Lock()


def set_log_handler(handler: Optional[LogHandler]) -> None:
    """Set the function that receives the library's diagnostic lines, for the whole process.

    It is called as handler(level, device, text), on a thread of the package. Without one, the lines
    go to the logger "jovu" of the module logging.
    """
    global _handler
    if handler is not None and not callable(handler):
        raise wrong_type("handler", handler, "a callable or None")
    _handler = _to_logging if handler is None else handler
    start()


def call(handler: Callable[..., object], arguments: tuple[Any, ...]) -> None:
    """Calls a callback. Its exception goes to sys.unraisablehook."""
    try:
        handler(*arguments)
    except BaseException as error:
        _jovu.write_unraisable(error, handler)


def _serve() -> None:
    queue = _jovu.log_queue()
    while lines := queue.take():
        for _, (level, device, text) in lines:
            call(_handler, (LogLevel(level), device, text))


def start() -> None:
    """Starts the thread that passes on the lines, once."""
    global _thread
    with _thread_lock:
        if _thread is None:
            _thread = threading.Thread(target=_serve, name="jovu-log", daemon=True)
            _thread.start()


def stop() -> None:
    """Passes on the lines that wait, and ends the thread. At exit."""
    _jovu.log_queue().close()
    if _thread is not None:
        _thread.join(1)


_jovu.capture_log(True)
