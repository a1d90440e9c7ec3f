#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <iostream>
#include <sstream>

#include "logging.hpp"

namespace {

/// Redirects std::cout and std::cerr into strings for its lifetime.
struct CapturedStreams {
  std::ostringstream out, err;
  std::streambuf* oldOut = std::cout.rdbuf(out.rdbuf());
  std::streambuf* oldErr = std::cerr.rdbuf(err.rdbuf());
  ~CapturedStreams() {
    std::cout.rdbuf(oldOut);
    std::cerr.rdbuf(oldErr);
  }
};

}  // namespace

TEST(LoggingTest, ThresholdAndStreamPerLevel) {
  // Each row: the threshold and whether error, info and trace print at it.
  const struct {
    int threshold;
    bool error, info, trace;
  } rows[] = {{-3, false, false, false}, {-2, false, false, false}, {-1, true, false, false},
              {1, true, false, false},   {2, true, true, false},    {3, true, true, false},
              {4, true, true, true},     {1000, true, true, true}};
  for (const auto& row : rows) {
    logLevel = static_cast<LogLevel>(row.threshold);
    CapturedStreams captured;
    logging<LogLevel::error>("<e>");
    logging<LogLevel::info>("<i>");
    logging<LogLevel::trace>("<t>");
    const std::string out = captured.out.str(), err = captured.err.str();
    EXPECT_EQ(err.find("<e>\n") != std::string::npos, row.error) << row.threshold;
    EXPECT_EQ(out.find("<i>\n") != std::string::npos, row.info) << row.threshold;
    EXPECT_EQ(out.find("<t>\n") != std::string::npos, row.trace) << row.threshold;
    EXPECT_EQ(out.find("<e>"), std::string::npos);
    EXPECT_EQ(err.find("<i>"), std::string::npos);
    EXPECT_EQ(err.find("<t>"), std::string::npos);
  }
  logLevel = LogLevel::trace;
}

TEST(LoggingTest, LineLayout) {
  CapturedStreams captured;
  logging<LogLevel::info>("a: b");
  logging<LogLevel::trace>("");
  logging<LogLevel::error>("x");
  const char* stamp = "[0-9]{4}-[0-9]{2}-[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2} UTC[+-][0-9]{4}: ";
  EXPECT_THAT(captured.out.str(), testing::MatchesRegex(std::string("info:    ") + stamp + "a: b\n" + "trace:   " +
                                                        stamp + "\n"));
  EXPECT_THAT(captured.err.str(), testing::MatchesRegex(std::string("ERROR:   ") + stamp + "x\n"));
}
