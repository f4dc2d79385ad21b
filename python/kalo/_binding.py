"""Turns the rows of _calls.CALLS into ctypes declarations and Arm methods."""

import ctypes
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

    def ctype(self):
        if self.kind == "s":
            return ctypes.c_char_p
        if self.array or self.out or self.by_pointer:
            return ctypes.c_void_p
        return _SCALARS[self.kind]

    def c_text(self):
        if self.kind == "s":
            return f"const char *{self.name}"
        const = "" if self.out else "const "
        if self.array:
            dims = {"P": "points", "A": "axes", "S": "count"}.get(self.rows, self.rows)
            size = f"{dims} x {self.cols}" if self.cols else str(dims)
            return f"{const}float {self.name}[{size}]"
        if self.out or self.by_pointer:
            return f"{const}{_C_TYPES[self.kind]} *{self.name}"
        return f"{_C_TYPES[self.kind]} {self.name}"

    def shape(self, arm):
        """The numpy shape this parameter has on this connection."""
        rows = {"P": arm.points, "A": arm.axes, "S": arm.samples}.get(self.rows, self.rows)
        return (rows,) if self.cols is None else (rows, self.cols)

    def room(self):
        """Floats the C side may touch whatever the counts: its fixed room."""
        rows = {"A": AXIS_ROOM, "S": SAMPLE_ROOM}.get(self.rows)
        return None if rows is None else rows * (self.cols or 1)


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

    def method(self, *args):
        if len(args) != len(inputs):
            names = ", ".join(p.name for p in inputs)
            raise TypeError(f"{name}({names}) takes {len(inputs)} arguments, {len(args)} given")
        given = iter(args)
        c_args, keep, results = [], [], []
        for p in params:
            if p.out:
                if p.array:
                    shape = p.shape(self)
                    buffer = np.zeros(p.room() or shape, dtype=np.float32)
                    results.append(buffer[: int(np.prod(shape))].reshape(shape))
                    c_args.append(buffer.ctypes.data)
                else:
                    buffer = _SCALARS[p.kind]()
                    results.append(buffer)
                    c_args.append(ctypes.addressof(buffer))
                continue
            value = next(given)
            if p.kind == "s":
                c_args.append(str(value).encode())
            elif p.array:
                array = as_floats(value, p.shape(self), p.name, c_name)
                room = p.room() or (TEXTURE_ROOM * (p.cols or 1) if texture else None)
                if room:
                    array = _padded(array, room)
                keep.append(array)
                c_args.append(array.ctypes.data)
            elif p.by_pointer:
                box = ctypes.c_float(_number(value, p.name, c_name))
                keep.append(box)
                c_args.append(ctypes.addressof(box))
            else:
                c_args.append(_number(value, p.name, c_name))
        self._call(function, c_name, *c_args)
        values = [r if isinstance(r, np.ndarray) else r.value for r in results]
        return values[0] if len(values) == 1 else (tuple(values) if values else None)

    name = python_name(c_name)
    method.__name__ = method.__qualname__ = name
    c_params = ", ".join(["KaloContext *context"] + [p.c_text() for p in params])
    returns = ", ".join(p.name for p in outputs) or "None"
    method.__doc__ = f"{summary}\n\nReturns {returns}.\n\nC: {c_name}({c_params})"
    method.__text_signature__ = "($self, " + ", ".join(p.name for p in inputs) + ")"
    return name, method


def _padded(array, floats):
    out = np.zeros(floats, dtype=np.float32)
    out[: array.size] = array.ravel()
    return out


def _number(value, name, c_name):
    if not isinstance(value, numbers.Real):
        raise ValueError(f"{c_name}: {name} must be a number, not {type(value).__name__}")
    return value


def methods():
    """name -> function for every row of the table."""
    return dict(make_method(*row) for row in CALLS)
