"""Turns the rows of _calls.CALLS into ctypes declarations and Arm methods.

Each method is written once, at import, for exactly its row: its source names
its parameters, checks each with the test its kind needs and calls the ctypes
function directly, so that a call walks no list of converters and makes no
closure, list or array it does not return. An input that already is a float32
C-contiguous array of the call's shape goes to C as it is (its address is kept
for the next call with the same array), and array readers take `out=` to fill
a caller's array instead of making one.
"""

import ctypes
import re
from typing import Any, Callable, Dict, List, Optional, Tuple

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

F32 = np.dtype(np.float32)
FLOAT32_MAX = float(np.finfo(np.float32).max)
_SCALARS = {"u": ctypes.c_uint32, "i": ctypes.c_int32, "f": ctypes.c_float}
_BOXES = {"u": "c_uint32", "i": "c_int32", "f": "c_float"}  # names in a method's namespace
_RANGES = {"u": (0, 2**32 - 1), "i": (-(2**31), 2**31 - 1)}
_C_TYPES = {"u": "uint32_t", "i": "int32_t", "f": "float", "s": "const char *"}
_PARAM = re.compile(r"^(>?)(\w+):([uifs])(\*|\[(\w+)(?:,(\d+))?\])?$")


def python_name(c_name: str) -> str:
    """kaloVmStartTrajSampling -> vm_start_traj_sampling, kaloAttachVO -> attach_vo."""
    name = c_name[4:] if c_name.startswith("kalo") else c_name
    name = re.sub(r"([A-Z]+)([A-Z][a-z])", r"\1_\2", name)
    name = re.sub(r"([a-z0-9])([A-Z])", r"\1_\2", name)
    return name.lower()


class Param:
    """One parameter of a row: name, direction, scalar kind and array shape."""

    def __init__(self, text: str) -> None:
        match = _PARAM.match(text)
        if match is None:
            raise ValueError(f"bad parameter {text!r}")
        out, self.name, self.kind, suffix, rows, cols = match.groups()
        self.rows: Any
        self.out = out == ">"
        self.by_pointer = suffix == "*"
        self.array = suffix is not None and suffix.startswith("[")
        # rows is a number, or P (points), A (axes) or S (samples); cols a number or None
        self.rows = int(rows) if rows and rows.isdigit() else rows
        self.cols = int(cols) if cols else None
        self.count = {"P": "points", "A": "axes", "S": "samples"}.get(str(self.rows))  # Arm attribute
        # floats the C side may touch whatever the counts; None: exactly the shape
        room_rows = {"A": AXIS_ROOM, "S": SAMPLE_ROOM}.get(str(self.rows))
        self.room = room_rows * (self.cols or 1) if room_rows else None

    def ctype(self) -> Any:
        if self.kind == "s":
            return ctypes.c_char_p
        if self.array:
            return ctypes.c_void_p
        if self.out or self.by_pointer:
            return ctypes.POINTER(_SCALARS[self.kind])
        return _SCALARS[self.kind]

    def c_text(self) -> str:
        if self.kind == "s":
            return f"const char *{self.name}"
        const = "" if self.out else "const "
        if self.array:
            dims = "count" if self.count == "samples" else self.count or self.rows
            size = f"{dims} x {self.cols}" if self.cols else str(dims)
            return f"{const}float {self.name}[{size}]"
        if self.out or self.by_pointer:
            return f"{const}{_C_TYPES[self.kind]} *{self.name}"
        return f"{_C_TYPES[self.kind]} {self.name}"

    def shape_source(self) -> str:
        """The Python expression of this parameter's numpy shape, inside a method."""
        if self.count == "points":  # made by Arm whenever its count changes
            return f"self._shape_p{self.cols or ''}"
        rows = f"self.{self.count}" if self.count else str(self.rows)
        return f"({rows},)" if self.cols is None else f"({rows}, {self.cols})"

    def shape(self, arm: Any) -> Tuple[int, ...]:
        """The numpy shape this parameter has on this connection."""
        rows = getattr(arm, self.count) if self.count else self.rows
        return (rows,) if self.cols is None else (rows, self.cols)


def as_floats(value: Any, shape: Tuple[int, ...], name: str, c_name: str) -> np.ndarray:
    """value as a C-contiguous float32 array of exactly shape; ValueError otherwise.

    A single entry (shape (7,)) stands for (1, 7) when there is one control
    point. A finite number beyond float32's range is refused rather than sent
    as an infinity."""
    array = np.asarray(value)
    if array.dtype.kind not in "biuf":
        raise ValueError(f"{c_name}: {name} must hold real numbers, not {array.dtype}")
    if array.shape != shape and not (
        len(shape) == 2 and shape[0] == 1 and array.shape == shape[1:]
    ):
        raise ValueError(f"{c_name}: {name} must have shape {shape}, not {array.shape}")
    with np.errstate(over="ignore"):
        floats = np.ascontiguousarray(array, dtype=np.float32).reshape(shape)
    if array.dtype.kind == "f" and array.dtype.itemsize > 4:
        if not np.array_equal(np.isinf(floats), np.isinf(array.reshape(shape))):
            raise ValueError(f"{c_name}: {name} holds a number beyond float32's range")
    return floats


def _floats(count: int, cache: Dict[int, Any] = {}) -> Any:  # noqa: B006 (one ctypes array type per size)
    kind = cache.get(count)
    if kind is None:
        kind = cache[count] = ctypes.c_float * count
    return kind


def _integer(value: Any, kind: str, name: str, c_name: str) -> int:
    """value as an int within its C type's range; ValueError otherwise (no wrapping)."""
    if isinstance(value, (float, complex, str, bytes)) or not hasattr(value, "__index__"):
        raise ValueError(f"{c_name}: {name} must be an integer, not {type(value).__name__}")
    number = value.__index__()
    low, high = _RANGES[kind]
    if not low <= number <= high:
        c_type = _C_TYPES[kind]
        raise ValueError(f"{c_name}: {name} = {number} is outside {c_type}'s range {low}..{high}")
    return number


def _real(value: Any, name: str, c_name: str) -> float:
    """value as a float; ValueError for what is not a real number or beyond float32's range."""
    if isinstance(value, (complex, str, bytes)) or not hasattr(value, "__float__"):
        raise ValueError(f"{c_name}: {name} must be a number, not {type(value).__name__}")
    try:
        number = float(value)
    except OverflowError:  # an int too large for a double is beyond float32's range too
        number = FLOAT32_MAX * 2
    if FLOAT32_MAX < abs(number) < float("inf"):
        raise ValueError(f"{c_name}: {name} = {value!r} is beyond float32's range")
    return number


def _text(value: Any, name: str, c_name: str) -> bytes:
    """A str (or bytes) as the NUL-terminated bytes C takes; ValueError for a NUL inside."""
    data = value if isinstance(value, bytes) else str(value).encode()
    if b"\0" in data:
        raise ValueError(f"{c_name}: {name} holds a NUL character")
    return data


def _array_in(value: Any, shape: Tuple[int, ...], name: str, c_name: str, room: Optional[int], slot: List[Any]) -> Any:
    """What C takes for an input array the fast test did not pass: the caller's
    own array when it fits as it is (kept in slot with its address), else a
    float32 copy padded to the room C may read."""
    if room is None and type(value) is np.ndarray and value.dtype == F32 and value.shape == shape:
        if value.flags.c_contiguous:
            address = _address_of(value)
            slot[0] = (value, address)
            return address
    floats = as_floats(value, shape, name, c_name).ravel()
    buffer = _floats(room or floats.size)()
    np.frombuffer(buffer, np.float32)[: floats.size] = floats
    return buffer


def _check_out(out: Any, shape: Tuple[int, ...], name: str, c_name: str) -> None:
    """ValueError unless out is a writable float32 C-contiguous array of the call's shape."""
    if not isinstance(out, np.ndarray) or out.dtype != F32 or out.shape != shape:
        got = f"{out.dtype} {out.shape}" if isinstance(out, np.ndarray) else type(out).__name__
        raise ValueError(f"{c_name}: out= must be a float32 array of shape {shape} for {name}, not {got}")
    if not (out.flags.c_contiguous and out.flags.writeable):
        raise ValueError(f"{c_name}: out= must be writable and C-contiguous for {name}")


def _address_of(array: np.ndarray) -> int:
    """The address of a C-contiguous float32 array's first element: through a
    ctypes view for a writable one (half the cost of .ctypes.data)."""
    try:
        return ctypes.addressof(_floats(array.size).from_buffer(array))
    except TypeError:  # read-only
        address: int = array.ctypes.data
        return address


def _array_out(out: Any, shape: Tuple[int, ...], name: str, c_name: str, slot: List[Any]) -> int:
    """The address of a caller's array to write into, kept in slot with it."""
    _check_out(out, shape, name, c_name)
    address = _address_of(out)
    slot[0] = (out, address)
    return address


def declare(c_name: str, params: List[Param]) -> Any:
    function = getattr(lib, c_name)
    function.argtypes = [ctypes.c_void_p] + [p.ctype() for p in params]
    function.restype = ctypes.c_int32
    return function


def method_source(c_name: str, params: List[Param]) -> str:
    """The Python source of the Arm method for one row (see the module's docstring)."""
    inputs = [p for p in params if not p.out]
    array_outs = [p for p in params if p.out and p.array]
    if len(array_outs) > 1:
        raise ValueError(f"{c_name}: one array output at most (out= fills it)")
    head = ["self"] + [p.name for p in inputs] + (["/"] if inputs else [])
    if len(array_outs) == 1:
        head += ["*", "out=None"]
    lines = [f"def {python_name(c_name)}({', '.join(head)}):"]
    arguments, results = [], []
    for index, p in enumerate(params):
        v, shape = p.name, p.shape_source()
        if p.out and not p.array:  # a scalar written back
            lines.append(f"    {v} = {_BOXES[p.kind]}()")
            arguments.append(f"byref({v})")
            results.append(f"{v}.value")
        elif p.out and p.room:  # the room C may write, then the caller's part of it
            lines += [f"    {v} = _floats({p.room})()", f"    shape_{v} = {shape}",
                      "    if out is not None:", f"        _check_out(out, shape_{v}, {v!r}, C_NAME)"]
            arguments.append(v)
            results.append(f"_room_result({v}, shape_{v}, out, {v!r}, C_NAME)")
        elif p.out:
            size = f"self.{p.count} * {p.cols or 1}" if p.count else str(p.rows * (p.cols or 1))
            lines += [  # a new array: over a ctypes buffer, cheaper to make than its address to take
                "    if out is None:",
                f"        _address = _floats({size})()",
                f"        out = frombuffer(_address, F32).reshape({shape})",
                "    else:",
                f"        _last = slot_{index}[0]",
                # The array seen before was writable and C-contiguous then; numpy
                # cannot move or shrink its memory while slot holds it, so its
                # shape and element type are all that can have changed.
                f"        if out is _last[0] and out.shape == {shape} and out.dtype is F32:",
                "            _address = _last[1]",
                "        else:",
                f"            _address = _array_out(out, {shape}, {v!r}, C_NAME, slot_{index})",
            ]
            arguments.append("_address")
            results.append("out")
        elif p.kind == "s":
            lines.append(f"    {v} = _text({v}, {v!r}, C_NAME)")
            arguments.append(v)
        elif p.kind in "ui":
            low, high = _RANGES[p.kind]
            lines += [f"    if TYPE({v}) is not INT or not {low} <= {v} <= {high}:",
                      f"        {v} = _integer({v}, {p.kind!r}, {v!r}, C_NAME)"]
            arguments.append(v)
        elif not p.array:
            lines += [f"    if TYPE({v}) is not FLOAT or not -FLOAT32_MAX <= {v} <= FLOAT32_MAX:",
                      f"        {v} = _real({v}, {v!r}, C_NAME)"]
            arguments.append(f"byref(c_float({v}))" if p.by_pointer else v)
        else:
            room = p.room or (TEXTURE_ROOM * (p.cols or 1) if c_name == "kaloSetTexture" else None)
            if room is None:  # exactly the shape: the caller's array may go as it is
                lines += [f"    _last = slot_{index}[0]",
                          f"    if {v} is _last[0] and {v}.shape == {shape} and {v}.dtype is F32:",
                          f"        {v} = _last[1]",
                          "    else:",
                          f"        {v} = _array_in({v}, {shape}, {v!r}, C_NAME, None, slot_{index})"]
            else:
                lines.append(f"    {v} = _array_in({v}, {shape}, {v!r}, C_NAME, {room}, slot_{index})")
            arguments.append(v)
    lines += [
        "    _handle = self._ready",
        "    if _handle is None:",
        "        _handle = self._live(C_NAME)",
        f"    _status = FUNCTION({', '.join(['_handle'] + arguments)})",
        "    if _status:",
        "        self._fail(_status, C_NAME, _handle)",
    ]
    if results:
        lines.append(f"    return {', '.join(results)}")
    return "\n".join(lines) + "\n"


def _room_result(buffer: Any, shape: Tuple[int, ...], out: Any, name: str, c_name: str) -> np.ndarray:
    """The caller's part of a room buffer C wrote: a new array, or copied into out."""
    size = shape[0] * (shape[1] if len(shape) > 1 else 1)
    values = np.frombuffer(buffer, np.float32)[:size].reshape(shape)
    if out is None:
        return values.copy()
    out[...] = values  # out was checked before the call
    return out


def make_method(c_name: str, signature: str, summary: str) -> Tuple[str, Callable[..., Any]]:
    """An Arm method for one row: checks the arguments, calls C, returns the outputs."""
    params = [Param(t) for t in signature.split()]
    namespace: Dict[str, Any] = dict(
        C_NAME=c_name, FUNCTION=declare(c_name, params), TYPE=type, INT=int, FLOAT=float, F32=F32, FLOAT32_MAX=FLOAT32_MAX,
        byref=ctypes.byref, c_float=ctypes.c_float, c_int32=ctypes.c_int32, c_uint32=ctypes.c_uint32,
        frombuffer=np.frombuffer, _floats=_floats, _integer=_integer, _real=_real, _text=_text,
        _array_in=_array_in, _array_out=_array_out, _check_out=_check_out, _room_result=_room_result)
    for index, p in enumerate(params):
        if p.array:  # the last array this parameter saw, with its address
            namespace[f"slot_{index}"] = [(None, 0)]
    exec(compile(method_source(c_name, params), f"<kalo {c_name}>", "exec"), namespace)
    name = python_name(c_name)
    method = namespace[name]
    method.__qualname__ = f"Arm.{name}"
    c_params = ", ".join(["KaloContext *context"] + [p.c_text() for p in params])
    outputs = [p.name for p in params if p.out]
    returns = f"\n\nReturns {', '.join(outputs)}." if outputs else ""
    if any(p.out and p.array for p in params):
        returns += " out= takes a float32 array of that shape to fill instead of a new one."
    method.__doc__ = f"{summary}{returns}\n\nC: {c_name}({c_params})"
    method.kalo_call = c_name  # the stubs are written for the methods that carry this
    return name, method


def methods() -> Dict[str, Callable[..., Any]]:
    """name -> function for every row of the table."""
    return dict(make_method(*row) for row in CALLS)
