# SPDX-License-Identifier: Apache-2.0
"""What the tests share. They run below jovu-sim, each on the controller 1:2 and a client of its own."""

import json
import os
import signal
import socket
import threading
import time
from collections.abc import Callable, Iterator
from typing import Any

import jovu
import pytest

DEVICE = jovu.Address(1, 2)


def request(line: str) -> str:
    """Sends a request to the simulator."""
    with socket.socket(socket.AF_UNIX) as control:
        control.connect(os.environ["JOVU_SIM_CONTROL"])
        control.sendall(line.encode() + b"\n")
        response = control.makefile().readline().strip()
    assert response.startswith("ok"), f"{line}: {response}"
    return response[3:]


def stats() -> Any:
    return json.loads(request(f"stats {DEVICE}"))


def eventually(condition: Callable[[], object], limit: float = 20) -> None:
    """Waits until a condition holds."""
    end = time.monotonic() + limit
    while not condition():
        assert time.monotonic() < end, "the condition does not hold in time"
        time.sleep(0.01)


def interrupt_after(seconds: float) -> threading.Timer:
    """Presses Ctrl-C once, later."""
    timer = threading.Timer(seconds, os.kill, (os.getpid(), signal.SIGINT))
    timer.start()
    return timer


@pytest.fixture
def client() -> Iterator[jovu.Client]:
    """A client on a new device. Nothing that it sends on the message channel breaks a rule."""
    for entry in filter(None, request("list").split(", ")):
        request(f"unplug {entry.split()[0]}")
    request(f"plug {DEVICE}")
    with jovu.Client() as made:
        made.wait_for_device(30)
        yield made
    if f"{DEVICE} " in request("list"):
        violations = stats()["protocol_violations"]["last"]
        assert not [each for each in violations if not each.startswith("job channel")]
