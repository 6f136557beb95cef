// The connections below the line and binary streams. The bytes they carry are checked through
// those streams (stream_test, binstream_test); here what the streams cannot show.
#include <gtest/gtest.h>

#include <cstring>
#include <stdexcept>
#include <string>

#include "tests/zel/inpout/scratch_dir.h"
#include "zel/inpout/iobuf.h"
#include "zel/inpout/iofile.h"
#include "zel/inpout/iogz.h"
#include "zel/inpout/iomem.h"

using namespace zel::inpout;

TEST(IoConnections, RefusalsAndBounds) {
  scratch_dir dir;
  iofile rw;
  ASSERT_TRUE(rw.open(dir.write("f", "abc"), 6, 0644));
  iobuf b;
  EXPECT_EQ("iobuf::open: IOBuffers are either READ or WRITE, not both.",
            error_of([&] { b.open(&rw, false, 65536); }));
  EXPECT_FALSE(b.open(nullptr, false, 65536));
  EXPECT_EQ("iogz::lseek LSEEK_END not supported", error_of([] { iogz().lseek(0, 2); }));
  EXPECT_EQ("iogz::lseek position not supported", error_of([] { iogz().lseek(0, 5); }));
  EXPECT_EQ("iofile::size(): cannot access file size.", error_of([] { iofile().size(); }));
  iofile f;
  EXPECT_FALSE(f.open(dir.file("none"), 2, 0644));
  EXPECT_FALSE(f.is_open());

  // Memory it owns grows; an area it was given is never written past.
  iomem m;
  ASSERT_TRUE(m.open(4));
  EXPECT_EQ(3, m.write("abc", 3));
  EXPECT_EQ(7, m.write("defghij", 7));
  EXPECT_EQ(0, std::memcmp(m.get_data(), "abcdefghij", 10));
  char area[7] = "......";
  iomem e;
  e.open(area, 6, 0);
  EXPECT_EQ(4, e.write("1234", 4));
  EXPECT_EQ(2, e.write("5678", 4));
  EXPECT_STREQ("123456", area);
}
