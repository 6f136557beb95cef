#include "zel/util/string_util.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <utility>

#include "tests/zel/inpout/scratch_dir.h"

using zel::util::string_util;

namespace {

// The message of the runtime error that str2int throws, or "" when it succeeds.
template <class T>
std::string str2int_error(const char* s, T& out) {
  return error_of([&] { string_util::str2int(s, out); });
}

TEST(Str2Int, UnsignedAcceptsLeadingBlanksSignAndFullRange) {
  std::pair<char const*, unsigned long> const accepted[] = {
      {"  42", 42}, {"+17", 17}, {"18446744073709551615", 18446744073709551615UL}, {"+", 0}};
  for (auto const& [text, want] : accepted) {  // a lone sign reads as 0
    unsigned long v = 7;
    string_util::str2int(text, v);
    EXPECT_EQ(v, want) << text;
  }
}

TEST(Str2Int, UnsignedRejectsWithItsMessagesAndKeepsOutput) {
  unsigned long v = 7;
  EXPECT_EQ(str2int_error<unsigned long>(nullptr, v), "str2int:: cannot convert a NULL string.");
  EXPECT_EQ(str2int_error("-1", v), "str2int:: a negative number provided.");
  EXPECT_EQ(str2int_error("-", v), "str2int:: a negative number provided.");
  EXPECT_EQ(str2int_error("", v), ": not an int");
  EXPECT_EQ(str2int_error("   ", v), "   : not an int");
  EXPECT_EQ(str2int_error("42 ", v), "42 : _not an int");
  EXPECT_EQ(str2int_error(" 4x2", v), " 4x2: _not an int");
  EXPECT_EQ(str2int_error("\t4", v), "\t4: _not an int");  // only spaces are skipped
  EXPECT_EQ(str2int_error("18446744073709551616", v), "str2int:: overflow");
  EXPECT_EQ(str2int_error("184467440737095516150", v), "str2int:: overflow");
  EXPECT_EQ(v, 7UL);
}

TEST(Str2Int, IntRangeIsSymmetric) {
  int v = 7;
  string_util::str2int("-2147483647", v);
  EXPECT_EQ(v, -2147483647);
  string_util::str2int("2147483647", v);
  EXPECT_EQ(v, 2147483647);
  string_util::str2int("-", v);
  EXPECT_EQ(v, 0);
  EXPECT_EQ(str2int_error("-2147483648", v), "str2int:: overflow");
  EXPECT_EQ(str2int_error("2147483648", v), "str2int:: overflow");
  EXPECT_EQ(str2int_error("- 1", v), "- 1: _not an int");
  EXPECT_EQ(v, 0);
}

TEST(ToXML, EscapesMarkupButNotQuotes) {
  EXPECT_EQ(string_util::toXML("a<b & c>d"), "a&lt;b &amp; c&gt;d");
  EXPECT_EQ(string_util::toXML("say \"hi\" 'x'"), "say \"hi\" 'x'");
  EXPECT_EQ(string_util::toXML("&amp;"), "&amp;amp;");
}

}  // namespace
