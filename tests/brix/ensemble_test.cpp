// Boosting and costs: runs small enough to follow by hand, the same model whatever the run or
// thread count, and model files that round-trip and that a tree loader refuses.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "brix/ensemble.h"
#include "brix/impls/model/decision_tree.h"
#include "tests/brix/table_files.h"

namespace {

std::string const kShared = BRIX_SHARED_DATA;

class Ensemble : public ::testing::Test, protected table_files {
 protected:
  std::unique_ptr<brix::table> table(std::string const& data) {
    return std::unique_ptr<brix::table>(
        brix::table::adopt(loaded("A,string,discrete\ny,string,class\n", data).release()));
  }
  // The cases of the boosting run worked by hand below.
  std::unique_ptr<brix::table> by_hand() {
    std::string data;
    for (int i = 0; i < 9; ++i)
      data += "p,s,a\n";
    data += "q,r,a\n";
    for (int i = 0; i < 10; ++i)
      data += "q,s,b\n";
    return std::unique_ptr<brix::table>(brix::table::adopt(
        loaded("A,string,discrete\nB,string,discrete\ny,string,class\n", data).release()));
  }
  static std::vector<float> root_distribution(brix::tree_model const& m) {
    return m.facade().get_impl()->get_root()->get_node()->get_class_distribution();
  }
  static std::string json(brix::ensemble const& e) {
    std::ostringstream s;
    e.write_json(s);
    return s.str();
  }
};

// Twenty cases of A, B -> y: p,s,a x9; q,r,a x1; q,s,b x10. Unpruned. A trial votes
// ln((1-E)/E), E its pessimistic errors over the total weight: at confidence 0.25 the
// coefficient is c = (0.84 - 0.59 * 0.25)^2 = 0.47955625; a leaf of N cases without error adds
// N(1 - 0.25^(1/N)), one with E errors adds N p - E, p the normal upper limit
// (E + 0.5 + c/2 + sqrt(c((E + 0.5)(1 - (E + 0.5)/N) + c/4))) / (N + c).
//   Trial 1 (at least 2 in two branches): B's r branch holds one case, so A: p -> a (9,0),
//     q -> b (1,10); the q,r,a case is wrong, e = 1/20. Pessimistic errors: p 9(1 - 0.25^(1/9))
//     = 1.2848042; q 11 * 0.2233216 - 1 = 1.4565377; E = (1.2848042 + 1 + 1.4565377)/20 =
//     0.1870671, vote ln(0.8129329/0.1870671) = 1.4691812.
//     Wrong x 1/(2e) = 10, right x 1/(2(1-e)) = 10/19: p,s,a 90/19, q,r,a 10, q,s,b 100/19.
//   Trial 2 (at least 5 in two branches): A's p branch weighs 90/19 = 4.74, so B: r -> a
//     (10,0), s -> b (90/19,100/19); the p,s,a cases are wrong, e = (90/19)/20 = 0.2368421.
//     Pessimistic errors: r 10(1 - 0.25^(1/10)) = 1.2944944; s 10 * 0.6294451 - 90/19 =
//     1.5576086; E = (1.2944944 + 4.7368421 + 1.5576086)/20 = 0.3794473, vote
//     ln(0.6205527/0.3794473) = 0.4918950.
//     Wrong x 2.1111111, right x 0.6551724: p,s,a 10, q,r,a 6.5517241, q,s,b 3.4482759.
//   Trial 3: every branch of either split would say a, with no fewer errors than the node: the
//     tree is the leaf a (16.55/3.45). A later trial of one leaf tells no cases apart: the
//     sequence ends without it.
//   Each trial votes for its class: p,s: a by trial 1, b by trial 2, a's share 1.4691812 /
//     1.9610762 = 0.7491709; q,r: b by trial 1, a by trial 2, a's share 0.2508291; q,s: b by both.
//     Only q,r,a is misclassified: 1 of 20.
TEST_F(Ensemble, BoostingWorkedByHand) {
  auto t = by_hand();
  brix::ensemble_options o;
  o.trials = 5;
  o.tree.prune = brix::pruning::none;
  std::vector<double> seen;
  auto e = brix::ensemble::train(*t, o, nullptr, &seen);
  ASSERT_EQ(2u, e->size());
  EXPECT_EQ(brix::ensemble::stop::one_leaf, e->stopped());
  EXPECT_NEAR(1.0 / 20, e->trial_error(0), 1e-7);
  EXPECT_NEAR(1.4691812, e->vote(0), 1e-5);
  EXPECT_NEAR(4.5 / 19, e->trial_error(1), 1e-6);
  EXPECT_NEAR(0.4918950, e->vote(1), 1e-5);
  std::vector<float> d = root_distribution(e->trial(1));
  EXPECT_NEAR(280.0 / 19, d[1], 1e-4);
  EXPECT_NEAR(100.0 / 19, d[2], 1e-4);

  std::vector<double> p = e->predict_proba(*t);
  ASSERT_EQ(40u, p.size());
  EXPECT_NEAR(0.7491709, p[0], 1e-5);
  EXPECT_NEAR(0.2508291, p[18], 1e-5);
  EXPECT_DOUBLE_EQ(0.0, p[20]);
  EXPECT_DOUBLE_EQ(1.0, p[21]);
  // What training hands back is what classifying the table again gives, to the bit.
  EXPECT_EQ(p, seen);
  std::vector<std::string> want(9, "a");
  want.resize(20, "b");
  EXPECT_EQ(want, e->predict(*t));
  std::unique_ptr<brix::conf_matrix> m = e->evaluate(*t);
  EXPECT_NEAR(1.0 / 20, m->mis_perc(), 1e-6);
  EXPECT_NEAR(1.0 / 20, e->evaluate(*t, seen)->mis_perc(), 1e-6);
}
TEST_F(Ensemble, BoostedRulesWorkedByHand) {
  auto t = by_hand();
  brix::ensemble_options o;
  o.trials = 5;
  o.rules = true;
  o.tree.prune = brix::pruning::none;
  std::vector<double> seen;
  auto e = brix::ensemble::train(*t, o, nullptr, &seen);
  ASSERT_TRUE(e->has_rules());
  ASSERT_EQ(2u, e->size());
  EXPECT_EQ(brix::ensemble::stop::one_leaf, e->stopped());
  EXPECT_NEAR(1.4691812, e->vote(0), 1e-5);
  EXPECT_NEAR(0.4918950, e->vote(1), 1e-5);
  // Each tree's a leaf is the default: one rule for b each, on the weights of its trial.
  struct want {
    char const* value;
    double cases, errors;
  };
  want const rules[] = {{"q", 11.0, 1.0}, {"s", 10.0, 90.0 / 19}};
  for (std::size_t i = 0; i < 2; ++i) {
    brix::rule_model const& m = e->trial_rules(i);
    ASSERT_EQ(1u, m.size());
    brix::rule const& r = m.rules()[0];
    ASSERT_EQ(1u, r.conditions.size());
    EXPECT_EQ(rules[i].value, r.conditions[0].value);
    EXPECT_EQ(1u, r.cls);
    EXPECT_NEAR(rules[i].cases, r.cases, 1e-5);
    EXPECT_NEAR(rules[i].errors, r.errors, 1e-5);
    EXPECT_EQ(0u, m.default_class());
  }
  std::vector<double> p = e->predict_proba(*t);
  EXPECT_EQ(p, seen);
  EXPECT_NEAR(0.2508291, p[18], 1e-5);

  // The file keeps each trial's ruleset; the JSON and PMML hold rulesets, not trees.
  std::string path = file("r.bm");
  e->save(path);
  auto back = brix::ensemble::load(path);
  ASSERT_TRUE(back->has_rules());
  EXPECT_EQ(json(*e), json(*back));
  EXPECT_EQ(p, back->predict_proba(*t));
  EXPECT_NE(std::string::npos, json(*e).find("\"ruleset\":{\"kind\":\"ruleset\""));
  std::ostringstream pmml;
  e->write_pmml(pmml);
  EXPECT_EQ(std::string::npos, pmml.str().find("<TreeModel"));
  EXPECT_NE(std::string::npos, pmml.str().find("<Segment id=\"2\""));

  o.costs = {{"a", "b", 2}};
  EXPECT_THROW(brix::ensemble::train(*t, o), std::invalid_argument);
}

// The ends of the sequence: a first trial with no error is the model alone; one trial is the
// single tree, whatever its error.
TEST_F(Ensemble, SequenceEnds) {
  auto pure = table("p,a\np,a\np,a\nq,b\nq,b\nq,b\n");
  brix::ensemble_options o;
  o.trials = 10;
  auto e = brix::ensemble::train(*pure, o);
  EXPECT_EQ(1u, e->size());
  EXPECT_EQ(brix::ensemble::stop::zero_error, e->stopped());
  EXPECT_DOUBLE_EQ(1.0, e->vote(0));

  auto mixed = table("p,a\np,b\np,a\np,b\np,a\n");
  std::vector<double> seen;
  auto single = brix::ensemble::train(*mixed, o, nullptr, &seen);
  // A sequence ended after one trial keeps that tree's distribution (0.6, 0.4), not a vote.
  EXPECT_EQ(single->predict_proba(*mixed), seen);
  EXPECT_NEAR(0.6, seen[0], 1e-6);
  // A leaf 3:2 (e = 0.4), then 2.5:2.5, half wrong: the first trial alone.
  EXPECT_EQ(1u, single->size());
  EXPECT_EQ(brix::ensemble::stop::half_error, single->stopped());
  o.trials = 1;
  auto one = brix::ensemble::train(*mixed, o);
  EXPECT_EQ(1u, one->size());
  EXPECT_EQ(brix::ensemble::stop::all_grown, one->stopped());
}

// Ten cases that no test separates: 7 a, 3 b. Predicting a for a b costs 5: C(a) = 1, C(b) = 5,
// so growing weighs a by 1*10/(7 + 15) = 5/11 and b by 5*10/22 = 25/11; the leaf's shares,
// divided back, are 0.7 and 0.3, and b costs 0.7 against 0.3*5 = 1.5 for a: the leaf says b.
// At a cost of 2, a costs 0.6 against b's 0.7: the leaf stays a.
TEST_F(Ensemble, CostsFlipALeaf) {
  auto t = table("p,a\np,a\np,a\np,a\np,a\np,a\np,a\np,b\np,b\np,b\n");
  brix::ensemble_options o;
  auto plain = brix::ensemble::train(*t, o);
  EXPECT_EQ("a", plain->predict(*t)[9]);

  struct row {
    double cost;
    char const* predicted;
    double average_cost;
  } const rows[] = {{5, "b", 0.7}, {2, "a", 0.6}};
  for (row const& r : rows) {
    o.costs = {{"a", "b", r.cost}};
    auto e = brix::ensemble::train(*t, o);
    EXPECT_NEAR(10.0 / (7 + 3 * r.cost), e->class_weights()[0], 1e-9) << r.cost;
    EXPECT_NEAR(10.0 * r.cost / (7 + 3 * r.cost), e->class_weights()[1], 1e-9) << r.cost;
    std::vector<double> p = e->predict_proba(*t);
    EXPECT_NEAR(0.7, p[0], 1e-6) << r.cost;
    EXPECT_EQ(r.predicted, e->predict(*t)[0]) << r.cost;
    EXPECT_NEAR(r.average_cost, e->average_cost(*e->evaluate(*t)), 1e-6) << r.cost;
  }
}

TEST_F(Ensemble, RefusesBadOptionsAndCosts) {
  auto t = table("p,a\nq,b\n");
  brix::ensemble_options o;
  o.trials = 0;
  EXPECT_THROW(brix::ensemble::train(*t, o), std::invalid_argument);
  o.trials = 2;
  o.costs = {{"a", "c", 1}};
  EXPECT_THROW(brix::ensemble::train(*t, o), std::invalid_argument);
  o.costs = {{"b", "a", 0}};
  EXPECT_THROW(brix::ensemble::train(*t, o), std::invalid_argument);

  std::string ok = write("c.csv", "predicted,actual,cost\na,b,3\n\nb,a,0.5\r\n");
  auto c = brix::read_costs(ok);
  ASSERT_EQ(2u, c.size());
  EXPECT_EQ("b", c[1].predicted);
  EXPECT_DOUBLE_EQ(0.5, c[1].cost);
  for (char const* bad : {"a,b\n", "a,b,-1\n", "a,b,x\n", "a,b,1,2\n"})
    EXPECT_THROW(brix::read_costs(write("bad.csv", bad)), std::runtime_error) << bad;
}

// The same JSON for every run and thread count; the file gives back the same model; a tree
// loader refuses it, and it refuses a tree file.
TEST_F(Ensemble, DeterministicAndRoundTrips) {
  auto t = stem_table(kShared + "/mlb_pima");
  brix::ensemble_options o;
  o.trials = 6;
  o.costs = {{"neg", "pos", 2}};
  std::string once = json(*brix::ensemble::train(*t, o));
  o.tree.threads = 3;
  std::vector<double> seen;
  auto e = brix::ensemble::train(*t, o, nullptr, &seen);
  EXPECT_EQ(once, json(*e));
  EXPECT_EQ(6u, e->size());
  // With costs the trials vote with their class distributions; training's classification of
  // the table is the model's own.
  EXPECT_EQ(seen, e->predict_proba(*t));
  std::vector<unsigned long> rows{0, 5, 7};
  EXPECT_EQ(e->evaluate(*t, &rows)->mis_perc(), e->evaluate(*t, seen, &rows)->mis_perc());
  EXPECT_THROW(e->evaluate(*t, std::vector<double>(3)), std::invalid_argument);

  std::string path = file("m.bm");
  e->save(path);
  EXPECT_TRUE(brix::ensemble::is_file(path));
  auto back = brix::ensemble::load(path);
  EXPECT_EQ(once, json(*back));
  EXPECT_EQ(e->predict_proba(*t), back->predict_proba(*t));
  EXPECT_THROW(brix::tree_model::load(path), std::runtime_error);

  std::string tree = file("t.bt");
  e->trial(0).save(tree);
  EXPECT_FALSE(brix::ensemble::is_file(tree));
  EXPECT_THROW(brix::ensemble::load(tree), std::runtime_error);

  // Without costs each trial votes for its class: the same either way.
  o.costs.clear();
  o.tree.threads = 1;
  std::string hard = json(*brix::ensemble::train(*t, o));
  o.tree.threads = 3;
  auto h = brix::ensemble::train(*t, o, nullptr, &seen);
  EXPECT_EQ(hard, json(*h));
  EXPECT_EQ(seen, h->predict_proba(*t));
}

// Later trials keep row order and sort copies stably, by radix where a node's cases are many but
// few against its stretch of values: 20,000 rows of a column of nearly as many values, noisy
// classes; once with two classes and whole weights, once with three classes, fractional weights
// and unknown values (shared out across branches). The same JSON on one thread and two, where the
// attribute searches of a node run side by side.
TEST_F(Ensemble, LaterTrialsSameOnAnyThreadCount) {
  for (bool fractional : {false, true}) {
    SCOPED_TRACE(fractional ? "three classes, fractional weights" : "two classes");
    std::string data;
    std::uint32_t h = 12345;
    for (int r = 0; r < 20000; ++r) {
      h = h * 1664525U + 1013904223U;
      std::uint32_t x = (h >> 8) % 1000000, y = (h >> 4) % 97;
      char const* cls = (x < 500000) != (y < 30) ? "p" : "q";
      if ((h >> 28) < 3) cls = *cls == 'p' ? "q" : "p";  // noise: three in sixteen
      if (fractional && x >= 200000 && x < 300000 && y > 20) cls = "r";
      std::string y_text = fractional && r % 11 == 0 ? "?" : std::to_string(y);
      data += std::to_string(x) + "," + y_text + "," + "abc"[r % 3] + ",";
      if (fractional) data += std::to_string(0.25 + (r % 7) * 0.375) + ",";
      data += std::string(cls) + "\n";
    }
    std::string names = "x,integer,continuous\ny,integer,continuous\nz,string,discrete\n";
    if (fractional) names += "w,float,weights\n";
    names += "c,string,class\n";
    auto t = std::unique_ptr<brix::table>(brix::table::adopt(loaded(names, data).release()));
    brix::ensemble_options o;
    o.trials = 4;
    std::string one = json(*brix::ensemble::train(*t, o));
    EXPECT_EQ(one, json(*brix::ensemble::train(*t, o)));
    o.tree.threads = 2;
    auto two = brix::ensemble::train(*t, o);
    EXPECT_EQ(one, json(*two));
    // Two classes: the fourth trial is a single leaf and ends the sequence.
    EXPECT_EQ(fractional ? 4u : 3u, two->size());
  }
}

}  // namespace
