"""The C examples against kalo-sim: Ctrl-C ends them as cleanly as their
time would (the loop stopped, the recording completed, the connection
closed, status 0), and a failure prints what the library had to say."""
import os
import signal
import socket
import subprocess
import tempfile
import time
import unittest

SIM = os.environ.get("KALO_SIM", "kalo-sim")
FIRST_CONTACT = os.environ.get("KALO_FIRST_CONTACT", "first_contact")
COUPLING = os.environ.get("KALO_COUPLING", "coupling")


def free_udp_port():
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


def rows_in(path):
    try:
        with open(path) as f:
            return f.read().count("\n") - 1
    except OSError:
        return 0


class Examples(unittest.TestCase):
    def setUp(self):
        self.port = free_udp_port()
        self.sim = subprocess.Popen([SIM, "--port", str(self.port), "--hand", "circle", "-q"])
        self.url = f"udpxdr://127.0.0.1#{self.port}"
        self.dir = tempfile.TemporaryDirectory()

    def tearDown(self):
        self.sim.terminate()
        self.sim.wait()
        self.dir.cleanup()

    def test_ctrl_c_ends_each_example_cleanly(self):
        recording = os.path.join(self.dir.name, "session.csv")
        cases = [  # command, the line after which Ctrl-C comes, what stdout ends with
            ([FIRST_CONTACT, self.url], "periodic function every", "closed: "),
            ([COUPLING, self.url, "60", recording], "object of", "session recorded in"),
        ]
        for command, ready, closing in cases:
            with self.subTest(example=os.path.basename(command[0])):
                run = subprocess.Popen(command, stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                                       text=True)
                out = ""
                for line in run.stdout:
                    out += line
                    if line.startswith(ready):
                        break
                if len(command) > 3:  # rows on their way to the file when Ctrl-C comes
                    end = time.monotonic() + 10
                    while rows_in(recording) < 200 and time.monotonic() < end:
                        time.sleep(0.01)
                run.send_signal(signal.SIGINT)
                rest, err = run.communicate(timeout=20)
                out += rest
                self.assertEqual(run.returncode, 0, out + err)
                self.assertIn(closing, out)
        with open(recording) as f:
            text = f.read()
        lines = text.splitlines()
        self.assertTrue(text.endswith("\n"))
        self.assertGreater(len(lines), 200)
        columns = lines[0].count(",")
        for n, line in enumerate(lines):
            self.assertEqual(line.count(","), columns, f"line {n + 1}")
        self.assertIn(f"session recorded in {recording} (0 rows dropped)", out)

    def test_a_recording_that_cannot_be_created_says_where_and_why(self):
        run = subprocess.run([COUPLING, self.url, "1", "/nonexistent-dir/session.csv"],
                             capture_output=True, text=True, timeout=60)
        self.assertEqual(run.returncode, 1, run.stdout + run.stderr)
        self.assertIn("kaloExtStartRecording failed: Incorrect value (9): cannot create "
                      "recording file /nonexistent-dir/session.csv: No such file or directory",
                      run.stderr)


if __name__ == "__main__":
    unittest.main()
