// Rulesets: a generalisation worked by hand on the golf table, unknown values, the order in which
// firing rules decide, the ruleset file (round trip, refusals), reproducibility, and the rules'
// figures and firing on a large seeded table against a direct recount.
#include <gtest/gtest.h>

#include <memory>
#include <random>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "brix/data.h"
#include "brix/model.h"
#include "brix/rules.h"
#include "tests/brix/table_files.h"

namespace {

using brix::rule;
using brix::rule_condition;

std::string shown(brix::rule_model const& m, rule const& r) {
  std::string s;
  for (rule_condition const& c : r.conditions)
    s += m.attributes()[c.attribute].name +
         (c.test == rule_condition::equal       ? " = "
          : c.test == rule_condition::not_above ? " <= "
                                                : " > ") +
         c.value + " & ";
  return s + "-> " + m.classes()[r.cls];
}

std::string json(brix::rule_model const& m) {
  std::ostringstream o;
  m.write_json(o);
  return o.str();
}

// Golf with the given humidity per row ("?" unknown), read into a table like the example file.
std::unique_ptr<brix::table> golf_with(std::vector<std::string> const& humidity,
                                       std::vector<double> const& weights = {}) {
  std::vector<std::string> outlook{"sunny", "sunny",    "overcast", "rainy", "rainy",
                                   "rainy", "overcast", "sunny",    "sunny", "rainy",
                                   "sunny", "overcast", "overcast", "rainy"},
      windy{"FALSE", "TRUE",  "FALSE", "FALSE", "FALSE", "TRUE",  "TRUE",
            "FALSE", "FALSE", "FALSE", "TRUE",  "TRUE",  "FALSE", "TRUE"},
      play{"no", "no",  "yes", "yes", "yes", "no",  "yes",
           "no", "yes", "yes", "yes", "yes", "yes", "no"};
  std::vector<double> temp{85, 80, 83, 70, 68, 65, 64, 72, 69, 75, 75, 72, 81, 71}, hum;
  std::vector<bool> known;
  for (auto const& h : humidity) {
    known.push_back(h != "?");
    hum.push_back(h == "?" ? 0 : std::stod(h));
  }
  using k = brix::column_kind;
  using v = brix::value_type;
  brix::table_builder b("golf");
  if (!weights.empty()) b.add_numbers("w", k::weights, v::float32, weights);
  return b.add_strings("outlook", k::discrete, outlook)
      .add_numbers("temperature", k::continuous, v::integer, temp)
      .add_numbers("humidity", k::continuous, v::integer, hum, known)
      .add_strings("windy", k::discrete, windy)
      .add_strings("play", k::class_label, play)
      .build();
}

std::vector<std::string> const kHumidity{"85", "90", "86", "96", "80", "70", "65",
                                         "95", "70", "80", "70", "90", "75", "91"};

TEST(Rules, GolfGeneralisationWorkedByHand) {
  auto t = golf_with(kHumidity);
  auto tree = brix::tree_model::train(*t);
  auto m = brix::rule_model::from_tree(*tree, *t);
  std::vector<rule> g = brix::rule_model::generalised(*tree, *t);
  // Pessimistic error rate U(n, e) = (e + extra(n, e)) / n at the pruning level 0.25, the extra
  // errors as pruning adds them to a leaf (the tree prints them: sunny & humidity <= 75 is
  // "yes (2.0/1.0)").
  // sunny & humidity <= 75 -> yes covers 2 cases, no error: U = (0 + 1.000) / 2 = 0.500.
  //   Without sunny, humidity <= 75 covers 5 cases (rainy, 70, windy: no): U(5,1) = 2.271/5 =
  //   0.454. Without humidity, sunny covers 5 cases, 3 errors: U(5,3) = 4.096/5 = 0.819. 0.454 <=
  //   0.500: sunny is dropped; the last condition always stays.
  // rainy & windy = FALSE -> yes (3/0): U = 1.110/3 = 0.370; windy = FALSE alone is 8/2,
  //   U = 3.471/8 = 0.434, rainy alone 5/2, U = 0.648: both stay.
  // sunny & humidity > 75 -> no (3/0): U = 0.370; sunny alone 5/2 (0.648), humidity > 75 alone
  //   9/5: both stay.
  std::vector<std::string> want{"outlook = overcast & -> yes",
                                "outlook = rainy & windy = FALSE & -> yes",
                                "outlook = rainy & windy = TRUE & -> no", "humidity <= 75 & -> yes",
                                "outlook = sunny & humidity > 75 & -> no"};
  ASSERT_EQ(want.size(), g.size());
  for (std::size_t i = 0; i < g.size(); ++i)
    EXPECT_EQ(want[i], shown(*m, g[i])) << i;
  EXPECT_DOUBLE_EQ(5, g[3].cases);
  EXPECT_DOUBLE_EQ(1, g[3].errors);
  EXPECT_DOUBLE_EQ(5.0 / 7, g[3].confidence);  // (5 - 1 + 1) / (5 + 2)

  // Selection: "yes" is the default of the uncovered cases; its rules add nothing to it and go.
  ASSERT_EQ(2u, m->size());
  EXPECT_LT(m->size(), m->leaves());
  EXPECT_EQ("yes", m->classes()[m->default_class()]);
  rule const& first = m->rules()[0];
  EXPECT_EQ("outlook = sunny & humidity > 75 & -> no", shown(*m, first));
  EXPECT_DOUBLE_EQ(0.8, first.confidence);         // (3 - 0 + 1) / (3 + 2)
  EXPECT_DOUBLE_EQ(0.8 / (5.0 / 14), first.lift);  // over the 5 "no" days in 14
  EXPECT_DOUBLE_EQ(0.0, m->error(*t));
}

TEST(Rules, AnUnknownValueSatisfiesNoCondition) {
  auto t = golf_with(kHumidity);
  auto tree = brix::tree_model::train(*t);
  // The same tree generalised on cases where the windy rainy day's humidity is unknown: that day
  // no longer satisfies humidity <= 75, so the rule covers 4 cases and makes no error.
  std::vector<std::string> hum = kHumidity;
  hum[5] = "?";
  auto u = golf_with(hum);
  std::vector<rule> g = brix::rule_model::generalised(*tree, *u);
  ASSERT_EQ(5u, g.size());
  EXPECT_DOUBLE_EQ(4, g[3].cases);
  EXPECT_DOUBLE_EQ(0, g[3].errors);

  // Prediction: a sunny day of unknown humidity fires neither sunny rule and takes the default.
  auto m = brix::rule_model::from_tree(*tree, *t);
  hum = kHumidity;
  hum[0] = "?";  // sunny, "no" when its humidity of 85 is known
  auto p = golf_with(hum);
  std::vector<unsigned long> cls, by;
  m->classify(*p, cls, &by);
  EXPECT_EQ(m->default_class(), cls[0]);
  EXPECT_EQ(m->size(), by[0]);
  std::vector<double> proba = m->predict_proba(*p);
  EXPECT_GT(proba[m->default_class()], 0.5);
  EXPECT_NEAR(1.0, proba[0] + proba[1], 1e-12);
  EXPECT_EQ("no", m->predict(*t)[0]);
}

TEST(Rules, WeightsCountAsCases) {
  auto t = golf_with(kHumidity);
  auto tree = brix::tree_model::train(*t);
  // The same tree's rules generalised on every day counted twice: sunny & humidity <= 75 covers
  // 4 with no error, U(4,0) = 1.172/4 = 0.293, while humidity <= 75 alone covers 10 with 2
  // errors, U(10,2) = 3.548/10 = 0.355: more evidence, and sunny now stays.
  auto twice = golf_with(kHumidity, std::vector<double>(14, 2.0));
  std::vector<rule> g = brix::rule_model::generalised(*tree, *twice);
  ASSERT_EQ(5u, g.size());
  auto m = brix::rule_model::from_tree(*tree, *t);
  EXPECT_EQ("outlook = sunny & humidity <= 75 & -> yes", shown(*m, g[3]));
  EXPECT_DOUBLE_EQ(4, g[3].cases);
  // On the sunny days only: the leaves of other outlooks cover nothing and go, and sunny, true of
  // every case, goes from the others.
  std::vector<unsigned long> rows{0, 1, 7, 8, 10};
  g = brix::rule_model::generalised(*tree, *t, &rows);
  ASSERT_EQ(2u, g.size());
  EXPECT_EQ("humidity <= 75 & -> yes", shown(*m, g[0]));
  EXPECT_EQ("humidity > 75 & -> no", shown(*m, g[1]));
  EXPECT_DOUBLE_EQ(3, g[1].cases);
}

class RuleFiles : public ::testing::Test, public table_files {};

// Two classes, two rules on x that overlap on 4 < x <= 6.
std::string const kHandMade =
    "brix ruleset 1\nname\thand\nclass\tc\nconfidence\t0.25\nleaves\t3\n"
    "classes\t3\tp\tn\tq\nattribute\tx\tc\tfloat\t0\norder\t0\t1\t2\n"
    "default\t2\t0.2\t0.2\t0.6\n"
    "rule\t0\t8\t2\t0.6\t1\t1\t0\t<=\t6\n"
    "rule\t1\t7\t0\t0.9\t1\t1\t0\t>\t4\n"
    "rule\t2\t1\t0\t0.6\t1\t1\t0\t>\t5.5\n"
    "end\n";

TEST_F(RuleFiles, HighestConfidenceAmongFiringRulesDecides) {
  auto m = brix::rule_model::load(write("hand.rules", kHandMade));
  auto t = brix::table_builder("t")
               .add_numbers("x", brix::column_kind::continuous, brix::value_type::float32,
                            {1, 5, 5.6, 9}, {true, true, true, false})
               .build(false);
  std::vector<unsigned long> cls, by;
  m->classify(*t, cls, &by);
  std::vector<double> p = m->predict_proba(*t);
  // x = 1: only p fires.
  EXPECT_EQ(0u, cls[0]);
  EXPECT_DOUBLE_EQ(1.0, p[0]);
  // x = 5: p (0.6) and n (0.9) fire; n decides, shares 0.6 : 0.9.
  EXPECT_EQ(1u, cls[1]);
  EXPECT_DOUBLE_EQ(0.4, p[3]);
  EXPECT_DOUBLE_EQ(0.6, p[4]);
  // x = 5.6: also q at 0.6, tied with p; n still decides.
  EXPECT_EQ(1u, cls[2]);
  EXPECT_DOUBLE_EQ(0.6 / 2.1, p[8]);
  // Unknown x: no rule fires, the default and its distribution.
  EXPECT_EQ(2u, cls[3]);
  EXPECT_EQ(3u, by[3]);
  EXPECT_DOUBLE_EQ(0.6, p[11]);

  // Equal confidences: the first class's rule, whatever the order of the rules.
  std::string tied = kHandMade;
  std::string p_rule = "rule\t0\t8\t2\t0.6\t1\t1\t0\t<=\t6\n";
  tied.erase(tied.find(p_rule), p_rule.size());
  tied.replace(tied.find("0.9"), 3, "0.6");
  tied.insert(tied.find("end\n"), p_rule);  // listed after n's rule
  m = brix::rule_model::load(write("tied.rules", tied));
  m->classify(*t, cls, &by);
  EXPECT_EQ(0u, cls[1]);
  EXPECT_EQ(2u, by[1]);
  p = m->predict_proba(*t);
  EXPECT_EQ(p[3], p[4]);
}

TEST_F(RuleFiles, RoundTripAndRefusals) {
  auto t = stem_table(kExamples + "iris");
  auto tree = brix::tree_model::train(*t);
  auto m = brix::rule_model::from_tree(*tree, *t);
  std::string path = file("iris.rules"), tree_path = file("iris.tree");
  m->save(path);
  tree->save(tree_path);
  EXPECT_TRUE(brix::rule_model::is_rules_file(path));
  EXPECT_FALSE(brix::rule_model::is_rules_file(tree_path));
  auto back = brix::rule_model::load(path);
  EXPECT_EQ(json(*m), json(*back));
  EXPECT_EQ(m->predict_proba(*t), back->predict_proba(*t));

  // Each loader refuses the other's files; damaged files are refused with the reason.
  EXPECT_THROW(brix::tree_model::load(path), std::runtime_error);
  EXPECT_THROW(brix::rule_model::load(tree_path), std::runtime_error);
  std::string text = read(path);
  for (std::string const& bad :
       {text.substr(0, text.size() - 4), text + "extra\n",
        std::string(kHandMade).replace(kHandMade.find("\t<=\t"), 4, "\t=\t"),
        std::string(kHandMade).replace(kHandMade.find("rule\t0"), 6, "rule\t7")}) {
    EXPECT_THROW(brix::rule_model::load(write("bad.rules", bad)), std::runtime_error) << bad;
  }
}

TEST(Rules, ReproducibleAndSmallerThanTheTree) {
  auto t = stem_table(std::string(BRIX_SHARED_DATA) + "/mlb_breastcancer");
  auto a = brix::rule_model::train(*t), b = brix::rule_model::train(*t);
  EXPECT_EQ(json(*a), json(*b));
  EXPECT_LT(a->size(), a->leaves());
  EXPECT_LT(a->error(*t), 0.06);
  // Training on rows: the rules of the tree of those rows, figures from those rows alone.
  std::vector<unsigned long> rows;
  for (unsigned long r = 0; r < t->get_no_rows(); r += 2)
    rows.push_back(r);
  auto half = brix::rule_model::train(*t, {}, &rows);
  double covered = 0;
  for (rule const& r : half->rules())
    covered = std::max(covered, r.cases);
  EXPECT_LE(covered, static_cast<double>(rows.size()));
}

// A noisy seeded table whose unpruned tree has tens of leaves (classes of more than ten rules),
// rows past a 64-row word and a block of 4096, unknown values: every rule's cases and errors,
// and the rule deciding each row, as a direct recount over the rows finds them.
TEST(Rules, FiguresAndFiringMatchADirectRecount) {
  std::mt19937 rng(7);
  std::size_t const n = 5003;
  std::vector<double> x(n), y(n), z(n);
  std::vector<bool> x_known(n);
  std::vector<std::string> colour(n), cls(n);
  char const* colours[] = {"red", "green", "blue", "grey"};
  for (std::size_t i = 0; i < n; ++i) {
    x[i] = static_cast<double>(rng() % 1000);
    y[i] = static_cast<double>(rng() % 1000);
    z[i] = static_cast<double>(rng() % 50);
    x_known[i] = rng() % 20 != 0;
    colour[i] = colours[rng() % 4];
    // Mostly noise, so that the unpruned tree has many small leaves.
    bool lean = (x[i] + y[i] > 900) != (colour[i] == "red");
    cls[i] = std::string(1, rng() % 3 == 0 ? (lean ? 'a' : 'b') : "abc"[rng() % 3]);
  }
  using k = brix::column_kind;
  using v = brix::value_type;
  auto t = brix::table_builder("seeded")
               .add_numbers("x", k::continuous, v::integer, x, x_known)
               .add_numbers("y", k::continuous, v::integer, y)
               .add_numbers("z", k::continuous, v::integer, z)
               .add_strings("colour", k::discrete, colour)
               .add_strings("cls", k::class_label, cls)
               .build();
  brix::tree_options o;
  o.prune = brix::pruning::none;
  auto tree = brix::tree_model::train(*t, o);
  auto m = brix::rule_model::from_tree(*tree, *t);
  auto fires = [&](rule const& r, std::size_t i) {
    for (rule_condition const& c : r.conditions) {
      std::string const& name = m->attributes()[c.attribute].name;
      if (name == "colour") {
        if (colour[i] != c.value) return false;
        continue;
      }
      if (name == "x" && !x_known[i]) return false;
      double value = name == "x" ? x[i] : name == "y" ? y[i] : z[i];
      if ((value <= std::stod(c.value)) != (c.test == rule_condition::not_above)) return false;
    }
    return true;
  };
  auto check = [&](std::vector<rule> const& rules) {
    for (rule const& r : rules) {
      double cases = 0, errors = 0;
      for (std::size_t i = 0; i < n; ++i)
        if (fires(r, i)) {
          cases += 1;
          errors += cls[i] != m->classes()[r.cls];
        }
      EXPECT_DOUBLE_EQ(r.cases, cases) << shown(*m, r);
      EXPECT_DOUBLE_EQ(r.errors, errors) << shown(*m, r);
    }
  };
  auto general = brix::rule_model::generalised(*tree, *t);
  ASSERT_GT(general.size(), 40u);
  check(general);
  check(m->rules());
  std::vector<unsigned long> predicted, by_rule;
  m->classify(*t, predicted, &by_rule);
  auto const& rules = m->rules();
  for (std::size_t i = 0; i < n; ++i) {
    std::size_t best = rules.size();
    for (std::size_t r = 0; r < rules.size(); ++r)
      if (fires(rules[r], i) &&
          (best == rules.size() || rules[r].confidence > rules[best].confidence ||
           (rules[r].confidence == rules[best].confidence && rules[r].cls < rules[best].cls)))
        best = r;
    ASSERT_EQ(by_rule[i], best) << "row " << i;
  }
}

}  // namespace

// A decision list of 72 yes/no attributes: case group j has a_j = n (class b) and every other
// attribute y; the rest are all y (class a). The unpruned tree is a chain 72 deep, so leaves past
// the 64th give rules of more than 64 conditions, whose conditions past the 64th are kept as they
// are. a_j = n alone covers group j exactly, so every free a_i = y goes; leaf j > 64 keeps
// a_64 .. a_(j-1) = y, deliberately. The rule of class a needs every condition (each covers a
// group of b).
TEST(Rules, ConditionsPastTheSixtyFourthStayFixed) {
  std::size_t const k = 72;
  std::vector<std::vector<std::string>> cols(k);
  std::vector<std::string> cls;
  auto add_row = [&](std::size_t off, char const* c) {
    for (std::size_t a = 0; a < k; ++a)
      cols[a].push_back(a == off ? "n" : "y");
    cls.push_back(c);
  };
  for (std::size_t j = 0; j < k; ++j)
    for (int r = 0; r < 3; ++r)
      add_row(j, "b");
  for (int r = 0; r < 216; ++r)
    add_row(k, "a");
  brix::table_builder b("chain");
  for (std::size_t a = 0; a < k; ++a)
    b.add_strings("a" + std::to_string(a), brix::column_kind::discrete, cols[a]);
  auto t = b.add_strings("cls", brix::column_kind::class_label, cls).build();
  brix::tree_options o;
  o.prune = brix::pruning::none;
  auto tree = brix::tree_model::train(*t, o);
  ASSERT_EQ(tree->size(), 2 * k + 1);
  auto m = brix::rule_model::from_tree(*tree, *t);
  std::vector<rule> g = brix::rule_model::generalised(*tree, *t);
  ASSERT_EQ(g.size(), k + 1);
  for (rule const& r : g) {
    if (m->classes()[r.cls] == "a") {
      EXPECT_EQ(r.conditions.size(), k);
      EXPECT_EQ(r.cases, 216);
      EXPECT_EQ(r.errors, 0);
      continue;
    }
    ASSERT_FALSE(r.conditions.empty());
    rule_condition const& last = r.conditions.back();
    std::size_t j = std::stoul(m->attributes()[last.attribute].name.substr(1));
    EXPECT_EQ(last.value, "n");
    EXPECT_EQ(r.conditions.size(), j <= 64 ? 1 : j - 64 + 1) << "leaf of a" << j;
    EXPECT_EQ(r.cases, 3);
    EXPECT_EQ(r.errors, 0);
  }
}
