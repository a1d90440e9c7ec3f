#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <stdexcept>
#include <string>
#include <vector>

#include "Parameters.hpp"
#include "TempDir.hpp"
#include "logging.hpp"

using testing::StrEq;
using testing::ThrowsMessage;

namespace {

Parameters parse(std::vector<std::string> args) {
  args.insert(args.begin(), "kovra_brantel");
  std::vector<char*> argv;
  for (auto& arg : args) argv.push_back(arg.data());
  argv.push_back(nullptr);
  optind = 0;  // getopt_long keeps global state between parses
  return Parameters(static_cast<int>(args.size()), argv.data());
}

/// Writes a parameters file into the directory and returns its path.
std::string write_json(const TempDir& dir, const std::string& name, const std::string& json) {
  write_bytes(dir.file(name), json);
  return dir.file(name);
}

constexpr double inf = std::numeric_limits<double>::infinity();

}  // namespace

TEST(ParametersTest, DefaultsWithoutArguments) {
  const Parameters p = parse({});
  EXPECT_FALSE(p.exit_requested);
  EXPECT_FALSE(p.input_file || p.output_file || p.d_space_px || p.d_time_s || p.d_time_ext);
  EXPECT_EQ(p.duration_max_s, inf);
  EXPECT_EQ(p.algorithm, "default");
}

TEST(ParametersTest, EveryOptionReachesItsField) {
  const Parameters p = parse({"--inputFile", "in.kovraphot", "-o", "out.kovraevent", "--dSpace=2.5", "-t", "1e-6",
                              "--dTime_ext", "1.5", "--dur", "7", "--algorithm", "fullChain_direct"});
  EXPECT_FALSE(p.exit_requested);
  EXPECT_EQ(p.input_file, "in.kovraphot");
  EXPECT_EQ(p.output_file, "out.kovraevent");
  EXPECT_EQ(p.d_space_px, 2.5);
  EXPECT_EQ(p.d_time_s, 1e-6);
  EXPECT_EQ(p.d_time_ext, 1.5);
  EXPECT_EQ(p.duration_max_s, 7.0);
  EXPECT_EQ(p.algorithm, "fullChain_direct");

  // Long names match case-sensitively; "--dT" is an ambiguous prefix of dTime and dTime_ext.
  for (const char* rejected : {"--dspace=1", "--dT=1", "--DTime=1", "-x"}) {
    const Parameters q = parse({rejected, "-s", "4"});
    EXPECT_TRUE(q.exit_requested) << rejected;
    EXPECT_EQ(q.d_space_px, 4.0) << rejected << ": parsing goes on after a rejected option";
  }
}

TEST(ParametersTest, NumbersFollowStdStodAndStoi) {
  const struct {
    const char* text;
    double value;
  } doubles[] = {{"10px", 10.0}, {"  7", 7.0}, {"0x10", 16.0}, {"-3", -3.0}, {"1e-6", 1e-6}, {"inf", inf},
                 {"-INF", -inf}};
  for (const auto& [text, value] : doubles) {
    EXPECT_EQ(parse({"-s", text}).d_space_px, value) << text;
    EXPECT_EQ(parse({"-D", text}).duration_max_s, value) << text;
  }
  EXPECT_TRUE(std::isnan(*parse({"--dTime_ext", "nan"}).d_time_ext));

  parse({"--verbose", "3trace"});
  EXPECT_EQ(static_cast<int>(logLevel), 3);
  parse({"--verbose", "-2147483648"});
  EXPECT_EQ(static_cast<int>(logLevel), -2147483648);
  logLevel = LogLevel::trace;

}

TEST(ParametersFileTest, SectionIsReadOverCurrentSettings) {
  TempDir dir;
  // Untouched settings stay as the command line left them.
  const Parameters empty = parse({"-s", "4", "-f", write_json(dir, "e.json", R"({"brantel": {}, "other": 1})")});
  EXPECT_EQ(empty.d_space_px, 4.0);
  EXPECT_FALSE(empty.d_time_s || empty.d_time_ext);
  EXPECT_EQ(empty.duration_max_s, inf);
  EXPECT_EQ(empty.algorithm, "default");

  const Parameters full = parse({"-f", write_json(dir, "f.json", R"({"brantel": {"dSpace_px": 2.5, "dTime_s": 1e-7,
      "dTime_ext": 3, "durationMax_s": 2, "algorithm": "noBranchChain_direct", "comment": [1]}})")});
  EXPECT_EQ(full.d_space_px, 2.5);
  EXPECT_EQ(full.d_time_s, 1e-7);
  EXPECT_EQ(full.d_time_ext, 3.0);
  EXPECT_EQ(full.duration_max_s, 2.0);
  EXPECT_EQ(full.algorithm, "noBranchChain_direct");

  // Integers of every width are numbers; the largest round to the nearest double.
  EXPECT_EQ(parse({"-f", write_json(dir, "u.json", R"({"brantel": {"dSpace_px": 18446744073709551615}})")}).d_space_px,
            18446744073709551616.0);
  EXPECT_EQ(parse({"-f", write_json(dir, "n.json", R"({"brantel": {"dTime_s": -9223372036854775808}})")}).d_time_s,
            -9223372036854775808.0);
}

TEST(ParametersFileTest, StructuralErrorsThrowExactMessages) {
  TempDir dir;
  const struct {
    const char* json;
    const char* message;
  } cases[] = {
      {R"({"other": {"dSpace_px": 1}})", R"(Key "brantel" missing!)"},
      {R"({"brantel": 5})", R"(Key "brantel" expected to be a JSON Object!)"},
      {R"({"brantel": [{"dSpace_px": 1}]})", R"(Key "brantel" expected to be a JSON Object!)"},
      {R"({"brantel": {"dSpace_px": "10"}})", R"(Key "dSpace_px" expected to be a double!)"},
      {R"({"brantel": {"dTime_s": true}})", R"(Key "dTime_s" expected to be a double!)"},
      {R"({"brantel": {"dTime_ext": null}})", R"(Key "dTime_ext" expected to be a double!)"},
      {R"({"brantel": {"durationMax_s": {}}})", R"(Key "durationMax_s" expected to be a double!)"},
      {R"({"brantel": {"algorithm": 3}})", R"(Key "algorithm" expected to be a string!)"},
  };
  for (const auto& [json, message] : cases) {
    const std::string file = write_json(dir, "p.json", json);
    EXPECT_THAT([&] { parse({"-f", file}); }, ThrowsMessage<std::invalid_argument>(StrEq(message))) << json;
  }
}

TEST(ParametersFileTest, KeysBeforeABadOneKeepTheirNewValues) {
  TempDir dir;
  const std::string file = write_json(dir, "p.json", R"({"brantel": {"algorithm": 3, "dTime_s": 1e-6}})");
  Parameters p = parse({"-t", "5"});
  EXPECT_THROW(p.read_parameterSettings_file(file), std::invalid_argument);
  EXPECT_EQ(p.d_time_s, 1e-6);
}

TEST(ParametersFileTest, HelperNamesAMissingKey) {
  rapidjson::Document document;
  document.Parse(R"({"a": 1.5, "s": "text"})");
  const auto object = document.GetObject();
  EXPECT_EQ(Parameters::json_getValue_helper<double>(object, "a"), 1.5);
  EXPECT_EQ(Parameters::json_getValue_helper<std::string>(object, "s"), "text");
  EXPECT_THAT([&] { Parameters::json_getValue_helper<double>(object, "b"); },
              ThrowsMessage<std::invalid_argument>(StrEq(R"(Key "b" missing!)")));
  EXPECT_THAT([&] { Parameters::json_getValue_helper<std::string>(object, "a"); },
              ThrowsMessage<std::invalid_argument>(StrEq(R"(Key "a" expected to be a string!)")));
}
