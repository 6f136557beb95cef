// Split quality of one attribute in one node: information gain and split
// information of a multiway split (discrete attributes) or of the best binary
// cut (continuous attributes). Every sum is a 32-bit float accumulated in case
// order and every logarithm is rounded to float: ties between cuts and between
// attributes are decided by these bits. Then the distribution of a node's
// cases to the branches of its split.
#include "brix/impls/learning/split_search.h"

#include <algorithm>
#include <cstdint>
#include <stdexcept>
#include <type_traits>
#include <vector>

#include "brix/impls/learning/entropy.h"
#include "brix/impls/model/decision_tree.h"
#include "brix/impls/storage/column_typed.h"
#include "zel/adt/radix_sort.h"

namespace brix {
namespace impls {

namespace {

// Tables up to this many entries stay from node to node whatever the nodes'
// sizes; larger ones follow the nodes down.
constexpr std::size_t kKeep = std::size_t(1) << 16;

// Deliberate: "no split" is a gain of -0.001, not 0; split choice compares against it.
constexpr float kNoGain = -0.001f;

// Nodes with fewer cases than this per possible value are sorted by
// comparison instead of by counting.
constexpr unsigned long kCountingSortRatio = 17;
// Nodes sorted by comparison from this many cases are radix sorted instead, where equal orders
// may come in any order.
constexpr std::size_t kRadixFrom = 512;
// Order stretches up to this width are counted in one pass; wider ones by
// their high bits, so that the tallies stay in cache, each bucket then sorted.
constexpr unsigned long kOnePassWidth = 1UL << 16;

void no_split(splitting_desc& best) {
  best.gain = kNoGain;
  best.split_info = 0.0f;
}

// Least weight on either side of a cut: 10% of the known weight per class,
// between min_objects and 25; a min_objects of 25 or more stands as given
// (deliberately, as the classic rule has it).
float least_side_weight(float min_objects, float known, unsigned long classes) {
  double share = 0.1 * known / static_cast<double>(classes);
  if (min_objects < 25.0f && min_objects < share) return static_cast<float>(std::min(share, 25.0));
  return min_objects;
}

xlogx_table const& logs_of(options const* opts) {
  static xlogx_table const none;
  return (opts != nullptr && opts->logs != nullptr) ? *opts->logs : none;
}

// One pass over the cases: the weight of each (value, class) pair, in row
// value - base, and of each class, in case order. Returns the weight of the
// cases whose value is unknown.
template <class Att, class Cls>
float tally(Att att, Cls cls, w_sequence const& cases, unsigned long base, std::size_t cols,
            float* freq, float* class_total) {
  float unknown = 0.0f;
  for (w_case const& c : cases) {
    unsigned long a = att(c.first);
    if (a == 0) {
      unknown += c.second;
    } else {
      unsigned long k = cls(c.first);
      freq[(a - base) * cols + k] += c.second;
      class_total[k] += c.second;
    }
  }
  return unknown;
}

// Below this many cases a node's tables cost more to clear and merge than interleaving saves.
constexpr std::size_t kInterleaveFrom = 256;

// tally for whole weights summing below 2^24, whose sums are exact in any order: four
// interleaved tables keep consecutive cases of one cell from waiting on each other's additions,
// and the class totals are summed from the cells afterwards. ways holds the tables.
template <class Att, class Cls>
float tally_exact(Att att, Cls cls, w_sequence const& cases, unsigned long base, std::size_t cols,
                  std::size_t cells, float* freq, float* class_total, std::vector<float>& ways) {
  constexpr std::size_t kWays = 4;
  ways.assign(kWays * cells, 0.0f);
  float* t = ways.data();
  float unknown = 0.0f;
  w_case const* c = cases.data();
  std::size_t n = cases.size();
  for (std::size_t i = 0; i < n; ++i) {
    unsigned long a = att(c[i].first);
    if (a == 0) {
      unknown += c[i].second;
    } else {
      t[(i % kWays) * cells + (a - base) * cols + cls(c[i].first)] += c[i].second;
    }
  }
  for (std::size_t j = 0; j < cells; ++j)
    freq[j] = (t[j] + t[cells + j]) + (t[2 * cells + j] + t[3 * cells + j]);
  for (std::size_t j = cols; j < cells; ++j)
    class_total[j % cols] += freq[j];
  return unknown;
}

// The gain and split information of a discrete split from its tallies: freq
// by (value row, class), rows x cols; totals holds the branch weights (filled
// here) then the class totals.
void discrete_gain(std::vector<float> const& freq, float* totals, std::size_t rows,
                   std::size_t cols, unsigned long classes, float unknown, float total_weight,
                   float min_objects, xlogx_table const& logs, splitting_desc& best) {
  float* branch = totals;
  float* class_total = totals + rows;
  float known = total_weight - unknown;
  if (known == 0.0f) return no_split(best);
  branch[0] = unknown;
  int reaching = 0;
  for (std::size_t r = 1; r < rows; ++r) {
    float s = 0.0f;
    for (std::size_t k = 1; k < cols; ++k)
      s += freq[r * cols + k];
    branch[r] = s;
    if (s >= min_objects) ++reaching;
  }
  if (reaching < 2) return no_split(best);
  float hc = info(logs, class_total + 1, classes);
  float hs = 0.0f;
  for (std::size_t r = 1; r < rows; ++r)
    hs += info(logs, &freq[r * cols + 1], classes);
  float hsplit = info(logs, branch, rows);
  best.split_info = hsplit / total_weight;
  // Deliberate: scaled by known / (unknown + known), not by the total weight; the float bits
  // differ.
  best.gain = (hc / known - hs / known) * (known / (unknown + known));
}

template <class Att, class Cls>
void quality_discrete(Att att, Cls cls, unsigned long classes, float total_weight,
                      w_sequence const& cases, order_range const& range, float min_objects,
                      options const* opts, split_scratch& s, splitting_desc& best) {
  xlogx_table const& logs = logs_of(opts);
  std::size_t cols = classes + 1;
  std::size_t rows = range.second - range.first + 1;
  unsigned long base = range.first - 1;
  std::vector<float>& freq = s.freq;
  freq.assign(rows * cols, 0.0f);
  std::vector<float>& totals = s.totals;
  totals.assign(rows + cols, 0.0f);
  float* class_total = totals.data() + rows;
  float unknown =
      cases.size() >= kInterleaveFrom && any_order_at(opts, total_weight)
          ? tally_exact(att, cls, cases, base, cols, rows * cols, freq.data(), class_total, s.ways)
          : tally(att, cls, cases, base, cols, freq.data(), class_total);
  discrete_gain(freq, totals.data(), rows, cols, classes, unknown, total_weight, min_objects, logs,
                best);
}

// The best binary cut so far: a cut is kept when its gain on the known
// cases is strictly greater, so ties keep the earlier (lower) cut.
struct cut_score {
  xlogx_table const& logs;
  std::size_t classes;
  float hc, known, unknown;
  float best_gain = kNoGain;
  float split_info = 0.0f;

  bool consider(float const* left, float const* right, float l_weight) {
    return consider_info(info(logs, left + 1, classes) + info(logs, right + 1, classes), l_weight);
  }

  // consider from whole class weights: moved left of the cut out of total.
  bool consider_whole(std::uint32_t const* moved, std::uint32_t const* total, float l_weight) {
    float hl = info_whole(
        logs, [moved](std::size_t k) { return moved[k]; }, classes);
    float hr = info_whole(
        logs, [moved, total](std::size_t k) { return total[k] - moved[k]; }, classes);
    return consider_info(hl + hr, l_weight);
  }

  // hs: the information of both sides.
  bool consider_info(float hs, float l_weight) {
    float gain = (known / (unknown + known)) * (hc / known - hs / known);
    if (!(gain > best_gain)) return false;
    best_gain = gain;
    float parts[3] = {unknown, l_weight, known - l_weight};
    split_info = info(logs, parts, 3);
    return true;
  }
};

// Penalises the best cut by log2 of the cuts tried and fills the result.
void finish_cut(splitting_desc& best, float best_gain, float split_info, unsigned long tried,
                float total_weight, std::size_t n_cases, options const* opts, unsigned long low,
                unsigned long high) {
  float penalty = tried > 0 ? log2w(static_cast<float>(tried)) : 0.0f;
  float n = (opts != nullptr && opts->flag) ? static_cast<float>(n_cases) : total_weight;
  float p = penalty / n;
  if (p < best_gain) {
    best.low = low;
    best.high = high;
    best.gain = best_gain - p;
    best.split_info = split_info / total_weight;
  } else {
    no_split(best);
  }
}

std::uint64_t keyed(unsigned long key, std::uint32_t payload) {
  return (static_cast<std::uint64_t>(static_cast<std::uint32_t>(key)) << 32) | payload;
}

// By key within each bucket of packed: by insertion when few. Where equal keys
// must keep their case order (stable), in byte digits of the key bits below the
// bucket's through run, or, for a bucket larger than kKeep (one value filling
// much of a skewed column), by a merge sort whose buffer lasts only as long.
// Where the scan's sums are exact and no order is kept, equal keys may move and
// large buckets are sorted in place.
void sort_buckets(std::vector<std::uint64_t>& packed, std::vector<std::uint32_t> const& ends,
                  std::size_t buckets, unsigned long base, unsigned shift,
                  std::vector<std::uint64_t>& run, bool stable) {
  auto by_key = [](std::uint64_t a, std::uint64_t b) { return (a >> 32) < (b >> 32); };
  std::size_t hist[256];
  std::size_t begin = 0;
  for (std::size_t d = 0; d < buckets; ++d) {
    std::size_t end = ends[d], n = end - begin;
    std::uint64_t* a = packed.data() + begin;
    if (n <= 32) {
      for (std::size_t i = 1; i < n; ++i) {
        std::uint64_t x = a[i];
        std::size_t j = i;
        for (; j > 0 && by_key(x, a[j - 1]); --j)
          a[j] = a[j - 1];
        a[j] = x;
      }
    } else if (std::is_sorted(a, a + n, by_key)) {  // often one value fills a bucket
    } else if (!stable) {
      std::sort(a, a + n);  // the payload may order equal keys
    } else if (n > kKeep) {
      std::stable_sort(a, a + n, by_key);
    } else {
      if (run.size() < n) run.resize(n);
      std::uint64_t* from = a;
      std::uint64_t* to = run.data();
      for (unsigned low = 0; low < shift; low += 8) {
        auto digit = [base, low](std::uint64_t x) { return (((x >> 32) - base) >> low) & 0xFF; };
        std::fill_n(hist, 256, std::size_t(0));
        for (std::size_t i = 0; i < n; ++i)
          ++hist[digit(from[i])];
        if (hist[digit(from[0])] == n) continue;
        std::size_t sum = 0;
        for (std::size_t& h : hist) {
          std::size_t c = h;
          h = sum;
          sum += c;
        }
        for (std::size_t i = 0; i < n; ++i)
          to[hist[digit(from[i])]++] = from[i];
        std::swap(from, to);
      }
      if (from != a) std::copy(from, from + n, a);
    }
    begin = end;
  }
}

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

// Whole weights below 2^24 and classes below 256 travel beside the order:
// weight << 8 | class.
constexpr unsigned long kCompactClasses = 256;

// Reads the sorted cases' classes from packed and their weights from where
// the search left them.
struct sorted_in_place {  // the node's cases, permuted
  std::uint64_t const* packed;
  w_case const* cases;
  std::uint32_t class_of(std::size_t i) const { return static_cast<std::uint32_t>(packed[i]); }
  float weight_of(std::size_t i) const { return cases[i].second; }
};
struct sorted_copied {  // the cases gathered into the scratch
  std::uint64_t const* packed;
  w_case const* copy;
  std::uint32_t class_of(std::size_t i) const { return static_cast<std::uint32_t>(packed[i]); }
  float weight_of(std::size_t i) const { return copy[i].second; }
};

// The stretch of cases moved left since the last evaluated cut, while it holds a single class. No
// cut inside a run of one class can win, unless the next value block brings another class or
// carries the left side past its limit.
struct class_stretch {
  std::uint32_t cls = 0;
  bool open = false, pure = true;

  void add(std::uint32_t c) {
    if (!open) {
      open = true;
      pure = true;
      cls = c;
    } else if (c != cls) {
      pure = false;
    }
  }
  // Whether the cut after case i, of left weight left, can be passed over: the block of order
  // next that follows holds the stretch's class alone and keeps the left side within upper. Sum
  // is the scan's own arithmetic.
  template <class Sum, class Order, class Class, class Weight>
  bool passes(std::size_t i, std::size_t n, std::uint32_t next, Sum left, float upper,
              Order order_of, Class class_of, Weight weight_of) const {
    if (!pure) return false;
    for (std::size_t j = i + 1; j < n && order_of(j) == next; ++j) {
      if (class_of(j) != cls) return false;
      left += weight_of(j);
    }
    return static_cast<float>(left) <= upper;
  }
};

// The best binary cut over n sorted cases.
template <class Sorted>
void scan_cuts(Sorted sorted, std::uint64_t const* packed, std::size_t n, unsigned long classes,
               float total_weight, float min_objects, options const* opts, split_scratch& s,
               splitting_desc& best) {
  xlogx_table const& logs = logs_of(opts);
  auto order_of = [packed](std::size_t i) { return static_cast<std::uint32_t>(packed[i] >> 32); };
  auto class_of = [&sorted](std::size_t i) { return sorted.class_of(i); };
  auto weight_of = [&sorted](std::size_t i) { return sorted.weight_of(i); };

  std::size_t cols = classes + 1;
  std::vector<float>& totals = s.totals;
  totals.assign(2 * cols, 0.0f);
  float* left = totals.data();
  float* right = totals.data() + cols;
  float unknown = 0.0f;
  std::size_t first = 0;
  for (std::size_t i = 0; i < n; ++i) {
    if (order_of(i) == 0) {
      unknown += weight_of(i);
      ++first;
    } else {
      right[class_of(i)] += weight_of(i);
    }
  }
  float known = total_weight - unknown;
  if (known < 2 * min_objects) return no_split(best);
  float hc = info(logs, right + 1, classes);
  float m = least_side_weight(min_objects, known, classes);
  float upper = known - m;

  cut_score score{logs, classes, hc, known, unknown};
  float l_weight = 0.0f;
  unsigned long tried = 0, low = 0, high = 0;
  class_stretch stretch;
  for (std::size_t i = first; i + 1 < n; ++i) {
    std::uint32_t c = class_of(i);
    float w = weight_of(i);
    right[c] -= w;
    left[c] += w;
    l_weight += w;
    stretch.add(c);
    if (l_weight < m) continue;
    if (l_weight > upper) break;
    std::uint32_t a = order_of(i), a_next = order_of(i + 1);
    if (a == a_next) continue;
    ++tried;
    if (stretch.passes(i, n, a_next, l_weight, upper, order_of, class_of, weight_of)) continue;
    stretch.open = false;
    if (score.consider(left, right, l_weight)) {
      low = a;
      high = a_next;
    }
  }
  finish_cut(best, score.best_gain, score.split_info, tried, total_weight, n, opts, low, high);
}

// scan_cuts for whole weights summing below 2^24, packed as weight << 8 | class: the tallies are
// kept in integers, which hold the very values the float sums would, since such sums are exact in
// any order; the cut tests and the gains then see the same floats. Integers carry no float adds on
// the loop's path, and the class totals are counted in four interleaved tables.
void scan_cuts_whole(std::uint64_t const* packed, std::size_t n, unsigned long classes,
                     float total_weight, float min_objects, options const* opts, split_scratch& s,
                     splitting_desc& best) {
  xlogx_table const& logs = logs_of(opts);
  auto order_of = [packed](std::size_t i) { return static_cast<std::uint32_t>(packed[i] >> 32); };
  auto class_of = [packed](std::size_t i) { return static_cast<std::uint32_t>(packed[i] & 0xFF); };
  auto weight_of = [packed](std::size_t i) { return static_cast<std::uint32_t>(packed[i]) >> 8; };

  std::size_t cols = classes + 1;
  std::vector<std::uint32_t>& counts = s.counts;
  counts.assign(6 * cols, 0);
  std::uint32_t* ways = counts.data();
  std::uint32_t* total = ways + 4 * cols;
  std::uint32_t* moved = total + cols;  // left of the cut
  std::uint32_t unknown_w = 0;
  std::size_t first = 0;
  while (first < n && order_of(first) == 0)  // unknown orders sort first
    unknown_w += weight_of(first++);
  for (std::size_t i = first; i < n; ++i)
    ways[(i & 3) * cols + class_of(i)] += weight_of(i);
  for (std::size_t k = 0; k < cols; ++k)
    total[k] = ways[k] + ways[cols + k] + ways[2 * cols + k] + ways[3 * cols + k];

  float unknown = static_cast<float>(unknown_w);
  float known = total_weight - unknown;
  if (known < 2 * min_objects) return no_split(best);
  float hc = info_whole(
      logs, [total](std::size_t k) { return total[k]; }, classes);
  float m = least_side_weight(min_objects, known, classes);
  float upper = known - m;

  cut_score score{logs, classes, hc, known, unknown};
  std::uint32_t l_whole = 0;
  unsigned long tried = 0, low = 0, high = 0;
  class_stretch stretch;
  for (std::size_t i = first; i + 1 < n; ++i) {
    std::uint32_t c = class_of(i);
    std::uint32_t w = weight_of(i);
    moved[c] += w;
    l_whole += w;
    stretch.add(c);
    float l_weight = static_cast<float>(l_whole);
    if (l_weight < m) continue;
    if (l_weight > upper) break;
    std::uint32_t a = order_of(i), a_next = order_of(i + 1);
    if (a == a_next) continue;
    ++tried;
    if (stretch.passes(i, n, a_next, l_whole, upper, order_of, class_of, weight_of)) continue;
    stretch.open = false;
    if (score.consider_whole(moved, total, l_weight)) {
      low = a;
      high = a_next;
    }
  }
  finish_cut(best, score.best_gain, score.split_info, tried, total_weight, n, opts, low, high);
}

constexpr std::uint64_t kHigh = ~std::uint64_t(0xFFFFFFFF);

// Sorts the cases by the attribute's order into packed (order << 32 | class)
// and copies them, in that order, into the scratch's spare table (8 bytes a
// case more).
template <class Att, class Cls>
std::vector<w_case> const& sort_copied(Att att, Cls cls, std::vector<w_case> const& cases,
                                       order_range const& range, split_scratch& s, bool keep_keys) {
  std::vector<std::uint64_t>& packed = s.packed;
  sort_by_order(
      att, cases, range, s, [](std::size_t i) { return static_cast<std::uint32_t>(i); }, keep_keys);
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
  std::vector<std::uint64_t>& packed = s.packed;
  std::size_t n = cases.size();
  if (opts != nullptr && opts->unit_weights) {
    sort_by_order(
        att, cases, range, s, [&](std::size_t i) { return cases[i].first; }, true);
    for (std::size_t i = 0; i < n; ++i) {
      auto row = static_cast<std::uint32_t>(packed[i]);
      cases[i] = w_case{row, 1.0f};
      packed[i] = (packed[i] & kHigh) | static_cast<std::uint32_t>(cls(row));
    }
    return;
  }
  std::vector<w_case> const& copy = sort_copied(att, cls, cases, range, s, true);
  std::copy(copy.begin(), copy.end(), cases.begin());
}

// Sorts the node's cases by the attribute's order, then scans the cuts. The
// cases themselves are left in the sorted order unless sort_copy; then
// whole-weight nodes carry weight and class in the sort's own table (8 bytes a
// case), and only other nodes copy their sorted cases aside (8 more).
template <class Att, class Cls>
void quality_continuous(Att att, Cls cls, unsigned long classes, float total_weight,
                        w_sequence& node_cases, order_range const& range, float min_objects,
                        options const* opts, split_scratch& s, splitting_desc& best, bool sort_copy,
                        order_publisher* publish) {
  best.branches = 2;
  std::vector<w_case>& cases = node_cases.cases();
  std::size_t n = cases.size();
  if (n == 0) return no_split(best);
  std::vector<std::uint64_t>& packed = s.packed;
  auto scan = [&](auto sorted) {
    scan_cuts(sorted, packed.data(), n, classes, total_weight, min_objects, opts, s, best);
  };
  if (!sort_copy) {
    sort_cases_in_place(att, cls, cases, range, opts, s);
    if (publish != nullptr) publish->sorted(&node_cases);
    return scan(sorted_in_place{packed.data(), cases.data()});
  }
  if (publish != nullptr) publish->sorted(nullptr);
  if (classes < kCompactClasses && any_order_at(opts, total_weight)) {
    // Exact sums, and the order is not kept: cases of equal orders may change places.
    sort_by_order(
        att, cases, range, s,
        [&](std::size_t i) {
          return (static_cast<std::uint32_t>(cases[i].second) << 8) |
                 static_cast<std::uint32_t>(cls(cases[i].first));
        },
        false, false);
    return scan_cuts_whole(packed.data(), n, classes, total_weight, min_objects, opts, s, best);
  }
  std::vector<w_case> const& copy = sort_copied(att, cls, cases, range, s, false);
  scan(sorted_copied{packed.data(), copy.data()});
}

// The best binary cut over per-value class tallies: freq by (value row, class), rows x cols, row
// r standing for order r + base; right holds the known cases' class totals and is used up. With
// like_sort, cuts are passed over exactly where the sorting search passes over them (a stretch of
// one class followed by a value block of that class alone), so that tallies summed elsewhere
// choose the cut that search chooses; without, every cut between occupied rows is evaluated.
void scan_rows(std::vector<float> const& freq, std::size_t rows, std::size_t cols,
               unsigned long classes, unsigned long base, float total_weight, float unknown,
               std::size_t n_cases, float min_objects, options const* opts, float* left,
               float* right, bool like_sort, splitting_desc& best,
               std::uint32_t const* orders = nullptr) {
  xlogx_table const& logs = logs_of(opts);
  float known = total_weight - unknown;
  if (known < 2 * min_objects) return no_split(best);
  float hc = info(logs, right + 1, classes);
  float m = least_side_weight(min_objects, known, classes);
  float upper = known - m;

  auto occupied = [&](std::size_t r) {
    for (std::size_t k = 0; k < cols; ++k) {
      if (freq[r * cols + k] != 0.0f) return true;
    }
    return false;
  };
  // The one class of a row, or cols when it holds several.
  auto single = [&](std::size_t r) {
    std::size_t found = cols;
    for (std::size_t k = 1; k < cols; ++k) {
      if (freq[r * cols + k] == 0.0f) continue;
      if (found != cols) return cols;
      found = k;
    }
    return found;
  };
  std::size_t last = rows;
  for (std::size_t r = rows; r-- > 0;) {
    if (occupied(r)) {
      last = r;
      break;
    }
  }
  cut_score score{logs, classes, hc, known, unknown};
  float l_weight = 0.0f;
  unsigned long tried = 0;
  std::size_t best_row = 0;
  bool found = false;
  class_stretch stretch;
  for (std::size_t r = 0; r < last; ++r) {
    if (!occupied(r)) continue;
    float const* row = &freq[r * cols];
    float s = 0.0f;
    for (std::size_t k = 0; k < cols; ++k)
      s += row[k];
    for (std::size_t k = 0; k < cols; ++k) {
      right[k] -= row[k];
      left[k] += row[k];
    }
    l_weight += s;
    if (like_sort) {
      std::size_t c = single(r);
      if (c == cols) {
        stretch.add(0);
        stretch.add(1);  // two classes: the stretch is mixed
      } else {
        stretch.add(static_cast<std::uint32_t>(c));
      }
    }
    if (l_weight < m) continue;
    if (l_weight > upper) break;
    ++tried;
    if (like_sort && stretch.pure) {
      std::size_t next = r + 1;
      while (next < rows && !occupied(next))
        ++next;
      float const* nrow = &freq[next * cols];
      float ns = 0.0f;
      for (std::size_t k = 0; k < cols; ++k)
        ns += nrow[k];
      if (single(next) == stretch.cls && l_weight + ns <= upper) continue;
    }
    stretch.open = false;
    if (score.consider(left, right, l_weight)) {
      best_row = r;
      found = true;
    }
  }
  unsigned long low = 0, high = 0;
  if (found) {
    std::size_t next = best_row + 1;
    while (next < rows && !occupied(next))
      ++next;
    low = orders != nullptr ? orders[best_row] : best_row + base;
    high = orders != nullptr ? orders[next] : next + base;
  }
  finish_cut(best, score.best_gain, score.split_info, tried, total_weight, n_cases, opts, low,
             high);
}

template <class Att, class Cls>
void quality_tally(Att att, Cls cls, unsigned long classes, float total_weight,
                   w_sequence const& cases, order_range const& range, float min_objects,
                   options const* opts, split_scratch& s, splitting_desc& best) {
  best.branches = 2;
  std::size_t cols = classes + 1;
  unsigned long base = range.first - 1;
  std::size_t rows = range.second - range.first + 1;
  std::vector<float>& freq = s.freq;
  freq.assign(rows * cols, 0.0f);
  std::vector<float>& totals = s.totals;
  totals.assign(2 * cols, 0.0f);
  float* left = totals.data();
  float* right = totals.data() + cols;
  float unknown = tally(att, cls, cases, base, cols, freq.data(), right);
  scan_rows(freq, rows, cols, classes, base, total_weight, unknown, cases.size(), min_objects, opts,
            left, right, false, best);
}

[[noreturn]] void throw_no_partition(column const& c) {
  throw std::runtime_error("[column::partition] method not defined for column type '" +
                           c.get_type() + "'");
}

// The two passes over the father's cases for a discrete split: per-branch
// sums in case order, then each case copied to its branch and every unknown
// one to all branches with the branch's share of its weight. The orders are
// read again in the second pass rather than kept: a table of them would
// sit beside the father's cases and the children at the peak of growing.
template <class Reader>
void partition_discrete(Reader rd, w_case const* begin, w_case const* end, float total_weight,
                        std::vector<w_sequence*>& children, std::vector<float>& shares,
                        std::vector<order_range>& ranges, bool given) {
  std::size_t k = children.size();
  std::vector<float> wv(k + 1, 0.0f);
  std::vector<std::size_t> count(k + 1, 0);
  for (w_case const* c = begin; c != end; ++c) {
    auto a = static_cast<std::uint32_t>(rd(c->first));
    wv[a] += c->second;
    ++count[a];
  }
  float known = total_weight - wv[0];
  for (std::size_t v = 1; v <= k; ++v) {
    if (!given) shares[v - 1] = wv[v] / known;
    ranges[v - 1] = order_range(v, v + 1);
    children[v - 1]->reserve(count[v] + count[0]);
  }
  for (w_case const* c = begin; c != end; ++c) {
    auto a = static_cast<std::uint32_t>(rd(c->first));
    if (a != 0) {
      children[a - 1]->cases().push_back(*c);
    } else {
      for (std::size_t v = 0; v < k; ++v) {
        children[v]->cases().push_back(w_case{c->first, shares[v] * c->second});
      }
    }
  }
}

// Continuous split at threshold order t: branch 1 takes orders up to t and,
// deliberately, counts the unknown cases in its own weight too.
template <class Reader>
void partition_continuous(Reader rd, unsigned long t, w_case const* begin, w_case const* end,
                          float total_weight, std::vector<w_sequence*>& children,
                          std::vector<float>& shares, std::vector<order_range>& ranges,
                          bool given) {
  float w1 = 0.0f, w2 = 0.0f, wu = 0.0f;
  std::size_t n1 = 0, n2 = 0, nu = 0;
  for (w_case const* c = begin; c != end; ++c) {
    unsigned long a = rd(c->first);
    if (a <= t) {
      w1 += c->second;
      ++n1;
    } else {
      w2 += c->second;
      ++n2;
    }
    if (a == 0) {
      wu += c->second;
      ++nu;
    }
  }
  if (!given) {
    shares[0] = w1 / total_weight;
    shares[1] = w2 / (total_weight - wu);
  }
  children[0]->reserve(n1);
  children[1]->reserve(n2 + nu);
  unsigned long lo1 = t, hi1 = t, lo2 = t, hi2 = t;
  for (w_case const* c = begin; c != end; ++c) {
    unsigned long a = rd(c->first);
    if (a == 0) {
      children[0]->cases().push_back(w_case{c->first, shares[0] * c->second});
      children[1]->cases().push_back(w_case{c->first, shares[1] * c->second});
      lo1 = 0;
      lo2 = 0;
    } else if (a <= t) {
      children[0]->cases().push_back(*c);
      lo1 = std::min(lo1, a);
    } else {
      children[1]->cases().push_back(*c);
      hi2 = std::max(hi2, a);
    }
  }
  ranges[0] = order_range(lo1, hi1 + 1);
  ranges[1] = order_range(lo2, hi2 + 1);
}

}  // namespace

void splitting_desc::set_partition_desc(partition_desc& desc) const {
  desc.threshold = att->find_threshold(low, high);
  desc.branches = branches;
}

void split_scratch::release() {
  std::vector<std::uint64_t>().swap(packed);
  std::vector<w_case>().swap(spare);
  std::vector<std::uint32_t>().swap(counts);
  std::vector<std::uint32_t>().swap(keys);
  std::vector<std::uint64_t>().swap(run);
  std::vector<float>().swap(freq);
  std::vector<float>().swap(totals);
  std::vector<float>().swap(ways);
}

void sort_by_row(w_sequence& cases, split_scratch& scratch) {
  std::vector<w_case>& v = cases.cases();
  std::uint32_t top = 0;
  for (w_case const& c : v)
    top |= c.first;
  unsigned bytes = 1;
  while (bytes < 4 && (top >> (8 * bytes)) != 0)
    ++bytes;
  w_case const* own = v.data();
  zel::adt::lsd_radix(v, scratch.spare, bytes, [](w_case const& c) { return c.first; });
  if (v.data() != own) {
    // An odd number of passes ends in the scratch: the cases keep their own storage.
    std::copy(v.begin(), v.end(), scratch.spare.begin());
    v.swap(scratch.spare);
  }
}

void split_scratch::shed_row_sort() {
  if (spare.capacity() > kKeep) std::vector<w_case>().swap(spare);
}

void split_scratch::fit(std::size_t n_cases) {
  std::size_t largest = std::max(
      {packed.capacity(), spare.capacity(), counts.capacity(), keys.capacity(), run.capacity()});
  if (largest / 4 > std::max<std::size_t>(n_cases, kKeep)) release();
}

void sort_as_search(column const& att, column const& cls, w_sequence& cases,
                    order_range const& range, options const* opts, split_scratch& scratch) {
  if (!search_sorts_cases(att, cases.size(), range)) return;
  cls.visit([&](auto c) {
    att.visit([&](auto a) { sort_cases_in_place(a, c, cases.cases(), range, opts, scratch); });
  });
}

void score_bit_splits(std::vector<column const*> const& atts, column const& cls, float total_weight,
                      w_sequence const& cases, float min_objects, options const* opts,
                      split_scratch& scratch, std::vector<splitting_desc*> const& best) {
  std::size_t m = atts.size();
  unsigned long classes = cls.get_distinct();
  std::size_t cols = classes + 1;
  std::vector<std::uint32_t const*> words(m);
  for (std::size_t j = 0; j < m; ++j) {
    atts[j]->visit([&](auto rd) {
      if constexpr (std::is_same<decltype(rd), bit_reader>::value) words[j] = rd.words;
    });
    if (words[j] == nullptr) throw std::logic_error("score_bit_splits: not a one-bit column");
  }
  // counts[(j * 2 + bit) * cols + class], then the class totals: each case adds to one cell of
  // each attribute, and consecutive additions go to different tables instead of waiting on one
  // another.
  std::vector<float>& counts = scratch.ways;
  counts.assign(m * 2 * cols + cols, 0.0f);
  float* t = counts.data();
  float* class_total = t + m * 2 * cols;
  cls.visit([&](auto rd) {
    std::uint32_t const* const* w = words.data();
    for (w_case const& c : cases) {
      float weight = c.second;  // held: the stores below could alias it for all the compiler knows
      std::size_t k = rd(c.first);
      class_total[k] += weight;
      std::size_t word = c.first >> 5, bit = c.first & 31;
      float* cell = t + k;
      for (std::size_t j = 0; j < m; ++j, cell += 2 * cols)
        cell[((w[j][word] >> bit) & 1u) * cols] += weight;
    }
  });
  // Each attribute's tables as quality_discrete lays them out: rows for no value, order 1 and
  // order 2; the branch weights, then the class totals.
  std::vector<float>& freq = scratch.freq;
  std::vector<float>& totals = scratch.totals;
  xlogx_table const& logs = logs_of(opts);
  for (std::size_t j = 0; j < m; ++j) {
    freq.assign(3 * cols, 0.0f);
    std::copy(t + j * 2 * cols, t + (j + 1) * 2 * cols, freq.begin() + cols);
    totals.assign(3 + cols, 0.0f);
    std::copy(class_total, class_total + cols, totals.begin() + 3);
    splitting_desc& d = *best[j];
    d.att = atts[j];
    d.branches = atts[j]->get_distinct();
    discrete_gain(freq, totals.data(), 3, cols, classes, 0.0f, total_weight, min_objects, logs, d);
  }
}

bool search_sorts_cases(column const& att, std::size_t n_cases, order_range const& range) {
  return att.is_continuous() && range.second - range.first > 1 && n_cases > 0 &&
         !(n_cases / (range.second - range.first) > 2);
}

void score_split(column const& att, column const& cls, float total_weight, w_sequence& cases,
                 order_range const& range, float min_objects, options const* opts,
                 split_scratch& scratch, splitting_desc& best, bool sort_copy,
                 order_publisher* publish) {
  best.branches = 0;
  best.att = &att;
  if (range.second - range.first <= 1) return no_split(best);
  unsigned long classes = cls.get_distinct();
  if (att.is_continuous()) {
    bool tally = cases.size() / (range.second - range.first) > 2;
    cls.visit([&](auto c) {
      att.visit([&](auto a) {
        if (tally) {
          quality_tally(a, c, classes, total_weight, cases, range, min_objects, opts, scratch,
                        best);
        } else {
          quality_continuous(a, c, classes, total_weight, cases, range, min_objects, opts, scratch,
                             best, sort_copy, publish);
        }
      });
    });
  } else if (att.is_discrete()) {
    best.branches = att.get_distinct();
    cls.visit([&](auto c) {
      att.visit([&](auto a) {
        quality_discrete(a, c, classes, total_weight, cases, range, min_objects, opts, scratch,
                         best);
      });
    });
  } else {
    no_split(best);
  }
}

namespace {

// given: shares holds the branch shares already.
void partition_into(column const& att, w_case const* begin, w_case const* end, float total_weight,
                    partition_desc const& desc, split_scratch& scratch,
                    std::vector<w_sequence*>& children, std::vector<float>& shares,
                    std::vector<order_range>& ranges, bool given) {
  std::size_t k;
  if (att.is_discrete() || att.is_class()) {
    k = att.get_distinct();
  } else if (att.is_continuous()) {
    k = 2;
  } else {
    throw_no_partition(att);
  }
  children.assign(k, nullptr);
  for (auto& c : children)
    c = new w_sequence();
  if (!given) shares.assign(k, 0.0f);
  if (shares.size() != k) throw std::invalid_argument("partition: one share per branch is needed");
  ranges.assign(k, order_range(0, 0));
  // The father's sorted cases are no longer needed: large tables go before
  // the children are made, so that the two do not add up.
  if (scratch.packed.capacity() > kKeep) std::vector<std::uint64_t>().swap(scratch.packed);
  if (scratch.spare.capacity() > kKeep) std::vector<w_case>().swap(scratch.spare);
  if (scratch.counts.capacity() > kKeep) std::vector<std::uint32_t>().swap(scratch.counts);
  if (scratch.keys.capacity() > kKeep) std::vector<std::uint32_t>().swap(scratch.keys);
  if (scratch.run.capacity() > kKeep) std::vector<std::uint64_t>().swap(scratch.run);
  try {
    if (k == 2 && att.is_continuous()) {
      unsigned long t = att.get_index(desc.threshold.c_str());
      att.visit([&](auto rd) {
        partition_continuous(rd, t, begin, end, total_weight, children, shares, ranges, given);
      });
    } else {
      att.visit([&](auto rd) {
        partition_discrete(rd, begin, end, total_weight, children, shares, ranges, given);
      });
    }
  } catch (...) {
    for (auto* c : children)
      delete c;
    children.clear();
    throw;
  }
}

}  // namespace

void partition_all(column const& att, w_case const* begin, w_case const* end, float total_weight,
                   partition_desc const& desc, split_scratch& scratch,
                   std::vector<w_sequence*>& children, std::vector<float>& shares,
                   std::vector<order_range>& ranges) {
  partition_into(att, begin, end, total_weight, desc, scratch, children, shares, ranges, false);
}

void partition_shared(column const& att, w_case const* begin, w_case const* end,
                      partition_desc const& desc, std::vector<float> const& shares,
                      split_scratch& scratch, std::vector<w_sequence*>& children,
                      std::vector<order_range>& ranges) {
  std::vector<float> given(shares);
  partition_into(att, begin, end, 0.0f, desc, scratch, children, given, ranges, true);
}

void tally_cases(column const& att, column const& cls, w_sequence const& cases,
                 order_range const& range, float* freq) {
  unsigned long base = std::max<unsigned long>(range.first, 1) - 1;
  std::size_t cols = cls.get_distinct() + 1;
  std::vector<float> class_total(cols, 0.0f);  // once a node and attribute, not a row
  float unknown = 0.0f;
  cls.visit([&](auto c) {
    att.visit([&](auto a) { unknown = tally(a, c, cases, base, cols, freq, class_total.data()); });
  });
  freq[0] += unknown;
}

void score_tallies(column const& att, unsigned long classes, float total_weight,
                   std::size_t n_cases, order_range const& range, tally_block const& block,
                   float min_objects, options const* opts, split_scratch& s, splitting_desc& best) {
  best.branches = 0;
  best.att = &att;
  if (tally_rows(att, range) == 0) return no_split(best);
  std::size_t cols = classes + 1;
  unsigned long base = std::max<unsigned long>(range.first, 1) - 1;
  std::size_t rows = block.orders != nullptr ? block.rows : range.second - base;
  float const* freq = block.freq;
  std::vector<float>& f = s.freq;
  f.assign(freq, freq + rows * cols);
  float unknown = f[0];
  f[0] = 0.0f;
  if (att.is_continuous()) {
    best.branches = 2;
    // Where the grower would tally, it evaluates every cut; where it would sort, it passes over
    // the cuts its sorted scan passes over.
    bool tallied = n_cases / (range.second - range.first) > 2;
    if (n_cases == 0) return no_split(best);
    std::vector<float>& totals = s.totals;
    totals.assign(2 * cols, 0.0f);
    float* right = totals.data() + cols;
    for (std::size_t r = 1; r < rows; ++r)
      for (std::size_t k = 0; k < cols; ++k)
        right[k] += f[r * cols + k];
    scan_rows(f, rows, cols, classes, base, total_weight, unknown, n_cases, min_objects, opts,
              totals.data(), right, !tallied, best, block.orders);
  } else if (att.is_discrete()) {
    best.branches = att.get_distinct();
    std::vector<float>& totals = s.totals;
    totals.assign(rows + cols, 0.0f);
    float* class_total = totals.data() + rows;
    for (std::size_t r = 1; r < rows; ++r)
      for (std::size_t k = 0; k < cols; ++k)
        class_total[k] += f[r * cols + k];
    discrete_gain(f, totals.data(), rows, cols, classes, unknown, total_weight, min_objects,
                  logs_of(opts), best);
  } else {
    no_split(best);
  }
}

w_sequence* partition_branch(column const& att, w_case const* begin, w_case const* end,
                             unsigned long branch, float total_weight, float& share,
                             order_range& range, partition_desc const& desc) {
  if (!att.is_discrete() && !att.is_class() && !att.is_continuous()) throw_no_partition(att);
  auto* out = new w_sequence();
  if (att.is_continuous()) {
    unsigned long t = att.get_index(desc.threshold.c_str());
    att.visit([&](auto rd) {
      float wb = 0.0f, wu = 0.0f;
      for (w_case const* c = begin; c != end; ++c) {
        unsigned long a = rd(c->first);
        if (branch == 1) {
          if (a <= t) wb += c->second;
        } else if (branch == 2) {
          if (a > t) wb += c->second;
          if (a == 0) wu += c->second;
        }
      }
      share = wb / (total_weight - wu);
      unsigned long lo = t, hi = t;
      for (w_case const* c = begin; c != end; ++c) {
        unsigned long a = rd(c->first);
        if (a == 0) {
          out->cases().push_back(w_case{c->first, share * c->second});
          lo = 0;
        } else if ((branch == 1 && a <= t) || (branch == 2 && a > t)) {
          out->cases().push_back(*c);
          lo = std::min(lo, a);
          hi = std::max(hi, a);
        }
      }
      range = order_range(lo, hi + 1);
    });
    return out;
  }
  att.visit([&](auto rd) {
    float wv = 0.0f, wu = 0.0f;
    for (w_case const* c = begin; c != end; ++c) {
      unsigned long a = rd(c->first);
      if (a == branch) wv += c->second;
      if (a == 0) wu += c->second;
    }
    share = wv / (total_weight - wu);
    for (w_case const* c = begin; c != end; ++c) {
      unsigned long a = rd(c->first);
      if (a == branch) {
        out->cases().push_back(*c);
      } else if (a == 0) {
        out->cases().push_back(w_case{c->first, share * c->second});
      }
    }
  });
  range = order_range(branch, branch + 1);
  return out;
}

}  // namespace impls
}  // namespace brix
