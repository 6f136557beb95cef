// What the public headers tell front ends about a table and a model: columns, value codes and
// texts, attribute columns, and evaluation into plain figures.
#include <gtest/gtest.h>

#include <cmath>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "brix/data.h"
#include "brix/model.h"
#include "tests/brix/table_files.h"

namespace {

using brix::column_kind;
using brix::value_type;

TEST(TableInfo, ColumnsCodesAndTexts) {
  double const nan = std::nan("");
  auto t = brix::table_builder("t")
               .add_numbers("x", column_kind::continuous, value_type::float32, {2.5, 0.1, 2.5, nan})
               .add_strings("c", column_kind::discrete, {"b", "a", "b", ""}, {1, 1, 1, 0})
               .add_strings("note", column_kind::ignore, {"p", "q", "r", "s"})
               .add_strings("y", column_kind::class_label, {"n", "y", "n", "y"})
               .build();
  std::vector<brix::column_info> cols = brix::table_columns(*t);
  ASSERT_EQ(4u, cols.size());
  struct want {
    char const* name;
    column_kind kind;
    char const* datatype;
  };
  std::vector<want> wanted = {{"x", column_kind::continuous, "float"},
                              {"c", column_kind::discrete, "string"},
                              {"note", column_kind::ignore, "string"},
                              {"y", column_kind::class_label, "string"}};
  for (std::size_t j = 0; j < wanted.size(); ++j) {
    EXPECT_EQ(wanted[j].name, cols[j].name);
    EXPECT_EQ(wanted[j].kind, cols[j].kind) << j;
    EXPECT_EQ(wanted[j].datatype, cols[j].datatype) << j;
  }
  // Floats as the shortest text that reads back, not every decimal 0.1f carries.
  EXPECT_EQ((std::vector<std::string>{"0.1", "2.5"}), brix::value_texts(*t, 0));
  std::vector<unsigned long> x_codes, c_codes;
  for (unsigned long r = 0; r < 4; ++r) {
    x_codes.push_back(brix::value_code(*t, 0, r));
    c_codes.push_back(brix::value_code(*t, 1, r));
    EXPECT_EQ(0u, brix::value_code(*t, 2, r)) << "an ignored column keeps no values";
  }
  EXPECT_EQ((std::vector<unsigned long>{2, 1, 2, 0}), x_codes);
  // Each known code names its value among the texts, and the row's text is that value.
  std::vector<std::string> c_texts = brix::value_texts(*t, 1);
  for (unsigned long r = 0; r < 3; ++r) {
    ASSERT_GE(c_codes[r], 1u);
    EXPECT_EQ(brix::value_text(*t, 1, r), c_texts[c_codes[r] - 1]);
  }
  EXPECT_EQ(0u, c_codes[3]);
  EXPECT_EQ("b", brix::value_text(*t, 1, 0));
  EXPECT_THROW(brix::value_texts(*t, 4), std::out_of_range);
  EXPECT_THROW(brix::value_text(*t, 4, 0), std::out_of_range);
  EXPECT_THROW(brix::value_code(*t, 1, 4), std::out_of_range);
  EXPECT_THROW(brix::value_code(*t, 4, 0), std::out_of_range);
}

TEST(ModelInfo, AttributeColumnsAndEvaluationFigures) {
  auto t = stem_table(kExamples + "golf");
  auto m = brix::tree_model::train(*t);
  std::vector<brix::column_info> atts = m->attribute_columns();
  ASSERT_EQ(4u, atts.size());
  EXPECT_EQ("temperature", atts[1].name);
  EXPECT_EQ(column_kind::continuous, atts[1].kind);
  EXPECT_EQ("integer", atts[1].datatype);
  EXPECT_EQ(column_kind::discrete, atts[3].kind);

  // The golf tree fits its 14 days: 5 no, 9 yes on the diagonal, the unknown class first.
  brix::confusion c = brix::confusion_of(*m->evaluate(*t));
  ASSERT_EQ(3u, c.classes.size());
  EXPECT_EQ("no", c.classes[1]);
  EXPECT_EQ("yes", c.classes[2]);
  EXPECT_EQ((std::vector<std::vector<float>>{{0, 0, 0}, {0, 5, 0}, {0, 0, 9}}), c.cells);
  EXPECT_FLOAT_EQ(14.0f, c.cases);
  EXPECT_FLOAT_EQ(0.0f, c.error_rate);

  // A .data file with two sunny, humid days, one of a class the tree never saw: the actual
  // class is the row, the predicted one the column.
  scratch_dir dir;
  std::string path = dir.write("days.data", "sunny,85,95,FALSE,yes\nsunny,80,90,TRUE,maybe\n");
  std::vector<std::pair<std::string, unsigned long>> unseen;
  brix::confusion d = brix::confusion_of(*m->evaluate_data_file(path, ',', &unseen));
  EXPECT_FLOAT_EQ(1.0f, d.cells[2][1]);
  EXPECT_FLOAT_EQ(2.0f, d.cases);
  EXPECT_FLOAT_EQ(1.0f, d.error_rate);
  EXPECT_EQ((std::vector<std::pair<std::string, unsigned long>>{{"maybe", 1}}), unseen);
}

}  // namespace
