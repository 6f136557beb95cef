#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "brix/impls/storage/column_typed.h"
#include "brix/impls/storage/line_fields.h"
#include "brix/impls/storage/table.h"
#include "tests/brix/table_files.h"

using brix::impls::column;
using brix::impls::table;
using brix::impls::w_sequence;

namespace {

char const* const kGolfNames =
    "outlook,string,discrete\ntemperature,integer,continuous\nhumidity,float,continuous\n"
    "windy,string,discrete\nplay,string,class\n";

TEST(Fields, CountingAndSplittingAgree) {
  // Each line and its fields joined by '|'.
  std::pair<char const*, char const*> const cases[] = {
      {"", ""},        {"a", "a"},   {",", ""},        {",,", "|"},         {"a,b", "a|b"},
      {"a,b,", "a|b"}, {",a", "|a"}, {"a,,c", "a||c"}, {"a,b,c,", "a|b|c"}, {"a,b,c,,", "a|b|c|"}};
  for (auto const& [line, want] : cases) {
    SCOPED_TRACE('"' + std::string(line) + '"');
    std::string copy = line, joined;
    brix::impls::line_fields f;
    unsigned long n = f.split_all(&copy[0], ',');
    EXPECT_EQ(n, 1 + std::count(want, want + std::strlen(want), '|'));
    EXPECT_EQ(brix::impls::count_fields(line, ','), n);
    for (unsigned long i = 0; i < n; ++i)
      joined += (i ? "|" : "") + std::string(f[i]);
    EXPECT_EQ(joined, want);
    f.restore();
    EXPECT_EQ(copy, line);
  }
}

TEST(Metadata, Lines) {
  table_files files;
  // A leading blank belongs to the name, fields after the third are ignored
  // and a final separator opens no field.
  auto t = files.declared(" outlook,string,discrete,extra\nplay,string,class,\n");
  ASSERT_EQ(t->get_no_columns(), 2u);
  EXPECT_EQ(t->get_column(0)->get_name(), " outlook");
  EXPECT_TRUE(t->get_column(0)->is_discrete());
  EXPECT_TRUE(t->get_column(1)->is_class());

  // Messages are checked end to end by test_load_metadata_errors.sh; here the missing source.
  EXPECT_EQ(error_of([] { table("t", true).load_meta_data(nullptr, true); }),
            "no data provider detected.");

  // Columns before the failing line stay.
  table partial("t", true);
  error_of(
      [&] { partial.load_meta_data(files.source("p.names", "a,string,discrete\nb\n"), true); });
  EXPECT_EQ(partial.get_no_columns(), 1u);
}

TEST(Metadata, ConsistencyRules) {
  table_files files;
  auto t = files.declared("a,string,discrete\nc1,string,class\nw,float,weights\nc2,string,class\n");
  std::string error;
  EXPECT_FALSE(t->consistency_check(4, error));
  EXPECT_EQ(error, "there must be only one class column");
  EXPECT_TRUE(t->consistency_check(3, error));
  EXPECT_EQ(t->get_class_index(), 1u);
  EXPECT_EQ(t->get_weights_index(), 2u);
  EXPECT_FALSE(t->consistency_check(1, error));

  // Switching the rules back and forth; a failed switch restores the old ones.
  auto loaded = files.loaded("a,string,discrete\nc,string,class\n", "x,y\n", false);
  EXPECT_EQ(loaded->get_no_attributes(), 2u);
  EXPECT_EQ(loaded->get_class(), nullptr);
  EXPECT_TRUE(loaded->set_consistency_for_tree(true, error));
  EXPECT_EQ(loaded->get_no_attributes(), 1u);
  EXPECT_EQ(loaded->get_class(), loaded->get_column(1));
  auto classless = files.loaded("a,string,discrete\nb,string,discrete\n", "x,y\n", false);
  EXPECT_FALSE(classless->set_consistency_for_tree(true, error));
  EXPECT_EQ(error, "there must be only one class column");
  EXPECT_FALSE(classless->is_for_tree());
  EXPECT_EQ(classless->get_no_attributes(), 2u);
}

// The orders of one column, row by row.
std::vector<unsigned long> orders(table const& t, unsigned long col) {
  std::vector<unsigned long> out;
  for (unsigned long r = 0; r < t.get_no_rows(); ++r)
    out.push_back(t.get_column(col)->get_row_index(r));
  return out;
}

TEST(Load, ValuesOrdersAndLineEndings) {
  table_files files;
  std::string data =
      "sunny,85,85.5,FALSE,no\r\n"
      "overcast,?,86,TRUE,yes\r\n"
      "rainy,70,?,FALSE,yes,\r\n"
      "sunny,64,65,FALSE,no";
  auto t = files.loaded(kGolfNames, data);
  ASSERT_EQ(t->get_no_rows(), 4u);
  EXPECT_EQ(t->get_loaded_columns(), 5u);
  EXPECT_EQ(orders(*t, 0), (std::vector<unsigned long>{3, 1, 2, 3}));
  EXPECT_EQ(orders(*t, 1), (std::vector<unsigned long>{3, 0, 2, 1}));
  EXPECT_EQ(orders(*t, 2), (std::vector<unsigned long>{2, 3, 0, 1}));
  EXPECT_EQ(t->get_column(4)->get_value(1), "yes");  // no carriage return kept
  EXPECT_EQ(t->get_column(2)->get_value(0), "85.500000000000000000000000000000");
}

TEST(Load, VerbosityWithoutALogStream) {
  // The log itself is checked end to end by test_load_log.sh.
  table_files files;
  auto t = files.declared("n,integer,continuous\nc,string,class\n");
  t->set_verbosity(200);
  t->load_data(files.source("d.data", "1,a\n2,b\n"), "?", true);
  EXPECT_EQ(t->get_no_rows(), 2u);
}

TEST(Load, Errors) {
  table_files files;
  auto load_error = [&](std::string const& names, std::string const& data) {
    auto t = files.declared(names);
    std::string e = error_of([&] { t->load_data(files.source("d.data", data), "?", true); });
    // Nothing of a failed load stays.
    EXPECT_EQ(t->get_no_rows(), 0u);
    EXPECT_EQ(t->get_loaded_columns(), 0u);
    EXPECT_EQ(t->get_column(0)->size(), 0u);
    return e;
  };
  // Every message is checked end to end by test_load_data_errors.sh; here the failures at each
  // stage leave nothing behind, and a line quoted in a message is the line as read.
  std::string names = "n,integer,continuous\nf,float,continuous\nc,string,class\n";
  EXPECT_EQ(load_error(names, "1,2,a,b,\n"),
            "Reading training data: bad row format (row 1): 1,2,a,b,");
  EXPECT_NE(load_error(names, "1,2,a\n1.5,2,a\n"), "");
  EXPECT_NE(load_error("a,string,discrete\nc1,string,class\nc2,string,class\n", "a,b,c\n"), "");
  table t("t", true);
  EXPECT_EQ(error_of([&] { t.load_data(nullptr, "?", true); }),
            "Reading training data: no data provider detected.");

  // A one-column table takes an empty line as an empty value.
  auto single = files.loaded("c,string,class\n", "a\n\nb\n");
  EXPECT_EQ(single->get_no_rows(), 3u);
  EXPECT_EQ(single->get_column(0)->get_value(1), "");
}

TEST(Load, IncrementalColumnsAndFailedLoadKeepsTheTable) {
  table_files files;
  auto t = files.loaded("a,string,discrete\nc,string,class\n", "x,yes\ny,no\nx,no\n");
  column* a = t->get_column(0);

  // Nothing new to load: every line has too many fields.
  EXPECT_EQ(error_of([&] { t->load_data(files.source("d.data", "x,yes\n"), "?", true); }),
            "Reading training data: bad row format (row 1): x,yes");
  // An empty source loads nothing and keeps the rows.
  t->load_data(files.source("e.data", ""), "?", true);
  EXPECT_EQ(t->get_no_rows(), 3u);

  t->push_back("n", "integer", "continuous");
  column* declared = t->get_column(2);
  EXPECT_EQ(error_of([&] { t->load_data(files.source("n.data", "5\n6,7\n"), "?", true); }),
            "Reading training data: bad row format (row 2): 6,7");
  EXPECT_EQ(t->get_no_rows(), 3u);
  EXPECT_EQ(t->get_loaded_columns(), 2u);
  EXPECT_EQ(t->get_column(0), a);
  EXPECT_EQ(t->get_column(2), declared);
  EXPECT_EQ(orders(*t, 0), (std::vector<unsigned long>{1, 2, 1}));
  EXPECT_EQ(t->get_class(), t->get_column(1));

  // The new column alone is read; fewer rows never shrink the table.
  t->load_data(files.source("n.data", "5\n?\n"), "?", true);
  EXPECT_EQ(t->get_loaded_columns(), 3u);
  EXPECT_EQ(t->get_no_rows(), 3u);
  EXPECT_EQ(t->get_column(2)->size(), 2u);
  EXPECT_EQ(t->get_column(2)->get_row_index(1), 0u);
  EXPECT_EQ(t->get_no_attributes(), 2u);
}

TEST(LoadRow, ReordersToAttributesClassWeight) {
  table_files files;
  std::vector<std::string> row;
  using strings = std::vector<std::string>;

  auto plain = files.loaded("a,string,discrete\nc,string,class\nb,integer,continuous\n", "x,y,1\n");
  auto rows = [&](table const& t, std::string const& text) {
    std::unique_ptr<zel::inpout::stream> s(files.source("r.data", text));
    std::vector<strings> out;
    while (t.load_row(s.get(), row))
      out.push_back(row);
    return out;
  };
  EXPECT_EQ(
      rows(*plain, "p,yes,7\nq,no\nr,no,8,\n"),
      (std::vector<strings>{{"p", "7", "yes", "1"}, {"q", "", "no", "1"}, {"r", "8", "no", "1"}}));
  EXPECT_EQ(error_of([&] { rows(*plain, "p,yes,7,8\n"); }), "bad row format: p,yes,7,8");

  // Weights before the class.
  auto weighted = files.loaded(
      "a,string,discrete\nw,float,weights\nc,string,class\nb,string,discrete\n", "x,1,y,z\n");
  EXPECT_EQ(rows(*weighted, "p,2.5,yes,q\n"), (std::vector<strings>{{"p", "q", "yes", "2.5"}}));
  // Weights after the class: its position is deliberately not corrected for
  // the class taken out, so the entry after it is taken as the weight.
  auto late = files.loaded(
      "a,string,discrete\nc,string,class\nw,float,weights\nb,string,discrete\n", "x,y,1,z\n");
  EXPECT_EQ(rows(*late, "p,yes,2.5,q\n"), (std::vector<strings>{{"p", "2.5", "yes", "q"}}));

  // Without the tree rules the row stays as read.
  auto loose = files.loaded("a,string,discrete\nc,string,class\n", "x,y\n", false);
  EXPECT_EQ(rows(*loose, "p,yes\nq\n"), (std::vector<strings>{{"p", "yes"}, {"q", ""}}));
}

std::vector<unsigned> rows_of(w_sequence const& s) {
  std::vector<unsigned> out;
  for (auto const& c : s)
    out.push_back(c.first);
  return out;
}

// The rows of a sequence handed over by the table.
std::vector<unsigned> rows(w_sequence* s) {
  std::unique_ptr<w_sequence> own(s);
  return rows_of(*own);
}

std::vector<unsigned> range_of(unsigned from, unsigned to) {
  std::vector<unsigned> out;
  for (unsigned r = from; r < to; ++r)
    out.push_back(r);
  return out;
}

// A table of n rows: a discrete attribute and a class.
std::unique_ptr<table> rows_table(table_files const& files, int n) {
  std::string data;
  for (int r = 0; r < n; ++r)
    data += "v" + std::to_string(r) + (r % 3 ? ",yes\n" : ",no\n");
  return files.loaded("a,string,discrete\nc,string,class\n", data);
}

TEST(Subsets, FirstNRandomAndTheDifferenceCoverEveryRowOnce) {
  table_files files;
  auto t = rows_table(files, 10);
  EXPECT_TRUE(rows(t->get_wsubset_first_n(0)).empty());
  EXPECT_EQ(rows(t->get_wsubset_first_n(4)), range_of(0, 4));
  EXPECT_EQ(rows(t->get_wsubset_first_n(1000)), range_of(0, 10));
  EXPECT_EQ(rows(t->get_wsubset_random(25)), range_of(0, 10));
  std::unique_ptr<w_sequence> train(t->get_wsubset_random(7));
  std::unique_ptr<w_sequence> test(t->get_wsubset_difference(train.get()));
  std::vector<unsigned> a = rows_of(*train), b = rows_of(*test);
  ASSERT_EQ(a.size(), 7u);
  EXPECT_TRUE(std::is_sorted(a.begin(), a.end()) && std::is_sorted(b.begin(), b.end()));
  a.insert(a.end(), b.begin(), b.end());
  std::sort(a.begin(), a.end());
  EXPECT_EQ(a, range_of(0, 10));
}

TEST(Subsets, DifferenceWalksTheSortedSequence) {
  table_files files;
  auto t = rows_table(files, 8);
  w_sequence s;
  s.push_back(5, 1.0f);
  s.push_back(2, 1.0f);
  EXPECT_EQ(rows(t->get_wsubset_difference(&s)), (std::vector<unsigned>{0, 1, 3, 4, 6, 7}));
  EXPECT_EQ(rows_of(s), (std::vector<unsigned>{2, 5}));  // sorted in place

  // A repeated row stops all later matches: row 5 is kept.
  w_sequence dup;
  for (unsigned r : {3u, 5u, 3u})
    dup.push_back(r, 1.0f);
  EXPECT_EQ(rows(t->get_wsubset_difference(&dup)), (std::vector<unsigned>{0, 1, 2, 4, 5, 6, 7}));
  w_sequence empty;
  EXPECT_EQ(rows(t->get_wsubset_difference(&empty)), range_of(0, 8));
}

TEST(Subsets, WeightsColumnSetsTheWeights) {
  table_files files;
  auto t = files.loaded("w,float,weights\nc,string,class\n", "1,a\n1,b\n2.5,a\n1,b\n");
  w_sequence others;
  others.push_back(0, 1.0f);
  std::unique_ptr<w_sequence> all[] = {
      std::unique_ptr<w_sequence>(t->get_wsubset_all()),
      std::unique_ptr<w_sequence>(t->get_wsubset_first_n(3)),
      std::unique_ptr<w_sequence>(t->get_wsubset_random(4)),
      std::unique_ptr<w_sequence>(t->get_wsubset_difference(&others))};
  for (auto const& s : all) {
    for (auto const& c : *s)
      EXPECT_EQ(c.second, c.first == 2 ? 2.5f : 1.0f) << "row " << c.first;
  }
}

}  // namespace
