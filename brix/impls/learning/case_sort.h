// Sorting a node's cases by an attribute's value order, as the continuous split search needs
// them, and back into row order. The permutations are part of the result: equal orders keep
// their case order wherever the scan's float sums depend on it.
#ifndef BRIX_IMPLS_CASE_SORT_H
#define BRIX_IMPLS_CASE_SORT_H

#include <algorithm>
#include <cstdint>
#include <vector>

#include "brix/impls/learning/grow_options.h"
#include "brix/impls/learning/split_search.h"
#include "brix/impls/storage/column.h"
#include "brix/impls/storage/w_sequence.h"
#include "zel/adt/radix_sort.h"

namespace brix {
namespace impls {

// Nodes with fewer cases than this per possible value are sorted by
// comparison instead of by counting.
constexpr unsigned long kCountingSortRatio = 17;
// Nodes sorted by comparison from this many cases are radix sorted instead, where equal orders
// may come in any order.
constexpr std::size_t kRadixFrom = 512;
// Order stretches up to this width are counted in one pass; wider ones by
// their high bits, so that the tallies stay in cache, each bucket then sorted.
constexpr unsigned long kOnePassWidth = 1UL << 16;

inline std::uint64_t keyed(unsigned long key, std::uint32_t payload) {
  return (static_cast<std::uint64_t>(static_cast<std::uint32_t>(key)) << 32) | payload;
}

// By key within each bucket of packed: by insertion when few. Where equal keys
// must keep their case order (stable), in byte digits of the key bits below the
// bucket's through run, or, for a bucket larger than kScratchKeep (one value filling
// much of a skewed column), by a merge sort whose buffer lasts only as long.
// Where the scan's sums are exact and no order is kept, equal keys may move and
// large buckets are sorted in place.
void sort_buckets(std::vector<std::uint64_t>& packed, std::vector<std::uint32_t> const& ends,
                  std::size_t buckets, unsigned long base, unsigned shift,
                  std::vector<std::uint64_t>& run, bool stable);

// Sorts the cases by attribute order into s.packed, each as its order << 32 |
// payload(i): counting by the order's high bits (all of them up to a width of
// kOnePassWidth), then each bucket by the rest, when the cases are many
// against the order stretch; a comparison sort when they are few. Both give
// the permutation of the sort they replace: stable by order, or that of
// std::sort comparing orders only. No buffer beside packed: the column is read
// twice, unless the cases are in no row order (keep_keys), where a second read
// would miss the cache as often as the first and the orders are kept (4 bytes
// a case). Unless stable, cases of equal orders may change places.
template <class Att, class Payload>
void sort_by_order(Att att, std::vector<w_case> const& cases, order_range const& range,
                   split_scratch& s, Payload payload, bool keep_keys, bool stable = true) {
  std::size_t n = cases.size();
  unsigned long base = range.first - 1;
  unsigned long width = range.second - base;
  std::vector<std::uint64_t>& packed = s.packed;
  packed.resize(n);
  if (width / n < kCountingSortRatio) {
    unsigned shift = 0;
    while ((width >> shift) > kOnePassWidth)
      ++shift;
    std::size_t buckets = (width >> shift) + 1;
    std::vector<std::uint32_t>& counts = s.counts;
    counts.assign(buckets + 1, 0);
    auto scatter = [&](auto order_of) {
      for (std::size_t i = 0; i < n; ++i) {
        unsigned long a = order_of(i);
        packed[counts[(a - base) >> shift]++] = keyed(a, payload(i));
      }
    };
    if (keep_keys) {
      std::vector<std::uint32_t>& keys = s.keys;
      keys.resize(n);
      for (std::size_t i = 0; i < n; ++i) {
        auto a = static_cast<std::uint32_t>(att(cases[i].first));
        keys[i] = a;
        ++counts[((a - base) >> shift) + 1];
      }
      for (std::size_t d = 1; d <= buckets; ++d)
        counts[d] += counts[d - 1];
      scatter([&keys](std::size_t i) { return keys[i]; });
    } else {
      for (std::size_t i = 0; i < n; ++i)
        ++counts[((att(cases[i].first) - base) >> shift) + 1];
      for (std::size_t d = 1; d <= buckets; ++d)
        counts[d] += counts[d - 1];
      scatter([&](std::size_t i) { return att(cases[i].first); });
    }
    if (shift > 0) sort_buckets(packed, counts, buckets, base, shift, s.run, stable);
  } else {
    for (std::size_t i = 0; i < n; ++i)
      packed[i] = keyed(att(cases[i].first), payload(i));
    if (stable) {
      std::sort(packed.begin(), packed.end(),
                [](std::uint64_t a, std::uint64_t b) { return (a >> 32) < (b >> 32); });
    } else if (n >= kRadixFrom) {  // equal orders may come in any order
      unsigned bytes = 1;
      while (bytes < 4 && (width >> (8 * bytes)) != 0)
        ++bytes;
      zel::adt::lsd_radix(packed, s.run, bytes,
                          [base](std::uint64_t x) { return (x >> 32) - base; });
    } else {
      std::sort(packed.begin(), packed.end());
    }
  }
}

constexpr std::uint64_t kHigh = ~std::uint64_t(0xFFFFFFFF);

// Sorts the cases by the attribute's order into packed (order << 32 | class)
// and copies them, in that order, into the scratch's spare table (8 bytes a
// case more). With stable_order, equal orders keep their case order: the payload, the case's
// position, then orders them, so the unstable sorts (radix where large) are stable here.
template <class Att, class Cls>
std::vector<w_case> const& sort_copied(Att att, Cls cls, std::vector<w_case> const& cases,
                                       order_range const& range, split_scratch& s, bool keep_keys,
                                       bool stable_order) {
  std::vector<std::uint64_t>& packed = s.packed;
  sort_by_order(
      att, cases, range, s, [](std::size_t i) { return static_cast<std::uint32_t>(i); }, keep_keys,
      !stable_order);
  std::vector<w_case>& copy = s.spare;
  copy.resize(cases.size());
  for (std::size_t i = 0; i < cases.size(); ++i) {
    w_case c = cases[static_cast<std::uint32_t>(packed[i])];
    copy[i] = c;
    packed[i] = (packed[i] & kHigh) | static_cast<std::uint32_t>(cls(c.first));
  }
  return copy;
}

// Sorts a node's own cases by the attribute's order; packed then holds each
// sorted case's order << 32 | class. With unit weights the row travels in the
// sort and the cases are rewritten from it; other weights are copied back.
template <class Att, class Cls>
void sort_cases_in_place(Att att, Cls cls, std::vector<w_case>& cases, order_range const& range,
                         options const* opts, split_scratch& s) {
  bool unit_weights = opts != nullptr && opts->unit_weights;
  bool stable_order = opts != nullptr && opts->stable_order;
  std::vector<std::uint64_t>& packed = s.packed;
  std::size_t n = cases.size();
  if (unit_weights) {
    sort_by_order(
        att, cases, range, s, [&](std::size_t i) { return cases[i].first; }, true);
    for (std::size_t i = 0; i < n; ++i) {
      auto row = static_cast<std::uint32_t>(packed[i]);
      cases[i] = w_case{row, 1.0f};
      packed[i] = (packed[i] & kHigh) | static_cast<std::uint32_t>(cls(row));
    }
    return;
  }
  std::vector<w_case> const& copy = sort_copied(att, cls, cases, range, s, true, stable_order);
  std::copy(copy.begin(), copy.end(), cases.begin());
}

// Puts the cases in ascending row order (rows are distinct in a node), as
// sort_by_row does, in the scratch's tables instead of a buffer of its own.
void sort_by_row(w_sequence& cases, split_scratch& scratch);

// Leaves the cases in the order score_split without sort_copy leaves them,
// without scoring.
void sort_as_search(column const& att, column const& cls, w_sequence& cases,
                    order_range const& range, options const* opts, split_scratch& scratch);

}  // namespace impls
}  // namespace brix

#endif
