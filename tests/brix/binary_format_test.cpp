// The binary table and tree files byte for byte against layouts written by hand, a table round
// trip, damaged files, and the XML and DOT outputs of small trees.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>

#include "brix/brix.h"
#include "brix/impls/model/conf_matrix.h"
#include "brix/impls/model/decision_tree.h"
#include "brix/impls/storage/column_typed.h"
#include "brix/impls/storage/table.h"
#include "brix/tree_writer.h"
#include "tests/brix/table_files.h"
#include "zel/inpout/binstream.h"

using brix::impls::column;

namespace {

// Byte strings of the binary files, written by hand item by item.
struct bytes {
  std::string s;
  template <class T>
  bytes& raw(T v) {
    s.append(reinterpret_cast<char const*>(&v), sizeof v);
    return *this;
  }
  bytes& u8(unsigned v) { return raw(static_cast<std::uint8_t>(v)); }
  bytes& u32(std::uint32_t v) { return raw(v); }
  bytes& u64(std::uint64_t v) { return raw(v); }
  bytes& f32(float v) { return raw(v); }
  bytes& f64(double v) { return raw(v); }
  // A present text: flag 1, length, characters.
  bytes& text(std::string const& t) {
    u8(1).u64(t.size());
    s += t;
    return *this;
  }
  bytes& add(bytes const& b) {
    s += b.s;
    return *this;
  }
};

// A bit column, a float continuous column with an unknown value and the class.
char const* const kNames = "windy,string,discrete\ntemp,float,continuous\nplay,string,class\n";
char const* const kData = "TRUE,1.5,yes\nFALSE,?,no\n";

// One column record: value set (type, admits null, contains null, null text,
// values), name, kind, then the rows as the caller lays them out.
bytes column_head(char const* type, bool admits, bool contains, bytes const& values,
                  char const* name, char const* kind) {
  bytes b;
  b.u8(1);                                               // column present
  b.u8(1).text(type).u8(admits).u8(contains).text("?");  // value set head
  b.add(values);                                         // view flag, count, values
  return b.text(name).text(kind);
}

// The tiny table; rows = 2 for the loaded table, 0 for a tree's metadata.
bytes table_record(std::string const& name, bool with_rows) {
  bytes windy = column_head("string", true, false, bytes().u8(1).u64(2).text("FALSE").text("TRUE"),
                            "windy", "discrete");
  bytes temp =
      column_head("float", true, true, bytes().u8(1).u64(1).f32(1.5f), "temp", "continuous");
  bytes play = column_head("string", false, false, bytes().u8(1).u64(2).text("no").text("yes"),
                           "play", "class");
  if (with_rows) {
    windy.u64(2).u32(0x1);    // bits: row 0 TRUE (order 2), row 1 FALSE (order 1)
    temp.u64(2).u8(1).u8(0);  // 1.5, then the unknown value
    play.u64(2).u8(2).u8(1);  // yes, no
  } else {
    for (bytes* c : {&windy, &temp, &play})
      c->u64(0);  // no rows, no words
  }
  bytes columns = bytes().u64(3).add(windy).add(temp).add(play);
  bytes b;
  b.u8(1).text(name);     // table present, name
  b.add(columns).u64(2);  // column list, class index
  b.add(columns);         // the list again
  // Rows, verbosity, tree rules, weights index (3: none), loaded columns, further counter.
  return b.u64(with_rows ? 2 : 0).u64(0).u8(1).u64(3).u64(3).u64(0);
}

TEST(BinaryTable, BytesOfATinyTable) {
  table_files files;
  auto t = files.loaded(kNames, kData);
  std::string path = files.file("t.bin");
  {
    zel::inpout::obinstream out(path, true, 1);
    out << static_cast<brix::impls::table const*>(t.get());
  }
  EXPECT_EQ(scratch_dir::gunzip(path), table_record("t", true).s);
}

TEST(BinaryTable, RoundTrip) {
  table_files files;
  auto t = files.loaded(
      "id,string,ignore\nwindy,string,discrete\ntemp,float,continuous\nn,integer,continuous\n"
      "big,uinteger,discrete\nd,double,discrete\nw,integer,weights\nplay,string,class\n",
      "a,TRUE,1.5,-3,18446744073709551615,0.25,2,yes\nb,FALSE,?,7,0,?,1,no\n"
      "c,TRUE,-2,?,5,1e300,3,yes\n");
  t->set_file_counter(7);
  std::string path = files.file("t.bin");
  {
    zel::inpout::obinstream out(path, true, 1);
    out << static_cast<brix::impls::table const*>(t.get());
  }
  std::unique_ptr<brix::table> facade(brix::table::fromBinary(path));
  brix::impls::table const* r = facade->get_impl();

  EXPECT_EQ(r->get_name(), "t");
  EXPECT_EQ(r->get_no_rows(), 3u);
  EXPECT_EQ(r->get_class_index(), 7u);
  EXPECT_EQ(r->get_weights_index(), 6u);
  EXPECT_EQ(r->get_loaded_columns(), 8u);
  EXPECT_EQ(r->get_file_counter(), 7u);
  // Each column as text: name, kind, storage, value set and rows.
  auto text = [](column const* c) {
    std::ostringstream out;
    out << c->get_name() << ' ' << c->get_type() << ' ' << static_cast<int>(c->get_storage()) << ' '
        << c->get_o_set()->get_datatype() << ' ' << c->get_o_set()->contains_null() << ':';
    for (unsigned long o = 0; o <= c->get_distinct(); ++o)
      out << ' ' << c->get_o_set()->get_value(o);
    out << " |";
    for (unsigned long row = 0; row < c->size(); ++row)
      out << ' ' << c->get_row_index(row);
    return out.str();
  };
  ASSERT_EQ(r->get_no_columns(), t->get_no_columns());
  for (unsigned long i = 0; i < t->get_no_columns(); ++i)
    EXPECT_EQ(text(r->get_column(i)), text(t->get_column(i)));
  EXPECT_EQ(facade->get_weight(2), 3.0f);
}

// A root split on temp (threshold 1.5) with two leaves, over the tiny
// table's metadata; the root still holds its two cases. high is added to
// the first leaf's class.
bytes tree_file(std::uint64_t high = 0) {
  bytes b;
  b.u8(1);  // a model follows
  b.u8(1);  // it has a tree
  // Root node.
  b.u64(0).u32(2).u8(0);                             // index in father, SPLIT_NODE, not activated
  b.f32(2.0f).u64(2);                                // cases weight, cases count
  b.u64(3).f32(0.0f).f32(1.0f).f32(1.0f);            // class distribution ?, no, yes
  b.f32(1.0f).u64(1);                                // known fraction, most frequent class
  b.u8(1).u64(2).u64(0).f32(1.0f).u64(1).f32(1.0f);  // cases: rows 0 and 1
  b.u32(1).f32(0.0f).u64(1);                         // split status, error, split attribute temp
  b.text("1.5").u64(2);                              // partition: threshold, branches
  b.u64(2);                                          // children
  // Leaf "yes" for temp <= 1.5, then leaf "no" for temp > 1.5.
  for (unsigned branch = 1; branch <= 2; ++branch) {
    unsigned cls = branch == 1 ? 2 : 1;
    b.u8(1);  // child present
    b.u64(branch).u32(1).u8(0).f32(1.0f).u64(1);
    b.u64(3).f32(0.0f).f32(cls == 1).f32(cls == 2);
    b.f32(1.0f).u64(cls);
    b.u8(0);                                                 // no cases
    b.u32(1).f32(0.0f).u64(cls + (branch == 1 ? high : 0));  // split status, error, leaf class
    b.u64(0);                                                // no children
  }
  b.add(table_record("t", false));  // metadata
  b.u8(1).u64(3);                   // training matrix, 3 rows: the identity but for ?
  for (int r = 0; r < 3; ++r)
    b.u64(3).f32(0).f32(r == 1).f32(r == 2);
  b.u64(3).text("?").text("no").text("yes");  // class names
  b.f64(0.5).f32(0.25f).f32(2.0f).u32(1);     // elapsed, conf level, min_obj, split type
  b.text("t").u32(2);                         // name, pruning strategy
  return b;
}

TEST(BinaryTree, ReadsAndWritesTheLayout) {
  table_files files;
  std::string in = files.gzip("in.tree", tree_file().s), out = files.file("out.tree");
  std::unique_ptr<brix::dtree> tree(brix::dtree::fromBinary(in));
  brix::impls::decision_tree const& t = *tree->get_impl();
  EXPECT_EQ(t.size(), 3u);
  EXPECT_EQ(t.get_name(), "t");
  EXPECT_EQ(t.get_pruning_strategy(), 2);
  EXPECT_EQ(t.training_n_rows(), 2u);
  auto const* root = t.get_root()->get_node();
  ASSERT_NE(root->get_all_cases(), nullptr);
  EXPECT_EQ((*root->get_all_cases())[1].first, 1u);
  EXPECT_EQ(t.get_root()->get_child(1)->get_node()->get_father(), root);
  EXPECT_EQ(tree->predict({"TRUE", "1"}), "yes");
  EXPECT_EQ(tree->predict({"TRUE", "2"}), "no");

  tree->toBinary(out);
  EXPECT_EQ(scratch_dir::gunzip(out), tree_file().s);

  std::ostringstream dot;
  tree->toDOT(dot);
  EXPECT_EQ(dot.str(),
            "digraph Brix {\n"
            "n0 [ shape=box, label=\"temp\\n\"]\n"
            "n0 -> n1 [label=\"<=1.5\"]\n"
            "n1 [ shape=ellipse, label=\"yes [0.5%,0%]\"]\n"
            "n0 -> n2 [label=\">1.5\"]\n"
            "n2 [ shape=ellipse, label=\"no [0.5%,0%]\"]\n"
            "}\n");
}

TEST(BinaryTree, RefusesRowsBeyond32Bits) {
  table_files files;
  std::string s = tree_file().s;
  // The first case's row: after the root's fixed fields and its class distribution.
  std::size_t at = s.find(std::string("\x01\x02\x00\x00\x00\x00\x00\x00\x00", 9)) + 9;
  s[at + 4] = 1;  // row 2^32
  std::string path = files.gzip("big.tree", s);
  EXPECT_EQ(error_of([&] { delete brix::dtree::fromBinary(path); }),
            "Binary tree: case row number beyond 32 bits");
  // Nodes keep classes in 32 bits: a wider one must not wrap round to a valid class.
  files.gzip("big.tree", tree_file(std::uint64_t(1) << 32).s);
  EXPECT_EQ(error_of([&] { delete brix::dtree::fromBinary(path); }),
            "Binary tree: leaf class out of range");
}

// XML model and DOT graph of a one-leaf tree over a table with a weights column and class values
// that need escaping in XML (and none in DOT).
TEST(ModelExport, OneLeafTree) {
  table_files files;
  // Three cases of weight 1 are below twice the minimum of 2: the root stays a leaf.
  auto t = files.loaded("x,integer,continuous\nw,integer,weights\nc,string,class\n",
                        "1,1,a<b\n2,1,a<b\n3,1,x\"y\n");
  brix::impls::decision_tree tree("m&m");
  tree.set_pruning_strategy(brix::impls::decision_tree::NO_PRUNING);
  tree.build_pruned(t.get(), nullptr, true, 0);
  ASSERT_EQ(tree.size(), 1u);

  std::ostringstream dot;
  brix::output_format_named("brixcmd-dot").writer->write(brix::tree_output{tree}, dot);
  EXPECT_EQ(dot.str(), "digraph Brix {\nn0 [ shape=ellipse, label=\"a<b [1%,1%]\"]\n}\n");

  brix::impls::conf_matrix empty(tree.get_metadata());
  std::ostringstream out;
  brix::output_format_named("brixcmd-xml").writer->write(brix::tree_output{tree, &empty}, out);
  std::string x = out.str();
  for (char const* line :
       {"<TreeModel modelName=\"m&amp;m\" functionName=\"classification\"",
        "<DataDictionary numberOfFields=\"3\">\n<DataField name=\"x\" optype=\"continuous\" />\n"
        "<Extender name=\"w\" value=\"weights\" />\n<DataField name=\"c\" optype=\"categorical\" "
        "/>",
        "<MiningField name=\"w\" usageType=\"active\" />\n"
        "<MiningField name=\"c\" usageType=\"predicted\" />",
        "<Node score=\"a&lt;b\" recordCount=\"3\">\n<True />\n"
        "<ScoreDistribution value=\"a&lt;b\" recordCount =\"2.000\" />\n"
        "<ScoreDistribution value=\"x\"y\" recordCount =\"1.000\" />\n</Node>",
        // Three decimals stay on for the matrices.
        "<X-ConfusionMatrixTraining x-incorrectlyInst = \"1.000\" x-incorrectlyInstPerc = "
        "\"33.333%\" x-totalInst = \"3.000\">\n<Array n=\"2\" type=\"string\">\"a&lt;b\" "
        "\"x\"y\"\n</Array>\n<Matrix>\n<Array n=\"2\" type=\"real\">\n2.000 0.000\n</Array>",
        "</X-ConfusionMatrixTest>\n</Extension>\n</TreeModel>\n</PMML>\n"}) {
    EXPECT_NE(x.find(line), std::string::npos) << line << "\nin\n" << x;
  }
  // An empty test matrix: 0/0, printed as the stream prints a NaN.
  std::size_t test = x.find("<X-ConfusionMatrixTest x-incorrectlyInst = \"");
  ASSERT_NE(test, std::string::npos);
  EXPECT_NE(x.find("nan\" x-incorrectlyInstPerc = \"", test), std::string::npos);
  EXPECT_NE(x.find("nan%\" x-totalInst = \"0.000\">", test), std::string::npos);
}

// Damaged table and tree files: every truncation must be refused, and a changed byte or a huge
// count must give a runtime error or a model that works; never a crash, a hang or a huge
// allocation (run under ASan too).

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

TEST(BinaryDamage, TableAndTreeFiles) {
  golf_files g;
  damage(g, g.table_bytes, table_reads);
  damage(g, g.tree_bytes, tree_reads);
}

TEST(BinaryDamage, ForeignFiles) {
  golf_files g;
  std::string plain = g.files.write("plain", g.tree_bytes);  // not compressed: read as it is
  for (std::string const& f : {g.files.write("empty", ""), g.files.write("text", "a,b\n")}) {
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
