// Splits of a discrete attribute on groups of its values instead of one branch per value: the
// groups are merged greedily from one per value present in the node, each step merging the pair
// that leaves the best gain ratio, and the best grouping met on the way (of two groups or more,
// two of them holding the least weight) is the attribute's split.
#ifndef BRIX_IMPLS_VALUE_SUBSETS_H
#define BRIX_IMPLS_VALUE_SUBSETS_H

#include <cstddef>

#include "brix/impls/learning/grow_options.h"
#include "brix/impls/model/split_record.h"
#include "brix/impls/storage/column.h"

namespace brix {
namespace impls {

class xlogx_table;

// Whether att's splits are searched over groups of its values: asked for, and more than two
// values to group.
inline bool groups_values(options const* opts, column const& att) {
  return opts != nullptr && opts->subsets && att.is_discrete() && att.get_distinct() > 2;
}

// The best split on groups of a discrete attribute's values (distinct of them) from its tallies
// over a node: freq row r, 1 <= r < rows, holds the class weights of value order r + base (cols
// = classes + 1 columns, column 0 unused); class_total the known cases' class totals, unknown
// the weight of the cases whose value is unknown. Values without cases in the node go to the
// heaviest branch (the first of equal ones). Returns false, best untouched, where the best
// grouping is one group per value and every value has cases: that is the ordinary split, which
// the caller scores.
bool score_value_groups(float const* freq, std::size_t rows, std::size_t cols, unsigned long base,
                        unsigned long distinct, float const* class_total, float unknown,
                        float total_weight, float min_objects, xlogx_table const& logs,
                        splitting_desc& best);

}  // namespace impls
}  // namespace brix

#endif
