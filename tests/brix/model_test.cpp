// The trained-tree API: figures on the golf table worked out by hand, round trips, reproducible
// splits and refused arguments, of the model and of the facade classes. Its probabilities against
// brixcmd's score files on every dataset: tests/python.
#include <gtest/gtest.h>

#include <cmath>
#include <fstream>
#include <memory>
#include <numeric>
#include <regex>
#include <set>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "brix/brix.h"
#include "brix/data.h"
#include "brix/model.h"
#include "brix/tree_writer.h"
#include "tests/brix/table_files.h"

namespace {

TEST(TreeModel, GolfUsageImportanceAndProbabilities) {
  auto t = stem_table(kExamples + "golf");
  auto m = brix::tree_model::train(*t);
  EXPECT_EQ((std::vector<std::string>{"no", "yes"}), m->classes());
  EXPECT_EQ((std::vector<std::string>{"outlook", "temperature", "humidity", "windy"}),
            m->attributes());
  // outlook at the root; humidity under sunny (5 of 14 days), windy under rainy (5 of 14).
  std::vector<double> usage = m->attribute_usage(), want{1, 0, 5.0 / 14, 5.0 / 14};
  for (int a = 0; a < 4; ++a)
    EXPECT_NEAR(want[a], usage[a], 1e-7) << a;
  // Gains: outlook 14 x 0.2467 bits; humidity and windy each separate 5 days (0.971 bits).
  std::vector<double> imp = m->importance();
  double h = -(5.0 / 14) * std::log2(5.0 / 14) - (9.0 / 14) * std::log2(9.0 / 14);
  double h5 = -(0.4) * std::log2(0.4) - 0.6 * std::log2(0.6);
  double outlook = 14 * (h - (5.0 / 14) * h5 * 2), split = 5 * h5;
  EXPECT_NEAR(outlook / (outlook + 2 * split), imp[0], 1e-6);
  EXPECT_NEAR(split / (outlook + 2 * split), imp[2], 1e-6);
  EXPECT_DOUBLE_EQ(0.0, imp[1]);

  // An unknown humidity on a sunny day follows both branches: 2 days yes, 3 days no.
  std::vector<double> p = m->predict_proba({"sunny", "70", "?", "TRUE"});
  EXPECT_NEAR(0.6, p[0], 1e-6);
  EXPECT_NEAR(0.4, p[1], 1e-6);
  EXPECT_EQ("yes", m->predict(*t, 2));
  std::vector<double> all = m->predict_proba(*t);
  ASSERT_EQ(28u, all.size());
  for (std::size_t r = 0; r < 14; ++r)
    EXPECT_NEAR(1.0, all[2 * r] + all[2 * r + 1], 1e-6);
}

// Usage is a share of weight, not of rows: y is tested under x=2 only, on 4 of 8 rows that
// carry 12 of the 16 units of weight.
TEST(TreeModel, UsageCountsWeight) {
  using brix::column_kind;
  using brix::value_type;
  auto t =
      brix::table_builder("w")
          .add_numbers("x", column_kind::continuous, value_type::integer, {1, 1, 1, 1, 2, 2, 2, 2})
          .add_numbers("y", column_kind::continuous, value_type::integer, {1, 2, 1, 2, 1, 1, 2, 2})
          .add_numbers("w", column_kind::weights, value_type::float32, {1, 1, 1, 1, 3, 3, 3, 3})
          .add_strings("c", column_kind::class_label, {"a", "a", "a", "a", "b", "b", "c", "c"})
          .build();
  brix::tree_options o;
  o.prune = brix::pruning::none;
  auto m = brix::tree_model::train(*t, o);
  std::vector<double> usage = m->attribute_usage();
  ASSERT_EQ(2u, usage.size());
  EXPECT_DOUBLE_EQ(1.0, usage[0]);
  EXPECT_DOUBLE_EQ(0.75, usage[1]);
}

// Every exported figure keeps the digits that tell it from its neighbours (a threshold of
// 8 significant digits, case weights of 7), and a test x <= v is lessOrEqual in PMML.
TEST(TreeModel, ExportsKeepDigitsAndOperators) {
  using brix::column_kind;
  using brix::value_type;
  auto t = brix::table_builder("d")
               .add_numbers("x", column_kind::continuous, value_type::float32,
                            {1.2345671, 1.2345671, 1.2345671, 2.7654329, 2.7654329, 2.7654329})
               .add_numbers("w", column_kind::weights, value_type::float32,
                            {1234567, 1234567, 1234567, 1234567, 1234567, 1234567})
               .add_strings("c", column_kind::class_label, {"a", "a", "a", "b", "b", "b"})
               .build();
  brix::tree_options o;
  o.prune = brix::pruning::none;
  auto m = brix::tree_model::train(*t, o);
  std::ostringstream pmml, json, dot;
  m->write_pmml(pmml);
  m->write_json(json);
  m->write_dot(dot);
  for (std::string const& out : {pmml.str(), json.str(), dot.str()}) {
    // The shortest text that reads back to the float, or its exact decimals: either way past 6
    // digits.
    EXPECT_TRUE(std::regex_search(out, std::regex("1\\.234567"))) << out;
    EXPECT_FALSE(std::regex_search(out, std::regex("1\\.23457([^0-9]|$)"))) << out;
  }
  EXPECT_NE(std::string::npos, pmml.str().find("recordCount=\"3703701\""));
  EXPECT_TRUE(std::regex_search(
      pmml.str(), std::regex("field=\"x\" operator=\"lessOrEqual\" value=\"1\\.234567")));
  EXPECT_TRUE(std::regex_search(
      pmml.str(), std::regex("field=\"x\" operator=\"greaterThan\" value=\"1\\.234567")));
  EXPECT_NE(std::string::npos, json.str().find("3703701"));
}

TEST(TreeModel, RowsGiveTheFacadeTree) {
  auto t = stem_table(kExamples + "iris");
  std::vector<unsigned long> rows(60);
  std::iota(rows.begin(), rows.end(), 0ul);
  brix::tree_options o;
  o.prune = brix::pruning::full;
  brix::dtree d("t");
  d.set_pruning_strategy(brix::dtree::C45_PRUNING);
  std::unique_ptr<brix::table::subset> first(t->get_wsubset_first_n(60));
  d.build(t.get(), first.get(), true, 0);
  std::ostringstream a, b;
  brix::tree_model::train(*t, o, &rows)->write_text(a);
  d.toTEXT(b);
  EXPECT_EQ(b.str(), a.str());
}

class TreeModelFiles : public ::testing::Test, public scratch_dir {};

// Every format of the table writes a file by name: text ones the same bytes as to a stream, the
// binary one a tree that loads back. Unknown names and a binary stream are refused, and a writer
// that fails leaves the file it was replacing as it was.
TEST_F(TreeModelFiles, OutputFormatsByName) {
  auto t = stem_table(kExamples + "golf");
  auto m = brix::tree_model::train(*t);
  brix::tree_output src(m->facade());
  std::ostringstream text;
  m->write_text(text);
  std::set<std::string> names;
  for (brix::output_format const& f : brix::output_formats()) {
    EXPECT_TRUE(names.insert(f.name).second) << f.name;
    EXPECT_EQ(&f, &brix::output_format_named(f.name));
    std::string path = file(std::string("golf") + f.extension);
    f.writer->write(src, path);
    std::string bytes = read(path);
    if (f.binary) {
      std::ostringstream loaded;
      brix::tree_model::load(path)->write_text(loaded);
      EXPECT_EQ(text.str(), loaded.str());
      EXPECT_THROW(f.writer->write(src, text), std::logic_error);
    } else {
      std::ostringstream direct;
      f.writer->write(src, direct);
      EXPECT_EQ(direct.str(), bytes) << f.name;
      EXPECT_FALSE(bytes.empty()) << f.name;
    }
  }
  EXPECT_THROW(brix::output_format_named("svg"), std::invalid_argument);

  std::string kept = file("golf.txt");
  EXPECT_THROW(brix::write_replacing(
                   kept,
                   [](std::string const& part) {
                     std::ofstream(part) << "half";
                     throw std::runtime_error("failed");
                   },
                   "cannot be written"),
               std::runtime_error);
  EXPECT_EQ(text.str(), read(kept));
  EXPECT_FALSE(std::ifstream(kept + ".part").good());
}

TEST(TreeModel, SplitsAreReproducibleAndBalanced) {
  // The generator is ours: these folds are the same on every machine.
  EXPECT_EQ((std::vector<unsigned>{0, 0, 1, 2, 0, 0, 1, 2, 2, 1}), brix::kfold(10, 3, 1));
  EXPECT_EQ(brix::kfold(1000, 10, 7), brix::kfold(1000, 10, 7));
  EXPECT_NE(brix::kfold(1000, 10, 7), brix::kfold(1000, 10, 8));
  std::vector<unsigned long> labels(1000);
  for (std::size_t i = 0; i < labels.size(); ++i)
    labels[i] = i < 100 ? 1 : 0;  // a rare class
  std::vector<unsigned> f = brix::kfold(1000, 10, 3, &labels);
  std::vector<int> per_fold(10, 0), rare(10, 0);
  for (std::size_t i = 0; i < f.size(); ++i) {
    ++per_fold[f[i]];
    rare[f[i]] += labels[i] == 1;
  }
  for (int k = 0; k < 10; ++k) {
    EXPECT_EQ(100, per_fold[k]);
    EXPECT_EQ(10, rare[k]);
  }
  brix::holdout_split s = brix::split_holdout(10, 0.3, 5);
  EXPECT_EQ(3u, s.test.size());
  EXPECT_EQ(7u, s.train.size());
  EXPECT_EQ(s.test, brix::split_holdout(10, 0.3, 5).test);
}

TEST(TreeModel, RefusedArguments) {
  auto t = stem_table(kExamples + "golf");
  brix::tree_options o;
  o.confidence = 0.0f;
  EXPECT_THROW(brix::tree_model::train(*t, o), std::invalid_argument);
  std::vector<unsigned long> rows{99};
  EXPECT_THROW(brix::tree_model::train(*t, {}, &rows), std::invalid_argument);
  auto m = brix::tree_model::train(*t);
  EXPECT_THROW(m->predict_proba(std::vector<std::string>{"sunny"}), std::invalid_argument);
  auto other = stem_table(kExamples + "iris");
  EXPECT_THROW(m->predict(*other, 0), std::invalid_argument);  // no column "outlook"
  EXPECT_THROW(brix::kfold(5, 1, 0), std::invalid_argument);
}

// Bad arguments to the public classes throw errors the caller can catch instead of reading out
// of bounds.

TEST(FacadeArguments, TreeCallsRefuseValuesAndRowsThatDoNotFit) {
  auto t = stem_table(kExamples + "golf");
  brix::dtree tree("golf");
  EXPECT_EQ("[brix::dtree::predict] the tree has not been built",
            error_of([&] { tree.predict(std::vector<std::string>{"sunny"}); }));
  tree.build(t.get(), nullptr, true, 0);
  EXPECT_EQ("[brix::dtree::predict] 1 values given for 4 attributes",
            error_of([&] { tree.predict(std::vector<std::string>{"sunny"}); }));
  EXPECT_EQ("no", tree.predict(std::vector<std::string>{"sunny", "85", "85", "FALSE"}));
  EXPECT_EQ("[brix::dtree::predict] row 14 out of range (14)",
            error_of([&] { tree.predict(t.get(), 14, 1.0f); }));

  brix::table::subset bad;
  bad.push_back(99, 1.0f);
  EXPECT_EQ("[brix::dtree::predict] case row 99 out of range (14)",
            error_of([&] { delete tree.predict(t.get(), &bad); }));
  brix::dtree other("other");
  EXPECT_EQ("[brix::dtree::build] case row 99 out of range (14)",
            error_of([&] { other.build(t.get(), &bad, true, 0); }));
  EXPECT_EQ("[brix::dtree::build] no table given",
            error_of([&] { other.build(nullptr, nullptr, true, 0); }));
  EXPECT_EQ("[brix::table::subset::get] position 1 out of range (1)",
            error_of([&] { bad.get(1); }));

  std::unique_ptr<brix::conf_matrix> m(tree.get_prediction());
  EXPECT_EQ("[brix::conf_matrix::get_element] cell (0, 3) out of range",
            error_of([&] { m->get_element(0, 3); }));
}

TEST_F(TreeModelFiles, TableWithoutRowsOrClassRefusesRowQueries) {
  std::string bin = file("meta.bin");
  stem_table(kExamples + "golf", "")->toBinary(bin);
  std::unique_ptr<brix::table> t(brix::table::fromBinary(bin));
  EXPECT_EQ("[brix::table::get_class] the table has no class column",
            error_of([&] { t->get_class(0); }));
  EXPECT_EQ("[brix::table::get_weight] row 0 out of range (0)",
            error_of([&] { t->get_weight(0); }));
  EXPECT_EQ("[brix::table::get_class] row 14 out of range (14)",
            error_of([&] { stem_table(kExamples + "golf")->get_class(14); }));
}

}  // namespace
