// End-to-end runs of the built kovra_brantel binary: exit status or signal, both output streams and the file
// it writes, each run in a fresh working directory.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>
#include <filesystem>
#include <optional>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "FileBytes.hpp"
#include "RunProgram.hpp"
#include "TempDir.hpp"
#include "kovra/tpx3spidr/Tpx3Spidr.hpp"

using kovra::tpx3spidr::Data_PhotonEvents;
using kovra::tpx3spidr::Length;
using kovra::tpx3spidr::PhotonEvent;
using kovra::tpx3spidr::Time;
using testing::HasSubstr;
using testing::Not;

namespace {

const std::string program = KOVRA_BRANTEL_PATH;

/// Replaces the time stamp of every log line by "@" when it has the expected layout; under TZ=UTC-2 the
/// local offset is +0200. Lines that do not match stay as they are.
std::string unstamp(const std::string& text) {
  static const std::regex stamp(
      "^(ERROR:   |info:    |trace:   )[0-9]{4}-[0-9]{2}-[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2} UTC\\+0200: (.*)$");
  std::istringstream lines(text);
  std::string line, result;
  while (std::getline(lines, line)) result += std::regex_replace(line, stamp, "$1@$2") + "\n";
  return result;
}

PhotonEvent photon(double x, double y, long ticks) {
  return PhotonEvent{Length::from_pixels(x), Length::from_pixels(y), Time{ticks}};
}

/// Two well separated groups of photons: two events under -s 2 -t 1e-6.
const std::vector<PhotonEvent> twoFlashes = {photon(10, 10, 0), photon(11, 10, 100), photon(10, 11, 200),
                                              photon(100, 100, 100000)};

const std::string helpText =
    "kovra_brantel - event reconstruction for Timepix3 photon-counting cameras\n"
    "Usage: " + program + " [OPTIONS]\n"
    "Example: " + program + " -s 10 -t 1e-6 -i filename.kovraphot -o filename.kovraevent\n"
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
    "  -D, --durationMax  Maximum duration to look for photons [s] (default: inf)\n"
    "\n";

std::string replace(std::string text, const std::string& from, const std::string& to) {
  return text.replace(text.find(from), from.size(), to);
}

class KovraBrantelTest : public testing::Test {
 protected:
  TempDir work, capture;

  RunResult run(const std::vector<std::string>& args) {
    return run_program(program, args, work.path().string(), capture.path().string(), "UTC-2");
  }

  void write_photons(const std::string& name, const std::vector<PhotonEvent>& photons,
                     std::optional<std::vector<Time>> triggers = std::nullopt) {
    kovra::tpx3spidr::FileHandler_PhotonEvents::save_file(work.file(name), Data_PhotonEvents{photons, triggers});
  }

  bool exists(const std::string& name) const { return std::filesystem::exists(work.path() / name); }

  /// The settings of a successful run on in.kovraphot, written to out.kovraevent.
  static std::vector<std::string> with_settings(std::vector<std::string> args) {
    args.insert(args.begin(), {"-s", "2", "-t", "1e-6", "-i", "in.kovraphot", "-o", "out.kovraevent"});
    return args;
  }
};

std::string successLog(const std::string& input, std::size_t nPhotons, std::size_t nEvents) {
  return "trace:   @Processing file: " + input + "\n" + "info:    @" + input +
         ": Total number of photons in file = " + std::to_string(nPhotons) + "\n" + "info:    @" + input +
         ": Total number of reconstructed events = " + std::to_string(nEvents) + "\n" +
         "trace:   @Finished processing file: " + input + "\n";
}

void expect_abort(const RunResult& result, const std::string& errorText) {
  EXPECT_FALSE(result.exited);
  EXPECT_EQ(result.signal, SIGABRT);
  EXPECT_THAT(result.err, HasSubstr(errorText));
}

}  // namespace

TEST_F(KovraBrantelTest, SettingsAreCheckedInOrder) {
  const std::string noTime = "No time distance provided for photon search! Exiting...";
  const std::string noSpace = "No space distance provided for photon search! Exiting...";
  const std::string noInput = "No file supplied! Exiting...";
  const std::string badInput = "Input file must be a .kovraphot file! Exiting...";
  const std::string noOutput = "No output destination specified! Exiting...";
  const std::string badOutput = "Output file must be a .kovraevent file! Exiting...";
  const struct {
    std::vector<std::string> args;
    std::string message;
  } cases[] = {
      {{}, noTime},
      {{"-s", "10", "-D", "-1", "-i", "x", "-o", "y"}, noTime},
      {{"-t", "1e-6", "-D", "-1", "-i", "x", "-o", "y"}, noSpace},
      {{"-t", "1e-6", "-s", "10", "-o", "y"}, noInput},
      {{"-t", "1e-6", "-s", "10", "-i", "data.kovraphot.bak", "-o", "y"}, badInput},
      {{"-t", "1e-6", "-s", "10", "-i", "DATA.KOVRAPHOT", "-o", "y"}, badInput},
      {{"-t", "1e-6", "-s", "10", "-i", ".kovraphot"}, noOutput},
      {{"-t", "1e-6", "-s", "10", "-i", "a.kovraphot", "-o", "dir/b.kovraevent.tmp"}, badOutput},
      {{"-t", "1e-6", "-s", "10", "-i", "a.kovraphot", "-o", "dir/b.KOVRAEVENT"}, badOutput},
      {{"--verbose", "-1"}, noTime},
  };
  for (const auto& [args, message] : cases) {
    const RunResult result = run(args);
    EXPECT_TRUE(result.exited && result.status == 1) << message;
    EXPECT_EQ(unstamp(result.err), "ERROR:   @" + message + "\n");
    EXPECT_EQ(result.out, "");
    EXPECT_TRUE(std::filesystem::is_empty(work.path())) << message << ": nothing may be created";
  }

  const RunResult silenced = run({"--verbose", "-2"});
  EXPECT_EQ(silenced.status, 1);
  EXPECT_EQ(silenced.err + silenced.out, "");
}

TEST_F(KovraBrantelTest, FailuresBelowTheDriverAbort) {
  write_bytes(work.file("brantel5.json"), R"({"brantel": 5})");
  const struct {
    std::vector<std::string> args;
    std::string errorText;
  } cases[] = {
      // The time distance is converted before the space distance is looked at.
      {{"-t", "1e10"}, "what():  Value 10000000000.000000 s out of range!"},
      {{"-t", "1e-6", "-s", "10", "-D", "-1"}, "parameters.duration_max_s >= 0"},
      {{"-t", "1e-6", "-s", "10", "-D", "nan"}, "parameters.duration_max_s >= 0"},
      {{"-s", "abc"}, "'std::invalid_argument'\n  what():  stod"},
      {{"--dTime_ext", "1e999"}, "'std::out_of_range'\n  what():  stod"},
      {{"--verbose", "3000000000"}, "'std::out_of_range'\n  what():  stoi"},
      {{"-s", "10", "-t", "1e-6", "extra.txt", "-i", "a.kovraphot", "-o", "b.kovraevent"},
       "what():  excess argument: extra.txt !"},
      {{"--dspace", "10"}, "what():  excess argument: 10 !"},
      {{"-f", "brantel5.json"}, "what():  Key \"brantel\" expected to be a JSON Object!"},
  };
  for (const auto& [args, errorText] : cases) {
    const RunResult result = run(args);
    expect_abort(result, errorText);
    EXPECT_EQ(result.out, "") << errorText;
  }
}

TEST_F(KovraBrantelTest, UnreadableParametersFileStopsOnTheJsonAssertion) {
  write_bytes(work.file("empty.json"), "");
  write_bytes(work.file("comment.json"), "// settings\n{\"brantel\": {}}");
  write_bytes(work.file("trailing.json"), "{\"brantel\": {}} x");
  write_bytes(work.file("array.json"), "[{\"brantel\": {}}]");
  for (const char* file : {"missing.json", "empty.json", "comment.json", "trailing.json", "array.json"}) {
    const RunResult result = run({"-f", file, "-s", "2", "-t", "1e-6"});
    expect_abort(result, "IsObject()");
    EXPECT_THAT(result.err, Not(HasSubstr("what()"))) << file;
    EXPECT_EQ(result.out, "") << file;
  }
}

TEST_F(KovraBrantelTest, HelpVersionAndLicenceEndTheRun) {
  write_photons("in.kovraphot", twoFlashes);
  const struct {
    std::vector<std::string> args;
    std::string err;
  } cases[] = {
      {{"--help"}, helpText},
      {with_settings({"-h"}), helpText},
      {{"-h", "-D", "5"}, helpText},
      {{"-D", "5", "-h"}, replace(helpText, "(default: inf)", "(default: 5)")},
      {{"-D", "0.25", "--help", "-D", "7"}, replace(helpText, "(default: inf)", "(default: 0.25)")},
      {{"--version"}, "1.0.0\n"},
      {with_settings({"--version"}), "1.0.0\n"},
      {{"--license"}, std::string("\n").append(read_bytes(KOVRA_LICENSE_PATH)).append("\n")},
      {{"--version", "-h"}, "1.0.0\n" + helpText},
  };
  for (const auto& [args, err] : cases) {
    const RunResult result = run(args);
    EXPECT_TRUE(result.exited && result.status == 0) << args[0];
    EXPECT_EQ(result.err, err);
    EXPECT_EQ(result.out, "");
    EXPECT_FALSE(exists("out.kovraevent"));
  }

  // The help is printed where -h stands; a bad number later on still ends the run abnormally.
  const RunResult late = run({"-h", "-s", "abc"});
  expect_abort(late, "stod");
  EXPECT_THAT(late.err, testing::StartsWith(helpText));
}

TEST_F(KovraBrantelTest, RejectedOptionsEndQuietlyWithStatusZero) {
  write_photons("in.kovraphot", twoFlashes);
  for (const char* option : {"--dspace=10", "--dtime=1e-6", "-x", "--verbose", "-D"}) {
    const RunResult result = run(with_settings({option}));
    EXPECT_TRUE(result.exited && result.status == 0) << option;
    EXPECT_EQ(result.out, "") << option;
    EXPECT_THAT(result.err, HasSubstr(program + ": ")) << option << ": getopt_long's own diagnostic";
    EXPECT_THAT(result.err, Not(HasSubstr("ERROR"))) << option;
    EXPECT_FALSE(exists("out.kovraevent")) << option;
  }
}

TEST_F(KovraBrantelTest, SuccessfulRunLogsCountsAndCarriesTriggersOver) {
  write_photons("in.kovraphot", twoFlashes, std::vector<Time>{Time{5}, Time{-7}});
  const RunResult result = run({"--inputFile", "in.kovraphot", "-s", "2", "-t", "1e-6", "-o", "out/sub/e.kovraevent"});
  EXPECT_TRUE(result.exited && result.status == 0);
  EXPECT_EQ(unstamp(result.out), successLog("in.kovraphot", 4, 2));
  EXPECT_EQ(result.err, "");

  const std::string bytes = read_bytes(work.file("out/sub/e.kovraevent"));
  const std::string triggers = FileBytes().block("extTrigs", FileBytes().i64(5).i64(-7)).data;
  ASSERT_EQ(bytes.size(), 64 + 2 * 32 + triggers.size());
  const FileBytes head = FileBytes().id("KOVRA").u64(bytes.size() - 16).block("build", FileBytes().u64(0).u64(3));
  EXPECT_EQ(bytes.substr(0, 64), head.data + FileBytes().id("events").u64(64).data);
  EXPECT_EQ(bytes.substr(bytes.size() - triggers.size()), triggers);
}

TEST_F(KovraBrantelTest, EmptyInputsGiveMinimalFiles) {
  write_photons("none.kovraphot", {});
  write_photons("emptyTriggers.kovraphot", {}, std::vector<Time>{});
  const struct {
    const char* input;
    std::string expected;
  } cases[] = {
      {"none.kovraphot", FileBytes::file(3, FileBytes().block("events", FileBytes())).data},
      {"emptyTriggers.kovraphot",
       FileBytes::file(3, FileBytes().block("events", FileBytes()).block("extTrigs", FileBytes())).data},
  };
  ASSERT_EQ(cases[0].expected.size(), 64u);
  for (const auto& [input, expected] : cases) {
    const RunResult result = run({"-s", "2", "-t", "1e-6", "-i", input, "-o", "out.kovraevent"});
    EXPECT_EQ(result.status, 0) << input;
    EXPECT_EQ(unstamp(result.out), successLog(input, 0, 0));
    EXPECT_EQ(read_bytes(work.file("out.kovraevent")), expected) << input;
  }
}

TEST_F(KovraBrantelTest, VerboseSetsTheThreshold) {
  write_photons("in.kovraphot", twoFlashes);
  const std::string all = successLog("in.kovraphot", 4, 2);
  const std::string infoOnly = "info:    @in.kovraphot: Total number of photons in file = 4\n"
                               "info:    @in.kovraphot: Total number of reconstructed events = 2\n";
  const struct {
    const char* level;
    std::string out;
  } cases[] = {{"4", all}, {"3", infoOnly}, {"2", infoOnly}, {"1", ""}, {"-1", ""}};
  for (const auto& [level, out] : cases) {
    const RunResult result = run(with_settings({"--verbose", level}));
    EXPECT_EQ(result.status, 0) << level;
    EXPECT_EQ(unstamp(result.out), out) << level;
    EXPECT_EQ(result.err, "") << level;
  }
}

TEST_F(KovraBrantelTest, OutputDirectoriesAreMadeBeforeTheInputIsRead) {
  const RunResult result = run({"-s", "2", "-t", "1e-6", "-i", "missing.kovraphot", "-o", "out/sub/e.kovraevent"});
  EXPECT_EQ(result.signal, SIGABRT);
  EXPECT_EQ(unstamp(result.out), "trace:   @Processing file: missing.kovraphot\n");
  EXPECT_TRUE(std::filesystem::is_directory(work.path() / "out/sub"));
  EXPECT_FALSE(exists("out/sub/e.kovraevent"));
}

TEST_F(KovraBrantelTest, UnwritableOutputStopsOnTheWriterAssertion) {
  write_photons("in.kovraphot", twoFlashes);
  std::filesystem::create_directory(work.path() / "out.kovraevent");
  const RunResult result = run(with_settings({}));
  expect_abort(result, "end_content - begin_content == size_content");
  EXPECT_THAT(unstamp(result.out), HasSubstr("Total number of photons in file = 4\n"));
}

TEST_F(KovraBrantelTest, ParametersFileTakesItsPlaceInTheCommandLine) {
  write_photons("in.kovraphot", twoFlashes);
  write_bytes(work.file("good.json"), R"({"brantel": {"dSpace_px": 2, "dTime_s": 1e-6, "algorithm": "default"}})");
  write_bytes(work.file("bogus.json"), R"({"brantel": {"algorithm": "bogus"}})");
  const std::string bogus = "what():  algorithm \"bogus\" does not exist!";
  const struct {
    std::vector<std::string> args;
    bool succeeds;
  } cases[] = {
      {{"-f", "good.json"}, true},
      {{"--algorithm", "bogus", "--paramsFile", "good.json"}, true},
      {{"-f", "good.json", "--algorithm", "bogus"}, false},
      {{"-f", "bogus.json", "-f", "good.json"}, true},
      {{"-f", "good.json", "-f", "bogus.json"}, false},
  };
  for (const auto& [args, succeeds] : cases) {
    std::vector<std::string> full = args;
    full.insert(full.end(), {"-i", "in.kovraphot", "-o", "out.kovraevent"});
    const RunResult result = run(full);
    if (succeeds) {
      EXPECT_TRUE(result.exited && result.status == 0) << result.err;
      EXPECT_EQ(unstamp(result.out), successLog("in.kovraphot", 4, 2));
    } else {
      expect_abort(result, bogus);
    }
  }
}

TEST_F(KovraBrantelTest, UnknownAlgorithmStopsAfterReadingAndBeforeWriting) {
  write_photons("in.kovraphot", twoFlashes);
  for (const char* name : {"Default", "default ", "", "fullchain_direct"}) {
    const RunResult result = run(with_settings({"--algorithm", name}));
    expect_abort(result, "'std::invalid_argument'\n  what():  algorithm \"" + std::string(name) + "\" does not exist!");
    EXPECT_EQ(unstamp(result.out), "trace:   @Processing file: in.kovraphot\n"
                                   "info:    @in.kovraphot: Total number of photons in file = 4\n");
    EXPECT_FALSE(exists("out.kovraevent")) << name;
  }
}

TEST_F(KovraBrantelTest, ExtensionFactorWarningIgnoresTheLogLevel) {
  write_photons("in.kovraphot", twoFlashes);
  const std::string warning = "WARNING: Extension factor is not supported for the chosen algorithm!\n";
  const struct {
    const char* algorithm;
    std::string out;
  } cases[] = {{"fullChain_direct", warning},
               {"forwardChain_photonBuildup", warning},
               {"noBranchChain_direct", ""},
               {"default", ""}};
  for (const auto& [algorithm, out] : cases) {
    const RunResult result = run(with_settings({"--verbose", "-5", "--dTime_ext", "2", "--algorithm", algorithm}));
    EXPECT_EQ(result.status, 0) << algorithm;
    EXPECT_EQ(result.out, out) << algorithm;
  }
}
