// The option values of every companion tool are read by one parser with one grammar for what is wrong:
// option --NAME needs WHAT, not "TEXT".

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

#include "common/Options.hpp"

using kovra::tools::Number_Range;
using kovra::tools::parse_number;
using testing::StrEq;
using testing::ThrowsMessage;

namespace {

const Number_Range seconds{"a number of seconds", 0, 1e6, true};
const Number_Range rate{"a rate in hertz", 0};
const Number_Range pixels{"a whole number of pixels", 1, 32767, false, true};
const Number_Range duration{"a number", 0, INFINITY, false, false, true};
const Number_Range share{"a share", -0.5, 0.25};

TEST(ToolOptionsTest, NumbersWithinTheirRange) {
  struct Good {
    const Number_Range& range;
    const char* text;
    double value;
  };
  const Good good[] = {
      {seconds, "1e-9", 1e-9}, {seconds, "1000000", 1e6}, {rate, "0", 0},     {rate, "2.5e7", 2.5e7},
      {pixels, "1", 1},        {pixels, "32767", 32767},  {pixels, "007", 7}, {duration, "inf", INFINITY},
      {share, "-0.5", -0.5},   {share, "0.25", 0.25}};
  for (const auto& g : good) EXPECT_EQ(parse_number("x", g.text, g.range), g.value) << g.text;
  EXPECT_EQ(parse_number<std::uint64_t>("x", "18446744073709551615", {"n", 0, INFINITY, false, true}),
            std::uint64_t{18446744073709551615U});
}

TEST(ToolOptionsTest, EverythingElseGetsTheOneGrammar) {
  // Each range's rule and the texts it refuses: "option --x needs RULE, not "TEXT"".
  const struct {
    const Number_Range& range;
    std::string rule;
    std::vector<std::string> texts;
  } bad[] = {
      {seconds, "a number of seconds greater than 0 and at most 1000000", {"0", "1000001", "", "1s", " 1", "nan"}},
      {rate, "a rate in hertz, at least 0", {"-1", "inf"}},
      {pixels, "a whole number of pixels from 1 to 32767", {"0", "2.5", "1e3", "-3"}},
      {duration, "a number, at least 0 (or inf)", {"-1"}},
      {share, "a share from -0.5 to 0.25", {"0.26"}},
  };
  for (const auto& b : bad) {
    for (const std::string& text : b.texts) {
      EXPECT_THAT([&] { parse_number("x", text, b.range); },
                  ThrowsMessage<std::invalid_argument>(StrEq("option --x needs " + b.rule + ", not \"" + text + "\"")));
    }
  }
  EXPECT_THAT(
      [] {
    parse_number<std::uint64_t>("x", "18446744073709551616", {"n", 0, INFINITY, false, true});
      },
      ThrowsMessage<std::invalid_argument>(StrEq("option --x needs n, at least 0, not \"18446744073709551616\"")));
}

TEST(ToolOptionsTest, ListsHaveNoEmptyEntries) {
  EXPECT_EQ(kovra::tools::split_list("grid", "1,2.5,inf"), (std::vector<std::string>{"1", "2.5", "inf"}));
  for (const char* text : {"", ",1", "1,", "1,,2"}) {
    EXPECT_THAT(
        [&] { kovra::tools::split_list("grid", text); },
        ThrowsMessage<std::invalid_argument>(StrEq(
            std::string("option --grid needs a comma-separated list without empty entries, not \"") + text + "\"")));
  }
}

TEST(ToolOptionsTest, ChoicesAreNamedInTheMessage) {
  EXPECT_EQ(kovra::tools::parse_choice<int>("edge", "b", {{"a", 1}, {"b", 2}, {"c", 3}}), 2);
  EXPECT_THAT(
      [] {
    kovra::tools::parse_choice<int>("edge", "B", {{"a", 1}, {"b", 2}, {"c", 3}});
      },
      ThrowsMessage<std::invalid_argument>(StrEq("option --edge needs a, b or c, not \"B\"")));
  EXPECT_THAT(
      [] {
    kovra::tools::parse_choice<int>("layout", "", {{"single", 1}, {"quad", 4}});
      },
      ThrowsMessage<std::invalid_argument>(StrEq("option --layout needs single or quad, not \"\"")));
}

}  // namespace
