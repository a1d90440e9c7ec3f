// The companion tools answer help, version and a bad command line the same way: help and version on standard
// output with status 0, "<tool>: <what>" and "Try '<tool> --help'." on standard error with status 2.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <tuple>
#include <utility>

#include "RunProgram.hpp"
#include "TempDir.hpp"

namespace {

struct Tool {
  const char* name;
  const char* path;
  const char* optionWithValue;  ///< an option of the tool that needs a value
};

const Tool tools[] = {{"kovra_simulate", KOVRA_SIMULATE_PATH, "--seed"},
                      {"kovra_inspect", KOVRA_INSPECT_PATH, "--csv"},
                      {"kovra_evaluate", KOVRA_EVALUATE_PATH, "--truth"},
                      {"kovra_import", KOVRA_IMPORT_PATH, "--radius"}};

}  // namespace

TEST(ToolCommandLineTest, HelpAndVersionOnStandardOutputBadUsageOneLineAndStatusTwo) {
  for (const Tool& tool : tools) {
    const TempDir dir;
    const std::string name = tool.name, usage = "\nTry '" + name + " --help'.\n";
    const Program_Outcome version = run_program(dir, tool.path, "--version");
    EXPECT_EQ(std::tuple(version.status, version.out, version.err), std::tuple(0, name + " " KOVRA_VERSION "\n", ""));
    for (const char* help : {"--help", "-h"}) {
      const Program_Outcome outcome = run_program(dir, tool.path, help);
      EXPECT_EQ(std::tuple(outcome.status, outcome.err), std::tuple(0, "")) << name << " " << help;
      EXPECT_THAT(outcome.out, testing::StartsWith("Usage: " + name)) << help;
      EXPECT_THAT(outcome.out, testing::HasSubstr("--version")) << name;
    }
    const std::pair<std::string, std::string> cases[] = {
        {"--bogus", "unknown option --bogus"},
        {"-x", "unknown option -x"},
        {tool.optionWithValue, std::string("option ") + tool.optionWithValue + " needs a value"},
    };
    for (const auto& [arguments, message] : cases) {
      const Program_Outcome outcome = run_program(dir, tool.path, arguments);
      EXPECT_EQ(std::tuple(outcome.status, outcome.out, outcome.err), std::tuple(2, "", name + ": " + message + usage))
          << arguments;
    }
  }
}
