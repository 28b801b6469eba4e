# SPDX-License-Identifier: Apache-2.0
"""USB machine controllers: commands, events, servo traces, print jobs and firmware updates.

    with jovu.Client() as client:
        device = client.wait_for_device()
        print(client.bio_get_version(device))

Every failure raises a subclass of jovu.Error.
"""

from . import _jovu

_jovu.require_main_interpreter()

from . import _table
from ._client import Client, Recording, SamplesLost, response_timeout
from ._dfu import Dfu
from ._jovu import PushCancel, ScanPause
from ._log import LogHandler, LogLevel, set_log_handler
from ._process import DeviceFilter, is_watching, list_devices, set_device_filter, version
from ._table import *
from ._values import (
    Address,
    DeviceInfo,
    DeviceState,
    DfuDevice,
    PushProgress,
    PushResult,
    UsbDevice,
)

__all__ = [
    "Address",
    "Client",
    "DeviceFilter",
    "DeviceInfo",
    "DeviceState",
    "Dfu",
    "DfuDevice",
    "LogHandler",
    "LogLevel",
    "PushCancel",
    "PushProgress",
    "PushResult",
    "Recording",
    "SamplesLost",
    "ScanPause",
    "UsbDevice",
    "is_watching",
    "list_devices",
    "response_timeout",
    "set_device_filter",
    "set_log_handler",
    "version",
]
__all__ += _table.__all__
__version__ = version()

# Where users find them, in messages and in pickles.
for _name in __all__:
    _value = globals()[_name]
    if isinstance(_value, type) and _value.__module__.startswith("jovu."):
        _value.__module__ = "jovu"
del _name, _value
