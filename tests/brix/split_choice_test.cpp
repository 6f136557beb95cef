// The choice among scored attributes on hand-made scores: the no-gain mark, the average-gain
// filter and its tolerance, the split-information floor, and ties going to the first attribute.
#include <gtest/gtest.h>

#include <vector>

#include "brix/impls/learning/constants.h"
#include "brix/impls/learning/split_choice.h"

using brix::impls::choose_split;
using brix::impls::kNoGain;
using brix::impls::splitting_desc;

namespace {

struct scored {
  float gain;
  float split_info;
};

std::vector<splitting_desc> descs_of(std::vector<scored> const& s) {
  std::vector<splitting_desc> out(s.size());
  for (std::size_t a = 0; a < s.size(); ++a) {
    out[a].gain = s[a].gain;
    out[a].split_info = s[a].split_info;
  }
  return out;
}

TEST(SplitChoice, ChoosesAsTheRuleSays) {
  struct row {
    char const* what;
    std::vector<scored> atts;
    bool ratio;
    long chosen;
  };
  std::vector<row> const rows = {
      {"no attributes", {}, true, -1},
      {"none with a split", {{kNoGain, 0.5f}, {kNoGain, 0.7f}}, true, -1},
      {"a gain of 0 beats no split", {{kNoGain, 0.5f}, {0.0f, 0.7f}}, true, 1},
      {"equal ratios: the first", {{0.1f, 0.1f}, {0.3f, 0.6f}, {0.3f, 0.6f}}, true, 1},
      {"equal gains: the first", {{0.3f, 0.6f}, {0.3f, 0.9f}}, false, 0},
      // The best gain's split information is under the floor, and the other is below the average.
      {"every candidate filtered out", {{0.5f, 0.0009f}, {0.1f, 0.5f}}, true, -1},
      // 0.001f lies above the floor compared in double.
      {"split information at the floor", {{0.5f, 0.001f}, {0.1f, 0.5f}}, true, 0},
      // Within the tolerance below the average, the far higher ratio wins.
      {"tolerance below the average", {{0.3f, 0.1f}, {0.2995f, 0.01f}}, true, 1},
      {"below average on ratio only", {{0.5f, 1.0f}, {0.1f, 0.001001f}}, true, 0},
      {"gain ignores the average", {{0.5f, 1.0f}, {0.6f, 100.0f}}, false, 1},
      {"gain needs split information", {{0.6f, 0.0f}, {0.1f, 0.2f}}, false, 1},
  };
  for (row const& r : rows)
    EXPECT_EQ(choose_split(descs_of(r.atts), r.ratio), r.chosen) << r.what;
}

// The first best attribute wins wherever the others stand, so the choice does not depend on the
// order the attributes were scored in.
TEST(SplitChoice, FirstOfEqualBestWhereverTheyStand) {
  for (std::size_t n = 2; n <= 6; ++n) {
    for (std::size_t first = 0; first + 1 < n; ++first) {
      std::vector<scored> atts(n, scored{0.25f, 1.0f});
      atts[first] = {0.4f, 0.8f};
      atts[n - 1] = {0.4f, 0.8f};
      EXPECT_EQ(choose_split(descs_of(atts), true), static_cast<long>(first)) << n << " " << first;
    }
  }
}

}  // namespace
