// kovra_brantel: reads a photon file, groups its photons into events and writes an event file.
//
// Exit status: 0 after a run and after help, licence, version or a rejected option; 1 when a setting is missing
// or a file name has the wrong extension. Everything else (bad numbers, parameters file, photon file, unknown
// algorithm) is an exception or assertion from below that is deliberately not caught: the run aborts with
// its message.

#include <cassert>
#include <filesystem>
#include <string>

#include "Parameters.hpp"
#include "kovra/Reconstruction_Parallel.hpp"
#include "kovra/tpx3spidr/Tpx3Spidr.hpp"
#include "logging.hpp"

namespace tpx = kovra::tpx3spidr;

int main(int argc, char** argv) {
  const Parameters parameters(argc, argv);
  if (parameters.exit_requested) return 0;

  if (!parameters.d_time_s) {
    logging<LogLevel::error>("No time distance provided for photon search! Exiting...");
    return 1;
  }
  // Converted before the space distance is checked: a time out of range ends the run first.
  const tpx::Time dTime = tpx::Time::make_from_seconds<true>(*parameters.d_time_s);
  if (!parameters.d_space_px) {
    logging<LogLevel::error>("No space distance provided for photon search! Exiting...");
    return 1;
  }
  assert(parameters.duration_max_s >= 0);
  const tpx::Time durationMax = tpx::convert_durationMax(parameters.duration_max_s);

  if (!parameters.input_file) {
    logging<LogLevel::error>("No file supplied! Exiting...");
    return 1;
  }
  const std::string& inputFile = *parameters.input_file;
  if (!inputFile.ends_with(".kovraphot")) {
    logging<LogLevel::error>("Input file must be a .kovraphot file! Exiting...");
    return 1;
  }
  if (!parameters.output_file) {
    logging<LogLevel::error>("No output destination specified! Exiting...");
    return 1;
  }
  const std::string& outputFile = *parameters.output_file;
  if (!outputFile.ends_with(".kovraevent")) {
    logging<LogLevel::error>("Output file must be a .kovraevent file! Exiting...");
    return 1;
  }

  // A bare file name has no directory to make.
  const std::filesystem::path outputDirectory = std::filesystem::path(outputFile).parent_path();
  if (!outputDirectory.empty()) std::filesystem::create_directories(outputDirectory);

  // Input out of time order is not reported here: the run's log lines are fixed, and users compare them across
  // runs and versions. kovra_inspect's summary says whether a photon file is in time order.
  const tpx::Reconstruction_Events reconstruction{tpx::Length::from_pixels(*parameters.d_space_px), dTime,
                                                  parameters.d_time_ext, durationMax, print_warning};

  logging<LogLevel::trace>("Processing file: " + inputFile);
  // The whole file's structure is checked before the first photon is read; the photons are then read in
  // pieces and the events written as they are found, to a file that replaces the output only when complete.
  const kovra::File_Layout layout = tpx::FileHandler_PhotonEvents::read_layout(inputFile);
  logging<LogLevel::info>(inputFile + ": Total number of photons in file = " + std::to_string(layout.records.count));

  // On every core the run may use (KOVRA_THREADS sets how many), with the bytes of one thread.
  tpx::EventFile_Writer events(outputFile);
  const kovra::Algorithm algorithm = kovra::find_algorithm(parameters.algorithm);
  const kovra::Parallel_Settings parallel{kovra::get_threadCount(),
                                          kovra::read_countVariable("KOVRA_PIECE_PHOTONS", 1, kovra::max_piecePhotons)
                                              .value_or(kovra::default_piecePhotons)};
  kovra::reconstruct_parallel(reconstruction, algorithm,
                              kovra::make_photonList<tpx::PhotonEvent>(inputFile, layout.records), parallel, events);
  events.finish(inputFile, layout.extTriggers);

  logging<LogLevel::info>(inputFile + ": Total number of reconstructed events = " + std::to_string(events.size()));
  logging<LogLevel::trace>("Finished processing file: " + inputFile);
  return 0;
}
