# SPDX-License-Identifier: Apache-2.0
"""What counts for the whole process."""

import dataclasses
from collections.abc import Iterable, Sequence
from typing import Any, Optional

from . import _jovu
from ._arguments import wrong_type
from ._values import Address, DeviceInfo


@dataclasses.dataclass(frozen=True)
class DeviceFilter:
    """Chooses controllers: all of them, or those that match any of its rules.

    Without arguments it matches all of them; with empty sequences, none.
    """

    serials: Optional[Sequence[str]] = None
    ports: Optional[Sequence[str]] = None
    addresses: Optional[Sequence[Address]] = None

    def __post_init__(self) -> None:
        for name in ("serials", "ports", "addresses"):
            rules = getattr(self, name)
            if rules is None:
                continue
            if isinstance(rules, (str, bytes)) or not isinstance(rules, Iterable):
                raise wrong_type(name, rules, "a sequence")
            object.__setattr__(self, name, tuple(rules))

    def _rules(self) -> tuple[bool, Any, Any, Any]:
        matches_all = self.serials is None and self.ports is None and self.addresses is None
        return matches_all, self.serials or (), self.ports or (), self.addresses or ()

    def matches(self, info: DeviceInfo) -> bool:
        """Whether a device matches; its state has no influence."""
        return _jovu.filter_matches(*self._rules(), info)


def set_device_filter(device_filter: DeviceFilter) -> None:
    """Choose the devices that this process opens, for all of its clients.

    The others stay free for other programs. Open devices that the filter leaves out are closed.
    Best called before the first client is made.
    """
    _jovu.set_device_filter(*device_filter._rules())


def list_devices() -> list[DeviceInfo]:
    """Every device of the accepted vendor on the bus, with its state in this process."""
    return _jovu.list_devices()


def is_watching() -> bool:
    """Whether the library notices connections. False once an error has ended its watcher thread."""
    return _jovu.is_watching()


def version() -> str:
    """The version of the library."""
    return _jovu.version()
