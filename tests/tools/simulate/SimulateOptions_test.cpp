// The simulator's command line: every option reaches its setting, and every bad value is refused with one
// message that names the option, the expectation and the value.

#include <getopt.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "simulate/SimulateOptions.hpp"

using namespace kovra::simulate;

namespace {

Simulate_Options parse(std::vector<std::string> args) {
  args.insert(args.begin(), "kovra_simulate");
  std::vector<char*> argv;
  for (auto& a : args) argv.push_back(a.data());
  argv.push_back(nullptr);
  optind = 0;
  return parse_simulateOptions(static_cast<int>(args.size()), argv.data());
}

}  // namespace

TEST(SimulateOptionsTest, EveryOptionReachesItsSetting) {
  const auto o = parse({"--output=b.kovraphot", "-d", "0.5", "-r", "1e4", "-n", "12.5", "--sigma", "0.75", "--width",
                        "128", "--height", "64", "--snap", "--tau-fast", "3e-9", "--tau-slow", "2e-7", "--class",
                        "alpha:2:0.5", "--class", "beta:1:0", "--dark-rate", "50", "--triggers", "250", "--seed",
                        "18446744073709551615", "--truth"});
  ASSERT_EQ(o.error, "");
  const auto& s = o.settings;
  EXPECT_EQ(o.outputPath, "b.kovraphot");
  EXPECT_EQ(s.duration_s, 0.5);
  EXPECT_EQ(s.eventRate_Hz, 1e4);
  EXPECT_EQ(s.photonsPerEvent, 12.5);
  EXPECT_EQ(s.sigma_px, 0.75);
  EXPECT_EQ(s.width_px, 128);
  EXPECT_EQ(s.height_px, 64);
  EXPECT_TRUE(s.snapToPixels);
  EXPECT_EQ(s.tauFast_s, 3e-9);
  EXPECT_EQ(s.tauSlow_s, 2e-7);
  ASSERT_EQ(s.classes.size(), 2u);  // the given classes replace the defaults
  EXPECT_EQ(s.classes[0].name, "alpha");
  EXPECT_EQ(s.classes[0].weight, 2.0);
  EXPECT_EQ(s.classes[0].slowFraction, 0.5);
  EXPECT_EQ(s.classes[1].name, "beta");
  EXPECT_EQ(s.classes[1].slowFraction, 0.0);
  EXPECT_EQ(s.darkRate_Hz, 50.0);
  EXPECT_EQ(s.triggerMode, Trigger_Mode::periodic);
  EXPECT_EQ(s.triggerFrequency_Hz, 250.0);
  EXPECT_EQ(s.seed, 18446744073709551615ULL);
  EXPECT_TRUE(o.writeTruth);
  EXPECT_EQ(parse({"-o", "a.kovraphot", "--triggers", "10", "--triggers", "empty"}).settings.triggerMode,
            Trigger_Mode::empty);  // the last one given counts
}

TEST(SimulateOptionsTest, HelpNamesEveryOption) {
  const std::string help = get_simulateHelp();
  for (const char* name : {"--output", "--duration", "--event-rate", "--photons", "--sigma", "--width", "--height",
                           "--snap", "--tau-fast", "--tau-slow", "--class", "--dark-rate", "--triggers", "--seed",
                           "--truth", "--help", "(default 1)", "(default 256)", "gamma:0.7:0.1"}) {
    EXPECT_NE(help.find(name), std::string::npos) << name;
  }
}

TEST(SimulateOptionsTest, BadCommandLinesGetOneClearMessage) {
  const std::string classRule = "--class: expected NAME:WEIGHT:SLOW with a name without ',', '\"' or ':', a weight "
                                "greater than 0 and a slow fraction from 0 to 1, got '";
  const struct {
    std::vector<std::string> args;
    std::string message;
  } cases[] = {
      {{}, "no output file given (-o FILE.kovraphot)"},
      {{"-o", "a.kovraevent"}, "the output file must end in .kovraphot, got 'a.kovraevent'"},
      {{"-o", "a.kovraphot", "-d", "0"}, "--duration: expected seconds greater than 0 and at most 1000000, got '0'"},
      {{"-o", "a.kovraphot", "-d", "1e7"},
       "--duration: expected seconds greater than 0 and at most 1000000, got '1e7'"},
      {{"-o", "a.kovraphot", "-r", "-1"}, "--event-rate: expected a rate in hertz at least 0, got '-1'"},
      {{"-o", "a.kovraphot", "-n", ""},
       "--photons: expected a mean photon count at least 0 and at most 1000000, got ''"},
      {{"-o", "a.kovraphot", "--sigma", "-0.1"}, "--sigma: expected pixels at least 0, got '-0.1'"},
      {{"-o", "a.kovraphot", "--width", "0"},
       "--width: expected a whole number of pixels at least 1 and at most 32767, got '0'"},
      {{"-o", "a.kovraphot", "--height", "32768"},
       "--height: expected a whole number of pixels at least 1 and at most 32767, got '32768'"},
      {{"-o", "a.kovraphot", "--width", "2.5"}, "--width: expected a whole number of pixels, got '2.5'"},
      {{"-o", "a.kovraphot", "--tau-fast", "0"}, "--tau-fast: expected seconds greater than 0 and at most 1, got '0'"},
      {{"-o", "a.kovraphot", "--class", "gamma:1"}, classRule + "gamma:1'"},
      {{"-o", "a.kovraphot", "--class", "a,b:1:0.1"}, classRule + "a,b:1:0.1'"},
      {{"-o", "a.kovraphot", "--class", "a:0:0.1"}, classRule + "a:0:0.1'"},
      {{"-o", "a.kovraphot", "--class", "a:1:1.5"}, classRule + "a:1:1.5'"},
      {{"-o", "a.kovraphot", "--class", "a:1:0.1:2"}, classRule + "a:1:0.1:2'"},
      {{"-o", "a.kovraphot", "--triggers", "0"},
       "--triggers: expected 'none', 'empty' or a frequency in hertz greater than 0, got '0'"},
      {{"-o", "a.kovraphot", "--triggers", "1e9"}, "--triggers: more than 1e8 triggers in the acquisition"},
      {{"-o", "a.kovraphot", "--seed", "-1"},
       "--seed: expected a whole number from 0 to 18446744073709551615, got '-1'"},
      {{"-o", "a.kovraphot", "--seed", "18446744073709551616"},
       "--seed: expected a whole number from 0 to 18446744073709551615, got '18446744073709551616'"},
      {{"-o", "a.kovraphot", "-r", "1e9", "-n", "10"},
       "1e+10 photons expected, more than the limit of 1e+09; shorten --duration"},
      {{"-o", "a.kovraphot", "--bogus"}, "unknown option '--bogus'"},
      {{"-o", "a.kovraphot", "--seed"}, "option '--seed' needs a value"},
      {{"-o", "a.kovraphot", "extra"}, "unexpected argument 'extra'"},
  };
  for (const auto& c : cases) {
    const auto o = parse(c.args);
    EXPECT_EQ(o.error, c.message);
    EXPECT_FALSE(o.helpRequested);
  }
}

TEST(SimulateOptionsTest, TruthFileSitsBesideThePhotonFile) {
  EXPECT_EQ(get_truthPath("data/run.kovraphot"), "data/run.truth.csv");
  EXPECT_EQ(get_truthPath("a.b.kovraphot"), "a.b.truth.csv");
}
