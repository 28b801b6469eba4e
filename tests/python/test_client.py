# SPDX-License-Identifier: Apache-2.0
"""Callbacks, jobs, traces, threads and the end of waits."""

import gc
import logging
import pathlib
import resource
import shutil
import signal
import subprocess
import sys
import threading
import time
import weakref
from typing import Any

import jovu
import numpy
import pytest
from conftest import DEVICE, eventually, interrupt_after, request, stats


@pytest.fixture
def job(tmp_path: pathlib.Path) -> pathlib.Path:
    path = tmp_path / "job with a blank.gcode"
    path.write_bytes(b"G1 X1 Y1\n" * 50_000)
    return path


def test_callbacks(client: jovu.Client) -> None:
    calls: "list[tuple[Any, ...]]" = []
    threads = set()

    def keep(kind: str) -> Any:
        def callback(*arguments: Any) -> None:
            threads.add(threading.current_thread().name)
            calls.append((kind, *arguments))

        return callback

    for kind in ("connected", "disconnected", "debug_event", "status_report", "job_data"):
        setattr(client, kind, keep(kind))
    # A callback may send commands, and what it raises does not end the thread.
    unraisable: "list[Any]" = []
    hook, sys.unraisablehook = sys.unraisablehook, unraisable.append
    try:

        def broken(device: jovu.Address, text: str) -> None:
            calls.append(("version", client.bio_get_version(device)))
            raise SystemExit("by the callback")

        client.debug_event = broken
        request(f"event {DEVICE} one")
        eventually(lambda: unraisable)
    finally:
        sys.unraisablehook = hook
    assert str(unraisable[0].exc_value) == "by the callback"
    assert unraisable[0].object is broken
    client.debug_event = keep("debug_event")
    request(f"event {DEVICE} tw\N{LATIN SMALL LETTER O WITH DIAERESIS}")
    report = client.status(DEVICE)
    request(f"unplug {DEVICE}")
    eventually(lambda: ("disconnected", DEVICE) in calls)
    request("plug 1:2")
    eventually(lambda: ("connected", DEVICE) in calls)
    assert ("version", "1.0.0") in calls
    assert ("debug_event", DEVICE, "twö") in calls
    assert ("status_report", DEVICE, report) in calls
    assert any(call[0] == "job_data" and b'"printer"' in call[2] for call in calls)
    assert threads == {"jovu-callbacks"}
    assert client.lost_notifications == 0
    client.wait_for_device(30)


def test_a_slow_callback_blocks_nothing(client: jovu.Client) -> None:
    blocked = threading.Event()
    seen = []

    def slow(device: jovu.Address, text: str) -> None:
        blocked.wait(300)
        seen.append(text)

    client.debug_event = slow
    request(f"fault {DEVICE} flood message 12000")
    eventually(lambda: client.lost_notifications > 0, 240)
    assert client.bio_get_version(DEVICE) == "1.0.0"
    blocked.set()
    eventually(lambda: len(seen) + client.lost_notifications == 12000, 120)
    assert seen[:2] == ["flood 0", "flood 1"]


def test_unavailable(client: jovu.Client) -> None:
    seen: "list[jovu.DeviceInfo]" = []
    client.unavailable = lambda device, info: seen.append(info)
    request(f"unplug {DEVICE}")
    pause = jovu.ScanPause()

    def enter_often() -> None:
        for _ in range(300):
            with pause:
                pass

    # No device is opened until the fault is set, however often the pause is entered meanwhile.
    with pause:
        request("plug 1:2")
        threads = [threading.Thread(target=enter_often) for _ in range(4)]
        for thread in threads:
            thread.start()
        for thread in threads:
            thread.join()
        time.sleep(0.3)
        assert not client.devices()
        request(f"fault {DEVICE} claim EBUSY 1")
    eventually(lambda: seen)
    assert seen[0].state is jovu.DeviceState.in_use and seen[0].address == DEVICE
    client.wait_for_device(30)


def test_filter(client: jovu.Client) -> None:
    (info,) = jovu.list_devices()
    chosen = jovu.DeviceFilter(serials=["JVS001002"], ports=["1-9"], addresses=[(9, 9)])  # type: ignore[list-item]
    assert chosen.matches(info) and jovu.DeviceFilter().matches(info)
    assert not jovu.DeviceFilter(serials=[]).matches(info)
    try:
        jovu.set_device_filter(jovu.DeviceFilter(ports=["1-9"]))
        eventually(lambda: client.devices() == [])
        assert jovu.list_devices()[0].state is jovu.DeviceState.left_out
    finally:
        jovu.set_device_filter(jovu.DeviceFilter())
    client.wait_for_device(30)
    assert jovu.is_watching()


def test_log(client: jovu.Client, caplog: pytest.LogCaptureFixture) -> None:
    caplog.set_level(logging.DEBUG, "jovu")
    with pytest.raises(jovu.Disconnected):
        client.bio_get_version(jovu.Address(9, 9))
    eventually(lambda: any(record.name == "jovu" for record in caplog.records))
    # The exception tells it already.
    assert [record.levelno for record in caplog.records] == [logging.DEBUG]
    lines: "list[tuple[Any, ...]]" = []
    jovu.set_log_handler(lambda *line: lines.append(line))
    try:
        request(f"fault {DEVICE} corrupt id")
        with jovu.response_timeout(0.1), pytest.raises(jovu.ResponseTimedOut):
            client.bio_get_version(DEVICE)
        eventually(lambda: lines)
        assert lines[-1][:2] == (jovu.LogLevel.detail, DEVICE)
    finally:
        jovu.set_log_handler(None)


def test_push(client: jovu.Client, job: pathlib.Path) -> None:
    steps: "list[jovu.PushProgress]" = []
    assert client.push(DEVICE, job, steps.append) is jovu.PushResult.completed
    size = job.stat().st_size
    assert steps[0].sent == 0 and steps[-1] == jovu.PushProgress(size, size, 100.0, "", False)
    client.pause(DEVICE)
    client.pause(DEVICE)
    assert client.status(DEVICE).state == "paused"
    client.resume(DEVICE)
    client.resume(DEVICE)
    eventually(lambda: client.status(DEVICE).state == "printing")
    client.abort(DEVICE)
    eventually(lambda: client.status(DEVICE).state == "aborted")
    with open(job, "rb") as file:
        client.send_job(DEVICE, file, "my job")
    assert client.status(DEVICE).job_id == "my job"
    client.abort(DEVICE)
    # Raw data: a request, in an array.
    client.send_job_data(DEVICE, numpy.frombuffer(b'{"request": "nonsense"}', dtype="u1"))
    client.send_job_data(DEVICE, memoryview(b""))
    eventually(lambda: client.status(DEVICE).error == 5)


def test_a_push_that_ends_early(client: jovu.Client, job: pathlib.Path) -> None:
    cancel = jovu.PushCancel()

    def from_another_thread(step: jovu.PushProgress) -> None:
        if step.sent > 0:
            thread = threading.Thread(target=cancel.cancel)
            thread.start()
            thread.join()

    assert client.push(DEVICE, job, from_another_thread, cancel) is jovu.PushResult.cancelled
    assert cancel.cancelled
    for interrupted in (False, True):

        def fail(step: jovu.PushProgress) -> None:
            if step.sent > 0:
                raise KeyboardInterrupt if interrupted else ZeroDivisionError

        with pytest.raises(KeyboardInterrupt if interrupted else ZeroDivisionError):
            client.push(DEVICE, job, fail)
        # The device has refused the job, and responds.
        assert client.status(DEVICE).error == 2
    raised: "list[BaseException]" = []

    def on_a_thread() -> None:
        try:
            client.push(DEVICE, job, fail)
        except BaseException as error:
            raised.append(error)

    thread = threading.Thread(target=on_a_thread)
    thread.start()
    thread.join()
    assert isinstance(raised[0], KeyboardInterrupt)
    assert client.status(DEVICE).error == 2


@pytest.mark.parametrize("where", ["callback", "signal handler"])
def test_close_ends_a_push(client: jovu.Client, job: pathlib.Path, where: str) -> None:
    def close_another(step: jovu.PushProgress) -> None:
        jovu.Client().close()

    assert client.push(DEVICE, job, close_another) is jovu.PushResult.completed

    def close(*arguments: object) -> None:
        client.close()

    def progress(step: jovu.PushProgress) -> None:
        if where == "callback":
            close()

    before = signal.signal(signal.SIGALRM, close)
    try:
        if where == "signal handler":
            signal.setitimer(signal.ITIMER_REAL, 0.1)
        with pytest.raises(jovu.ShutDown):
            while True:
                client.push(DEVICE, job, progress)
    finally:
        signal.signal(signal.SIGALRM, before)


def test_threads(client: jovu.Client, job: pathlib.Path) -> None:
    results: "list[object]" = []

    def send(servo: int) -> None:
        for position in range(100):
            client.servo_dc_units_client_to_native(DEVICE, servo % 2, position)
            if client.servo_dc_units_client_to_native(DEVICE, servo % 2, position) != 200 * position:
                results.append(f"wrong for {position}")
        results.append("done")

    threads = [threading.Thread(target=send, args=(number,)) for number in range(8)]
    threads.append(threading.Thread(target=lambda: results.append(client.push(DEVICE, job))))
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join()
    assert sorted(results, key=str) == [jovu.PushResult.completed, *["done"] * 8]


def test_trace(client: jovu.Client) -> None:
    def is_traced() -> bool:
        return bool(stats()["machine"]["servos"][1]["traced"])

    trace = client.trace(DEVICE, 1, 0.4)
    assert len(trace) >= 100 and not is_traced()
    assert (trace.dtype.names or [""])[0] == "time" and set(trace["servo_name"]) == {1}
    numpy.testing.assert_allclose(numpy.diff(trace["time"]), 0.001 * numpy.diff(trace["int_cnt"]))
    assert trace["time"][0] == 0 and numpy.ptp(trace["pos_cmd"]) > 0
    with client.tracing(DEVICE, 1, most=5) as recording:
        assert is_traced()
        eventually(lambda: recording.lost > 0)
        with client.tracing(DEVICE, 1):
            pass
        assert is_traced()  # The outer one goes on.
    assert len(recording) == 5 and not is_traced()
    interrupt_after(0.2)
    with pytest.raises(KeyboardInterrupt):
        client.trace(DEVICE, 1, 30)
    assert not is_traced()


@pytest.mark.parametrize("call", ["command", "status", "stuck write"])
def test_an_interrupt_ends_a_wait(client: jovu.Client, call: str) -> None:
    request(f"fault {DEVICE} silent always")
    if call == "stuck write":
        request(f"fault {DEVICE} never 02")
    interrupt_after(0.3)
    began = time.monotonic()
    with pytest.raises(KeyboardInterrupt):
        client.status(DEVICE, 60) if call == "status" else client.bio_get_version(DEVICE)
    assert time.monotonic() - began < 8  # Without it, 15 s and more.
    request(f"fault {DEVICE} clear")
    assert client.bio_get_version(DEVICE) == "1.0.0"


def test_a_second_interrupt_leaves_a_push(client: jovu.Client, job: pathlib.Path) -> None:
    request(f"fault {DEVICE} never 04 always")
    interrupt_after(0.3)
    interrupt_after(0.8)
    began = time.monotonic()
    with pytest.raises(KeyboardInterrupt):
        client.push(DEVICE, job)
    assert time.monotonic() - began < 2.5  # The write in progress takes 3 s.


def test_cancel_exchanges(client: jovu.Client) -> None:
    request(f"fault {DEVICE} silent")
    timer = threading.Timer(0.2, lambda: cancelled.append(client.cancel_exchanges(DEVICE)))
    cancelled: "list[int]" = []
    timer.start()
    with pytest.raises(jovu.Cancelled):
        client.bio_get_version(DEVICE)
    timer.join()
    assert cancelled == [1]


def resident() -> int:
    """The memory of this process, in KiB."""
    with open("/proc/self/statm", encoding="ascii") as file:
        return int(file.read().split()[1]) * resource.getpagesize() // 1024


def test_nothing_leaks(client: jovu.Client, job: pathlib.Path) -> None:
    def use() -> None:
        config = client.servo_dc_config_get(DEVICE, 0)
        client.servo_dc_config_set(DEVICE, 0, config)
        client.gcode_process_command(DEVICE, "M114")  # Has an event.
        with pytest.raises(ValueError):
            client.ui_led(DEVICE, 0, 99999, 0)
        with pytest.raises(jovu.Disconnected):
            client.bio_get_version(jovu.Address(9, 9))
        client.send_job_data(DEVICE, data)

    data = b""
    seen: "list[None]" = []
    client.debug_event = lambda device, text: seen.append(None)
    for _ in range(200):
        use()
    gc.collect()
    objects, memory, references = len(gc.get_objects()), resident(), sys.getrefcount(data)
    for _ in range(800):
        use()
    gc.collect()
    assert len(gc.get_objects()) - objects < 100
    assert resident() - memory < 4096
    assert sys.getrefcount(data) == references


def test_clients_and_callbacks_die() -> None:
    class Owner:
        def __init__(self) -> None:
            self.called = threading.Event()
            self.client = jovu.Client(connected=self.connected)  # A circle.

        def connected(self, device: jovu.Address) -> None:
            self.called.set()

    for ended in (True, False):
        owner = Owner()
        assert owner.called.wait(30)
        time.sleep(0.1)  # Then the thread waits for the next call.
        thread = owner.client._thread
        references: "list[weakref.ref[Any]]" = [weakref.ref(owner), weakref.ref(owner.client)]
        if ended:
            owner.client.close()
        del owner
        gc.collect()
        eventually(lambda: not thread.is_alive())
        assert [reference() for reference in references] == [None, None]


def test_firmware_update(client: jovu.Client, tmp_path: pathlib.Path) -> None:
    image = tmp_path / "an image"
    simulator = shutil.which("jovu-sim")
    assert simulator is not None, "jovu-sim is in PATH"
    image.write_bytes(subprocess.check_output([simulator, "firmware", "1.2.3"]))
    dfu = jovu.Dfu()
    assert dfu.devices() == []
    client.Enter_dfu_mode(DEVICE)
    eventually(dfu.devices)
    steps: "list[float]" = []
    with pytest.raises(jovu.FileUnreadable, match="none"):
        dfu.update(dfu.devices()[0], tmp_path / "none")
    dfu.update(dfu.devices()[0], image, steps.append)
    assert steps[-1] == 100.0 and steps == sorted(steps)
    eventually(lambda: client.devices())
    device = client.wait_for_device(30)
    assert client.bio_get_version(device) == "1.2.3"
