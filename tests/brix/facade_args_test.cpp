// Bad arguments to the public classes throw errors the caller can catch instead of reading out of
// bounds.
#include <gtest/gtest.h>

#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "brix/brix.h"
#include "tests/zel/inpout/scratch_dir.h"

namespace {

std::string const kGolf = std::string(BRIX_TEST_DATA) + "/../../examples/golf";

std::unique_ptr<brix::table> golf(bool with_rows = true) {
  auto t = std::make_unique<brix::table>("golf");
  t->load_meta_data(brix::datasource("FILE#" + kGolf + ".names#,"));
  if (with_rows) t->load_data(brix::datasource("FILE#" + kGolf + ".data#,"), "?");
  return t;
}

template <class F>
std::string thrown_by(F f) {
  try {
    f();
  } catch (std::runtime_error const& e) {
    return e.what();
  }
  return "(nothing thrown)";
}

TEST(FacadeArguments, TreeCallsRefuseValuesAndRowsThatDoNotFit) {
  auto t = golf();
  brix::dtree tree("golf");
  EXPECT_EQ("[brix::dtree::predict] the tree has not been built",
            thrown_by([&] { tree.predict(std::vector<std::string>{"sunny"}); }));
  tree.build(t.get(), nullptr, true, 0);
  EXPECT_EQ("[brix::dtree::predict] 1 values given for 4 attributes",
            thrown_by([&] { tree.predict(std::vector<std::string>{"sunny"}); }));
  EXPECT_EQ("no", tree.predict(std::vector<std::string>{"sunny", "85", "85", "FALSE"}));
  EXPECT_EQ("[brix::dtree::predict] row 14 out of range (14)",
            thrown_by([&] { tree.predict(t.get(), 14, 1.0f); }));

  brix::table::subset bad;
  bad.push_back(99, 1.0f);
  EXPECT_EQ("[brix::dtree::predict] case row 99 out of range (14)",
            thrown_by([&] { delete tree.predict(t.get(), &bad); }));
  brix::dtree other("other");
  EXPECT_EQ("[brix::dtree::build] case row 99 out of range (14)",
            thrown_by([&] { other.build(t.get(), &bad, true, 0); }));
  EXPECT_EQ("[brix::dtree::build] no table given",
            thrown_by([&] { other.build(nullptr, nullptr, true, 0); }));
  EXPECT_EQ("[brix::table::subset::get] position 1 out of range (1)",
            thrown_by([&] { bad.get(1); }));

  std::unique_ptr<brix::conf_matrix> m(tree.get_prediction());
  EXPECT_EQ("[brix::conf_matrix::get_element] cell (0, 3) out of range",
            thrown_by([&] { m->get_element(0, 3); }));
}

class FacadeFiles : public ::testing::Test, public scratch_dir {};

TEST_F(FacadeFiles, TableWithoutRowsOrClassRefusesRowQueries) {
  std::string bin = file("meta.bin");
  golf(false)->toBinary(bin);
  std::unique_ptr<brix::table> t(brix::table::fromBinary(bin));
  EXPECT_EQ("[brix::table::get_class] the table has no class column",
            thrown_by([&] { t->get_class(0); }));
  EXPECT_EQ("[brix::table::get_weight] row 0 out of range (0)",
            thrown_by([&] { t->get_weight(0); }));
  EXPECT_EQ("[brix::table::get_class] row 14 out of range (14)",
            thrown_by([&] { golf()->get_class(14); }));
}

}  // namespace
