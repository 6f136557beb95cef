// Split search: the quality of splitting a node's cases on one attribute. Free functions over a
// column's typed readers: the column only stores orders and its value set, and the working tables
// belong to the grower that calls. The sorts it needs are in case_sort.h, the distribution of the
// cases to the branches of the chosen split in partition.h.
#ifndef BRIX_IMPLS_SPLIT_SEARCH_H
#define BRIX_IMPLS_SPLIT_SEARCH_H

#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

#include "brix/impls/learning/constants.h"
#include "brix/impls/model/split_record.h"
#include "brix/impls/storage/column.h"
#include "brix/impls/storage/w_sequence.h"

namespace brix {
namespace impls {

struct options;

// Told the order of a node's cases as soon as a continuous search has sorted
// them, before it scans them: the parallel grower hands that order on to the
// next attribute, as sequential growing does by sorting in place.
struct order_publisher {
  virtual ~order_publisher() = default;
  virtual void sorted(w_sequence* cases) = 0;
};

// Tables up to this many entries stay from node to node whatever the nodes' sizes; larger ones
// follow the nodes down.
constexpr std::size_t kScratchKeep = std::size_t(1) << 16;

// The working tables of one grower or worker, kept from node to node so that
// a search allocates only when a node is larger than any before. A continuous
// search needs 8 bytes a case of the largest node (12 where the cases are in
// no row order, 16 where it must copy fractional weights aside), the row sort
// of a node's cases 8.
class split_scratch {
 public:
  // Gives the memory back (the next search allocates it again).
  void release();
  // Releases tables sized for a node far larger than one of n_cases: growing
  // goes down the tree, and the root's tables would otherwise stay to the end.
  void fit(std::size_t n_cases);
  // Releases the row sort's buffer if large: the children's searches do not need it.
  void shed_row_sort();

  // The sorted cases: order << 32 | position, row, class, or weight << 8 | class.
  std::vector<std::uint64_t> packed;
  // Sorted cases copied aside; the row sort's other half.
  std::vector<w_case> spare;
  // The orders of a node's cases in no row order, read once for the sort.
  std::vector<std::uint32_t> keys;
  // The counting sort's tallies, and its buffer for the buckets it sorts by their low bits.
  std::vector<std::uint32_t> counts;
  std::vector<std::uint64_t> run;
  std::vector<float> freq;
  std::vector<float> totals;
  std::vector<float> ways;   // interleaved tallies of whole weights
  std::vector<float> terms;  // a cut scan's x log2 x terms of each class, kept between cuts
  // The one-bit attributes of a node tallied side by side, and their results.
  std::vector<column const*> bit_atts;
  std::vector<splitting_desc*> bit_descs;
};

// Scores the split of the cases on att into best; a gain of kNoGain means no
// admissible split. Unless sort_copy, a continuous search leaves the cases in
// its sorted order (and tells publish when they are).
void score_split(column const& att, column const& cls, float total_weight, w_sequence& cases,
                 order_range const& range, float min_objects, options const* opts,
                 split_scratch& scratch, splitting_desc& best, bool sort_copy,
                 order_publisher* publish = nullptr);

// Scores discrete attributes stored one bit a row (two values, none unknown) in one pass over a
// node's cases, as score_split would each: for nodes whose sums are exact in any order, since each
// table is summed in case order but the attributes side by side. best[j] is atts[j]'s.
void score_bit_splits(std::vector<column const*> const& atts, column const& cls, float total_weight,
                      w_sequence const& cases, float min_objects, options const* opts,
                      split_scratch& scratch, std::vector<splitting_desc*> const& best);

// Whether score_split sorts the cases (a continuous search by sorting).
bool search_sorts_cases(column const& att, std::size_t n_cases, order_range const& range);

// The rows of an attribute's tallies over a node whose cases span range: none where it cannot
// split the node.
inline std::size_t tally_rows(column const& att, order_range const& range) {
  if (!(att.is_discrete() || att.is_continuous()) || range.second - range.first <= 1) return 0;
  return range.second - (std::max<unsigned long>(range.first, 1) - 1);
}

// Tallies that add up across tables holding parts of a node's cases: into freq (zeroed by the
// caller; rows = range.second - base, base = max(range.first, 1) - 1, each of classes + 1
// columns) the weight of each (order, class) pair at row order - base, in case order; the weight
// of the cases whose value is unknown is added to freq[0].
void tally_cases(column const& att, column const& cls, w_sequence const& cases,
                 order_range const& range, float* freq);

// One attribute's tallies over a node: as tally_cases lays them out, or, for a continuous
// attribute, compacted to the rows that hold a weight: row 0 (the unknown weight) then rows in
// ascending order, orders[r] the value order of row r, rows of them in all.
struct tally_block {
  float const* freq = nullptr;
  std::uint32_t const* orders = nullptr;
  std::size_t rows = 0;
};

// What score_split gives on a node's cases, from their tallies (summed over the tables that hold
// them), the node's weight and its number of cases.
void score_tallies(column const& att, unsigned long classes, float total_weight,
                   std::size_t n_cases, order_range const& range, tally_block const& block,
                   float min_objects, options const* opts, split_scratch& s, splitting_desc& best);

}  // namespace impls
}  // namespace brix

#endif
