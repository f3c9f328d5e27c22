#!/usr/bin/python3
"""plot_exposure.py: draws a vqxscan exposure log as a PNG.

Usage: tools/plot_exposure.py LOG.csv OUT.png [--target 120] [--gap 40]
       [--title TEXT]

LOG.csv comes from `vqxscan --exposure-log LOG.csv` (add --continue and
--frames N to keep scanning after the barcode is read). The upper panel
shows the frames' 97th percentile and the driver's white value against the
target band; the lower one the exposure and gain the driver reported and
those the simulated sensor really used (log scale). Needs Debian's
python3-matplotlib.
"""
import argparse
import csv
import sys

try:
    import matplotlib
    matplotlib.use("Agg")
    import matplotlib.pyplot as plt
except ImportError:
    sys.exit("plot_exposure.py: matplotlib is missing: apt-get install python3-matplotlib "
             "(and run this script with Debian's /usr/bin/python3)")


def main():
    ap = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    ap.add_argument("log")
    ap.add_argument("out")
    ap.add_argument("--target", type=float, default=120)
    ap.add_argument("--gap", type=float, default=40)
    ap.add_argument("--title", default="")
    a = ap.parse_args()
    with open(a.log, newline="") as f:
        rows = [r for r in csv.DictReader(f) if r["kept"] == "1"]
    if not rows:
        sys.exit(f"plot_exposure.py: {a.log} has no frames")
    frame = [int(r["frame"]) for r in rows]
    fig, (top, bottom) = plt.subplots(2, 1, sharex=True, figsize=(8, 6))
    top.axhspan(a.target - a.gap, a.target + a.gap, color="tab:green", alpha=0.15, label="target +- gap")
    top.axhline(a.target, color="tab:green", lw=1)
    top.plot(frame, [int(r["p97"]) for r in rows], "o-", label="97th percentile of the frame")
    top.plot(frame, [int(r["white_value"]) for r in rows], "x--", label="driver's white value")
    top.set_ylim(0, 260)
    top.set_ylabel("grey level")
    top.legend(loc="lower right", fontsize=8)
    if a.title:
        top.set_title(a.title)
    bottom.plot(frame, [int(r["exposure"]) * int(r["gain"]) / 256.0 for r in rows], "o-",
                label="driver: exposure rows x gain")
    if rows[0]["sensor_rows"]:
        bottom.plot(frame, [int(r["sensor_rows"]) * float(r["sensor_gain"]) for r in rows], "x--",
                    label="sensor: rows x gain really used")
    bottom.set_yscale("log")
    bottom.set_xlabel("frame")
    bottom.set_ylabel("contrast (rows x gain)")
    bottom.legend(loc="lower right", fontsize=8)
    fig.tight_layout()
    fig.savefig(a.out, dpi=90)


if __name__ == "__main__":
    main()
