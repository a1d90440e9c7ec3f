#pragma once

// The command-line convention of the companion tools (kovra_simulate, kovra_inspect, kovra_evaluate,
// kovra_import): options read with getopt_long, `-h`/`--help` and `--version` answered on standard output with
// status 0, and a bad command line answered on standard error with "<tool>: <what is wrong>" and
// "Try '<tool> --help'.", status 2.
// A parser reports a bad command line by throwing std::invalid_argument with the one line to show.

#include <getopt.h>

#include <iostream>
#include <stdexcept>
#include <string>

namespace kovra::tools {

inline constexpr int exit_failure = 1;   ///< the work could not be done (a file unreadable, unwritable)
inline constexpr int exit_badUsage = 2;  ///< the command line is not usable

/// The version every tool prints, the project's.
inline constexpr const char* tools_version = KOVRA_VERSION;

/// The long option every tool takes besides its own, and the value getopt_long returns for it.
inline constexpr int versionOption = 0x1000;
inline constexpr option versionLongOption = {"version", no_argument, nullptr, versionOption};

/// Throws the bad-usage line for what getopt_long returned on a missing value (':') or an unknown option
/// ('?'); call it from the `default` branch of the option switch.
[[noreturn]] inline void throw_getoptError(int returned, char* const argv[]) {
  if (returned == ':') throw std::invalid_argument(std::string("option ") + argv[optind - 1] + " needs a value");
  if (optopt != 0 && optopt < versionOption) {
    throw std::invalid_argument(std::string("unknown option -") + static_cast<char>(optopt));
  }
  throw std::invalid_argument(std::string("unknown option ") + argv[optind - 1]);
}

/// The one file operand left after the options; throws the bad-usage line when there is none or more.
inline std::string take_singleInput(int argc, char* const argv[]) {
  if (optind == argc) throw std::invalid_argument("no input file given");
  if (argc - optind > 1) throw std::invalid_argument(std::string("more than one input file: ") + argv[optind + 1]);
  return argv[optind];
}

/// Runs a tool under the convention: parses, answers help and version, reports bad usage, else returns
/// run(options). `Options_Type` has `helpRequested` and `versionRequested`.
template <typename Parse_Type, typename Run_Type>
int run_tool(const char* name, const std::string& help, int argc, char* argv[], Parse_Type&& parse, Run_Type&& run) {
  decltype(parse(argc, argv)) options;
  try {
    options = parse(argc, argv);
  } catch (const std::invalid_argument& e) {
    std::cerr << name << ": " << e.what() << "\nTry '" << name << " --help'.\n";
    return exit_badUsage;
  }
  if (options.helpRequested) {
    std::cout << help;
    return 0;
  }
  if (options.versionRequested) {
    std::cout << name << ' ' << tools_version << '\n';
    return 0;
  }
  return run(options);
}

}  // namespace kovra::tools
