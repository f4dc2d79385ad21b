"""Turns the rows of _calls.CALLS into ctypes declarations and Arm methods."""

import ctypes
import inspect
import numbers
import re

import numpy as np

from ._calls import CALLS
from ._library import lib

# Room the C side may touch behind a per-axis or per-sample pointer, whatever
# the counts say: joint arrays hold 20 axes, a sampling run 3000 samples.
AXIS_ROOM = 20
SAMPLE_ROOM = 3000
# The texture call reads one intensity per control point of the controller's
# own count; kalo-sim reports at most 64.
TEXTURE_ROOM = 64

_SCALARS = {"u": ctypes.c_uint32, "i": ctypes.c_int32, "f": ctypes.c_float}
_C_TYPES = {"u": "uint32_t", "i": "int32_t", "f": "float", "s": "const char *"}
_PARAM = re.compile(r"^(>?)(\w+):([uifs])(\*|\[(\w+)(?:,(\d+))?\])?$")


def python_name(c_name):
    """kaloVmStartTrajSampling -> vm_start_traj_sampling, kaloAttachVO -> attach_vo."""
    name = c_name[4:] if c_name.startswith("kalo") else c_name
    name = re.sub(r"([A-Z]+)([A-Z][a-z])", r"\1_\2", name)
    name = re.sub(r"([a-z0-9])([A-Z])", r"\1_\2", name)
    return name.lower()


class Param:
    """One parameter of a row: name, direction, scalar kind and array shape."""

    def __init__(self, text):
        match = _PARAM.match(text)
        if match is None:
            raise ValueError(f"bad parameter {text!r}")
        out, self.name, self.kind, suffix, rows, cols = match.groups()
        self.out = out == ">"
        self.by_pointer = suffix == "*"
        self.array = suffix is not None and suffix.startswith("[")
        # rows is a number, or P (points), A (axes) or S (samples); cols a number or None
        self.rows = int(rows) if rows and rows.isdigit() else rows
        self.cols = int(cols) if cols else None
        self.count = {"P": "points", "A": "axes", "S": "samples"}.get(self.rows)  # Arm attribute
        # floats the C side may touch whatever the counts; None: exactly the shape
        room_rows = {"A": AXIS_ROOM, "S": SAMPLE_ROOM}.get(self.rows)
        self.room = room_rows * (self.cols or 1) if room_rows else None

    def ctype(self):
        if self.kind == "s":
            return ctypes.c_char_p
        if self.array:
            return ctypes.c_void_p
        if self.out or self.by_pointer:
            return ctypes.POINTER(_SCALARS[self.kind])
        return _SCALARS[self.kind]

    def c_text(self):
        if self.kind == "s":
            return f"const char *{self.name}"
        const = "" if self.out else "const "
        if self.array:
            dims = {"samples": "count"}.get(self.count, self.count or self.rows)
            size = f"{dims} x {self.cols}" if self.cols else str(dims)
            return f"{const}float {self.name}[{size}]"
        if self.out or self.by_pointer:
            return f"{const}{_C_TYPES[self.kind]} *{self.name}"
        return f"{_C_TYPES[self.kind]} {self.name}"

    def shape(self, arm):
        """The numpy shape this parameter has on this connection."""
        rows = getattr(arm, self.count) if self.count else self.rows
        return (rows,) if self.cols is None else (rows, self.cols)


def as_floats(value, shape, name, c_name):
    """value as a C-contiguous float32 array of exactly shape; ValueError otherwise.

    A single entry (shape (7,)) stands for (1, 7) when there is one control point."""
    array = np.asarray(value)
    if array.dtype.kind not in "biuf":
        raise ValueError(f"{c_name}: {name} must hold real numbers, not {array.dtype}")
    if array.shape != shape and not (
        len(shape) == 2 and shape[0] == 1 and array.shape == shape[1:]
    ):
        raise ValueError(f"{c_name}: {name} must have shape {shape}, not {array.shape}")
    return np.ascontiguousarray(array, dtype=np.float32).reshape(shape)


def declare(c_name, params):
    function = getattr(lib, c_name)
    function.argtypes = [ctypes.c_void_p] + [p.ctype() for p in params]
    function.restype = ctypes.c_int32
    return function


def make_method(c_name, signature, summary):
    """An Arm method for one row: checks the arguments, calls C, returns the outputs."""
    params = [Param(t) for t in signature.split()]
    function = declare(c_name, params)
    inputs = [p for p in params if not p.out]
    outputs = [p for p in params if p.out]
    texture = c_name == "kaloSetTexture"
    steps = [_output_step(p) if p.out else _input_step(p, c_name, texture) for p in params]
    single = len(outputs) == 1

    def method(self, *args):
        if len(args) != len(inputs):
            names = ", ".join(p.name for p in inputs)
            raise TypeError(f"{name}({names}) takes {len(inputs)} arguments, {len(args)} given")
        given = iter(args)
        c_args, finish = [], []
        for out, step in steps:
            if out:
                c_arg, result = step(self)
                finish.append(result)
            else:
                c_arg = step(self, next(given))
            c_args.append(c_arg)
        self._call(function, c_name, *c_args)
        if single:
            return finish[0]()
        return tuple(result() for result in finish) if finish else None

    name = python_name(c_name)
    method.__name__ = method.__qualname__ = name
    c_params = ", ".join(["KaloContext *context"] + [p.c_text() for p in params])
    returns = f"\n\nReturns {', '.join(p.name for p in outputs)}." if outputs else ""
    method.__doc__ = f"{summary}{returns}\n\nC: {c_name}({c_params})"
    positional = inspect.Parameter.POSITIONAL_ONLY
    method.__signature__ = inspect.Signature(
        [inspect.Parameter(n, positional) for n in ["self"] + [p.name for p in inputs]]
    )
    return name, method


def _floats(count, cache={}):  # noqa: B006 (one ctypes array type per size)
    kind = cache.get(count)
    if kind is None:
        kind = cache[count] = ctypes.c_float * count
    return kind


def _output_step(p):
    """Makes the buffer an output parameter is written into, and the value it returns."""
    if not p.array:
        scalar = _SCALARS[p.kind]

        def scalar_step(arm):
            box = scalar()
            return ctypes.byref(box), lambda: box.value

        return True, scalar_step

    def step(arm):
        shape = p.shape(arm)
        size = shape[0] * (shape[1] if len(shape) > 1 else 1)
        buffer = _floats(p.room or size)()
        values = np.frombuffer(buffer, np.float32)
        return buffer, lambda: (values[:size].copy() if p.room else values).reshape(shape)

    return True, step


def _input_step(p, c_name, texture):
    """Checks an input parameter and turns it into what the C call takes."""
    if p.kind == "s":
        return False, lambda arm, value: str(value).encode()
    if p.by_pointer:
        return False, lambda arm, value: ctypes.byref(ctypes.c_float(_number(value, p.name, c_name)))
    if not p.array:
        return False, lambda arm, value: _number(value, p.name, c_name, p.kind)
    room = p.room or (TEXTURE_ROOM * (p.cols or 1) if texture else None)

    def step(arm, value):
        shape = p.shape(arm)
        if type(value) is np.ndarray and value.shape == shape and value.dtype.kind == "f":
            flat = value.ravel().tolist()
        else:
            flat = as_floats(value, shape, p.name, c_name).ravel().tolist()
        # a ctypes array fills what it is not given with zeros: the padding to room
        return _floats(room or len(flat))(*flat)

    return False, step


def _number(value, name, c_name, kind="f"):
    """value as the Python number ctypes takes for this kind; ValueError otherwise."""
    if kind == "f" and isinstance(value, numbers.Real):
        return float(value)
    if kind != "f" and isinstance(value, numbers.Integral):
        return int(value)
    wanted = "a number" if kind == "f" else "an integer"
    raise ValueError(f"{c_name}: {name} must be {wanted}, not {type(value).__name__}")


def methods():
    """name -> function for every row of the table."""
    return dict(make_method(*row) for row in CALLS)
