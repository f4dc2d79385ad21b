"""kalo.Arm: one connection to an arm's controller, every device call as a method."""

import atexit
import ctypes
import enum
import math
import threading
import time
import weakref
from typing import TYPE_CHECKING, Any, Callable, Iterator, NamedTuple, Optional, Union

import numpy as np

from . import _binding, errors
from ._library import lib
from .errors import ErrorCode, KaloError, failure, last_global_error

if TYPE_CHECKING:  # the typed signatures of the methods made from the call table
    from ._device_calls import DeviceCalls
else:
    DeviceCalls = object


class CommandType(enum.IntEnum):
    """How the arm is driven (set_command_type)."""

    NONE = 0
    SPEED_FORCE = 3  # speed set-points, forces accepted
    COUPLING = 4  # coupling to a virtual object, the library computes the force
    COUPLING_GAINS = 5  # coupling, gains sent to the controller; virtual mechanisms
    FORCE = 6
    FORCE_POSITION = 7


class Version(NamedTuple):
    """A major.minor version; prints as 4.4."""

    major: int
    minor: int

    def __str__(self) -> str:
        return f"{self.major}.{self.minor}"


class State(NamedTuple):
    """What Arm.frames yields: seconds since the first frame, pose (points, 7), speed (points, 6)."""

    time: float
    position: np.ndarray
    speed: np.ndarray


def api_version() -> Version:
    """This library's version, 4.4 (kaloAPIVersion)."""
    major, minor = ctypes.c_int32(), ctypes.c_int32()
    lib.kaloAPIVersion(ctypes.byref(major), ctypes.byref(minor))
    return Version(major.value, minor.value)


PeriodicFunction = ctypes.CFUNCTYPE(None, ctypes.c_void_p, ctypes.c_void_p)
lib.kaloSetPeriodicFunction.argtypes = [
    ctypes.c_void_p,
    PeriodicFunction,
    ctypes.POINTER(ctypes.c_float),
    ctypes.c_void_p,
]
lib.kaloSetPeriodicFunction.restype = ctypes.c_int32
for _name in ("kaloStartLoop", "kaloStopLoop"):
    getattr(lib, _name).argtypes = [ctypes.c_void_p]
    getattr(lib, _name).restype = ctypes.c_int32

class LoopTiming(NamedTuple):
    """The timing of a periodic call (Arm.loop_timing): what the controller's
    clock and the arrival times say elapsed since the previous call."""

    frames: int  # state frames received since the previous call
    controller_elapsed: float  # s, on the controller's time stamps
    arrival_elapsed: float  # s, on the frames' arrival times
    late: bool  # this call started more than 1.5 periods after the previous one
    stamp: int  # controller time stamp (us, 32-bit wrapping) of the frame that ticked this call
    calls: int  # periodic calls so far
    late_calls: int  # late calls so far


class _LoopTimingRecord(ctypes.Structure):
    _fields_ = [("size", ctypes.c_uint32), ("frames", ctypes.c_uint32),
                ("controller_elapsed", ctypes.c_double), ("arrival_elapsed", ctypes.c_double),
                ("late", ctypes.c_uint32), ("stamp", ctypes.c_uint32),
                ("calls", ctypes.c_uint64), ("late_calls", ctypes.c_uint64)]


try:  # an extension a library older than this package may lack
    _get_loop_timing = lib.kaloExtGetLoopTiming
    _get_loop_timing.argtypes = [ctypes.c_void_p, ctypes.POINTER(_LoopTimingRecord)]
    _get_loop_timing.restype = ctypes.c_int32
except AttributeError:
    _get_loop_timing = None

# The connections open in this process: their loops are stopped and they are
# closed before the interpreter shuts down, which would otherwise end a loop
# thread inside the periodic function and leave kaloClose waiting for it.
_open_arms: "weakref.WeakSet[Arm]" = weakref.WeakSet()


@atexit.register
def _close_all_at_exit() -> None:
    for arm in list(_open_arms):
        arm._close(raise_errors=False)


# A float pattern no pose can hold: a NaN with a payload the library never makes.
_CANARY = np.frombuffer(np.uint32(0x7FA5A5A5).tobytes(), dtype=np.float32)[0]


class Arm(DeviceCalls):
    """A connection to an arm's controller (kaloOpen), closed by close() or on leaving a with block.

    Every device call of kalo/kalo.h is a method named after it in snake case
    (kaloSetCommandType -> set_command_type); each docstring names its C call.
    Poses are float32 arrays shaped (points, 7): x, y, z, then the quaternion
    x, y, z, w; speeds and forces (points, 6), linear then angular. A failed
    call raises KaloError (or one of its subclasses) with the library's code
    and message. After close() every call raises KaloError (code 3).
    Array readers take out= to fill a float32 array of the caller's instead of
    making one; a float32 C-contiguous input of the call's shape goes to C as
    it is.

    .points is the control-point count the per-point calls work on (read at
    open and by get_robot_number_of_control_points), .axes the axis count of
    the joint calls (get_number_of_axes), .samples the count asked for by
    vm_start_traj_sampling.

        with kalo.Arm("udpxdr://127.0.0.1#5000") as arm:
            arm.set_command_type(kalo.CommandType.FORCE)
            arm.set_force(np.zeros((arm.points, 6), np.float32))
    """

    def __init__(self, url: str) -> None:
        self._handle: Optional[int] = None
        # The handle while the connection is open and no error of the loop
        # function waits to be raised, else None: the one test of a call's fast path.
        self._ready: Optional[int] = None
        self._lock = threading.Lock()
        self._callback: Any = None
        self._loop_error: Optional[BaseException] = None
        self._loop_thread: Optional[int] = None
        self.samples = 0
        self.axes = 0
        self.points = 0
        self.url = url
        handle = lib.kaloOpen(_binding._text(url, "url", "kaloOpen"))
        if not handle:
            raise failure(last_global_error(), f"kaloOpen({url!r})")
        self._handle = self._ready = handle
        _open_arms.add(self)
        try:
            self._count_points()
            self._count_axes()
        except BaseException:
            self._close(raise_errors=False)
            raise

    @property
    def points(self) -> int:
        """The control-point count of the per-point calls."""
        return self._points

    @points.setter
    def points(self, count: int) -> None:
        # the shapes of the per-point arrays, made once for the calls' checks
        self._points = count
        self._shape_p, self._shape_p6, self._shape_p7 = (count,), (count, 6), (count, 7)

    # ---- the connection ----------------------------------------------------

    def __repr__(self) -> str:
        state = "closed" if self.closed else f"points={self.points} axes={self.axes}"
        return f"<kalo.Arm {self.url!r} {state}>"

    def __enter__(self) -> "Arm":
        return self

    def __exit__(self, kind: Any, error: Any, trace: Any) -> None:
        self._close(raise_errors=kind is None)

    def __del__(self) -> None:
        if getattr(self, "_handle", None):
            self._close(raise_errors=False)

    @property
    def closed(self) -> bool:
        """True once the connection is closed (by close(), or by the library after a failure)."""
        return self._handle is None

    def close(self) -> None:
        """Stops the loop and closes the connection; raises a pending error of the loop function.

        Not from the periodic function: it cannot wait for its own thread.

        C: kaloClose(KaloContext *context)"""
        if threading.get_ident() == self._loop_thread:
            raise RuntimeError("close() called from the periodic function: stop_loop() or raise instead")
        self._close(raise_errors=True)

    def _close(self, raise_errors: bool) -> None:
        """Closes once; with raise_errors, raises the loop function's pending
        error, else a failed close (the connection had already failed).

        The loop stops first, while the handle is still live, so that a loop
        function calling the arm meanwhile sees an open connection."""
        handle = self._handle
        if handle and self._callback is not None:
            lib.kaloStopLoop(handle)  # the function is not called again once this returns
        with self._lock:
            handle, self._handle = self._handle, None
            self._ready = None
        status = lib.kaloClose(handle) if handle else 0
        error = failure(last_global_error(), "kaloClose") if status != 0 else None
        self._callback = None
        _open_arms.discard(self)
        if raise_errors:
            self._raise_loop_error()
            if error is not None:
                raise error

    def _raise_loop_error(self) -> None:
        with self._lock:
            error, self._loop_error = self._loop_error, None
            self._ready = self._handle
        if error is not None:
            raise error

    def _live(self, c_name: str) -> int:
        """The handle for a call: raises the loop function's pending error, or
        KaloError code 3 once the connection is closed."""
        if self._loop_error is not None:
            self._raise_loop_error()
        handle = self._handle
        if handle is None:
            raise KaloError(ErrorCode.INVALID_CONTEXT, "the connection is closed", c_name)
        return handle

    def _call(self, function: Any, c_name: str, *args: Any) -> None:
        """Runs one C call on the live handle and turns a failure into an exception."""
        handle = self._live(c_name)
        status = function(handle, *args)
        if status != 0:
            self._fail(status, c_name, handle)

    def _fail(self, status: int, c_name: str, handle: int) -> None:
        if status > 0:  # version-gated and a few other calls return the bare code
            raise failure(status, c_name)
        detail = errors.last_error_detail()  # before another call of this thread replaces it
        code = lib.kaloGetErrorCode(handle)
        if code == ErrorCode.INVALID_CONTEXT:
            # The library released the context (a non-finite set-point closes
            # the connection); the reason is in kaloGlobalError.
            with self._lock:
                self._handle = self._ready = None
            code = last_global_error()
        if code == ErrorCode.NO_ERROR:
            raise KaloError(code, "the call failed without an error code", c_name, detail)
        raise errors.error_for(code, c_name, detail=detail)

    def get_error_code(self) -> ErrorCode:
        """The connection's last error code, cleared by the read (an ErrorCode).

        C: kaloGetErrorCode(KaloContext *context)"""
        if self._handle is None:
            raise KaloError(ErrorCode.INVALID_CONTEXT, "the connection is closed", "kaloGetErrorCode")
        return ErrorCode(lib.kaloGetErrorCode(self._handle))

    def _count_points(self) -> None:
        # The per-point calls work on the controller's count, kept within the
        # library's room: kaloGetPosition writes exactly that many entries.
        probe = np.full((_binding.TEXTURE_ROOM, 7), _CANARY, dtype=np.float32)
        self._call(lib.kaloGetPosition, "kaloGetPosition", probe.ctypes.data)
        written = probe.view(np.uint32)[:, 0] != np.uint32(0x7FA5A5A5)
        self.points = int(np.argmin(written)) if not written.all() else len(written)

    def _count_axes(self) -> None:
        count = ctypes.c_uint32()
        self._call(lib.kaloGetNumberOfAxes, "kaloGetNumberOfAxes")
        self._call(lib.kaloGetNbAxes, "kaloGetNbAxes", ctypes.byref(count))
        self.axes = min(count.value, _binding.AXIS_ROOM)

    def get_robot_number_of_control_points(self) -> None:
        """Takes the controller's control-point count into the connection; Arm.points follows.

        C: kaloGetRobotNumberOfControlPoints(KaloContext *context)"""
        self._call(lib.kaloGetRobotNumberOfControlPoints, "kaloGetRobotNumberOfControlPoints")
        self._count_points()

    def get_number_of_axes(self) -> None:
        """Takes the controller's axis count for the joint calls; Arm.axes follows.

        C: kaloGetNumberOfAxes(KaloContext *context)"""
        self._count_axes()

    def get_controler_version(self) -> Version:
        """The controller's version, asked for (a Version; code 6 without reply).

        C: kaloGetControlerVersion(KaloContext *context, int32_t *major, int32_t *minor)"""
        return Version(*_GENERATED["get_controler_version"](self))

    def get_command_type(self) -> Union[CommandType, int]:
        """The command type the controller runs, asked for (a CommandType when known).

        C: kaloGetCommandType(KaloContext *context, uint32_t *type)"""
        value = _GENERATED["get_command_type"](self)
        return CommandType(value) if value in CommandType._value2member_map_ else value

    def vm_start_traj_sampling(self, count: int, /) -> None:
        """Asks for count (1..3000) trajectory samples; vm_get_traj_samples returns them, (count, 7).

        C: kaloVmStartTrajSampling(KaloContext *context, int32_t count)"""
        _GENERATED["vm_start_traj_sampling"](self, count)
        self.samples = int(count)

    # ---- loops -------------------------------------------------------------

    def start_loop(self, function: Callable[["Arm"], object], period: float = 0.001) -> float:
        """Calls function(arm) every period seconds on the library's loop thread.

        The period is rounded to the controller's unit (1 ms) and returned. An
        exception in function stops the loop; the next call on the arm (or
        stop_loop, or close) raises it.

        Python is not real-time. The function runs under the interpreter lock,
        so a garbage collection or any other busy Python thread delays it; a
        device call costs about 1.5 times a bare ctypes call when it is given
        float32 arrays and out= (bench/python_binding.py). Measured with bench/python_binding.py against kalo-sim on a shared
        2-core machine under heavy load, a 1 kHz coupling step came late (more
        than 1.5 periods after the previous call) in 4.6 to 9.8 % of its calls
        in Python over four runs, and in 4.8 to 8.1 % for the same step in C in
        the same runs: the machine's load makes most of the lateness, and
        Python's share is of the same order. Keep the function short.

        A loop still running when the interpreter exits is stopped, and its
        connection closed, by the package itself.

        C: kaloSetPeriodicFunction(KaloContext *context, KaloPeriodicFunction
        function, float *period, void *user_data), kaloStartLoop(KaloContext *context)
        """
        if not callable(function):
            raise TypeError("start_loop needs a callable taking the arm")

        def trampoline(context: int, user_data: int) -> None:
            if self._loop_error is not None:
                return
            self._loop_thread = threading.get_ident()
            try:
                function(self)
            except BaseException as error:  # noqa: BLE001 (handed to the caller's thread)
                self._loop_error = error
                self._ready = None
                lib.kaloStopLoop(context)

        callback = PeriodicFunction(trampoline)
        rounded = ctypes.c_float(period)
        self._call(lib.kaloSetPeriodicFunction, "kaloSetPeriodicFunction", callback, ctypes.byref(rounded), None)
        self._callback = callback  # the C side holds a pointer to it until close
        self._call(lib.kaloStartLoop, "kaloStartLoop")
        return rounded.value

    def stop_loop(self) -> None:
        """Stops the loop; function is not called again once this returns. Raises its pending error.

        C: kaloStopLoop(KaloContext *context)"""
        if self._handle is not None:
            self._call(lib.kaloStopLoop, "kaloStopLoop")
        self._raise_loop_error()

    def loop_timing(self) -> LoopTiming:
        """The real time elapsed between the previous periodic call and this
        one, on the controller's clock and on arrival times (a LoopTiming).

        Call it from the periodic function and integrate with
        controller_elapsed rather than the nominal period: a late call then
        moves a simulation by the time that really passed. From another thread
        it gives the latest call's timing; before the first call, zeros.

        C: kaloExtGetLoopTiming(KaloContext *context, KaloExtLoopTiming *timing)"""
        if _get_loop_timing is None:
            raise KaloError(ErrorCode.NOT_IMPLEMENTED, None, "kaloExtGetLoopTiming",
                            "the loaded libkalo has no kaloExtGetLoopTiming")
        record = _LoopTimingRecord(ctypes.sizeof(_LoopTimingRecord))
        self._call(_get_loop_timing, "kaloExtGetLoopTiming", ctypes.byref(record))
        return LoopTiming(record.frames, record.controller_elapsed, record.arrival_elapsed,
                          bool(record.late), record.stamp, record.calls, record.late_calls)

    def frames(self, period: float = 0.001, duration: Optional[float] = None) -> "Frames":
        """Polls the arm every period seconds: `for state in arm.frames(0.01): ...`.

        Yields State(time, position, speed) until duration seconds have passed
        (forever when None) or the loop is left. It runs on the caller's
        thread and sleeps between polls. Python is not real-time: a poll comes
        late (see start_loop for the measured rates) whenever the interpreter
        or the machine is busy, and it never sees every frame of a 1 kHz
        controller. .late counts the polls that came more than half a period
        after their deadline; the deadlines do not drift.
        """
        return Frames(self, period, duration)


class Frames:
    """The iterator of Arm.frames; .count polls made, .late polls behind their deadline."""

    def __init__(self, arm: Arm, period: float, duration: Optional[float]) -> None:
        if not period > 0:
            raise ValueError("frames: period must be above 0")
        self.arm, self.period = arm, float(period)
        # polls at 0, period, 2 period, ... while below duration
        self.limit = None if duration is None else math.ceil(duration / self.period - 1e-9)
        self.count = self.late = 0
        self._start: Optional[float] = None

    def __iter__(self) -> Iterator[State]:
        return self

    def __next__(self) -> State:
        if self.limit is not None and self.count >= self.limit:
            raise StopIteration
        now = time.monotonic()
        if self._start is None:
            self._start = now
        else:
            deadline = self._start + self.count * self.period
            if now < deadline:
                time.sleep(deadline - now)
            elif now - deadline > 0.5 * self.period:
                self.late += 1
        t = time.monotonic() - self._start
        self.count += 1
        return State(t, self.arm.get_position(), self.arm.get_speed())


_GENERATED = _binding.methods()
for _name, _method in _GENERATED.items():
    if _name not in Arm.__dict__:
        setattr(Arm, _name, _method)
