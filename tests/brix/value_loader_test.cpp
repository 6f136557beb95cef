// Loaders switch from ids to raw values when a numeric column shows many
// distinct values; the orders must be those of sorting the distinct values.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <memory>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "brix/impls/column_typed.h"
#include "brix/impls/o_set_typed.h"

namespace brix {
namespace impls {
namespace {

// Loads texts into a fresh column of the given type and kind; returns the
// orders of the rows and the set's values by order.
struct loaded {
  std::vector<unsigned long> orders;
  std::vector<std::string> values;
};

loaded load(std::string const& type, std::string const& kind,
            std::vector<std::string> const& texts) {
  o_set* set = o_set::NEW_O_SET(type, true, "?");
  std::unique_ptr<value_loader> l(set->make_loader(true));
  for (auto const& t : texts)
    l->add(t.c_str());
  l->index();
  std::string error;
  std::unique_ptr<column> c(column::NEW_COLUMN(set, "x", kind, error));
  EXPECT_TRUE(c) << error;
  l->attach(c.get());
  for (std::size_t from = 0; from < texts.size(); from += 10000) {
    l->fill(from, std::min(texts.size(), from + 10000));
  }
  loaded out;
  for (std::size_t r = 0; r < texts.size(); ++r)
    out.orders.push_back(c->get_row_index(r));
  for (unsigned long o = 1; o <= set->size_of_known(); ++o)
    out.values.push_back(set->get_value(o));
  return out;
}

template <class X>
void expect_ranks(std::vector<X> const& numbers, std::vector<bool> const& null, loaded const& got) {
  std::set<X> distinct;
  for (std::size_t r = 0; r < numbers.size(); ++r) {
    if (!null[r]) distinct.insert(numbers[r]);
  }
  std::vector<X> sorted(distinct.begin(), distinct.end());
  ASSERT_EQ(got.values.size(), sorted.size());
  for (std::size_t r = 0; r < numbers.size(); ++r) {
    unsigned long want =
        null[r] ? 0
                : static_cast<unsigned long>(
                      std::lower_bound(sorted.begin(), sorted.end(), numbers[r]) - sorted.begin()) +
                      1;
    ASSERT_EQ(got.orders[r], want) << "row " << r;
  }
}

TEST(ValueLoader, ManyDistinctNumbersGetTheOrdersOfTheirSortedValues) {
  std::mt19937 gen(7);
  std::size_t n = 200000;
  std::vector<bool> null(n);
  for (std::size_t r = 0; r < n; ++r)
    null[r] = gen() % 50 == 0;

  std::vector<int> ints(n);
  std::vector<std::string> texts(n);
  for (std::size_t r = 0; r < n; ++r) {
    ints[r] = static_cast<int>(gen() % 150000) - 75000;  // duplicates and negatives
    texts[r] = null[r] ? "?" : std::to_string(ints[r]);
  }
  expect_ranks(ints, null, load("integer", "continuous", texts));

  std::vector<unsigned long> uints(n);
  for (std::size_t r = 0; r < n; ++r) {
    uints[r] = (static_cast<unsigned long>(gen()) << 32 | gen()) % 90000 + (1UL << 63);
    texts[r] = null[r] ? "?" : std::to_string(uints[r]);
  }
  expect_ranks(uints, null, load("uinteger", "discrete", texts));

  std::vector<float> floats(n);
  char buf[64];
  for (std::size_t r = 0; r < n; ++r) {
    floats[r] = static_cast<float>(static_cast<int>(gen() % 120000) - 60000) / 8.0f;
    std::snprintf(buf, sizeof buf, "%.9g", static_cast<double>(floats[r]));
    texts[r] = null[r] ? "?" : buf;
  }
  expect_ranks(floats, null, load("float", "continuous", texts));
}

TEST(ValueLoader, TheFirstOfTwoZerosIsTheValueKept) {
  // Enough distinct values to leave the hashed ids behind, then both zeros.
  std::vector<std::string> texts;
  for (int i = 1; i <= 70000; ++i)
    texts.push_back(std::to_string(i) + ".5");
  texts.push_back("-0");
  texts.push_back("0");
  loaded got = load("double", "discrete", texts);
  ASSERT_EQ(got.values.size(), 70001u);
  EXPECT_EQ(got.values[0], "-0");
  EXPECT_EQ(got.orders[70000], 1u);
  EXPECT_EQ(got.orders[70001], 1u);
  EXPECT_EQ(got.orders[0], 2u);
}

}  // namespace
}  // namespace impls
}  // namespace brix
