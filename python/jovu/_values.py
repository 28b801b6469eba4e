# SPDX-License-Identifier: Apache-2.0
"""Small values: addresses, devices, results of pushes."""

import enum
from typing import NamedTuple

from . import _jovu


class Address(NamedTuple):
    """The address of a device on the bus, as lsusb shows it. Changes when it is plugged in anew."""

    bus: int
    address: int

    def __str__(self) -> str:
        return f"{self.bus}:{self.address}"


class DeviceState(enum.IntEnum):
    """Whether this process has a device open and, if not, why."""

    open = 0
    closed = 1
    waiting = 2
    left_out = 3
    not_permitted = 4
    in_use = 5
    vanished = 6
    failed = 7
    other_kind = 8


if [state.name for state in DeviceState] != _jovu.state_names:
    raise ImportError(f"jovu: the library has other states of devices: {_jovu.state_names}")


class DeviceInfo(NamedTuple):
    """One attached device of the accepted vendor.

    port is where it is plugged in: the bus and the ports on the way to it, such as "1-2.3".
    serial is empty when the system does not show it.
    """

    address: Address
    port: str
    type: int
    serial: str
    state: DeviceState


class UsbDevice(NamedTuple):
    """One attached device. type is 1 for the kind that is opened; port is its USB port."""

    type: int
    port: int


class PushResult(enum.IntEnum):
    """How a push has ended. In each case the device waits for no more job data."""

    completed = 0  #: The whole job has been sent.
    cancelled = 1  #: Nothing has been sent, or filler in place of the rest of the job.
    cut_short = 2  #: The file has become shorter or unreadable: filler in place of the rest.


class PushProgress(NamedTuple):
    """How far a push has come.

    sent and total are bytes. percent is capped at 99.9 until the end. filler tells that the rest
    is filler: the push has been cancelled or cut short.
    """

    sent: int
    total: int
    percent: float
    job_id: str
    filler: bool


class DfuDevice(NamedTuple):
    """A device in DFU mode; the ids are hexadecimal."""

    vendor_id: str
    product_id: str
    serial: str
