"""Error codes of the C library as an IntEnum, and the exceptions that carry them."""

import enum

from ._library import global_error, lib


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


def error_message(code):
    """The library's text for an error code (kaloGetErrorMessage), decoded as Latin-1."""
    return lib.kaloGetErrorMessage(int(code)).decode("latin-1")


class KaloError(Exception):
    """A kalo call failed: .code (an ErrorCode when known) and .message (the library's text)."""

    def __init__(self, code, message=None, call=None):
        try:
            code = ErrorCode(code)
        except ValueError:
            pass
        self.code = code
        self.message = error_message(code) if message is None else message
        self.call = call
        where = f"{call}: " if call else ""
        super().__init__(f"{where}{self.message} (code {int(code)})")

    def __reduce__(self):
        return (type(self), (self.code, self.message, self.call))


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


_BY_CODE = {
    ErrorCode.COMMUNICATION: CommunicationError,
    ErrorCode.TIMEOUT: KaloTimeoutError,
    ErrorCode.INCORRECT_VALUE: IncorrectValueError,
    ErrorCode.WRONG_COMMAND_MODE: WrongCommandModeError,
    ErrorCode.INCOMPATIBLE_VERSION: IncompatibleVersionError,
}


def error_for(code, call=None, message=None):
    """The exception for a code: its subclass when the code has one, else KaloError."""
    return _BY_CODE.get(code, KaloError)(code, message, call)


def last_global_error():
    """kaloGlobalError: the code of the last call that had no valid context."""
    return global_error.value
