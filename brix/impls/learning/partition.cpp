#include "brix/impls/learning/partition.h"

#include <algorithm>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

#include "brix/impls/storage/column_typed.h"

namespace brix {
namespace impls {

namespace {

[[noreturn]] void throw_no_partition(column const& c) {
  throw std::runtime_error("[column::partition] method not defined for column type '" +
                           c.get_type() + "'");
}

// The two passes over the father's cases for a discrete split: per-branch
// sums in case order, then each case copied to its branch and every unknown
// one to all branches with the branch's share of its weight. The orders are
// read again in the second pass rather than kept: a table of them would
// sit beside the father's cases and the children at the peak of growing.
// groups, when given, maps each value order to its branch (from 1); otherwise branch v is order v.
// The orders each branch of a split on value groups spans: from its first value's order to past
// its last (ranges: one a branch).
void group_spans(value_groups const& groups, std::vector<order_range>& ranges) {
  std::fill(ranges.begin(), ranges.end(), order_range(0, 0));
  for (std::size_t o = 1; o < groups.size(); ++o) {
    order_range& r = ranges[groups[o] - 1];
    if (r.second == 0) r.first = o;
    r.second = o + 1;
  }
}

template <class Reader>
void partition_discrete(Reader rd, w_case const* begin, w_case const* end, float total_weight,
                        std::vector<w_sequence*>& children, std::vector<float>& shares,
                        std::vector<order_range>& ranges, bool given, value_groups const* groups) {
  std::size_t k = children.size();
  auto branch = [groups](std::uint32_t a) { return groups != nullptr ? (*groups)[a] : a; };
  std::vector<float> wv(k + 1, 0.0f);
  std::vector<std::size_t> count(k + 1, 0);
  for (w_case const* c = begin; c != end; ++c) {
    auto a = branch(static_cast<std::uint32_t>(rd(c->first)));
    wv[a] += c->second;
    ++count[a];
  }
  float known = total_weight - wv[0];
  for (std::size_t v = 1; v <= k; ++v) {
    if (!given) shares[v - 1] = wv[v] / known;
    ranges[v - 1] = order_range(v, v + 1);
    children[v - 1]->reserve(count[v] + count[0]);
  }
  if (groups != nullptr) group_spans(*groups, ranges);
  for (w_case const* c = begin; c != end; ++c) {
    auto a = branch(static_cast<std::uint32_t>(rd(c->first)));
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

// given: shares holds the branch shares already.
void partition_into(column const& att, w_case const* begin, w_case const* end, float total_weight,
                    partition_desc const& desc, split_scratch& scratch,
                    std::vector<w_sequence*>& children, std::vector<float>& shares,
                    std::vector<order_range>& ranges, bool given) {
  std::size_t k;
  value_groups const* groups = desc.groups.get();
  if (groups != nullptr) {
    if (!att.is_discrete() || groups->size() != att.get_distinct() + 1)
      throw std::invalid_argument("partition: value groups of another attribute");
    k = desc.branches;
  } else if (att.is_discrete() || att.is_class()) {
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
  if (scratch.packed.capacity() > kScratchKeep) std::vector<std::uint64_t>().swap(scratch.packed);
  if (scratch.spare.capacity() > kScratchKeep) std::vector<w_case>().swap(scratch.spare);
  if (scratch.counts.capacity() > kScratchKeep) std::vector<std::uint32_t>().swap(scratch.counts);
  if (scratch.keys.capacity() > kScratchKeep) std::vector<std::uint32_t>().swap(scratch.keys);
  if (scratch.run.capacity() > kScratchKeep) std::vector<std::uint64_t>().swap(scratch.run);
  try {
    if (k == 2 && att.is_continuous()) {
      unsigned long t = att.get_index(desc.threshold.c_str());
      att.visit([&](auto rd) {
        partition_continuous(rd, t, begin, end, total_weight, children, shares, ranges, given);
      });
    } else {
      att.visit([&](auto rd) {
        partition_discrete(rd, begin, end, total_weight, children, shares, ranges, given, groups);
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
  value_groups const* groups = desc.groups.get();
  auto branch_of = [groups](unsigned long a) -> unsigned long {
    return groups != nullptr ? (*groups)[a] : a;
  };
  att.visit([&](auto rd) {
    float wv = 0.0f, wu = 0.0f;
    for (w_case const* c = begin; c != end; ++c) {
      unsigned long a = rd(c->first);
      if (a != 0 && branch_of(a) == branch) wv += c->second;
      if (a == 0) wu += c->second;
    }
    share = wv / (total_weight - wu);
    for (w_case const* c = begin; c != end; ++c) {
      unsigned long a = rd(c->first);
      if (a == 0) {
        out->cases().push_back(w_case{c->first, share * c->second});
      } else if (branch_of(a) == branch) {
        out->cases().push_back(*c);
      }
    }
  });
  range = order_range(branch, branch + 1);
  if (groups != nullptr) {
    std::vector<order_range> spans(desc.branches);
    group_spans(*groups, spans);
    range = spans[branch - 1];
  }
  return out;
}

}  // namespace impls
}  // namespace brix
