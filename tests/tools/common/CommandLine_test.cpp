// The companion tools answer help, version and a bad command line the same way: help and version on standard
// output with status 0, "<tool>: <what>" and "Try '<tool> --help'." on standard error with status 2.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

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

TEST(ToolCommandLineTest, HelpAndVersionOnStandardOutput) {
  for (const Tool& tool : tools) {
    const TempDir dir;
    const Program_Outcome version = run_program(dir, tool.path, "--version");
    EXPECT_EQ(version.status, 0) << tool.name;
    EXPECT_EQ(version.out, std::string(tool.name) + " " KOVRA_VERSION "\n");
    EXPECT_EQ(version.err, "") << tool.name;
    for (const char* help : {"--help", "-h"}) {
      const Program_Outcome outcome = run_program(dir, tool.path, help);
      EXPECT_EQ(outcome.status, 0) << tool.name << " " << help;
      EXPECT_THAT(outcome.out, testing::StartsWith(std::string("Usage: ") + tool.name)) << help;
      EXPECT_THAT(outcome.out, testing::HasSubstr("--version")) << tool.name;
      EXPECT_EQ(outcome.err, "") << tool.name << " " << help;
    }
  }
}

TEST(ToolCommandLineTest, BadUsageGetsOneLineAndStatusTwo) {
  for (const Tool& tool : tools) {
    const struct {
      std::string arguments, message;
    } cases[] = {
        {"--bogus", "unknown option --bogus"},
        {"-x", "unknown option -x"},
        {tool.optionWithValue, std::string("option ") + tool.optionWithValue + " needs a value"},
    };
    for (const auto& c : cases) {
      const TempDir dir;
      const Program_Outcome outcome = run_program(dir, tool.path, c.arguments);
      EXPECT_EQ(outcome.status, 2) << tool.name << " " << c.arguments;
      EXPECT_EQ(outcome.out, "") << tool.name << " " << c.arguments;
      EXPECT_EQ(outcome.err, std::string(tool.name) + ": " + c.message + "\nTry '" + tool.name + " --help'.\n");
    }
  }
}
