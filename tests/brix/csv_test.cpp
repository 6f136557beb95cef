// The CSV and ARFF readers and the table builder: RFC 4180 details, ARFF's quotes and sparse rows,
// and every malformed file refused with its file, line and column. Rewrites of every dataset grow
// the trees of their .names/.data pairs: test_brix_command.sh (CSV and ARFF) and tests/python (the
// builder).
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <fstream>
#include <functional>
#include <iterator>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "brix/data.h"
#include "brix/impls/storage/table.h"
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
  auto const cont = column_kind::continuous;
  auto const label = column_kind::class_label;
  std::string const head = "[brix::table_builder] ";
  EXPECT_EQ(head + "column 'c' has 1 values, column 'x' 2", builder_refusal([&](auto& b) {
              b.add_numbers("x", cont, value_type::float32, {1, 2}).add_strings("c", label, {"a"});
            }));
  EXPECT_EQ(head + "column 'x' given twice", builder_refusal([&](auto& b) {
              b.add_numbers("x", cont, value_type::float32, {1})
                  .add_numbers("x", cont, value_type::float32, {1});
            }));
  EXPECT_EQ(head + "no class column",
            builder_refusal([](auto& b) { b.add_strings("d", column_kind::discrete, {"a"}); }));
  EXPECT_EQ(head + "no rows", builder_refusal([&](auto& b) { b.add_strings("c", label, {}); }));
  EXPECT_EQ(head + "1.5: not a value of type integer", builder_refusal([&](auto& b) {
              b.add_numbers("x", cont, value_type::integer, {1.5}).add_strings("c", label, {"a"});
            }));
  EXPECT_EQ(head + "column 'x': a continuous column needs numbers",
            builder_refusal([&](auto& b) { b.add_strings("x", cont, {"1"}); }));
  EXPECT_EQ(head + "class column 'c': 2 unknown values; a row to learn from needs its class",
            builder_refusal([&](auto& b) {
              b.add_strings("c", label, {"a", "b", "?"}, {true, false, true});
            }));
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

// What a column's values make of it: the reader infers nothing its loader then refuses.
TEST_F(CsvFiles, InferenceAgreesWithTheLoader) {
  struct {
    std::string values;  // one per row
    char const* type;    // "" when the column is unknown throughout
    char const* kind;
    unsigned long unknown;  // rows read as unknown
  } const cases[] = {
      {"2147483647,-2147483647,+5,007", "integer", "continuous", 0},
      // -2^31 is outside the integer type's symmetric range.
      {"-2147483648,1", "float", "continuous", 0},
      {"2147483648,1", "float", "continuous", 0},
      {"1.5,2", "float", "continuous", 0},
      {"3.4e38,-1e-38,inf", "float", "continuous", 0},
      // Beyond a float, within a double: continuous doubles, value for value.
      {"1e39,1", "double", "continuous", 0},
      {"1e-50,1", "double", "continuous", 0},
      {"123456789012345678901234567890e10,1.5e-3", "double", "continuous", 0},
      {"0.0000000000000000000000000000000000000000000000001,1", "double", "continuous", 0},
      // Beyond a double: text.
      {"1e309,1", "string", "discrete", 0},
      {"1,x", "string", "discrete", 0},
      // Shaped like the start of a date: a number, then text.
      {"1.5e-3,2020-01-01x", "string", "discrete", 0},
      {"0.2s-sre,1", "string", "discrete", 0},
      {"1.5e-3,1", "float", "continuous", 0},
      // Every unknown marker, the longest ones included, and nothing longer.
      {"1,,?,NA,N/A,NaN,null", "integer", "continuous", 6},
      {"1,nulls", "string", "discrete", 0},
      {"1,N/AA", "string", "discrete", 0},
  };
  for (auto const& c : cases) {
    std::string text = "v,c\n";
    std::stringstream values(c.values);
    for (std::string v; std::getline(values, v, ',');)
      text += v + ",k\n";
    std::ofstream(file("i.csv"), std::ios::trunc) << text;
    std::unique_ptr<brix::table> t;
    try {
      t = brix::read_csv(file("i.csv"));
    } catch (std::exception const& e) {
      ADD_FAILURE() << c.values << ": " << e.what();
      continue;
    }
    brix::impls::column const* v = t->get_impl()->get_column(0);
    EXPECT_EQ(c.type, v->get_o_set()->get_datatype()) << c.values;
    EXPECT_EQ(c.kind, v->get_type()) << c.values;
    unsigned long unknown = 0;
    for (unsigned long r = 0; r < t->get_no_rows(); ++r)
      unknown += v->get_row_index(r) == 0;
    EXPECT_EQ(c.unknown, unknown) << c.values;
  }
}

TEST_F(CsvFiles, CrOfCrLfNotKeptInLastField) {
  // Unquoted and quoted last fields, and the file's last line without its line feed.
  std::ofstream(file("r.csv")) << "a,c\r\n1,x\r\n2,\"y\"\r\n3,x\r";
  auto t = brix::read_csv(file("r.csv"));
  ASSERT_EQ(3u, t->get_no_rows());
  EXPECT_EQ("x", t->get_class(0));
  EXPECT_EQ("y", t->get_class(1));
  EXPECT_EQ("x", t->get_class(2));
  EXPECT_EQ("c", t->get_impl()->get_column(1)->get_name());
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
      // A value its declaration does not list, in an attribute and in the class.
      {"e.arff", "@attribute d {x,y}\n@attribute c {a,b}\n@data\nx,a\nz,b\n",
       ", line 5, column 'd': 'z' is not one of the values declared for it"},
      {"e.arff", "@attribute d {x,y}\n@attribute c {a,b}\n@data\nx,a\ny,B\n",
       ", line 5, column 'c': 'B' is not one of the values declared for it"},
      {"e.arff", "@attribute c {a,b}\n@data\na\n?\n",
       ", class column 'c': 1 unknown value; a row to learn from needs its class (remove those "
       "rows or name another class column)"},
      {"e.arff", "@attribute d {x,y}\n@attribute c {a,b}\n@data\n'x\xe9',a\n",
       ", line 4, column 'd': bytes that are not UTF-8 (save the file as UTF-8, e.g. with iconv -f "
       "LATIN1 -t UTF-8)"},
      // Unknown classes, counted; CR-only line ends; text that is not UTF-8 (Latin-1, a lone
      // continuation byte, an overlong form, a surrogate), named where it lies.
      {"e.csv", "a,c\n1,x\n2,\n3,null\n",
       ", class column 'c': 2 unknown values; a row to learn from needs its class (remove those "
       "rows or name another class column)"},
      {"e.csv", "a,c\r1,x\r2,y\r",
       ": lines end in CR alone (old Mac text); save it with LF or CR LF line ends"},
      {"e.csv", "a,c\n1,\xe9t\xe9\n", ", line 2, column 'c': bytes that are not UTF-8"},
      {"e.csv", "a,c\n1,x\n2,\x80\n", ", line 3, column 'c': bytes that are not UTF-8"},
      {"e.csv", "a,c\n1,\xc0\xaf\n", ", line 2, column 'c': bytes that are not UTF-8"},
      {"e.csv", "a\xff,c\n1,x\n", ", line 1, column 1: bytes that are not UTF-8"},
      {"e.csv", "a,c\n1,\xed\xa0\x80\n", ", line 2, column 'c': bytes that are not UTF-8"},
  };
  for (auto const& c : cases) {
    std::string got = refusal(c.name, c.text), want = "File " + file(c.name) + c.error;
    // Messages ending in advice are compared up to it where the case stops short.
    EXPECT_EQ(got.substr(0, want.size()), want) << c.text;
    EXPECT_LE(got.size(), want.size() + 80) << c.text;
    // A sink is told the same, and nothing is thrown.
    std::vector<std::string> told;
    brix::read_options o;
    o.problems = [&](brix::read_problem const& q) { told.push_back(q.message); };
    EXPECT_NO_THROW(brix::read_table(file(c.name), o)) << c.text;
    EXPECT_NE(std::find(told.begin(), told.end(), got), told.end()) << c.text;
  }
  // The loader's refusal names the column, and a long value is cut.
  std::string got = refusal("e.arff", "@attribute b integer\n@attribute c {x,y}\n@data\n2,x\nx" +
                                          std::string(100000, '9') + ",y\n");
  EXPECT_EQ(got.rfind("File " + file("e.arff") + ", line 5, column 'b': x999", 0), 0u) << got;
  EXPECT_LE(got.size(), 200u);
  EXPECT_EQ(got.substr(got.size() - 16), "...: _not an int");
  // A missing file and a missing class column: test_brix_command.sh.
}

// With a sink, every row at fault is reported where it lies and left out; the other rows make
// the table, as they would on their own. Problems nothing can be read past leave no table.
TEST_F(CsvFiles, SinkReportsEveryFaultAndReadsTheRest) {
  struct {
    char const* name;
    std::string text;
    std::vector<std::string> problems;  // in the order met: line, then "column=value"
    unsigned long rows;                 // 0: no table
  } const cases[] = {
      {"s.csv",
       "a,b,c\n1,x,p\n2,\"y\"z,q\n3,x\n\xe9,x,p\n4,y,\n6,y,q\n7,w,q\n5,\"x,q\n",
       {"3 b=", "4", "9 b=", "5 a=\xe9", "0 c="},
       4},  // text after a closing quote stays in its value ("yz"), the row with it
      {"s.csv", "a,a,\n1,2,3\n", {"1 a=", "1"}, 0},
      {"s.csv", "a,b\n1,?\n2,NA\n", {"0 b=", "0"}, 0},
      {"s.arff",
       "@attribute n integer\n@attribute s {x,y}\n@attribute c {a,b}\n@data\n1,x,a\n2.5,x,b\n"
       "?,x,?\n3,z,a\n4,x\n{0 7,2 b}\n5,'x,a\n",
       {"8 s=z", "9", "11", "6 n=2.5", "0 c=?"},
       2},
      {"s.arff",
       "@attribute n integer\n@attrib c {a,b}\n@attribute c {a\n@data\n1,a\n",
       {"2", "3"},
       0},
  };
  for (auto const& c : cases) {
    std::ofstream(file(c.name)) << c.text;
    std::vector<std::string> told;
    brix::read_options o;
    o.problems = [&](brix::read_problem const& q) {
      EXPECT_EQ(q.file, file(c.name));
      EXPECT_EQ(q.message.rfind("File " + file(c.name), 0), 0u) << q.message;
      told.push_back(std::to_string(q.line) +
                     (q.column.empty() && q.value.empty() ? "" : " " + q.column + "=" + q.value));
    };
    auto t = brix::read_table(file(c.name), o);
    EXPECT_EQ(told, c.problems) << c.text;
    EXPECT_EQ(t ? t->get_no_rows() : 0ul, c.rows) << c.text;
  }
}

// A stem read with a sink: each problem reported where it lies (file n: the .names, d: the rows;
// then the line, the column and the value), and its message is the one thrown without a sink;
// the rows at fault are left out, the rest read.
TEST_F(CsvFiles, StemSinkReportsEveryFaultAndReadsTheRest) {
  std::string const nac = "a,string,discrete\nn,integer,continuous\nc,string,class\n";
  struct {
    std::string names, data;
    char const* thrown;  // without a sink: the message thrown ("" none), the sink's first too
    std::vector<std::string> problems;
    std::vector<std::size_t> rows, columns;  // the lines of the rows read, of the columns
  } const cases[] = {
      {nac, "x,1,yes\ny,2,no\n", "", {}, {1, 2}, {1, 2, 3}},
      {nac,
       "x,1,yes\ny,2\n\nz,2.5,?\nw,4,no\n",
       "Reading training data: bad row format (row 2): y,2",
       {"d2 =y,2", "d3", "d4 n=2.5", "d4 c=?"},
       {1, 5},
       {1, 2, 3}},
      {"a,strin,discrete\n\nb,string,discret\nn,null,continuous\nc,string,class\nq,two\n",
       "x,y,z,yes\n",
       "Reading metadata: invalid o_set type = strin",
       {"n1 a=strin", "n2", "n3 b=discret", "n4 n=null", "n4 n=null", "n6 =q,two"},
       {1},
       {1, 3, 4, 5}},
      // A byte order mark and the column names on the first line: no error without a sink.
      {"a,string,discrete\nc,string,class\n",
       "\xef\xbb\xbf"
       "a,c\nx,yes\n",
       "",
       {"d1", "d1 =a,c"},
       {2},
       {1, 2}},
      {"a,string,discrete\n",
       "x\ny\n",
       "Reading training data: there must be only one class column",
       {"d0"},
       {1, 2},
       {1}},
      {nac, std::string("x,1,yes\ny,\0,no\nz,3,no\n", 22), nullptr, {"d2"}, {1}, {1, 2, 3}},
      // A NUL as the last byte of a file without a final line feed.
      {nac, std::string("x,1,yes\ny,2,no\0", 15), nullptr, {"d2"}, {1}, {1, 2, 3}},
      // A weights column refused for its type stands in as one of floats: it still refuses '?'.
      {"a,string,discrete\nw,strng,weights\nc,string,class\n",
       "x,1,yes\ny,?,no\n",
       "Reading metadata: invalid o_set type = strng",
       {"n2 w=strng", "d2 w=?"},
       {1},
       {1, 2, 3}},
      // A .names that is no text declares nothing: its rows then have too many fields.
      {std::string("a,string,discrete\nc,str\0ing,class\n", 34),
       "x,yes\n",
       nullptr,
       {"n2", "d0", "d1 =x,yes"},
       {},
       {}},
  };
  for (auto const& c : cases) {
    std::ofstream(file("s.names")) << c.names;
    std::ofstream(file("s.data")) << c.data;
    std::vector<std::string> told, messages;
    std::vector<std::size_t> rows, columns;
    brix::read_options o;
    o.row_lines = &rows;
    o.column_lines = &columns;
    o.problems = [&](brix::read_problem const& q) {
      told.push_back((q.file == file("s.names") ? "n" : "d") + std::to_string(q.line) +
                     (q.column.empty() && q.value.empty() ? "" : " " + q.column + "=" + q.value));
      messages.push_back(q.message);
    };
    auto t = brix::read_table(file("s"), o);
    EXPECT_EQ(told, c.problems) << c.data;
    EXPECT_EQ(rows, c.rows) << c.data;
    EXPECT_EQ(columns, c.columns) << c.data;
    EXPECT_EQ(t->get_no_rows(), c.rows.size()) << c.data;
    if (c.thrown == nullptr) continue;
    EXPECT_EQ(error_of([&] { brix::read_table(file("s")); }), c.thrown) << c.data;
    if (*c.thrown != '\0') {
      EXPECT_EQ(messages.at(0), c.thrown) << c.data;
    }
  }
}

// The rows left out for values refused are handed over whole, with the values at fault marked
// by position (two columns may share a name); a header row or a row of the wrong length is not.
TEST_F(CsvFiles, StemSinkHandsOverTheRowsLeftOut) {
  std::ofstream(file("s.names")) << "n,integer,continuous\nn,integer,continuous\nc,string,class\n";
  std::ofstream(file("s.data")) << "n,n,c\n1,b,?\n2,2,no\n3\nx,3,yes\n";
  std::vector<std::string> left;
  brix::read_options o;
  o.problems = [](brix::read_problem const&) {};
  o.rows_left_out = [&](std::size_t line, std::vector<std::string> const& fields,
                        std::vector<bool> const& refused) {
    std::string row = std::to_string(line);
    for (std::size_t j = 0; j < fields.size(); ++j)
      row += " " + fields[j] + (refused.at(j) ? "!" : "");
    left.push_back(row);
  };
  auto t = brix::read_table(file("s"), o);
  EXPECT_EQ(left, (std::vector<std::string>{"2 1 b! ?!", "5 x! 3 yes"}));
  EXPECT_EQ(t->get_no_rows(), 1u);
}

}  // namespace
