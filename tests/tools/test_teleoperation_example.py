"""examples/teleoperation runs a pair of simulated arms, the follower's behind
a delayed link and in front of a wall: with and without the passivity
controller it runs to its end, records both arms, and ends cleanly on Ctrl-C."""
import os
import re
import signal
import socket
import subprocess
import tempfile
import time
import unittest

EXAMPLE = os.environ.get("KALO_TELEOPERATION", "teleoperation")
SIM = os.environ.get("KALO_SIM", "kalo-sim")
SUMMARY = re.compile(r"largest force felt ([\d.]+) N, lowest observed energy (-?[\d.]+) J")


def free_udp_port():
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


class TeleoperationExample(unittest.TestCase):
    def setUp(self):
        self.ports = [free_udp_port(), free_udp_port()]
        self.sims = [
            subprocess.Popen([SIM, "--port", str(self.ports[0]), "--hand", "line",
                              "--hand-radius", "0.08", "-q"]),
            subprocess.Popen([SIM, "--port", str(self.ports[1]), "--delay", "10000",
                              "--wall", "0.01,0,0,-1,0,0,5000,5", "-q"]),
        ]
        self.addCleanup(self.stop_sims)
        self.urls = [f"udpxdr://127.0.0.1#{p}" for p in self.ports]

    def stop_sims(self):
        for sim in self.sims:
            sim.send_signal(signal.SIGINT)
        for sim in self.sims:
            self.assertEqual(sim.wait(timeout=10), 0)

    def test_runs_with_and_without_the_controller_and_records_both_arms(self):
        with tempfile.TemporaryDirectory() as tmp:
            for flags in ([], ["--no-passivity"]):
                prefix = os.path.join(tmp, "pair")
                run = subprocess.run([EXAMPLE, *flags, "--seconds", "1.5", "--record", prefix,
                                      *self.urls], capture_output=True, text=True, timeout=60)
                self.assertEqual(run.returncode, 0, run.stdout + run.stderr)
                self.assertRegex(run.stdout, SUMMARY)
                self.assertIn("passivity controller " + ("OFF" if flags else "on"), run.stdout)
                for arm in ("leader", "follower"):
                    with open(f"{prefix}-{arm}.csv") as f:
                        self.assertTrue(f.readline().startswith("time_s,"))
                        self.assertGreater(sum(1 for _ in f), 500, arm)

    def test_ctrl_c_ends_the_run_cleanly(self):
        example = subprocess.Popen([EXAMPLE, "--seconds", "60", *self.urls],
                                   stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
        line = ""
        while "pair running" not in line:
            line = example.stdout.readline()
            self.assertTrue(line, "the example ended before running")
        time.sleep(0.5)
        example.send_signal(signal.SIGINT)
        out, err = example.communicate(timeout=20)
        self.assertEqual(example.returncode, 0, out + err)
        self.assertRegex(out, SUMMARY)


if __name__ == "__main__":
    unittest.main()
