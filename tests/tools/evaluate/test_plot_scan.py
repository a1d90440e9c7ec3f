"""The plotting script of kovra_evaluate: which rows it draws where, the files it writes, and a scan without a
best row (a grouping scan's pictures, drawn by the program: EvaluateGroupingTest). Run by CTest with Debian's
/usr/bin/python3 and the script's directory on sys.path."""

from __future__ import annotations

import math
import os
import tempfile
import unittest

import kovra_plot_scan as plot

HEADER = ("dSpace_px,dTime_s,algorithm,durationMax_s,dTime_ext,flashes,events,efficiency,split_rate,merge_rate,"
          "fake_rate,purity,completeness,iou,centroid_rms_px,centroid_p95_px,time_rms_ns,time_p95_ns,fom,"
          "fom_events,best\n")


def row(space: str, time: str, algorithm: str, efficiency: str, best: bool) -> str:
    return f"{space},{time},{algorithm},inf,,10,10,{efficiency},0,0,0,1,1,1,0.3,0.5,1,2,nan,0,{int(best)}\n"


class PlotScanTest(unittest.TestCase):
    def write(self, directory: str, rows: list[str], psd: str) -> None:
        with open(os.path.join(directory, "scan.csv"), "w") as f:
            f.write(HEADER + "".join(rows))
        with open(os.path.join(directory, "psd_best.csv"), "w") as f:
            f.write("class,psd_ns,nPhotons\n" + psd)

    def test_grid_holds_the_best_rows_plane_by_time_then_space_and_both_pictures_are_drawn(self) -> None:
        with tempfile.TemporaryDirectory() as d:
            self.write(d, [row("5", "1e-07", "default", "0.9", False), row("2", "1e-07", "default", "0.5", False),
                           row("2", "5e-07", "default", "0.7", True),
                           row("2", "5e-07", "fullChain_direct", "0.1", False)], "")
            rows = plot.read_rows(os.path.join(d, "scan.csv"))
            best = next(r for r in rows if r["best"] == "1")
            spaces, times, grid = plot.plane_grid(rows, best, "efficiency")
            self.assertEqual(spaces, [2.0, 5.0])
            self.assertEqual(times, [1e-7, 5e-7])
            self.assertEqual(grid[0].tolist(), [0.5, 0.9])
            self.assertEqual(grid[1, 0], 0.7)  # not the other algorithm's 0.1
            self.assertTrue(math.isnan(grid[1, 1]))
            # Both pictures, even without classified events.
            self.assertEqual(plot.main(["kovra_plot_scan.py", d]), 0)
            for name in ("heatmaps.png", "psd_best.png"):
                with open(os.path.join(d, name), "rb") as f:
                    self.assertEqual(f.read(4), b"\x89PNG")

    def test_a_grouping_scan_draws_radius_by_window_of_the_best_photon_time(self) -> None:
        header = ("radius_px,window_s,photon_time,true_photons,photons,efficiency,split_rate,merge_rate,purity,"
                  "completeness,iou,position_rms_px,position_p95_px,time_mean_ns,time_sd_ns,time_rms_ns,"
                  "time_p95_ns,best\n")

        def grouping(radius: str, window: str, time: str, efficiency: str, best: bool) -> str:
            return f"{radius},{window},{time},10,10,{efficiency},0,0,1,1,1,0.5,1,3,2,4,5,{int(best)}\n"

        with tempfile.TemporaryDirectory() as d:
            with open(os.path.join(d, "scan.csv"), "w") as f:
                f.write(header + grouping("1", "1e-07", "earliest", "0.3", True) +
                        grouping("0", "1e-07", "earliest", "0.1", False) +
                        grouping("1", "1e-07", "strongest", "0.9", False) +
                        grouping("1", "2e-08", "earliest", "0.2", False))
            rows = plot.read_rows(os.path.join(d, "scan.csv"))
            best = next(r for r in rows if r["best"] == "1")
            radii, windows, grid = plot.plane_grid(rows, best, "efficiency")
            self.assertEqual((radii, windows), ([0.0, 1.0], [2e-8, 1e-7]))
            self.assertEqual(grid[1].tolist(), [0.1, 0.3])  # not the strongest plane's 0.9

    def test_a_time_walk_alone_is_drawn_without_a_scan(self) -> None:
        with tempfile.TemporaryDirectory() as d:
            with open(os.path.join(d, "time_walk.csv"), "w") as f:
                f.write("tot_ns,hits,delay_ticks,p16_ticks,p84_ticks\n50,30,130,128,131\n75,25,87,85,88\n")
            self.assertEqual(plot.main(["kovra_plot_scan.py", d]), 0)
            with open(os.path.join(d, "time_walk.png"), "rb") as f:
                self.assertEqual(f.read(4), b"\x89PNG")
            self.assertFalse(os.path.exists(os.path.join(d, "heatmaps.png")))

    def test_a_scan_without_best_row_is_refused(self) -> None:
        with tempfile.TemporaryDirectory() as d:
            self.write(d, [row("2", "1e-07", "default", "0.5", False)], "")
            self.assertEqual(plot.main(["kovra_plot_scan.py", d]), 1)
            self.assertFalse(os.path.exists(os.path.join(d, "heatmaps.png")))


if __name__ == "__main__":
    unittest.main()
