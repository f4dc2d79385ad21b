#!/usr/bin/env python3
"""Couples a virtual object to the arm, from Python. The application simulates a
small mass in a viscous medium with a stiff virtual wall at x = WALL_X; the
library couples it to the arm's handle through its 6D spring and damper
(command type 4). Every millisecond the periodic function asks the library for
the coupling force, moves the object with it over the time that really passed
(the controller's, from arm.loop_timing()), and sends the object's pose and
speed back. Move the handle (kalo-sim's scripted hand does) and the object
follows; push it into the wall and the arm feels the wall.

The object is attached where the handle is and at the handle's speed, and the
first periodic call seats it there again, so that the coupling starts with no
stretch of its spring and damper: nothing kicks the hand. The arrays the loop
uses are made once and filled in place (out=), which keeps the step cheap.

    python3 coupling.py [URL [SECONDS]]   (default udpxdr://127.0.0.1#5000 for 5 s)

A status line shows the time, the handle's and the object's x, y, z, the
coupling force, and how many periodic calls came late (more than 1.5 periods
after the previous one, as the library measures them): Python is not
real-time, compare with the C example.
"""

import math
import signal
import sys
import threading
import time
from typing import Optional

import numpy as np

import kalo

PERIOD = 0.001
OBJECT_MASS = 0.2
MEDIUM_DAMPING = 0.5  # N s/m: the object slows down when let go
WALL_X = 0.03  # m
WALL_STIFFNESS = 2000.0  # N/m
MAX_STEPS = 5  # longest step integrated at once, in periods


class Scene:
    """The virtual object and what the status line shows. tick runs on the
    library's loop thread; the main thread reads under the lock."""

    def __init__(self, points: int) -> None:
        self.lock = threading.Lock()
        self.object = np.zeros((points, 7), np.float32)  # x y z, quaternion x y z w
        self.speed = np.zeros((points, 6), np.float32)
        self.handle = np.zeros((points, 7), np.float32)
        self.force = np.zeros((points, 6), np.float32)
        self.calls = self.late = self.failures = 0
        self.seated = False
        self.last_error: Optional[kalo.KaloError] = None

    def seat(self, arm: kalo.Arm) -> None:
        """Places the object on the handle, at the handle's speed."""
        arm.get_position(out=self.object)
        arm.get_speed(out=self.speed)
        arm.set_position(self.object)
        arm.set_speed(self.speed)

    def step_object(self, dt: float) -> None:
        """dt seconds of the object's dynamics: the coupling wrench, the medium
        and the wall act on a point mass (the orientation is left as it is)."""
        f = self.force[0, :3].astype(np.float64) - MEDIUM_DAMPING * self.speed[0, :3]
        if self.object[0, 0] > WALL_X:
            f[0] -= WALL_STIFFNESS * (self.object[0, 0] - WALL_X)
        self.speed[0, :3] += f / OBJECT_MASS * dt
        self.object[0, :3] += self.speed[0, :3] * dt

    def step_of(self, arm: kalo.Arm) -> float:
        """The time to integrate in this call: the controller's time since the
        previous call (two periods after a lost frame), bounded so that a
        silence of the link does not throw the object; one period at first."""
        timing = arm.loop_timing()
        self.late += timing.late
        if timing.calls <= 1:
            return PERIOD
        return min(timing.controller_elapsed, MAX_STEPS * PERIOD)

    def tick(self, arm: kalo.Arm) -> None:
        with self.lock:
            self.calls += 1
            try:
                dt = self.step_of(arm)
                if not self.seated:  # the handle moved since main attached the object
                    self.seat(arm)
                    self.seated = True
                arm.get_force(out=self.force)
                arm.get_position(out=self.handle)
                self.step_object(dt)
                arm.set_position(self.object)
                arm.set_speed(self.speed)
            except kalo.KaloError as error:
                self.failures += 1
                self.last_error = error


def main() -> int:
    url = sys.argv[1] if len(sys.argv) > 1 else "udpxdr://127.0.0.1#5000"
    seconds = float(sys.argv[2]) if len(sys.argv) > 2 else 5.0
    if not seconds > 0:
        print("usage: coupling.py [URL [SECONDS]]", file=sys.stderr)
        return 2
    # Ctrl-C ends the run early, and as cleanly as its end: loop stopped, object
    # detached, connection closed, summary printed.
    interrupted = threading.Event()
    signal.signal(signal.SIGINT, lambda number, frame: interrupted.set())
    # A small sphere's inertia: 2/5 m r^2 with r = 2 cm; only the diagonal counts.
    inertia = np.eye(3, dtype=np.float32) * (0.4 * OBJECT_MASS * 0.02**2)
    print(f"opening {url}")
    try:
        with kalo.Arm(url) as arm:
            arm.set_time_step(PERIOD)  # the coupling gains follow from it: set it before attaching
            arm.set_command_type(kalo.CommandType.COUPLING)
            scene = Scene(arm.points)
            arm.get_position(out=scene.object)  # the object starts where the handle is,
            arm.get_speed(out=scene.speed)  # moving with it
            arm.attach_vo(inertia.ravel(), OBJECT_MASS)
            # The first set-point completes the attach and switches the power on;
            # the first force query sends the coupling gains once the arm is on
            # the object (a few round trips, while the handle goes on moving).
            # Then the object is seated on the handle again.
            arm.set_position(scene.object)
            arm.set_speed(scene.speed)
            arm.get_force()
            scene.seat(arm)
            arm.get_force()
            arm.start_loop(scene.tick, PERIOD)
            print(f"object of {OBJECT_MASS:.2f} kg coupled to the arm, wall at x = {WALL_X:.3f} m;"
                  f" running {seconds:.1f} s")
            start = time.monotonic()
            while (elapsed := time.monotonic() - start) < seconds and not interrupted.wait(0.1):
                with scene.lock:
                    h, o, f = scene.handle[0], scene.object[0], scene.force[0]
                    print(f"\rt={elapsed:5.2f} s  handle x={h[0]:+.3f} y={h[1]:+.3f} z={h[2]:+.3f}"
                          f"  object x={o[0]:+.3f} y={o[1]:+.3f} z={o[2]:+.3f}"
                          f"  force={f[0]:+7.2f} {f[1]:+7.2f} {f[2]:+7.2f} N  late={scene.late} ",
                          end="", flush=True)
            print("\ninterrupted: stopping" if interrupted.is_set() else "")
            arm.stop_loop()
            arm.detach_vo()
    except kalo.KaloError as error:
        print(f"failed: {error}", file=sys.stderr)
        return 1
    failures = scene.failures + sum(not math.isfinite(v) for v in scene.object[0, :3])
    last = f" (last: {scene.last_error})" if scene.last_error else ""
    print(f"{scene.calls} periodic calls, {scene.late} late, {scene.failures} failed{last}")
    return 0 if scene.calls > 0 and failures == 0 else 1


if __name__ == "__main__":
    sys.exit(main())
