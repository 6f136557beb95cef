#include "zel/util/tokenizer.h"

#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

using zel::util::tokenizer;

namespace {

std::vector<std::string> fields(const std::string& s, char delim, int calls) {
  tokenizer t(s.c_str(), delim);
  std::vector<std::string> out;
  for (int i = 0; i < calls; ++i) {
    const char* tok = t.next();
    EXPECT_EQ(std::string(tok).size(), t.length());
    out.push_back(tok);
  }
  return out;
}

using strings = std::vector<std::string>;

}  // namespace

TEST(Tokenizer, EmptyFieldsAndTrailingDelimiter) {
  EXPECT_EQ(strings({"x", "", "y", "", "", ""}), fields("x,,y,", ',', 6));
  EXPECT_EQ(strings({"", ""}), fields(",", ',', 2));
  EXPECT_EQ(strings({"", "", ""}), fields("", ',', 3));
  EXPECT_EQ(strings({" a ", "\"b,c\""}), fields(" a |\"b,c\"", '|', 2));  // no trimming or quoting
  EXPECT_EQ(strings({"a,b\tc", ""}), fields("a,b\tc", '\0', 2));
}

TEST(Tokenizer, RestAtEndAndNoString) {
  tokenizer t;
  EXPECT_STREQ("", t.next());
  t.reset("p\tq", '\t');
  EXPECT_STREQ("p", t.next());
  EXPECT_STREQ("q", t.rest());
  EXPECT_FALSE(t.at_end());
  EXPECT_STREQ("q", t.next());
  EXPECT_TRUE(t.at_end());
  t.reset(nullptr, ',');
  EXPECT_EQ(tokenizer::EMPTY, t.get_string());
  EXPECT_STREQ("", tokenizer::EMPTY);
}

TEST(Tokenizer, FieldsOfEveryLengthIncludingLongOnes) {
  std::mt19937 rng(3);
  std::vector<size_t> lengths;
  for (size_t n = 0; n < 40; ++n)
    lengths.push_back(n);
  for (size_t n : {255, 256, 257, 384, 1000, 100000})
    lengths.push_back(n);
  std::string line;
  strings expected;
  for (size_t n : lengths) {
    std::string f;
    for (size_t i = 0; i < n; ++i)
      f += static_cast<char>('a' + rng() % 26);
    expected.push_back(f);
    line += f + ";";
  }
  line.pop_back();
  EXPECT_EQ(expected, fields(line, ';', static_cast<int>(expected.size())));

  // A long field first, then short ones: the grown buffer serves them all.
  EXPECT_EQ(strings({std::string(5000, 'k'), "s", ""}),
            fields(std::string(5000, 'k') + ",s", ',', 3));
}
