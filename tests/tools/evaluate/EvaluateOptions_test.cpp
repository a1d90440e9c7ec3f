// The command line of kovra_evaluate: what a good one gives, and one exact message for each rule of its own and
// each option's range (the grammar of numbers and lists: ToolOptionsTest; getopt's messages: ToolCommandLineTest).

#include <cmath>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "evaluate/EvaluateOptions.hpp"

using namespace kovra::evaluate;
using testing::StrEq;
using testing::ThrowsMessage;

namespace {

/// Parses a command line given as words separated by spaces; '' is an empty word.
Evaluate_Options parse(const std::string& line) {
  std::vector<std::string> args{"kovra_evaluate"};
  std::istringstream words(line);
  for (std::string word; words >> word;) args.push_back(word == "''" ? "" : word);
  std::vector<char*> argv;
  for (auto& a : args) argv.push_back(a.data());
  argv.push_back(nullptr);
  return parse_evaluateOptions(static_cast<int>(args.size()), argv.data());
}

}  // namespace

TEST(EvaluateOptionsTest, GridsSettingsAndTheTruthBesideThePhotons) {
  const auto o = parse(
      "dir/run.kovraphot --dSpace-grid 1,2.5,8 -t 5e-7 --durationMax-grid 2e-6,inf "
      "--algorithm-grid default,fullChain_direct --dTime_ext -0.5");
  EXPECT_EQ(o.inputFile, "dir/run.kovraphot");
  EXPECT_EQ(o.truthFile, "dir/run.truth.csv");
  EXPECT_EQ(o.grid.dSpace_px, (std::vector<double>{1, 2.5, 8}));
  EXPECT_EQ(o.grid.dTime_s, (std::vector<double>{5e-7}));
  EXPECT_EQ(o.grid.durationMax_s, (std::vector<double>{2e-6, INFINITY}));
  EXPECT_EQ(o.grid.algorithms, (std::vector<std::string>{"default", "fullChain_direct"}));
  EXPECT_EQ(o.grid.dTime_ext, -0.5);

  // kovra_brantel's defaults: one setting, unlimited duration, the default algorithm, no factor.
  const auto d = parse("run.kovraphot -s 5 --dTime 1e-7 --truth other.truth.csv");
  EXPECT_EQ(d.truthFile, "other.truth.csv");
  EXPECT_EQ(d.grid.size(), 1U);
  EXPECT_TRUE(std::isinf(d.grid.durationMax_s.at(0)));
  EXPECT_EQ(d.grid.algorithms, (std::vector<std::string>{"default"}));
  EXPECT_FALSE(d.grid.dTime_ext.has_value());
}

TEST(EvaluateOptionsTest, ARawFileScansTheGroupingWithTheHitFileBesideIt) {
  const auto o = parse(
      "d/run.tpx3 --simulated sim.kovraphot --radius-grid 0,2 --window 5e-8 "
      "--photon-time-grid earliest,strongest");
  EXPECT_TRUE(o.rawInput);
  EXPECT_EQ(o.truthFile, "d/run.truth.kovrahit");
  EXPECT_EQ(o.simulatedFile, "sim.kovraphot");
  EXPECT_EQ(o.groupingGrid.radius_px, (std::vector<unsigned>{0, 2}));
  EXPECT_EQ(o.groupingGrid.window_s, (std::vector<double>{5e-8}));
  EXPECT_EQ(o.groupingGrid.photonTimes,
            (std::vector<kovra::import::Photon_Time>{kovra::import::Photon_Time::earliest,
                                                     kovra::import::Photon_Time::strongest}));
  EXPECT_FALSE(o.mergeMax.has_value());  // the program's default for a grouping applies
  // kovra_import's defaults.
  const auto d = parse("run.tpx3 --simulated sim.kovraphot");
  EXPECT_EQ(d.groupingGrid.size(), 1U);
  EXPECT_EQ(d.groupingGrid.radius_px.at(0), 1U);
  EXPECT_EQ(d.groupingGrid.window_s.at(0), 250e-9);
  // A fit from the data alone needs no truth.
  const auto f = parse("run.tpx3 --fit-time-walk walk.txt --fit-from data");
  EXPECT_TRUE(f.fitFromData);
  EXPECT_EQ(f.fitTimeWalkFile, "walk.txt");
  EXPECT_EQ(f.simulatedFile, "");
}

TEST(EvaluateOptionsTest, BadCommandLinesGetOneMessage) {
  const struct {
    std::string args;
    std::string message;
  } cases[] = {
      {"run.kovraphot --dSpace-grid 1,,2 -t 1",
       "option --dSpace-grid needs a comma-separated list without empty entries, not \"1,,2\""},
      {"run.kovraphot -s 1 --dTime-grid 1e-7,inf", "option --dTime-grid needs a number, at least 0, not \"inf\""},
      {"run.kovraphot -s 1 -t 1 -D -1", "option --durationMax needs a number, at least 0 (or inf), not \"-1\""},
      {"run.kovraphot -s 1 -t 1 --algorithm-grid default,fast",
       "option --algorithm-grid needs an algorithm the reconstruction knows, not \"fast\""},
      {"run.kovraphot -s 1 --dSpace-grid 1,2 -t 1", "options --dSpace and --dSpace-grid exclude each other"},
      {"run.kovraphot -s 1 -s 2 -t 1", "option --dSpace given twice"},
      {"run.kovraphot -t 1", "no distance in space given (-s or --dSpace-grid)"},
      {"run.kovraphot -s 1", "no distance in time given (-t or --dTime-grid)"},
      {"-s 1 -t 1", "no input file given"},
      {"run.kovraevent -s 1 -t 1", "input file \"run.kovraevent\" must end in .kovraphot or .tpx3"},
      {"run.kovraphot -s 1 -t 1 --truth run.csv", "truth file \"run.csv\" must end in .truth.csv"},
      {"run.kovraphot -s 1 -t 1 --fom-photons 2.5",
       "option --fom-photons needs a whole number from 1 to 1000000000, not \"2.5\""},
      {"run.kovraphot -s 1 -t 1 --merge-max 2", "option --merge-max needs a share from 0 to 1, not \"2\""},
      {"run.kovraphot -s 1 -t 1 --threads 0", "option --threads needs a whole number from 1 to 1024, not \"0\""},
      {"run.tpx3 --radius 1", "a raw file needs --simulated FILE.kovraphot, the photons it was simulated from"},
      {"run.tpx3 --simulated s.kovraphot -s 1",
       "a raw file is scored by its grouping into photons (--radius, --window, --photon-time), not by the "
       "settings of a reconstruction"},
      {"run.tpx3 --simulated s.tpx3", "simulated photon file \"s.tpx3\" must end in .kovraphot"},
      {"run.tpx3 --simulated s.kovraphot --truth r.truth.csv",
       "hit truth file \"r.truth.csv\" must end in .truth.kovrahit"},
      {"run.tpx3 --simulated s.kovraphot --radius-grid 1,17",
       "option --radius-grid needs a whole number of pixels from 0 to 16, not \"17\""},
      {"run.tpx3 --simulated s.kovraphot --window 2",
       "option --window needs a number of seconds from 0 to 1, not \"2\""},
      {"run.tpx3 --simulated s.kovraphot --photon-time-grid first",
       "option --photon-time-grid needs strongest or earliest, not \"first\""},
      {"run.tpx3 --simulated s.kovraphot --radius 1 --radius-grid 2",
       "options --radius and --radius-grid exclude each other"},
      {"run.kovraphot -s 1 -t 1 --window 1e-8",
       "--simulated, --radius, --window, --photon-time and the time-walk options are for a raw file (.tpx3), not a "
       "photon file"},
      {"run.tpx3 --fit-time-walk w.txt",
       "a raw file needs --simulated FILE.kovraphot, the photons it was simulated from"},
      {"run.tpx3 --fit-from truth --fit-time-walk w.txt --time-walk v.txt --simulated s.kovraphot",
       "--fit-time-walk fits the hits as read, which --time-walk would correct first"},
      {"run.tpx3 --fit-from model --fit-time-walk w.txt", "option --fit-from needs truth or data, not \"model\""},
  };
  for (const auto& c : cases) {
    EXPECT_THAT([&] { parse(c.args); }, ThrowsMessage<std::invalid_argument>(StrEq(c.message))) << c.message;
  }
}
