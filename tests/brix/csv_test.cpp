// The CSV and ARFF readers and the table builder: RFC 4180 details, ARFF's quotes and sparse rows,
// and every malformed file refused with its file, line and column. Rewrites of every dataset grow
// the trees of their .names/.data pairs: test_brix_command.sh (CSV and ARFF) and tests/python (the
// builder).
#include <gtest/gtest.h>

#include <cmath>
#include <fstream>
#include <functional>
#include <iterator>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>

#include "brix/data.h"
#include "brix/impls/table.h"
#include "brix/model.h"
#include "tests/brix/table_files.h"

namespace {

using brix::column_kind;
using brix::value_type;

// The training report of a tree: its matrix and the tree, as brixcmd prints them.
std::string report(brix::table& t) {
  auto m = brix::tree_model::train(t);
  std::unique_ptr<brix::conf_matrix> c(m->facade().get_prediction());
  std::ostringstream out;
  out << c->mis_perc() << " " << c->cases() << "\n";
  c->toTEXT(out, 0);
  m->write_text(out);
  return out.str();
}

class CsvFiles : public ::testing::Test, public scratch_dir {
 protected:
  std::string refusal(std::string const& name, std::string const& text) {
    std::ofstream(file(name)) << text;
    return error_of([&] { brix::read_table(file(name)); });
  }
};

TEST(TableBuilder, RefusesWhatNoTableCanHold) {
  auto refusal = [](std::function<void(brix::table_builder&)> add) -> std::string {
    try {
      brix::table_builder b("t");
      add(b);
      b.build();
    } catch (std::invalid_argument const& e) {
      return e.what();
    }
    return "(built)";
  };
  auto const cont = column_kind::continuous;
  auto const label = column_kind::class_label;
  std::string const head = "[brix::table_builder] ";
  EXPECT_EQ(head + "column 'c' has 1 values, column 'x' 2", refusal([&](auto& b) {
              b.add_numbers("x", cont, value_type::float32, {1, 2}).add_strings("c", label, {"a"});
            }));
  EXPECT_EQ(head + "column 'x' given twice", refusal([&](auto& b) {
              b.add_numbers("x", cont, value_type::float32, {1})
                  .add_numbers("x", cont, value_type::float32, {1});
            }));
  EXPECT_EQ(head + "no class column",
            refusal([](auto& b) { b.add_strings("d", column_kind::discrete, {"a"}); }));
  EXPECT_EQ(head + "no rows", refusal([&](auto& b) { b.add_strings("c", label, {}); }));
  EXPECT_EQ(head + "1.5: not a value of type integer", refusal([&](auto& b) {
              b.add_numbers("x", cont, value_type::integer, {1.5}).add_strings("c", label, {"a"});
            }));
  EXPECT_EQ(head + "column 'x': a continuous column needs numbers",
            refusal([&](auto& b) { b.add_strings("x", cont, {"1"}); }));
  // Without a class column the table is one to classify.
  auto t = brix::table_builder("t")
               .add_numbers("x", cont, value_type::float32, {1, NAN}, {true, true})
               .build(false);
  EXPECT_EQ(2u, t->get_no_rows());
  EXPECT_EQ(0u, t->get_impl()->get_column(0)->get_row_index(1));  // NaN: unknown
}

TEST_F(CsvFiles, QuotesLineEndsMarkersAndInference) {
  std::string text =
      "\xEF\xBB\xBF"
      "name,n,x,class\r\n"
      "\"a, b\",1,1.5,yes\r\n"
      "\"say \"\"hi\"\"\",2,NA,no\r\n"
      "\"two\nlines\",-3,2.25,yes\r\n"
      "plain,,4,no";
  std::ofstream(file("q.csv")) << text;
  auto t = brix::read_csv(file("q.csv"));
  brix::impls::table const& i = *t->get_impl();
  ASSERT_EQ(4u, t->get_no_rows());
  EXPECT_EQ("name", i.get_column(0)->get_name());
  EXPECT_EQ("a, b", i.get_column(0)->get_value(0));
  EXPECT_EQ("say \"hi\"", i.get_column(0)->get_value(1));
  EXPECT_EQ("two\nlines", i.get_column(0)->get_value(2));
  EXPECT_EQ("integer", i.get_column(1)->get_o_set()->get_datatype());
  EXPECT_EQ(0u, i.get_column(1)->get_row_index(3));  // empty: unknown
  EXPECT_EQ("float", i.get_column(2)->get_o_set()->get_datatype());
  EXPECT_EQ(0u, i.get_column(2)->get_row_index(1));  // NA: unknown
  EXPECT_EQ("no", t->get_class(3));

  // The same text as two gzip members, the first longer than the last says it is, so that the
  // buffer inflated into must grow: the same table.
  write("q.csv.gz", read(gzip("a.gz", text.substr(0, 60))) + read(gzip("b.gz", text.substr(60))));
  EXPECT_EQ(report(*t), report(*brix::read_csv(file("q.csv.gz"))));
}

TEST_F(CsvFiles, ArffQuotesAndSparseRows) {
  std::ofstream(file("t.arff")) << "@RELATION r\n@attribute 'the x' numeric\n"
                                   "@attribute colour {red, 'dark blue'}\n@attribute n integer\n"
                                   "@attribute class {yes,no}\n@data\n"
                                   "1.5, 'dark blue', 3, yes\n{0 2.5, 3 no}\n?, red, ?, yes\n";
  auto t = brix::read_table(file("t.arff"));
  brix::impls::table const& i = *t->get_impl();
  ASSERT_EQ(3u, t->get_no_rows());
  EXPECT_EQ("the x", i.get_column(0)->get_name());
  EXPECT_EQ("dark blue", i.get_column(1)->get_value(0));
  EXPECT_EQ("red", i.get_column(1)->get_value(1));  // absent from a sparse row: the first value
  EXPECT_EQ("0", i.get_column(2)->get_value(1));    // absent and numeric: 0
  EXPECT_EQ(0u, i.get_column(2)->get_row_index(2));
  EXPECT_EQ("no", t->get_class(1));
}

TEST_F(CsvFiles, MalformedFilesNameFileLineAndColumn) {
  struct {
    char const* name;
    std::string text;
    char const* error;
  } const cases[] = {
      {"e.csv", "a,b,c\n1,\"x,y\n", ", line 2, column 2: quote not closed"},
      {"e.csv", "a,b,c\n1,2,3\n4,5\n", ", line 3: 2 fields, the header has 3"},
      {"e.csv", "a,b,c\n", ": a header and no rows"},
      {"e.csv", "", ": empty, no header row"},
      {"e.csv", std::string("a,b\n\0\1\2,x\n", 10), ": holds NUL bytes, not a text table"},
      {"e.csv", "a,b\n\"x\"y,1\n", ", line 2, column 1: text after a closing quote"},
      {"e.csv", "a,a\n1,2\n", ", line 1: column 'a' named twice"},
      {"e.arff", "@relation r\n@attribute d date\n@data\n1\n",
       ", line 2, attribute 'd': type 'date' is not supported"},
      {"e.arff", "@relation r\n@attribute c {a,b}\n@data\n", ": no data rows"},
      {"e.arff", "@attribute c {a,b}\n@data\n'a\n", ", line 3: quote not closed"},
      {"e.arff", "@attribute c {a,b}\n@data\n{9 a}\n", ", line 3: bad sparse entry '9 a'"},
  };
  for (auto const& c : cases)
    EXPECT_EQ(refusal(c.name, c.text), "File " + file(c.name) + c.error);
  // A missing file and a missing class column: test_brix_command.sh.
}

}  // namespace
