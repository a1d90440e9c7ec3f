// kovra_inspect: shows what a photon or event file holds and exports its records as CSV, HDF5 or an image.

#include <unistd.h>

#include <exception>
#include <iostream>
#include <stdexcept>

#include "inspect/Inspect.hpp"
#include "inspect/InspectOptions.hpp"
#include "inspect/Progress.hpp"

int main(int argc, char* argv[]) {
  using namespace kovra::inspect;
  Inspect_Options options;
  try {
    options = parse_inspectOptions(argc, argv);
  } catch (const std::invalid_argument& e) {
    std::cerr << "kovra_inspect: " << e.what() << "\nTry 'kovra_inspect --help'.\n";
    return 2;
  }
  if (options.helpRequested) {
    std::cout << get_inspectHelp();
    return 0;
  }

  Progress progress(isatty(STDERR_FILENO) ? &std::cerr : nullptr);
  try {
    run_inspect(options, std::cout, std::cerr, progress);
  } catch (const std::exception& e) {
    progress.finish();
    std::cerr << "kovra_inspect: " << options.inputFile << ": " << e.what() << '\n';
    return 1;
  }
  std::cout.flush();
  if (!std::cout) {
    std::cerr << "kovra_inspect: writing to standard output failed\n";
    return 1;
  }
  return 0;
}
