# SPDX-License-Identifier: Apache-2.0
"""Commands, their values and their failures."""

import copy
import dataclasses
import inspect
import io
import math
import pickle
import re
import threading
import time
from collections.abc import Callable
from typing import Any

import jovu
import numpy
import pytest
from conftest import DEVICE, eventually, request, stats

COMMANDS = [name for name in dir(jovu.Client) if hasattr(jovu.Client.__mro__[1], name)]
COMMANDS = [name for name in COMMANDS if not name.startswith("_")]
ELSEWHERE = jovu.Address(9, 9)


def sample(annotation: Any) -> Any:
    """A value for an argument that the simulator accepts."""
    if dataclasses.is_dataclass(annotation):
        return annotation()
    return {int: 0, float: 1.5, bool: False}.get(annotation, "home")  # False: no trace stays on.


def test_every_command(client: jovu.Client) -> None:
    assert len(COMMANDS) == 68
    for name in COMMANDS:
        method = getattr(client, name)
        signature = inspect.signature(method)
        parameters = list(signature.parameters.values())[1:]
        result = method(DEVICE, **{each.name: sample(each.annotation) for each in parameters})
        expected = signature.return_annotation
        assert type(result) is (type(None) if expected is None else expected), name
        assert name in method.__doc__ or "Args:\n    device: the controller." in method.__doc__
        if name == "Enter_dfu_mode":
            # The device leaves; the fixture has to find it again.
            assert stats()["message"]["commands"][name] == 1
            request(f"unplug {DEVICE}")
            eventually(lambda: not client.devices())
            request(f"plug {DEVICE}")
            client.wait_for_device(30)
        else:
            assert stats()["message"]["commands"][name] >= 1


def filled(kind: type, start: int = 1) -> Any:
    """A structure in which each member has a value of its own."""
    values: "dict[str, Any]" = {}
    for number, field in enumerate(dataclasses.fields(kind), start):
        type_: Any = field.type
        if dataclasses.is_dataclass(type_):
            values[field.name] = filled(type_, number)
        else:
            size = len(field.default) if isinstance(field.default, bytes) else 0
            values[field.name] = {
                int: number,
                float: number + 0.1,
                bool: True,
                str: f"é\udcff{number}",  # One byte is not UTF-8.
                bytes: bytes(range(size)),
            }[type_]
    return kind(**values)


def test_structures_travel_whole(client: jovu.Client) -> None:
    config = filled(jovu.servo_dc_client_config_t)
    client.servo_dc_config_set(DEVICE, 2, config)
    assert client.servo_dc_config_get(DEVICE, servo_name=2) == config
    client.servo_dc_config_set(DEVICE, 2, jovu.servo_dc_client_config_t(**vars_of(config, pwm_cap=9)))
    assert client.servo_dc_config_get(DEVICE, 2).pwm_cap == 9
    wifi = filled(jovu.wifi_config_t)
    assert client.wifi_start_wifi(DEVICE, 0) == 0
    assert client.wifi_client_configure(DEVICE, 0, cmd=0, config=wifi) == 0
    assert client.wifi_client_get_configuration(DEVICE, 0).ifc_config == wifi.ifc_config
    assert client.wifi_client_scan_refresh(DEVICE, 0) == 4
    names = [client.wifi_client_scan_get(DEVICE, 0, index).ssid for index in range(4)]
    assert "Café Müller" in names
    assert client.sd_mmc_write_byte(DEVICE, 7, 200).success == 1
    assert client.sd_mmc_read_byte(DEVICE, 7).byteread == 200


def vars_of(structure: Any, **changes: Any) -> "dict[str, Any]":
    members = {each.name: getattr(structure, each.name) for each in dataclasses.fields(structure)}
    return {**members, **changes}


def test_structures_are_values() -> None:
    gains = jovu.servo_dc_gains_t(kp=1.5)
    assert repr(gains) == "servo_dc_gains_t(kp=1.5, ki=0.0, kd=0.0, ka=0.0, kv=0.0, kf=0.0)"
    assert copy.deepcopy(gains) == pickle.loads(pickle.dumps(gains)) == gains != jovu.servo_dc_gains_t()
    with pytest.raises(AttributeError):
        gains.gain = 1  # type: ignore[attr-defined]
    number = jovu.servo_dc_name_t(-3)
    assert (number, repr(number), f"{number}") == (-3, "servo_dc_name_t(-3)", "-3")
    with pytest.raises(ValueError, match="out of range, 0 to 4294967295"):
        jovu.gpio_name_t(-1)
    assert jovu.wifi_config_t() is not jovu.wifi_config_t()
    assert jovu.wifi_config_t().ip_config is not jovu.wifi_config_t().ip_config


class Odd:
    def __index__(self) -> int:
        raise ZeroDivisionError("by __index__")

    def __float__(self) -> float:
        raise ZeroDivisionError("by __float__")


class Shown(int):
    def __repr__(self) -> str:
        return "a" + "é" * 80


MOVE: Any = jovu.servo_dc_move_config_t
CLIENT: Any = jovu.Client
FIVE: Any = 5


@pytest.mark.parametrize(
    ("call", "kind", "message"),
    [
        (lambda c: c.ui_led(DEVICE, 0, 1), TypeError, "ui_led(): missing a required argument: 'off_count'"),
        (lambda c: c.ui_led(DEVICE, 0, 1, 2, 3), TypeError, "ui_led(): too many positional"),
        (lambda c: c.ui_led(DEVICE, led=0, on=1), TypeError, "ui_led(): missing a required argument: 'on_count'"),
        (lambda c: c.ui_led(DEVICE, 0, 40000, 0), ValueError, "on_count: 40000 is out of range, -32768 to 32767"),
        (lambda c: c.ui_led(DEVICE, 0, 1.5, 0), TypeError, "on_count: needs an integer, not 'float'"),
        (lambda c: c.ui_led("1:2", 0, 1, 0), TypeError, "device: needs a jovu.Address, not 'str'"),
        (lambda c: c.ui_led((1, 256), 0, 1, 0), ValueError, "device.address: 256 is out of range, 0 to 255"),
        (lambda c: c.ui_led(DEVICE, 0, 10**5000, 0), ValueError, "on_count: <int object"),
        (lambda c: c.ui_led(DEVICE, 0, Odd(), 0), ZeroDivisionError, "by __index__"),
        (lambda c: c.heater_param_set(DEVICE, 0, Odd()), ZeroDivisionError, "by __float__"),
        (lambda c: c.ui_led(DEVICE, 0, Shown(40000), 0), ValueError, f"on_count: a{'é' * 76}... is out of"),
        (lambda c: c.gpio_output_set(DEVICE, 0, "on"), TypeError, "value: needs a bool, not 'str'"),
        (lambda c: c.heater_param_set(DEVICE, 0, 1e39), ValueError, "param_val: 1e+39 is out of range"),
        (lambda c: c.heater_param_set(DEVICE, 0, "1"), TypeError, "param_val: needs a number, not 'str'"),
        (lambda c: c.heater_param_set(DEVICE, 0, math.nan), jovu.Rejected, "heater_param_set, device 1:2: "),
        (lambda c: c.gcode_process_command(DEVICE, "a\0b"), jovu.Rejected, "zero byte at position 1"),
        (lambda c: c.gcode_process_command(DEVICE, 5), TypeError, "command: needs a str or bytes, not 'int'"),
        (lambda c: c.servo_dc_move(DEVICE, 0, {}), TypeError, "move_config: needs a jovu.servo_dc_move_config_t, not 'dict'"),
        (lambda c: c.servo_dc_move(DEVICE, 0, MOVE(speed_f="x")), TypeError, "move_config.speed_f: needs a number"),
        (
            lambda c: c.wifi_client_connect(DEVICE, 0, jovu.wifi_client_connect_t(ssid="x" * 33)),
            ValueError,
            "connect_t.ssid: 33 bytes are too long: at most 32",
        ),
        (
            lambda c: c.wifi_client_configure(
                DEVICE, 0, 0, jovu.wifi_config_t(hdw_config=jovu.wifi_hdw_config_t(mac_address=b"12345"))
            ),
            ValueError,
            "config.hdw_config.mac_address: needs 6 bytes, not 5",
        ),
        (
            lambda c: c.wifi_client_configure(
                DEVICE, 0, 0, jovu.wifi_config_t(hdw_config=jovu.wifi_hdw_config_t(mac_address=[1]))  # type: ignore[arg-type]
            ),
            TypeError,
            "config.hdw_config.mac_address: needs bytes, not 'list'",
        ),
        (lambda c: c.status(DEVICE, math.inf), ValueError, "timeout: inf is out of range, 0.01 to 86400"),
        (lambda c: c.set_response_timeout(1e20), ValueError, "seconds: 1e+20 is out of range"),
        (lambda c: c.status(DEVICE, "1"), TypeError, "timeout: needs a number of seconds, not 'str'"),
        (lambda c: c.push(DEVICE, "/no/such/file"), jovu.FileUnreadable, "Failed to open job file."),
        (lambda c: c.push(DEVICE, "/no/such/file"), OSError, ""),
        (lambda c: c.push(DEVICE, __file__ + "\0x"), ValueError, "path: a zero byte"),
        (lambda c: c.push(DEVICE, __file__, 5), TypeError, "progress: needs a callable or None, not 'int'"),
        (lambda c: c.push(DEVICE, __file__, None, 5), TypeError, "cancel: needs a jovu.PushCancel or None"),
        (lambda c: c.send_job(DEVICE, io.BytesIO(b"G1")), TypeError, "file: needs a path or an open file"),
        (lambda c: c.send_job(DEVICE, __file__, 5), TypeError, "job_id: needs a str or bytes, not 'int'"),
        (lambda c: c.send_job(DEVICE, __file__, "\ud800"), ValueError, "job_id: '\\ud800' has a surrogate"),
        (
            lambda c: c.send_job(DEVICE, __file__, compressed=True, decompressed_length=-1),
            ValueError,
            "decompressed_length: -1 is out of range, 0 to ",
        ),
        (lambda c: c.tracing(DEVICE, 0, most=-1).__enter__(), ValueError, "most: -1 is out of range, 0 to "),
        (lambda c: c.send_job_data(DEVICE, "text"), TypeError, "bytes-like"),
        (lambda c: c.bio_get_version(ELSEWHERE), jovu.Disconnected, "bio_get_version, device 9:9: "),
        (lambda c: c.close_device(ELSEWHERE), jovu.Disconnected, ""),
        (lambda c: c.wait_for_device(0.05, serial="none"), TimeoutError, "Attached: 1:2 JVS001002 (open)."),
        (lambda c: CLIENT(unknown=5), TypeError, "unexpected keyword argument"),
        (lambda c: CLIENT(connected=5), TypeError, "a callback must be callable or None, not 5"),
        (lambda c: type("", (CLIENT,), {"connected": print}), TypeError, "connected hides the callback"),
        (lambda c: jovu.DeviceFilter(serials="JVS"), TypeError, "serials: needs a sequence, not 'str'"),
        (lambda c: jovu.DeviceFilter(ports=FIVE), TypeError, "ports: needs a sequence, not 'int'"),
        (lambda c: jovu.DeviceFilter(addresses=(FIVE,)).matches(FIVE), TypeError, "addresses: needs a jovu.Address"),
        (lambda c: jovu.set_log_handler(FIVE), TypeError, "handler: needs a callable or None"),
        (lambda c: jovu.ScanPause().__exit__(), RuntimeError, "not entered"),
        (lambda c: jovu.set_device_filter(jovu.DeviceFilter(ports=["x"])), jovu.Error, "Not a port: x"),
        (lambda c: jovu.Dfu("/no/such/folder"), jovu.ToolFailed, "dfu-util is not found"),
    ],
)
@pytest.mark.filterwarnings("error")  # Also when a destructor fails.
def test_refusals(
    client: jovu.Client, call: Callable[[Any], object], kind: "type[Exception]", message: str
) -> None:
    with pytest.raises(kind, match=re.escape(message)):
        call(client)


@pytest.mark.parametrize(
    ("fault", "kind", "code"),
    [
        ("silent", jovu.ResponseTimedOut, "response_timed_out"),
        ("silent", TimeoutError, "response_timed_out"),
        ("status 02 EPIPE", jovu.Stalled, "stalled"),
        ("status 02 EPROTO", jovu.TransferFailed, "transfer_failed"),
        ("deep 3", jovu.NoResponse, "no_response"),
        ("unplug-at 02 4", jovu.Error, None),
    ],
)
def test_failures_of_the_bus(
    client: jovu.Client, fault: str, kind: "type[Exception]", code: "str | None"
) -> None:
    request(f"fault {DEVICE} {fault}")
    with jovu.response_timeout(0.1 if fault == "silent" else 5):
        with pytest.raises(kind) as raised:
            client.bio_get_version(DEVICE)
    error = raised.value
    assert isinstance(error, jovu.Error)
    assert str(error).startswith("bio_get_version, device 1:2: ")
    assert code in (None, error.code.name)
    if code is None:
        request("plug 1:2")
        client.wait_for_device(30)
    assert client.bio_get_version(DEVICE) == "1.0.0"


def test_time_limits(client: jovu.Client) -> None:
    request(f"fault {DEVICE} delay 300")
    with jovu.response_timeout(20):
        with jovu.response_timeout(0.05), pytest.raises(jovu.ResponseTimedOut):
            client.bio_get_serial(DEVICE)
        assert client.bio_get_version(DEVICE) == "1.0.0"
    client.set_response_timeout(0.05)
    with pytest.raises(jovu.ResponseTimedOut):
        client.bio_get_serial(DEVICE)
    with pytest.raises(ValueError, match="seconds: 0.001 is out of range"), jovu.response_timeout(0.001):
        pass
    request(f"fault {DEVICE} clear")


def test_closed(client: jovu.Client) -> None:
    client.close_device(DEVICE)
    with pytest.raises(jovu.Closed):
        client.bio_get_version(DEVICE)
    assert [info.state for info in jovu.list_devices()] == [jovu.DeviceState.closed]
    client.reopen_device(DEVICE)
    client.wait_for_device(30)
    assert client.bio_get_version(DEVICE) == "1.0.0"
    assert client.list_attached() == [jovu.UsbDevice(type=1, port=2)]
    threading.Timer(0.3, client.close).start()
    for _ in range(2):  # While it is closed, and afterwards.
        began = time.monotonic()
        with pytest.raises(jovu.ShutDown):
            client.wait_for_device(60, serial="none")
        assert time.monotonic() - began < 20
    assert client.closed and client.devices() == []
    with pytest.raises(jovu.ShutDown):
        client.bio_get_version(DEVICE)


def test_numbers_of_numpy(client: jovu.Client) -> None:
    client.servo_dc_position_set(DEVICE, numpy.int64(0), numpy.int32(400))
    assert client.servo_dc_position_get_client(DEVICE, 0) == 2.0
    client.servo_dc_position_set_client(DEVICE, 0, numpy.float32(0.1))
    assert client.servo_dc_units_native_to_client(DEVICE, 0, 21) == 0.105
