// What the user chooses for a tree: kept with the model, which the tree file stores (all but
// count_cases), and read by each build.
#ifndef BRIX_IMPLS_TREE_SETTINGS_H
#define BRIX_IMPLS_TREE_SETTINGS_H

namespace brix {
namespace impls {

struct tree_settings {
  int split_type = 1;        // decision_tree::SplitType: gain ratio
  int pruning_strategy = 2;  // decision_tree::PruningStrategy: error-based pruning
  float min_obj = 2.0f;      // least weight of two branches for a split
  float conf_level = 0.25f;  // pruning's confidence level
  // The penalty of continuous cuts divided by the number of cases instead of their weight.
  bool count_cases = false;
};

}  // namespace impls
}  // namespace brix

#endif
