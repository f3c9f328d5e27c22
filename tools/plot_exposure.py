#!/usr/bin/python3
"""plot_exposure.py: draws a vqxscan exposure log as a PNG.

Usage: tools/plot_exposure.py LOG.csv OUT.png [--target N] [--gap N]
       [--engine TYPE] [--title TEXT]

LOG.csv comes from `vqxscan --exposure-log LOG.csv` (add --continue and
--frames N to keep scanning after the barcode is read). Its first line
names the engine type, capture mode, scene and the driver's target; the
plot reads the engine's units from the engine type (--engine for a log
without it):

  X7710 (AR0144)            exposure in rows, gain in 1/256
  X5501, X5503 (MT9M114)    exposure in rows, gain in 1/512
  MT9V022                   exposure in rows, gain in 1/16
  RILO (Hi704A)             exposure in microseconds, gain in 1/256
  KELP                      exposure in rows, gain in 1/256

Three panels share the frame axis: the frames' 97th percentile and the
driver's white value against the target band (target +- gap, the driver's
from the log unless --target/--gap are given); the exposure the driver
reported and the one the simulated sensor really used, in the engine's
exposure unit; and the gain both reported, as a multiplier (the driver's
divided by the engine's gain unit). On real hardware the sensor's curves are
absent. The title names the engine, capture mode and scene. Needs Debian's
python3-matplotlib.
"""
import argparse
import csv
import sys

# Engine type: (sensor, exposure unit, gain unit: the driver's gain for 1x).
ENGINES = {
    "X7710": ("AR0144", "rows", 256),
    "X5501": ("MT9M114", "rows", 512),
    "X5503": ("MT9M114", "rows", 512),
    "MT9V022": ("MT9V022", "rows", 16),
    "RILO": ("Hi704A", "us", 256),
    "KELP": ("Kelp", "rows", 256),
}


def read_log(path):
    """(settings of the log's first line, rows received by the client)."""
    meta = {}
    with open(path, newline="") as f:
        lines = list(f)
    if lines and lines[0].startswith("#"):
        meta = dict(w.split("=", 1) for w in lines[0][1:].split() if "=" in w)
        lines = lines[1:]
    return meta, [r for r in csv.DictReader(lines) if r["kept"] == "1"]


def series(engine, rows):
    """The curves to draw, in the engine's units: a dict of lists (None
    where the log has no value) and the exposure unit's name."""
    _, unit, gain_unit = ENGINES.get(engine, ("", "engine units", None))
    s = {
        "frame": [int(r["frame"]) for r in rows],
        "p97": [int(r["p97"]) for r in rows],
        "white_value": [int(r["white_value"]) for r in rows],
        "exposure": [int(r["exposure"]) for r in rows],
        "gain": [int(r["gain"]) / gain_unit if gain_unit else int(r["gain"]) for r in rows],
        "sensor_exposure": None,
        "sensor_gain": None,
    }
    if rows and rows[0].get("sensor_gain"):
        column = "sensor_us" if unit == "us" else "sensor_rows"
        if all(r.get(column) for r in rows):
            s["sensor_exposure"] = [float(r[column]) for r in rows]
        s["sensor_gain"] = [float(r["sensor_gain"]) for r in rows]
    return s, unit, gain_unit


def title(meta, engine, extra=""):
    sensor = ENGINES.get(engine, ("",))[0]
    parts = [f"{engine} ({sensor})" if sensor else engine or "engine unknown"]
    if meta.get("capture_mode", "unknown") != "unknown":
        parts.append(f"capture mode {meta['capture_mode']}")
    if meta.get("scene", "unknown") != "unknown":
        scale = meta.get("scene_scale", "1")
        parts.append(f"scene {meta['scene']}" + ("" if scale == "1" else f" x{scale}"))
    return ", ".join(parts) + (f": {extra}" if extra else "")


def main(argv=None):
    ap = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    ap.add_argument("log")
    ap.add_argument("out")
    ap.add_argument("--target", type=float, default=None, help="default: the driver's, from the log (120)")
    ap.add_argument("--gap", type=float, default=None, help="default: the driver's, from the log (40)")
    ap.add_argument("--engine", default=None, help="engine type, for a log that does not name it")
    ap.add_argument("--title", default="", help="added to the title")
    a = ap.parse_args(argv)
    try:
        import matplotlib
        matplotlib.use("Agg")
        import matplotlib.pyplot as plt
        import matplotlib.ticker
    except ImportError:
        sys.exit("plot_exposure.py: matplotlib is missing: apt-get install python3-matplotlib "
                 "(and run this script with Debian's /usr/bin/python3)")
    meta, rows = read_log(a.log)
    if not rows:
        sys.exit(f"plot_exposure.py: {a.log} has no frames")
    engine = a.engine or meta.get("engine", "")
    if engine not in ENGINES:
        print(f"plot_exposure.py: engine type {engine or '(none)'} has no known units: "
              "exposure and gain are drawn as the driver reported them", file=sys.stderr)
    target = a.target if a.target is not None else float(meta.get("target", 120))
    gap = a.gap if a.gap is not None else float(meta.get("gap", 40))
    s, unit, gain_unit = series(engine, rows)

    fig, (top, middle, bottom) = plt.subplots(3, 1, sharex=True, figsize=(8, 8))
    top.axhspan(target - gap, target + gap, color="tab:green", alpha=0.15,
                label=f"target {target:g} +- {gap:g}")
    top.axhline(target, color="tab:green", lw=1)
    top.plot(s["frame"], s["p97"], "o-", label="97th percentile of the frame")
    top.plot(s["frame"], s["white_value"], "x--", label="driver's white value")
    top.set_ylim(0, 260)
    top.set_ylabel("grey level")
    top.legend(loc="lower right", fontsize=8)
    top.set_title(title(meta, engine, a.title), fontsize=10)

    middle.plot(s["frame"], s["exposure"], "o-", label="driver")
    if s["sensor_exposure"]:
        middle.plot(s["frame"], s["sensor_exposure"], "x--", label="sensor, really used")
    middle.set_yscale("log")
    middle.set_ylabel({"rows": "exposure (rows)", "us": "exposure (us)"}.get(unit, "exposure (engine units)"))
    middle.legend(loc="lower right", fontsize=8)

    bottom.plot(s["frame"], s["gain"], "o-", label=f"driver (its value / {gain_unit})" if gain_unit else "driver")
    if s["sensor_gain"]:
        bottom.plot(s["frame"], s["sensor_gain"], "x--", label="sensor, really used")
    bottom.set_yscale("log")
    bottom.set_ylabel("gain (x)" if gain_unit else "gain (engine units)")
    bottom.set_xlabel("frame (the driver's number)")
    bottom.legend(loc="lower right", fontsize=8)
    plain = matplotlib.ticker.FuncFormatter(lambda v, _: f"{v:g}")
    for axis in (middle.yaxis, bottom.yaxis):
        axis.set_major_formatter(plain)
        axis.set_minor_formatter(plain)
    fig.tight_layout()
    fig.savefig(a.out, dpi=90)
    return 0


if __name__ == "__main__":
    sys.exit(main())
