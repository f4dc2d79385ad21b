"""Loading libkalo: KALO_LIBRARY when set, else the installed library by its SONAME."""

import ctypes
import glob
import os

SONAME = "libkalo.so.4"


def _installed_beside():
    """libkalo.so.4 in the lib directory this package was installed under
    (<prefix>/lib/python3/dist-packages/kalo -> <prefix>/lib), found even
    before ldconfig has seen it."""
    here = os.path.dirname(os.path.abspath(__file__))
    while os.path.dirname(here) != here:
        here = os.path.dirname(here)
        if os.path.basename(here).startswith("lib"):
            for folder in [here] + sorted(glob.glob(os.path.join(here, "*-linux-gnu"))):
                candidate = os.path.join(folder, SONAME)
                if os.path.exists(candidate):
                    return candidate
    return None


def _load():
    path = os.environ.get("KALO_LIBRARY") or SONAME
    try:
        return ctypes.CDLL(path)
    except OSError as error:
        beside = None if os.environ.get("KALO_LIBRARY") else _installed_beside()
        if beside:
            return ctypes.CDLL(beside)
        where = (
            f"KALO_LIBRARY={path}"
            if os.environ.get("KALO_LIBRARY")
            else f"{SONAME} on the loader's path (install libkalo4, or set KALO_LIBRARY "
            "to the library file, e.g. build/libkalo.so.4)"
        )
        raise ImportError(f"kalo: cannot load the C library from {where}: {error}") from None


lib = _load()


def library_path():
    """The file the C library was loaded from (used to find kalo-sim beside it)."""
    name = os.path.basename(getattr(lib, "_name", SONAME))
    try:
        with open("/proc/self/maps", encoding="utf-8") as maps:
            for line in maps:
                fields = line.split(None, 5)
                if len(fields) == 6 and os.path.basename(fields[5].strip()).startswith(
                    name.split(".so")[0] + ".so"
                ):
                    return os.path.realpath(fields[5].strip())
    except OSError:
        pass
    return None


lib.kaloGetErrorMessage.argtypes = [ctypes.c_int32]
lib.kaloGetErrorMessage.restype = ctypes.c_char_p
lib.kaloGetErrorCode.argtypes = [ctypes.c_void_p]
lib.kaloGetErrorCode.restype = ctypes.c_int32
lib.kaloAPIVersion.argtypes = [ctypes.POINTER(ctypes.c_int32)] * 2
lib.kaloAPIVersion.restype = ctypes.c_int32
lib.kaloOpen.argtypes = [ctypes.c_char_p]
lib.kaloOpen.restype = ctypes.c_void_p
lib.kaloClose.argtypes = [ctypes.c_void_p]
lib.kaloClose.restype = ctypes.c_int32
global_error = ctypes.c_int32.in_dll(lib, "kaloGlobalError")
