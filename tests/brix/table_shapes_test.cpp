// What the CSV and ARFF readers make of the shapes of tables people bring: ISO dates, R's row
// names, number types asked for, other separators, and the columns they warn about.
#include <gtest/gtest.h>

#include <cmath>
#include <fstream>
#include <sstream>
#include <string>

#include "brix/data.h"
#include "brix/impls/storage/table.h"
#include "tests/brix/table_files.h"

namespace {

TEST(IsoDate, DaysSince1970AndRefusals) {
  struct {
    char const* text;
    double days;  // NAN: refused
  } const cases[] = {
      {"1970-01-01", 0},
      {"1969-12-31", -1},
      {"2000-02-29", 11016},  // a leap day of a century divisible by 400
      {"2000-03-01", 11017},
      {"1600-01-01", -135140},
      {"2024-12-31", 20088},
      {"2020-01-01T12:00", 18262.5},
      {"2020-01-01 06:00:00", 18262.25},
      {"2020-01-01T00:00:30", 18262 + 30.0 / 86400},
      {"1900-02-29", NAN},  // not a leap year
      {"2021-04-31", NAN},
      {"2021-13-01", NAN},
      {"2021-00-10", NAN},
      {"2021-1-01", NAN},
      {"2021-01-01T24:00", NAN},
      {"2021-01-01T10", NAN},
      {"2021-01-01x", NAN},
      {"20210101", NAN},
      {"", NAN},
  };
  for (auto const& c : cases) {
    double d = -1e9;
    bool ok = brix::iso_date(c.text, d);
    EXPECT_EQ(!std::isnan(c.days), ok) << c.text;
    if (ok) {
      EXPECT_DOUBLE_EQ(c.days, d) << c.text;
    }
  }
}

class TableShapes : public ::testing::Test, public scratch_dir {
 protected:
  std::unique_ptr<brix::table> read(std::string const& name, std::string const& text,
                                    brix::read_options o = {}) {
    std::ofstream(file(name)) << text;
    o.warnings = &warnings;
    return brix::read_table(file(name), o);
  }
  static brix::impls::column const& column(brix::table const& t, unsigned long j) {
    return *t.get_impl()->get_column(j);
  }
  std::ostringstream warnings;
};

TEST_F(TableShapes, DatesAreContinuousDays) {
  auto t = read("d.csv",
                "day,at,text,c\n"
                "1970-01-02,1970-01-01T06:00,1970-01-01,a\n"
                "NA,1970-01-03T00:00,not a date,b\n"
                "1970-01-05,1970-01-02T18:00,1970-01-02,a\n");
  // Whole dates as integers, dates with times as doubles, a column with one other text as text.
  EXPECT_TRUE(column(*t, 0).is_continuous());
  EXPECT_EQ("integer", column(*t, 0).get_o_set()->get_datatype());
  EXPECT_EQ("1", column(*t, 0).get_value(0));
  EXPECT_EQ(0u, column(*t, 0).get_row_index(1));  // unknown stays unknown
  EXPECT_EQ("double", column(*t, 1).get_o_set()->get_datatype());
  EXPECT_EQ(1.75, std::stod(column(*t, 1).get_value(2)));
  EXPECT_TRUE(column(*t, 2).is_discrete());
  EXPECT_NE(std::string::npos, warnings.str().find("column 'day': ISO dates, read as days"));
  EXPECT_EQ(std::string::npos, warnings.str().find("column 'text'"));
  // A kind asked for wins; a number type asked for still reads the dates.
  brix::read_options o;
  o.kinds["day"] = brix::column_kind::discrete;
  o.types["at"] = brix::value_type::float64;
  t = read("d.csv", "day,at,c\n1970-01-02,1970-01-02,a\n1970-01-03,1970-01-03,b\n", o);
  EXPECT_TRUE(column(*t, 0).is_discrete());
  EXPECT_EQ("1970-01-02", column(*t, 0).get_value(0));
  EXPECT_EQ("double", column(*t, 1).get_o_set()->get_datatype());
  EXPECT_EQ(1.0, std::stod(column(*t, 1).get_value(0)));
}

TEST_F(TableShapes, NumberTypesKeepColumnsContinuous) {
  std::string const text = "x,y,c\n0.1,1,a\n0.123456789,2,b\n0.3,3,a\n";
  for (auto type : {brix::value_type::float64, brix::value_type::float32}) {
    brix::read_options o;
    o.types["x"] = type;
    auto t = read("n.csv", text, o);
    EXPECT_TRUE(column(*t, 0).is_continuous()) << brix::keyword(type);
    EXPECT_EQ(brix::keyword(type), column(*t, 0).get_o_set()->get_datatype());
  }
  brix::read_options o;
  o.types["y"] = brix::value_type::string;
  o.kinds["x"] = brix::column_kind::continuous;
  o.types["x"] = brix::value_type::float64;
  auto t = read("n.csv", text, o);
  EXPECT_TRUE(column(*t, 0).is_continuous());
  EXPECT_TRUE(column(*t, 1).is_discrete());
  // The float warning names its remedy.
  warnings.str("");
  read("n.csv", text);
  EXPECT_NE(std::string::npos, warnings.str().find("'0.123456789' are not exact in 32-bit float; "
                                                   "--type x=double keeps them exact"));
}

TEST_F(TableShapes, RowNamesAreIgnored) {
  auto t = read("r.csv", "\"\",\"a\",\"c\"\n\"1\",1,\"x\"\n\"2\",NA,\"y\"\n");
  EXPECT_TRUE(column(*t, 0).is_ignore());
  EXPECT_TRUE(column(*t, 1).is_continuous());
  EXPECT_TRUE(column(*t, 2).is_class());
  EXPECT_NE(std::string::npos, warnings.str().find("taken as row names and ignored"));
  // Only the first column: elsewhere a missing name is still an error.
  EXPECT_THROW(read("r.csv", "a,,c\n1,2,x\n"), std::runtime_error);
}

TEST_F(TableShapes, WarnsOfIdsAndOfUnlikelyClasses) {
  auto rows = [](std::function<std::string(int)> row) {
    std::string s;
    for (int r = 0; r < 12; ++r)
      s += row(r) + "\n";
    return s;
  };
  struct {
    std::string text, warning;  // empty warning: none
    std::string class_column;
  } const cases[] = {
      {"id,x,c\n" + rows([](int r) { return "k" + std::to_string(r) + ",1,a"; }),
       "column 'id': all 12 values differ, likely an ID; --kind id=ignore leaves it out", ""},
      {"n,x,c\n" + rows([](int r) { return std::to_string(r * 7) + ",1,a"; }),
       "column 'n': all 12 values differ", ""},
      // Measurements often all differ.
      {"f,c\n" + rows([](int r) { return std::to_string(r) + ".5,a"; }), "", ""},
      {"x,make\n" + rows([](int r) { return "1,m" + std::to_string(r); }),
       "column 'make', taken as the class (the last column): 12 different values in 12 rows", ""},
      {"x,y\n" + rows([](int r) { return std::string("1,") + (r % 3 ? "0.5" : "1.25"); }),
       "column 'y', taken as the class (the last column): numbers with fractions", ""},
      {"x,y\n" + rows([](int r) { return std::string("1,") + (r % 3 ? "1" : "2"); }), "", ""},
      {"c,y\n" +
           rows([](int r) { return std::string(r % 3 ? "a," : "b,") + std::to_string(r % 4); }),
       "", "c"},
  };
  for (auto const& c : cases) {
    warnings.str("");
    brix::read_options o;
    o.class_column = c.class_column;
    read("w.csv", c.text, o);
    if (c.warning.empty())
      EXPECT_EQ("", warnings.str()) << c.text;
    else
      EXPECT_NE(std::string::npos, warnings.str().find(c.warning)) << warnings.str();
  }
}

TEST_F(TableShapes, OtherSeparators) {
  std::string const semi = "\"a\";\"b\";\"c\"\n1,5;x;p\n2,5;y;q\n";
  std::ofstream(file("s.csv")) << semi;
  EXPECT_EQ(';', brix::better_separator(file("s.csv"), ','));
  EXPECT_EQ(0, brix::better_separator(file("s.csv"), ';'));
  EXPECT_THROW(read("s.csv", semi), std::runtime_error);
  brix::read_options o;
  o.separator = ';';
  auto t = read("s.csv", semi, o);
  EXPECT_EQ(3u, t->get_impl()->get_loaded_columns());
  EXPECT_EQ("1,5", column(*t, 0).get_value(0));
  std::ofstream(file("t.txt")) << "a\tb\n1\t2\n3\t4\n";
  EXPECT_EQ('\t', brix::better_separator(file("t.txt"), ','));
  // One column a line fits no separator better.
  std::ofstream(file("one.csv")) << "a\n1\n2\n";
  EXPECT_EQ(0, brix::better_separator(file("one.csv"), ','));
}

}  // namespace
