#include "zel/adt/bitmap.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <vector>

using zel::adt::bitmap;

namespace {

bitmap sized(unsigned long n) {
  bitmap b;
  b.resize(n);
  return b;
}

std::vector<unsigned long> set_bits(const bitmap& b) {
  std::vector<unsigned long> r;
  bitmap::Iterator it(b);
  while (it.hasNext())
    r.push_back(it.getNext());
  return r;
}

TEST(Bitmap, PushBackGrowsBy32BitsThenByHalf) {
  bitmap b;
  for (int i = 0; i < 33; ++i)
    b.push_back(true);
  EXPECT_EQ(b.size(), 33UL);
  EXPECT_EQ(b.capacity(), 64UL);
  EXPECT_EQ(b.word_count(), 2UL);
  EXPECT_EQ(b.words()[0], 0xFFFFFFFFu);
  EXPECT_EQ(b.words()[1], 1u);

  std::vector<unsigned long> capacities;
  bitmap g;
  for (int i = 0; i < 325; ++i) {
    g.push_back(i % 3 == 0);
    if (capacities.empty() || capacities.back() != g.capacity()) capacities.push_back(g.capacity());
  }
  // Growth is computed from the size, then rounded up to whole words: 96 + 48 gives 160 bits.
  EXPECT_EQ(capacities, (std::vector<unsigned long>{32, 64, 96, 160, 256, 384}));
  for (unsigned long i = 0; i < g.size(); ++i)
    ASSERT_EQ(g[i], i % 3 == 0) << "bit " << i;
}

TEST(Bitmap, ResetClearsTheWholeWord) {
  bitmap b = sized(64);
  b.set(5);
  b.set(6);
  b.set(40);
  b.reset(5);
  EXPECT_FALSE(b.get(5));
  EXPECT_FALSE(b.get(6));
  EXPECT_TRUE(b.get(40));
}

TEST(Bitmap, AndOrRequireEqualSizes) {
  bitmap a = sized(10), c = sized(11), d = sized(10);
  for (unsigned long i : {1, 2})
    a.set(i);
  for (unsigned long i : {2, 3})
    d.set(i);
  EXPECT_FALSE(a.and_op(c));
  EXPECT_FALSE(a.or_op(c));
  EXPECT_EQ(set_bits(a), (std::vector<unsigned long>{1, 2}));
  EXPECT_TRUE(a.size() == 10 && c.size() == 11);
  bitmap e = a;
  ASSERT_TRUE(e.and_op(d));
  EXPECT_EQ(set_bits(e), (std::vector<unsigned long>{2}));
  ASSERT_TRUE(a.or_op(d));
  EXPECT_EQ(set_bits(a), (std::vector<unsigned long>{1, 2, 3}));
}

TEST(Bitmap, ReserveKeepsBitsResizeRefusesToShorten) {
  bitmap b = sized(40);
  b.set(0);
  b.set(39);
  b.reserve(1000);
  EXPECT_EQ(b.capacity(), 1024UL);
  b.reserve(10);
  EXPECT_EQ(b.capacity(), 1024UL);
  EXPECT_EQ(set_bits(b), (std::vector<unsigned long>{0, 39}));
  b.clear();
  EXPECT_TRUE(set_bits(b).empty());
  EXPECT_EQ(b.size(), 40UL);

  bitmap s = sized(10);
  try {
    s.resize(5);
    FAIL() << "shortening accepted";
  } catch (const std::runtime_error& e) {
    EXPECT_EQ(std::string(e.what()), "bitmap::resize cannot deal with shortening of bitmaps");
  }
  EXPECT_EQ(s.size(), 5UL);  // set before the refusal
  EXPECT_EQ(s.capacity(), 32UL);
}

TEST(BitmapIterator, ListsSetBitsAcrossWordsAndRewinds) {
  bitmap b = sized(100);
  for (unsigned long i : {0, 31, 32, 99})
    b.set(i);
  bitmap::Iterator it(b);
  EXPECT_TRUE(it.hasNext());
  EXPECT_TRUE(it.hasNext());  // asking twice does not advance
  EXPECT_EQ(it.getNext(), 0UL);
  EXPECT_EQ(it.getNext(), 31UL);  // getNext alone advances too
  unsigned long v = 0;
  EXPECT_TRUE(it.getNext(v));
  EXPECT_EQ(v, 32UL);
  EXPECT_EQ(it.getNext(), 99UL);
  EXPECT_FALSE(it.hasNext());
  EXPECT_THROW(it.getNext(), std::out_of_range);
  it.rewind();
  EXPECT_EQ(it.getNext(), 0UL);

  EXPECT_TRUE(set_bits(bitmap()).empty());
}

}  // namespace
