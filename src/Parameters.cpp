#include "Parameters.hpp"

#include <cstdio>
#include <fstream>

#include <rapidjson/istreamwrapper.h>

#include "logging.hpp"

namespace {

const char* const versionText = "1.0.0\n";

const char* const licenseText =
    "MIT License\n"
    "\n"
    "Copyright (c) 2026 The kovra developers\n"
    "\n"
    "Permission is hereby granted, free of charge, to any person obtaining a copy\n"
    "of this software and associated documentation files (the \"Software\"), to deal\n"
    "in the Software without restriction, including without limitation the rights\n"
    "to use, copy, modify, merge, publish, distribute, sublicense, and/or sell\n"
    "copies of the Software, and to permit persons to whom the Software is\n"
    "furnished to do so, subject to the following conditions:\n"
    "\n"
    "The above copyright notice and this permission notice shall be included in all\n"
    "copies or substantial portions of the Software.\n"
    "\n"
    "THE SOFTWARE IS PROVIDED \"AS IS\", WITHOUT WARRANTY OF ANY KIND, EXPRESS OR\n"
    "IMPLIED, INCLUDING BUT NOT LIMITED TO THE WARRANTIES OF MERCHANTABILITY,\n"
    "FITNESS FOR A PARTICULAR PURPOSE AND NONINFRINGEMENT. IN NO EVENT SHALL THE\n"
    "AUTHORS OR COPYRIGHT HOLDERS BE LIABLE FOR ANY CLAIM, DAMAGES OR OTHER\n"
    "LIABILITY, WHETHER IN AN ACTION OF CONTRACT, TORT OR OTHERWISE, ARISING FROM,\n"
    "OUT OF OR IN CONNECTION WITH THE SOFTWARE OR THE USE OR OTHER DEALINGS IN THE\n"
    "SOFTWARE.\n";

}  // namespace

// The help lists "--dspace" and "--dtime" in lower case although the options are "dSpace" and "dTime", and it
// leaves out "dTime_ext", "algorithm" and "verbose". Both are long-standing documented behaviour; keep them.
const option Parameters::long_options[] = {
    {"help", no_argument, nullptr, 'h'},
    {"license", no_argument, nullptr, 0},
    {"version", no_argument, nullptr, 0},
    {"paramsFile", required_argument, nullptr, 'f'},
    {"inputFile", required_argument, nullptr, 'i'},
    {"outputFile", required_argument, nullptr, 'o'},
    {"dSpace", required_argument, nullptr, 's'},
    {"dTime", required_argument, nullptr, 't'},
    {"dTime_ext", required_argument, nullptr, 0},
    {"durationMax", required_argument, nullptr, 'D'},
    {"algorithm", required_argument, nullptr, 0},
    {"verbose", required_argument, nullptr, 0},
    {nullptr, 0, nullptr, 0},
};

Parameters::Parameters(int argc, char** argv) {
  while (true) {
    int optionIndex = -1;
    const int result = getopt_long(argc, argv, "hf:i:o:s:t:D:", long_options, &optionIndex);
    if (result == -1) break;

    if (result == 0) {
      const std::string name = long_options[optionIndex].name;
      if (name == "license") {
        print_license();
        exit_requested = true;
      } else if (name == "version") {
        std::fputs(versionText, stderr);
        exit_requested = true;
      } else if (name == "algorithm") {
        algorithm = optarg;
      } else if (name == "dTime_ext") {
        d_time_ext = std::stod(optarg);
      } else if (name == "verbose") {
        logLevel = static_cast<LogLevel>(std::stoi(optarg));
      }
      continue;
    }

    switch (result) {
      case 'h':
        print_help(argv[0]);
        exit_requested = true;
        break;
      case 'f':
        read_parameterSettings_file(optarg);
        break;
      case 'i':
        input_file = optarg;
        break;
      case 'o':
        output_file = optarg;
        break;
      case 's':
        d_space_px = std::stod(optarg);
        break;
      case 't':
        d_time_s = std::stod(optarg);
        break;
      case 'D':
        duration_max_s = std::stod(optarg);
        break;
      default:
        // getopt_long has already printed its diagnostic; an unknown option ends the run quietly.
        exit_requested = true;
        break;
    }
  }

  // GNU getopt_long moves non-options behind the options, so optind points at the first stray word.
  if (optind < argc) throw std::invalid_argument("excess argument: " + std::string(argv[optind]) + " !");
}

void Parameters::print_help(const char* programName) const {
  std::fprintf(stderr,
               "kovra_brantel - event reconstruction for Timepix3 photon-counting cameras\n"
               "Usage: %s [OPTIONS]\n"
               "Example: %s -s 10 -t 1e-6 -i filename.kovraphot -o filename.kovraevent\n"
               "\n"
               "OPTIONS\n"
               "  -h, --help         Print out this help\n"
               "      --license      License information\n"
               "      --version      Version number\n"
               "\n"
               "  -i, --inputFile    Path to the input file, must not contain commas\n"
               "  -o, --outputFile   Path (including file name) for the output, must not contain commas\n"
               "\n"
               "  -f, --paramsFile   Path to a .json file where processing parameters are defined\n"
               "  -s, --dspace       Distance in space for photon search [px]\n"
               "  -t, --dtime        Distance in time for photon search [s]\n"
               "  -D, --durationMax  Maximum duration to look for photons [s] (default: %g)\n"
               "\n",
               programName, programName, duration_max_s);
}

void Parameters::print_license() const { std::fprintf(stderr, "\n%s\n", licenseText); }

void Parameters::read_parameterSettings_file(const std::string& fileName) {
  // Neither the opening nor the parse is checked: a document that did not parse stays null, and the first
  // member lookup below stops the program on the JSON library's IsObject() assertion.
  std::ifstream file(fileName);
  rapidjson::IStreamWrapper stream(file);
  rapidjson::Document document;
  document.ParseStream(stream);

  if (!document.HasMember("brantel")) throw std::invalid_argument("Key \"brantel\" missing!");
  if (!document["brantel"].IsObject()) throw std::invalid_argument("Key \"brantel\" expected to be a JSON Object!");
  const auto section = document["brantel"].GetObject();

  // Presence first, then type: an absent key leaves its setting as it was.
  if (section.HasMember("dSpace_px")) d_space_px = json_getValue_helper<double>(section, "dSpace_px");
  if (section.HasMember("dTime_s")) d_time_s = json_getValue_helper<double>(section, "dTime_s");
  if (section.HasMember("dTime_ext")) d_time_ext = json_getValue_helper<double>(section, "dTime_ext");
  if (section.HasMember("durationMax_s")) duration_max_s = json_getValue_helper<double>(section, "durationMax_s");
  if (section.HasMember("algorithm")) algorithm = json_getValue_helper<std::string>(section, "algorithm");
}
