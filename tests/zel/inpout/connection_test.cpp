// The connections below the line and binary streams. The bytes they carry are checked through
// those streams (stream_test, binstream_test); here what the streams cannot show.
#include <gtest/gtest.h>

#include <cstring>
#include <stdexcept>
#include <string>
#include <vector>

#include "tests/zel/inpout/scratch_dir.h"
#include "zel/inpout/iobuf.h"
#include "zel/inpout/iofile.h"
#include "zel/inpout/iogz.h"
#include "zel/inpout/iomem.h"

using namespace zel::inpout;

namespace {

// Serves byte i as i % 251 and records the size of every read it is asked for.
class probe_conn : public ioconn {
 public:
  void close() override {}
  bool is_open() const override { return true; }
  int get_mode() const override { return 2; }
  int read(void* buf, int n) override {
    reads.push_back(n);
    for (int i = 0; i < n; ++i)
      static_cast<unsigned char*>(buf)[i] = (pos_ + i) % 251;
    pos_ += n;
    return n;
  }
  int write(const void*, int) override { return -1; }
  std::vector<int> reads;

 private:
  long long pos_ = 0;
};

}  // namespace

TEST(IoBuf, RefusesReadWriteConnectionsAndLargeReadsBypassTheBuffer) {
  scratch_dir dir;
  iofile rw;
  ASSERT_TRUE(rw.open(dir.write("f", "abc"), 6, 0644));
  iobuf b;
  EXPECT_EQ("iobuf::open: IOBuffers are either READ or WRITE, not both.",
            error_of([&] { b.open(&rw, false, 65536); }));
  EXPECT_FALSE(b.open(nullptr, false, 65536));

  probe_conn* c = new probe_conn();
  ASSERT_TRUE(b.open(c, true, 65536));
  std::vector<unsigned char> out(200000);
  ASSERT_EQ(100000, b.read(out.data(), 100000));
  // A small read fills the buffer; a large remainder then goes straight to the caller, and a
  // remainder that fits refills the whole buffer.
  ASSERT_EQ(10, b.read(out.data(), 10));
  ASSERT_EQ(140000, b.read(out.data(), 140000));
  ASSERT_EQ(5, b.read(out.data(), 5));
  ASSERT_EQ(65536, b.read(out.data() + 5, 65536));
  EXPECT_EQ(std::vector<int>({100000, 65536, 74474, 65536, 65536}), c->reads);
  for (int i = 0; i < 65541; ++i)
    ASSERT_EQ(out[i], (240010 + i) % 251) << i;
}

TEST(IoConnections, RefusalsAndBounds) {
  EXPECT_EQ("iogz::lseek LSEEK_END not supported", error_of([] { iogz().lseek(0, 2); }));
  EXPECT_EQ("iogz::lseek position not supported", error_of([] { iogz().lseek(0, 5); }));
  EXPECT_EQ("iofile::size(): cannot access file size.", error_of([] { iofile().size(); }));
  scratch_dir dir;
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
