#!/usr/bin/env python3
"""Tests of exposure_table.py: against a stand-in vqxscan whose runs are
scripted (so the right cell is known), and, when VQXSCAN names the built
vqxscan, against the simulated engine."""
import contextlib
import io
import json
import os
import sys
import tempfile
import unittest

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import exposure_table  # noqa: E402

# A stand-in for vqxscan: each call takes the next run of the JSON plan in
# $PLAN (its position kept in $PLAN.n) and writes that run's log, message
# and exit code. A run: {"p97": [...], "exposure": [...], "code": 0,
# "stderr": "..."}; no "p97" writes no log.
FAKE = r'''#!/usr/bin/env python3
import json, os, sys
plan_file = os.environ["PLAN"]
runs = json.load(open(plan_file))
n = int(open(plan_file + ".n").read()) if os.path.exists(plan_file + ".n") else 0
open(plan_file + ".n", "w").write(str(n + 1))
run = runs[n]
log = sys.argv[sys.argv.index("--exposure-log") + 1]
if "p97" in run:
    exposure = run.get("exposure", [100] * len(run["p97"]))
    with open(log, "w") as f:
        f.write("# engine=X7710 capture_mode=3 scene=barcode\n")
        f.write("frame,time_ms,white_value,p97,exposure,gain,sensor_rows,sensor_gain,sensor_frame,kept\n")
        for i, (p, e) in enumerate(zip(run["p97"], exposure), 1):
            f.write(f"{i},{i * 16},{p},{p},{e},256,,,,1\n")
sys.stderr.write(run.get("stderr", ""))
sys.exit(run.get("code", 0))
'''


def rows(p97, kept=None):
    kept = kept or [1] * len(p97)
    return [{"frame": str(i), "p97": str(p), "kept": str(k), "exposure": "1", "gain": "1"}
            for i, (p, k) in enumerate(zip(p97, kept), 1)]


class Outcomes(unittest.TestCase):
    def test_settles_at_first_frame_of_the_last_run_inside_the_band(self):
        self.assertEqual(exposure_table.settled_at(rows([20, 100, 250, 90, 130, 150])), 4)

    def test_frames_the_client_never_saw_do_not_break_the_run(self):
        self.assertEqual(exposure_table.settled_at(rows([20, 250, 100, 120], kept=[1, 0, 1, 1])), 3)

    def test_cells(self):
        self.assertEqual(exposure_table.cell([7, 9, 8]), "8 (7-9)")
        self.assertEqual(exposure_table.cell([7, 7, 7]), "7")
        self.assertEqual(exposure_table.cell(["limit"] * 3), "limit")
        self.assertEqual(exposure_table.cell([7, "limit", 9]), "7, limit, 9")
        self.assertEqual(exposure_table.cell([7, "error", 9]), "error")


class Script(unittest.TestCase):
    def run_table(self, plan, *args):
        with tempfile.TemporaryDirectory() as tmp:
            fake = os.path.join(tmp, "vqxscan")
            with open(fake, "w") as f:
                f.write(FAKE.replace("#!/usr/bin/env python3", "#!" + sys.executable, 1))
            os.chmod(fake, 0o755)
            os.environ["PLAN"] = os.path.join(tmp, "plan.json")
            with open(os.environ["PLAN"], "w") as f:
                json.dump(plan, f)
            out, err = io.StringIO(), io.StringIO()
            with contextlib.redirect_stdout(out), contextlib.redirect_stderr(err):
                code = exposure_table.main(["--vqxscan", fake, "--modes", "3", "--scenes", "barcode x1"]
                                           + list(args))
            return code, out.getvalue().splitlines()[-1].split("\t"), err.getvalue()

    def test_three_runs_by_default_median_and_range(self):
        plan = [{"p97": [20] * (n - 1) + [120] * 5} for n in (7, 9, 8)]
        code, row, _ = self.run_table(plan)
        self.assertEqual((code, row), (0, ["X7710", "3", "8 (7-9)"]))

    def test_runs_option(self):
        plan = [{"p97": [20] * (n - 1) + [120] * 5} for n in (4, 2, 6, 5, 9)]
        self.assertEqual(self.run_table(plan, "--runs", "5")[1][2], "5 (2-9)")

    def test_resting_out_of_the_band_is_limit_moving_is_not(self):
        resting = {"p97": [255] * 10, "exposure": [50, 20, 10, 5, 5, 5, 5, 5, 5, 5], "code": 1}
        moving = {"p97": [255] * 10, "exposure": [90, 80, 70, 60, 50, 40, 30, 20, 10, 5], "code": 1}
        self.assertEqual(self.run_table([resting] * 3)[1][2], "limit")
        self.assertEqual(self.run_table([moving] * 3)[1][2], "-")

    def test_a_failed_run_is_an_error_with_vqxscans_message_and_exit_1(self):
        failed = {"code": 3, "stderr": "vqxsim: engine type \"FOO\" is not simulated\n"
                                       "vqxscan: no session with the scan engine could be opened\n"}
        code, row, err = self.run_table([{"p97": [120] * 5}, failed, {"p97": [120] * 5}])
        self.assertEqual((code, row[2]), (1, "error"))
        self.assertIn("run 2: exit code 3: vqxsim: engine type \"FOO\" is not simulated / "
                      "vqxscan: no session", err)

    def test_a_run_without_a_log_is_an_error(self):
        code, row, err = self.run_table([{"code": 0}] * 3)
        self.assertEqual((code, row[2]), (1, "error"))
        self.assertIn("no exposure log", err)


@unittest.skipUnless(os.environ.get("VQXSCAN"), "VQXSCAN names no built vqxscan")
class Simulated(unittest.TestCase):
    def table(self, *args):
        out, err = io.StringIO(), io.StringIO()
        with contextlib.redirect_stdout(out), contextlib.redirect_stderr(err):
            code = exposure_table.main(["--vqxscan", os.environ["VQXSCAN"], "--modes", "3"] + list(args))
        return code, out.getvalue().splitlines()[-1].split("\t"), err.getvalue()

    def test_unknown_engine_is_an_error(self):
        code, row, err = self.table("--engines", "FOO", "--runs", "1", "--scenes", "barcode x1")
        self.assertEqual((code, row[2]), (1, "error"))
        self.assertIn('engine type "FOO" is not simulated', err)

    def test_label_settles_and_rilo_rests_at_its_shortest_exposure(self):
        # The label at x1 settles within the first frames; the Rilo cannot
        # darken a label 16 times too bright below its 200 us.
        code, row, _ = self.table("--engines", "RILO", "--runs", "1", "--lights", "illumination",
                                  "--scenes", "barcode x1,barcode x16")
        self.assertEqual(code, 0)
        self.assertRegex(row[2], r"^[1-5]$")
        self.assertEqual(row[3], "limit")


if __name__ == "__main__":
    unittest.main()
