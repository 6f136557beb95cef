#include "zel/inpout/binstream.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <memory>
#include <string>
#include <vector>

#include "tests/zel/inpout/scratch_dir.h"

using zel::inpout::ibinstream;
using zel::inpout::obinstream;

namespace {

enum class shade : std::uint32_t { light = 1, dark = 0xA0B0C0D0 };

std::string hex(const std::string& bytes) {
  static const char digits[] = "0123456789ABCDEF";
  std::string out;
  for (unsigned char c : bytes) {
    if (!out.empty()) out += ' ';
    out += digits[c >> 4];
    out += digits[c & 15];
  }
  return out;
}

// The bytes that a plain writer puts out for what write() sends it.
template <class F>
std::string bytes_of(F write) {
  scratch_dir dir;
  {
    obinstream out(dir.file("b"), false, 0);
    write(out);
  }
  return hex(scratch_dir::read(dir.file("b")));
}

template <class T>
std::uint64_t bits(T v) {
  std::uint64_t b = 0;
  std::memcpy(&b, &v, sizeof v);
  return b;
}

}  // namespace

// Items that the table and tree files (binary_format_test) do not pin.
TEST(BinStream, ItemBytes) {
  EXPECT_EQ("00", bytes_of([](obinstream& o) { o << static_cast<const char*>(nullptr); }));
  EXPECT_EQ("01 00 00 00 00 00 00 00 00", bytes_of([](obinstream& o) { o << ""; }));
  EXPECT_EQ("01 00 41 FE FF",
            bytes_of([](obinstream& o) { o << true << false << 'A' << static_cast<short>(-2); }));
  EXPECT_EQ("D0 C0 B0 A0", bytes_of([](obinstream& o) { o << shade::dark; }));
  EXPECT_EQ(
      "01 03 00 00 00 00 00 00 00 00 01 01 00 00 00 00 00 00 00 7A 01 00 00 00 00 00 00 00 00",
      bytes_of([](obinstream& o) {
        std::vector<const char*> v{nullptr, "z", ""};
        o << &v;
      }));
  EXPECT_EQ("01 00 02 00", bytes_of([](obinstream& o) {
              const short a[] = {1, 2};
              o.write_array(a, 2);
            }));
}

// The table and tree files pin the layout of their items (binary_format_test); here the values
// that those files do not hold, and the buffer's edges.
TEST(BinStream, RoundTripIsExactPlainOrCompressed) {
  scratch_dir dir;
  const std::string name = dir.file("t.bin");
  const float fvals[] = {1.0f / 3, -0.0f, std::numeric_limits<float>::denorm_min(),
                         std::numeric_limits<float>::quiet_NaN(),
                         -std::numeric_limits<float>::infinity()};
  std::vector<std::string> words{"alpha", "", std::string("with\0nul", 8)};
  std::vector<float> cells(100000);
  for (size_t i = 0; i < cells.size(); ++i)
    cells[i] = std::sin(static_cast<float>(i));
  for (bool compressed : {true, false}) {
    SCOPED_TRACE(compressed ? "compressed" : "plain");
    {
      obinstream out(name, compressed, 1);
      for (float f : fvals)
        out << f;
      out.write_array(cells.data(), cells.size());
      for (int i = 0; i < 1000; ++i)  // many small items across the buffer's edges
        out << i << std::to_string(i);
      out << &words << static_cast<std::vector<int>*>(nullptr) << 123456789012LL;
      EXPECT_TRUE(out.good());
    }
    EXPECT_EQ(compressed, hex(scratch_dir::read(name).substr(0, 2)) == "1F 8B");

    ibinstream in(name, compressed);
    for (float f : fvals) {
      float g = 7;
      in >> g;
      EXPECT_EQ(bits(f), bits(g));
    }
    std::vector<float> back(cells.size());
    in.read_array(back.data(), back.size());
    EXPECT_EQ(0, std::memcmp(cells.data(), back.data(), back.size() * sizeof(float)));
    bool same = true;
    for (int i = 0; i < 1000; ++i) {
      int k = -1;
      std::string s;
      in >> k >> s;
      same = same && k == i && s == std::to_string(i);
    }
    EXPECT_TRUE(same);
    std::vector<std::string>* w = nullptr;
    std::vector<int> keep{1};
    std::vector<int>* none = &keep;
    long long big = 0;
    in >> w >> none >> big;
    std::unique_ptr<std::vector<std::string>> own_w(w);
    EXPECT_TRUE(in.good());
    ASSERT_NE(nullptr, w);
    EXPECT_EQ(words, *w);
    EXPECT_EQ(nullptr, none);
    EXPECT_EQ(123456789012LL, big);
    int more = 5;
    in >> more;
    EXPECT_FALSE(in.good());
    EXPECT_EQ(5, more);
  }
}

TEST(BinStream, ShortAndForeignInputIsFlaggedNotFatal) {
  scratch_dir dir;
  // Reads one T from a plain file of the given bytes; returns whether the stream stayed good.
  auto good_after = [&dir](std::string const& bytes, auto& value) {
    ibinstream in(dir.write("f", bytes), false);
    in >> value;
    return static_cast<bool>(in);
  };
  // A string claiming 2^40 bytes, a vector claiming 2^40 elements, then the file ends.
  std::string lie("\x01\x00\x00\x00\x00\x00\x01\x00\x00xy", 11);
  std::string s = "old";
  EXPECT_FALSE(good_after(lie, s));
  char* text = nullptr;
  EXPECT_FALSE(good_after(lie, text));
  EXPECT_EQ(nullptr, text);
  std::vector<std::string> v;
  EXPECT_FALSE(good_after(lie.substr(1), v));
  EXPECT_LE(v.size(), 1u);
  // A believable 1 GiB length over a 2-byte body costs no gigabyte.
  EXPECT_FALSE(good_after(std::string("\x01\x00\x00\x00\x40\x00\x00\x00\x00xy", 11), text));
  std::unique_ptr<char[]> own(text);
  EXPECT_STREQ("xy", text);
  // 5 characters promised, 3 given.
  EXPECT_FALSE(good_after(std::string("\x01\x05\x00\x00\x00\x00\x00\x00\x00"
                                      "abc",
                                      12),
                          text));
  own.reset(text);
  EXPECT_STREQ("abc", text);
  std::vector<int>* p = nullptr;
  EXPECT_FALSE(good_after(std::string("\x07", 1), p));  // not a presence byte
  EXPECT_EQ(nullptr, p);
  std::vector<int> ints;
  EXPECT_FALSE(good_after(std::string("\x01\x02", 2), ints));
  // Files that cannot be opened.
  EXPECT_NE("", error_of([&] { ibinstream in(dir.file("missing"), true); }));
  EXPECT_NE("", error_of([&] { obinstream out(dir.file("no/such/dir"), true, 1); }));
}
