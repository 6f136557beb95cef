#include <gtest/gtest.h>

#include <ctime>
#include <memory>
#include <string>
#include <vector>

#include "brix/impls/table.h"
#include "tests/brix/table_files.h"

using brix::impls::table;
using brix::impls::w_sequence;

namespace {

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

TEST(Subsets, FirstNAndClamping) {
  table_files files;
  auto t = rows_table(files, 10);
  EXPECT_TRUE(rows(t->get_wsubset_first_n(0)).empty());
  EXPECT_EQ(rows(t->get_wsubset_first_n(4)), range_of(0, 4));
  EXPECT_EQ(rows(t->get_wsubset_first_n(1000)), range_of(0, 10));
  EXPECT_EQ(rows(t->get_wsubset_all()), range_of(0, 10));
  EXPECT_TRUE(rows(t->get_wsubset_random(0)).empty());
  EXPECT_EQ(rows(t->get_wsubset_random(25)), range_of(0, 10));
  std::vector<unsigned> rep = rows(t->get_wsubset_random_repeated(25));
  EXPECT_EQ(rep.size(), 10u);
  for (unsigned r : rep)
    EXPECT_LT(r, 10u);
}

TEST(Subsets, RandomAndItsDifferenceCoverEveryRowOnce) {
  table_files files;
  auto t = rows_table(files, 10);
  std::unique_ptr<w_sequence> train(t->get_wsubset_random(7));
  ASSERT_EQ(train->size(), 7u);
  std::unique_ptr<w_sequence> test(t->get_wsubset_difference(train.get()));
  ASSERT_EQ(test->size(), 3u);
  std::vector<int> seen(10, 0);
  for (auto const* s : {train.get(), test.get()}) {
    for (std::size_t i = 0; i < s->size(); ++i) {
      if (i > 0) {
        EXPECT_LT((*s)[i - 1].first, (*s)[i].first) << "rows not ascending";
      }
      ++seen[(*s)[i].first];
    }
  }
  EXPECT_EQ(seen, std::vector<int>(10, 1));

  // Reseeded with the time in seconds: two draws in the same second agree.
  auto big = rows_table(files, 200);
  std::time_t before = std::time(nullptr);
  std::unique_ptr<w_sequence> a(big->get_wsubset_random(50)), b(big->get_wsubset_random(50));
  if (std::time(nullptr) == before) {
    EXPECT_EQ(rows_of(*a), rows_of(*b));
  }
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

TEST(Subsets, Balanced) {
  table_files files;
  // Classes by row: b a c a a b c a a c -> a: 5, b: 2, c: 3.
  std::string data;
  for (char c : std::string("bacaabcaac"))
    data += std::string("x,") + c + "\n";
  auto t = files.loaded("a,string,discrete\nc,string,class\n", data);
  EXPECT_EQ(rows(t->get_wsubset_balanced()), (std::vector<unsigned>{0, 1, 2, 3, 5, 6}));

  auto single = files.loaded("a,string,discrete\nc,string,class\n", "x,k\ny,k\n");
  EXPECT_EQ(rows(single->get_wsubset_balanced()), (std::vector<unsigned>{0, 1}));
}

TEST(Subsets, WeightsColumnSetsTheWeights) {
  table_files files;
  std::string data;
  for (int r = 0; r < 8; ++r)
    data += std::string(r == 4 ? "2.5" : "1") + (r % 2 ? ",a\n" : ",b\n");
  auto t = files.loaded("w,float,weights\nc,string,class\n", data);
  ASSERT_NE(t->get_weights(), nullptr);
  auto weight_of_row4 = [](w_sequence const& s) {
    for (auto const& c : s) {
      if (c.first == 4) return c.second;
      EXPECT_EQ(c.second, 1.0f) << "row " << c.first;
    }
    return -1.0f;
  };
  w_sequence others;
  others.push_back(0, 1.0f);
  std::vector<std::unique_ptr<w_sequence>> all;
  all.emplace_back(t->get_wsubset_all());
  all.emplace_back(t->get_wsubset_first_n(6));
  all.emplace_back(t->get_wsubset_random(8));
  all.emplace_back(t->get_wsubset_difference(&others));
  all.emplace_back(t->get_wsubset_balanced());
  for (auto const& s : all)
    EXPECT_EQ(weight_of_row4(*s), 2.5f);
}

}  // namespace
