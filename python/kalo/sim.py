"""kalo.sim.Simulator: kalo-sim as a child process, so that a test or a notebook needs no arm."""

import collections
import os
import re
import shutil
import signal
import subprocess
import threading
import time
from typing import Deque, Optional

from ._library import library_path

_READY = re.compile(r"on ([^ ]+):(\d+), .*waiting for a client")


def find_simulator():
    """kalo-sim: KALO_SIM when set, else beside the loaded library in a build tree, else on PATH."""
    if os.environ.get("KALO_SIM"):
        return os.environ["KALO_SIM"]
    library = library_path()
    if library:
        beside = os.path.join(os.path.dirname(library), "sim", "kalo-sim")
        if os.access(beside, os.X_OK):
            return beside
    found = shutil.which("kalo-sim")
    if found:
        return found
    raise FileNotFoundError(
        "kalo-sim not found: set KALO_SIM to it, or put it on PATH (it is built in build/sim/)"
    )


def options_to_arguments(options):
    """Keyword options as kalo-sim arguments: hand="circle" -> --hand circle,
    power_on=True -> --power-on, analog=[1, 2] -> --analog 1,2,
    set={90: [1, 2]} -> --set 90=1,2 (one per key). False and None are left out."""
    arguments = []
    for name, value in options.items():
        flag = "--" + name.replace("_", "-")
        if value is None or value is False:
            continue
        if value is True:
            arguments.append(flag)
        elif name == "set":
            for field, values in dict(value).items():
                arguments += [flag, f"{field}={_text(values)}"]
        else:
            arguments += [flag, _text(value)]
    return arguments


def _text(value):
    if hasattr(value, "tolist"):
        value = value.tolist()
    if isinstance(value, (list, tuple)):
        return ",".join(str(v) for v in value)
    return str(value)


class Simulator:
    """Starts kalo-sim on a free loopback port with any of its options; stops it on close.

        with kalo.sim.Simulator(hand="circle", version="5.59") as sim:
            with kalo.Arm(sim.url) as arm: ...

    Options are those of `kalo-sim --help`, in Python spelling (power_on=True,
    max_speed=(1, 3.14), set={90: [0.5] * 7}); port defaults to a free one.
    The simulator's messages are kept in .log rather than shown (quiet=True
    is accepted and changes nothing). Raises RuntimeError when it does not start.
    """

    def __init__(self, timeout=10.0, **options):
        options.pop("quiet", None)
        options.setdefault("port", 0)
        self.executable = find_simulator()
        self.arguments = [self.executable] + options_to_arguments(options)
        self.log: Deque[str] = collections.deque(maxlen=200)
        self.port: Optional[int] = None
        self._ready = threading.Event()
        self._process = subprocess.Popen(
            self.arguments,
            stdin=subprocess.DEVNULL,
            stdout=subprocess.DEVNULL,
            stderr=subprocess.PIPE,
            text=True,
            errors="replace",
        )
        self._reader = threading.Thread(target=self._read, name="kalo-sim output", daemon=True)
        self._reader.start()
        deadline = time.monotonic() + timeout
        while not self._ready.wait(0.05):
            if self._process.poll() is not None or time.monotonic() > deadline:
                self.close()
                self._reader.join(1)
                raise RuntimeError(
                    f"kalo-sim did not start ({' '.join(self.arguments)}):\n" + "\n".join(self.log)
                )

    def _read(self):
        assert self._process.stderr is not None  # made a pipe above
        for line in self._process.stderr:
            self.log.append(line.rstrip("\n"))
            match = _READY.search(line)
            if match and not self._ready.is_set():
                self.port = int(match.group(2))
                self._ready.set()

    @property
    def url(self):
        """The URL kalo.Arm connects to: udpxdr://127.0.0.1#<port>."""
        return f"udpxdr://127.0.0.1#{self.port}"

    @property
    def running(self):
        return self._process.poll() is None

    def close(self):
        """Stops kalo-sim (SIGTERM, then SIGKILL after 5 s) and returns its exit status."""
        if self._process.poll() is None:
            self._process.send_signal(signal.SIGTERM)
            try:
                self._process.wait(5)
            except subprocess.TimeoutExpired:
                self._process.kill()
                self._process.wait()
        return self._process.returncode

    def __enter__(self):
        return self

    def __exit__(self, *exc):
        self.close()
        return False

    def __del__(self):
        process = getattr(self, "_process", None)
        if process is not None and process.poll() is None:
            process.kill()
            process.wait()
