// Split choice and split measures: the average-gain filter, ties, the least
// weight on either side of a cut, the penalty for cuts tried, and the two
// continuous searches agreeing bit for bit; growing in row order below the root.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <memory>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "brix/impls/learning/entropy.h"
#include "brix/impls/learning/grower.h"
#include "brix/impls/model/decision_tree.h"
#include "brix/impls/storage/table.h"
#include "tests/brix/table_files.h"

using brix::impls::_decision_node;
using brix::impls::_decision_tree;
using brix::impls::column;
using brix::impls::decision_tree;
using brix::impls::grower;
using brix::impls::options;
using brix::impls::order_range;
using brix::impls::split_scratch;
using brix::impls::splitting_desc;
using brix::impls::storage_kind;
using brix::impls::table;
using brix::impls::w_case;
using brix::impls::w_sequence;
using brix::impls::xlogx_table;

namespace {

// The attribute a root node grown from these cases splits on (-1: a leaf).
long chosen_attribute(table* t, w_sequence& cases, int split_type = decision_tree::GAIN_RATIO) {
  _decision_node node(&cases);
  grower::activate(node, t);
  options opts;
  int status = grower::split(node, t, split_type, 2.0f, &opts);
  return status == _decision_node::SPLIT_NODE ? static_cast<long>(node.get_split_attribute_index())
                                              : -1;
}

// a splits off one heavy pure row (a2, weight 8) from 32 rows; b names each of
// the 32 rows (b01..b16 p, b17..b32 q, and the a2 row has b32); each dN is a
// copy of one attribute that says nothing about the class.
std::string filter_names(int dummies) {
  std::string s = "a,string,discrete\nb,string,discrete\n";
  for (int d = 1; d <= dummies; ++d)
    s += "d" + std::to_string(d) + ",string,discrete\n";
  return s + "c,string,class\n";
}

std::string filter_data(int dummies) {
  std::ostringstream out;
  for (int i = 1; i <= 33; ++i) {
    bool p = i <= 16;
    // d0/d1 hold p 8/8 and q 12/12 once the a2 row weighs 8.
    char const* d = (p ? i <= 8 : i <= 28) ? "d0" : "d1";
    char b[8];
    std::snprintf(b, sizeof b, "b%02d", i == 33 ? 32 : i);
    out << (i == 33 ? "a2," : "a1,") << b;
    for (int k = 0; k < dummies; ++k)
      out << ',' << d;
    out << (p ? ",p\n" : ",q\n");
  }
  return out.str();
}

// Each row weighs `unit`, the a2 row 8 units.
w_sequence filter_cases(float unit) {
  w_sequence s;
  for (unsigned long r = 0; r < 33; ++r)
    s.push_back(r, r == 32 ? 8 * unit : unit);
  return s;
}

TEST(TreeSplit, RatioCountsOnlyAtOrAboveTheAverageGain) {
  // Rows weigh 10 (a2 80) so every b value reaches min_obj. Per unit: p 16, q 24, Hc = 38.838024.
  // a (a1 16p 16q, a2 8q): gain (38.838024 − 32)/40 = 0.170951, split I(32,8)/40 = 0.721928.
  // b (pure values): gain 38.838024/40 = 0.970951, split I(1 × 31, 9)/40 = 4.608695.
  table_files files;
  auto two = files.loaded(filter_names(0), filter_data(0));
  w_sequence cases = filter_cases(10.0f);
  _decision_node node(&cases);
  grower::activate(node, two.get());
  options opts;
  grower::split(node, two.get(), decision_tree::GAIN_RATIO, 2.0f, &opts);
  auto const& d = node.get_split_descs();
  EXPECT_NEAR(d[0].gain, 0.170951f, 2e-6);
  EXPECT_NEAR(d[0].split_info, 0.721928f, 2e-6);
  EXPECT_NEAR(d[1].gain, 0.970951f, 2e-6);
  EXPECT_NEAR(d[1].split_info, 4.608695f, 4e-6);
  // The average gain 0.570951 shuts a out despite its better ratio.
  EXPECT_EQ(node.get_split_attribute_index(), 1u);

  // Five attributes of zero gain bring the average down to 0.163129: a wins on ratio.
  auto seven = files.loaded(filter_names(5), filter_data(5));
  EXPECT_EQ(chosen_attribute(seven.get(), cases), 0);
}

TEST(TreeSplit, EqualScoresKeepTheLowerAttribute) {
  // n is independent of the class; x1 and x2 are the same column.
  table_files files;
  auto t =
      files.loaded("n,string,discrete\nx1,string,discrete\nx2,string,discrete\nc,string,class\n",
                   "s,u,u,p\nt,u,u,p\ns,u,u,p\nt,u,u,q\ns,v,v,q\nt,v,v,q\ns,v,v,q\nt,v,v,p\n");
  std::unique_ptr<w_sequence> all(t->get_wsubset_all());
  EXPECT_EQ(chosen_attribute(t.get(), *all, decision_tree::GAIN_RATIO), 1);
  EXPECT_EQ(chosen_attribute(t.get(), *all, decision_tree::GAIN), 1);
}

// A table of every (x, class) pair for x = 1..values: row (x, k) is
// (x − 1)·classes + k; then one row of unknown x per class.
std::unique_ptr<table> grid(table_files& files, unsigned long values, unsigned long classes) {
  std::string names = "x,integer,continuous\nc,string,class\n";
  std::string data;
  for (unsigned long x = 1; x <= values + 1; ++x) {
    for (unsigned long k = 0; k < classes; ++k) {
      data +=
          (x <= values ? std::to_string(x) : std::string("?")) + ",k" + std::to_string(k) + "\n";
    }
  }
  return files.loaded(names, data);
}

unsigned long grid_row(unsigned long x, unsigned long k, unsigned long classes) {
  return (x - 1) * classes + k;
}

struct cut {
  float gain;
  float split_info;
  unsigned long low, high;
};

// One scratch for every search of these tests, as a grower keeps it from node to node: the
// nodes scored here have all sizes, in any order.
split_scratch& scratch() {
  static split_scratch s;
  return s;
}

// How a search keeps its sorted cases: copied aside; weight and class beside the order (whole
// weights); the node's own cases sorted in place (from their rows when every weight is 1).
enum class keep { copied, compact, in_place };

// Scores x over the cases with the stretch (lo, hi) of orders.
cut score(table* t, w_sequence& cases, unsigned long lo, unsigned long hi, float min_obj,
          bool count_cases = false, keep how = keep::copied) {
  options opts;
  opts.flag = count_cases;
  float w = 0.0f;
  bool unit = true;
  for (w_case const& c : cases) {
    w += c.second;
    unit = unit && c.second == 1.0f;
  }
  opts.any_order = how == keep::compact;
  opts.unit_weights = how == keep::in_place && unit;
  splitting_desc d;
  order_range range(lo, hi);
  w_sequence own(cases);
  score_split(*t->get_attribute(0), *t->get_class(), w, how == keep::in_place ? own : cases, range,
              min_obj, &opts, scratch(), d, how != keep::in_place);
  EXPECT_EQ(d.branches, 2u);
  return {d.gain, d.split_info, d.low, d.high};
}

// Two occupied values, x = 1 of class k0 and x = 2 of the other classes:
// `left` and `right` are the weights on each side. The tally search sees 3
// cases per value over the stretch (1, 3); the sorting search one case per
// class over the stretch (1, 41).
bool splits(table* t, unsigned long classes, float left, float right, float min_obj, bool tally) {
  w_sequence s;
  int parts = tally ? 3 : 1;
  for (int i = 0; i < parts; ++i)
    s.push_back(grid_row(1, 0, classes), left / parts);
  for (int i = 0; i < parts; ++i) {
    for (unsigned long k = 1; k < classes; ++k) {
      s.push_back(grid_row(2, k, classes), right / parts / (classes - 1));
    }
  }
  cut c = score(t, s, 1, tally ? 3 : 41, min_obj);
  return c.gain > -0.001f;
}

TEST(TreeSplit, LeastWeightOnEitherSideOfACut) {
  table_files files;
  auto two = grid(files, 40, 2);
  auto ten = grid(files, 40, 10);
  for (bool tally : {false, true}) {
    SCOPED_TRACE(tally ? "tally search" : "sorting search");
    // K = 1000, C = 2: 0.1·1000/2 = 50, capped at 25.
    EXPECT_FALSE(splits(two.get(), 2, 24, 976, 2, tally));
    EXPECT_TRUE(splits(two.get(), 2, 25, 975, 2, tally));
    // K = 200, C = 2: 0.1·200/2 = 10 replaces min_objects 2.
    EXPECT_FALSE(splits(two.get(), 2, 9, 191, 2, tally));
    EXPECT_TRUE(splits(two.get(), 2, 10, 190, 2, tally));
    // K = 100, C = 10: 0.1·100/10 = 1 is not above min_objects, m stays 2.
    EXPECT_FALSE(splits(ten.get(), 10, 1.5f, 98.5f, 2, tally));
    EXPECT_TRUE(splits(ten.get(), 10, 2, 98, 2, tally));
    // A min_objects of 25 or more stands, here 30 although 0.1·K/C = 50.
    EXPECT_FALSE(splits(two.get(), 2, 29, 971, 30, tally));
    EXPECT_TRUE(splits(two.get(), 2, 30, 970, 30, tally));
  }
}

// Cases of the given classes at x = 1, 2, ... (one class list per value).
w_sequence cases_at(std::vector<std::vector<int>> const& by_value, float weight, int copies = 1) {
  w_sequence s;
  for (int c = 0; c < copies; ++c) {
    // Values in descending order, so that sorting has work to do.
    for (unsigned long x = by_value.size(); x >= 1; --x) {
      for (int k : by_value[x - 1])
        s.push_back(grid_row(x, k, 2), weight);
    }
  }
  return s;
}

TEST(TreeSplit, PenaltyForCutsTried) {
  table_files files;
  auto t = grid(files, 40, 2);
  // One cut tried costs log2(1) = 0. Hc = I(3,3) = 6, Hs = 0: gain 1, split I(0,3,3)/6 = 1.
  w_sequence two = cases_at({{0, 0, 0}, {1, 1, 1}}, 1.0f);
  cut c = score(t.get(), two, 1, 41, 2);
  EXPECT_FLOAT_EQ(c.gain, 1.0f);
  EXPECT_FLOAT_EQ(c.split_info, 1.0f);

  // x = 1: 3 k0, x = 2, 3: 3 k1 each; K − m = 7. Cut 1|2: gain I(3,6)/9 = 0.918296. Cut 2|3
  // (L = 6) lies in a run of k1, but the next block ends at 9 > 7, so it is tried too: 0.807185.
  w_sequence three = cases_at({{0, 0, 0}, {1, 1, 1}, {1, 1, 1}}, 1.0f);
  for (unsigned long hi : {4ul, 41ul}) {  // 9 cases over 3 orders: tally; over 40: sorting
    c = score(t.get(), three, 1, hi, 2);
    EXPECT_NEAR(c.gain, 0.807185f, 1e-6) << hi;
    EXPECT_EQ(c.low, 1u);
    EXPECT_EQ(c.high, 2u);
  }
  // Weight 2 per case: the penalty is divided by the weight 18, or by the 9 cases under the flag.
  w_sequence heavy = cases_at({{0, 0, 0}, {1, 1, 1}, {1, 1, 1}}, 2.0f);
  EXPECT_NEAR(score(t.get(), heavy, 1, 41, 2).gain, 0.918296f - 1.0f / 18, 1e-6);
  EXPECT_NEAR(score(t.get(), heavy, 1, 41, 2, true).gain, 0.918296f - 1.0f / 9, 1e-6);
}

TEST(TreeSplit, EqualGainsKeepTheLowerCut) {
  table_files files;
  auto t = grid(files, 40, 2);
  // x = 1, 2, 3: 2 k0, 2 k1, 2 k0. Both cuts give gain (I(4,2) − I(2,2))/6 = 0.251629 less
  // log2(2)/W: 0.084963 for W = 6, 0.196073 for three copies. The cut 1|2 wins.
  for (int copies : {1, 3}) {  // 6 cases over 3 orders: sorting; 18: tally
    w_sequence s = cases_at({{0, 0}, {1, 1}, {0, 0}}, 1.0f, copies);
    cut c = score(t.get(), s, 1, 4, 2);
    EXPECT_NEAR(c.gain, copies == 1 ? 0.084963f : 0.196073f, 1e-6) << copies;
    EXPECT_EQ(c.low, 1u) << copies;
    EXPECT_EQ(c.high, 2u) << copies;
  }
}

TEST(TreeSplit, SortingAndTallySearchesAgree) {
  // Random nodes scored over a narrow stretch of orders (the tally search), one as wide as the
  // node (counting sort), one 16 times wider (counted by high bits when wider than 2^16) and one
  // 17 times wider (comparison sort), keeping the sorted cases in each way, agree bit for bit.
  constexpr unsigned long kValues = 4000, kClasses = 3;
  table_files files;
  auto t = grid(files, kValues, kClasses);
  std::mt19937 rng(20240611);
  auto pick = [&rng](unsigned long n) {
    return std::uniform_int_distribution<unsigned long>(0, n - 1)(rng);
  };
  unsigned long const widths[] = {2, 3, 4, 6, 10, 25, 60};
  int found = 0, none = 0;
  for (int trial = 0; trial < 1000; ++trial) {
    bool unknowns = pick(3) == 0;
    unsigned long w = widths[pick(7)];
    // A stretch holding unknown cases starts at order 0 or 1, as in a grown
    // tree; without unknowns it may start anywhere.
    unsigned long lo = unknowns ? pick(2) : 1 + pick(200);
    unsigned long first = std::max(lo, 1ul), last = lo + w - 1;
    // Occupied orders: all of the stretch, about half, or two.
    std::vector<unsigned long> occupied;
    unsigned long density = pick(3);
    for (unsigned long x = first; x <= last; ++x) {
      if (density == 0 || (density == 1 && pick(2) == 0)) occupied.push_back(x);
    }
    if (occupied.size() < 2) occupied = {first, last};
    // Some nodes large enough for a stretch 16 times wider to pass 2^16 orders.
    unsigned long n = pick(10) == 0 ? 4200 + pick(800) : 3 * w + 1 + pick(40);
    unsigned long classes = 2 + pick(2);
    unsigned long bands = 2 + pick(3);
    bool noisy = pick(3) != 0;
    // Or one class throughout but for the highest value: the best cut then
    // often lies at the limit K − m inside a run of one class.
    bool tail = pick(4) == 0;
    bool unit = pick(2) == 0;
    w_sequence s;
    for (unsigned long i = 0; i < n; ++i) {
      float weight = unit ? 1.0f : static_cast<float>(1 + pick(3));
      unsigned long k = pick(classes);
      if (unknowns && pick(7) == 0) {
        s.push_back(grid_row(kValues + 1, k, kClasses), weight);
        continue;
      }
      unsigned long x = occupied[pick(occupied.size())];
      // Classes by bands of orders, so that runs of one class occur.
      if (!noisy || pick(5) != 0) k = (x - first) * bands / (last - first + 1) % classes;
      if (tail) k = x == occupied.back() ? 1 : 0;
      s.push_back(grid_row(x, k, kClasses), weight);
    }
    float min_obj = static_cast<float>(1 + pick(4));
    bool count_cases = pick(2) == 0;
    SCOPED_TRACE("trial " + std::to_string(trial));
    ASSERT_GT(n / w, 2u);
    cut tally = score(t.get(), s, lo, lo + w, min_obj, count_cases);
    std::vector<cut> others;
    for (keep how : {keep::copied, keep::compact, keep::in_place}) {
      for (unsigned long width : {n, 16 * n, 17 * n + 17})
        others.push_back(score(t.get(), s, lo, lo + width, min_obj, count_cases, how));
    }
    for (cut const& c : others) {
      EXPECT_EQ(std::memcmp(&c.gain, &tally.gain, sizeof(float)), 0) << c.gain << " " << tally.gain;
      EXPECT_EQ(std::memcmp(&c.split_info, &tally.split_info, sizeof(float)), 0);
      EXPECT_EQ(c.low, tally.low);
      EXPECT_EQ(c.high, tally.high);
    }
    (tally.gain > -0.001f ? found : none)++;
  }
  // Both outcomes are well represented.
  EXPECT_GT(found, 500);
  EXPECT_GT(none, 20);
}

TEST(TreeSplit, TwoValuedAttributesSideBySideAgreeWithOneByOne) {
  // Five one-bit attributes tallied in one pass give each the bits of its own search, on random
  // nodes of unit and whole weights, classes depending on some attributes.
  std::mt19937 gen(7);
  std::ostringstream data;
  for (int r = 0; r < 3000; ++r) {
    int b[5], s = 0;
    for (int j = 0; j < 5; ++j) {
      b[j] = static_cast<int>(gen() % 2);
      data << (b[j] ? "y," : "n,");
      s += b[j] * (j + 1);
    }
    data << 'k' << (s + (gen() % 5 == 0 ? 1 : 0)) % 4 << '\n';
  }
  table_files files;
  auto t = files.loaded(
      "a,string,discrete\nb,string,discrete\nc,string,discrete\nd,string,discrete\n"
      "e,string,discrete\nk,string,class\n",
      data.str());
  std::vector<column const*> atts;
  for (unsigned long a = 0; a < 5; ++a)
    atts.push_back(t->get_attribute(a));
  ASSERT_EQ(atts[0]->get_storage(), storage_kind::bit);
  xlogx_table logs(3 * 3000);
  options opts;
  opts.logs = &logs;
  opts.any_order = true;
  for (int trial = 0; trial < 200; ++trial) {
    w_sequence cases;
    float w = 0.0f;
    unsigned long keep = 1 + gen() % 8, weights = 1 + gen() % 3;
    for (unsigned long r = 0; r < 3000; ++r) {
      if (gen() % keep != 0) continue;
      float x = static_cast<float>(1 + gen() % weights);
      cases.push_back(r, x);
      w += x;
    }
    std::vector<splitting_desc> side(5);
    std::vector<splitting_desc*> out;
    for (auto& d : side)
      out.push_back(&d);
    score_bit_splits(atts, *t->get_class(), w, cases, 2.0f, &opts, scratch(), out);
    for (unsigned long a = 0; a < 5; ++a) {
      splitting_desc one;
      score_split(*atts[a], *t->get_class(), w, cases, order_range(1, 3), 2.0f, &opts, scratch(),
                  one, true);
      EXPECT_EQ(std::memcmp(&one.gain, &side[a].gain, sizeof(float)), 0) << trial << " " << a;
      EXPECT_EQ(std::memcmp(&one.split_info, &side[a].split_info, sizeof(float)), 0);
      EXPECT_EQ(one.branches, side[a].branches);
      EXPECT_EQ(one.att, side[a].att);
    }
  }
}

// Nodes below the root kept in row order must give the tree and root order of sorting in place.
struct grown {
  std::string text;
  std::vector<w_case> root_order;
};

// With local, every node of at least 16 cases scattered over its table copies their orders. With
// every, the root holds every every-th row only.
grown grow(table* t, bool any_order, int workers, bool local = false, unsigned every = 1) {
  std::unique_ptr<w_sequence> cases(new w_sequence());
  for (unsigned long r = 0; r < t->get_no_rows(); r += every)
    cases->push_back(r, 1.0f);
  t->update_weights(cases.get());
  xlogx_table logs(t->get_no_rows());
  options opts;
  opts.logs = &logs;
  opts.any_order = any_order;
  if (local) {
    opts.local_min_cases = 16;
    opts.local_from_bytes = 0;
  }
  _decision_tree tree;
  tree.build(t, cases.get(), 1, &opts, 2.0f, workers);
  std::unique_ptr<table> meta(t->clone_metadata());
  std::ostringstream out;
  tree.toTEXT(meta.get(), out, 0);
  return grown{out.str(), cases->cases()};
}

// The tree and root order of `ways` equal those of sorting in place, on every root given.
void expect_same_growth(table* t, std::initializer_list<unsigned> everies, bool any_order_base,
                        std::vector<std::pair<int, bool>> const& ways) {
  for (unsigned every : everies) {
    grown base = grow(t, any_order_base, 0, false, every);
    EXPECT_GT(base.text.size(), 300u);
    for (auto [workers, local] : ways) {
      grown other = grow(t, true, workers, local, every);
      EXPECT_EQ(other.text, base.text)
          << workers << " workers, local " << local << ", every " << every;
      ASSERT_EQ(other.root_order.size(), base.root_order.size());
      for (std::size_t i = 0; i < base.root_order.size(); ++i)
        ASSERT_EQ(other.root_order[i].first, base.root_order[i].first) << i;
    }
  }
}

TEST(TreeOrder, RowOrderBelowTheRootGrowsTheSameTree) {
  // Dense and sparse continuous attributes, a discrete one, noisy classes depending on all.
  std::mt19937 gen(11);
  std::ostringstream data;
  for (int r = 0; r < 4000; ++r) {
    int a = static_cast<int>(gen() % 50000), b = static_cast<int>(gen() % 40);
    float c = static_cast<float>(gen() % 2000) / 8.0f;
    char const* d = (gen() % 3 == 0) ? "x" : (gen() % 2 ? "y" : "z");
    bool cls = (a < 20000 && b > 10) || (c > 150.0f && d[0] != 'x');
    if (gen() % 10 == 0) cls = !cls;
    data << a << ',' << b << ',' << c << ',' << d << ',' << (cls ? "p" : "n") << '\n';
  }
  table_files files;
  auto t = files.loaded(
      "a,integer,continuous\nb,integer,continuous\nc,float,continuous\nd,string,discrete\n"
      "k,string,class\n",
      data.str());
  expect_same_growth(t.get(), {1}, false,
                     {{0, false}, {1, false}, {2, false}, {0, true}, {1, true}, {2, true}});
}

TEST(TreeOrder, NodesCopyingTheirOrdersGrowTheSameTree) {
  // Storage of a bit, one and two bytes and whole case weights; with and without copies,
  // sequential and on the farm.
  std::mt19937 gen(5);
  std::ostringstream data;
  for (int r = 0; r < 3000; ++r) {
    int a = static_cast<int>(gen() % 1000), b = static_cast<int>(gen() % 100000);
    int c = static_cast<int>(gen() % 30);
    bool e = gen() % 2 == 0;
    bool cls = (a < 400 && c > 8) || (b > 60000 && e);
    if (gen() % 8 == 0) cls = !cls;
    data << a << ',' << b << ',' << c << ',' << (e ? "y" : "n") << ',' << (cls ? "p" : "n") << ','
         << 1 + gen() % 3 << '\n';
  }
  table_files files;
  auto t = files.loaded(
      "a,integer,continuous\nb,integer,continuous\nc,string,discrete\ne,string,discrete\n"
      "k,string,class\nw,float,weights\n",
      data.str());
  ASSERT_EQ(t->get_attribute(3)->get_storage(), storage_kind::bit);
  ASSERT_EQ(t->get_attribute(2)->get_storage(), storage_kind::u8);
  ASSERT_EQ(t->get_attribute(0)->get_storage(), storage_kind::u16);
  // A root of a ninth of the rows would copy its own cases: they are the caller's.
  expect_same_growth(t.get(), {1, 9}, true, {{0, true}, {2, true}});
}

TEST(TreeOrder, MoreWorkersThanTheFarmTakesAreRefused) {
  table_files files;
  auto t = files.loaded("a,integer,continuous\nk,string,class\n", "1,p\n2,p\n3,n\n4,n\n5,p\n6,n\n");
  decision_tree d("d");
  EXPECT_EQ(error_of([&] { d.build_pruned(t.get(), nullptr, true, 65); }),
            "FARM, try to add too many workers, please increase max_nworkers");
  d.build_pruned(t.get(), nullptr, true, 64);
  EXPECT_GE(d.size(), 1u);
}

}  // namespace
