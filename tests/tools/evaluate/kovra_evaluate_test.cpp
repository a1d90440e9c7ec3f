// kovra_evaluate run as a user runs it, on small files from kovra_simulate: the report, the table and the plots
// of a reconstruction scan and of a grouping scan, the time-walk fit, and the outputs it cannot write. (Bad usage:
// EvaluateOptionsTest and ToolCommandLineTest.)

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <sstream>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "RunProgram.hpp"
#include "TempDir.hpp"
#include "tools/common/EarlierFiles.hpp"

namespace {

Program_Outcome evaluate(const TempDir& dir, const std::string& args) {
  return run_program(dir, KOVRA_EVALUATE_PATH, args);
}

/// run.kovraphot and its truth: a quiet source, few flashes of many photons, far apart.
void simulate(const TempDir& dir) {
  const auto r = run_program(dir, KOVRA_SIMULATE_PATH,
                             "-o run.kovraphot -d 0.01 -r 2e4 -n 40 --dark-rate 5e3 --width 20000 --height 20000 "
                             "--seed 3 --truth");
  ASSERT_EQ(r.status, 0) << r.err;
}

/// The photon count kovra_import reports for `arguments`, run in `dir`.
std::string import_photonCount(const TempDir& dir, const std::string& arguments) {
  const auto r = run_program(dir, KOVRA_IMPORT_PATH, arguments);
  const auto at = r.out.find("photons: ");
  if (r.status != 0 || at == std::string::npos) return "(kovra_import failed: " + r.err + ")";
  return r.out.substr(at + 9, r.out.find(' ', at + 9) - at - 9);
}

}  // namespace

TEST(EvaluateProgramTest, ReportsAScanWritesItsTableAndPlots) {
  TempDir dir;
  simulate(dir);
  const auto one = evaluate(dir, "run.kovraphot -s 5 -t 5e-7 -D 2e-6");
  ASSERT_EQ(one.status, 0) << one.err;
  EXPECT_EQ(one.err, "");
  EXPECT_TRUE(one.out.starts_with("setting:        -s 5 -t 5e-07 -D 2e-06 --algorithm default\n")) << one.out;
  // Flashes far apart with generous distances: all found, none merged.
  EXPECT_NE(one.out.find("efficiency:     100 %"), std::string::npos) << one.out;
  EXPECT_NE(one.out.find("merge rate:     0 %"), std::string::npos) << one.out;

  // The plots come from Debian's python3-matplotlib, which scripts/setup.sh installs.
  const std::string grid =
      "run.kovraphot --dSpace-grid 0.5,5 --dTime-grid 1e-8,5e-7 --algorithm-grid "
      "default,fullChain_direct ";
  const auto scan = evaluate(dir, grid + "--csv scan.csv --plots out --threads 1");
  ASSERT_EQ(scan.status, 0) << scan.err;
  for (const char* name : {"heatmaps.png", "psd_best.png"}) {
    const std::string png = read_bytes(dir.file(std::string("out/") + name));
    EXPECT_TRUE(png.size() > 10000 && png.starts_with("\x89PNG")) << name << " " << png.size();
  }
  const std::string csv = read_bytes(dir.file("scan.csv"));
  EXPECT_TRUE(
      csv.starts_with("dSpace_px,dTime_s,algorithm,durationMax_s,dTime_ext,flashes,events,efficiency,"
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
  const auto again = evaluate(dir, grid + "--csv again.csv --threads 3");
  ASSERT_EQ(again.status, 0) << again.err;
  EXPECT_EQ(read_bytes(dir.file("again.csv")), csv);
  EXPECT_EQ(again.out, scan.out.substr(0, scan.out.find("plots: ")));
}

// (A flash file made for other photons: ToolCountsTest, and TruthFilesTest for every check of its own.)
TEST(EvaluateProgramTest, TruthThatCannotBeReadOrDoesNotAgreeAndATableThatCannotBeWrittenAreNamed) {
  TempDir dir;
  simulate(dir);
  // Flash lists beside a copy of the true flash file: cut short, with a wrong header, a line that is not a flash,
  // one photon too many in the first flash.
  const std::string csv = read_bytes(dir.file("run.truth.csv"));
  const std::size_t first = csv.find('\n') + 1;
  const std::string flash = csv.substr(first, csv.find('\n', first) - first);
  const std::size_t count = flash.rfind(',', flash.rfind(',') - 1) + 1;
  const std::string more =
      flash.substr(0, count) + std::to_string(std::stoul(flash.substr(count)) + 1) + flash.substr(flash.rfind(','));
  for (const auto& [name, text] : {std::pair{"cut", csv.substr(0, csv.rfind('\n', csv.size() - 2) + 1)},
                                   {"header", "t,x,y,n,class\n" + csv.substr(first)},
                                   {"line", csv.substr(0, first) + "1e-3,2,three,4,gamma\n" + csv.substr(first)},
                                   {"count", csv.substr(0, first) + more + csv.substr(first + flash.size())}}) {
    write_bytes(dir.file(name + std::string(".truth.csv")), text);
    std::filesystem::copy_file(dir.file("run.truth.kovraflash"), dir.file(name + std::string(".truth.kovraflash")));
  }
  std::filesystem::create_directory(dir.file("taken.csv"));
  const std::pair<std::string, std::string> cases[] = {
      // options, message
      {"--truth missing.truth.csv", "cannot read the truth file 'missing.truth.csv'"},
      {"--truth cut.truth.csv", "flashes, its photon flash file"},
      {"--truth header.truth.csv", "'header.truth.csv': the first line must be t_s,x_px,y_px,nPhotons,class\n"},
      {"--truth line.truth.csv", "line 2: expected time, x, y, photon count and class, got '1e-3,2,three,4,gamma'"},
      {"--truth count.truth.csv", "': flash 0 has "},
      {"--csv taken.csv", "cannot write 'taken.csv': Is a directory\n"},
  };
  for (const auto& [options, message] : cases) {
    const auto r = evaluate(dir, "run.kovraphot -s 5 -t 5e-7 " + options);
    // Bad truth stops the run before its report; the table is written after it.
    EXPECT_EQ(std::tuple(r.status, r.out.empty()), std::tuple(1, options.starts_with("--truth"))) << options;
    EXPECT_TRUE(r.err.starts_with("kovra_evaluate: run.kovraphot: ") && r.err.find(message) != std::string::npos)
        << r.err;
  }
  EXPECT_FALSE(std::filesystem::exists(dir.file("taken.csv.part")));
}

TEST(EvaluateGroupingTest, ScoresTheImportsOwnPhotonsOnAnyThreadCount) {
  TempDir dir;
  // Flashes of 20 photons (blobs that overlap), and of about one photon each, spread wide (blobs alone).
  for (const char* args :
       {"-o dense.kovraphot --raw dense.tpx3", "-o sparse.kovraphot --raw sparse.tpx3 -n 1 --sigma 40"}) {
    const auto r = run_program(dir, KOVRA_SIMULATE_PATH, std::string(args) + " -d 0.002 -r 2e4 --seed 4 --truth");
    ASSERT_EQ(r.status, 0) << r.err;
  }
  // The photons it scores are the import's own: as many as kovra_import writes with the same settings.
  for (const char* setting : {"", "--radius 2 --window 1e-7 --photon-time earliest"}) {
    const std::string count = import_photonCount(dir, std::string("dense.tpx3 -o i.kovraphot ") + setting);
    const auto scored = evaluate(dir, std::string("dense.tpx3 --simulated dense.kovraphot ") + setting);
    ASSERT_EQ(scored.status, 0) << scored.err;
    EXPECT_NE(scored.out.find("; photons made: " + count + "\n"), std::string::npos) << setting << scored.out;
  }
  // Lone blobs: all found with the default window; one too short for the time walk splits them.
  const auto lone = evaluate(dir, "sparse.tpx3 --simulated sparse.kovraphot");
  EXPECT_NE(lone.out.find("efficiency:     100 %"), std::string::npos) << lone.out;
  EXPECT_NE(lone.out.find("merge rate:     0 %"), std::string::npos) << lone.out;
  const auto torn = evaluate(dir, "sparse.tpx3 --simulated sparse.kovraphot --window 2e-9");
  EXPECT_EQ(torn.out.find("split rate:     0 %"), std::string::npos) << torn.out;

  const std::string scan =
      "dense.tpx3 --simulated dense.kovraphot --radius-grid 0,1 --window-grid 1e-8,1e-7 "
      "--photon-time-grid strongest,earliest ";
  const auto plotted = evaluate(dir, scan + "--plots out --csv scan.csv --threads 1");
  ASSERT_EQ(plotted.status, 0) << plotted.err;
  const std::string csv = read_bytes(dir.file("scan.csv"));
  EXPECT_TRUE(csv.starts_with("radius_px,window_s,photon_time,true_photons,photons,efficiency,")) << csv;
  EXPECT_EQ(std::count(csv.begin(), csv.end(), '\n'), 9);
  // A photon's earliest hit comes no later than its strongest: where photons were found, the mean time error of
  // each setting is lower with the earliest.
  std::map<std::string, std::map<std::string, double>> meanTime;  // radius and window -> photon time -> ns
  std::istringstream rows(csv.substr(csv.find('\n') + 1));
  for (std::string row; std::getline(rows, row);) {
    std::vector<std::string> fields;
    std::istringstream cells(row);
    for (std::string cell; std::getline(cells, cell, ',');) fields.push_back(cell);
    ASSERT_EQ(fields.size(), 18u) << row;
    if (fields[13] != "nan") meanTime[fields[0] + ',' + fields[1]][fields[2]] = std::stod(fields[13]);
  }
  EXPECT_EQ(meanTime.size(), 2u);
  for (const auto& [setting, mean] : meanTime) EXPECT_LT(mean.at("earliest"), mean.at("strongest")) << setting;
  EXPECT_TRUE(read_bytes(dir.file("out/heatmaps.png")).starts_with("\x89PNG"));
  EXPECT_FALSE(std::filesystem::exists(dir.file("out/psd_best.png")));
  evaluate(dir, scan + "--csv again.csv --threads 3");
  EXPECT_EQ(read_bytes(dir.file("again.csv")), csv);
  // A hit file made for other photons is refused.
  const auto other = evaluate(dir, "dense.tpx3 --simulated sparse.kovraphot");
  EXPECT_EQ(other.status, 1);
  EXPECT_NE(other.err.find("hit truth file 'dense.truth.kovrahit': made for "), std::string::npos) << other.err;
}

namespace {

/// The rows of a time-walk table: ToT in ns to delay in ticks.
std::map<long, long> read_table(const std::string& path) {
  std::map<long, long> rows;
  std::istringstream lines(read_bytes(path));
  for (std::string line; std::getline(lines, line);) {
    long tot = 0, delay = 0;
    if (!line.starts_with("#") && std::sscanf(line.c_str(), "%ld %ld", &tot, &delay) == 2) rows[tot] = delay;
  }
  return rows;
}

double read_timeSpread(const std::string& report) {
  const auto at = report.find("spread (SD) ");
  return at == std::string::npos ? -1 : std::stod(report.substr(at + 12));
}

}  // namespace

TEST(EvaluateGroupingTest, FittedTimeWalkFollowsTheModelAndNarrowsPhotonTimes) {
  TempDir dir;
  // Lone photons, each a blob whose hits lag by 256 / ToT ticks plus 0 to 3.
  const auto r = run_program(dir, KOVRA_SIMULATE_PATH,
                             "-o sim.kovraphot --raw run.tpx3 -d 0.01 -r 2e5 -n 1 --sigma 40 --seed 5 --truth");
  ASSERT_EQ(r.status, 0) << r.err;
  const auto truth = evaluate(dir, "run.tpx3 --simulated sim.kovraphot --fit-time-walk truth.txt --plots out");
  ASSERT_EQ(truth.status, 0) << truth.err;
  EXPECT_TRUE(read_bytes(dir.file("out/time_walk.png")).starts_with("\x89PNG"));
  const auto fitted = read_table(dir.file("truth.txt"));
  ASSERT_GT(fitted.size(), 20U);
  for (const auto& [tot, delay] : fitted) {
    const long jitter = delay - 256 / (tot / 25);  // the median of 0 to 3
    EXPECT_TRUE(jitter == 1 || jitter == 2) << tot << " ns: " << delay;
  }
  // From the data alone: the same curve, less the delay of the strongest hits.
  const auto data = evaluate(dir, "run.tpx3 --fit-time-walk data.txt --fit-from data");
  ASSERT_EQ(data.status, 0) << data.err;
  const auto relative = read_table(dir.file("data.txt"));
  long lowest = 1000, highest = -1000;
  for (const auto& [tot, delay] : relative) {
    if (!fitted.contains(tot)) continue;
    lowest = std::min(lowest, fitted.at(tot) - delay);
    highest = std::max(highest, fitted.at(tot) - delay);
  }
  EXPECT_LE(highest - lowest, 4) << lowest << " to " << highest;

  // Corrected, a photon's time lies far closer to the truth; kovra_import makes the same photons.
  const std::string setting = " --window 5e-9";
  const double before = read_timeSpread(evaluate(dir, "run.tpx3 --simulated sim.kovraphot" + setting).out);
  const auto after = evaluate(dir, "run.tpx3 --simulated sim.kovraphot --time-walk truth.txt" + setting);
  EXPECT_LT(read_timeSpread(after.out), before / 4) << after.out;
  const std::string count = import_photonCount(dir, "run.tpx3 -o i.kovraphot --time-walk truth.txt" + setting);
  EXPECT_NE(after.out.find("photons made: " + count + "\n"), std::string::npos) << after.out;
}

TEST(EvaluateProgramTest, AWriteRefusedOnTheWayEndsWithItsReasonAndLeavesEarlierFiles) {
  // A full disk, played by a file-size limit whose signal is ignored, so that the write fails instead. The twelve
  // settings make a table of 1.7 kB; the pulse-shape values take 3.7 kB, the heat maps 79 kB.
  const std::string grid = "run.kovraphot --dSpace-grid 0.5,1,2,5 --dTime-grid 1e-8,1e-7,5e-7 ";
  const std::tuple<std::string, int, std::string, std::vector<std::string>> cases[] = {
      // options, limit in bytes, what is said, the files left as they were
      {"--csv scan.csv",
       1000,
       "kovra_evaluate: run.kovraphot: cannot write 'scan.csv': File too large\n",
       {"scan.csv", "out/scan.csv", "out/psd_best.csv", "out/heatmaps.png", "out/psd_best.png"}},
      {"--plots out",
       2000,
       "kovra_evaluate: run.kovraphot: cannot write 'out/psd_best.csv': File too large\n",
       {"scan.csv", "out/psd_best.csv", "out/heatmaps.png", "out/psd_best.png"}},
      {"--plots out",
       10000,
       "kovra_plot_scan.py: cannot write 'out/heatmaps.png': File too large\n",
       {"scan.csv", "out/heatmaps.png", "out/psd_best.png"}},
  };
  const std::vector<std::string> earlier = {"scan.csv", "out/scan.csv", "out/psd_best.csv", "out/heatmaps.png",
                                            "out/psd_best.png"};
  for (const auto& [options, limit, message, unchanged] : cases) {
    TempDir dir;
    simulate(dir);
    write_earlierFiles(dir, earlier);
    const std::string limited = "--ignore-signal=XFSZ prlimit --fsize=" + std::to_string(limit) + " ";
    const auto r = run_program(dir, "env", limited + KOVRA_EVALUATE_PATH " " + grid + options);
    EXPECT_EQ(r.status, 1) << options;
    EXPECT_TRUE(r.err.starts_with(message)) << options << ": " << r.err;
    EXPECT_EQ(get_changedFiles(dir, unchanged), std::vector<std::string>{}) << options;
    EXPECT_EQ(list_folder(dir), (std::vector<std::string>{"out", "out/heatmaps.png", "out/psd_best.csv",
                                                          "out/psd_best.png", "out/scan.csv", "run.kovraphot",
                                                          "run.truth.csv", "run.truth.kovraflash", "scan.csv"}))
        << options;
  }
}
