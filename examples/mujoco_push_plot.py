#!/usr/bin/python3
"""Draws a run of mujoco_push from its log (mujoco_push --log FILE.csv).

Three panels over the scene's time, with the intervals where the tool touches
the box shaded: the x of the handle, the tool and the box; the coupling force
on the tool beside the contact's normal force; MuJoCo's step time per call
against the loop's period. PNG or SVG, chosen by the output's extension.

  mujoco_push_plot.py LOG.csv [OUTPUT.png|OUTPUT.svg] [--period S] [--title TEXT]

Prints the output's path. Exit status 0, 1 for a log that cannot be read or
drawn, 2 for a bad command line.
"""
import argparse
import csv
import math
import os
import sys

COLUMNS = ["time_s", "step_us", "coupled", "handle_x", "tool_x", "box_x", "contact",
           "contact_n", "coupling_fx", "coupling_fy", "coupling_fz"]


class BadLog(Exception):
    pass


def read_log(path):
    """The coupled calls of a log, as lists of floats by column."""
    try:
        with open(path, newline="") as f:
            rows = list(csv.reader(f))
    except (OSError, UnicodeDecodeError) as e:
        raise BadLog(f"{path}: {e}") from None
    if not rows:
        raise BadLog(f"{path}: empty")
    header = rows[0]
    missing = [c for c in COLUMNS if c not in header]
    if missing:
        raise BadLog(f"{path}: not a mujoco_push log (no {', '.join(missing)})")
    data = {c: [] for c in COLUMNS}
    for n, row in enumerate(rows[1:], start=2):
        if len(row) != len(header):
            raise BadLog(f"{path}:{n}: {len(row)} columns, the header has {len(header)}")
        try:
            values = {c: float(row[header.index(c)]) for c in COLUMNS}
        except ValueError:
            raise BadLog(f"{path}:{n}: not a number") from None
        if not all(math.isfinite(v) for v in values.values()):
            raise BadLog(f"{path}:{n}: not a finite number")
        if values["coupled"] == 1:
            for c in COLUMNS:
                data[c].append(values[c])
    if not data["time_s"]:
        raise BadLog(f"{path}: no coupled call")
    return data


def contact_intervals(t, contact):
    """(start, end) of each run of calls in contact."""
    spans, start = [], None
    for i, c in enumerate(contact):
        if c and start is None:
            start = t[i]
        elif not c and start is not None:
            spans.append((start, t[i]))
            start = None
    if start is not None:
        spans.append((start, t[-1]))
    return spans


def draw(data, output, period, title):
    import matplotlib
    matplotlib.use("Agg")
    import matplotlib.pyplot as plt

    t = data["time_s"]
    force = [math.sqrt(x * x + y * y + z * z) for x, y, z in
             zip(data["coupling_fx"], data["coupling_fy"], data["coupling_fz"])]
    spans = contact_intervals(t, data["contact"])
    fig, (pos, frc, step) = plt.subplots(3, 1, sharex=True, figsize=(10, 8))
    for ax in (pos, frc, step):
        for k, (a, b) in enumerate(spans):
            ax.axvspan(a, b, color="tab:orange", alpha=0.25, lw=0,
                       label="tool on the box" if k == 0 and ax is pos else None)
    pos.plot(t, [1000 * v for v in data["handle_x"]], label="handle", lw=1)
    pos.plot(t, [1000 * v for v in data["tool_x"]], label="tool", lw=1, ls="--")
    pos.plot(t, [1000 * v for v in data["box_x"]], label="box", lw=1.5)
    pos.set_ylabel("x (mm)")
    pos.legend(loc="upper right", fontsize="small")
    frc.plot(t, force, label="coupling force on the tool |F|", lw=1)
    frc.plot(t, data["contact_n"], label="contact normal force", lw=1, alpha=0.8)
    frc.set_ylabel("force (N)")
    frc.legend(loc="upper right", fontsize="small")
    step.plot(t, data["step_us"], ".", ms=1.5, label="MuJoCo's steps in the call")
    if period > 0:
        step.axhline(period * 1e6, color="tab:red", lw=1, label=f"period ({period * 1e6:.0f} us)")
    step.set_yscale("log")
    step.set_ylabel("time per call (us)")
    step.set_xlabel("scene time (s)")
    step.legend(loc="upper right", fontsize="small")
    fig.suptitle(title)
    fig.tight_layout()
    fig.savefig(output)
    plt.close(fig)


def main(argv):
    parser = argparse.ArgumentParser(description="Draws a run of mujoco_push from its log.")
    parser.add_argument("log")
    parser.add_argument("output", nargs="?")
    parser.add_argument("--period", type=float, default=0.001, help="loop period in s (0.001)")
    parser.add_argument("--title", default="mujoco_push")
    args = parser.parse_args(argv)
    output = args.output or os.path.splitext(args.log)[0] + ".png"
    if os.path.splitext(output)[1].lower() not in (".png", ".svg"):
        parser.error("the output must end in .png or .svg")
    try:
        data = read_log(args.log)
        draw(data, output, args.period, args.title)
    except (BadLog, OSError) as e:
        print(f"mujoco_push_plot: {e}", file=sys.stderr)
        return 1
    print(output)
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
