// Splits on groups of a discrete attribute's values: the merging worked by hand on small tallies,
// the minimum-cases rule, the values a node never saw, and the grouped tree end to end (routing,
// unknown values, the model file and brixcmd's refusal of it).
#include <gtest/gtest.h>

#include <cstdio>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "brix/brix.h"
#include "brix/data.h"
#include "brix/impls/learning/entropy.h"
#include "brix/impls/learning/value_subsets.h"
#include "brix/model.h"
#include "brix/rules.h"
#include "brix/tree_writer.h"

namespace {

using brix::impls::score_value_groups;
using brix::impls::splitting_desc;
using brix::impls::value_groups;
using brix::impls::xlogx_table;

double h(std::vector<double> const& w) {
  double s = 0, e = 0;
  for (double x : w)
    s += x;
  for (double x : w)
    if (x > 0) e -= x / s * std::log2(x / s);
  return e;
}

// Tallies of value orders 1.. in rows 1.., classes y and n; row 0 unused.
struct tallies {
  std::vector<float> freq{0, 0, 0};
  std::vector<float> total{0, 0, 0};
  void add(float y, float n) {
    freq.insert(freq.end(), {0, y, n});
    total[1] += y;
    total[2] += n;
  }
  std::size_t rows() const { return freq.size() / 3; }
};

// make a: 4 y, b: 4 y, c: 6 n, d: 3 n, e: no case in the node (17 cases).
// One branch per value: gain H(8,9) = 0.9975 bits (every branch pure), split information
// H(4,4,6,3) = 1.9539, ratio 0.511. Merging c and d leaves H(4,4,9) = 1.4682 (ratio 0.679),
// better than a and b, H(8,6,3) = 1.4832 (0.673), and any pair of mixed classes loses gain; then
// a and b: {a, b} {c, d}, split information H(8,9) = 0.9975, ratio 1, the best met.
// e goes with the heavier branch, {c, d}.
TEST(ValueSubsets, MergesPureValuesIntoTwoBranches) {
  tallies t;
  t.add(4, 0);
  t.add(4, 0);
  t.add(0, 6);
  t.add(0, 3);
  t.add(0, 0);
  xlogx_table logs(32);
  splitting_desc d;
  ASSERT_TRUE(score_value_groups(t.freq.data(), t.rows(), 3, 0, 5, t.total.data(), 0.0f, 17.0f,
                                 2.0f, logs, d));
  ASSERT_TRUE(d.groups);
  EXPECT_EQ((value_groups{0, 1, 1, 2, 2, 2}), *d.groups);
  EXPECT_EQ(2u, d.branches);
  EXPECT_NEAR(h({8, 9}), d.gain, 1e-5);
  EXPECT_NEAR(h({8, 9}), d.split_info, 1e-5);

  // Unknown values count as the ordinary split counts them: gain scaled by the known share,
  // the unknown weight a part of the split information.
  ASSERT_TRUE(score_value_groups(t.freq.data(), t.rows(), 3, 0, 5, t.total.data(), 3.0f, 20.0f,
                                 2.0f, logs, d));
  EXPECT_NEAR(h({8, 9}) * 17 / 20, d.gain, 1e-5);
  EXPECT_NEAR(h({3, 8, 9}), d.split_info, 1e-5);
}

// Rows stand for orders from base + 1: a node whose range starts at order 3 maps its rows there,
// and the orders outside its range follow its heaviest branch.
TEST(ValueSubsets, RowsOffsetByTheNodeRange) {
  tallies t;
  t.add(1, 5);
  t.add(5, 1);
  t.add(6, 0);
  xlogx_table logs(32);
  splitting_desc d;
  ASSERT_TRUE(score_value_groups(t.freq.data(), t.rows(), 3, 2, 6, t.total.data(), 0.0f, 18.0f,
                                 2.0f, logs, d));
  ASSERT_TRUE(d.groups);
  EXPECT_EQ((value_groups{0, 2, 2, 1, 2, 2, 2}), *d.groups);
}

TEST(ValueSubsets, RefusedOrLeftToTheOrdinarySplit) {
  xlogx_table logs(32);
  splitting_desc d;
  // Eight cases, two a value: no grouping puts 5 (the least weight) in two branches.
  tallies few;
  for (int v = 0; v < 4; ++v)
    few.add(v % 2 ? 0 : 2, v % 2 ? 2 : 0);
  ASSERT_TRUE(score_value_groups(few.freq.data(), few.rows(), 3, 0, 4, few.total.data(), 0.0f, 8.0f,
                                 5.0f, logs, d));
  EXPECT_EQ(brix::impls::kNoGain, d.gain);
  EXPECT_FALSE(d.groups);
  // One value with cases: nothing to split.
  tallies one;
  one.add(3, 4);
  one.add(0, 0);
  one.add(0, 0);
  ASSERT_TRUE(score_value_groups(one.freq.data(), one.rows(), 3, 0, 3, one.total.data(), 0.0f, 7.0f,
                                 2.0f, logs, d));
  EXPECT_EQ(brix::impls::kNoGain, d.gain);
  // Three values, every one present, classes x y z: a 4 x 1 y, b 4 y 1 z, c 4 z 1 x. One branch
  // a value: gain log2(3) - H(4,1) = 0.863, ratio 0.544; any merge, say a and b (4 x 5 y 1 z):
  // gain 0.437, split information H(10,5) = 0.918, ratio 0.476. The ordinary split is the
  // caller's.
  std::vector<float> freq{0, 0, 0, 0, 0, 4, 1, 0, 0, 0, 4, 1, 0, 1, 0, 4};
  std::vector<float> total{0, 5, 5, 5};
  EXPECT_FALSE(
      score_value_groups(freq.data(), 4, 4, 0, 3, total.data(), 0.0f, 15.0f, 2.0f, logs, d));
}

std::unique_ptr<brix::table> makes() {
  std::vector<std::string> make, cls;
  auto rows = [&](char const* m, char const* c, int n) {
    for (int i = 0; i < n; ++i) {
      make.push_back(m);
      cls.push_back(c);
    }
  };
  rows("a", "y", 4);
  rows("b", "y", 4);
  rows("c", "n", 6);
  rows("d", "n", 3);
  return brix::table_builder("makes")
      .add_strings("make", brix::column_kind::discrete, make)
      .add_strings("class", brix::column_kind::class_label, cls)
      .build();
}

std::vector<double> proba(brix::tree_model const& m, std::string const& make) {
  return m.predict_proba(std::vector<std::string>{make});
}

TEST(ValueSubsets, GroupedTreeRoutesSavesAndLoads) {
  auto t = makes();
  brix::tree_options o;
  o.prune = brix::pruning::none;
  EXPECT_EQ(5u, brix::tree_model::train(*t, o)->size());
  o.subsets = true;
  auto m = brix::tree_model::train(*t, o);
  EXPECT_EQ(3u, m->size());
  std::ostringstream text;
  m->write_text(text);
  EXPECT_NE(std::string::npos, text.str().find("make in {a, b}: y (8.0)")) << text.str();
  EXPECT_NE(std::string::npos, text.str().find("make in {c, d}: n (9.0)")) << text.str();

  EXPECT_DOUBLE_EQ(1.0, proba(*m, "b")[1]);  // classes n, y
  EXPECT_DOUBLE_EQ(1.0, proba(*m, "d")[0]);
  // Unknown and unseen values follow both branches by their weights.
  for (char const* v : {"?", "zz"})
    EXPECT_NEAR(8.0 / 17, proba(*m, v)[1], 1e-6) << v;

  std::string path = ::testing::TempDir() + "grouped.tree";
  m->save(path);
  auto back = brix::tree_model::load(path);
  std::ostringstream a, b;
  m->write_json(a);
  back->write_json(b);
  EXPECT_EQ(a.str(), b.str());
  EXPECT_NE(std::string::npos, a.str().find("{\"operator\":\"in\",\"values\":[\"a\",\"b\"]"));
  EXPECT_DOUBLE_EQ(1.0, proba(*back, "c")[0]);
  try {
    delete brix::dtree::fromBinary(path);
    ADD_FAILURE() << "brixcmd's reader took a grouped tree";
  } catch (std::runtime_error const& e) {
    EXPECT_NE(std::string::npos, std::string(e.what()).find("groups of values")) << e.what();
  }
  std::remove(path.c_str());
}

// A ruleset read off the grouped tree tests the groups, and its file keeps them.
TEST(ValueSubsets, RulesTestGroupsOfValues) {
  auto t = makes();
  brix::tree_options o;
  o.prune = brix::pruning::none;
  o.subsets = true;
  auto rules = brix::rule_model::train(*t, o);
  bool grouped = false;
  for (brix::rule const& r : rules->rules())
    for (brix::rule_condition const& c : r.conditions)
      if (c.test == brix::rule_condition::in) {
        grouped = true;
        EXPECT_EQ(2u, c.values.size());
        EXPECT_EQ("{" + c.values[0] + ", " + c.values[1] + "}", c.value);
      }
  EXPECT_TRUE(grouped);
  std::vector<std::string> want(8, "y");
  want.resize(17, "n");
  EXPECT_EQ(want, rules->predict(*t));

  std::string path = ::testing::TempDir() + "grouped.rules";
  rules->save(path);
  auto back = brix::rule_model::load(path);
  std::remove(path.c_str());
  ASSERT_EQ(rules->rules().size(), back->rules().size());
  for (std::size_t i = 0; i < rules->rules().size(); ++i)
    EXPECT_EQ(rules->rules()[i].conditions, back->rules()[i].conditions) << i;
  EXPECT_EQ(want, back->predict(*t));
}

}  // namespace
