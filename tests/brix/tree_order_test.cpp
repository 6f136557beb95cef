// Growing keeps nodes below the root in row order when no sum can depend on
// the order of cases; the tree, and the root's final order kept with the
// model, must be exactly those of sorting every node in place.
#include <gtest/gtest.h>

#include <random>
#include <sstream>
#include <string>

#include "brix/impls/decision_tree.h"
#include "brix/impls/entropy.h"
#include "tests/brix/table_files.h"

namespace brix {
namespace impls {
namespace {

struct grown {
  std::string text;
  std::vector<w_case> root_order;
};

grown grow(table* t, bool any_order, int workers) {
  std::unique_ptr<w_sequence> cases(t->get_wsubset_all());
  xlogx_table logs(t->get_no_rows());
  options opts;
  opts.logs = &logs;
  opts.any_order = any_order;
  _decision_tree tree;
  tree.build(t, cases.get(), 1, &opts, 2.0f, workers);
  std::unique_ptr<table> meta(t->clone_metadata());
  std::ostringstream out;
  tree.toTEXT(meta.get(), out, 0);
  return grown{out.str(), cases->cases()};
}

TEST(TreeOrder, RowOrderBelowTheRootGrowsTheSameTree) {
  // Dense and sparse continuous attributes (both sorts and the tally search
  // run), a discrete one, and classes that depend on all of them with noise.
  std::mt19937 gen(11);
  std::ostringstream data;
  for (int r = 0; r < 4000; ++r) {
    int a = static_cast<int>(gen() % 50000), b = static_cast<int>(gen() % 40);
    float c = static_cast<float>(gen() % 2000) / 8.0f;
    char const* d = (gen() % 3 == 0) ? "x" : (gen() % 2 ? "y" : "z");
    bool cls = (a < 20000 && b > 10) || (c > 150.0f && d[0] != 'x');
    if (gen() % 10 == 0) cls = !cls;
    data << a << ',' << b << ',' << c << ',' << d << ',' << (cls ? "p" : "n") << '\n';
  }
  table_files files;
  auto t = files.loaded(
      "a,integer,continuous\nb,integer,continuous\nc,float,continuous\nd,string,discrete\n"
      "k,string,class\n",
      data.str());
  grown in_place = grow(t.get(), false, 0);
  EXPECT_GT(in_place.text.size(), 500u);
  for (int workers : {0, 1, 2}) {
    grown rows = grow(t.get(), true, workers);
    EXPECT_EQ(rows.text, in_place.text) << workers << " workers";
    ASSERT_EQ(rows.root_order.size(), in_place.root_order.size());
    for (std::size_t i = 0; i < rows.root_order.size(); ++i) {
      ASSERT_EQ(rows.root_order[i].first, in_place.root_order[i].first) << i;
    }
  }
}

TEST(TreeOrder, MoreWorkersThanTheFarmTakesAreRefused) {
  table_files files;
  auto t = files.loaded("a,integer,continuous\nk,string,class\n", "1,p\n2,p\n3,n\n4,n\n5,p\n6,n\n");
  decision_tree d("d");
  try {
    d.build_pruned(t.get(), nullptr, true, 65);
    ADD_FAILURE() << "65 workers accepted";
  } catch (std::runtime_error const& e) {
    EXPECT_STREQ(e.what(), "FARM, try to add too many workers, please increase max_nworkers");
  }
  d.build_pruned(t.get(), nullptr, true, 64);
  EXPECT_GE(d.size(), 1u);
}

}  // namespace
}  // namespace impls
}  // namespace brix
