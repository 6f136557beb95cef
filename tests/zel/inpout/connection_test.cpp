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

// Serves byte i as i % 251 and records every read and write it is asked for.
class probe_conn : public ioconn {
 public:
  explicit probe_conn(int mode, long long size = 1 << 30) : mode_(mode), size_(size) {}
  void close() override {}
  bool is_open() const override { return true; }
  int get_mode() const override { return mode_; }
  int read(void* buf, int n) override {
    reads.push_back(n);
    long long k = n < size_ - pos_ ? n : size_ - pos_;
    for (long long i = 0; i < k; ++i)
      static_cast<unsigned char*>(buf)[i] = (pos_ + i) % 251;
    pos_ += k;
    return static_cast<int>(k);
  }
  int write(const void* buf, int n) override {
    writes.push_back(n);
    written.append(static_cast<const char*>(buf), n);
    return n;
  }
  long long lseek(long long off, int whence) override { return pos_ = off; }

  std::vector<int> reads, writes;
  std::string written;

 private:
  int mode_;
  long long size_;
  long long pos_ = 0;
};

// Only the pure operations: seeking falls back to the base refusal.
class probe_base : public ioconn {
 public:
  void close() override {}
  bool is_open() const override { return false; }
  int get_mode() const override { return 0; }
  int read(void*, int) override { return -1; }
  int write(const void*, int) override { return -1; }
};

bool is_pattern(const unsigned char* p, int n, long long from) {
  for (int i = 0; i < n; ++i)
    if (p[i] != (from + i) % 251) return false;
  return true;
}

}  // namespace

TEST(IoBuf, RefusesReadWriteConnectionsAndRaisesSmallSizes) {
  scratch_dir dir;
  std::string name = dir.write("f", "abc");
  iofile rw;
  ASSERT_TRUE(rw.open(name, 6, 0644));
  iobuf b;
  EXPECT_EQ("iobuf::open: IOBuffers are either READ or WRITE, not both.",
            error_of([&] { b.open(&rw, false, 65536); }));
  EXPECT_FALSE(b.open(nullptr, false, 65536));

  iofile* r = new iofile();
  ASSERT_TRUE(r->open(name, 2, 0644));
  ASSERT_TRUE(b.open(r, true, 10));
  EXPECT_EQ(1024, b.get_buffer_size());
  char got[4] = {0};
  EXPECT_EQ(3, b.read(got, 3));
  EXPECT_STREQ("abc", got);

  iofile* w = new iofile();
  ASSERT_TRUE(w->open(dir.file("g"), 100, 0644));
  ASSERT_TRUE(b.open(w, true, 65536));  // closes and deletes the reader
  EXPECT_EQ(65536, b.get_buffer_size());
}

TEST(IoBuf, LargeReadsBypassTheBuffer) {
  probe_conn* c = new probe_conn(2);
  iobuf b;
  ASSERT_TRUE(b.open(c, true, 65536));
  std::vector<unsigned char> out(200000);

  ASSERT_EQ(100000, b.read(out.data(), 100000));
  EXPECT_EQ(std::vector<int>({100000}), c->reads);
  EXPECT_TRUE(is_pattern(out.data(), 100000, 0));

  // Small read fills the buffer; a large remainder then goes straight to the caller.
  ASSERT_EQ(10, b.read(out.data(), 10));
  ASSERT_EQ(140000, b.read(out.data() + 10, 140000));
  EXPECT_EQ(std::vector<int>({100000, 65536, 74474}), c->reads);
  EXPECT_TRUE(is_pattern(out.data(), 140010, 100000));

  // A remainder that fits refills the whole buffer and hands out part of it.
  ASSERT_EQ(5, b.read(out.data(), 5));
  ASSERT_EQ(65536, b.read(out.data() + 5, 65536));
  EXPECT_EQ(std::vector<int>({100000, 65536, 74474, 65536, 65536}), c->reads);
  EXPECT_TRUE(is_pattern(out.data(), 65541, 240010));
  EXPECT_EQ(0, b.read(out.data(), 0));
}

TEST(IoBuf, WritesAreBufferedUntilFullOrClosed) {
  probe_conn* c = new probe_conn(4);
  iobuf b;
  ASSERT_TRUE(b.open(c, false, 1024));
  EXPECT_EQ(600, b.write(std::string(600, 'a').data(), 600));
  EXPECT_TRUE(c->writes.empty());
  EXPECT_EQ(600, b.tell());  // connection at 0 plus the buffered bytes
  EXPECT_EQ(600, b.write(std::string(600, 'b').data(), 600));
  EXPECT_EQ(std::vector<int>({600}), c->writes);
  EXPECT_EQ(2000, b.write(std::string(2000, 'c').data(), 2000));  // flush, then direct
  EXPECT_EQ(std::vector<int>({600, 600, 2000}), c->writes);
  b.close();
  EXPECT_EQ(std::string(600, 'a') + std::string(600, 'b') + std::string(2000, 'c'), c->written);
  delete c;
}

TEST(IoGz, SeekLimitsAndModeStrings) {
  EXPECT_EQ("wb1", iogz::zlib_mode(100, 1));
  EXPECT_EQ("rb", iogz::zlib_mode(2, -1));
  EXPECT_EQ("rb1", iogz::zlib_mode(3, 1));
  EXPECT_EQ("ab6", iogz::zlib_mode(4 | 8, 6));

  EXPECT_EQ("iogz::lseek LSEEK_END not supported", error_of([] { iogz().lseek(0, 2); }));
  EXPECT_EQ("iogz::lseek position not supported", error_of([] { iogz().lseek(0, 5); }));
  EXPECT_EQ("iogz::lseek LSEEK_END not supported", error_of([] { iogz().size(); }));
  EXPECT_EQ("lseek not available", error_of([] { probe_base().tell(); }));
}

TEST(IoFile, SeekOriginsAndFailures) {
  scratch_dir dir;
  iofile f;
  ASSERT_TRUE(f.open(dir.file("r"), 100, 0644));
  EXPECT_EQ(-1, f.lseek(0, 5));
  EXPECT_EQ(10, f.write("helloworld", 10));
  f.close();

  ASSERT_TRUE(f.open(dir.file("r"), 19, 0644));
  EXPECT_EQ(10, f.size());
  EXPECT_EQ(8, f.lseek(-2, 2));
  EXPECT_FALSE(f.eof());
  EXPECT_EQ(10, f.lseek(2, 1));
  EXPECT_TRUE(f.eof());
  EXPECT_TRUE(f.rewind());

  EXPECT_FALSE(f.open(dir.file("none"), 2, 0644));
  EXPECT_FALSE(f.is_open());
  EXPECT_EQ("iofile::size(): cannot access file size.", error_of([] { iofile().size(); }));
}

TEST(IoMem, OwnedGrowsExternalIsCut) {
  iomem m;
  ASSERT_TRUE(m.open(4));
  EXPECT_EQ(3, m.write("abc", 3));
  EXPECT_EQ(7, m.write("defghij", 7));
  EXPECT_EQ(12u, m.get_capacity());  // needed 10 plus half of the old 4
  EXPECT_EQ(10, m.size());
  EXPECT_EQ(0, std::memcmp(m.get_data(), "abcdefghij", 10));

  EXPECT_EQ(10, m.lseek(50, 0));  // clamped to size
  EXPECT_EQ(0, m.lseek(-50, 1));
  EXPECT_EQ(-1, m.lseek(0, 3));
  EXPECT_EQ(8, m.lseek(-2, 2));
  char buf[8];
  EXPECT_EQ(2, m.read(buf, 8));
  EXPECT_TRUE(m.eof());

  char area[6] = {0};
  iomem e;
  e.open(area, sizeof area, 0);
  EXPECT_EQ(4, e.write("1234", 4));
  EXPECT_EQ(2, e.write("5678", 4));
  EXPECT_EQ(6, e.size());
  EXPECT_EQ(0, std::memcmp(area, "123456", 6));
}
