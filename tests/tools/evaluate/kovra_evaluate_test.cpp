// kovra_evaluate run as a user runs it, on a small file from kovra_simulate: the report, the table, truth that
// does not belong to the photons, and the plots. (Bad usage: EvaluateOptionsTest and ToolCommandLineTest.)

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "RunProgram.hpp"
#include "TempDir.hpp"

namespace {

Program_Outcome evaluate(const TempDir& dir, const std::string& args) {
  return run_program(dir, KOVRA_EVALUATE_PATH, args);
}

/// A quiet source: few flashes of many photons, far apart.
void simulate(const TempDir& dir, const std::string& name, const std::string& seed, const std::string& more = "") {
  const auto r = run_program(dir, KOVRA_SIMULATE_PATH,
                     "-o " + name + " -d 0.01 -r 2e4 -n 40 --dark-rate 5e3 --width 20000 --height 20000 --seed " +
                         seed + " --truth " + more);
  ASSERT_EQ(r.status, 0) << r.err;
}

}  // namespace

TEST(EvaluateProgramTest, ReportsAScanWritesItsTableAndPlots) {
  TempDir dir;
  simulate(dir, "run.kovraphot", "3");
  const auto one = evaluate(dir, "run.kovraphot -s 5 -t 5e-7 -D 2e-6");
  ASSERT_EQ(one.status, 0) << one.err;
  EXPECT_EQ(one.err, "");
  EXPECT_TRUE(one.out.starts_with("setting:        -s 5 -t 5e-07 -D 2e-06 --algorithm default\n")) << one.out;
  // Flashes far apart with generous distances: all found, none merged.
  EXPECT_NE(one.out.find("efficiency:     100 %"), std::string::npos) << one.out;
  EXPECT_NE(one.out.find("merge rate:     0 %"), std::string::npos) << one.out;

  // The plots come from Debian's python3-matplotlib, which scripts/setup.sh installs.
  const auto scan = evaluate(dir, "run.kovraphot --dSpace-grid 0.5,5 --dTime-grid 1e-8,5e-7 --algorithm-grid "
                                  "default,fullChain_direct --csv scan.csv --plots out");
  ASSERT_EQ(scan.status, 0) << scan.err;
  for (const char* name : {"heatmaps.png", "psd_best.png"}) {
    const std::string png = read_bytes(dir.file(std::string("out/") + name));
    EXPECT_TRUE(png.size() > 10000 && png.starts_with("\x89PNG")) << name << " " << png.size();
  }
  const std::string csv = read_bytes(dir.file("scan.csv"));
  EXPECT_TRUE(csv.starts_with("dSpace_px,dTime_s,algorithm,durationMax_s,dTime_ext,flashes,events,efficiency,"
                              "split_rate,merge_rate,fake_rate,purity,completeness,iou,centroid_rms_px,"
                              "centroid_p95_px,time_rms_ns,time_p95_ns,fom,fom_events,best\n"))
      << csv;
  EXPECT_EQ(std::count(csv.begin(), csv.end(), '\n'), 9);
  // Exactly one best row, and not the smallest setting: half a pixel finds no neighbour.
  const auto smallest = csv.find("\n0.5,1e-08,default,inf,,");
  ASSERT_NE(smallest, std::string::npos) << csv;
  EXPECT_EQ(csv.substr(csv.find('\n', smallest + 1) - 2, 2), ",0");
  std::size_t bestRows = 0;
  for (std::size_t at = csv.find(",1\n"); at != std::string::npos; at = csv.find(",1\n", at + 1)) ++bestRows;
  EXPECT_EQ(bestRows, 1U);
  EXPECT_NE(scan.out.find("<- best"), std::string::npos);
  EXPECT_FALSE(std::filesystem::exists(dir.file("scan.csv.part")));
  // Settings scanned at once on several threads: the same table.
  for (const char* threads : {"1", "3"}) {
    const auto again = evaluate(dir, std::string("run.kovraphot --dSpace-grid 0.5,5 --dTime-grid 1e-8,5e-7 "
                                                 "--algorithm-grid default,fullChain_direct --csv again.csv --threads ") +
                                         threads);
    ASSERT_EQ(again.status, 0) << again.err;
    EXPECT_EQ(read_bytes(dir.file("again.csv")), csv) << threads;
    EXPECT_EQ(again.out, scan.out.substr(0, scan.out.find("plots: "))) << threads;
  }
}

TEST(EvaluateProgramTest, TruthOfOtherPhotonsIsRefused) {
  TempDir dir;
  simulate(dir, "run.kovraphot", "3");
  // The same seed with a wider spread: the same number of photons (none falls off this detector), other places.
  simulate(dir, "wide.kovraphot", "3", "--sigma 1.5");
  // A flash list cut short no longer matches its flash file.
  const std::string csv = read_bytes(dir.file("run.truth.csv"));
  write_bytes(dir.file("cut.truth.csv"), csv.substr(0, csv.rfind('\n', csv.size() - 2) + 1));
  std::filesystem::copy_file(dir.file("run.truth.kovraflash"), dir.file("cut.truth.kovraflash"));
  const std::pair<std::string, std::string> cases[] = {  // truth file, message
      {"wide", "photon flash file 'wide.truth.kovraflash': made for other photons (another seed or other settings)"},
      {"missing", "cannot read the truth file 'missing.truth.csv'"},
      {"cut", "flashes, its photon flash file"},
  };
  for (const auto& [truth, message] : cases) {
    const auto r = evaluate(dir, "run.kovraphot -s 5 -t 5e-7 --truth " + truth + ".truth.csv");
    EXPECT_EQ(std::tuple(r.status, r.out), std::tuple(1, "")) << truth;
    EXPECT_TRUE(r.err.starts_with("kovra_evaluate: run.kovraphot: ") && r.err.find(message) != std::string::npos)
        << r.err;
  }
}

TEST(EvaluateProgramTest, ATableThatCannotBeWrittenSaysWhy) {
  TempDir dir;
  simulate(dir, "run.kovraphot", "3");
  std::filesystem::create_directory(dir.file("taken.csv"));
  const auto r = evaluate(dir, "run.kovraphot -s 5 -t 5e-7 --csv taken.csv");
  EXPECT_EQ(std::tuple(r.status, r.err),
            std::tuple(1, std::string("kovra_evaluate: run.kovraphot: cannot write 'taken.csv': Is a directory\n")));
  EXPECT_FALSE(std::filesystem::exists(dir.file("taken.csv.part")));
}

TEST(EvaluateProgramTest, AWriteRefusedOnTheWayEndsWithItsReasonAndLeavesEarlierFiles) {
  // A full disk, played by a file-size limit whose signal is ignored, so that the write fails instead. The twelve
  // settings make a table of 1.7 kB; the pulse-shape values take 3.7 kB, the heat maps 79 kB.
  const std::string grid = "run.kovraphot --dSpace-grid 0.5,1,2,5 --dTime-grid 1e-8,1e-7,5e-7 ";
  const std::tuple<std::string, int, std::string, std::vector<std::string>> cases[] = {
      // options, limit in bytes, what is said, the files left as they were
      {"--csv scan.csv", 1000, "kovra_evaluate: run.kovraphot: cannot write 'scan.csv': File too large\n",
       {"scan.csv", "out/scan.csv", "out/psd_best.csv", "out/heatmaps.png", "out/psd_best.png"}},
      {"--plots out", 2000, "kovra_evaluate: run.kovraphot: cannot write 'out/psd_best.csv': File too large\n",
       {"scan.csv", "out/psd_best.csv", "out/heatmaps.png", "out/psd_best.png"}},
      {"--plots out", 10000, "kovra_plot_scan.py: cannot write 'out/heatmaps.png': File too large\n",
       {"scan.csv", "out/heatmaps.png", "out/psd_best.png"}},
  };
  for (const auto& [options, limit, message, unchanged] : cases) {
    TempDir dir;
    simulate(dir, "run.kovraphot", "3");
    std::filesystem::create_directory(dir.file("out"));
    for (const char* name : {"scan.csv", "out/scan.csv", "out/psd_best.csv", "out/heatmaps.png", "out/psd_best.png"}) {
      write_bytes(dir.file(name), std::string("earlier ") + name);
    }
    const std::string limited = "--ignore-signal=XFSZ prlimit --fsize=" + std::to_string(limit) + " ";
    const auto r = run_program(dir, "env", limited + KOVRA_EVALUATE_PATH " " + grid + options);
    EXPECT_EQ(r.status, 1) << options;
    EXPECT_TRUE(r.err.starts_with(message)) << options << ": " << r.err;
    for (const std::string& name : unchanged) {
      const std::string bytes = read_bytes(dir.file(name));
      EXPECT_TRUE(bytes == "earlier " + name) << options << ": " << name << " has " << bytes.size();
    }
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(dir.path())) {
      names.push_back(entry.path().lexically_relative(dir.path()));
    }
    std::ranges::sort(names);
    EXPECT_EQ(names, (std::vector<std::string>{"out", "out/heatmaps.png", "out/psd_best.csv", "out/psd_best.png",
                                               "out/scan.csv", "run.kovraphot", "run.truth.csv",
                                               "run.truth.kovraflash", "scan.csv", "stderr.txt", "stdout.txt"}))
        << options;
  }
}
