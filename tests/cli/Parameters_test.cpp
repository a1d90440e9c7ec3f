#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "Parameters.hpp"
#include "TempDir.hpp"
#include "logging.hpp"

namespace {

/// Parses a command line and describes the outcome in one line: the settings in declaration order ("-" when
/// absent) and the log level, or the message of what was thrown.
std::string parse(std::vector<std::string> args) {
  args.insert(args.begin(), "kovra_brantel");
  std::vector<char*> argv;
  for (auto& arg : args) argv.push_back(arg.data());
  argv.push_back(nullptr);
  optind = 0;  // getopt_long keeps global state between parses
  logLevel = LogLevel::trace;
  try {
    const Parameters p(static_cast<int>(args.size()), argv.data());
    std::ostringstream s;
    const auto optional = [&s](const auto& value) { value ? s << *value << ' ' : s << "- "; };
    s << p.exit_requested << ' ';
    optional(p.input_file), optional(p.output_file), optional(p.d_space_px), optional(p.d_time_s);
    optional(p.d_time_ext);
    s << p.duration_max_s << ' ' << p.algorithm << ' ' << static_cast<int>(logLevel);
    return s.str();
  } catch (const std::invalid_argument& e) {
    return e.what();
  }
}

}  // namespace

TEST(ParametersTest, CommandLineAndParametersFilesInTheirOrder) {
  TempDir dir;
  const std::string full = dir.file("full.json"), other = dir.file("other.json"), bad = dir.file("bad.json");
  write_bytes(full, R"({"brantel": {"dSpace_px": 2.5, "dTime_s": 1e-7, "dTime_ext": 3, "durationMax_s": 2,
                                    "algorithm": "a", "comment": [1]}})");
  write_bytes(other, R"({"brantel": {"algorithm": "b"}, "other": 1})");
  const struct {
    std::vector<std::string> args;
    const char* bad_json;  ///< written to bad.json before parsing
    const char* expected;
  } cases[] = {
      {{}, "", "0 - - - - - inf default 4"},
      {{"--inputFile", "in", "--outputFile", "out", "--dSpace=2.5", "--dTime", "1e-6", "--dur", "7", "--algorithm", "x",
        "--verbose", "3trace"},
       "",
       "0 in out 2.5 1e-06 - 7 x 3"},
      // std::stod and std::stoi read a leading number and ignore the rest
      {{"-i", "a", "-o", "b", "-s", "10px", "-t", "  7", "--dTime_ext", "0x10", "-D", "-INF"},
       "",
       "0 a b 10 7 16 -inf default 4"},
      // Long names match case-sensitively; "--dT" is an ambiguous prefix. Parsing goes on after a rejection.
      {{"--dspace=1", "-s", "4"}, "", "1 - - 4 - - inf default 4"},
      {{"--dT=1", "-s", "4"}, "", "1 - - 4 - - inf default 4"},
      {{"-x", "-s", "4"}, "", "1 - - 4 - - inf default 4"},
      {{"-s", "4", "-D"}, "", "1 - - 4 - - inf default 4"},
      // A file is read where it stands and overwrites only the keys it has; JSON integers are numbers.
      {{"-s", "4", "--algorithm", "c", "-f", full}, "", "0 - - 2.5 1e-07 3 2 a 4"},
      {{"-f", full, "--algorithm", "c", "-s", "4"}, "", "0 - - 4 1e-07 3 2 c 4"},
      {{"-f", full, "-f", other}, "", "0 - - 2.5 1e-07 3 2 b 4"},
      {{"-s", "4", "-f", other}, "", "0 - - 4 - - inf b 4"},
      {{"-f", bad}, R"({"other": {"dSpace_px": 1}})", R"(Key "brantel" missing!)"},
      {{"-f", bad}, R"({"brantel": 5})", R"(Key "brantel" expected to be a JSON Object!)"},
      {{"-f", bad}, R"({"brantel": [{"dSpace_px": 1}]})", R"(Key "brantel" expected to be a JSON Object!)"},
      {{"-f", bad}, R"({"brantel": {"dSpace_px": "10"}})", R"(Key "dSpace_px" expected to be a double!)"},
      {{"-f", bad}, R"({"brantel": {"dTime_s": true}})", R"(Key "dTime_s" expected to be a double!)"},
      {{"-f", bad}, R"({"brantel": {"dTime_ext": null}})", R"(Key "dTime_ext" expected to be a double!)"},
      {{"-f", bad}, R"({"brantel": {"durationMax_s": {}}})", R"(Key "durationMax_s" expected to be a double!)"},
      {{"-f", bad}, R"({"brantel": {"algorithm": 3}})", R"(Key "algorithm" expected to be a string!)"},
  };
  for (const auto& [args, bad_json, expected] : cases) {
    if (*bad_json != '\0') write_bytes(bad, bad_json);
    EXPECT_EQ(parse(args), expected) << testing::PrintToString(args) << bad_json;
  }
  logLevel = LogLevel::trace;

  rapidjson::Document document;
  document.Parse(R"({"a": 1.5})");
  auto object = document.GetObject();
  EXPECT_THAT([&] { Parameters::json_getValue_helper<double>(object, "b"); },
              testing::ThrowsMessage<std::invalid_argument>(testing::StrEq(R"(Key "b" missing!)")));
}
