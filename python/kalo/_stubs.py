"""Writes _device_calls.pyi: the typed signatures of the Arm methods made from
the call table, for editors and type checkers, which cannot see methods made
at import. Run it after changing _calls.CALLS (a test fails until you do):

    /usr/bin/python3 -m kalo._stubs
"""

import os
from typing import List

from ._binding import Param, python_name
from ._calls import CALLS

PATH = os.path.join(os.path.dirname(os.path.abspath(__file__)), "_device_calls.pyi")

HEADER = '''"""Typed signatures of the Arm methods made from the call table (written by
`python3 -m kalo._stubs` from kalo/_calls.py; do not edit)."""

from typing import Optional, Tuple

import numpy as np
from numpy.typing import ArrayLike, NDArray

class DeviceCalls:
    axes: int
    samples: int
'''

_SCALAR_TYPES = {"u": "int", "i": "int", "f": "float", "s": "str"}


def _annotation(param: Param) -> str:
    if param.array:
        return "NDArray[np.float32]" if param.out else "ArrayLike"
    return _SCALAR_TYPES[param.kind]


def stub_line(c_name: str, signature: str, summary: str) -> str:
    """One method's signature: inputs positional, out= for an array it returns."""
    params = [Param(text) for text in signature.split()]
    inputs = [f"{p.name}: {_annotation(p)}" for p in params if not p.out]
    outputs = [p for p in params if p.out]
    head = ["self"] + inputs + (["/"] if inputs else [])
    if any(p.array for p in outputs):
        head += ["*", "out: Optional[NDArray[np.float32]] = None"]
    types = [_annotation(p) for p in outputs]
    result = "None" if not types else types[0] if len(types) == 1 else f"Tuple[{', '.join(types)}]"
    return f"    def {python_name(c_name)}({', '.join(head)}) -> {result}:\n        \"\"\"{summary}\"\"\""


def render(hand_written: List[str]) -> str:
    """The stub file; rows whose method Arm defines itself (typed there) are left out."""
    lines = [stub_line(*row) for row in CALLS if python_name(row[0]) not in hand_written]
    return HEADER + "\n" + "\n".join(lines) + "\n"


def hand_written_names() -> List[str]:
    from .arm import Arm

    return sorted(name for name, value in vars(Arm).items()
                  if callable(value) and not hasattr(value, "kalo_call"))


if __name__ == "__main__":
    with open(PATH, "w", encoding="utf-8") as stub:
        stub.write(render(hand_written_names()))
    print(f"wrote {PATH}")
