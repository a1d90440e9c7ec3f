// The cut between two pieces' runs: where it comes, against hand-worked sequences of first hits.

#include "common/import/CutSearch.hpp"

#include <gtest/gtest.h>

#include <cstdint>
#include <vector>

using namespace kovra::import;

namespace {

TEST(CutSearchTest, AgreementNeedsAWindowWithoutADifference) {
  // Window 100; the last item before the nominal cut is number 9, at time 1000. Each step: hit number, time,
  // first hit given by the run from before and by the fresh run. Expected: the step at which they agree (-1:
  // never), and the cut and its time then.
  struct Step {
    std::uint64_t hit;
    Ticks time;
    std::uint64_t before, fresh;
  };
  struct Case {
    const char* what;
    std::vector<Step> steps;
    int agreesAt;
    std::uint64_t cut;
    Ticks cutTime;
  };
  const Case cases[] = {
      {"exactly the window after the last item before: not yet", {{10, 1050, 10, 10}, {11, 1100, 10, 10}}, -1, 0, 0},
      {"one tick more: the cut is the nominal one", {{10, 1050, 10, 10}, {11, 1101, 10, 10}}, 1, 10, 1000},
      {"a difference moves the cut past it and restarts the window",
       {{10, 1050, 3, 10}, {11, 1101, 10, 10}, {12, 1150, 12, 12}, {13, 1151, 12, 12}},
       3,
       11,
       1050},
      {"a difference after an agreeing stretch counts too",
       {{10, 1010, 10, 10}, {11, 1090, 4, 11}, {12, 1190, 12, 12}, {13, 1191, 12, 12}},
       3,
       12,
       1090},
      {"differing to the end: never", {{10, 2000, 1, 10}, {11, 3000, 1, 11}, {12, 4000, 2, 12}}, -1, 0, 0},
      {"numbers between hits are trigger edges; the cut is the item after the last difference",
       {{10, 1000, 5, 10}, {14, 1101, 14, 14}},
       1,
       11,
       1000},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    Cut_Search search(100, 9, 1000);
    int agreed = -1;
    for (std::size_t i = 0; i < c.steps.size() && agreed < 0; ++i) {
      const Step& s = c.steps[i];
      if (search.agree_after(s.hit, s.time, s.before, s.fresh)) agreed = static_cast<int>(i);
    }
    EXPECT_EQ(agreed, c.agreesAt);
    if (agreed >= 0) {
      EXPECT_EQ(search.get_cut(), c.cut);
      EXPECT_EQ(search.get_cutTime(), c.cutTime);
    }
  }
}

}  // namespace
