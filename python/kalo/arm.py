"""kalo.Arm: one connection to an arm's controller, every device call as a method."""

import ctypes
import enum
import math
import threading
import time
from typing import NamedTuple

import numpy as np

from . import _binding
from ._library import lib
from .errors import ErrorCode, KaloError, error_for, last_global_error


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

    def __str__(self):
        return f"{self.major}.{self.minor}"


class State(NamedTuple):
    """What Arm.frames yields: seconds since the first frame, pose (points, 7), speed (points, 6)."""

    time: float
    position: np.ndarray
    speed: np.ndarray


def api_version():
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

# A float pattern no pose can hold: a NaN with a payload the library never makes.
_CANARY = np.frombuffer(np.uint32(0x7FA5A5A5).tobytes(), dtype=np.float32)[0]


class Arm:
    """A connection to an arm's controller (kaloOpen), closed by close() or on leaving a with block.

    Every device call of kalo/kalo.h is a method named after it in snake case
    (kaloSetCommandType -> set_command_type); each docstring names its C call.
    Poses are float32 arrays shaped (points, 7): x, y, z, then the quaternion
    x, y, z, w; speeds and forces (points, 6), linear then angular. A failed
    call raises KaloError (or one of its subclasses) with the library's code
    and message. After close() every call raises KaloError (code 3).

    .points is the control-point count the per-point calls work on (read at
    open and by get_robot_number_of_control_points), .axes the axis count of
    the joint calls (get_number_of_axes), .samples the count asked for by
    vm_start_traj_sampling.

        with kalo.Arm("udpxdr://127.0.0.1#5000") as arm:
            arm.set_command_type(kalo.CommandType.FORCE)
            arm.set_force(np.zeros((arm.points, 6), np.float32))
    """

    def __init__(self, url):
        self._handle = None
        self._lock = threading.Lock()
        self._callback = None
        self._loop_error = None
        self._loop_thread = None
        self.samples = 0
        self.axes = 0
        self.points = 0
        self.url = url
        handle = lib.kaloOpen(str(url).encode())
        if not handle:
            raise error_for(last_global_error(), f"kaloOpen({url!r})")
        self._handle = handle
        try:
            self._count_points()
            self._count_axes()
        except BaseException:
            self._close(raise_errors=False)
            raise

    # ---- the connection ----------------------------------------------------

    def __repr__(self):
        state = "closed" if self.closed else f"points={self.points} axes={self.axes}"
        return f"<kalo.Arm {self.url!r} {state}>"

    def __enter__(self):
        return self

    def __exit__(self, kind, error, trace):
        self._close(raise_errors=kind is None)
        return False

    def __del__(self):
        if getattr(self, "_handle", None):
            self._close(raise_errors=False)

    @property
    def closed(self):
        """True once the connection is closed (by close(), or by the library after a failure)."""
        return self._handle is None

    def close(self):
        """Stops the loop and closes the connection; raises a pending error of the loop function.

        Not from the periodic function: it cannot wait for its own thread.

        C: kaloClose(KaloContext *context)"""
        if threading.get_ident() == self._loop_thread:
            raise RuntimeError("close() called from the periodic function: stop_loop() or raise instead")
        self._close(raise_errors=True)

    def _close(self, raise_errors):
        """Closes once; with raise_errors, raises the loop function's pending
        error, else a failed close (the connection had already failed)."""
        with self._lock:
            handle, self._handle = self._handle, None
        status = lib.kaloClose(handle) if handle else 0
        self._callback = None
        if raise_errors:
            self._raise_loop_error()
            if status != 0:
                raise error_for(last_global_error(), "kaloClose")

    def _raise_loop_error(self):
        error, self._loop_error = self._loop_error, None
        if error is not None:
            raise error

    def _call(self, function, c_name, *args):
        """Runs one C call on the live handle and turns a failure into an exception."""
        if self._loop_error is not None:
            self._raise_loop_error()
        handle = self._handle
        if handle is None:
            raise KaloError(ErrorCode.INVALID_CONTEXT, "the connection is closed", c_name)
        status = function(handle, *args)
        if status != 0:
            self._fail(status, c_name, handle)

    def _fail(self, status, c_name, handle):
        if status > 0:  # version-gated and a few other calls return the bare code
            raise error_for(status, c_name)
        code = lib.kaloGetErrorCode(handle)
        if code == ErrorCode.INVALID_CONTEXT:
            # The library released the context (a non-finite set-point closes
            # the connection); the reason is in kaloGlobalError.
            with self._lock:
                self._handle = None
            code = last_global_error()
        if code == ErrorCode.NO_ERROR:
            raise KaloError(code, "the call failed without an error code", c_name)
        raise error_for(code, c_name)

    def get_error_code(self):
        """The connection's last error code, cleared by the read (an ErrorCode).

        C: kaloGetErrorCode(KaloContext *context)"""
        if self._handle is None:
            raise KaloError(ErrorCode.INVALID_CONTEXT, "the connection is closed", "kaloGetErrorCode")
        return ErrorCode(lib.kaloGetErrorCode(self._handle))

    def _count_points(self):
        # The per-point calls work on the controller's count, kept within the
        # library's room: kaloGetPosition writes exactly that many entries.
        probe = np.full((_binding.TEXTURE_ROOM, 7), _CANARY, dtype=np.float32)
        self._call(lib.kaloGetPosition, "kaloGetPosition", probe.ctypes.data)
        written = probe.view(np.uint32)[:, 0] != np.uint32(0x7FA5A5A5)
        self.points = int(np.argmin(written)) if not written.all() else len(written)

    def _count_axes(self):
        count = ctypes.c_uint32()
        self._call(lib.kaloGetNumberOfAxes, "kaloGetNumberOfAxes")
        self._call(lib.kaloGetNbAxes, "kaloGetNbAxes", ctypes.byref(count))
        self.axes = min(count.value, _binding.AXIS_ROOM)

    def get_robot_number_of_control_points(self):
        """Takes the controller's control-point count into the connection; Arm.points follows.

        C: kaloGetRobotNumberOfControlPoints(KaloContext *context)"""
        self._call(lib.kaloGetRobotNumberOfControlPoints, "kaloGetRobotNumberOfControlPoints")
        self._count_points()

    def get_number_of_axes(self):
        """Takes the controller's axis count for the joint calls; Arm.axes follows.

        C: kaloGetNumberOfAxes(KaloContext *context)"""
        self._count_axes()

    def get_controler_version(self):
        """The controller's version, asked for (a Version; code 6 without reply).

        C: kaloGetControlerVersion(KaloContext *context, int32_t *major, int32_t *minor)"""
        return Version(*_GENERATED["get_controler_version"](self))

    def get_command_type(self):
        """The command type the controller runs, asked for (a CommandType when known).

        C: kaloGetCommandType(KaloContext *context, uint32_t *type)"""
        value = _GENERATED["get_command_type"](self)
        return CommandType(value) if value in CommandType._value2member_map_ else value

    def vm_start_traj_sampling(self, count):
        """Asks for count (1..3000) trajectory samples; vm_get_traj_samples returns them, (count, 7).

        C: kaloVmStartTrajSampling(KaloContext *context, int32_t count)"""
        _GENERATED["vm_start_traj_sampling"](self, count)
        self.samples = int(count)

    # ---- loops -------------------------------------------------------------

    def start_loop(self, function, period=0.001):
        """Calls function(arm) every period seconds on the library's loop thread.

        The period is rounded to the controller's unit (1 ms) and returned. An
        exception in function stops the loop; the next call on the arm (or
        stop_loop, or close) raises it.

        Python is not real-time. The function runs under the interpreter lock,
        so a garbage collection or any other busy Python thread delays it, and
        each device call costs 8 to 12 us from Python against about 1 us from
        C. Measured with bench/python_binding.py against kalo-sim on a shared
        2-core machine under heavy load, a 1 kHz coupling step came late (more
        than 1.5 periods after the previous call) in 4.6 to 9.8 % of its calls
        in Python over four runs, and in 4.8 to 8.1 % for the same step in C in
        the same runs: the machine's load makes most of the lateness, and
        Python's share is of the same order. Keep the function short.

        C: kaloSetPeriodicFunction(KaloContext *context, KaloPeriodicFunction
        function, float *period, void *user_data), kaloStartLoop(KaloContext *context)
        """
        if not callable(function):
            raise TypeError("start_loop needs a callable taking the arm")

        def trampoline(context, user_data):
            if self._loop_error is not None:
                return
            self._loop_thread = threading.get_ident()
            try:
                function(self)
            except BaseException as error:  # noqa: BLE001 (handed to the caller's thread)
                self._loop_error = error
                lib.kaloStopLoop(context)

        callback = PeriodicFunction(trampoline)
        rounded = ctypes.c_float(period)
        self._call(lib.kaloSetPeriodicFunction, "kaloSetPeriodicFunction", callback, ctypes.byref(rounded), None)
        self._callback = callback  # the C side holds a pointer to it until close
        self._call(lib.kaloStartLoop, "kaloStartLoop")
        return rounded.value

    def stop_loop(self):
        """Stops the loop; function is not called again once this returns. Raises its pending error.

        C: kaloStopLoop(KaloContext *context)"""
        if self._handle is not None:
            self._call(lib.kaloStopLoop, "kaloStopLoop")
        self._raise_loop_error()

    def frames(self, period=0.001, duration=None):
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

    def __init__(self, arm, period, duration):
        if not period > 0:
            raise ValueError("frames: period must be above 0")
        self.arm, self.period = arm, float(period)
        # polls at 0, period, 2 period, ... while below duration
        self.limit = None if duration is None else math.ceil(duration / self.period - 1e-9)
        self.count = self.late = 0
        self._start = None

    def __iter__(self):
        return self

    def __next__(self):
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
