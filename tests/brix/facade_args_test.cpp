// Bad arguments to the public classes throw errors the caller can catch instead of reading out of
// bounds.
#include <gtest/gtest.h>

#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "brix/brix.h"
#include "tests/brix/table_files.h"

namespace {

std::string const kGolf = kExamples + "golf";

TEST(FacadeArguments, TreeCallsRefuseValuesAndRowsThatDoNotFit) {
  auto t = stem_table(kGolf);
  brix::dtree tree("golf");
  EXPECT_EQ("[brix::dtree::predict] the tree has not been built",
            error_of([&] { tree.predict(std::vector<std::string>{"sunny"}); }));
  tree.build(t.get(), nullptr, true, 0);
  EXPECT_EQ("[brix::dtree::predict] 1 values given for 4 attributes",
            error_of([&] { tree.predict(std::vector<std::string>{"sunny"}); }));
  EXPECT_EQ("no", tree.predict(std::vector<std::string>{"sunny", "85", "85", "FALSE"}));
  EXPECT_EQ("[brix::dtree::predict] row 14 out of range (14)",
            error_of([&] { tree.predict(t.get(), 14, 1.0f); }));

  brix::table::subset bad;
  bad.push_back(99, 1.0f);
  EXPECT_EQ("[brix::dtree::predict] case row 99 out of range (14)",
            error_of([&] { delete tree.predict(t.get(), &bad); }));
  brix::dtree other("other");
  EXPECT_EQ("[brix::dtree::build] case row 99 out of range (14)",
            error_of([&] { other.build(t.get(), &bad, true, 0); }));
  EXPECT_EQ("[brix::dtree::build] no table given",
            error_of([&] { other.build(nullptr, nullptr, true, 0); }));
  EXPECT_EQ("[brix::table::subset::get] position 1 out of range (1)",
            error_of([&] { bad.get(1); }));

  std::unique_ptr<brix::conf_matrix> m(tree.get_prediction());
  EXPECT_EQ("[brix::conf_matrix::get_element] cell (0, 3) out of range",
            error_of([&] { m->get_element(0, 3); }));
}

class FacadeFiles : public ::testing::Test, public scratch_dir {};

TEST_F(FacadeFiles, TableWithoutRowsOrClassRefusesRowQueries) {
  std::string bin = file("meta.bin");
  stem_table(kGolf, "")->toBinary(bin);
  std::unique_ptr<brix::table> t(brix::table::fromBinary(bin));
  EXPECT_EQ("[brix::table::get_class] the table has no class column",
            error_of([&] { t->get_class(0); }));
  EXPECT_EQ("[brix::table::get_weight] row 0 out of range (0)",
            error_of([&] { t->get_weight(0); }));
  EXPECT_EQ("[brix::table::get_class] row 14 out of range (14)",
            error_of([&] { stem_table(kGolf)->get_class(14); }));
}

}  // namespace
