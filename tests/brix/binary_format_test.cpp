// The binary table and tree files byte for byte against layouts written by
// hand, and a table round trip.
#include <gtest/gtest.h>

#include <memory>
#include <sstream>
#include <string>

#include "brix/brix.h"
#include "brix/impls/column_typed.h"
#include "brix/impls/conf_matrix.h"
#include "brix/impls/decision_tree.h"
#include "brix/impls/table.h"
#include "tests/brix/binary_bytes.h"
#include "tests/brix/table_files.h"
#include "zel/inpout/binstream.h"

using brix::impls::column;
using brix::impls::storage_kind;

namespace {

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
    windy.u64(0);  // no rows, no words
    temp.u64(0);
    play.u64(0);
  }
  bytes columns = bytes().u64(3).add(windy).add(temp).add(play);
  bytes b;
  b.u8(1).text(name);       // table present, name
  b.add(columns).u64(2);    // column list, class index
  b.add(columns);           // the list again
  b.u64(with_rows ? 2 : 0)  // rows
      .u64(0)               // verbosity
      .u8(1)                // tree rules
      .u64(3)               // weights index: none
      .u64(3)               // loaded columns
      .u64(0);              // further counter
  return b;
}

TEST(BinaryTable, BytesOfATinyTable) {
  table_files files;
  auto t = files.loaded(kNames, kData);
  std::string path = files.path("t.bin");
  {
    zel::inpout::obinstream out(path, true, 1);
    out << static_cast<brix::impls::table const*>(t.get());
  }
  EXPECT_EQ(gunzip_file(path), table_record("t", true).s);
}

TEST(BinaryTable, RoundTrip) {
  table_files files;
  auto t = files.loaded(
      "id,string,ignore\nwindy,string,discrete\ntemp,float,continuous\nn,integer,continuous\n"
      "big,uinteger,discrete\nd,double,discrete\nw,integer,weights\nplay,string,class\n",
      "a,TRUE,1.5,-3,18446744073709551615,0.25,2,yes\nb,FALSE,?,7,0,?,1,no\n"
      "c,TRUE,-2,?,5,1e300,3,yes\n");
  t->set_file_counter(7);
  std::string path = files.path("t.bin");
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
  EXPECT_EQ(r->get_no_attributes(), t->get_no_attributes());
  ASSERT_EQ(r->get_no_columns(), t->get_no_columns());
  for (unsigned long i = 0; i < t->get_no_columns(); ++i) {
    column const* a = t->get_column(i);
    column const* b = r->get_column(i);
    SCOPED_TRACE(a->get_name());
    EXPECT_EQ(b->get_name(), a->get_name());
    EXPECT_EQ(b->get_type(), a->get_type());
    EXPECT_EQ(b->get_storage(), a->get_storage());
    EXPECT_EQ(b->get_o_set()->get_datatype(), a->get_o_set()->get_datatype());
    EXPECT_EQ(b->get_o_set()->contains_null(), a->get_o_set()->contains_null());
    ASSERT_EQ(b->get_distinct(), a->get_distinct());
    for (unsigned long o = 0; o <= a->get_distinct(); ++o) {
      EXPECT_EQ(b->get_o_set()->get_value(o), a->get_o_set()->get_value(o));
    }
    ASSERT_EQ(b->size(), a->size());
    for (unsigned long row = 0; row < a->size(); ++row) {
      EXPECT_EQ(b->get_row_index(row), a->get_row_index(row));
    }
  }
  EXPECT_EQ(r->get_column(1)->get_storage(), storage_kind::bit);
  EXPECT_EQ(r->get_column(2)->get_row_index(1), 0u);  // the unknown value keeps order 0
  EXPECT_EQ(facade->get_weight(2), 3.0f);
}

// A root split on temp (threshold 1.5) with two leaves, over the tiny
// table's metadata; the root still holds its two cases.
bytes tree_file() {
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
    b.u8(0);                      // no cases
    b.u32(1).f32(0.0f).u64(cls);  // split status, error, leaf class
    b.u64(0);                     // no children
  }
  b.add(table_record("t", false));  // metadata
  b.u8(1).u64(3);                   // training matrix, 3 rows
  b.u64(3).f32(0).f32(0).f32(0);
  b.u64(3).f32(0).f32(1).f32(0);
  b.u64(3).f32(0).f32(0).f32(1);
  b.u64(3).text("?").text("no").text("yes");  // class names
  b.f64(0.5).f32(0.25f).f32(2.0f).u32(1);     // elapsed, conf level, min_obj, split type
  b.text("t").u32(2);                         // name, pruning strategy
  return b;
}

TEST(BinaryTree, ReadsAndWritesTheLayout) {
  table_files files;
  std::string in = files.path("in.tree"), out = files.path("out.tree");
  gzip_file(in, tree_file().s);
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
  EXPECT_EQ(gunzip_file(out), tree_file().s);

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
  std::string path = files.path("big.tree");
  gzip_file(path, s);
  EXPECT_EQ(error_of([&] { delete brix::dtree::fromBinary(path); }),
            "Binary tree: case row number beyond 32 bits");
}

}  // namespace
