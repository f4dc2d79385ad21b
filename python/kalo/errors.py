"""Error codes of the C library as an IntEnum, and the exceptions that carry them."""

import ctypes
import enum
from typing import Any, Dict, Optional, Type

from ._library import global_error, lib

# What the most recent failing call of this thread had to say beyond its code;
# looked up optionally so that the package works with a library without it.
try:
    _last_detail: Any = lib.kaloExtLastErrorDetail
    _last_detail.argtypes = []
    _last_detail.restype = ctypes.c_char_p
except AttributeError:
    _last_detail = None


class ErrorCode(enum.IntEnum):
    """The codes of kaloGetErrorCode (KALO_ERROR_* in kalo/kalo.h)."""

    NO_ERROR = 0
    OUT_OF_MEMORY = 1
    COMMUNICATION = 2
    INVALID_CONTEXT = 3
    CONFIG_FILE_NOT_FOUND = 4
    INCORRECT_CONFIG_FILE = 5
    TIMEOUT = 6
    NOT_IMPLEMENTED = 7
    VARIABLE_NOT_AVAILABLE = 8
    INCORRECT_VALUE = 9
    URL_SYNTAX = 10
    HARDWARE = 11
    POSITION_DISCONTINUITY = 12
    NO_PERIODIC_FUNCTION = 14
    NO_PERFORMANCE_COUNTER = 15
    WRONG_DLL_VERSION = 16
    WRONG_COMMAND_MODE = 17
    MODE_NOT_SUPPORTED = 18
    WRONG_MOMENT = 19
    INCOMPATIBLE_VERSION = 20
    INCORRECT_VM = 21
    LOOP_ALREADY_STARTED = 22


def last_error_detail() -> str:
    """kaloExtLastErrorDetail: what this thread's latest failing call had to say
    beyond its code ("unknown host ...", "no free local port in ..."), or ""."""
    if _last_detail is None:
        return ""
    text = _last_detail()
    return text.decode("utf-8", "replace") if text else ""


def error_message(code: int) -> str:
    """The library's text for an error code (kaloGetErrorMessage), decoded as Latin-1."""
    return lib.kaloGetErrorMessage(int(code)).decode("latin-1")


class KaloError(Exception):
    """A kalo call failed: .code (an ErrorCode when known), .message (the
    library's text for it) and .detail (what the call said beyond its code, or "")."""

    code: int
    message: str
    call: Optional[str]
    detail: str

    def __init__(self, code: int, message: Optional[str] = None, call: Optional[str] = None,
                 detail: str = "") -> None:
        try:
            code = ErrorCode(code)
        except ValueError:
            pass
        self.code = code
        self.message = error_message(code) if message is None else message
        self.call = call
        self.detail = detail
        where = f"{call}: " if call else ""
        more = f": {detail}" if detail else ""
        super().__init__(f"{where}{self.message} (code {int(code)}){more}")

    def __reduce__(self) -> Any:
        return (type(self), (self.code, self.message, self.call, self.detail))


class CommunicationError(KaloError):
    """Code 2: the controller cannot be reached, or the connection has failed."""


class KaloTimeoutError(KaloError, TimeoutError):
    """Code 6: the controller did not answer a query in time."""


class IncorrectValueError(KaloError, ValueError):
    """Code 9: an argument the library refused (also after a non-finite set-point)."""


class WrongCommandModeError(KaloError):
    """Code 17: the call is not allowed in the current command type."""


class IncompatibleVersionError(KaloError):
    """Code 20: the controller is too old for this call."""


_BY_CODE: Dict[int, Type[KaloError]] = {
    ErrorCode.COMMUNICATION: CommunicationError,
    ErrorCode.TIMEOUT: KaloTimeoutError,
    ErrorCode.INCORRECT_VALUE: IncorrectValueError,
    ErrorCode.WRONG_COMMAND_MODE: WrongCommandModeError,
    ErrorCode.INCOMPATIBLE_VERSION: IncompatibleVersionError,
}


def error_for(code: int, call: Optional[str] = None, message: Optional[str] = None,
              detail: str = "") -> KaloError:
    """The exception for a code: its subclass when the code has one, else KaloError."""
    return _BY_CODE.get(code, KaloError)(code, message, call, detail)


def failure(code: int, call: str) -> KaloError:
    """The exception for a C call that just failed on this thread, with its detail."""
    return error_for(code, call, detail=last_error_detail())


def last_global_error() -> int:
    """kaloGlobalError: the code of the last call that had no valid context."""
    return global_error.value
