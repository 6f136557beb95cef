#include "zel/adt/bitmap.h"

#include <gtest/gtest.h>

#include <string>

#include "tests/zel/inpout/scratch_dir.h"

using zel::adt::bitmap;

namespace {

TEST(Bitmap, PushBackKeepsEveryBitAcrossGrowth) {
  bitmap b;
  for (int i = 0; i < 33; ++i)
    b.push_back(true);
  EXPECT_EQ(b.size(), 33UL);
  EXPECT_EQ(b.word_count(), 2UL);
  EXPECT_EQ(b.words()[0], 0xFFFFFFFFu);
  EXPECT_EQ(b.words()[1], 1u);

  // push_back(false) leaves the bit as the word holds it: new words must come zeroed.
  bitmap g;
  for (int i = 0; i < 325; ++i)
    g.push_back(i % 3 == 0);
  for (unsigned long i = 0; i < g.size(); ++i)
    ASSERT_EQ(g[i], i % 3 == 0) << "bit " << i;
}

TEST(Bitmap, ReserveKeepsBitsResizeRefusesToShorten) {
  bitmap b;
  b.resize(40);
  b.set(0);
  b.set(39);
  b.reserve(1000);
  EXPECT_EQ(b.capacity(), 1024UL);
  b.reserve(10);
  EXPECT_EQ(b.capacity(), 1024UL);
  for (unsigned long i = 0; i < 40; ++i)
    EXPECT_EQ(b.get(i), i == 0 || i == 39) << "bit " << i;

  bitmap s;
  s.resize(10);
  EXPECT_EQ(error_of([&] { s.resize(5); }),
            "bitmap::resize cannot deal with shortening of bitmaps");
  EXPECT_EQ(s.size(), 5UL);  // set before the refusal
}

}  // namespace
