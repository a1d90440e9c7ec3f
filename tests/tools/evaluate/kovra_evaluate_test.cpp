// kovra_evaluate run as a user runs it, on a small file from kovra_simulate: the report, the table, truth that
// does not belong to the photons, bad usage, and the plots.

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <string>

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

TEST(EvaluateProgramTest, ReportsAScanAndWritesItsTable) {
  TempDir dir;
  simulate(dir, "run.kovraphot", "3");
  const auto one = evaluate(dir, "run.kovraphot -s 5 -t 5e-7 -D 2e-6");
  ASSERT_EQ(one.status, 0) << one.err;
  EXPECT_EQ(one.err, "");
  EXPECT_TRUE(one.out.starts_with("setting:        -s 5 -t 5e-07 -D 2e-06 --algorithm default\n")) << one.out;
  // Flashes far apart with generous distances: all found, none merged.
  EXPECT_NE(one.out.find("efficiency:     100 %"), std::string::npos) << one.out;
  EXPECT_NE(one.out.find("merge rate:     0 %"), std::string::npos) << one.out;

  const auto scan = evaluate(dir, "run.kovraphot --dSpace-grid 0.5,5 --dTime-grid 1e-8,5e-7 --algorithm-grid "
                                  "default,fullChain_direct --csv scan.csv");
  ASSERT_EQ(scan.status, 0) << scan.err;
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
}

TEST(EvaluateProgramTest, TruthOfOtherPhotonsIsRefused) {
  TempDir dir;
  simulate(dir, "run.kovraphot", "3");
  simulate(dir, "seed.kovraphot", "4");
  // The same seed with a wider spread: the same number of photons (none falls off this detector), other places.
  simulate(dir, "wide.kovraphot", "3", "--sigma 1.5");
  const struct {
    std::string args;
    std::string message;
  } cases[] = {
      {"run.kovraphot -s 5 -t 5e-7 --truth wide.truth.csv",
       "photon flash file 'wide.truth.kovraflash': made for other photons (another seed or other settings)"},
      {"run.kovraphot -s 5 -t 5e-7 --truth seed.truth.csv", "photon flash file 'seed.truth.kovraflash': made for "},
      {"run.kovraphot -s 5 -t 5e-7 --truth missing.truth.csv", "cannot read the truth file 'missing.truth.csv'"},
  };
  for (const auto& c : cases) {
    const auto r = evaluate(dir, c.args);
    EXPECT_EQ(r.status, 1) << c.args;
    EXPECT_TRUE(r.err.starts_with("kovra_evaluate: run.kovraphot: " + c.message)) << r.err;
    EXPECT_EQ(r.out, "") << c.args;
  }
  // A flash list cut short no longer matches its flash file.
  const std::string csv = read_bytes(dir.file("run.truth.csv"));
  write_bytes(dir.file("cut.truth.csv"), csv.substr(0, csv.rfind('\n', csv.size() - 2) + 1));
  std::filesystem::copy_file(dir.file("run.truth.kovraflash"), dir.file("cut.truth.kovraflash"));
  const auto cut = evaluate(dir, "run.kovraphot -s 5 -t 5e-7 --truth cut.truth.csv");
  EXPECT_EQ(cut.status, 1);
  EXPECT_NE(cut.err.find("flashes, its photon flash file"), std::string::npos) << cut.err;
}

TEST(EvaluateProgramTest, BadUsageGetsStatusTwo) {
  TempDir dir;
  const auto r = evaluate(dir, "run.kovraphot --dSpace-grid 1,-2 -t 1e-7");
  EXPECT_EQ(r.status, 2);
  EXPECT_EQ(r.err, "kovra_evaluate: option --dSpace-grid must not be negative, got \"-2\"\n"
                   "Try 'kovra_evaluate --help'.\n");
  const auto help = evaluate(dir, "--help");
  EXPECT_EQ(help.status, 0);
  EXPECT_TRUE(help.out.starts_with("Usage: kovra_evaluate FILE.kovraphot [options]\n"));
}

TEST(EvaluateProgramTest, PlotsAreWrittenWithMatplotlib) {
  if (std::system("/usr/bin/python3 -c 'import matplotlib' >/dev/null 2>&1") != 0) {
    GTEST_SKIP() << "Debian's python3-matplotlib is not installed";
  }
  TempDir dir;
  simulate(dir, "run.kovraphot", "3");
  const auto r = evaluate(dir, "run.kovraphot --dSpace-grid 2,5 --dTime-grid 1e-7,5e-7 --plots out");
  ASSERT_EQ(r.status, 0) << r.err;
  for (const char* name : {"heatmaps.png", "psd_best.png"}) {
    const std::string png = read_bytes(dir.file(std::string("out/") + name));
    EXPECT_TRUE(png.size() > 10000 && png.starts_with("\x89PNG")) << name << " " << png.size();
  }
}
