// kovra_inspect: shows what a photon or event file holds and exports its records as CSV, HDF5 or an image.

#include <hdf5.h>
#include <unistd.h>

#include <exception>
#include <iostream>
#include <stdexcept>

#include "common/CommandLine.hpp"
#include "common/Progress.hpp"
#include "inspect/Inspect.hpp"
#include "inspect/InspectOptions.hpp"

namespace {

using namespace kovra::inspect;

int run(const Inspect_Options& options) {
  kovra::tools::Progress progress(isatty(STDERR_FILENO) ? &std::cerr : nullptr);
  try {
    run_inspect(options, std::cout, std::cerr, progress);
  } catch (const std::exception& e) {
    progress.finish();
    std::cerr << "kovra_inspect: " << options.inputFile << ": " << e.what() << '\n';
    return kovra::tools::exit_failure;
  }
  std::cout.flush();
  if (!std::cout) {
    std::cerr << "kovra_inspect: writing to standard output failed\n";
    return kovra::tools::exit_failure;
  }
  return 0;
}

}  // namespace

int main(int argc, char* argv[]) {
  // HDF5's clean-up at exit crashes on a file whose closing failed (a write refused by a full disk); every file the
  // program writes is closed, or removed, before it exits, so there is nothing left for that clean-up to do.
  H5dont_atexit();
  return kovra::tools::run_tool("kovra_inspect", get_inspectHelp(), argc, argv, parse_inspectOptions, run);
}
