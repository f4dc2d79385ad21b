"""kalo-sim's command line refuses what it cannot honour, with a message and
the status of its other argument errors (2), and a trace it cannot write is
an error (status 1), at the start or when the disk fills during the run."""
import os
import resource
import signal
import socket
import subprocess
import tempfile
import unittest

SIM = os.environ.get("KALO_SIM", "kalo-sim")
MONITOR = os.environ.get("KALO_MONITOR", "kalo-monitor")


def free_udp_port():
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


def sim(*args, **kw):
    return subprocess.run([SIM, "--port", "0", *args], capture_output=True, text=True,
                          timeout=60, **kw)


class KaloSimCommandLine(unittest.TestCase):
    def test_arguments_it_cannot_honour(self):
        cases = [  # arguments, exit status, what standard error says
            (["--set", "analogic_inputs=1,2"], 2, "--set analogic_inputs takes 7 value(s)"),
            (["--set", "90=1,2,3,4,5,6,7,8"], 2, "takes 7 value(s) with these counts, not 8"),
            (["--axes", "3", "--set", "articular_position=1,2,3,4"], 2, "takes 3 value(s)"),
            (["--duration", "-1"], 2, "duration must not be negative"),
            (["--hand-frequency", "-0.5"], 2, "hand frequency must not be negative"),
            (["--silence", "100@-2"], 2, "silence start must not be negative"),
            (["--restart-after", "-1"], 2, "restart time must not be negative"),
            (["--restart-after", "0.05:other-port"], 2, "--restart-after takes S or S:new-port"),
            (["--restart-after", "0.05:new-port"], 0, ""),
            (["--trace", "/dev/full"], 1, "cannot write trace file /dev/full: No space left"),
            (["--set", "analogic_inputs=1,2,3,4,5,6,7", "--axes", "2", "--set", "70=1,2"], 0, ""),
        ]
        for args, status, message in cases:
            with self.subTest(args=args):
                run = sim("--duration", "0.1", "-q", *args)
                self.assertEqual(run.returncode, status, run.stderr)
                self.assertIn(message, run.stderr)

    def test_a_trace_that_fills_the_disk_during_the_run_stops_the_simulator(self):
        def small_files():  # a 1 kB file size limit stands for a full disk
            signal.signal(signal.SIGXFSZ, signal.SIG_IGN)
            resource.setrlimit(resource.RLIMIT_FSIZE, (1000, 1000))

        with tempfile.TemporaryDirectory() as tmp:
            trace = os.path.join(tmp, "trace.csv")
            port = free_udp_port()
            controller = subprocess.Popen(
                [SIM, "--port", str(port), "--duration", "30", "-q", "--trace", trace],
                stderr=subprocess.PIPE, text=True, preexec_fn=small_files)
            # A client: the monitor's open, one reading and close fill 1 kB of trace.
            subprocess.run([MONITOR, "--once", f"127.0.0.1#{port}"], capture_output=True,
                           timeout=60)
            _, err = controller.communicate(timeout=60)
            self.assertEqual(controller.returncode, 1, err)
            self.assertIn(f"cannot write trace file {trace}: File too large", err)
            with open(trace) as f:
                self.assertTrue(f.read().endswith("\n"))  # nothing half written after the failure


if __name__ == "__main__":
    unittest.main()
