#!/usr/bin/env python3
"""exposure_table.py: frames until auto exposure settles, per engine, capture
mode and scene, measured with vqxscan on the simulated scan engine.

Each case runs `vqxscan --continue --frames N --exposure-log` in its own
process (the capture mode and the scene are fixed when the driver starts)
and reads the log. A case has settled at the first frame from which every
later frame the client received has its 97th percentile within target +- gap
(120 +- 40 by default); the table shows that frame's number (the driver's
frame number, so frames the client never saw count too), or "-" when the
scan never settled within the frames pulled.

Usage: tools/exposure_table.py [--vqxscan PATH] [--engines X7710,...]
       [--modes 0,2,3,4,5,6,7] [--frames 40] [--markdown]
"""
import argparse
import csv
import os
import subprocess
import sys
import tempfile

# (column, scene, reflectance factor, lights). The flat fields are scanned
# with the illumination only: with the aimer on, the aimer pattern is the
# brightest 3% of a uniform scene's samples and the 97th percentile is the
# aimer's (see the README's auto exposure section).
SCENES = [
    ("barcode x1/16", "barcode", "0.0625", None),
    ("barcode x1", "barcode", "1", None),
    ("barcode x16", "barcode", "16", None),
    ("flat:128 x1/16", "flat:128", "0.0625", "illumination"),
    ("flat:128 x1", "flat:128", "1", "illumination"),
    ("flat:128 x16", "flat:128", "16", "illumination"),
]


def settled_at(rows, target=120, gap=40):
    kept = [r for r in rows if r["kept"] == "1"]
    if not kept:
        return None
    first = None
    for r in kept:
        inside = abs(int(r["p97"]) - target) <= gap
        if inside and first is None:
            first = int(r["frame"])
        elif not inside:
            first = None
    return first


def run_case(vqxscan, engine, mode, scene, scale, lights, frames):
    with tempfile.TemporaryDirectory() as tmp:
        log = os.path.join(tmp, "log.csv")
        cmd = [vqxscan, "--engine", engine, "--capture-mode", str(mode), "--scene", scene,
               "--scene-scale", scale, "--frames", str(frames), "--continue", "--timeout", "10000",
               "--exposure-log", log]
        if lights:
            cmd += ["--lights", lights]
        subprocess.run(cmd, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, timeout=60)
        if not os.path.exists(log):
            return None
        with open(log, newline="") as f:
            return settled_at(list(csv.DictReader(f)))


def main():
    here = os.path.dirname(os.path.abspath(__file__))
    ap = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    ap.add_argument("--vqxscan", default=os.path.join(here, "..", "build", "tools", "vqxscan"))
    ap.add_argument("--engines", default="X7710")
    ap.add_argument("--modes", default="0,2,3,4,5,6,7")
    ap.add_argument("--frames", type=int, default=40)
    ap.add_argument("--lights", default=None,
                    help="lights for every scene (default: the session's for the barcode, illumination for flat fields)")
    ap.add_argument("--markdown", action="store_true", help="print a Markdown table")
    a = ap.parse_args()
    if not os.access(a.vqxscan, os.X_OK):
        sys.exit(f"exposure_table.py: {a.vqxscan} is not built (cmake --build build --target vqxscan)")
    head = ["engine", "mode"] + [s[0] for s in SCENES]
    if a.markdown:
        print("| " + " | ".join(head) + " |")
        print("|" + "---|" * len(head))
    else:
        print("\t".join(head))
    for engine in a.engines.split(","):
        for mode in a.modes.split(","):
            cells = []
            for _, scene, scale, lights in SCENES:
                n = run_case(a.vqxscan, engine, int(mode), scene, scale, a.lights or lights, a.frames)
                cells.append("-" if n is None else str(n))
            row = [engine, mode] + cells
            print(("| " + " | ".join(row) + " |") if a.markdown else "\t".join(row), flush=True)


if __name__ == "__main__":
    main()
