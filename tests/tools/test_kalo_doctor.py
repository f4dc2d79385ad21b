"""kalo-doctor runs anywhere, privileged or not: it exits 0 or 1 with a
verdict that matches its checks, in text and in parseable JSON, and measures
a link to kalo-sim."""
import json
import os
import signal
import socket
import subprocess
import sys
import time
import unittest

DOCTOR = os.environ.get("KALO_DOCTOR", "kalo-doctor")
SIM = os.environ.get("KALO_SIM", "kalo-sim")
MACHINE_CHECKS = ["real-time scheduling", "memory locking", "CPU frequency governor",
                  "kernel preemption", "local ports 3131-3140", "timer wake-up jitter"]


def free_udp_port():
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


def doctor(*args):
    return subprocess.run([DOCTOR, "--seconds", "1", *args], capture_output=True, text=True,
                          timeout=120)


class KaloDoctor(unittest.TestCase):
    def check_report(self, result, names):
        self.assertIn(result.returncode, (0, 1), result.stderr)
        report = json.loads(result.stdout)
        self.assertEqual([c["name"] for c in report["checks"]], names)
        failed = [c for c in report["checks"] if c["status"] == "fail"]
        self.assertEqual(report["failed"], len(failed))
        self.assertEqual(report["verdict"], "fail" if failed else "pass")
        self.assertEqual(result.returncode, 1 if failed else 0)
        for c in report["checks"]:
            self.assertIn(c["status"], ("pass", "fail", "skip"))
            self.assertTrue(c["detail"], c["name"])
            if c["status"] == "fail":
                self.assertTrue(c["fix"], c["name"])
        return {c["name"]: c for c in report["checks"]}

    def test_machine_and_link_against_the_simulator(self):
        port = free_udp_port()
        sim = subprocess.Popen([SIM, "--port", str(port), "--duration", "20", "-q"])
        try:
            time.sleep(0.3)
            checks = self.check_report(doctor("--json", f"127.0.0.1#{port}"),
                                       MACHINE_CHECKS + ["link to the controller"])
            self.assertRegex(checks["link to the controller"]["detail"], r"^\d+ Hz, loss ")
        finally:
            sim.terminate()
            sim.wait()

    def test_a_link_that_stalls_fails_and_says_why(self):
        cases = [  # kalo-sim's options, stop it for 0.6 s meanwhile, what the check says
            ([], True, "the controller fell silent 1 time(s)"),
            (["--drop", "0.3"], False, "frame rate well below the controller's "),
        ]
        for options, stop, expected in cases:
            with self.subTest(options=options, stop=stop):
                port = free_udp_port()
                sim = subprocess.Popen([SIM, "--port", str(port), "--duration", "30", "-q",
                                        *options])
                try:
                    time.sleep(0.3)
                    doc = subprocess.Popen([DOCTOR, "--seconds", "1.5", f"127.0.0.1#{port}"],
                                           stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                                           text=True)
                    for line in doc.stderr:
                        if line.startswith("measuring the link"):
                            break
                    if stop:
                        time.sleep(0.2)
                        sim.send_signal(signal.SIGSTOP)  # the controller stops sending
                        time.sleep(0.6)
                        sim.send_signal(signal.SIGCONT)
                    out, _ = doc.communicate(timeout=60)
                finally:
                    sim.kill()
                    sim.wait()
                self.assertEqual(doc.returncode, 1, out)
                link = [l for l in out.splitlines() if "link to the controller" in l][0]
                self.assertTrue(link.startswith("[FAIL]"), out)
                self.assertIn(expected, link)

    def test_an_unreachable_controller_fails_the_link_check_only(self):
        checks = self.check_report(doctor("--json", f"127.0.0.1#{free_udp_port()}"),
                                   MACHINE_CHECKS + ["link to the controller"])
        self.assertEqual(checks["link to the controller"]["status"], "fail")
        self.assertIn("no state frame from 127.0.0.1:", checks["link to the controller"]["detail"])
        text = doctor()
        self.assertIn(text.returncode, (0, 1))
        self.assertIn("verdict: ", text.stdout)
        self.assertEqual(doctor("--bogus").returncode, 2)


if __name__ == "__main__":
    unittest.main()
