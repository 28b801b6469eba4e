# SPDX-License-Identifier: Apache-2.0
"""The client."""

from __future__ import annotations

import atexit
import contextlib
import contextvars
import functools
import io
import operator
import os
import threading
import time
import warnings
import weakref
from collections.abc import Callable, Iterator
from types import TracebackType
from typing import (
    TYPE_CHECKING,
    Any,
    BinaryIO,
    Generic,
    Optional,
    SupportsIndex,
    TypeVar,
    Union,
    overload,
)

from . import _jovu, _log
from ._arguments import milliseconds, wrong_type
from ._jovu import PushCancel
from ._table import Commands, ShutDown, StatusReport, servo_trace_msg
from ._values import Address, DeviceInfo, PushProgress, PushResult, UsbDevice

if TYPE_CHECKING:
    import numpy
    from numpy.typing import NDArray

    Samples = NDArray[numpy.void]
else:
    Samples = Any  # NumPy is imported once it is needed.

Path = Union[str, bytes, "os.PathLike[str]", "os.PathLike[bytes]"]
Handler = TypeVar("Handler", bound=Callable[..., object])

#: Rate of the samples of a servo whose configuration tells none, in Hz.
_USUAL_RATE = 1000
#: How long a client that the program leaves open may take to end at exit, in seconds.
_EXIT_LIMIT = 2.0

_limit: contextvars.ContextVar[int] = contextvars.ContextVar("jovu.response_timeout", default=0)
_open_clients: weakref.WeakSet[Client] = weakref.WeakSet()


class SamplesLost(RuntimeWarning):
    """Samples of a trace are missing."""


@contextlib.contextmanager
def response_timeout(seconds: float) -> Iterator[None]:
    """Set how long commands in this context wait for their response; 0.01 s to 24 h.

    Takes precedence over Client.set_response_timeout(). May be nested: the innermost one counts.
    Holds for the current thread, or the current task of asyncio.
    """
    token = _limit.set(milliseconds("seconds", seconds))
    try:
        yield
    finally:
        _limit.reset(token)


class _Callback(Generic[Handler]):
    """An attribute of a client that holds a callback, or None."""

    def __init__(self, kind: int, doc: str) -> None:
        self._kind = kind
        self.__doc__ = doc

    @overload
    def __get__(self, client: None, owner: type[Client]) -> _Callback[Handler]: ...
    @overload
    def __get__(self, client: Client, owner: type[Client]) -> Optional[Handler]: ...
    def __get__(
        self, client: Optional[Client], owner: type[Client]
    ) -> Union[_Callback[Handler], Optional[Handler]]:
        return self if client is None else client._handlers.get(self._kind)

    def __set__(self, client: Client, handler: Optional[Handler]) -> None:
        if handler is not None and not callable(handler):
            raise TypeError(f"a callback must be callable or None, not {handler!r}")
        client._handlers[self._kind] = handler
        client._core.enable(self._kind, handler is not None)


@functools.cache
def _sample_type() -> Any:
    """The memory layout of a sample."""
    import numpy

    return numpy.dtype(_jovu.sample_layout())


def _steps(counts: Any) -> Any:
    """How far each count is from the one before; 1 where the device has restarted its count."""
    import numpy

    steps = numpy.diff(counts).astype("i8")  # Of 32 bits without a sign: the count wraps there.
    steps[(steps == 0) | (steps >= 2**31)] = 1
    return steps


class Recording:
    """Samples of one servo that are being recorded. See Client.tracing()."""

    def __init__(self, samples: _jovu.Samples, rate: int) -> None:
        self._samples = samples
        #: Samples a second.
        self.rate = rate

    def __len__(self) -> int:
        return len(self._samples)

    def _received(self) -> Samples:
        import numpy

        return numpy.frombuffer(self._samples.packed(), dtype=_sample_type())

    def samples(self) -> Samples:
        """The samples so far.

        Returns:
            A structured array with the members of servo_trace_msg and `time`, in seconds since the
            first sample.
        """
        import numpy

        received = self._received()
        names: Any = received.dtype.names
        fields = [("time", "f8"), *((name, received.dtype[name]) for name in names)]
        result = numpy.empty(len(received), dtype=fields)
        for name in names:
            result[name] = received[name]
        result["time"][:1] = 0
        result["time"][1:] = numpy.cumsum(_steps(received["int_cnt"])) / self.rate
        return result

    @property
    def lost(self) -> int:
        """How many samples are missing, by their counts, or were not kept for want of room."""
        steps = _steps(self._received()["int_cnt"])
        return self._samples.lost + int((steps - 1).sum())


class _Trace:
    """Whether a servo is traced, for the recordings that share its trace."""

    def __init__(self) -> None:
        # Held while the trace is switched off, so that no recording begins meanwhile. A signal
        # handler may record the servo too.
        self.lock = threading.RLock()
        self.recordings = 0


class Client(Commands):
    """A connection to all controllers of this computer. One in a process is the rule.

    Use it in a with statement, or call close(). Each callback may be given to the constructor or
    set as an attribute at any time. Callbacks run one after the other, on a thread of the client
    that is a thread of Python like any other: they may take their time and send commands. Up to
    10000 calls wait for that thread; what comes then is counted in lost_notifications. An exception
    in a callback goes to sys.unraisablehook.

    Args:
        strict_matching: whether a response must come from the device that its request was sent to.
    """

    connected = _Callback[Callable[[Address], object]](
        0, "A device is connected and accepts commands: connected(device)."
    )
    disconnected = _Callback[Callable[[Address], object]](
        1, "A device is disconnected: disconnected(device)."
    )
    unavailable = _Callback[Callable[[Address, DeviceInfo], object]](
        2, "A device is attached and cannot be opened: unavailable(device, info)."
    )
    debug_event = _Callback[Callable[[Address, str], object]](
        3, "The firmware printed a message: debug_event(device, text)."
    )
    servo_trace = _Callback[Callable[[Address, servo_trace_msg], object]](
        4, "A traced servo reports a sample: servo_trace(device, sample)."
    )
    status_report = _Callback[Callable[[Address, StatusReport], object]](
        5, "A status report has arrived: status_report(device, report)."
    )
    job_data = _Callback[Callable[[Address, bytes], object]](
        6, "A JSON object has arrived on the job channel: job_data(device, json)."
    )

    #: Of an object whose constructor has failed, too.
    _closed = True

    def __init_subclass__(cls, **arguments: Any) -> None:
        super().__init_subclass__(**arguments)
        for name in vars(cls):
            if isinstance(getattr(Client, name, None), _Callback):
                raise TypeError(
                    f"{cls.__name__}.{name} hides the callback of that name: choose another name "
                    f"and set it, as {name}=self.on_{name} of Client.__init__()"
                )

    def __init__(
        self,
        *,
        strict_matching: bool = True,
        connected: Optional[Callable[[Address], object]] = None,
        disconnected: Optional[Callable[[Address], object]] = None,
        unavailable: Optional[Callable[[Address, DeviceInfo], object]] = None,
        debug_event: Optional[Callable[[Address, str], object]] = None,
        servo_trace: Optional[Callable[[Address, servo_trace_msg], object]] = None,
        status_report: Optional[Callable[[Address, StatusReport], object]] = None,
        job_data: Optional[Callable[[Address, bytes], object]] = None,
    ) -> None:
        self._handlers: dict[int, Any] = {}
        self._core = _jovu.Core()
        self._traces: dict[tuple[Address, int], _Trace] = {}
        self.connected = connected
        self.disconnected = disconnected
        self.unavailable = unavailable
        self.debug_event = debug_event
        self.servo_trace = servo_trace
        self.status_report = status_report
        self.job_data = job_data
        _log.start()
        self._core.start(strict_matching)
        self._closed = False
        self._thread = threading.Thread(
            target=_dispatch,
            args=(self._core, weakref.ref(self)),
            name="jovu-callbacks",
            daemon=True,
        )
        self._thread.start()
        _open_clients.add(self)

    def __enter__(self) -> Client:
        return self

    def __exit__(
        self,
        kind: Optional[type[BaseException]],
        error: Optional[BaseException],
        traceback: Optional[TracebackType],
    ) -> None:
        self.close()

    def __del__(self) -> None:
        if not self._closed:
            self._end()

    def close(self) -> None:
        """End the client: commands and pushes in progress fail, devices are closed.

        When it returns, no callback is running (but one that made the call) and none will follow.
        May be called more than once.
        """
        self._end()
        self._join(None)

    @property
    def closed(self) -> bool:
        """Whether close() has been called."""
        return self._closed

    @property
    def lost_notifications(self) -> int:
        """How many calls of callbacks were left out because too many were waiting."""
        return self._core.queue.lost

    def _end(self) -> None:
        self._closed = True
        self._core.stop()

    def _join(self, limit: Optional[float]) -> None:
        if threading.current_thread() is not self._thread and not _jovu.is_forked():
            self._thread.join(limit)

    def _command(self, index: int, device: Address, arguments: tuple[object, ...]) -> object:
        return self._core.command(index, device, arguments, _limit.get())

    def devices(self) -> list[Address]:
        """The devices that accept commands, in no particular order."""
        return self._core.connected()

    def list_attached(self) -> list[UsbDevice]:
        """Every device of the accepted vendor on the bus, opened or not."""
        return self._core.list_attached()

    def wait_for_device(self, timeout: float = 10.0, *, serial: Optional[str] = None) -> Address:
        """Wait until a device accepts commands.

        Args:
            timeout: seconds.
            serial: its serial number; any device without it.

        Raises:
            TimeoutError: there is none in that time; the message names those that are attached.
            ShutDown: the client is closed.
        """
        deadline = time.monotonic() + timeout
        seen = 0
        while True:
            if self._closed:
                raise ShutDown("The client has been closed.")
            serials = {info.address: info.serial for info in _jovu.list_devices()}
            for device in self.devices():
                if serial is None or (serials.get(device) or self.bio_get_serial(device)) == serial:
                    return device
            left = deadline - time.monotonic()
            if not left > 0:  # Also when it is no number.
                break
            seen = self._core.wait_for_connection(seen, round(min(left, 3600) * 1000) + 1)
        attached = ", ".join(
            f"{info.address} {info.serial} ({info.state.name})" for info in _jovu.list_devices()
        )
        wanted = "device" if serial is None else f"device with the serial number {serial}"
        raise TimeoutError(f"No {wanted} within {timeout} s. Attached: {attached or 'none'}.")

    def close_device(self, device: Address) -> None:
        """Close a device. It is not opened again before reopen_device(), or a new plug."""
        self._core.close_device(device)

    def reopen_device(self, device: Address) -> None:
        """Open a device again that close_device() has closed; `connected` follows."""
        self._core.reopen_device(device)

    def cancel_exchanges(self, device: Address) -> int:
        """Cancel the commands that wait for a device; they raise Cancelled.

        Returns:
            How many it has cancelled.
        """
        return self._core.cancel_exchanges(device)

    def set_response_timeout(self, seconds: float) -> None:
        """Set how long commands wait for their response; 0.01 s to 24 h, 15 s at first."""
        self._core.set_response_timeout(milliseconds("seconds", seconds))

    def status(self, device: Address, timeout: float = 15.0) -> StatusReport:
        """Request a status report and wait for it.

        Args:
            timeout: seconds, 0.01 to 86400.

        Raises:
            ResponseTimedOut: none has arrived in that time.
        """
        return self._core.status(device, milliseconds("timeout", timeout))

    def request_status(self, device: Address) -> None:
        """Request a status report, which arrives at `status_report`."""
        self._core.request_status(device)

    def pause(self, device: Address) -> None:
        """Pause the job of a device. Does nothing when its status tells that it is paused."""
        self._toggle_pause(device, "paused")

    def resume(self, device: Address) -> None:
        """Resume the job of a device. Does nothing unless its status tells that it is paused."""
        self._toggle_pause(device, "")

    def _toggle_pause(self, device: Address, wanted: str) -> None:
        # One request does both.
        if (self.status(device).state == "paused") != (wanted == "paused"):
            self._core.send_pause(device)

    def abort(self, device: Address) -> None:
        """Abort the job of a device."""
        self._core.abort(device)

    def send_job_data(self, device: Address, data: Any) -> None:
        """Write raw bytes to the job channel.

        Args:
            data: anything contiguous with the buffer protocol, such as bytes or an array of NumPy.
                It is not copied, and must not change during the call.
        """
        self._core.send_job_data(device, data)

    def push(
        self,
        device: Address,
        path: Path,
        progress: Optional[Callable[[PushProgress], object]] = None,
        cancel: Optional[PushCancel] = None,
    ) -> PushResult:
        """Push a job file; return when the device has taken its last byte.

        The push carries no acknowledgement: the outcome shows in later status reports. Ctrl-C, an
        exception in `progress` and `cancel` end it by filler up to the announced size, so that the
        device refuses the job and responds again; that takes as long as the rest of the job would.
        A second Ctrl-C leaves that to the background.

        Args:
            progress: called on this thread.
            cancel: cancels the push from another thread.
        """
        own = PushCancel() if cancel is None else cancel
        if not isinstance(own, PushCancel):
            raise wrong_type("cancel", cancel, "a jovu.PushCancel or None")
        return PushResult(self._core.push(device, os.fsencode(path), progress, own))

    def send_job(
        self,
        device: Address,
        file: Union[Path, BinaryIO],
        job_id: str = "",
        *,
        compressed: bool = False,
        decompressed_length: int = 0,
    ) -> None:
        """Push a job with an id. It cannot be cancelled.

        Args:
            file: a path, or an open file that can be sought; read twice from its start.
            compressed: announce deflated content. The bytes are sent as they are either way.
            decompressed_length: announced with `compressed`, in bytes.
        """
        with contextlib.ExitStack() as stack:
            if isinstance(file, (str, bytes, os.PathLike)):
                file = stack.enter_context(open(file, "rb"))
            try:
                descriptor = file.fileno()
            except (AttributeError, io.UnsupportedOperation):
                raise wrong_type("file", file, "a path or an open file of the system") from None
            self._core.send_job(device, descriptor, job_id, compressed, decompressed_length)

    @contextlib.contextmanager
    def tracing(
        self, device: Address, servo: SupportsIndex, *, most: int = 10_000_000
    ) -> Iterator[Recording]:
        """Record the samples of a servo while the context is entered.

        The trace is switched off at its end in any case. A servo that is idle when its trace is
        switched on moves about its position meanwhile.

        Args:
            most: how many samples are kept.
        """
        rate = self.servo_dc_config_get(device, servo).interrupt_frequency or _USUAL_RATE
        recording = Recording(self._core.record(device, servo, most), rate)
        trace = self._traces.setdefault((Address(*device), operator.index(servo)), _Trace())
        with trace.lock:
            trace.recordings += 1
        try:
            self.servo_dc_trace_enable(device, servo, True)
            yield recording
        finally:
            with trace.lock:
                trace.recordings -= 1
                if trace.recordings == 0:
                    self.servo_dc_trace_enable(device, servo, False)

    def trace(self, device: Address, servo: SupportsIndex, seconds: float) -> Samples:
        """Record the samples of a servo for a time. See tracing().

        Warns:
            SamplesLost: how many samples are missing.

        Returns:
            A structured array, see Recording.samples().
        """
        with self.tracing(device, servo) as recording:
            time.sleep(seconds)
        lost = recording.lost
        if lost > 0:
            warnings.warn(f"{lost} samples of servo {servo} are missing", SamplesLost, stacklevel=2)
        return recording.samples()


def _dispatch(core: _jovu.Core, reference: weakref.ref[Client]) -> None:
    """Calls the callbacks of a client, until it has ended."""
    while notifications := core.queue.take():
        for kind, arguments in notifications:
            client = reference()
            if client is None or client._closed:
                return
            handler = client._handlers.get(kind)
            # The client may be destroyed while its callback runs.
            del client
            if handler is not None:
                _log.call(handler, arguments)
            del handler


@atexit.register
def _close_all() -> None:
    if _jovu.is_forked():
        return
    deadline = time.monotonic() + _EXIT_LIMIT
    for client in list(_open_clients):
        if not client.closed:
            client._closed = True
            # A callback of a push, which this waits for, may never return.
            if client._core.stop_for(round(max(0.0, deadline - time.monotonic()) * 1000)):
                client._join(max(0.0, deadline - time.monotonic()))
    _log.stop()
