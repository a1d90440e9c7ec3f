// The command line: defaults, which options turn the summary off, and one exact message per mistake.

#include "inspect/InspectOptions.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using namespace kovra::inspect;

Inspect_Options parse(std::vector<std::string> args) {
  args.insert(args.begin(), "kovra_inspect");
  std::vector<char*> argv;
  for (auto& a : args) argv.push_back(a.data());
  argv.push_back(nullptr);
  return parse_inspectOptions(static_cast<int>(args.size()), argv.data());
}

TEST(InspectOptionsTest, FileAloneAsksForTheSummary) {
  const Inspect_Options o = parse({"run.kovraevent"});
  EXPECT_EQ(o.inputFile, "run.kovraevent");
  EXPECT_TRUE(o.summary);
  EXPECT_FALSE(o.csvFile || o.hdf5File || o.imageFile);
  EXPECT_EQ(o.size_px, 256);
  EXPECT_EQ(o.binning, 1.0);
}

TEST(InspectOptionsTest, ExportsReplaceTheSummaryUnlessItIsAsked) {
  const Inspect_Options o = parse({"run.kovraevent", "--image", "map.png", "-b", "0.5", "--size", "512"});
  EXPECT_FALSE(o.summary);
  EXPECT_EQ(o.imageFile, "map.png");
  EXPECT_EQ(o.binning, 0.5);
  EXPECT_EQ(o.size_px, 512);

  const Inspect_Options both = parse({"--hdf5", "x.h5", "-c", "-", "run.kovraphot", "--image=m.png"});
  EXPECT_EQ(both.hdf5File, "x.h5");
  EXPECT_EQ(both.csvFile, "-");
  EXPECT_EQ(both.imageFile, "m.png");
  EXPECT_FALSE(both.summary);
  EXPECT_TRUE(parse({"-s", "run.kovraevent", "-i", "m.png"}).summary);
}

TEST(InspectOptionsTest, HelpStopsReading) {
  EXPECT_TRUE(parse({"--help", "--bogus"}).helpRequested);
  EXPECT_TRUE(parse({"-h"}).helpRequested);
}

TEST(InspectOptionsTest, HelpDocumentsEveryOption) {
  const std::string help = get_inspectHelp();
  for (const option& o : get_inspectLongOptions()) {
    if (o.name == nullptr) break;
    EXPECT_THAT(help, ::testing::HasSubstr(std::string("--") + o.name + ' ')) << o.name;
    if (o.val < 128 && std::string(":sc:i:b:h").find(static_cast<char>(o.val)) != std::string::npos) {
      EXPECT_THAT(help, ::testing::HasSubstr(std::string("-") + static_cast<char>(o.val) + ", --" + o.name));
    }
  }
}

TEST(InspectOptionsTest, MistakesGiveOneMessageEach) {
  const struct {
    std::vector<std::string> args;
    const char* message;
  } cases[] = {
      {{}, "no input file given"},
      {{"a.kovraevent", "b.kovraevent"}, "more than one input file: b.kovraevent"},
      {{"a.kovraevent", "--binning", "abc"}, "option --binning needs a number, not \"abc\""},
      {{"a.kovraevent", "--binning", "1px"}, "option --binning needs a number, not \"1px\""},
      {{"a.kovraevent", "--binning", "0"}, "option --binning must be between 1/65536 and 1e9 pixels"},
      {{"a.kovraevent", "--binning", "nan"}, "option --binning must be between 1/65536 and 1e9 pixels"},
      {{"a.kovraevent", "--size", "0"}, "option --size must be between 1 and 32768 pixels"},
      {{"a.kovraevent", "--size", "2.5"}, "option --size needs a number, not \"2.5\""},
      {{"a.kovraevent", "--csv"}, "option --csv needs a value"},
      {{"a.kovraevent", "-i"}, "option -i needs a value"},
      {{"a.kovraevent", "--frobnicate"}, "unknown option --frobnicate"},
      {{"a.kovraevent", "-x"}, "unknown option -x"},
      {{"a.kovraevent", "--summary", "--csv", "-"}, "the summary and --csv - cannot share standard output"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.message);
    EXPECT_THAT([&] { parse(c.args); },
                ::testing::ThrowsMessage<std::invalid_argument>(::testing::StrEq(c.message)));
  }
}

}  // namespace
