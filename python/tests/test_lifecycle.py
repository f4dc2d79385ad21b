"""How connections end: a loop running at the end of a script, close() while the
loop function calls the arm, and what a failure's message says."""

import subprocess
import sys
import textwrap
import threading

import pytest

import kalo
from kalo import errors


def test_close_while_the_loop_function_calls_the_arm_raises_nothing(sim):
    # close() and leaving a with block stop the loop before the handle is
    # marked closed, so the function never meets a closed connection.
    for leave in ("close", "with"):
        with kalo.Arm(sim.url) as arm:
            calls = collect(arm, lambda a: a.get_position(), 3)
            if leave == "close":
                arm.close()
        assert arm.closed and len(calls) >= 3


def collect(arm, function, count):
    """Starts a loop keeping what function returns; returns the list once it holds count."""
    results, enough = [], threading.Event()

    def tick(a):
        results.append(function(a))
        if len(results) >= count:
            enough.set()

    arm.start_loop(tick)
    assert enough.wait(30), "the loop did not run"
    return results


def test_loop_timing_follows_the_controller_clock(arm):
    if kalo.arm._get_loop_timing is None:  # a library without the extension
        with pytest.raises(kalo.KaloError) as caught:
            arm.loop_timing()
        assert caught.value.code == kalo.ErrorCode.NOT_IMPLEMENTED
        return
    timings = collect(arm, lambda a: a.loop_timing(), 50)
    arm.stop_loop()
    assert [t.calls for t in timings] == list(range(timings[0].calls, timings[0].calls + len(timings)))
    for before, after in zip(timings, timings[1:]):
        stamps = ((after.stamp - before.stamp) % 2**32) * 1e-6
        assert after.controller_elapsed == pytest.approx(stamps, abs=2e-6), (before, after)
        assert after.frames >= 1 and after.late_calls >= before.late_calls


@pytest.mark.parametrize("ending", ["", "raise SystemExit(3)"])
def test_a_script_ending_with_its_loop_running_exits(sim, ending):
    script = textwrap.dedent(f"""
        import threading, kalo
        arm = kalo.Arm({sim.url!r})
        started = threading.Event()
        arm.start_loop(lambda a: (a.get_position(), started.set()), 0.001)
        started.wait(10)
        {ending}
    """)
    # A hang at interpreter exit is the fault; the timeout only turns it into a failure.
    run = subprocess.run([sys.executable, "-c", script], capture_output=True, text=True, timeout=60)
    assert run.returncode == (3 if "3" in ending else 0), run.stderr
    assert "Traceback" not in run.stderr, run.stderr


def test_failure_messages_carry_the_library_detail(monkeypatch):
    library_says = errors._last_detail is not None
    if library_says:  # the library's own detail for a URL it cannot parse
        with pytest.raises(kalo.KaloError) as caught:
            kalo.Arm("udpxdr://")
        assert caught.value.detail and str(caught.value).endswith(": " + caught.value.detail)
    monkeypatch.setattr(errors, "_last_detail", lambda: b"unknown host nowhere.invalid")
    with pytest.raises(kalo.CommunicationError) as caught:
        kalo.Arm("udpxdr://nowhere.invalid#5000")
    assert str(caught.value).endswith("(code 2): unknown host nowhere.invalid")
    monkeypatch.setattr(errors, "_last_detail", lambda: b"")
    assert str(errors.failure(2, "kaloOpen")).endswith("(code 2)")
