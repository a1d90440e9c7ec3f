// End-to-end runs of the built kovra_brantel binary: how it ends, both output streams and the file it writes,
// each test in a fresh working directory.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>
#include <filesystem>
#include <optional>
#include <regex>
#include <string>
#include <vector>

#include "FileBytes.hpp"
#include "RunProgram.hpp"
#include "TempDir.hpp"
#include "kovra/tpx3spidr/Tpx3Spidr.hpp"

using namespace kovra::tpx3spidr;
using testing::HasSubstr;
using testing::StrEq;

namespace {

const std::string program = KOVRA_BRANTEL_PATH;

/// Replaces the time stamp of every log line by "@"; under TZ=UTC-2 the local offset is +0200.
std::string unstamp(const std::string& text) {
  static const std::regex stamp(R"((ERROR:   |info:    |trace:   )\d{4}-\d\d-\d\d \d\d:\d\d:\d\d UTC\+0200: )");
  return std::regex_replace(text, stamp, "$1@");
}

std::string help(const std::string& durationMax) {
  return "kovra_brantel - event reconstruction for Timepix3 photon-counting cameras\n"
         "Usage: " +
         program +
         " [OPTIONS]\n"
         "Example: " +
         program +
         " -s 10 -t 1e-6 -i filename.kovraphot -o filename.kovraevent\n\n"
         "OPTIONS\n"
         "  -h, --help         Print out this help\n"
         "      --license      License information\n"
         "      --version      Version number\n\n"
         "  -i, --inputFile    Path to the input file, must not contain commas\n"
         "  -o, --outputFile   Path (including file name) for the output, must not contain commas\n\n"
         "  -f, --paramsFile   Path to a .json file where processing parameters are defined\n"
         "  -s, --dspace       Distance in space for photon search [px]\n"
         "  -t, --dtime        Distance in time for photon search [s]\n"
         "  -D, --durationMax  Maximum duration to look for photons [s] (default: " +
         durationMax + ")\n\n";
}

// The log of a run on in.kovraphot, line by line.
const std::string start = "trace:   @Processing file: in.kovraphot\n",
                  photons = "info:    @in.kovraphot: Total number of photons in file = 4\n",
                  events = "info:    @in.kovraphot: Total number of reconstructed events = 2\n",
                  end = "trace:   @Finished processing file: in.kovraphot\n";

PhotonEvent photon(double x, double y, long ticks) {
  return PhotonEvent{Length::from_pixels(x), Length::from_pixels(y), Time{ticks}};
}

class KovraBrantelTest : public testing::Test {
 protected:
  TempDir work;

  /// Runs the program in `work` under TZ=UTC-2 and without POSIXLY_CORRECT. No argument holds a single quote.
  Program_Outcome run(const std::vector<std::string>& args) {
    std::string command = "-u POSIXLY_CORRECT TZ=UTC-2 '" + program + "'";
    for (const auto& arg : args) command += " '" + arg + "'";
    const Program_Outcome outcome = run_program(work, "env", command);
    return {outcome.status, unstamp(outcome.out), unstamp(outcome.err)};
  }

  /// By default in.kovraphot with two well separated groups of photons: two events under -s 2 -t 1e-6.
  void write_photons(const std::string& name = "in.kovraphot",
                     std::vector<PhotonEvent> list = {photon(10, 10, 0), photon(11, 10, 100), photon(10, 11, 200),
                                                      photon(100, 100, 100000)},
                     std::optional<std::vector<Time>> triggers = std::nullopt) {
    FileHandler_PhotonEvents::save_file(work.file(name), {list, triggers});
  }

  bool exists(const std::string& name) const { return std::filesystem::exists(work.path() / name); }
};

/// The settings of a successful run on in.kovraphot, written to out.kovraevent; later options override them.
std::vector<std::string> with_settings(std::vector<std::string> args) {
  args.insert(args.begin(), {"-s", "2", "-t", "1e-6", "-i", "in.kovraphot", "-o", "out.kovraevent"});
  return args;
}

}  // namespace

TEST_F(KovraBrantelTest, RunsThatWriteNoFile) {
  write_photons();
  write_bytes(work.file("array.json"), R"([{"brantel": {}}])");
  std::filesystem::create_directory(work.path() / "dir.kovraevent");
  const auto error = [](const std::string& message) { return StrEq("ERROR:   @" + message + " Exiting...\n"); };
  const std::string noTime = "No time distance provided for photon search!";
  const int aborted = 128 + SIGABRT;
  const struct {
    std::vector<std::string> args;
    int status;
    testing::Matcher<const std::string&> err;
    std::string out = "";
  } cases[] = {
      // The settings are checked in this order; the duration after the space distance, before the files.
      {{}, 1, error(noTime)},
      {{"-t", "1e-6", "-D", "-1", "-i", "x", "-o", "y"}, 1, error("No space distance provided for photon search!")},
      {{"-t", "1e-6", "-s", "10", "-o", "y"}, 1, error("No file supplied!")},
      {{"-t", "1", "-s", "1", "-i", "a.kovraphot.bak", "-o", "y"}, 1, error("Input file must be a .kovraphot file!")},
      {{"-t", "1e-6", "-s", "10", "-i", ".kovraphot"}, 1, error("No output destination specified!")},
      {{"-t", "1", "-s", "1", "-i", "a.kovraphot", "-o", "dir/b.KOVRAEVENT"},
       1,
       error("Output file must be a .kovraevent file!")},
      {{"--verbose", "-1"}, 1, error(noTime)},
      {{"--verbose", "-2"}, 1, StrEq("")},
      // Help, version and licence, printed where they stand, and options getopt_long rejects end with status 0.
      {with_settings({"--help"}), 0, StrEq(help("inf"))},
      {{"-h", "-D", "5"}, 0, StrEq(help("inf"))},
      {{"-D", "0.25", "-h"}, 0, StrEq(help("0.25"))},
      {{"--version"}, 0, StrEq("1.0.0\n")},
      {{"--license"}, 0, StrEq(std::string("\n").append(read_bytes(KOVRA_LICENSE_PATH)).append("\n"))},
      {{"--version", "-h"}, 0, StrEq("1.0.0\n" + help("inf"))},
      {with_settings({"--dspace=10"}), 0, testing::StartsWith(program + ": ")},
      // Everything else ends the run abnormally with its message.
      {{"-h", "-s", "abc"}, aborted, testing::StartsWith(help("inf") + "terminate called")},
      {{"-t", "1e10"}, aborted, HasSubstr("what():  Value 10000000000.000000 s out of range!")},
      {{"-t", "1e-6", "-s", "10", "-D", "-1"}, aborted, HasSubstr("parameters.duration_max_s >= 0")},
      {{"-t", "1e-6", "-s", "10", "-D", "nan"}, aborted, HasSubstr("parameters.duration_max_s >= 0")},
      {{"-s", "abc"}, aborted, HasSubstr("'std::invalid_argument'\n  what():  stod")},
      {{"--dTime_ext", "1e999"}, aborted, HasSubstr("'std::out_of_range'\n  what():  stod")},
      {{"--verbose", "3000000000"}, aborted, HasSubstr("'std::out_of_range'\n  what():  stoi")},
      {{"-s", "1", "extra.txt", "-t", "1"}, aborted, HasSubstr("what():  excess argument: extra.txt !")},
      {{"--dspace", "10"}, aborted, HasSubstr("what():  excess argument: 10 !")},
      {{"-f", "missing.json"}, aborted, HasSubstr("IsObject()")},
      {{"-f", "array.json"}, aborted, HasSubstr("IsObject()")},
      {with_settings({"-i", "no.kovraphot", "-o", "made/sub/e.kovraevent"}), aborted,
       HasSubstr("what():  file \"no.kovraphot\" could not be opened!"), "trace:   @Processing file: no.kovraphot\n"},
      {with_settings({"--algorithm", "Default"}), aborted, HasSubstr("what():  algorithm \"Default\" does not exist!"),
       start + photons},
      {with_settings({"-o", "dir.kovraevent"}), aborted, HasSubstr("end_content - begin_content == size_content"),
       start + photons},
  };
  for (const auto& [args, status, err, out] : cases) {
    const Program_Outcome result = run(args);
    EXPECT_EQ(result.status, status) << testing::PrintToString(args);
    EXPECT_THAT(result.err, err) << testing::PrintToString(args);
    EXPECT_EQ(result.out, out) << testing::PrintToString(args);
    EXPECT_FALSE(exists("out.kovraevent")) << testing::PrintToString(args);
  }
  EXPECT_FALSE(exists("dir")) << "nothing is made before the settings are checked";
  EXPECT_TRUE(exists("made/sub")) << "the output directory is made before the input is read";
}

TEST_F(KovraBrantelTest, RunsLogByLevelAndWriteTheEventFile) {
  write_photons();
  write_photons("none.kovraphot", {});
  write_photons("noTrigs.kovraphot", {}, std::vector<Time>{});
  write_photons("t.kovraphot", {}, std::vector<Time>{Time{5}, Time{-7}});
  write_photons("late.kovraphot",
                {photon(10, 10, 0), photon(11, 10, 100), photon(100, 100, 100000), photon(10, 11, 200)});
  const std::string late =
      "info:    @late.kovraphot: Total number of photons in file = 4\n"
      "info:    @late.kovraphot: Total number of reconstructed events = 3\n";
  const FileBytes empty = FileBytes().block("events", FileBytes());  // 64 bytes in all without triggers
  const std::string warning = "WARNING: Extension factor is not supported for the chosen algorithm!\n";
  const struct {
    std::vector<std::string> args;
    std::string out;
    std::optional<FileBytes> content = std::nullopt;
  } cases[] = {
      {{"--verbose", "4"}, start + photons + events + end},
      {{"--verbose", "2"}, photons + events},
      {{"--verbose", "1"}, ""},
      // The warning comes from below and ignores the level.
      {{"--verbose", "-5", "--dTime_ext", "2", "--algorithm", "forwardChain_photonBuildup"}, warning},
      {{"--verbose", "-5", "--dTime_ext", "2", "--algorithm", "noBranchChain_direct"}, ""},
      // Photons out of order: the same two info lines as any run (in list order the far photon ends the first
      // chain, so the last photon makes an event of its own).
      {{"--verbose", "2", "-i", "late.kovraphot", "--algorithm", "fullChain_direct"}, late},
      // Trigger blocks are carried over: absent, empty, filled.
      {{"--verbose", "1", "--inputFile", "none.kovraphot"}, "", empty},
      {{"--verbose", "1", "-i", "noTrigs.kovraphot"}, "", FileBytes(empty).block("extTrigs", FileBytes())},
      {{"--verbose", "1", "-i", "t.kovraphot"}, "", FileBytes(empty).block("extTrigs", FileBytes().i64(5).i64(-7))},
  };
  for (const auto& [args, out, content] : cases) {
    const Program_Outcome result = run(with_settings(args));
    EXPECT_EQ(result.status, 0) << args.back();
    EXPECT_EQ(result.out, out) << args.back();
    EXPECT_EQ(result.err, "") << args.back();
    if (content) {
      EXPECT_EQ(read_bytes(work.file("out.kovraevent")), FileBytes::file(3, *content).data);
    }
  }
}
