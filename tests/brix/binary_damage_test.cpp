// Damaged table and tree files: every truncation must be refused, and a
// changed byte or a huge count must give a runtime error or a model that
// works; never a crash, a hang or a huge allocation (run under ASan too).
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>

#include "brix/brix.h"
#include "tests/brix/table_files.h"

namespace {

std::string const kGolf = kExamples + "golf";

struct golf_files {
  table_files files;
  std::string table_bytes, tree_bytes;
  golf_files() {
    auto t = stem_table(kGolf);
    t->toBinary(files.file("golf.bin"));
    brix::dtree tree("golf");
    tree.build(t.get(), nullptr, true, 0);
    tree.toBinary(files.file("golf.tree"));
    table_bytes = scratch_dir::gunzip(files.file("golf.bin"));
    tree_bytes = scratch_dir::gunzip(files.file("golf.tree"));
  }
};

// Reads the content as a table file; what reads back must also grow a tree.
bool table_reads(golf_files& g, std::string const& content) {
  std::string path = g.files.gzip("damaged.bin", content);
  std::unique_ptr<brix::table> t;
  if (!error_of([&] { t.reset(brix::table::fromBinary(path)); }).empty()) return false;
  brix::dtree tree("x");
  error_of([&] { tree.build(t.get(), nullptr, true, 0); });
  return true;
}

// Reads the content as a tree file; what reads back is put through every output.
bool tree_reads(golf_files& g, std::string const& content) {
  std::string path = g.files.gzip("damaged.tree", content);
  std::unique_ptr<brix::dtree> tree;
  if (!error_of([&] { tree.reset(brix::dtree::fromBinary(path)); }).empty()) return false;
  std::ostringstream out;
  tree->toDOT(out);
  tree->toTEXT(out);
  std::unique_ptr<brix::conf_matrix> m;
  error_of([&] { m.reset(tree->predict(brix::datasource("FILE#" + kGolf + ".data#,"))); });
  tree->toXML(out, m.get());
  error_of([&] { tree->evaluate(brix::datasource("FILE#" + kGolf + ".data#,"), out, ','); });
  return true;
}

template <class Read>
void damage(golf_files& g, std::string const& good, Read read) {
  ASSERT_TRUE(read(g, good));
  for (std::size_t n = 0; n < good.size(); ++n) {
    EXPECT_FALSE(read(g, good.substr(0, n))) << "truncated at " << n;
  }
  // One flip per byte: the fuzz harnesses explore other damage far more widely.
  for (std::size_t at = 0; at < good.size(); ++at) {
    std::string s = good;
    s[at] = static_cast<char>(~s[at]);
    read(g, s);
  }
  std::uint64_t huge = std::uint64_t(1) << 60;
  for (std::size_t at = 0; at + 8 <= good.size(); ++at) {
    std::string s = good;
    std::memcpy(&s[at], &huge, 8);
    read(g, s);
  }
}

TEST(BinaryDamage, TableFile) {
  golf_files g;
  damage(g, g.table_bytes, table_reads);
}

TEST(BinaryDamage, TreeFile) {
  golf_files g;
  damage(g, g.tree_bytes, tree_reads);
}

TEST(BinaryDamage, ForeignFiles) {
  golf_files g;
  std::string empty = g.files.write("empty", "");
  std::string text = g.files.write("text", "outlook,string,discrete\n");
  std::string plain = g.files.write("plain", g.tree_bytes);  // not compressed: read as it is
  for (std::string const& f : {empty, text}) {
    EXPECT_NE(error_of([&] { delete brix::table::fromBinary(f); }), "") << f;
    EXPECT_NE(error_of([&] { delete brix::dtree::fromBinary(f); }), "") << f;
  }
  EXPECT_EQ(error_of([&] { delete brix::dtree::fromBinary(plain); }), "");
  // A tree file is no table file, and the other way round.
  EXPECT_NE(error_of([&] { delete brix::table::fromBinary(g.files.file("golf.tree")); }), "");
  EXPECT_NE(error_of([&] { delete brix::dtree::fromBinary(g.files.file("golf.bin")); }), "");
  // Bytes after the record.
  std::string longer = g.files.gzip("long.tree", g.tree_bytes + "x");
  EXPECT_NE(error_of([&] { delete brix::dtree::fromBinary(longer); }), "");
}

}  // namespace
