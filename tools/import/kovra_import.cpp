// kovra_import: turns a Timepix3 raw data file into a photon file that kovra_brantel reads.

#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <exception>
#include <iostream>
#include <memory>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <string>
#include <system_error>
#include <utility>

#include "common/Counts.hpp"
#include "common/OutputFolders.hpp"
#include "common/Progress.hpp"
#include "common/import/Import.hpp"
#include "common/import/ImportOptions.hpp"
#include "common/import/PhotonFileOutput.hpp"

namespace {

using namespace kovra::import;
using kovra::tools::format_count;

std::string format_seconds(Ticks ticks) {
  char text[64];
  std::snprintf(text, sizeof text, "%.6f s", static_cast<double>(ticks) * kovra::tpx3spidr::Time::tick_seconds);
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
  if (s.skippedStretches != 0) {
    lines.push_back("raw file: " + format_count(s.skippedStretches, "damaged stretch", "damaged stretches") +
                    " skipped (" + format_count(s.skippedBytes, "byte") + ")");
  }
  for (const auto& [file, end] : s.endedEarly) {
    lines.push_back("raw file: " + (file.empty() ? "" : file + " ") + "ended early, inside " +
                    std::string(end.inHeader ? "a chunk header" : "the chunk") + " at byte offset " +
                    std::to_string(end.at) + " (" + format_count(end.unreadBytes, "byte") + " left unread)");
  }
  return lines;
}

/// The warning for a file that ends inside a chunk.
std::string get_unfinishedWarning(const Unfinished_End& end) {
  std::string where = end.inHeader ? "a chunk header at byte offset " + std::to_string(end.at)
                                   : "the chunk at byte offset " + std::to_string(end.at) + " (" +
                                         std::to_string(end.unreadAt + end.unreadBytes - end.at - 8) + " of its " +
                                         std::to_string(end.chunkBytes) + " bytes present)";
  return "the raw file ended early, inside " + where + "; every complete packet before the end was imported, " +
         format_count(end.unreadBytes, "byte") + " at byte offset " + std::to_string(end.unreadAt) +
         (end.unreadBytes == 1 ? " was" : " were") + " left unread";
}

/// The progress line of a followed file: what was read so far, at what rates, and how long the file has not
/// grown.
std::string get_followLine(std::uint64_t bytes, std::uint64_t hits, double seconds, double quietSeconds) {
  char line[160];
  const double rate = seconds > 0 ? 1.0 / seconds : 0.0;
  std::snprintf(line, sizeof line, "following: %.1f MB read, %.1f MB/s, %.0f hits/s; unchanged for %.1f s",
                static_cast<double>(bytes) * 1e-6, static_cast<double>(bytes) * 1e-6 * rate,
                static_cast<double>(hits) * rate, quietSeconds);
  return line;
}

/// What the run says while it reads: the progress line, and a warning for each damaged stretch skipped.
class Import_Messages : public Import_Observer {
 public:
  Import_Messages(const Import_Options& options_, kovra::tools::Progress& progress_)
      : options(options_), progress(progress_), start(Clock::now()), lastGrowth(start) {}

  void on_progress(std::uint64_t bytesRead, std::uint64_t fileBytes, std::uint64_t hits) override {
    if (!options.followSeconds) {
      const std::uint64_t percent = fileBytes == 0 ? 100 : bytesRead * 100 / fileBytes;
      if (percent > shownPercent) progress.advance(percent - std::exchange(shownPercent, percent));
      return;
    }
    const auto now = Clock::now();
    if (fileBytes != lastFileBytes) lastFileBytes = fileBytes, lastGrowth = now;
    if (now - lastShown < std::chrono::milliseconds(500)) return;
    lastShown = now;
    progress.show_text(
        get_followLine(bytesRead, hits, Seconds(now - start).count(), Seconds(now - lastGrowth).count()));
  }

  void on_skipped(const Skipped_Stretch& stretch) override {
    if (options.logLevel < 0) return;
    progress.finish();
    std::cerr << "warning: skipped " << format_count(stretch.bytes, "damaged byte") << " at byte offset " << stretch.at
              << ": " << stretch.cause << '\n';
  }

 private:
  using Clock = std::chrono::steady_clock;
  using Seconds = std::chrono::duration<double>;
  const Import_Options& options;
  kovra::tools::Progress& progress;
  std::uint64_t shownPercent = 0;
  Clock::time_point start, lastGrowth, lastShown;
  std::uint64_t lastFileBytes = 0;
};

/// Reads the time-walk table and the pixel mask the command line names into `options`; throws
/// std::invalid_argument naming what is wrong with them.
void read_tables(Import_Options& options) {
  if (!options.timeWalkFile.empty()) {
    options.timeWalk = std::make_shared<const Time_Walk>(read_timeWalk(options.timeWalkFile));
  }
  if (!options.maskFile.empty()) {
    const unsigned side = get_frameSide(options.layout);
    options.mask = std::make_shared<const Pixel_Mask>(read_pixelMask(options.maskFile, side));
  }
}

/// Imports the run into its photon file, which appears only when every step succeeded; false after saying why.
bool import_run(const Import_Options& options, Import_Summary& summary) {
  kovra::tools::Progress progress(options.logLevel >= 2 && isatty(STDERR_FILENO) ? &std::cerr : nullptr);
  progress.set_label("importing");
  if (const std::error_code error = kovra::tools::create_outputFolders(options.outputFile)) {
    std::cerr << "kovra_import: cannot write \"" << options.outputFile << "\": " << error.message() << '\n';
    return false;
  }
  try {
    PhotonFile_Output output(options.outputFile, options.triggerEdge >= 0,
                             options.writeCharge ? get_chargePath(options.outputFile) : std::string());
    if (!options.followSeconds) progress.start(100);
    Import_Messages messages(options, progress);
    summary = run_import(options, output, messages);
    progress.finish();
    output.commit();
  } catch (const Output_Failure& e) {
    progress.finish();
    std::cerr << "kovra_import: " << e.what() << '\n';
    return false;
  } catch (const std::exception& e) {
    progress.finish();
    // With several raw files the message names the one it is about.
    std::cerr << "kovra_import: " << (options.inputFiles.size() > 1 ? "" : options.inputFile + ": ") << e.what()
              << '\n';
    return false;
  }
  return true;
}

/// The warnings, the summary and the trace lines of a run that succeeded.
void report_run(const Import_Options& options, const Import_Summary& summary) {
  if (options.logLevel >= 0) {
    for (const auto& early : summary.endedEarly) {
      std::cerr << "warning: " << (early.file.empty() ? "" : early.file + ": ") << get_unfinishedWarning(early.end)
                << '\n';
    }
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
}

int run_importTool(const Import_Options& commandLine) {
  Import_Options options = commandLine;
  try {
    read_tables(options);
  } catch (const std::invalid_argument& e) {
    std::cerr << "kovra_import: " << e.what() << '\n';
    return kovra::tools::exit_failure;
  }
  Import_Summary summary;
  if (!import_run(options, summary)) return kovra::tools::exit_failure;
  report_run(options, summary);
  return 0;
}

}  // namespace

int main(int argc, char* argv[]) {
  return kovra::tools::run_tool("kovra_import", get_importHelp(), argc, argv, parse_importOptions, run_importTool);
}
