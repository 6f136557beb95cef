// XML model and DOT graph of a one-leaf tree over a table with a weights
// column and class values that need escaping in XML (and none in DOT).
#include <gtest/gtest.h>

#include <memory>
#include <sstream>
#include <string>

#include "brix/impls/conf_matrix.h"
#include "brix/impls/decision_tree.h"
#include "brix/impls/table.h"
#include "tests/brix/table_files.h"

namespace {

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
  tree.toDOT(dot);
  EXPECT_EQ(dot.str(), "digraph Brix {\nn0 [ shape=ellipse, label=\"a<b [1%,1%]\"]\n}\n");

  brix::impls::conf_matrix empty(tree.get_metadata());
  std::ostringstream out;
  tree.toXML(out, &empty);
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

}  // namespace
