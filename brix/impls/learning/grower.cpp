#include "brix/impls/learning/grower.h"

#include <algorithm>
#include <cstdlib>
#include <iostream>
#include <memory>
#include <stdexcept>

#include "brix/impls/learning/case_sort.h"
#include "brix/impls/learning/constants.h"
#include "brix/impls/learning/partition.h"
#include "brix/impls/learning/split_choice.h"
#include "brix/impls/storage/column_typed.h"
#include "brix/impls/storage/table.h"

namespace brix {
namespace impls {

// ---------------------------------------------------------------- activation

void grower::activate(_decision_node& n, table* t) {
  if (t == nullptr)
    throw std::runtime_error("[_decision_node::activate()]: called with a NULL table.");
  if (n.activated_) disactivate(n);
  if (n.father_ == nullptr) {
    activate_root(n, t);
  } else {
    activate_node(n, t);
  }
  compute_statistics(n, t);
  n.activated_ = true;
}

void grower::activate_root(_decision_node& n, table* t) {
  n.known_fract_ = 1.0f;
  unsigned long atts = t->get_no_attributes();
  std::vector<order_range>& r = n.reset_ranges(nullptr);
  r.reserve(atts);
  for (unsigned long a = 0; a < atts; ++a)
    r.push_back(t->get_attribute(a)->get_range());
}

void grower::activate_node(_decision_node& n, table* t) {
  if (n.father_->status_ != _decision_node::SPLIT_NODE) {
    throw std::runtime_error(
        "[_decision_node::activated()]: father node status not a decision_tree::SPLIT_NODE.");
  }
  if (!n.father_->activated_) {
    throw std::runtime_error("[_decision_node::activated()]: father node status not activated.");
  }
  n.reset_ranges(&n.father_->ranges());
  unsigned long att = n.father_->leaf_or_att_;
  w_sequence const* fc = n.father_->all_cases_;
  w_sequence* cases = partition_branch(*t->get_attribute(att), fc->data(), fc->data() + fc->size(),
                                       n.index_, n.father_->cases_weight_, n.known_fract_,
                                       n.ranges()[att], n.father_->partition_);
  if (n.owns_cases_) delete n.all_cases_;
  n.all_cases_ = cases;
  n.owns_cases_ = true;
}

void grower::activate_substitute_father(_decision_node& n, table* t) {
  if (n.father_ == nullptr) {
    throw std::runtime_error(
        "[_decision_node::activate_substitute_father()]: father node is NULL.");
  }
  if (!n.father_->activated_) {
    throw std::runtime_error(
        "[_decision_node::activate_substitute_father()]: father node status not activated.");
  }
  if (n.activated_) disactivate(n);
  n.index_ = n.father_->index_;
  n.known_fract_ = n.father_->known_fract_;
  n.reset_ranges(&n.father_->ranges());
  if (n.owns_cases_) delete n.all_cases_;
  n.all_cases_ = new w_sequence(*n.father_->all_cases_);
  n.owns_cases_ = true;
  compute_statistics(n, t);
  n.activated_ = true;
}

void grower::activate_with(_decision_node& n, table* t, w_sequence* cases, float known_fraction,
                           order_range att_range) {
  if (n.activated_) disactivate(n);
  n.father_->ranges();  // the father's own, before they are shared
  n.work_.reset(new _node_work());
  n.work_->ranges = n.father_->work_->ranges;
  n.work_->narrowed = n.father_->leaf_or_att_;
  n.work_->narrow = att_range;
  if (n.owns_cases_) delete n.all_cases_;
  n.all_cases_ = cases;
  n.owns_cases_ = true;
  n.known_fract_ = known_fraction;
  compute_statistics(n, t);
  n.activated_ = true;
}

bool grower::distribute(_decision_node& n, table* t, std::vector<w_sequence*>& children,
                        std::vector<float>& shares, std::vector<order_range>& ranges,
                        options const* opts, split_scratch& scratch) {
  w_sequence const* c = n.all_cases_;
  column const* att = t->get_attribute(n.leaf_or_att_);
  partition_all(*att, c->data(), c->data() + c->size(), n.cases_weight_, n.partition_, scratch,
                children, shares, ranges);
  if (holds_all(n, children) && att->is_continuous()) {
    // Deliberate: the midpoint of two neighbouring values, rounded to the column's type, can be
    // the higher value itself (always so next to an infinity); the cut then separates nothing.
    // Only there is the lower value taken as the threshold, so no tree that ends changes.
    drop(children);
    n.partition_.threshold = att->get_o_set()->get_value(n.descs()[n.leaf_or_att_].low);
    partition_all(*att, c->data(), c->data() + c->size(), n.cases_weight_, n.partition_, scratch,
                  children, shares, ranges);
  }
  if (holds_all(n, children)) {
    // A child equal to its father would be split the same way for ever.
    drop(children);
    set_as_leaf(n);
    return false;
  }
  // The root and the heavy nodes sorted their own cases: children light enough start the row
  // order again.
  if (opts != nullptr && opts->any_order &&
      (n.father_ == nullptr || !any_order_at(opts, n.cases_weight_))) {
    for (w_sequence* child : children) {
      double weight = 0.0;  // exact: whole weights; as a float, below 2^24 exactly when it is
      for (w_case const& c : *child)
        weight += c.second;
      bool in_rows = std::is_sorted(child->begin(), child->end(),
                                    [](w_case a, w_case b) { return a.first < b.first; });
      if (!in_rows && any_order_at(opts, static_cast<float>(weight))) sort_by_row(*child, scratch);
    }
    scratch.shed_row_sort();
  }
  return true;
}

bool grower::holds_all(_decision_node const& n, std::vector<w_sequence*> const& children) {
  for (w_sequence const* child : children)
    if (child->size() == n.all_cases_->size()) return true;
  return false;
}

void grower::drop(std::vector<w_sequence*>& children) {
  for (w_sequence* child : children)
    delete child;
  children.clear();
}

void grower::compute_statistics(_decision_node& n, table* t) {
  column const* cls = t->get_class();
  n.class_distribution_.assign(cls->get_distinct() + 1, 0.0f);
  n.cases_count_ = n.all_cases_ ? n.all_cases_->size() : 0;
  if (n.all_cases_ != nullptr) {
    float* d = n.class_distribution_.data();
    cls->visit([&](auto rd) {
      for (w_case const& c : *n.all_cases_)
        d[rd(c.first)] += c.second;
    });
  }
  settle_statistics(n);
}

void grower::activate_from(_decision_node& n, std::vector<float> const& class_weights,
                           unsigned long count, float known_fraction,
                           std::vector<order_range> const& ranges) {
  if (n.activated_) disactivate(n);
  n.reset_ranges(&ranges);
  n.class_distribution_ = class_weights;
  n.cases_count_ = static_cast<std::uint32_t>(count);
  n.known_fract_ = known_fraction;
  settle_statistics(n);
  n.activated_ = true;
}

void grower::settle_statistics(_decision_node& n) {
  // Deliberately float sums in case order, then in class order: weights are 32-bit throughout.
  float w = 0.0f;
  for (float v : n.class_distribution_)
    w += v;
  n.cases_weight_ = w;
  n.most_frequent_ = 0;
  for (std::size_t i = 1; i < n.class_distribution_.size(); ++i) {
    if (n.class_distribution_[i] > n.class_distribution_[n.most_frequent_]) n.most_frequent_ = i;
  }
}

void grower::disactivate(_decision_node& n) {
  if (!n.activated_) return;
  if (n.owns_cases_) {
    delete n.all_cases_;
    n.all_cases_ = nullptr;
    n.owns_cases_ = false;
  }
  n.work_.reset();
  n.activated_ = false;
}

// ---------------------------------------------------------------- split decision

int grower::split(_decision_node& n, table* t, int split_type, float min_obj, options const* opts,
                  split_scratch* scratch) {
  if (!n.activated_)
    throw std::runtime_error("[_decision_node::split] called on an unactivated node.");
  if (split_type != 0 && split_type != 1) {
    throw std::runtime_error("[_decision_node::split] called on an unsupported split type.");
  }
  split_gain(n, t, split_type == 1, min_obj, opts, scratch);
  n.split_status_ = split_type;
  return n.status_;
}

int grower::split_gain(_decision_node& n, table* t, bool use_ratio, float min_obj,
                       options const* opts, split_scratch* scratch) {
  if (split_pre(n, t, use_ratio ? 1 : 0, min_obj)) return n.status_;
  split_scratch own;
  split_scratch& s = scratch != nullptr ? *scratch : own;
  unsigned long atts = t->get_no_attributes();
  bool copy =
      (n.father_ != nullptr && any_order_at(opts, n.cases_weight_)) || keeps_row_order(opts);
  // Two-valued attributes stored a bit a row are tallied side by side where sums are exact.
  std::vector<column const*>& bits = s.bit_atts;
  std::vector<splitting_desc*>& bit_descs = s.bit_descs;
  bits.clear();
  bit_descs.clear();
  if (any_order_at(opts, n.cases_weight_)) {
    std::vector<order_range> const& r = n.ranges();
    for (unsigned long a = 0; a < atts; ++a) {
      column const* col = t->get_attribute(a);
      bool one_bit = opts->one_bit != nullptr
                         ? (*opts->one_bit)[a] != 0
                         : col->is_discrete() && col->get_storage() == storage_kind::bit;
      if (!one_bit || !(r[a] == order_range(1, 3))) continue;
      bits.push_back(col);
      bit_descs.push_back(&n.descs()[a]);
    }
  }
  if (bits.size() < 2) bit_descs.clear();
  if (!bit_descs.empty()) {
    score_bit_splits(bits, *t->get_class(), n.cases_weight_, *n.all_cases_, min_obj, opts, s,
                     bit_descs);
  }
  std::size_t next = 0;
  for (unsigned long a = 0; a < atts; ++a) {
    if (next < bit_descs.size() && bit_descs[next] == &n.descs()[a]) {
      ++next;
      continue;
    }
    split_att(n, t, min_obj, opts, a, copy, s);
  }
  return split_post(n, t);
}

int grower::split_tallies(_decision_node& n, table* t, int split_type, float min_obj,
                          options const* opts, std::vector<tally_block> const& tallies,
                          split_scratch& scratch) {
  if (split_pre(n, t, split_type, min_obj)) return n.status_;
  unsigned long classes = t->get_class()->get_distinct();
  std::vector<order_range> const& r = n.ranges();
  for (unsigned long a = 0; a < t->get_no_attributes(); ++a) {
    score_tallies(*t->get_attribute(a), classes, n.cases_weight_, n.cases_count_, r[a], tallies[a],
                  min_obj, opts, scratch, n.descs()[a]);
  }
  return split_post(n, t);
}

void grower::set_as_leaf(_decision_node& n) {
  n.status_ = _decision_node::LEAF_NODE;
  n.leaf_or_att_ = n.most_frequent_;
  n.error_ = n.get_leaf_error();
  n.reset_partition();
}

bool grower::split_pre(_decision_node& n, table* t, int split_type, float min_obj) {
  if (!n.activated_)
    throw std::runtime_error("[_decision_node::split] called on an unactivated node.");
  n.split_status_ = split_type;
  set_as_leaf(n);
  if (n.cases_weight_ == 0.0f) {
    // Deliberate: an empty node predicts its father's class, not its own (empty) majority.
    n.leaf_or_att_ = n.father_ ? n.father_->most_frequent_ : 0;
    return true;
  }
  if (n.cases_weight_ == n.class_distribution_[n.most_frequent_]) return true;
  if (2 * min_obj > n.cases_weight_) return true;
  if (!n.work_) n.work_.reset(new _node_work());
  n.work_->own();  // before attributes are scored, perhaps on several threads
  n.work_->descs.assign(t->get_no_attributes(), splitting_desc());
  return false;
}

void grower::split_att(_decision_node& n, table* t, float min_obj, options const* opts,
                       unsigned long att, bool sort_copy, split_scratch& scratch) {
  score_split(*t->get_attribute(att), *t->get_class(), n.cases_weight_, *n.all_cases_,
              n.ranges()[att], min_obj, opts, scratch, n.descs()[att], sort_copy);
}

void grower::split_att_on(_decision_node& n, table* t, float min_obj, options const* opts,
                          unsigned long att, w_sequence* cases, split_scratch& scratch,
                          order_publisher* publish) {
  score_split(*t->get_attribute(att), *t->get_class(), n.cases_weight_, *cases, n.ranges()[att],
              min_obj, opts, scratch, n.descs()[att], false, publish);
}

bool grower::split_att_worth(_decision_node& n, unsigned long att) {
  order_range const& r = n.ranges()[att];
  if (r.second - r.first > 1) return true;
  n.descs()[att].gain = kNoGain;
  n.descs()[att].split_info = 0.0f;
  return false;
}

int grower::split_post(_decision_node& n, table* t) {
  try {
    std::vector<splitting_desc> const& all = n.get_split_descs();
    long best = choose_split(all, n.split_status_ == 1);
    if (best >= 0) {
      n.leaf_or_att_ = static_cast<unsigned long>(best);
      n.status_ = _decision_node::SPLIT_NODE;
      all[best].set_partition_desc(n.partition_);
    }
  } catch (std::runtime_error const& e) {
    std::cerr << "exception " << e.what() << std::endl;
    n.print_att_gain(t, std::cerr);
    std::exit(0);  // deliberate: a failed split choice ends the program with status 0
  }
  return n.status_;
}

void grower::make_leaf(_decision_node& n, float error) {
  n.status_ = _decision_node::LEAF_NODE;
  n.leaf_or_att_ = n.most_frequent_;
  n.reset_partition();
  n.error_ = error;
}

}  // namespace impls
}  // namespace brix
