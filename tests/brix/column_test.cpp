#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "brix/impls/learning/partition.h"
#include "brix/impls/learning/split_search.h"
#include "brix/impls/storage/column.h"
#include "brix/impls/storage/column_typed.h"
#include "brix/impls/storage/o_set.h"
#include "brix/impls/storage/storage_width.h"
#include "tests/brix/table_files.h"

using brix::impls::column;
using brix::impls::o_set;
using brix::impls::order_range;
using brix::impls::partition_desc;
using brix::impls::split_scratch;
using brix::impls::storage_kind;
using brix::impls::w_case;
using brix::impls::w_sequence;

namespace {

// A value set of the given type holding values "v0".."v{k-1}" (or 0..k-1 for
// numbers), plus the null when asked.
o_set* set_of(std::string const& type, unsigned long k, bool with_null = false,
              bool admits_null = true) {
  o_set* s = o_set::NEW_O_SET(type, admits_null, "?");
  for (unsigned long i = 0; i < k; ++i) {
    std::string v = type == "string" ? "v" + std::to_string(i) : std::to_string(i);
    s->insert(v.c_str());
  }
  if (with_null) s->insert("?");
  return s;
}

// The storage the factory picks for a kind over a value set.
storage_kind storage_for(std::string const& kind, o_set* values) {
  std::string error;
  std::unique_ptr<column> c(column::NEW_COLUMN(values, "c", kind, error));
  EXPECT_TRUE(c) << error;
  return c ? c->get_storage() : storage_kind::none;
}

// The error text of a refused column.
std::string refusal(o_set* values, std::string const& name, std::string const& kind) {
  std::unique_ptr<o_set> own(values);
  std::string error;
  std::unique_ptr<column> c(column::NEW_COLUMN(values, name, kind, error));
  EXPECT_EQ(c, nullptr);
  return error;
}

TEST(Column, FactoryErrorsAndStorageWidth) {
  std::string error;
  EXPECT_EQ(column::NEW_COLUMN(nullptr, "x", "discrete", error), nullptr);
  EXPECT_EQ(error, "No set of values provided");
  EXPECT_EQ(refusal(set_of("float", 2, true), "w", "weights"),
            "Weights column 'w' does not admit unknown values");
  EXPECT_EQ(refusal(set_of("string", 2, true), "play", "class"),
            "Class column 'play' does not admit unknown values");
  EXPECT_EQ(refusal(set_of("null", 0), "n", "class"),
            "Null set of column values can only be used for ignore column type");
  EXPECT_EQ(storage_for("ignore", set_of("null", 0)), storage_kind::none);
  // Two known values: one bit per row only for discrete columns without unknowns.
  EXPECT_EQ(storage_for("discrete", set_of("string", 2)), storage_kind::bit);
  EXPECT_EQ(storage_for("discrete", set_of("string", 1)), storage_kind::bit);
  EXPECT_EQ(storage_for("discrete", set_of("string", 2, true)), storage_kind::u8);
  EXPECT_EQ(storage_for("discrete", set_of("string", 3)), storage_kind::u8);
  EXPECT_EQ(storage_for("class", set_of("string", 2, false, false)), storage_kind::u8);
  EXPECT_EQ(storage_for("continuous", set_of("integer", 2)), storage_kind::u8);
  // Each width stops one below its largest value.
  EXPECT_EQ(storage_for("discrete", set_of("integer", 254, true)), storage_kind::u8);
  EXPECT_EQ(storage_for("discrete", set_of("integer", 255)), storage_kind::u16);
  EXPECT_EQ(storage_for("continuous", set_of("integer", 65534)), storage_kind::u16);
  EXPECT_EQ(storage_for("continuous", set_of("integer", 65535)), storage_kind::u32);
  // The loaders' provisional ids widen at the same counts, keeping earlier ids.
  brix::impls::id_buffer ids;
  for (auto [id, width] : {std::pair{254u, 1u}, {255u, 2u}, {65534u, 2u}, {65535u, 4u}}) {
    ids.push_back(id);
    EXPECT_EQ(ids.width(), width) << id;
  }
  EXPECT_EQ(ids.u32(), (std::vector<std::uint32_t>{254, 255, 65534, 65535}));
  EXPECT_EQ(brix::impls::width_for(4294967294UL), 4u);
  EXPECT_EQ(brix::impls::width_for(4294967295UL), 8u);
}

TEST(Column, PushBackLookupsAndDeepCopies) {
  std::string error;
  std::unique_ptr<column> bytes(
      column::NEW_COLUMN(set_of("integer", 3, true), "n", "continuous", error));
  for (char const* v : {"2", "?", "0"})
    bytes->push_back(v);
  EXPECT_EQ(bytes->get_row_value(1), "?");
  EXPECT_EQ(bytes->size(), 3u);
  EXPECT_EQ(bytes->get_index("9"), 0u);
  EXPECT_EQ(bytes->get_range(), order_range(1, 4));

  // A copy with or without rows, on its own value set.
  std::unique_ptr<column> full(bytes->clone(false)), bare(bytes->clone(true));
  EXPECT_EQ(full->get_value(0), "2");
  EXPECT_EQ(bare->size(), 0u);
  bare->get_o_set()->insert("9");
  EXPECT_EQ(bare->get_distinct(), 4u);
  EXPECT_EQ(bytes->get_distinct(), 3u);
}

using case_list = std::vector<std::pair<unsigned, float>>;

// Cases of a node, given as (row, weight).
w_sequence cases_of(case_list const& given) {
  w_sequence s;
  for (auto const& c : given)
    s.push_back(c.first, c.second);
  return s;
}

case_list pairs_of(w_sequence const& s) {
  case_list out;
  for (w_case const& c : s)
    out.emplace_back(c.first, c.second);
  return out;
}

// One branch of a partition: its cases, its share of the unknown cases and its range of orders.
struct branch {
  case_list got;
  float share;
  order_range range;
};

branch part(column const& c, w_sequence const& all, unsigned long b, float total,
            partition_desc const& desc) {
  branch out{{}, -1, {}};
  std::unique_ptr<w_sequence> s(partition_branch(c, all.data(), all.data() + all.size(), b, total,
                                                 out.share, out.range, desc));
  out.got = pairs_of(*s);
  return out;
}

void expect_branch(branch const& b, case_list const& got, float share, order_range range) {
  EXPECT_EQ(b.got, got);
  EXPECT_EQ(b.share, share);
  EXPECT_EQ(b.range, range);
}

TEST(Partition, ContinuousAndDiscrete) {
  // x: 1 2 ? 3 4 ? (orders 1 2 0 3 4 0); y: a b ? a c b (orders 1 2 0 1 3 2).
  table_files files;
  auto t = files.loaded("x,integer,continuous\ny,string,discrete\nc,string,class\n",
                        "1,a,y\n2,b,n\n?,?,y\n3,a,n\n4,c,y\n?,b,n\n");
  column const& x = *t->get_column(0);
  column const& y = *t->get_column(1);
  w_sequence all = cases_of({{0, 1.0f}, {1, 2.0f}, {2, 0.5f}, {3, 1.0f}, {4, 3.0f}, {5, 1.5f}});
  partition_desc const at2{"2", 2, {}};
  // Branch 1 counts the unknown cases in its own weight (5 / 9), branch 2 leaves them out
  // (4 / (9 - 2)).
  float s1 = 5.0f / 9.0f, s2 = 4.0f / 7.0f;
  expect_branch(part(x, all, 1, 9.0f, at2), {{0, 1}, {1, 2}, {2, s1 * 0.5f}, {5, s1 * 1.5f}}, s1,
                {0, 3});
  expect_branch(part(x, all, 2, 9.0f, at2), {{2, s2 * 0.5f}, {3, 1}, {4, 3}, {5, s2 * 1.5f}}, s2,
                {0, 5});
  // Without unknowns both ranges start from the threshold's order.
  w_sequence known = cases_of({{3, 1.0f}, {0, 1.0f}, {4, 3.0f}});
  expect_branch(part(x, known, 1, 5.0f, at2), {{0, 1}}, 1.0f / 5.0f, {1, 3});
  expect_branch(part(x, known, 2, 5.0f, at2), {{3, 1}, {4, 3}}, 4.0f / 5.0f, {2, 5});
  // A branch number other than 1 and 2 keeps the unknown cases only, with share 0.
  branch other = part(x, all, 3, 9.0f, at2);
  EXPECT_EQ(other.got, (case_list{{2, 0}, {5, 0}}));
  EXPECT_EQ(other.share, 0.0f);

  // Discrete, branch a (order 1): 4 of the 7.5 known weight.
  w_sequence d = cases_of({{0, 1.0f}, {1, 2.0f}, {2, 1.0f}, {3, 3.0f}, {4, 0.5f}, {5, 1.0f}});
  partition_desc const three{"?", 3, {}};
  float sa = 4.0f / 7.5f;
  expect_branch(part(y, d, 1, 8.5f, three), {{0, 1}, {2, sa}, {3, 3}}, sa, {1, 2});
  expect_branch(part(y, d, 3, 8.5f, three), {{2, 0.5f / 7.5f}, {4, 0.5f}}, 0.5f / 7.5f, {3, 4});

  // Columns that take no part in splits refuse.
  auto w = files.loaded("w,float,weights\ni,string,ignore\nc,string,class\n", "1,a,y\n");
  EXPECT_EQ(error_of([&] { part(*w->get_column(0), {}, 1, 1.0f, three); }),
            "[column::partition] method not defined for column type 'weights'");
}

// partition_all must give, branch by branch, exactly what partition_branch gives. One scratch
// serves every call, over case sequences of different sizes.
void expect_same_as_partition(column const& c, w_sequence const& all, float total,
                              partition_desc const& desc) {
  static split_scratch scratch;
  std::vector<w_sequence*> children;
  std::vector<float> shares;
  std::vector<order_range> ranges;
  partition_all(c, all.data(), all.data() + all.size(), total, desc, scratch, children, shares,
                ranges);
  ASSERT_EQ(children.size(), c.is_continuous() ? 2u : c.get_distinct());
  for (std::size_t i = 0; i < children.size(); ++i) {
    std::unique_ptr<w_sequence> at_once(children[i]);
    branch one = part(c, all, i + 1, total, desc);
    EXPECT_EQ(std::memcmp(&one.share, &shares[i], sizeof(float)), 0) << "branch " << i + 1;
    EXPECT_EQ(one.range, ranges[i]) << "branch " << i + 1;
    EXPECT_EQ(one.got, pairs_of(*at_once)) << "branch " << i + 1;
  }
}

TEST(Partition, AllBranchesAtOnceMatchOneByOne) {
  // A table with unknown values and odd weights, every storage width that splits.
  std::mt19937 gen(7);
  std::string data;
  for (int r = 0; r < 3000; ++r) {
    int x = static_cast<int>(gen() % 400);
    data += (gen() % 9 == 0 ? std::string("?") : std::to_string(x)) + ",";
    data += std::string(1, static_cast<char>('a' + gen() % 5)) + ",";
    data += std::string(gen() % 2 ? "p" : "q") + ",";
    data += std::string(gen() % 2 ? "yes" : "no") + "\n";
  }
  table_files files;
  auto big = files.loaded(
      "x,integer,continuous\nd,string,discrete\nb,string,discrete\nc,string,class\n", data);
  ASSERT_EQ(big->get_column(0)->get_storage(), storage_kind::u16);
  ASSERT_EQ(big->get_column(2)->get_storage(), storage_kind::bit);
  w_sequence cases;
  float total = 0;
  for (unsigned r = 0; r < 3000; r += 1 + gen() % 3) {
    float w = 0.1f + static_cast<float>(gen() % 1000) / 337.0f;
    cases.push_back(r, w);
    total += w;
  }
  for (char const* t : {"0", "57", "199", "399"}) {
    expect_same_as_partition(*big->get_column(0), cases, total, {t, 2, {}});
  }
  for (unsigned long i = 1; i <= 3; ++i)
    expect_same_as_partition(*big->get_column(i), cases, total, {"?", 0, {}});
}

}  // namespace
