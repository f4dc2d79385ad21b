"""Typed signatures of the Arm methods made from the call table (written by
`python3 -m kalo._stubs` from kalo/_calls.py; do not edit)."""

from typing import Optional, Tuple

import numpy as np
from numpy.typing import ArrayLike, NDArray

class DeviceCalls:
    axes: int
    samples: int

    def get_device_id(self) -> Tuple[int, int]:
        """The controller's device type and serial number (controllers above 5.4)."""
    def disable_control_connexion(self, disabled: int, /) -> None:
        """Whether the controller keeps running when our frames stop."""
    def set_command_type(self, type: int, /) -> None:
        """Chooses how the arm is driven (a CommandType)."""
    def set_force(self, force: ArrayLike, /) -> None:
        """Force set-points, force then moment (command types 3, 6, 7)."""
    def add_force(self, force: ArrayLike, /) -> None:
        """A wrench added to what the controller applies (controllers above 3.0)."""
    def set_position(self, position: ArrayLike, /) -> None:
        """Position set-points: x, y, z, quaternion x, y, z, w (command type 2 and above)."""
    def set_speed(self, speed: ArrayLike, /) -> None:
        """Speed set-points, linear then angular (passes the kinetic-energy guard in the coupling types)."""
    def get_position(self, *, out: Optional[NDArray[np.float32]] = None) -> NDArray[np.float32]:
        """The device's pose per control point, from the last state frame."""
    def get_speed(self, *, out: Optional[NDArray[np.float32]] = None) -> NDArray[np.float32]:
        """The device's speed per control point, from the last state frame."""
    def get_physical_position(self, *, out: Optional[NDArray[np.float32]] = None) -> NDArray[np.float32]:
        """The raw pose of the last state frame."""
    def get_physical_speed(self, *, out: Optional[NDArray[np.float32]] = None) -> NDArray[np.float32]:
        """The raw speed of the last state frame."""
    def get_avatar_position(self, *, out: Optional[NDArray[np.float32]] = None) -> NDArray[np.float32]:
        """The avatar's pose of the last state frame."""
    def set_power_on(self, on: int, /) -> None:
        """Switches the power on (1) or off (0)."""
    def active_speed_control(self, a: float, b: float, /) -> None:
        """Speed control with its two values (both at least 0)."""
    def deactive_speed_control(self) -> None:
        """Ends speed control."""
    def active_rotation_speed_control(self, a: float, b: float, /) -> None:
        """Rotation speed control (controllers above 3.2)."""
    def deactive_rotation_speed_control(self) -> None:
        """Ends rotation speed control."""
    def set_force_in_speed_control(self, force: float, /) -> None:
        """Force limit of speed control (controllers above 3.55)."""
    def set_torque_in_speed_control(self, torque: float, /) -> None:
        """Torque limit of speed control (controllers above 3.55)."""
    def is_in_speed_control(self) -> Tuple[int, int]:
        """The speed-control and rotation speed-control states (controllers above 3.55)."""
    def enable_force_feedback(self, enable: int, /) -> None:
        """Enables or disables force feedback."""
    def force_shift_button(self, value: int, /) -> None:
        """Forces the shift button's state (controllers 3.0 and above)."""
    def set_indexing_mode(self, mode: int, /) -> None:
        """Indexing mode 0..7."""
    def get_indexing_mode(self) -> int:
        """The last indexing mode set."""
    def set_time_step(self, step: float, /) -> None:
        """The application's time step in seconds; sets the coupling gains of attach_vo."""
    def get_time_step(self) -> float:
        """The application's time step in seconds."""
    def get_time_last_update(self) -> int:
        """Microseconds since the controller stamped its last state frame."""
    def set_speed_factor(self, factor: float, /) -> None:
        """Speed factor (above 0)."""
    def get_speed_factor(self) -> float:
        """The speed factor asked for."""
    def set_force_factor(self, factor: float, /) -> None:
        """Force factor (above 0)."""
    def get_force_factor(self) -> float:
        """The force factor."""
    def set_simulation_stiffness(self, stiffness: ArrayLike, /) -> None:
        """The controller's simulation stiffness, linear then angular."""
    def get_simulation_stiffness(self, *, out: Optional[NDArray[np.float32]] = None) -> NDArray[np.float32]:
        """The controller's simulation stiffness, asked for."""
    def set_simulation_damping(self, damping: ArrayLike, /) -> None:
        """The controller's simulation damping, linear then angular."""
    def get_simulation_damping(self, *, out: Optional[NDArray[np.float32]] = None) -> NDArray[np.float32]:
        """The controller's simulation damping, asked for."""
    def set_observation_frame(self, frame: ArrayLike, /) -> None:
        """The observation frame (unit quaternion)."""
    def get_observation_frame(self, *, out: Optional[NDArray[np.float32]] = None) -> NDArray[np.float32]:
        """The last observation frame set."""
    def set_observation_frame_speed(self, twist: ArrayLike, /) -> None:
        """The speed of the observation frame."""
    def set_base_frame(self, frame: ArrayLike, /) -> None:
        """The base frame (unit quaternion)."""
    def get_base_frame(self, *, out: Optional[NDArray[np.float32]] = None) -> NDArray[np.float32]:
        """The last base frame set."""
    def set_catch_frame(self, frame: ArrayLike, /) -> None:
        """Catch frames, one per control point."""
    def get_catch_frame(self, *, out: Optional[NDArray[np.float32]] = None) -> NDArray[np.float32]:
        """The first catch frame (the servo's object displacement)."""
    def set_timeout_value(self, seconds: float, /) -> None:
        """The connection watchdog's period in seconds."""
    def get_timeout_value(self) -> float:
        """The connection watchdog's period in seconds."""
    def set_debug_flags(self, flags: int, /) -> None:
        """Bit 0: gain printouts and loop overrun messages."""
    def set_output_file(self, path: str, /) -> None:
        """Sends the diagnostics to a file (truncated)."""
    def get_button(self, button: int, /) -> int:
        """1 while button (1..16) is down, else 0."""
    def get_emergency_stop(self) -> int:
        """The emergency-stop button (16)."""
    def get_dead_man(self) -> int:
        """The dead-man button (15)."""
    def wait_press_button(self, button: int, /) -> None:
        """Blocks until button is pressed (no time-out; close() wakes it)."""
    def get_power_on(self) -> int:
        """1 while the arm's power is on."""
    def get_failure(self) -> int:
        """The drive failure word, bit k set when drive k+1 has failed."""
    def get_error(self) -> int:
        """0 when no drive has failed; raises KaloError code 11 otherwise."""
    def display_hardware_status(self) -> None:
        """Prints the OK/NOK state of the eight drives on the output stream."""
    def get_alarm(self) -> int:
        """The alarm bits (14..31) of the status word."""
    def is_in_bounds(self) -> int:
        """The bound indicators (bits 0..13) of the status word."""
    def is_in_shift_position(self) -> int:
        """1 while the arm is in its shift position."""
    def get_trackball(self) -> Tuple[int, int]:
        """The trackball's two position members."""
    def get_trackball_button(self) -> Tuple[int, int, int, int]:
        """The trackball's four button members."""
    def get_adc(self, index: int, /) -> float:
        """Analog-to-digital converter index (1..3)."""
    def get_tor_inputs(self) -> int:
        """The digital input word (controllers above 5.59)."""
    def get_analogic_inputs(self, *, out: Optional[NDArray[np.float32]] = None) -> NDArray[np.float32]:
        """The seven analog inputs (controllers above 5.59)."""
    def get_mouse_state(self) -> Tuple[int, float, float]:
        """The pointer emulation state and position."""
    def get_axis_of_rotation(self, *, out: Optional[NDArray[np.float32]] = None) -> NDArray[np.float32]:
        """The axis of rotation reported by the controller."""
    def get_center_sphere(self, *, out: Optional[NDArray[np.float32]] = None) -> NDArray[np.float32]:
        """The sphere centre reported by the controller."""
    def get_nb_axes(self) -> int:
        """The axis count of the last state frame."""
    def get_articular_position(self, *, out: Optional[NDArray[np.float32]] = None) -> NDArray[np.float32]:
        """Joint positions (controllers above 3.55)."""
    def get_articular_speed(self, *, out: Optional[NDArray[np.float32]] = None) -> NDArray[np.float32]:
        """Joint speeds (controllers above 3.55)."""
    def get_articular_position_of_additional_axe(self) -> float:
        """The additional axis's position."""
    def get_articular_speed_of_additional_axe(self) -> float:
        """The additional axis's speed."""
    def convert_depl_to_homogene_matrix(self, depl: ArrayLike, /, *, out: Optional[NDArray[np.float32]] = None) -> NDArray[np.float32]:
        """The column-major 4x4 homogeneous form of a pose."""
    def convert_homogene_matrix_to_depl(self, matrix: ArrayLike, /, *, out: Optional[NDArray[np.float32]] = None) -> NDArray[np.float32]:
        """The pose of a column-major 4x4 homogeneous matrix."""
    def vm_activate(self) -> None:
        """Switches the controller's virtual mechanism on."""
    def vm_deactivate(self) -> None:
        """Switches the virtual mechanism off."""
    def vm_set_type(self, type: int, /) -> None:
        """The mechanism type (1: spline trajectory)."""
    def vm_set_base_frame(self, frame: ArrayLike, /) -> None:
        """The mechanism's base frame."""
    def vm_get_base_frame(self, *, out: Optional[NDArray[np.float32]] = None) -> NDArray[np.float32]:
        """The mechanism's base frame, asked for."""
    def vm_set_min_arti_bounds(self, bounds: ArrayLike, /) -> None:
        """Lower joint bounds, one per axis up to ten."""
    def vm_set_max_arti_bounds(self, bounds: ArrayLike, /) -> None:
        """Upper joint bounds, one per axis up to ten."""
    def vm_set_default_to_cartesian_position(self) -> None:
        """Outside the mechanism the arm holds its Cartesian position."""
    def vm_set_default_to_transparent_mode(self) -> None:
        """Outside the mechanism the arm is transparent."""
    def vm_set_base_frame_to_current_frame(self) -> None:
        """Takes the arm's current frame as the mechanism's base frame."""
    def vm_set_robot_mode(self, mode: int, /) -> None:
        """The controller-defined robot mode."""
    def vm_save_current_spline(self, name: str, /) -> None:
        """Saves the current spline under name (at most 31 characters)."""
    def vm_load_spline(self, name: str, /) -> None:
        """Loads the spline called name."""
    def vm_delete_spline(self, name: str, /) -> None:
        """Deletes the spline called name."""
    def vm_get_traj_samples(self, *, out: Optional[NDArray[np.float32]] = None) -> NDArray[np.float32]:
        """Waits for the samples asked for: shape (count, 7)."""
    def vm_wait_upper_bound(self) -> None:
        """Asks for the controller's upper-bound signal and blocks until it comes."""
    def attach_vo(self, inertia: ArrayLike, mass: float, /) -> None:
        """Attaches a virtual object of this inertia (3 x 3, row by row) and mass."""
    def attach_vo_avatar(self, inertia: ArrayLike, mass: float, /) -> None:
        """The same, reported to the controller as an avatar."""
    def attach_qsvo(self, stiffness: ArrayLike, damping: ArrayLike, /) -> None:
        """Attaches an object with this stiffness and damping (angular first)."""
    def detach_vo(self) -> None:
        """Detaches every virtual object and zeroes the coupling gains."""
    def detach_vo_avatar(self) -> None:
        """The same for avatars."""
    def get_force(self, *, out: Optional[NDArray[np.float32]] = None) -> NDArray[np.float32]:
        """Runs one servo cycle and returns the coupling wrench on each virtual object."""
    def saturate_torque(self, a: float, b: float, /) -> None:
        """The two torque saturation values (both above 0)."""
    def set_articular_position(self, q: ArrayLike, /) -> None:
        """Joint position set-points (controllers above 3.55)."""
    def set_articular_speed(self, q: ArrayLike, /) -> None:
        """Joint speed set-points (controllers above 3.55)."""
    def set_articular_force(self, q: ArrayLike, /) -> None:
        """Joint torques (controllers above 3.55)."""
    def set_articular_position_of_additional_axe(self, value: float, /) -> None:
        """Additional axis position (controllers above 3.1)."""
    def set_articular_speed_of_additional_axe(self, value: float, /) -> None:
        """Additional axis speed (controllers above 3.1)."""
    def set_articular_force_of_additional_axe(self, value: float, /) -> None:
        """Additional axis force (controllers above 3.1)."""
    def set_gripper_command_type(self, type: int, /) -> None:
        """Gripper command type (controllers above 3.6)."""
    def outputs_setting(self, outputs: int, /) -> None:
        """Digital output word (controllers above 5.2)."""
    def set_pwm_output(self, pwm: ArrayLike, /) -> None:
        """The seven PWM outputs (controllers above 5.3)."""
    def set_finger_tip_speed(self, speed: ArrayLike, /) -> None:
        """The five finger-tip speeds (controllers above 5.8)."""
    def set_friction_force(self, a: float, b: float, c: float, /) -> None:
        """The three friction values."""
    def generate_debug_file(self) -> None:
        """Asks the controller to write its debug file."""
    def set_texture(self, position: ArrayLike, intensity: ArrayLike, flag: int, /) -> None:
        """Texture contact points with intensities in [0, 1] (command type 2 and above)."""
    def set_texture_force(self, wrench: ArrayLike, /) -> None:
        """Texture wrenches, one per control point."""
    def convert_rgb_to_grayscale(self, rgb: ArrayLike, /) -> float:
        """0.299 R + 0.587 G + 0.114 B."""
    def init_mouse(self) -> None:
        """Prepares the pointer emulation."""
    def end_mouse(self) -> None:
        """Ends the pointer emulation."""
    def show_mouse(self) -> None:
        """Shows the pointer."""
    def hide_mouse(self) -> None:
        """Hides the pointer."""
    def active_mouse(self) -> None:
        """Activates the pointer emulation."""
    def desactive_mouse(self) -> None:
        """Deactivates the pointer emulation."""
    def move_mouse(self, x: float, y: float, /) -> None:
        """Moves the pointer."""
    def clic_mouse(self, left: int, right: int, /) -> None:
        """Clicks the pointer's buttons."""
