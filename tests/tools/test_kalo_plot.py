"""kalo-plot against small sessions: a recording and a kalo-sim trace give
pictures, and bad files give one clear line and status 1, never a traceback."""
import os
import subprocess
import sys
import tempfile
import unittest

PLOT = os.environ.get("KALO_PLOT", os.path.join(os.path.dirname(__file__), "../../tools/kalo-plot"))
HEADER = ("time_s,frame,stamp_us,interarrival_us,x,y,z,qx,qy,qz,qw,vx,vy,vz,wx,wy,wz,buttons,"
          "power,sent,fx,fy,fz,mx,my,mz,cmd_x,cmd_y,cmd_z,cmd_qx,cmd_qy,cmd_qz,cmd_qw,cmd_vx,"
          "cmd_vy,cmd_vz,cmd_wx,cmd_wy,cmd_wz,cfx,cfy,cfz,cmx,cmy,cmz,call_start_s,call_us,"
          "calls,late_calls")


def recording_rows(n=300):
    rows = []
    for k in range(n):
        x = min(0.03, -0.05 + k * 0.0005)  # reaches the wall and stays
        push = 2000 * max(0.0, -0.05 + k * 0.0005 - 0.03)
        values = [k * 0.001, 100 + k, 1000 * k, 1000 if k % 50 else 3000, x, 0, 0, 0, 0, 0, 1]
        values += [0] * 6 + [0, 1, 1] + [0] * 6 + [x, 0, 0, 0, 0, 0, 1] + [0] * 6
        values += [push, 0, 0, 0, 0, 0, k * 0.001, 50, k, k // 100]
        rows.append(",".join(str(v) for v in values))
    return rows


class KaloPlot(unittest.TestCase):
    def setUp(self):
        self.dir = tempfile.TemporaryDirectory()

    def tearDown(self):
        self.dir.cleanup()

    def path(self, name):
        return os.path.join(self.dir.name, name)

    def write(self, name, lines):
        with open(self.path(name), "w") as f:
            f.write("\n".join(lines) + "\n")
        return self.path(name)

    def run_plot(self, *args):
        return subprocess.run([sys.executable, PLOT, *args], capture_output=True, text=True,
                              timeout=120)

    def test_a_recording_and_a_trace_become_pictures(self):
        recording = self.write("session.csv", [HEADER] + recording_rows())
        trace = self.write("trace.csv", [
            "time_s,direction,note,fields",
            "0.001,out,,1=1000;14=0.01 0 0 0 0 0 1;15=0 0 0 0 0 0",
            "0.002,out,dropped,1=2000;14=0.02 0 0 0 0 0 1",
            "0.0021,in,,1=5;14=0.02 0 0 0 0 0 1;16=1 2 3 0 0 0",
            "0.003,out,,1=3000;14=0.03 0 0 0 0 0 1",
        ])
        rows = recording_rows()
        infinite = [r.replace(",1000,", ",inf,", 1) for r in rows[:100]]  # interarrival_us
        infinite += [",".join(r.split(",")[:20] + ["-inf"] + r.split(",")[21:]) for r in rows[100:]]
        cut = self.write("cut.csv", [HEADER] + rows)  # stopped mid-row: no line end
        with open(cut, "a") as f:
            f.write(rows[0][:25])
        cases = [  # input, output, extra arguments, the output's first bytes, a note expected
            (recording, "session.png", [], b"\x89PNG", ""),
            (recording, "session.svg", [], b"<?xml", ""),
            (trace, "trace.png", [], b"\x89PNG", ""),
            (cut, "cut.png", [], b"\x89PNG", "cut.csv:302: the last row is cut short; left out"),
            (self.write("inf.csv", [HEADER] + infinite), "inf.png",
             ["--title", "cost $x^$ and $\\frac{a}$"], b"\x89PNG", ""),  # plain text
        ]
        for source, output, extra, magic, expected_note in cases:
            result = self.run_plot(source, self.path(output), *extra)
            self.assertEqual(result.returncode, 0, result.stderr)
            self.assertIn(expected_note, result.stderr)
            self.assertNotIn("Traceback", result.stderr)
            with open(self.path(output), "rb") as f:
                self.assertEqual(f.read(len(magic)), magic, output)

    def test_bad_files_are_refused_with_a_clear_message(self):
        cases = {
            "missing.csv": None,
            "empty.csv": [],
            "other.csv": ["a,b,c,d", "1,2,3,4"],
            "short.csv": [HEADER, "0.1,1,2"],
            "text.csv": [HEADER] + [r.replace("0.001,", "abc,", 1) for r in recording_rows(3)],
            "no_rows.csv": [HEADER],
            "bad_trace.csv": ["time_s,direction,note,fields", "0.1,out,,14=x y z"],
            "long_field.csv": [HEADER] + recording_rows(3) + ["1" * 200000],
        }
        for name, lines in cases.items():
            source = self.path(name) if lines is None else self.write(name, lines)
            result = self.run_plot(source, self.path("out.png"))
            self.assertEqual(result.returncode, 1, name)
            self.assertTrue(result.stderr.startswith("kalo-plot: "), (name, result.stderr))
            self.assertEqual(len(result.stderr.splitlines()), 1, (name, result.stderr))
        # An output that cannot be written is an error too.
        full = self.path("full.png")
        os.symlink("/dev/full", full)
        good = self.write("good.csv", [HEADER] + recording_rows(30))
        for output, reason in ((full, "No space left on device"),
                               (self.path("no-dir/out.png"), "No such file or directory")):
            result = self.run_plot(good, output)
            self.assertEqual(result.returncode, 1, output)
            self.assertEqual(result.stderr, f"kalo-plot: cannot write {output}: {reason}\n")
        self.assertEqual(self.run_plot(self.path("x.csv"), self.path("out.pdf")).returncode, 2)


if __name__ == "__main__":
    unittest.main()
