#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <memory>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "tests/zel/inpout/scratch_dir.h"
#include "zel/inpout/iobuf.h"
#include "zel/inpout/iofile.h"
#include "zel/inpout/iogz.h"
#include "zel/inpout/iomem.h"
#include "zel/inpout/stream.h"

using zel::inpout::iobuf;
using zel::inpout::iofile;
using zel::inpout::iogz;
using zel::inpout::iomem;
using zel::inpout::stream;

namespace {

std::vector<std::string> all_lines(stream& s) {
  std::vector<std::string> out;
  while (s.read_line())
    out.push_back(s.get_line());
  return out;
}

// Lines of text read through a memory connection with the given buffer size.
std::vector<std::string> lines_of(std::string text, int bufsize = 16384) {
  iomem* m = new iomem();
  m->open(&text[0], text.size(), text.size());
  stream s(m, true, ',', bufsize);
  return all_lines(s);
}

// The line rules, stated independently: LF ends a line and a CR just before it goes too;
// trailing bytes without LF form a last line as they stand.
std::vector<std::string> reference_lines(const std::string& text) {
  std::vector<std::string> out;
  size_t from = 0;
  for (size_t lf; (lf = text.find('\n', from)) != std::string::npos; from = lf + 1) {
    size_t end = (lf > from && text[lf - 1] == '\r') ? lf - 1 : lf;
    out.push_back(text.substr(from, end - from));
  }
  if (from < text.size()) out.push_back(text.substr(from));
  return out;
}

std::string thrown_by(const std::string& source) {
  return error_of([&] { delete stream::FROM_READER(source); });
}

using lines = std::vector<std::string>;

}  // namespace

TEST(Stream, LineEndings) {
  EXPECT_EQ(lines({"a,b", "c,d"}), lines_of("a,b\r\nc,d"));
  EXPECT_EQ(lines({"a\r"}), lines_of("a\r"));  // no LF: the CR stays
  EXPECT_EQ(lines({"a", "", "", "b\rc"}), lines_of("a\n\r\n\nb\rc\n"));
  EXPECT_EQ(lines({"x"}), lines_of("x\n"));  // no empty line after the last LF
  EXPECT_EQ(lines({"\r"}), lines_of("\r\r\n"));
  EXPECT_EQ(lines(), lines_of(""));
}

TEST(Stream, RandomTextAgreesWithTheLineRulesAtAnyBufferSize) {
  std::mt19937 rng(7);
  // Dense line ends, and sparser ones so that lines (the last one without LF too) span several
  // 16 and 64-byte blocks and outgrow the smaller buffers, which must then grow.
  const std::string alphabets[] = {"ab,\r\n", "ab,\rcdefg\n", "ab,\rcdefghijklmnopqrstuvwxyz\n"};
  for (int round = 0; round < 300; ++round) {
    const std::string& alphabet = alphabets[round % 3];
    std::string text;
    int len = static_cast<int>(rng() % 400);
    for (int i = 0; i < len; ++i)
      text += alphabet[rng() % alphabet.size()];
    for (int bufsize : {1, 2, 3, 5, 8, 63, 64, 65, 100, 16384}) {
      ASSERT_EQ(reference_lines(text), lines_of(text, bufsize))
          << "buffer " << bufsize << " text " << ::testing::PrintToString(text);
    }
  }
}

TEST(Stream, GzipMembersGiveTheLinesOfTheirText) {
  scratch_dir dir;
  std::string text;
  std::mt19937 rng(11);
  for (int i = 0; i < 30000; ++i) {
    text += std::to_string(rng() % 100000) + "," + std::string(rng() % 40, 'v') + ",c" +
            std::to_string(i % 3) + ((i % 5 == 0) ? "\r\n" : "\n");
  }
  text += "last,,";
  // Two members read one after another, the first far longer than the last trailer's length;
  // over 2 MiB, so that a rewind returns to bytes already given back.
  std::string three = text + "\n" + text + "\n" + text;
  std::string members = dir.read(dir.gzip("a.gz", three)) + dir.read(dir.gzip("b.gz", "\nend\n"));
  std::unique_ptr<stream> b(stream::FROM_FILE(dir.write("m.data.gz", members), ','));
  lines lm = all_lines(*b);
  ASSERT_EQ(90004u, lm.size());
  EXPECT_EQ(reference_lines(three + "\nend\n"), lm);
  ASSERT_TRUE(b->rewind());
  ASSERT_TRUE(b->read_line());
  EXPECT_EQ(lm[0], b->get_line());

  // A trailer whose length lies, up or down, is refused in zlib's words, as before.
  for (std::uint32_t lie : {1u, 0xFFFFFFF0u}) {
    std::string bad = members;
    std::memcpy(&bad[bad.size() - 4], &lie, 4);
    b.reset(stream::FROM_FILE(dir.write("bad.data.gz", bad), ','));
    EXPECT_EQ("File " + dir.file("bad.data.gz") +
                  ": truncated or corrupt compressed data (incorrect length check)",
              error_of([&] { all_lines(*b); }));
  }
}

namespace {

// What a stream over a damaged gzip file reads before it fails: its lines and the message.
std::pair<std::size_t, std::string> lines_and_error(stream* s) {
  std::unique_ptr<stream> owned(s);
  std::size_t n = 0;
  std::string error = error_of([&] {
    while (owned->read_line())
      ++n;
  });
  return {n, error};
}

}  // namespace

// Streams inflate ahead on a second thread. A reader that stops early stops it, and a damaged
// file reads as through zlib alone: the same lines, then the same message, also after lines
// longer than zlib's buffer (read past it) and in either member.
TEST(Stream, GzipReadAheadStopsEarlyAndFailsWhereZlibDoes) {
  scratch_dir dir;
  std::mt19937 rng(5);
  std::string text;
  while (text.size() < (6u << 20))
    text += std::to_string(rng()) + ",abc\n";
  text.insert(text.size() * 3 / 4, std::string(600 << 10, 'w') + "\n");
  std::string first = dir.read(dir.gzip("a.gz", text.substr(0, text.size() / 2)));
  std::string gz = first + dir.read(dir.gzip("b.gz", text.substr(text.size() / 2)));
  {
    std::unique_ptr<stream> s(stream::FROM_FILE(dir.write("t.data.gz", gz), ','));
    ASSERT_TRUE(s->read_line());
  }
  std::vector<std::string> damaged;
  for (std::size_t at : {gz.size() / 5, first.size(), gz.size() * 9 / 10, gz.size() - 9}) {
    damaged.push_back(gz.substr(0, at));
    damaged.push_back(gz);
    damaged.back()[at] ^= 0x55;
  }
  for (std::string const& bad : damaged) {
    std::string name = dir.write("d.data.gz", bad);
    auto* z = new iogz();
    ASSERT_TRUE(z->open(name, iogz::READ, -1, 0));
    EXPECT_EQ(lines_and_error(new stream(z, true, ',', stream::DEFAULT_BUFFER)),
              lines_and_error(stream::FROM_FILE(name, ',')));
  }
}

TEST(Stream, DataSourceDescriptors) {
  scratch_dir dir;
  std::string name = dir.write("train.data", "a;b\n");
  std::unique_ptr<stream> s(stream::FROM_READER("FILE#" + name + "#;"));
  EXPECT_EQ(';', s->get_delim());
  ASSERT_TRUE(s->read_line());
  EXPECT_STREQ("a", s->tokenizer.next());

  s.reset(stream::FROM_READER("FILE#" + name + "#"));
  EXPECT_EQ('\0', s->get_delim());
  ASSERT_TRUE(s->read_line());
  EXPECT_STREQ("a;b", s->tokenizer.next());

  EXPECT_EQ("Unknown data source: NET#x", thrown_by("NET#x"));
  EXPECT_EQ("Unknown data source: FILEX#" + name + "#,", thrown_by("FILEX#" + name + "#,"));
  EXPECT_EQ("JDBC zel server not available", thrown_by("JDBC#db#select"));
  std::string missing = dir.file("data");
  EXPECT_EQ("File: " + missing + " not found or inaccessible", thrown_by("FILE#" + missing + "#,"));
  EXPECT_EQ("File: " + missing + ".GZ not found or inaccessible",
            thrown_by("FILE#" + missing + ".GZ#,"));

  // A missing gzip file reads as empty.
  s.reset(stream::FROM_READER("FILE#" + missing + ".gz#,"));
  EXPECT_FALSE(s->read_line());

  // Only a ".gz" suffix after at least one more character selects gzip.
  std::string upper = dir.write("t.GZ", "p,q\n");
  s.reset(stream::FROM_FILE(upper, ','));
  ASSERT_TRUE(s->read_line());
  EXPECT_STREQ("p,q", s->get_line());
  EXPECT_EQ("File: gz not found or inaccessible", thrown_by("FILE#gz#,"));
}

// The connections below the streams: the bytes they carry are checked through the streams; here
// what the streams cannot show.
TEST(IoConnections, RefusalsAndBounds) {
  scratch_dir dir;
  iofile rw;
  ASSERT_TRUE(rw.open(dir.write("f", "abc"), 6, 0644));
  iobuf b;
  EXPECT_EQ("iobuf::open: IOBuffers are either READ or WRITE, not both.",
            error_of([&] { b.open(&rw, false, 65536); }));
  EXPECT_FALSE(b.open(nullptr, false, 65536));
  EXPECT_EQ("iogz::lseek LSEEK_END not supported", error_of([] { iogz().lseek(0, 2); }));

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
