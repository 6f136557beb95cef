#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <tuple>
#include <type_traits>
#include <utility>
#include <vector>

#include "brix/impls/storage/column_typed.h"
#include "brix/impls/storage/o_set_typed.h"
#include "tests/brix/table_files.h"

using brix::impls::column;
using brix::impls::o_set;
using brix::impls::value_loader;

namespace {

std::unique_ptr<o_set> make_set(std::string const& type, std::vector<char const*> values,
                                bool admits_null = true) {
  std::unique_ptr<o_set> s(o_set::NEW_O_SET(type, admits_null, "?"));
  for (char const* v : values)
    s->insert(v);
  return s;
}

unsigned long order_of(o_set& s, char const* value) {
  unsigned long order = 999;
  EXPECT_TRUE(s.get_order(value, order)) << value;
  return order;
}

using strings = std::vector<std::string>;

// The known values by order; each must also look its own order up.
strings known(o_set& s) {
  strings out;
  for (unsigned long o = 1; o <= s.size_of_known(); ++o) {
    out.push_back(s.get_value(o));
    EXPECT_EQ(order_of(s, out.back().c_str()), o);
  }
  return out;
}

TEST(OSet, OrdersFollowValueOrderNotInsertionOrder) {
  auto s = make_set("integer", {"10", "2", "7", "10"});
  EXPECT_EQ(known(*s), (strings{"2", "7", "10"}));
  unsigned long order = 999;
  EXPECT_FALSE(s->get_order("5", order));
  EXPECT_EQ(known(*make_set("integer", {"-3", "5", "-40", "0"})), (strings{"-40", "-3", "0", "5"}));

  // Strings compare as text; an insertion after a lookup renumbers.
  auto t = make_set("string", {"pear", "apple"});
  EXPECT_EQ(order_of(*t, "pear"), 2u);
  t->insert("banana");
  EXPECT_EQ(known(*t), (strings{"apple", "banana", "pear"}));
}

// Sets of many values are sorted by another route than small ones.
TEST(OSet, LargeSetsAreNumberedInValueOrder) {
  std::mt19937_64 gen(11);
  for (char const* type : {"integer", "uinteger", "float", "double"}) {
    SCOPED_TRACE(type);
    std::unique_ptr<o_set> s(o_set::NEW_O_SET(type, true, "?"));
    bool unsigned_set = std::string(type) == "uinteger", int_set = std::string(type) == "integer";
    for (int i = 0; i < 3000; ++i) {
      std::int64_t r = static_cast<std::int64_t>(gen() % 2000001) - 1000000;
      std::uint64_t u = gen() >> (gen() % 64);
      s->insert(
          (unsigned_set ? std::to_string(u) : std::to_string(r) + (int_set ? "" : "e-2")).c_str());
    }
    unsigned long k = s->size_of_known();
    ASSERT_GT(k, 2000u);
    for (unsigned long o = 1; o < k; ++o) {
      std::string a = s->get_value(o), b = s->get_value(o + 1);
      ASSERT_TRUE(unsigned_set ? std::stoull(a) < std::stoull(b) : std::stod(a) < std::stod(b))
          << "order " << o << ": " << a << " then " << b;
    }
  }
}

TEST(OSet, NullHandlingAndRefusalsLeaveTheSetUnchanged) {
  // Messages are checked end to end by test_load_data_errors.sh.
  auto refusing = make_set("string", {}, false);
  EXPECT_NE(error_of([&] { refusing->insert_id("?"); }), "");
  auto ints = make_set("integer", {"4"});
  EXPECT_NE(error_of([&] { ints->insert("1.5"); }), "");
  auto floats = make_set("float", {"1"});
  EXPECT_NE(error_of([&] { floats->insert("1.5x"); }), "");
  auto uints = make_set("uinteger", {});
  EXPECT_NE(error_of([&] { uints->insert("-1"); }), "");
  unsigned long order = 999;
  EXPECT_FALSE(refusing->get_order("?", order));
  EXPECT_FALSE(refusing->contains_null());
  EXPECT_EQ(refusing->size_of_known() + ints->size_of_known() + floats->size_of_known() +
                uints->size_of_known(),
            2u);

  auto only_null = make_set("integer", {"?", "?"});
  EXPECT_TRUE(only_null->contains_null());
  EXPECT_EQ(only_null->size_of_known(), 0u);
  EXPECT_EQ(order_of(*only_null, "?"), 0u);
  EXPECT_FALSE(ints->get_order("?", order));  // not inserted: no order

  // The null text is not a value; another null text is taken as a value.
  std::unique_ptr<o_set> dash(o_set::NEW_O_SET("string", true, "-"));
  dash->insert("?");
  dash->insert("-");
  EXPECT_EQ(dash->size_of_known(), 1u);
  EXPECT_EQ(order_of(*dash, "-"), 0u);
  EXPECT_EQ(order_of(*dash, "?"), 1u);
}

TEST(OSet, FloatsAreRoundedOnceAndPrintedWithThirtyDecimals) {
  EXPECT_EQ(known(*make_set("float", {"0.1", "2.5", "-0.75"})),
            (strings{"-0.750000000000000000000000000000", "0.100000001490116119384765625000",
                     "2.500000000000000000000000000000"}));
  // Just above the midpoint between 1 and the next float: a detour through
  // double would land exactly on the midpoint and round down to 1.
  EXPECT_EQ(known(*make_set("float", {"1.00000005960464477539062500000001"})),
            strings{"1.000000119209289550781250000000"});
  // Text of the same float is one value.
  EXPECT_EQ(known(*make_set("float", {"0.5", "0.50", "5e-1"})).size(), 1u);
}

TEST(OSet, FindMid) {
  char const* const u[] = {"18446744073709551613", "18446744073709551614", "18446744073709551615"};
  struct {
    char const* type;
    std::vector<char const*> values;
    unsigned long lo, hi;
    std::string mid;
  } const cases[] = {
      {"integer", {"7", "2"}, 1, 2, "2"},  // midpoint 4
      {"integer", {"7", "2"}, 2, 2, "7"},
      {"integer", {"-7", "5"}, 1, 2, "-7"},  // midpoint -1
      // Mixed signs: (lo + hi) / 2 truncates toward zero.
      {"integer", {"-7", "-2", "-1", "5"}, 1, 4, "-1"},
      // Both negative: lo + (hi - lo) / 2 = -6, while (lo + hi) / 2 would be -5.
      {"integer", {"-7", "-6", "-5", "-4"}, 1, 4, "-6"},
      // No overflow near the top of the range.
      {"integer", {"2000000000", "2073741823", "2147483647"}, 1, 3, "2073741823"},
      // Only the stretch between the two orders is searched.
      {"integer", {"1", "2", "10", "11", "12"}, 3, 5, "11"},
      {"uinteger", {u[0], u[1], u[2], "3"}, 2, 4, u[1]},
      {"uinteger", {u[0], u[1], u[2], "3"}, 1, 2, "3"},
      {"float", {"1", "2", "3"}, 1, 3, "2.000000000000000000000000000000"},
      // The difference of the extremes overflows a float but not a double.
      {"float", {"-3e38", "0", "3e38"}, 1, 3, "0.000000000000000000000000000000"},
      {"double", {"0.25", "0.5", "1"}, 1, 3, "0.5"},
  };
  for (auto const& c : cases)
    EXPECT_EQ(make_set(c.type, c.values)->find_mid(c.lo, c.hi), c.mid) << c.type << " " << c.lo;

  // Orders out of the set or the wrong way round, and sets without a middle.
  auto s = make_set("integer", {"1", "2", "3", "?"});
  for (auto [lo, hi] : {std::pair{0, 2}, {1, 0}, {3, 2}, {1, 4}, {4, 4}})
    EXPECT_NE(error_of([&, lo = lo, hi = hi] { s->find_mid(lo, hi); }), "") << lo << "-" << hi;
  EXPECT_NE(error_of([] { make_set("string", {"a", "b"})->find_mid(1, 2); }), "");
  EXPECT_NE(error_of([] { make_set("null", {"?"})->find_mid(1, 1); }), "");
}

TEST(OSet, Leq) {
  auto s = make_set("integer", {"10", "2", "7"});
  // As numbers, not as text; an unknown value on either side gives -1.
  std::tuple<char const*, char const*, int> const texts[] = {
      {"3", "5", 0}, {"5", "5", 0}, {"10", "9", 1}, {"?", "5", -1}, {"5", "?", -1}};
  for (auto const& [a, b, want] : texts)
    EXPECT_EQ(s->leq(a, b), want) << a << " <= " << b;
  EXPECT_EQ(error_of([&] { s->leq("x", "5"); }), "x: _not an int");
  // Against a stored value: orders 1, 2, 3 are 2, 7, 10.
  std::tuple<unsigned long, char const*, int> const stored[] = {
      {1, "7", 0}, {2, "7", 0}, {3, "7", 1}, {3, "11", 0}, {0, "7", -1}, {1, "?", -1}};
  for (auto const& [order, b, want] : stored)
    EXPECT_EQ(s->leq(order, b), want) << order << " <= " << b;

  auto f = make_set("float", {"0.5"});
  EXPECT_EQ(f->leq("0.5", "0.25"), 1);
  EXPECT_EQ(f->leq(1, "0.500000000000000000000000000000"), 0);
  EXPECT_EQ(f->leq(1, "0.4999"), 1);
  EXPECT_EQ(make_set("string", {"b"})->leq("b", "a"), 1);
}

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

// Each row's order must be the rank of its number among the distinct ones, 0 where null.
template <class X>
void expect_ranks(std::vector<X> const& numbers, std::vector<bool> const& null, loaded const& got) {
  std::map<X, unsigned long> rank;
  for (std::size_t r = 0; r < numbers.size(); ++r) {
    if (!null[r]) rank.emplace(numbers[r], 0);
  }
  unsigned long k = 0;
  for (auto& entry : rank)
    entry.second = ++k;
  ASSERT_EQ(got.values.size(), rank.size());
  for (std::size_t r = 0; r < numbers.size(); ++r)
    ASSERT_EQ(got.orders[r], null[r] ? 0 : rank[numbers[r]]) << "row " << r;
}

// Loaders switch from ids to raw values when a numeric column shows many distinct values; the
// orders must be those of sorting the distinct values.
TEST(ValueLoader, ManyDistinctNumbersGetTheOrdersOfTheirSortedValues) {
  std::mt19937 gen(7);
  std::size_t n = 200000;
  std::vector<bool> null(n);
  for (std::size_t r = 0; r < n; ++r)
    null[r] = gen() % 50 == 0;
  // Numbers of each type from the generator, as texts; "?" where null.
  auto check = [&](char const* type, char const* kind, auto number) {
    SCOPED_TRACE(type);
    std::vector<decltype(number())> numbers(n);
    std::vector<std::string> texts(n);
    char buf[64];
    for (std::size_t r = 0; r < n; ++r) {
      numbers[r] = number();
      std::snprintf(buf, sizeof buf, "%.9g", static_cast<double>(numbers[r]));
      texts[r] = null[r]                                  ? "?"
                 : std::is_integral<decltype(number())>() ? std::to_string(numbers[r])
                                                          : buf;
    }
    expect_ranks(numbers, null, load(type, kind, texts));
  };
  check("integer", "continuous", [&] { return static_cast<int>(gen() % 150000) - 75000; });
  check("uinteger", "discrete",
        [&] { return (static_cast<unsigned long>(gen()) << 32 | gen()) % 90000 + (1UL << 63); });
  check("float", "continuous",
        [&] { return static_cast<float>(static_cast<int>(gen() % 120000) - 60000) / 8.0f; });
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
