# SPDX-License-Identifier: Apache-2.0
"""Ends of processes, and what the package consists of."""

import inspect
import pathlib
import pydoc
import signal
import subprocess
import sys
import textwrap
import time
import typing

import jovu
import pytest
from conftest import DEVICE, request

SOURCES = pathlib.Path(__file__).parents[2]


def python(*arguments: str, limit: float = 60) -> "subprocess.CompletedProcess[str]":
    return subprocess.run(
        [sys.executable, "-X", "faulthandler", *arguments],
        capture_output=True,
        text=True,
        timeout=limit,
        check=False,
    )


BEGINNING = """
import atexit, os, signal, sys, threading, time
import jovu
client = jovu.Client()
device = client.wait_for_device(30)
def in_thread(function, daemon=True):
    threading.Thread(target=function, daemon=daemon).start()
    time.sleep(0.3)
def loop(function):
    while True:
        function()
def safe_loop(function):
    while True:
        try:
            function()
        except jovu.Error:
            pass
"""


@pytest.mark.parametrize(
    ("script", "fault"),
    [
        ("", ""),
        ("sys.exit(0)", ""),
        ("jovu.keep = client; del client", ""),
        ("atexit.register(lambda: print(client.bio_get_version(device)))", ""),
        ("del sys.modules['jovu']; import gc; gc.collect()", ""),
        ("client.debug_event = lambda d, t: time.sleep(1000); time.sleep(0.3)", "flood message 50"),
        ("client.debug_event = lambda d, t: client.bio_get_version(d)", "flood message 5000"),
        ("client.servo_trace = print; client.servo_dc_trace_enable(device, 0, True)", ""),
        ("in_thread(lambda: client.bio_get_version(device))", "silent always"),
        ("in_thread(lambda: client.status(device, 60))", "silent always"),
        ("in_thread(lambda: safe_loop(lambda: client.bio_get_version(device)))", ""),
        ("in_thread(lambda: safe_loop(jovu.list_devices))", ""),
        ("sys.setswitchinterval(1e-6)\n"
         "[in_thread(lambda: safe_loop(lambda: client.bio_get_version((9, 9)))) for _ in range(3)]", ""),
        ("in_thread(lambda: client.push(device, sys.executable, lambda step: None))", "never 04"),
        ("in_thread(lambda: loop(lambda: client.push(device, '/bin/ls', lambda step: None)))", ""),
        ("in_thread(lambda: client.push(device, '/bin/ls', lambda step: time.sleep(1000)))", ""),
        ("in_thread(client.close, daemon=False)", ""),
        # Four threads import NumPy.
        ("all = [threading.Thread(target=client.trace, args=(device, 0, 0.1)) for _ in range(4)]\n"
         "[each.start() for each in all]; [each.join() for each in all]", ""),
        ("trace = client.tracing(device, 0); recording = trace.__enter__()\n"
         "in_thread(lambda: loop(recording.samples))", ""),
        # The thread ends in code of Python that C++ has called.
        ("slow = type('Slow', (), {'__index__': lambda self: 0 * sum(range(3000))})()\n"
         "info = jovu.list_devices()[0]\n"
         "in_thread(lambda: loop(lambda: jovu.DeviceFilter(addresses=[(slow, 0)]).matches(info)))", ""),
        ("jovu.set_log_handler(lambda *line: time.sleep(1000)); client.close_device(device)", ""),
    ],
)
def test_the_interpreter_ends(client: jovu.Client, script: str, fault: str) -> None:
    client.close()
    if fault:
        script = f"os.system('jovu-sim ctl fault {DEVICE} {fault} >/dev/null')\n" + script
    for _ in range(3):
        ended = python("-c", BEGINNING + script)
        assert ended.returncode == 0, ended.stderr
        assert "Fatal" not in ended.stderr and "terminate" not in ended.stderr
        request(f"replug {DEVICE}")


def test_ctrl_c_ends_a_script(client: jovu.Client) -> None:
    client.close()
    request(f"fault {DEVICE} silent always")
    script = BEGINNING + "print('waits', flush=True); client.bio_get_version(device)"
    with subprocess.Popen([sys.executable, "-c", script], stdout=-1, stderr=-1, text=True) as child:
        assert child.stdout is not None and child.stderr is not None
        assert child.stdout.readline() == "waits\n"
        time.sleep(0.2)
        began = time.monotonic()
        child.send_signal(signal.SIGINT)
        assert child.stderr.read().endswith("KeyboardInterrupt\n")
    assert child.returncode == -signal.SIGINT and time.monotonic() - began < 10


def test_a_forked_process_is_refused(client: jovu.Client) -> None:
    client.close()
    forked = python(
        "-c",
        BEGINNING
        + textwrap.dedent("""
        with client.tracing(device, 0) as recording:
            pass
        child = os.fork()
        if child == 0:
            for use in (
                jovu.Client, lambda: client.bio_get_version(device), jovu.list_devices, client.devices,
                lambda: client.cancel_exchanges(device), lambda: client.set_response_timeout(1),
                lambda: jovu.set_device_filter(jovu.DeviceFilter()), jovu.ScanPause().__enter__,
                jovu.is_watching, lambda: len(recording), recording.samples, jovu.Dfu,
            ):
                try:
                    use()
                except RuntimeError as error:
                    print(error, flush=True)
            sys.exit(3)
        print(os.waitpid(child, 0)[1], client.bio_get_version(device))
        """),
    )
    assert forked.stdout.count('start processes with the method "spawn"') == 12, forked.stderr
    assert forked.stdout.endswith(f"{3 << 8} 1.0.0\n")


def test_stubs_and_types() -> None:
    stubs = python(str(SOURCES / "python/generate/make_stubs.py"), "--check")
    assert stubs.returncode == 0, stubs.stderr
    checked = [str(SOURCES / name) for name in ("python/jovu", "tests/python", "examples/python")]
    types = python("-m", "mypy", "--strict", "--cache-dir=/dev/null", *checked, limit=200)
    assert types.returncode == 0, types.stdout


def test_everything_is_described() -> None:
    text = pydoc.plain(pydoc.render_doc(jovu.Client.servo_dc_backlash_set))
    assert "servo_dc_backlash_set(self, device: jovu.Address, servo_name: int, backlash_value: int" in text
    assert "    backlash_value: native units; -32768 to 32767." in text
    for name in jovu.__all__:
        value = getattr(jovu, name)
        assert name in ("LogHandler", "Unspecified") or inspect.getdoc(value), name
        if isinstance(value, type):
            for each in (value, *filter(inspect.isfunction, vars(value).values())):
                typing.get_type_hints(each)
    for error in jovu.ErrorCode:
        if error is not jovu.ErrorCode.none:
            kind = getattr(jovu, "".join(part.capitalize() for part in error.name.split("_")))
            assert issubclass(kind, jovu.Error) and kind("x").code is error and kind.__doc__
    assert "Proportional" in (jovu.servo_dc_gains_t.__doc__ or "")
    assert jovu.__version__ == jovu.version()
