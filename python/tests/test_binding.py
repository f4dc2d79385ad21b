"""The binding against kalo-sim: calls reach the wire, arrays keep their shapes,
failures raise the right exceptions, the loops run Python code."""

import ast
import math
import os
import pathlib
import re
import signal
import subprocess
import sys
import time
from typing import Any, Dict, List, Tuple

import numpy as np
import pytest
from conftest import ROOT, SIM_STATE, sent_fields

import kalo
from kalo import _stubs
from kalo.errors import error_for
from kalo.sim import options_to_arguments

POSE = [0.25, 0, 0, 0, 0, 0, 1]
INERTIA = (np.eye(3) * 1e-4).ravel()

# command type, call, arguments, field the client must send, its values (None: just called)
WIRE: List[Tuple[int, str, Tuple[Any, ...], Any, Any]] = [
    (7, "set_force", ([1, 2, 3, 4, 5, 6],), 16, [1, 2, 3, 4, 5, 6]),  # one point: (6,) will do
    (7, "add_force", ([0.5, 0, 0, 0, 0, 1.5],), 80, [0.5, 0, 0, 0, 0, 1.5]),
    (7, "set_articular_position", (np.arange(6) / 2,), 70, [0, 0.5, 1, 1.5, 2, 2.5]),
    (7, "set_articular_force_of_additional_axe", (2.5,), 81, [2.5]),
    (7, "outputs_setting", (5,), 87, [5]),
    (7, "set_pwm_output", (np.arange(7),), 89, list(range(7))),
    (7, "set_finger_tip_speed", ([1, 2, 3, 4, 5],), 92, [1, 2, 3, 4, 5]),
    (7, "set_friction_force", (1, 2, 3), 62, [1, 2, 3]),
    (4, "set_time_step", (0.001,), None, None),
    (4, "attach_vo", (INERTIA, 0.2), None, None),
    (4, "set_position", ([POSE],), 14, POSE),
    (4, "set_speed", (np.zeros((1, 6)),), 15, [0] * 6),
    (4, "get_force", (), None, None),
    (4, "set_texture", ([POSE], [0.5], 1), 17, [0.25, 0, 0, 0.5, 1]),
    (4, "detach_vo", (), None, None),
    (5, "vm_set_type", (1,), 28, [1]),
    (5, "vm_set_base_frame", ([0, 0, 0.5, 0, 0, 0, 1],), 32, [0, 0, 0.5, 0, 0, 0, 1]),
    (5, "vm_set_min_arti_bounds", (np.arange(10),), 33, list(range(10))),
    (5, "vm_save_current_spline", ("ab",), 46, [97, 98] + [0] * 30),
    (5, "vm_start_traj_sampling", (3,), 30, [3]),
    (5, "vm_get_traj_samples", (), None, None),
    (7, "set_simulation_stiffness", ([1, 2, 3, 4, 5, 6],), 2, [1, 2, 3, 4, 5, 6]),
    (7, "set_simulation_damping", ([6, 5, 4, 3, 2, 1],), 3, [6, 5, 4, 3, 2, 1]),
    (7, "set_base_frame", ([0, 0.5, 0, 0, 0, 0, 1],), 9, [0, 0.5, 0, 0, 0, 0, 1]),
    (7, "set_catch_frame", ([POSE],), 10, POSE),
    (7, "set_observation_frame", ([0.125, 0, 0, 0, 0, 0, 1],), 7, [0.125, 0, 0, 0, 0, 0, 1]),
]

# call, arguments, what the arm answers (set by conftest.SIM_STATE or the calls above)
READ: List[Tuple[str, Tuple[Any, ...], Any]] = [  # expected: array-like
    ("get_controler_version", (), kalo.Version(6, 0)),
    ("get_device_id", (), (1, 1)),
    ("get_adc", (1,), 0.5),
    ("get_tor_inputs", (), 5),
    ("get_analogic_inputs", (), np.arange(1, 8)),
    ("get_button", (2,), 1),
    ("get_button", (3,), 0),
    ("get_nb_axes", (), 6),
    ("get_articular_position", (), np.array(SIM_STATE["joints"])),
    ("get_simulation_stiffness", (), [1, 2, 3, 4, 5, 6]),
    ("get_simulation_damping", (), [6, 5, 4, 3, 2, 1]),
    ("get_time_step", (), np.float32(0.001)),
    ("get_observation_frame", (), [0.125, 0, 0, 0, 0, 0, 1]),
    ("convert_rgb_to_grayscale", ([1, 0, 0],), np.float32(0.299)),
    ("convert_depl_to_homogene_matrix", ([1, 2, 3, 0, 0, 0, 1],),
     [1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0, 1, 2, 3, 1]),
]


def test_every_call_reaches_the_wire_and_reads_back(tmp_path):
    trace = tmp_path / "trace.csv"
    returned = {}
    with kalo.sim.Simulator(trace=str(trace), **SIM_STATE) as sim, kalo.Arm(sim.url) as arm:
        for command_type, name, args, _, _ in WIRE:
            if arm.get_command_type() != command_type:
                arm.set_command_type(command_type)
            returned[name] = getattr(arm, name)(*args)
        for name, args, expected in READ:
            np.testing.assert_allclose(getattr(arm, name)(*args), expected, rtol=1e-6, err_msg=name)
        assert isinstance(arm.get_command_type(), kalo.CommandType)
        # A float32 array of the right shape goes to C as it is: what it holds
        # at each call is what is sent, and a reader fills the caller's array.
        force = np.zeros((1, 6), np.float32)
        for value in (7, 8):
            force[0, 0] = value
            arm.set_force(force)
            arm.get_command_type()  # a query's round trip: the set-point has gone out
        joints, pose = np.empty(6, np.float32), np.full((1, 7), np.nan, np.float32)
        assert arm.get_articular_position(out=joints) is joints and arm.get_position(out=pose) is pose
        np.testing.assert_allclose(joints, SIM_STATE["joints"])
        # The handle moves under the force, so a second read need not match:
        # the caller's array holds a whole pose (a unit quaternion).
        assert np.isfinite(pose).all() and np.linalg.norm(pose[0, 3:]) == pytest.approx(1, abs=1e-4)
    assert returned["vm_get_traj_samples"].shape == (3, 7)
    assert returned["get_force"].shape == (1, 6)
    sent = sent_fields(trace)
    for _, name, _, field, values in WIRE:
        if field is not None:
            assert any(np.allclose(v, values) for v in sent.get(field, [])), (name, sent.get(field))
    assert {7.0, 8.0} <= {v[0] for v in sent[16]}, sent[16]


def test_every_header_call_and_constant_has_its_python_name():
    header = (ROOT / "include/kalo/kalo.h").read_text()
    for prefix, enum in [("KALO_ERROR_", kalo.ErrorCode), ("KALO_COMMAND_TYPE_", kalo.CommandType)]:
        defined = {n: int(v) for n, v in re.findall(rf"#define {prefix}(\w+) (\d+)", header)}
        assert defined and {m.name: m.value for m in enum if m.name != "NO_ERROR"} == defined
    no_error = re.search(r"#define KALO_NO_ERROR (\d+)", header)
    assert no_error and kalo.ErrorCode.NO_ERROR == int(no_error[1])
    c_names = re.findall(r"^KALO_API [^(]*?\b(\w+)\(", header, re.M)
    assert len(c_names) > 120
    kept_outside = {"kaloOpen": kalo.Arm, "kaloClose": kalo.Arm.close,
                    "kaloAPIVersion": kalo.api_version, "kaloGetErrorMessage": kalo.error_message,
                    "kaloSetPeriodicFunction": kalo.Arm.start_loop, "kaloStartLoop": kalo.Arm.start_loop,
                    "kaloStopLoop": kalo.Arm.stop_loop}
    for c_name in c_names:
        target = kept_outside.get(c_name) or getattr(kalo.Arm, kalo._binding.python_name(c_name))
        assert c_name in (target.__doc__ or "") or c_name in kept_outside, c_name
    assert str(kalo.api_version()) == "4.4"


def test_stubs_cover_every_call_of_the_table():
    stub = pathlib.Path(kalo.__file__).with_name("_device_calls.pyi")
    hand_written = _stubs.hand_written_names()
    assert stub.read_text() == _stubs.render(hand_written), "run /usr/bin/python3 -m kalo._stubs"
    stubbed = {node.name for node in ast.walk(ast.parse(stub.read_text())) if isinstance(node, ast.FunctionDef)}
    for c_name, _, _ in kalo._calls.CALLS:
        name = kalo._binding.python_name(c_name)
        method = getattr(kalo.Arm, name)
        assert name in stubbed or (name in hand_written and "return" in method.__annotations__), c_name
    assert pathlib.Path(kalo.__file__).with_name("py.typed").exists()


# call, arguments, keyword arguments: refused with ValueError before anything reaches C
REFUSED: List[Tuple[str, Tuple[Any, ...], Dict[str, Any]]] = [
    ("set_force", (np.ones(5),), {}), ("set_force", (np.ones((2, 6)),), {}),
    ("set_position", (["a"] * 7,), {}), ("set_articular_position", (np.ones(7),), {}),
    ("attach_vo", (np.ones(8), 0.2), {}), ("set_time_step", ("0.001",), {}),
    ("set_speed", (np.ones((1, 6)) * 1j,), {}),
    # integers never wrap around their C type
    ("set_power_on", (2**32,), {}), ("set_command_type", (2**32 + 6,), {}), ("set_command_type", (-1,), {}),
    ("get_adc", (2**31 + 1,), {}), ("force_shift_button", (-(2**31) - 1,), {}), ("set_indexing_mode", (6.0,), {}),
    # finite numbers beyond float32 are not sent as infinities
    ("set_time_step", (1e39,), {}), ("set_time_step", (10**400,), {}),
    ("set_force", ([[1e39, 0, 0, 0, 0, 0]],), {}),
    # strings with a NUL would be cut short in C
    ("vm_load_spline", ("ab\0cd",), {}), ("set_output_file", ("log\0.txt",), {}),
    # out= takes exactly the array C writes
    ("get_position", (), dict(out=np.zeros((1, 7)))), ("get_position", (), dict(out=np.zeros((1, 6), np.float32))),
    ("get_position", (), dict(out=np.zeros((1, 14), np.float32)[:, ::2])), ("get_position", (), dict(out=[0.0] * 7)),
    ("get_articular_position", (), dict(out=np.zeros(5, np.float32))),
]
# accepted at the edges of their ranges
ACCEPTED = [("set_debug_flags", (2**32 - 1,)), ("set_debug_flags", (0,)), ("force_shift_button", (np.int64(-(2**31)),)),
            ("set_indexing_mode", (np.uint8(3),)), ("set_time_step", (np.float32(0.002),)),
            ("set_force", (np.zeros(6, np.float64),))]


def test_arrays_have_their_shapes_and_wrong_ones_never_reach_c(arm):
    p = arm.points
    assert p == 1 and arm.axes == 6
    for name, shape in [("get_position", (p, 7)), ("get_speed", (p, 6)), ("get_physical_speed", (6,)),
                        ("get_articular_speed", (6,)), ("get_center_sphere", (7,))]:
        value = getattr(arm, name)()
        assert value.shape == shape and value.dtype == np.float32, name
    arm.set_command_type(6)
    for name, args, keywords in REFUSED:
        with pytest.raises(ValueError):
            getattr(arm, name)(*args, **keywords)
            pytest.fail(f"{name}{args} {keywords} accepted")
    readonly = np.zeros((1, 7), np.float32)
    readonly.flags.writeable = False
    with pytest.raises(ValueError):
        arm.get_position(out=readonly)
    for name, args in ACCEPTED:
        getattr(arm, name)(*args)
    with pytest.raises(TypeError):
        getattr(arm, "set_force")()
    pose = np.zeros((1, 7), np.float32)
    arm.get_position(out=pose)
    pose.shape = (7,)  # the same array, reshaped in place after its first use
    with pytest.raises(ValueError):
        arm.get_position(out=pose)


def test_failures_raise_the_exception_of_their_code(arm):
    subclasses = {2: kalo.CommunicationError, 6: kalo.KaloTimeoutError, 9: kalo.IncorrectValueError,
                  17: kalo.WrongCommandModeError, 20: kalo.IncompatibleVersionError}
    for each in kalo.ErrorCode:
        error = error_for(each, "kaloX")
        assert type(error) is subclasses.get(each, kalo.KaloError)
        assert error.code == each and error.message == kalo.error_message(each)
    arm.set_command_type(7)
    failures: List[Tuple[Any, Any, int]] = [(lambda: arm.set_command_type(1), kalo.KaloError, 18),
                                 (lambda: arm.set_time_step(-1), kalo.IncorrectValueError, 9),
                                 (lambda: arm.vm_activate(), kalo.WrongCommandModeError, 17),
                                 (lambda: arm.get_adc(4), ValueError, 9)]
    for call, expected, code in failures:
        with pytest.raises(expected) as caught:
            call()
        assert caught.value.code == code and str(code) in str(caught.value)
    with pytest.raises(kalo.KaloError) as caught:
        kalo.Arm("http://127.0.0.1")
    assert caught.value.code == kalo.ErrorCode.URL_SYNTAX
    with pytest.raises(ValueError, match="NUL"):
        kalo.Arm("udpxdr://127.0.0.1\0#5000")  # C would read only what comes before the NUL


def test_version_gate_and_silent_controller_raise_their_subclasses():
    with kalo.sim.Simulator(version="5.5") as old, kalo.Arm(old.url) as arm:
        arm.set_pwm_output(np.zeros(7))
        with pytest.raises(kalo.IncompatibleVersionError) as caught:
            arm.get_tor_inputs()
        assert caught.value.code == 20
    with pytest.raises(kalo.CommunicationError):
        kalo.Arm(old.url)  # nobody listens there any more


def test_periodic_function_runs_and_hands_its_exception_over(arm):
    poses = []
    assert arm.start_loop(lambda a: poses.append(a.get_position())) == pytest.approx(0.001)
    time.sleep(0.3)
    arm.stop_loop()
    count = len(poses)
    time.sleep(0.05)
    assert count > 100 and len(poses) == count and poses[-1].shape == (1, 7)

    def fails(a):
        raise ZeroDivisionError("in the loop")

    arm.start_loop(fails)
    time.sleep(0.05)
    with pytest.raises(ZeroDivisionError):
        arm.get_position()
    arm.get_position()  # raised once
    arm.start_loop(lambda a: None)
    arm.stop_loop()


def test_frames_poll_at_their_period(arm):
    frames, states = arm.frames(0.01, duration=0.2), []
    for state in frames:
        states.append(state)
        if len(states) == 5:
            time.sleep(0.03)  # the next polls are behind their deadlines
    assert len(states) == frames.count == 20 and frames.late >= 1
    times = [s.time for s in states]
    assert times == sorted(times) and times[-1] == pytest.approx(0.19, abs=0.03)
    assert states[0].position.shape == (1, 7) and states[0].speed.shape == (1, 6)


def test_closed_connections_raise_instead_of_crashing(tmp_path):
    trace = tmp_path / "trace.csv"
    with kalo.sim.Simulator(trace=str(trace)) as sim:
        with pytest.raises(RuntimeError):
            with kalo.Arm(sim.url) as arm:
                raise RuntimeError("application failure")
        runaway = kalo.Arm(sim.url)
        runaway.set_command_type(kalo.CommandType.FORCE)
        with pytest.raises(kalo.IncorrectValueError):
            runaway.set_force([[math.nan] * 6])  # closes the connection: nothing reaches the arm
        for closed in (arm, runaway):
            assert closed.closed
            with pytest.raises(kalo.KaloError) as caught:
                closed.get_position()
            assert caught.value.code == kalo.ErrorCode.INVALID_CONTEXT
        runaway.close()
    assert 37 in sent_fields(trace)  # the closing request went out


def test_simulator_options_and_start_failure(monkeypatch):
    expected = os.path.realpath(os.environ["KALO_SIM"])
    monkeypatch.delenv("KALO_SIM")  # then found beside the library of the build tree
    assert os.path.realpath(kalo.sim.find_simulator()) == expected
    assert options_to_arguments(dict(hand="circle", power_on=True, drop=None, quiet=False,
                                      max_speed=(1, 3.5), set={90: np.array([0.5, 1])})) == [
        "--hand", "circle", "--power-on", "--max-speed", "1,3.5", "--set", "90=0.5,1.0"]
    with pytest.raises(RuntimeError, match="bad rate"):
        kalo.sim.Simulator(rate="fast")


# example, its arguments after the URL, whether Ctrl-C comes once it runs
@pytest.mark.parametrize("example, args, interrupted", [
    ("first_contact.py", [], False), ("coupling.py", ["1"], False), ("coupling.py", ["60"], True)])
def test_examples_run_to_the_end(example, args, interrupted):
    package_dir = os.path.dirname(os.path.dirname(kalo.__file__))
    env = dict(os.environ, PYTHONUNBUFFERED="1",
               PYTHONPATH=os.pathsep.join([package_dir, os.environ.get("PYTHONPATH", "")]))
    with kalo.sim.Simulator(hand="circle") as sim:
        process = subprocess.Popen([sys.executable, str(ROOT / "examples/python" / example), sim.url, *args],
                                   stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True, env=env)
        shown = ""
        if interrupted:  # once the first status line shows the loop running
            assert process.stdout is not None
            while "late=" not in shown:
                shown += process.stdout.read(1)
                assert process.poll() is None, process.communicate()
            process.send_signal(signal.SIGINT)
        out, err = process.communicate(timeout=60)
        out = shown + out
    assert process.returncode == 0 and "Traceback" not in err, out + err
    assert "periodic calls" in out
