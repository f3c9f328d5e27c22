#!/usr/bin/env python3
"""Tests of plot_exposure.py: its curves, in each engine's units, must lie on
what the simulated sensor really used (runs of the built vqxscan named by
VQXSCAN), and it draws a PNG where matplotlib is installed."""
import os
import shutil
import statistics
import subprocess
import sys
import tempfile
import unittest

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, HERE)
import plot_exposure  # noqa: E402

VQXSCAN = os.environ.get("VQXSCAN")


def matplotlib_python():
    """A Python that has matplotlib (this one or Debian's), or None."""
    for python in (sys.executable, "/usr/bin/python3"):
        if shutil.which(python) and subprocess.run([python, "-c", "import matplotlib"],
                                                   capture_output=True).returncode == 0:
            return python
    return None


@unittest.skipUnless(VQXSCAN, "VQXSCAN names no built vqxscan")
class Units(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.tmp = tempfile.mkdtemp()

    @classmethod
    def tearDownClass(cls):
        shutil.rmtree(cls.tmp)

    def log(self, engine, *args):
        path = os.path.join(self.tmp, engine + ".csv")
        subprocess.run([VQXSCAN, "--engine", engine, "--frames", "12", "--continue", "--lights", "illumination",
                        "--scene-scale", "0.25", "--exposure-log", path] + list(args),
                       stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, timeout=60)
        return plot_exposure.read_log(path)

    def test_driver_curves_lie_on_the_sensors_for_every_engine_family(self):
        for engine in ("X7710", "X5501", "MT9V022", "RILO", "KELP"):
            with self.subTest(engine=engine):
                meta, rows = self.log(engine)
                self.assertEqual(meta["engine"], engine)
                s, _, _ = plot_exposure.series(meta["engine"], rows)
                self.assertGreaterEqual(len(rows), 10)
                for driver, sensor in (("exposure", "sensor_exposure"), ("gain", "sensor_gain")):
                    ratio = statistics.median(d / t for d, t in zip(s[driver], s[sensor]))
                    self.assertAlmostEqual(ratio, 1.0, delta=0.03, msg=driver)

    def test_title_names_engine_mode_and_scene(self):
        meta, _ = self.log("X5501", "--capture-mode", "2", "--scene", "flat:128")
        self.assertEqual(plot_exposure.title(meta, "X5501"),
                         "X5501 (MT9M114), capture mode 2, scene flat:128 x0.25")

    @unittest.skipUnless(matplotlib_python(), "no Python with matplotlib")
    def test_draws_a_png(self):
        self.log("RILO")
        out = os.path.join(self.tmp, "rilo.png")
        subprocess.run([matplotlib_python(), os.path.join(HERE, "plot_exposure.py"),
                        os.path.join(self.tmp, "RILO.csv"), out], check=True, timeout=120)
        with open(out, "rb") as f:
            self.assertEqual(f.read(8), b"\x89PNG\r\n\x1a\n")


class Unknown(unittest.TestCase):
    def test_unknown_engine_keeps_the_drivers_values(self):
        rows = [{"frame": "1", "p97": "9", "white_value": "9", "exposure": "70", "gain": "300", "kept": "1",
                 "sensor_rows": "", "sensor_gain": "", "sensor_us": ""}]
        s, unit, gain_unit = plot_exposure.series("", rows)
        self.assertEqual((s["exposure"], s["gain"], unit, gain_unit, s["sensor_gain"]),
                         ([70], [300], "engine units", None, None))


if __name__ == "__main__":
    unittest.main()
