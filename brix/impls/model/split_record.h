// What a node records of the split search: the threshold and branches a split node keeps, each
// attribute's best split while the node grows, and the growing scratch of an activated node.
// Plain data: the search that fills them is the grower's.
#ifndef BRIX_IMPLS_SPLIT_RECORD_H
#define BRIX_IMPLS_SPLIT_RECORD_H

#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "brix/impls/storage/column.h"

namespace brix {
namespace impls {

// The gain of an attribute that has no admissible split. Deliberately -0.001, not 0: an
// attribute competes only with a gain above it, so a split of gain 0 still stands against none.
constexpr float kNoGain = -0.001f;

// A split on groups of a discrete attribute's values: entry o is the branch, from 1, of value
// order o; entry 0 (the unknown value) is 0. Every value has a branch, those absent from the
// node included.
using value_groups = std::vector<std::uint32_t>;

// A node's value groups, or none: a single pointer, so that the nodes of ordinary splits pay
// for them with 8 bytes. Copies are deep.
class group_map {
 public:
  group_map() = default;
  explicit group_map(value_groups g) : p_(new value_groups(std::move(g))) {}
  group_map(group_map const& o) : p_(o.p_ ? new value_groups(*o.p_) : nullptr) {}
  group_map& operator=(group_map const& o) {
    if (this != &o) p_.reset(o.p_ ? new value_groups(*o.p_) : nullptr);
    return *this;
  }
  group_map(group_map&&) noexcept = default;
  group_map& operator=(group_map&&) noexcept = default;

  explicit operator bool() const { return p_ != nullptr; }
  value_groups const& operator*() const { return *p_; }
  value_groups const* get() const { return p_.get(); }

 private:
  std::unique_ptr<value_groups> p_;
};

// The threshold text and branch count that a split node keeps; a discrete split on groups of
// values also its groups (branches: their number), an ordinary one a branch per value.
struct partition_desc {
  std::string threshold;
  unsigned long branches = 0;
  group_map groups;
};

// The best split of one attribute in one node.
struct splitting_desc {
  unsigned long branches = 0;
  unsigned long low = 0;
  unsigned long high = 0;
  column const* att = nullptr;
  float gain = kNoGain;
  float split_info = 0.0f;
  std::shared_ptr<value_groups const> groups;  // a split on groups of values; else null
  void set_partition_desc(partition_desc& desc) const {
    desc.threshold = att->find_threshold(low, high);
    desc.branches = branches;
    desc.groups = groups ? group_map(*groups) : group_map();
  }
};

// The growing scratch of an activated node: the value range of every attribute among its cases
// and the per-attribute split results. Freed when the node closes, so the records that stay in the
// tree carry only what prediction, pruning, output and the tree file read.
// A child shares its father's ranges, narrowed in one attribute, until it is split itself: the
// nodes waiting in the growing queue then hold no copy of them.
struct _node_work {
  static constexpr unsigned long kNone = ~0UL;
  std::shared_ptr<std::vector<order_range>> ranges;  // null: none
  unsigned long narrowed = kNone;  // the attribute whose range differs from *ranges
  order_range narrow;
  std::vector<splitting_desc> descs;

  // The node's own ranges, the narrowing applied; null when there are none.
  std::vector<order_range>* own() {
    if (ranges && narrowed != kNone) {
      auto mine = std::make_shared<std::vector<order_range>>(*ranges);
      (*mine)[narrowed] = narrow;
      ranges = std::move(mine);
      narrowed = kNone;
    }
    return ranges.get();
  }
};

}  // namespace impls
}  // namespace brix

#endif
