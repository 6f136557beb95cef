// The distribution of a node's cases to the branches of its split: each case to its branch,
// the cases of unknown value to every branch with the branch's share of their weight.
#ifndef BRIX_IMPLS_PARTITION_H
#define BRIX_IMPLS_PARTITION_H

#include <vector>

#include "brix/impls/learning/split_search.h"
#include "brix/impls/storage/column.h"
#include "brix/impls/storage/w_sequence.h"

namespace brix {
namespace impls {

// The cases of one branch of a split on att.
w_sequence* partition_branch(column const& att, w_case const* begin, w_case const* end,
                             unsigned long branch, float total_weight, float& share,
                             order_range& range, partition_desc const& desc);

// The cases of every branch at once: two passes over the father's cases
// instead of two per branch; children[i], shares[i] and ranges[i] are those
// that partition_branch gives for branch i + 1.
void partition_all(column const& att, w_case const* begin, w_case const* end, float total_weight,
                   partition_desc const& desc, split_scratch& scratch,
                   std::vector<w_sequence*>& children, std::vector<float>& shares,
                   std::vector<order_range>& ranges);

// partition_all with the branch shares given instead of taken from these cases: for cases split
// over several tables, whose shares come from the weights of all of them.
void partition_shared(column const& att, w_case const* begin, w_case const* end,
                      partition_desc const& desc, std::vector<float> const& shares,
                      split_scratch& scratch, std::vector<w_sequence*>& children,
                      std::vector<order_range>& ranges);

}  // namespace impls
}  // namespace brix

#endif
