#!/usr/bin/env python3
"""exposure_table.py: frames until auto exposure settles, per engine, capture
mode and scene, measured with vqxscan on the simulated scan engine.

Each case runs `vqxscan --continue --frames N --exposure-log` in its own
process (the capture mode and the scene are fixed when the driver starts),
--runs times (default 3), and reads each log. A run has settled at the first
frame from which every later frame the client received has its 97th
percentile within target +- gap (120 +- 40 by default): that frame's number
(the driver's frame number, so frames the client never saw count too). A run
that never settled is "limit" when the driver's exposure and gain stayed the
same over its last frames (the loop rests at the engine's longest or
shortest setting) and "-" otherwise (still moving when the frames ran out).

A cell shows the median of the runs' frames and their range, "8 (7-9)", or
one number when all runs agree; "limit" or "-" when every run says so; the
runs' results in order when they are mixed; and "error" when vqxscan failed
in any run (exit code other than 0, read, and 1, not read, or no log), with
vqxscan's message on stderr. The script exits 1 when any run failed.

Usage: tools/exposure_table.py [--vqxscan PATH] [--engines X7710,...]
       [--modes 0,2,3,4,5,6,7] [--scenes "barcode x1,..."] [--frames 40]
       [--runs 3] [--lights MODE] [--markdown]
"""
import argparse
import csv
import os
import statistics
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

# Frames at the end of an unsettled run whose exposure and gain must all be
# the same for the loop to count as resting at a limit.
REST_FRAMES = 4


def read_log(path):
    """The rows of a vqxscan exposure log (its "# key=value ..." line skipped)."""
    with open(path, newline="") as f:
        return list(csv.DictReader(line for line in f if not line.startswith("#")))


def settled_at(rows, target=120, gap=40):
    """The driver's frame number from which every kept frame is in the band."""
    first = None
    for r in rows:
        if r["kept"] != "1":
            continue
        inside = abs(int(r["p97"]) - target) <= gap
        if inside and first is None:
            first = int(r["frame"])
        elif not inside:
            first = None
    return first


def outcome(rows, target=120, gap=40):
    """A settled frame number, "limit" or "-" for one run's log rows."""
    n = settled_at(rows, target, gap)
    if n is not None:
        return n
    kept = [(r["exposure"], r["gain"]) for r in rows if r["kept"] == "1"]
    if len(kept) >= REST_FRAMES and len(set(kept[-REST_FRAMES:])) == 1:
        return "limit"
    return "-"


def run_once(vqxscan, engine, mode, scene, scale, lights, frames):
    """One vqxscan run: (outcome, None) or ("error", vqxscan's message)."""
    with tempfile.TemporaryDirectory() as tmp:
        log = os.path.join(tmp, "log.csv")
        cmd = [vqxscan, "--engine", engine, "--capture-mode", str(mode), "--scene", scene,
               "--scene-scale", scale, "--frames", str(frames), "--continue", "--timeout", "10000",
               "--exposure-log", log]
        if lights:
            cmd += ["--lights", lights]
        try:
            p = subprocess.run(cmd, stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, text=True,
                               errors="replace", timeout=60)
        except (OSError, subprocess.TimeoutExpired) as e:
            return "error", str(e)
        # vqxscan's own message, after the simulator's when it gave one.
        said = [line for line in p.stderr.splitlines() if line.startswith(("vqxscan:", "vqxsim:"))]
        message = " / ".join(said[-2:]) if said else (p.stderr.strip().splitlines() or [""])[-1]
        if p.returncode not in (0, 1):
            return "error", f"exit code {p.returncode}: {message}"
        if not os.path.exists(log):
            return "error", f"no exposure log: {message}"
        return outcome(read_log(log)), None


def cell(results):
    """The table cell for the outcomes of a case's runs."""
    if "error" in results:
        return "error"
    numbers = [r for r in results if isinstance(r, int)]
    if len(numbers) == len(results):
        low, high, mid = min(numbers), max(numbers), statistics.median(numbers)
        return f"{mid:g}" if low == high else f"{mid:g} ({low}-{high})"
    if len(set(results)) == 1:
        return results[0]
    return ", ".join(str(r) for r in results)


def main(argv=None):
    here = os.path.dirname(os.path.abspath(__file__))
    ap = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    ap.add_argument("--vqxscan", default=os.path.join(here, "..", "build", "tools", "vqxscan"))
    ap.add_argument("--engines", default="X7710")
    ap.add_argument("--modes", default="0,2,3,4,5,6,7")
    ap.add_argument("--scenes", default=None,
                    help="columns to measure, comma separated (default all: "
                         + ", ".join(s[0] for s in SCENES) + ")")
    ap.add_argument("--frames", type=int, default=40)
    ap.add_argument("--runs", type=int, default=3, help="runs per case (default 3)")
    ap.add_argument("--lights", default=None,
                    help="lights for every scene (default: the session's for the barcode, illumination for flat fields)")
    ap.add_argument("--markdown", action="store_true", help="print a Markdown table")
    a = ap.parse_args(argv)
    if a.runs < 1:
        ap.error("--runs must be at least 1")
    scenes = SCENES
    if a.scenes:
        wanted = a.scenes.split(",")
        unknown = [w for w in wanted if w not in [s[0] for s in SCENES]]
        if unknown:
            ap.error(f"unknown scene column {unknown[0]!r}")
        scenes = [s for s in SCENES if s[0] in wanted]
    if not os.access(a.vqxscan, os.X_OK):
        sys.exit(f"exposure_table.py: {a.vqxscan} is not built (cmake --build build --target vqxscan)")
    head = ["engine", "capture mode"] + [s[0] for s in scenes]
    if a.markdown:
        print("| " + " | ".join(head) + " |")
        print("|" + "---|" * len(head))
    else:
        print("\t".join(head))
    errors = 0
    for engine in a.engines.split(","):
        for mode in a.modes.split(","):
            cells = []
            for column, scene, scale, lights in scenes:
                results = []
                for run in range(1, a.runs + 1):
                    result, message = run_once(a.vqxscan, engine, mode, scene, scale,
                                               a.lights or lights, a.frames)
                    results.append(result)
                    if message is not None:
                        errors += 1
                        print(f"exposure_table.py: {engine} mode {mode} {column} run {run}: {message}",
                              file=sys.stderr, flush=True)
                cells.append(cell(results))
            row = [engine, mode] + cells
            print(("| " + " | ".join(row) + " |") if a.markdown else "\t".join(row), flush=True)
    return 1 if errors else 0


if __name__ == "__main__":
    sys.exit(main())
