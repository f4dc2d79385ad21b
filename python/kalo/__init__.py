"""kalo for Python: drive a force-feedback arm through libkalo, with numpy arrays.

    import kalo
    with kalo.sim.Simulator(hand="circle") as sim, kalo.Arm(sim.url) as arm:
        print(arm.get_position())          # float32, shape (points, 7)

The C library is loaded from KALO_LIBRARY when set, else as libkalo.so.4.
"""

from . import sim
from .arm import Arm, CommandType, Frames, State, Version, api_version
from .errors import (
    CommunicationError,
    ErrorCode,
    IncompatibleVersionError,
    IncorrectValueError,
    KaloError,
    KaloTimeoutError,
    WrongCommandModeError,
    error_message,
)

__all__ = [
    "Arm",
    "CommandType",
    "CommunicationError",
    "ErrorCode",
    "Frames",
    "IncompatibleVersionError",
    "IncorrectValueError",
    "KaloError",
    "KaloTimeoutError",
    "State",
    "Version",
    "WrongCommandModeError",
    "api_version",
    "error_message",
    "sim",
]
__version__ = "4.4.0"
