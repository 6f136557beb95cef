// The continuous searches' in-place sort under stable_order: whatever way a node's size and
// order stretch send it (comparison, radix, counting in one pass or by buckets), equal orders
// keep the order the cases came in, and every case keeps its weight and class.
#include <gtest/gtest.h>

#include <cstdint>
#include <vector>

#include "brix/impls/learning/case_sort.h"
#include "brix/impls/learning/grow_options.h"

namespace {

using brix::impls::options;
using brix::impls::order_range;
using brix::impls::split_scratch;
using brix::impls::w_case;

std::uint32_t mix(std::uint32_t x) {
  x ^= x >> 16;
  x *= 0x7feb352dU;
  x ^= x >> 15;
  x *= 0x846ca68bU;
  return x ^ (x >> 16);
}

TEST(CaseSort, StableOrderKeepsCaseOrderAmongEqualValues) {
  struct shape {
    char const* way;
    std::uint32_t n, width, distinct, step;
  };
  // Few cases against the stretch sort by comparison, from 512 by radix; many by counting,
  // past a stretch of 2^16 by buckets of the high bits (8 orders each here, holding about 50
  // cases of several values), each sorted.
  shape const shapes[] = {{"comparison", 300, 20000, 40, 500},
                          {"radix", 3000, 200000, 300, 600},
                          {"counting", 5000, 1000, 60, 16},
                          {"buckets", 40000, 300000, 2000, 3}};
  split_scratch s;
  for (shape const& sh : shapes) {
    SCOPED_TRACE(sh.way);
    // Rows in a scrambled order; a row's order is one of `distinct` values `step` apart (0 for
    // every tenth: unknown); fractional weights.
    std::vector<std::uint32_t> order_of(sh.n);
    for (std::uint32_t r = 0; r < sh.n; ++r) {
      std::uint32_t v = mix(r) % sh.distinct;
      order_of[r] = r % 10 == 0 ? 0 : 1 + v * sh.step;
    }
    std::vector<w_case> cases;
    std::vector<std::uint32_t> position(sh.n);
    for (std::uint32_t i = 0; i < sh.n; ++i) {
      std::uint32_t row = (i * 7919U) % sh.n;  // 7919 is prime to every n above
      position[row] = i;
      cases.push_back(w_case{row, 0.25f + static_cast<float>(row % 13)});
    }
    auto att = [&](std::uint32_t row) { return static_cast<unsigned long>(order_of[row]); };
    auto cls = [](std::uint32_t row) { return 1UL + row % 3; };
    options opts;
    opts.stable_order = true;
    brix::impls::sort_cases_in_place(att, cls, cases, order_range(1, sh.width), &opts, s);

    ASSERT_EQ(cases.size(), sh.n);
    std::vector<char> seen(sh.n, 0);
    for (std::uint32_t i = 0; i < sh.n; ++i) {
      std::uint32_t row = cases[i].first;
      ASSERT_LT(row, sh.n);
      EXPECT_FALSE(seen[row]);
      seen[row] = 1;
      EXPECT_EQ(cases[i].second, 0.25f + static_cast<float>(row % 13));
      EXPECT_EQ(s.packed[i] >> 32, order_of[row]);
      EXPECT_EQ(s.packed[i] & 0xFFFFFFFFU, cls(row));
      if (i == 0) continue;
      std::uint32_t prev = cases[i - 1].first;
      ASSERT_LE(order_of[prev], order_of[row]) << "at " << i;
      if (order_of[prev] == order_of[row]) {
        ASSERT_LT(position[prev], position[row]) << "at " << i;
      }
    }
  }
}

}  // namespace
