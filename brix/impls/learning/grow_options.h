// The context one build of a tree hands down to its growing and split search.
#ifndef BRIX_IMPLS_GROW_OPTIONS_H
#define BRIX_IMPLS_GROW_OPTIONS_H

#include <vector>

namespace brix {
namespace impls {

class xlogx_table;

// The context of one build, which the build owns and hands down to the grower and the split
// measures: flag, from the user's count_cases, divides the penalty of continuous cuts by the
// number of cases instead of their weight; logs is the build's table of x·log2(x) (may be null);
// any_order says that every weight is whole and no unknown value is shared out, so that each sum
// over the cases of a node lighter than kExactWeight is exact in any order (see any_order_at).
struct options {
  bool flag = false;
  xlogx_table const* logs = nullptr;
  bool any_order = false;
  // Every case weighs exactly 1, in every node: any_order, and 1 to start with.
  bool unit_weights = false;
  // Every node keeps its cases in row order and each continuous search sorts a copy of them,
  // equal orders by row (a stable sort, radix where large), instead of sorting the node's own
  // cases in the permutation single trees have always had: no search then depends on the order
  // another left, so the attributes of a node are searched independently, on any thread. Set for
  // the trees of later boosting trials, which have no earlier output to reproduce.
  bool stable_order = false;
  // Discrete attributes of more than two values split on groups of their values
  // (value_subsets.h) instead of a branch per value.
  bool subsets = false;
  // Per attribute, whether it is discrete and stored a bit a row (may be null: then asked).
  std::vector<char> const* one_bit = nullptr;
  // A node of at least local_min_cases cases copies their orders into a table of its own when
  // the table it reads keeps at least local_from_bytes of columns, at least kLocalSparsity times
  // its cases: below that a node's rows lie scattered and each read touches a cache line of its
  // own, while its subtree then reads them in sequence. Smaller nodes and tables fit in the cache.
  unsigned long local_min_cases = 4096;
  double local_from_bytes = 8 << 20;
};

// The largest share of its table's rows a node copies: the copy costs at most 1/kLocalSparsity
// of the columns at each level of nesting, and nearer to the whole the rows are nearly in sequence.
constexpr unsigned long kLocalSparsity = 8;

// Whole numbers up to 2^24 add exactly in a float; past it, sums depend on the order of the
// cases, which the trees deliberately keep.
constexpr float kExactWeight = 16777216.0f;

// Whether the sums over cases of this total weight are exact whatever their order. Such nodes
// below the root keep their cases in row order, which reads the columns far faster, and their
// searches sort copies; heavier nodes keep the order their father's last sort left. A float sum
// of whole weights is below 2^24 exactly when the true sum is, so the node's own weight decides.
inline bool any_order_at(options const* opts, float weight) {
  return opts != nullptr && opts->any_order && weight < kExactWeight;
}

// Whether every node keeps its cases in row order (see options::stable_order).
inline bool keeps_row_order(options const* opts) {
  return opts != nullptr && opts->stable_order;
}

}  // namespace impls
}  // namespace brix

#endif
