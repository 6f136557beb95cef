// Split quality of one attribute in one node: information gain and split
// information of a multiway split (discrete attributes) or of the best binary
// cut (continuous attributes). Every sum is a 32-bit float accumulated in case
// order and every logarithm is rounded to float: ties between cuts and between
// attributes are decided by these bits.
#include "brix/impls/learning/split_search.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <stdexcept>
#include <type_traits>
#include <vector>

#include "brix/impls/learning/case_sort.h"
#include "brix/impls/learning/constants.h"
#include "brix/impls/learning/entropy.h"
#include "brix/impls/learning/grow_options.h"
#include "brix/impls/learning/value_subsets.h"
#include "brix/impls/storage/column_typed.h"

namespace brix {
namespace impls {

namespace {

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

// grouped: the attribute's number of values where its split is searched on groups of them, else 0.
template <class Att, class Cls>
void quality_discrete(Att att, Cls cls, unsigned long classes, float total_weight,
                      w_sequence const& cases, order_range const& range, float min_objects,
                      options const* opts, split_scratch& s, splitting_desc& best,
                      unsigned long grouped) {
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
  if (grouped > 0 && score_value_groups(freq.data(), rows, cols, base, grouped, class_total,
                                        unknown, total_weight, min_objects, logs, best))
    return;
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
  // The factors of every cut's gain that do not depend on the cut, divided once.
  float known_share = known / (unknown + known);
  float hc_known = hc / known;

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
    float gain = known_share * (hc_known - hs / known);
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

// The moving tallies of a cut scan over sorted cases, in floats: each side's class weights and
// the left side's weight, summed in case order.
struct float_sides {
  float* left;
  float* right;  // the known cases' class totals to start with
  float weight = 0.0f;

  void move(std::uint32_t c, float w) {
    right[c] -= w;
    left[c] += w;
    weight += w;
  }
  float left_weight() const { return weight; }
  float class_info(xlogx_table const& logs, std::size_t classes) const {
    return info(logs, right + 1, classes);
  }
  bool consider(cut_score& score, float l_weight) const {
    return score.consider(left, right, l_weight);
  }
};

// w where keep, else +0: the bits of w * 1 and w * 0 for a weight (never below zero; -0 * 0 is
// -0, but no sum here starts at -0 or reaches it, and +0 and -0 add alike to anything else),
// without a branch on the class, which the compiler makes of the product.
inline float kept(float w, bool keep) {
  std::uint32_t bits;
  std::memcpy(&bits, &w, sizeof bits);
  bits &= 0U - static_cast<std::uint32_t>(keep);
  std::memcpy(&w, &bits, sizeof bits);
  return w;
}

// float_sides for two classes, the sums in registers instead of a table each move would load and
// store: each class's sums take the same weights in the same order, a case of the other class
// adding +0, which leaves any sum of weights as it is. The same bits, without a store and reload
// on every case.
// Each class's x log2 x terms are kept from one cut evaluated to the next and taken again only
// for a class that moved in between: the same terms, summed as info sums them.
struct two_class_sides {
  float left[2] = {0.0f, 0.0f}, right[2];
  float weight = 0.0f;
  float left_terms[2] = {0.0f, 0.0f}, right_terms[2] = {0.0f, 0.0f};
  bool moved1 = true, moved2 = true;

  two_class_sides(float r1, float r2) : right{r1, r2} {}
  void move(std::uint32_t c, float w) {
    float w1 = kept(w, c == 1), w2 = kept(w, c == 2);
    right[0] -= w1;
    left[0] += w1;
    right[1] -= w2;
    left[1] += w2;
    weight += w;
    moved1 |= c == 1;
    moved2 |= c == 2;
  }
  float left_weight() const { return weight; }
  float class_info(xlogx_table const& logs, std::size_t classes) const {
    return info(logs, right, classes);
  }
  bool consider(cut_score& score, float l_weight) {
    xlogx_table const& logs = score.logs;
    if (moved1) {
      left_terms[0] = logs.term(left[0]);
      right_terms[0] = logs.term(right[0]);
      moved1 = false;
    }
    if (moved2) {
      left_terms[1] = logs.term(left[1]);
      right_terms[1] = logs.term(right[1]);
      moved2 = false;
    }
    float hs =
        info_of_terms(logs, left, left_terms, 2) + info_of_terms(logs, right, right_terms, 2);
    return score.consider_info(hs, l_weight);
  }
};

// The same for whole weights summing below 2^24, kept in integers: they hold the very values the
// float sums would, since such sums are exact in any order, so the cut tests and the gains see
// the same floats, and no float add sits on the loop's path.
struct whole_sides {
  std::uint32_t* moved;        // left of the cut
  std::uint32_t const* total;  // the known cases' class totals
  std::uint32_t weight = 0;

  void move(std::uint32_t c, std::uint32_t w) {
    moved[c] += w;
    weight += w;
  }
  float left_weight() const { return static_cast<float>(weight); }
  float class_info(xlogx_table const& logs, std::size_t classes) const {
    std::uint32_t const* t = total;
    return info_whole(
        logs, [t](std::size_t k) { return t[k]; }, classes);
  }
  bool consider(cut_score& score, float l_weight) const {
    return score.consider_whole(moved, total, l_weight);
  }
};

// The best binary cut over n sorted cases, those of unknown value first (up to first), with the
// side tallies of sides. A cut between two orders is tried when either side holds at least the
// least side weight; a stretch of one class is passed over where class_stretch allows.
template <class Sides, class Order, class Class, class Weight>
void scan_cuts(Sides sides, float unknown, std::size_t first, std::size_t n, unsigned long classes,
               float total_weight, float min_objects, options const* opts, Order order_of,
               Class class_of, Weight weight_of, splitting_desc& best) {
  xlogx_table const& logs = logs_of(opts);
  float known = total_weight - unknown;
  if (known < 2 * min_objects) return no_split(best);
  float hc = sides.class_info(logs, classes);
  float m = least_side_weight(min_objects, known, classes);
  float upper = known - m;

  cut_score score{logs, classes, hc, known, unknown};
  unsigned long tried = 0, low = 0, high = 0;
  class_stretch stretch;
  for (std::size_t i = first; i + 1 < n; ++i) {
    std::uint32_t c = class_of(i);
    sides.move(c, weight_of(i));
    stretch.add(c);
    float l_weight = sides.left_weight();
    if (l_weight < m) continue;
    if (l_weight > upper) break;
    std::uint32_t a = order_of(i), a_next = order_of(i + 1);
    if (a == a_next) continue;
    ++tried;
    if (stretch.passes(i, n, a_next, sides.weight, upper, order_of, class_of, weight_of)) continue;
    stretch.open = false;
    if (sides.consider(score, l_weight)) {
      low = a;
      high = a_next;
    }
  }
  finish_cut(best, score.best_gain, score.split_info, tried, total_weight, n, opts, low, high);
}

// scan_cuts over cases sorted with their classes in packed and their weights where sorted keeps
// them.
template <class Sorted>
void scan_sorted(Sorted sorted, std::uint64_t const* packed, std::size_t n, unsigned long classes,
                 float total_weight, float min_objects, options const* opts, split_scratch& s,
                 splitting_desc& best) {
  auto order_of = [packed](std::size_t i) { return static_cast<std::uint32_t>(packed[i] >> 32); };
  auto class_of = [&sorted](std::size_t i) { return sorted.class_of(i); };
  auto weight_of = [&sorted](std::size_t i) { return sorted.weight_of(i); };

  if (classes == 2) {
    float unknown = 0.0f, right1 = 0.0f, right2 = 0.0f;
    std::size_t first = 0;
    while (first < n && order_of(first) == 0)  // unknown orders sort first
      unknown += weight_of(first++);
    for (std::size_t i = first; i < n; ++i) {
      std::uint32_t c = class_of(i);
      float w = weight_of(i);
      right1 += kept(w, c == 1);
      right2 += kept(w, c == 2);
    }
    return scan_cuts(two_class_sides(right1, right2), unknown, first, n, classes, total_weight,
                     min_objects, opts, order_of, class_of, weight_of, best);
  }
  std::size_t cols = classes + 1;
  std::vector<float>& totals = s.totals;
  totals.assign(2 * cols, 0.0f);
  float_sides sides{totals.data(), totals.data() + cols};
  float unknown = 0.0f;
  std::size_t first = 0;
  for (std::size_t i = 0; i < n; ++i) {
    if (order_of(i) == 0) {
      unknown += weight_of(i);
      ++first;
    } else {
      sides.right[class_of(i)] += weight_of(i);
    }
  }
  scan_cuts(sides, unknown, first, n, classes, total_weight, min_objects, opts, order_of, class_of,
            weight_of, best);
}

// scan_cuts for whole weights summing below 2^24, packed as weight << 8 | class beside the
// order; the class totals are counted in four interleaved tables.
void scan_sorted_whole(std::uint64_t const* packed, std::size_t n, unsigned long classes,
                       float total_weight, float min_objects, options const* opts, split_scratch& s,
                       splitting_desc& best) {
  auto order_of = [packed](std::size_t i) { return static_cast<std::uint32_t>(packed[i] >> 32); };
  auto class_of = [packed](std::size_t i) { return static_cast<std::uint32_t>(packed[i] & 0xFF); };
  auto weight_of = [packed](std::size_t i) { return static_cast<std::uint32_t>(packed[i]) >> 8; };

  std::size_t cols = classes + 1;
  std::vector<std::uint32_t>& counts = s.counts;
  counts.assign(6 * cols, 0);
  std::uint32_t* ways = counts.data();
  std::uint32_t* total = ways + 4 * cols;
  std::uint32_t unknown_w = 0;
  std::size_t first = 0;
  while (first < n && order_of(first) == 0)  // unknown orders sort first
    unknown_w += weight_of(first++);
  for (std::size_t i = first; i < n; ++i)
    ways[(i & 3) * cols + class_of(i)] += weight_of(i);
  for (std::size_t k = 0; k < cols; ++k)
    total[k] = ways[k] + ways[cols + k] + ways[2 * cols + k] + ways[3 * cols + k];
  scan_cuts(whole_sides{total + cols, total}, static_cast<float>(unknown_w), first, n, classes,
            total_weight, min_objects, opts, order_of, class_of, weight_of, best);
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
    scan_sorted(sorted, packed.data(), n, classes, total_weight, min_objects, opts, s, best);
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
    return scan_sorted_whole(packed.data(), n, classes, total_weight, min_objects, opts, s, best);
  }
  std::vector<w_case> const& copy =
      sort_copied(att, cls, cases, range, s, false, opts != nullptr && opts->stable_order);
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
               float* right, bool like_sort, splitting_desc& best, std::vector<float>& terms,
               std::uint32_t const* orders = nullptr) {
  xlogx_table const& logs = logs_of(opts);
  float known = total_weight - unknown;
  if (known < 2 * min_objects) return no_split(best);
  float hc = info(logs, right + 1, classes);
  // Each class's x log2 x terms, left then right, kept from one evaluated cut to the next and
  // taken again for the classes a row moved (the rest keep their bits: adding 0 changes no sum
  // here), then summed as info sums them. stale[k] is nonzero where a class moved.
  terms.assign(3 * cols, 1.0f);
  float* left_terms = terms.data();
  float* right_terms = left_terms + cols;
  float* stale = right_terms + cols;
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
      if (row[k] != 0.0f) stale[k] = 1.0f;
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
    for (std::size_t k = 1; k < cols; ++k) {
      if (stale[k] == 0.0f) continue;
      left_terms[k] = logs.term(left[k]);
      right_terms[k] = logs.term(right[k]);
      stale[k] = 0.0f;
    }
    float hs = info_of_terms(logs, left + 1, left_terms + 1, classes) +
               info_of_terms(logs, right + 1, right_terms + 1, classes);
    if (score.consider_info(hs, l_weight)) {
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
            left, right, false, best, s.terms);
}

}  // namespace

void split_scratch::release() {
  std::vector<std::uint64_t>().swap(packed);
  std::vector<w_case>().swap(spare);
  std::vector<std::uint32_t>().swap(counts);
  std::vector<std::uint32_t>().swap(keys);
  std::vector<std::uint64_t>().swap(run);
  std::vector<float>().swap(freq);
  std::vector<float>().swap(totals);
  std::vector<float>().swap(ways);
  std::vector<float>().swap(terms);
}

void split_scratch::shed_row_sort() {
  if (spare.capacity() > kScratchKeep) std::vector<w_case>().swap(spare);
}

void split_scratch::fit(std::size_t n_cases) {
  std::size_t largest = std::max(
      {packed.capacity(), spare.capacity(), counts.capacity(), keys.capacity(), run.capacity()});
  if (largest / 4 > std::max<std::size_t>(n_cases, kScratchKeep)) release();
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
    best.groups.reset();
    unsigned long grouped = groups_values(opts, att) ? att.get_distinct() : 0;
    cls.visit([&](auto c) {
      att.visit([&](auto a) {
        quality_discrete(a, c, classes, total_weight, cases, range, min_objects, opts, scratch,
                         best, grouped);
      });
    });
  } else {
    no_split(best);
  }
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
              totals.data(), right, !tallied, best, s.terms, block.orders);
  } else if (att.is_discrete()) {
    best.branches = att.get_distinct();
    std::vector<float>& totals = s.totals;
    totals.assign(rows + cols, 0.0f);
    float* class_total = totals.data() + rows;
    for (std::size_t r = 1; r < rows; ++r)
      for (std::size_t k = 0; k < cols; ++k)
        class_total[k] += f[r * cols + k];
    best.groups.reset();
    if (groups_values(opts, att) &&
        score_value_groups(f.data(), rows, cols, base, att.get_distinct(), class_total, unknown,
                           total_weight, min_objects, logs_of(opts), best))
      return;
    discrete_gain(f, totals.data(), rows, cols, classes, unknown, total_weight, min_objects,
                  logs_of(opts), best);
  } else {
    no_split(best);
  }
}

}  // namespace impls
}  // namespace brix
