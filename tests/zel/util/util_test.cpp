// Number parsing, the field tokenizer, the timer and the bitmap.
#include <gtest/gtest.h>

#include <charconv>
#include <cstring>
#include <iterator>
#include <random>
#include <sstream>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "tests/zel/inpout/scratch_dir.h"
#include "zel/adt/bitmap.h"
#include "zel/util/cronos.h"
#include "zel/util/datatype.h"
#include "zel/util/string_util.h"
#include "zel/util/tokenizer.h"

using zel::adt::bitmap;
using zel::util::cronos;
using zel::util::string_util;
using zel::util::tokenizer;

namespace {

// What str2int makes of the text, starting from 7: the value, or the error message.
template <class T>
std::string parsed(const char* s) {
  T v = 7;
  std::string e = error_of([&] { string_util::str2int(s, v); });
  return e.empty() ? std::to_string(v) : (v == 7 ? e : "changed on error: " + e);
}

// The short route for plain decimals must give the bits of the general parser, near
// halfway points between floats included.
TEST(ParseFloating, PlainDecimalsAgreeWithTheGeneralParser) {
  using zel::data_types::detail::parse_floating;
  std::mt19937_64 gen(5);
  std::istringstream seeds(
      "16777217 -0 0. .5 1. 33554435 0.1 123456789012345 1234567890123456 9007199254740993");
  std::vector<std::string> texts{std::istream_iterator<std::string>(seeds), {}};
  for (int i = 0; i < 200000; ++i) {
    std::string t = std::to_string(gen() % 1000000000000000ULL >> (gen() % 50));
    t.insert(gen() % (t.size() + 1), ".");
    if (gen() % 2) t.insert(0, "-");
    texts.push_back(t);
  }
  for (auto const& t : texts) {
    float f = 0, want_f = 0;
    double d = 0, want_d = 0;
    ASSERT_TRUE(parse_floating(t.c_str(), f) && parse_floating(t.c_str(), d)) << t;
    std::from_chars(t.data(), t.data() + t.size(), want_f);
    std::from_chars(t.data(), t.data() + t.size(), want_d);
    ASSERT_EQ(0, std::memcmp(&f, &want_f, sizeof f)) << t;
    ASSERT_EQ(0, std::memcmp(&d, &want_d, sizeof d)) << t;
  }
}

TEST(Str2Int, RangesSignsBlanksAndMessages) {
  // A lone sign reads as 0; only spaces are skipped, and only before the digits.
  std::pair<const char*, std::string> const unsigned_cases[] = {
      {"  42", "42"},
      {"+17", "17"},
      {"18446744073709551615", "18446744073709551615"},
      {"+", "0"},
      {"-1", "str2int:: a negative number provided."},
      {"-", "str2int:: a negative number provided."},
      {"", ": not an int"},
      {"   ", "   : not an int"},
      {"42 ", "42 : _not an int"},
      {" 4x2", " 4x2: _not an int"},
      {"\t4", "\t4: _not an int"},
      {"18446744073709551616", "str2int:: overflow"},
      {"184467440737095516150", "str2int:: overflow"}};
  for (auto const& [text, want] : unsigned_cases)
    EXPECT_EQ(parsed<unsigned long>(text), want) << '"' << text << '"';
  EXPECT_EQ(parsed<unsigned long>(nullptr), "str2int:: cannot convert a NULL string.");
  // The int range is symmetric.
  std::pair<const char*, std::string> const int_cases[] = {{"-2147483647", "-2147483647"},
                                                           {"2147483647", "2147483647"},
                                                           {"-", "0"},
                                                           {"-2147483648", "str2int:: overflow"},
                                                           {"2147483648", "str2int:: overflow"},
                                                           {"- 1", "- 1: _not an int"}};
  for (auto const& [text, want] : int_cases)
    EXPECT_EQ(parsed<int>(text), want) << '"' << text << '"';
}

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

TEST(Tokenizer, EmptyFieldsTrailingDelimiterRestAndNoString) {
  EXPECT_EQ(strings({"x", "", "y", "", "", ""}), fields("x,,y,", ',', 6));
  EXPECT_EQ(strings({"", ""}), fields(",", ',', 2));
  EXPECT_EQ(strings({"", "", ""}), fields("", ',', 3));
  EXPECT_EQ(strings({" a ", "\"b,c\""}), fields(" a |\"b,c\"", '|', 2));  // no trimming or quoting
  EXPECT_EQ(strings({"a,b\tc", ""}), fields("a,b\tc", '\0', 2));

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

TEST(Cronos, StoppedTwiceMeasuresFromTheSameStart) {
  cronos c;
  c.start();
  cronos::sleep(20);
  c.stop();
  double first = c.get_elapsed();
  cronos::sleep(20);
  c.stop();
  EXPECT_GE(first, 0.015);
  EXPECT_GE(c.get_elapsed(), first + 0.015);
  EXPECT_THROW(cronos::sleep(18446744073709551UL), std::runtime_error);
}

TEST(Bitmap, PushBackAndReserveKeepEveryBitAcrossGrowth) {
  bitmap b;
  for (int i = 0; i < 33; ++i)
    b.push_back(true);
  EXPECT_EQ(b.word_count(), 2UL);
  EXPECT_EQ(b.words()[0], 0xFFFFFFFFu);
  EXPECT_EQ(b.words()[1], 1u);

  // push_back(false) leaves the bit as the word holds it: new words must come zeroed.
  bitmap g;
  for (int i = 0; i < 325; ++i)
    g.push_back(i % 3 == 0);
  g.reserve(1000);
  EXPECT_EQ(g.capacity(), 1024UL);
  g.reserve(10);
  EXPECT_EQ(g.capacity(), 1024UL);
  EXPECT_EQ(g.size(), 325UL);
  for (unsigned long i = 0; i < g.size(); ++i)
    ASSERT_EQ(g[i], i % 3 == 0) << "bit " << i;
}

}  // namespace
