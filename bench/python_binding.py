#!/usr/bin/env python3
"""What the Python binding costs, against C in the same run (run by hand):

  1. set_force and get_position (into the caller's array, and into a new one)
     through kalo.Arm, through ctypes' raw function pointers (the binding's
     floor), and from C (bench_call_cost); the goal is kalo.Arm within 2x of
     bare ctypes;
  2. the late calls of a 1 kHz periodic function doing a coupling step, in
     Python (examples/python/coupling.py) and in C (examples/coupling.c).

    /usr/bin/python3 bench/python_binding.py [--build build] [--calls 20000] [--rounds 15] [--seconds 5]

Needs a build with the benchmarks (cmake -DKALO_BUILD_BENCH=ON; target
bench_call_cost) and the examples. Everything runs against kalo-sim on loopback.
"""

import argparse
import os
import re
import statistics
import subprocess
import sys
import time

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))


def per_call_us(function, calls):
    start = time.perf_counter()
    for _ in range(calls):
        function()
    return (time.perf_counter() - start) / calls * 1e6


def call_costs(kalo, np, build, calls, rounds):
    """Each time is the median over the rounds of a mean over calls, each
    ratio the median of the rounds' own ratios: the binding, bare ctypes and C
    take turns in every round, so that a busy moment of the machine weighs on
    all three."""
    times = {}
    c_program = os.path.join(build, "bench", "bench_call_cost")
    with kalo.sim.Simulator() as sim:
        with kalo.Arm(sim.url) as arm:
            arm.set_command_type(kalo.CommandType.FORCE)
            force = np.array([[0, 0, 0.5, 0, 0, 0]], np.float32)
            position = np.zeros((1, 7), np.float32)
            lib, handle = kalo._library.lib, arm._handle
            force_p, position_p = force.ctypes.data, position.ctypes.data
            set_force, get_position = arm.set_force, arm.get_position
            cases = [  # name, through kalo.Arm, through bare ctypes, C's line
                ("set_force", lambda: set_force(force), lambda: lib.kaloSetForce(handle, force_p),
                 "SetForce"),
                ("get_position(out=)", lambda: get_position(out=position),
                 lambda: lib.kaloGetPosition(handle, position_p), "GetPosition"),
                ("get_position()", get_position, lambda: lib.kaloGetPosition(handle, position_p),
                 "GetPosition"),
            ]
            for _ in range(rounds):
                for name, binding, raw, _c in cases:
                    times.setdefault((name, "Arm"), []).append(per_call_us(binding, calls))
                    times.setdefault((name, "ctypes"), []).append(per_call_us(raw, calls))
                out = subprocess.run([c_program, sim.url, str(calls)], capture_output=True,
                                     text=True, check=True).stdout
                for match in re.finditer(r"kalo(\w+) ([\d.]+) us", out):
                    times.setdefault((match.group(1), "C"), []).append(float(match.group(2)))
    print(f"{'call':<20}{'kalo.Arm':>10}{'ctypes':>10}{'C':>10}{'Arm/ctypes':>12}{'Arm/C':>8}")
    for name, _binding, _raw, c_name in cases:
        arm, raw, c = (times[key] for key in ((name, "Arm"), (name, "ctypes"), (c_name, "C")))
        to_raw = statistics.median(a / r for a, r in zip(arm, raw))
        to_c = statistics.median(a / r for a, r in zip(arm, c))
        goal = "" if name == "get_position()" else f"  (goal 2x: {'met' if to_raw <= 2 else 'MISSED'})"
        print(f"{name:<20}{statistics.median(arm):>7.3f} us{statistics.median(raw):>7.3f} us"
              f"{statistics.median(c):>7.3f} us{to_raw:>11.2f}x{to_c:>7.1f}x{goal}")


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("--build", default=os.path.join(ROOT, "build"))
    parser.add_argument("--calls", type=int, default=20000)
    parser.add_argument("--rounds", type=int, default=15)
    parser.add_argument("--seconds", type=float, default=5.0, help="0: the call costs alone")
    options = parser.parse_args()
    os.environ.setdefault("KALO_LIBRARY", os.path.join(options.build, "libkalo.so.4"))
    os.environ.setdefault("KALO_SIM", os.path.join(options.build, "sim", "kalo-sim"))
    sys.path.insert(0, os.path.join(ROOT, "python"))
    os.environ["PYTHONPATH"] = os.path.join(ROOT, "python")
    import numpy as np

    import kalo

    print(f"== cost per call: median of {options.rounds} rounds of {options.calls} calls each")
    call_costs(kalo, np, options.build, options.calls, options.rounds)
    if options.seconds <= 0:  # the call costs alone
        return
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
