"""A kalo-sim per test module and one connection to it, shared by the module's tests;
the frames a client sent, from a simulator's trace."""

import pathlib
from typing import Any, Dict, List

import pytest

import kalo

ROOT = pathlib.Path(__file__).resolve().parents[2]

# Device state the readout tests expect back from the arm.
SIM_STATE: Dict[str, Any] = dict(adc=[0.5, 0.25, 2], inputs=5, analog=[1, 2, 3, 4, 5, 6, 7], buttons=0x3,
                 failure=0, joints=[0.5, 1, 1.5, 2, 2.5, 3], axes=6)


@pytest.fixture(scope="module")
def sim():
    with kalo.sim.Simulator(**SIM_STATE) as simulator:
        yield simulator


@pytest.fixture(scope="module")
def arm(sim):
    with kalo.Arm(sim.url) as connection:
        yield connection


def sent_fields(trace):
    """id -> list of value lists, from every frame the client sent (read it once
    the simulator has stopped: it writes the trace in blocks)."""
    fields: Dict[int, List[List[float]]] = {}
    for line in pathlib.Path(trace).read_text().splitlines():
        _stamp, direction, _note, items = (line.split(",", 3) + ["", "", ""])[:4]
        if direction != "in":
            continue
        for item in filter(None, items.split(";")):
            ident, _, values = item.partition("=")
            fields.setdefault(int(ident), []).append([float(v) for v in values.split()])
    return fields

