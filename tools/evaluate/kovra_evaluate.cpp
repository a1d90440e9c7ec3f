// kovra_evaluate: scores event reconstructions of a simulated photon file against its true flashes, for one
// setting or a grid of them, and writes the table and the plots.

#include <unistd.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <iostream>
#include <optional>
#include <stdexcept>
#include <string>
#include <system_error>
#include <vector>

#include "common/CommandLine.hpp"
#include "common/OutputFolders.hpp"
#include "common/Progress.hpp"
#include "common/PythonScript.hpp"
#include "evaluate/EvaluateOptions.hpp"
#include "evaluate/GroupingScan.hpp"
#include "evaluate/Metrics.hpp"
#include "evaluate/Scan.hpp"
#include "evaluate/TimeWalkFit.hpp"
#include "evaluate/Truth.hpp"
#include "kovra/tpx3spidr/Tpx3Spidr.hpp"

namespace {

using namespace kovra::evaluate;

void print_table(std::ostream& out, const std::vector<Scan_Row>& rows, std::size_t best) {
  char line[256];
  std::snprintf(line, sizeof line, "%9s %10s %-33s %10s %8s %8s %8s %8s %9s %7s\n", "dSpace_px", "dTime_s", "algorithm",
                "durMax_s", "effic.", "split", "merge", "fake", "centr_px", "FoM");
  out << line;
  for (std::size_t r = 0; r < rows.size(); ++r) {
    const auto& s = rows[r].setting;
    const auto& m = rows[r].metrics;
    std::snprintf(line, sizeof line, "%9.4g %10.4g %-33s %10.4g %8.4f %8.4f %8.4f %8.4f %9.4f %7.3f%s\n", s.dSpace_px,
                  s.dTime_s, s.algorithm.c_str(), s.durationMax_s, m.efficiency, m.split_rate, m.merge_rate,
                  m.fake_rate, m.centroid_rms_px, m.fom, r == best ? "  <- best" : "");
    out << line;
  }
}

/// Makes the missing folders of the outputs, as kovra_brantel does, before the work starts.
void create_outputFolders(const Evaluate_Options& options) {
  std::error_code error;
  if (options.csvFile && (error = kovra::tools::create_outputFolders(*options.csvFile))) {
    throw std::runtime_error("cannot write '" + *options.csvFile + "': " + error.message());
  }
  if (options.plotDir && (error = kovra::tools::create_folders(*options.plotDir))) {
    throw std::runtime_error("cannot write '" + *options.plotDir + "': " + error.message());
  }
}

/// Fits a time-walk table to the hits as read and writes it (and its plot data).
void fit_timeWalk(const Evaluate_Options& options, const Grouping_Truth& data,
                  const std::vector<kovra::tpx3spidr::PhotonEvent>& photons) {
  const auto& grid = options.groupingGrid;
  const Fit_Reference reference = options.fitFromData ? Fit_Reference::data : Fit_Reference::truth;
  const auto points = kovra::evaluate::fit_timeWalk(data, photons, reference, grid.radius_px.front(),
                                                    kovra::import::detail::to_ticks(grid.window_s.front()));
  std::string origin = options.inputFile + (options.fitFromData ? "" : " against the simulator's truth");
  if (options.fitFromData) {
    origin += " from the data alone: hits against the strongest hit of their photon (--radius " +
              std::to_string(grid.radius_px.front()) + " --window " + format_number(grid.window_s.front()) + ")";
  }
  write_timeWalkTable(options.fitTimeWalkFile, points, origin);
  std::uint64_t hits = 0;
  for (const auto& p : points) hits += p.hits;
  std::cout << "time walk:      " << kovra::tools::format_count(points.size(), "ToT value") << " fitted from "
            << kovra::tools::format_count(hits, "hit") << ", written to " << options.fitTimeWalkFile << "\n";
  if (options.plotDir) write_timeWalkCsv(*options.plotDir + "/time_walk.csv", points);
}

/// The grouping of a simulated raw file's hits into photons, scored against the photons it was simulated from;
/// and the fit of a time-walk table, when asked for.
void run_groupingEvaluate(const Evaluate_Options& options, kovra::tools::Progress& progress) {
  std::optional<kovra::import::Time_Walk> walk;
  if (!options.timeWalkFile.empty()) walk = kovra::import::read_timeWalk(options.timeWalkFile);
  const bool scored = !options.simulatedFile.empty();
  const auto photons = scored ? kovra::tpx3spidr::FileHandler_PhotonEvents{}.load_file(options.simulatedFile)
                              : kovra::tpx3spidr::Data_PhotonEvents{};
  const Grouping_Truth data = load_groupingTruth(options.inputFile, scored ? options.truthFile : std::string(),
                                                 photons.photonEvents, walk ? &*walk : nullptr);
  if (!options.fitTimeWalkFile.empty()) fit_timeWalk(options, data, photons.photonEvents);
  if (scored) {
    const Evaluator evaluator(data.truth, Found_Rule::ownEvent);
    const unsigned threads = options.threads ? *options.threads : kovra::get_threadCount();
    const auto rows = run_groupingScan(options.groupingGrid, data, evaluator, progress, threads);
    // Among equally efficient settings, the one whose photon times lie closest to the truth.
    const double mergeMax = options.mergeMax.value_or(1.0);
    const std::size_t best = find_best(rows, mergeMax, [](const Reconstruction_Metrics& m) { return -m.time_rms_ns; });
    if (rows.size() > 1) {
      print_groupingTable(std::cout, rows, best);
      std::cout << "\nbest setting (highest efficiency with a merge rate at most " << format_number(mergeMax) << "):\n";
    }
    print_groupingReport(std::cout, rows[best], data);
    if (options.csvFile) write_groupingCsv(*options.csvFile, rows, best);
    if (options.plotDir) write_groupingCsv(*options.plotDir + "/scan.csv", rows, best);
  }
  if (options.plotDir) {
    kovra::tools::run_pythonScript("kovra_plot_scan.py", {*options.plotDir});
    std::cout << "plots: " << *options.plotDir << (scored ? "/heatmaps.png" : "")
              << (scored && !options.fitTimeWalkFile.empty() ? ", " + *options.plotDir : "")
              << (options.fitTimeWalkFile.empty() ? "" : "/time_walk.png") << "\n";
  }
}

void run_evaluate(const Evaluate_Options& options, kovra::tools::Progress& progress) {
  create_outputFolders(options);
  if (options.rawInput) return run_groupingEvaluate(options, progress);
  const auto photons = kovra::tpx3spidr::FileHandler_PhotonEvents{}.load_file(options.inputFile);
  const Truth truth = read_truth(options.truthFile, photons.photonEvents);
  const Evaluator evaluator(truth);
  std::array<std::string, 2> fomClasses = {"-", "-"};
  for (std::size_t c = 0; c < 2; ++c) {
    const int index = evaluator.get_fomClasses()[c];
    if (index >= 0) fomClasses[c] = truth.classNames[static_cast<std::size_t>(index)];
  }

  const unsigned threads = options.threads ? *options.threads : kovra::get_threadCount();
  const auto rows = run_scan(options.grid, photons, evaluator, options.fomMinPhotons, progress, threads);
  const double mergeMax = options.mergeMax.value_or(0.02);
  const std::size_t best = find_best(rows, mergeMax);
  if (rows.size() > 1) {
    print_table(std::cout, rows, best);
    std::cout << "\nbest setting (highest efficiency with a merge rate at most " << format_number(mergeMax) << "):\n";
  }
  print_report(std::cout, rows[best], fomClasses, options.fomMinPhotons);

  if (options.csvFile) write_scanCsv(*options.csvFile, rows, best);
  if (options.plotDir) {
    const std::string& dir = *options.plotDir;
    Photon_Memberships memberships(photons.size());
    std::vector<Event_Class> eventClasses;
    evaluate_setting(rows[best].setting, photons, evaluator, memberships, options.fomMinPhotons, &eventClasses);
    write_scanCsv(dir + "/scan.csv", rows, best);
    write_psdCsv(dir + "/psd_best.csv", eventClasses, truth.classNames, options.fomMinPhotons);
    kovra::tools::run_pythonScript("kovra_plot_scan.py", {dir});
    std::cout << "plots: " << dir << "/heatmaps.png, " << dir << "/psd_best.png\n";
  }
}

int run(const Evaluate_Options& options) {
  kovra::tools::Progress progress(isatty(STDERR_FILENO) ? &std::cerr : nullptr);
  try {
    run_evaluate(options, progress);
  } catch (const std::exception& e) {
    progress.finish();
    std::cerr << "kovra_evaluate: " << options.inputFile << ": " << e.what() << '\n';
    return kovra::tools::exit_failure;
  }
  std::cout.flush();
  if (!std::cout) {
    std::cerr << "kovra_evaluate: writing to standard output failed\n";
    return kovra::tools::exit_failure;
  }
  return 0;
}

}  // namespace

int main(int argc, char* argv[]) {
  return kovra::tools::run_tool("kovra_evaluate", get_evaluateHelp(), argc, argv, parse_evaluateOptions, run);
}
