// kovra_import: turns a Timepix3 raw data file into a photon file that kovra_brantel reads.

#include <unistd.h>

#include <cstdio>
#include <exception>
#include <iostream>
#include <memory>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <string>
#include <system_error>

#include "common/Counts.hpp"
#include "common/OutputFolders.hpp"
#include "import/Import.hpp"
#include "import/ImportOptions.hpp"
#include "import/PhotonFileOutput.hpp"
#include "common/Progress.hpp"

namespace {

using namespace kovra::import;
using kovra::tools::format_count;

std::string format_seconds(Ticks ticks) {
  char text[64];
  std::snprintf(text, sizeof text, "%.6f s", static_cast<double>(ticks) * 1.5625e-9);
  return text;
}

/// The summary lines, one string each.
std::vector<std::string> get_summaryLines(const Import_Options& options, const Import_Summary& s) {
  std::vector<std::string> lines;
  std::ostringstream packets;
  packets << "packets:";
  for (int k = 0; k < packet_kinds; ++k) {
    packets << (k == 0 ? " " : ", ") << s.packets[static_cast<std::size_t>(k)] << ' '
            << get_packetKindName(static_cast<Packet_Kind>(k));
  }
  packets << " in " << format_count(s.chunks, "chunk");
  lines.push_back(packets.str());
  const std::uint64_t hits = s.packets[static_cast<std::size_t>(Packet_Kind::hit)];
  lines.push_back("hits: " + std::to_string(hits) + " read, " + std::to_string(s.droppedTot) +
                  " dropped below the ToT threshold, " + std::to_string(s.droppedLate) + " dropped as late");
  if (options.mask) {
    lines.push_back("mask: " + format_count(s.droppedMasked, "hit") + " of " +
                    format_count(options.mask->get_count(), "masked pixel") + " dropped");
  }
  lines.push_back("photons: " + std::to_string(s.photons) + " written (" +
                  (options.hitsAsPhotons ? std::string("one per hit") : std::string("grouped hits")) + ")");
  if (options.triggerEdge < 0) {
    lines.push_back("triggers: none kept (--trigger none); " + format_count(s.tdcRepeats, "repeated TDC packet") +
                    " merged");
  } else {
    lines.push_back("triggers: " + std::to_string(s.triggers) + " written, " + std::to_string(s.lateTriggers) +
                    " dropped as late; " + format_count(s.tdcRepeats, "repeated TDC packet") + " merged");
  }
  if (s.firstTime) {
    lines.push_back("clock: " + format_count(s.rollovers, "roll-over") + " of the hit counter followed, time span " +
                    format_seconds(s.lastTime - *s.firstTime) + " (ticks " + std::to_string(*s.firstTime) + " to " +
                    std::to_string(s.lastTime) + ")");
  } else {
    lines.push_back("clock: no time-carrying packet");
  }
  return lines;
}

int run_importTool(const Import_Options& commandLine) {
  Import_Options options = commandLine;
  if (!options.timeWalkFile.empty()) {
    try {
      options.timeWalk = std::make_shared<const Time_Walk>(read_timeWalk(options.timeWalkFile));
    } catch (const std::invalid_argument& e) {
      std::cerr << "kovra_import: " << e.what() << '\n';
      return kovra::tools::exit_failure;
    }
  }
  if (!options.maskFile.empty()) {
    try {
      const unsigned side = options.layout == Frame_Layout::quad ? 512 : 256;
      options.mask = std::make_shared<const Pixel_Mask>(read_pixelMask(options.maskFile, side));
    } catch (const std::invalid_argument& e) {
      std::cerr << "kovra_import: " << e.what() << '\n';
      return kovra::tools::exit_failure;
    }
  }
  kovra::tools::Progress progress(options.logLevel >= 2 && isatty(STDERR_FILENO) ? &std::cerr : nullptr);
  progress.set_label("importing");
  std::optional<PhotonFile_Output> output;
  if (const std::error_code error = kovra::tools::create_outputFolders(options.outputFile)) {
    std::cerr << "kovra_import: cannot write \"" << options.outputFile << "\": " << error.message() << '\n';
    return kovra::tools::exit_failure;
  }
  try {
    output.emplace(options.outputFile, options.triggerEdge >= 0,
                   options.writeCharge ? get_chargePath(options.outputFile) : std::string());
  } catch (const std::invalid_argument& e) {
    std::cerr << "kovra_import: " << e.what() << '\n';
    return kovra::tools::exit_failure;
  }
  Import_Summary summary;
  try {
    progress.start(100);
    std::uint64_t shownPercent = 0;
    summary = run_import(options, *output, [&](std::uint64_t done, std::uint64_t total) {
      const std::uint64_t percent = total == 0 ? 100 : done * 100 / total;
      if (percent > shownPercent) progress.advance(percent - std::exchange(shownPercent, percent));
    });
    progress.finish();
  } catch (const std::exception& e) {
    progress.finish();
    // With several raw files the message names the one it is about.
    std::cerr << "kovra_import: " << (options.inputFiles.size() > 1 ? "" : options.inputFile + ": ") << e.what()
              << '\n';
    return kovra::tools::exit_failure;
  }
  try {
    output->commit();
  } catch (const std::invalid_argument& e) {
    std::cerr << "kovra_import: " << e.what() << '\n';
    return kovra::tools::exit_failure;
  }

  if (options.logLevel >= 0 && summary.droppedLate + summary.lateTriggers > 0) {
    std::cerr << "warning: " << format_count(summary.droppedLate, "hit") << " and "
              << format_count(summary.lateTriggers, "trigger edge") << " came later than the reorder window allows ("
              << format_seconds(options.reorderWindow) << ") and were dropped; a larger --reorder-window keeps them\n";
  }
  if (options.logLevel >= 2) {
    for (const auto& line : get_summaryLines(options, summary)) std::cout << "info:    " << line << '\n';
  }
  if (options.logLevel >= 4) {
    std::cout << "trace:   the reorder window held at most " << format_count(summary.mostHeld, "item") << '\n';
    if (const auto& p = summary.parallel) {
      char seconds[32];
      std::snprintf(seconds, sizeof seconds, "%.3f", p->serialSeconds);
      std::cout << "trace:   " << format_count(p->pieces, "piece") << " on " << format_count(options.threads, "thread")
                << ": " << format_count(p->cuts, "cut") << " where neighbouring runs agreed, "
                << format_count(p->takenOn, "piece") << " grouped again where none came; serial part (reading, "
                << "decoding, ordering, writing) " << seconds << " s of processor time\n";
    }
  }
  std::cout.flush();
  return 0;
}

}  // namespace

int main(int argc, char* argv[]) {
  return kovra::tools::run_tool("kovra_import", get_importHelp(), argc, argv, parse_importOptions, run_importTool);
}
