# SPDX-License-Identifier: Apache-2.0
"""Firmware update through dfu-util."""

from __future__ import annotations

import os
import shutil
from collections.abc import Callable
from typing import Optional, Union

from . import _jovu
from ._table import FileUnreadable, ToolFailed
from ._values import DfuDevice

Path = Union[str, "os.PathLike[str]"]


class Dfu:
    """Lists devices in DFU mode and writes firmware images to them, by running dfu-util.

    Client.Enter_dfu_mode() switches a device to DFU mode. One operation at a time.

    Args:
        folder: where dfu-util is; without it, the folders of PATH are searched.

    Raises:
        ToolFailed: dfu-util is not found.
    """

    def __init__(self, folder: Optional[Path] = None) -> None:
        if folder is None:
            tool = shutil.which("dfu-util")
        else:
            tool = shutil.which("dfu-util", path=os.fspath(folder))
        if tool is None:
            raise ToolFailed("dfu-util is not found: install it, or give its folder")
        self._tool = _jovu.DfuTool(os.fsencode(os.path.dirname(os.path.abspath(tool))))

    def devices(self) -> list[DfuDevice]:
        """List the devices in DFU mode, one entry for each alternate setting."""
        return self._tool.devices()

    def update(
        self,
        device: DfuDevice,
        image: Path,
        progress: Optional[Callable[[float], object]] = None,
    ) -> None:
        """Write a firmware image to a device.

        An exception in `progress`, and Ctrl-C, are raised after dfu-util has ended, since an update
        that is cut leaves the device without firmware.

        Args:
            progress: called with the per cent that dfu-util prints; 100.0 at the end.

        Raises:
            ToolFailed: dfu-util has written nothing; the message has what it printed.
        """
        try:
            file = open(image, "rb")
        except OSError as error:
            raise FileUnreadable(f"Failed to open the firmware image: {error}") from error
        with file:
            # A path without blanks, which dfu-util's command line does not quote.
            path = f"/proc/{os.getpid()}/fd/{file.fileno()}"
            self._tool.update(device, path, progress)
