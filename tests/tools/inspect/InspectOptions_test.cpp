// The command line: when the summary is printed, the help, and one exact message per mistake.

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

TEST(InspectOptionsTest, ExportsReplaceTheSummaryUnlessItIsAsked) {
  EXPECT_TRUE(parse({"run.kovraevent"}).summary);
  EXPECT_FALSE(parse({"--hdf5", "x.h5", "run.kovraevent"}).summary);
  EXPECT_TRUE(parse({"-s", "run.kovraevent", "--image=m.png"}).summary);
}

TEST(InspectOptionsTest, HelpDocumentsEveryOption) {
  for (const option& o : get_inspectLongOptions()) {
    if (o.name != nullptr) {
      EXPECT_THAT(get_inspectHelp(), ::testing::HasSubstr(std::string("--") + o.name + ' '));
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
      {{"a.kovraevent", "--binning", "0"}, "option --binning must be between 1/65536 and 1e9 pixels"},
      {{"a.kovraevent", "--size", "2.5"}, "option --size needs a number, not \"2.5\""},
      {{"a.kovraevent", "-i"}, "option -i needs a value"},
      {{"a.kovraevent", "--frobnicate"}, "unknown option --frobnicate"},
      {{"a.kovraevent", "--summary", "--csv", "-"}, "the summary and --csv - cannot share standard output"},
  };
  for (const auto& c : cases) {
    EXPECT_THAT([&] { parse(c.args); }, ::testing::ThrowsMessage<std::invalid_argument>(::testing::StrEq(c.message)));
  }
}

}  // namespace
