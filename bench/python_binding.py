#!/usr/bin/env python3
"""What the Python binding costs, against C in the same run (run by hand):

  1. set_force and get_position through kalo.Arm, through ctypes' raw function
     pointers (the binding's floor), and from C (bench_call_cost);
  2. the late calls of a 1 kHz periodic function doing a coupling step, in
     Python (examples/python/coupling.py) and in C (examples/coupling.c).

    /usr/bin/python3 bench/python_binding.py [--build build] [--calls 100000] [--seconds 5]

Needs a build with the benchmarks (cmake -DKALO_BUILD_BENCH=ON; target
bench_call_cost) and the examples. Everything runs against kalo-sim on loopback.
"""

import argparse
import os
import re
import subprocess
import sys
import time

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))


def per_call_us(function, calls):
    start = time.perf_counter()
    for _ in range(calls):
        function()
    return (time.perf_counter() - start) / calls * 1e6


def call_costs(kalo, np, build, calls):
    rows = {}
    with kalo.sim.Simulator() as sim:
        with kalo.Arm(sim.url) as arm:
            arm.set_command_type(kalo.CommandType.FORCE)
            force = np.array([[0, 0, 0.5, 0, 0, 0]], np.float32)
            position = np.zeros((1, 7), np.float32)
            lib, handle = kalo._library.lib, arm._handle
            force_p, position_p = force.ctypes.data, position.ctypes.data
            rows["set_force"] = (per_call_us(lambda: arm.set_force(force), calls),
                                 per_call_us(lambda: lib.kaloSetForce(handle, force_p), calls))
            rows["get_position"] = (per_call_us(arm.get_position, calls),
                                    per_call_us(lambda: lib.kaloGetPosition(handle, position_p), calls))
        c_program = os.path.join(build, "bench", "bench_call_cost")
        out = subprocess.run([c_program, sim.url, str(calls * 2)], capture_output=True, text=True,
                             check=True).stdout
    c_times = {m.group(1): float(m.group(2)) for m in re.finditer(r"kalo(\w+) ([\d.]+) us", out)}
    print(f"{'call':<14}{'kalo.Arm':>12}{'raw ctypes':>12}{'C':>10}{'Arm / C':>10}")
    for name, (binding, raw) in rows.items():
        c = c_times["SetForce" if name == "set_force" else "GetPosition"]
        print(f"{name:<14}{binding:>9.2f} us{raw:>9.2f} us{c:>7.3f} us{binding / c:>9.0f}x")


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("--build", default=os.path.join(ROOT, "build"))
    parser.add_argument("--calls", type=int, default=100000)
    parser.add_argument("--seconds", type=float, default=5.0)
    options = parser.parse_args()
    os.environ.setdefault("KALO_LIBRARY", os.path.join(options.build, "libkalo.so.4"))
    os.environ.setdefault("KALO_SIM", os.path.join(options.build, "sim", "kalo-sim"))
    sys.path.insert(0, os.path.join(ROOT, "python"))
    os.environ["PYTHONPATH"] = os.path.join(ROOT, "python")
    import numpy as np

    import kalo

    print(f"== cost per call, {options.calls} calls each (mean)")
    call_costs(kalo, np, options.build, options.calls)
    print(f"\n== 1 kHz coupling step for {options.seconds:g} s: calls late by more than half a period")
    seconds = str(options.seconds)
    for name, command in [  # the same step, the same summary line
        ("C", [os.path.join(options.build, "examples", "coupling")]),
        ("Python", [sys.executable, os.path.join(ROOT, "examples", "python", "coupling.py")]),
    ]:
        calls, late = late_calls(command, seconds, kalo)
        print(f"{name:<8}{calls:>7} calls {late:>6} late ({100.0 * late / max(calls, 1):.2f} %)")


def late_calls(command, seconds, kalo):
    with kalo.sim.Simulator(hand="circle") as sim:
        out = subprocess.run(command + [sim.url, seconds], capture_output=True, text=True).stdout
    match = re.search(r"(\d+) periodic calls, (\d+) late", out)
    if match is None:
        raise RuntimeError(f"{command}: no summary in its output:\n{out}")
    return int(match.group(1)), int(match.group(2))


if __name__ == "__main__":
    main()
