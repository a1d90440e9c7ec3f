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
  struct Bad {
    const Number_Range& range;
    const char* text;
    const char* message;
  };
  const Bad bad[] = {
      {seconds, "0", "option --x needs a number of seconds greater than 0 and at most 1000000, not \"0\""},
      {seconds, "1000001", "option --x needs a number of seconds greater than 0 and at most 1000000, not \"1000001\""},
      {seconds, "", "option --x needs a number of seconds greater than 0 and at most 1000000, not \"\""},
      {seconds, "1s", "option --x needs a number of seconds greater than 0 and at most 1000000, not \"1s\""},
      {seconds, " 1", "option --x needs a number of seconds greater than 0 and at most 1000000, not \" 1\""},
      {seconds, "nan", "option --x needs a number of seconds greater than 0 and at most 1000000, not \"nan\""},
      {rate, "-1", "option --x needs a rate in hertz, at least 0, not \"-1\""},
      {rate, "inf", "option --x needs a rate in hertz, at least 0, not \"inf\""},
      {pixels, "0", "option --x needs a whole number of pixels from 1 to 32767, not \"0\""},
      {pixels, "2.5", "option --x needs a whole number of pixels from 1 to 32767, not \"2.5\""},
      {pixels, "1e3", "option --x needs a whole number of pixels from 1 to 32767, not \"1e3\""},
      {pixels, "-3", "option --x needs a whole number of pixels from 1 to 32767, not \"-3\""},
      {duration, "-1", "option --x needs a number, at least 0 (or inf), not \"-1\""},
      {share, "0.26", "option --x needs a share from -0.5 to 0.25, not \"0.26\""},
  };
  for (const auto& b : bad) {
    EXPECT_THAT([&] { parse_number("x", b.text, b.range); }, ThrowsMessage<std::invalid_argument>(StrEq(b.message)))
        << b.text;
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
