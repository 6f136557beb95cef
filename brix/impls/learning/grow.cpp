// Growing: node activation and statistics, the split decision, the
// depth-first grower and prepruning.
#include <algorithm>
#include <iostream>
#include <memory>
#include <stdexcept>
#include <type_traits>

#include "brix/impls/learning/case_sort.h"
#include "brix/impls/learning/constants.h"
#include "brix/impls/learning/partition.h"
#include "brix/impls/learning/split_choice.h"
#include "brix/impls/model/decision_tree.h"
#include "brix/impls/storage/column_typed.h"
#include "brix/impls/storage/table.h"
#include "zel/util/proc.h"

namespace brix {
namespace impls {

// ---------------------------------------------------------------- nodes

_decision_node::_decision_node(_decision_node* father, unsigned long index)
    : father_(father), index_(index) {}

_decision_node::_decision_node(w_sequence* cases) : all_cases_(cases) {}

_decision_node::~_decision_node() {
  if (owns_cases_) delete all_cases_;
}

std::vector<splitting_desc> const& _decision_node::get_split_descs() const {
  static std::vector<splitting_desc> const none;
  return work_ ? work_->descs : none;
}

std::vector<order_range>& _decision_node::reset_ranges(std::vector<order_range> const* from) {
  if (!work_) work_.reset(new _node_work());
  work_->ranges = from != nullptr ? std::make_shared<std::vector<order_range>>(*from)
                                  : std::make_shared<std::vector<order_range>>();
  work_->narrowed = _node_work::kNone;
  return *work_->ranges;
}

_decision_node* _decision_node::clone() const {
  auto* n = new _decision_node(father_, index_);
  n->status_ = status_;
  n->activated_ = activated_;
  n->cases_weight_ = cases_weight_;
  n->cases_count_ = cases_count_;
  n->class_distribution_ = class_distribution_;
  n->known_fract_ = known_fract_;
  n->most_frequent_ = most_frequent_;
  if (all_cases_ != nullptr && owns_cases_) {
    n->all_cases_ = new w_sequence(*all_cases_);
    n->owns_cases_ = true;
  } else {
    n->all_cases_ = all_cases_;
  }
  if (work_) n->work_.reset(new _node_work(*work_));
  n->split_status_ = split_status_;
  n->error_ = error_;
  n->leaf_or_att_ = leaf_or_att_;
  n->partition_ = partition_;
  return n;
}

void _decision_node::set_father(_decision_node* father) {
  if (activated_) {
    throw std::runtime_error("[_decision_node::activate_substitute_father()]: node is activated.");
  }
  if (father == nullptr) {
    throw std::runtime_error(
        "[_decision_node::activate_substitute_father()]: father node is NULL.");
  }
  father_ = father;
}

void _decision_node::activate(table* t) {
  if (t == nullptr)
    throw std::runtime_error("[_decision_node::activate()]: called with a NULL table.");
  if (activated_) disactivate();
  if (father_ == nullptr) {
    activate_root(t);
  } else {
    activate_node(t);
  }
  compute_statistics(t);
  activated_ = true;
}

void _decision_node::activate_root(table* t) {
  known_fract_ = 1.0f;
  unsigned long n = t->get_no_attributes();
  std::vector<order_range>& r = reset_ranges(nullptr);
  r.reserve(n);
  for (unsigned long a = 0; a < n; ++a)
    r.push_back(t->get_attribute(a)->get_range());
}

void _decision_node::activate_node(table* t) {
  if (father_->status_ != SPLIT_NODE) {
    throw std::runtime_error(
        "[_decision_node::activated()]: father node status not a decision_tree::SPLIT_NODE.");
  }
  if (!father_->activated_) {
    throw std::runtime_error("[_decision_node::activated()]: father node status not activated.");
  }
  reset_ranges(&father_->ranges());
  unsigned long att = father_->leaf_or_att_;
  w_sequence const* fc = father_->all_cases_;
  w_sequence* cases =
      partition_branch(*t->get_attribute(att), fc->data(), fc->data() + fc->size(), index_,
                       father_->cases_weight_, known_fract_, ranges()[att], father_->partition_);
  if (owns_cases_) delete all_cases_;
  all_cases_ = cases;
  owns_cases_ = true;
}

void _decision_node::activate_substitute_father(table* t) {
  if (father_ == nullptr) {
    throw std::runtime_error(
        "[_decision_node::activate_substitute_father()]: father node is NULL.");
  }
  if (!father_->activated_) {
    throw std::runtime_error(
        "[_decision_node::activate_substitute_father()]: father node status not activated.");
  }
  if (activated_) disactivate();
  index_ = father_->index_;
  known_fract_ = father_->known_fract_;
  reset_ranges(&father_->ranges());
  if (owns_cases_) delete all_cases_;
  all_cases_ = new w_sequence(*father_->all_cases_);
  owns_cases_ = true;
  compute_statistics(t);
  activated_ = true;
}

void _decision_node::activate_with(table* t, w_sequence* cases, float known_fraction,
                                   order_range att_range) {
  if (activated_) disactivate();
  father_->ranges();  // the father's own, before they are shared
  work_.reset(new _node_work());
  work_->ranges = father_->work_->ranges;
  work_->narrowed = father_->leaf_or_att_;
  work_->narrow = att_range;
  if (owns_cases_) delete all_cases_;
  all_cases_ = cases;
  owns_cases_ = true;
  known_fract_ = known_fraction;
  compute_statistics(t);
  activated_ = true;
}

bool _decision_node::distribute(table* t, std::vector<w_sequence*>& children,
                                std::vector<float>& shares, std::vector<order_range>& ranges,
                                options const* opts, split_scratch& scratch) {
  w_sequence const* c = all_cases_;
  column const* att = t->get_attribute(leaf_or_att_);
  partition_all(*att, c->data(), c->data() + c->size(), cases_weight_, partition_, scratch,
                children, shares, ranges);
  if (holds_all(children) && att->is_continuous()) {
    // Deliberate: the midpoint of two neighbouring values, rounded to the column's type, can be
    // the higher value itself (always so next to an infinity); the cut then separates nothing.
    // Only there is the lower value taken as the threshold, so no tree that ends changes.
    drop(children);
    partition_.threshold = att->get_o_set()->get_value(descs()[leaf_or_att_].low);
    partition_all(*att, c->data(), c->data() + c->size(), cases_weight_, partition_, scratch,
                  children, shares, ranges);
  }
  if (holds_all(children)) {
    // A child equal to its father would be split the same way for ever.
    drop(children);
    set_as_leaf();
    return false;
  }
  // The root and the heavy nodes sorted their own cases: children light enough start the row
  // order again.
  if (opts != nullptr && opts->any_order &&
      (father_ == nullptr || !any_order_at(opts, cases_weight_))) {
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

bool _decision_node::holds_all(std::vector<w_sequence*> const& children) const {
  for (w_sequence const* child : children)
    if (child->size() == all_cases_->size()) return true;
  return false;
}

void _decision_node::drop(std::vector<w_sequence*>& children) {
  for (w_sequence* child : children)
    delete child;
  children.clear();
}

void _decision_node::compute_statistics(table* t) {
  column const* cls = t->get_class();
  class_distribution_.assign(cls->get_distinct() + 1, 0.0f);
  cases_count_ = all_cases_ ? all_cases_->size() : 0;
  if (all_cases_ != nullptr) {
    float* d = class_distribution_.data();
    cls->visit([&](auto rd) {
      for (w_case const& c : *all_cases_)
        d[rd(c.first)] += c.second;
    });
  }
  settle_statistics();
}

void _decision_node::activate_from(std::vector<float> const& class_weights, unsigned long count,
                                   float known_fraction, std::vector<order_range> const& ranges) {
  if (activated_) disactivate();
  reset_ranges(&ranges);
  class_distribution_ = class_weights;
  cases_count_ = static_cast<std::uint32_t>(count);
  known_fract_ = known_fraction;
  settle_statistics();
  activated_ = true;
}

void _decision_node::settle_statistics() {
  // Deliberately float sums in case order, then in class order: weights are 32-bit throughout.
  float w = 0.0f;
  for (float v : class_distribution_)
    w += v;
  cases_weight_ = w;
  most_frequent_ = 0;
  for (std::size_t i = 1; i < class_distribution_.size(); ++i) {
    if (class_distribution_[i] > class_distribution_[most_frequent_]) most_frequent_ = i;
  }
}

void _decision_node::disactivate() {
  if (!activated_) return;
  if (owns_cases_) {
    delete all_cases_;
    all_cases_ = nullptr;
    owns_cases_ = false;
  }
  work_.reset();
  activated_ = false;
}

// ---------------------------------------------------------------- split decision

int _decision_node::split(table* t, int split_type, float min_obj, options const* opts,
                          split_scratch* scratch) {
  if (!activated_)
    throw std::runtime_error("[_decision_node::split] called on an unactivated node.");
  if (split_type != 0 && split_type != 1) {
    throw std::runtime_error("[_decision_node::split] called on an unsupported split type.");
  }
  split_gain(t, split_type == 1, min_obj, opts, scratch);
  split_status_ = split_type;
  return status_;
}

int _decision_node::split_gain(table* t, bool use_ratio, float min_obj, options const* opts,
                               split_scratch* scratch) {
  if (split_pre(t, use_ratio ? 1 : 0, min_obj)) return status_;
  split_scratch own;
  split_scratch& s = scratch != nullptr ? *scratch : own;
  unsigned long n = t->get_no_attributes();
  bool copy = father_ != nullptr && any_order_at(opts, cases_weight_);
  // Two-valued attributes stored a bit a row are tallied side by side where sums are exact.
  std::vector<column const*>& bits = s.bit_atts;
  std::vector<splitting_desc*>& bit_descs = s.bit_descs;
  bits.clear();
  bit_descs.clear();
  if (any_order_at(opts, cases_weight_)) {
    std::vector<order_range> const& r = ranges();
    for (unsigned long a = 0; a < n; ++a) {
      column const* col = t->get_attribute(a);
      bool one_bit = opts->one_bit != nullptr
                         ? (*opts->one_bit)[a] != 0
                         : col->is_discrete() && col->get_storage() == storage_kind::bit;
      if (!one_bit || !(r[a] == order_range(1, 3))) continue;
      bits.push_back(col);
      bit_descs.push_back(&descs()[a]);
    }
  }
  if (bits.size() < 2) bit_descs.clear();
  if (!bit_descs.empty()) {
    score_bit_splits(bits, *t->get_class(), cases_weight_, *all_cases_, min_obj, opts, s,
                     bit_descs);
  }
  std::size_t next = 0;
  for (unsigned long a = 0; a < n; ++a) {
    if (next < bit_descs.size() && bit_descs[next] == &descs()[a]) {
      ++next;
      continue;
    }
    split_att(t, min_obj, opts, a, copy, s);
  }
  return split_post(t);
}

int _decision_node::split_tallies(table* t, int split_type, float min_obj, options const* opts,
                                  std::vector<tally_block> const& tallies, split_scratch& scratch) {
  if (split_pre(t, split_type, min_obj)) return status_;
  unsigned long classes = t->get_class()->get_distinct();
  std::vector<order_range> const& r = ranges();
  for (unsigned long a = 0; a < t->get_no_attributes(); ++a) {
    score_tallies(*t->get_attribute(a), classes, cases_weight_, cases_count_, r[a], tallies[a],
                  min_obj, opts, scratch, descs()[a]);
  }
  return split_post(t);
}

void _decision_node::set_as_leaf() {
  status_ = LEAF_NODE;
  leaf_or_att_ = most_frequent_;
  error_ = get_leaf_error();
  reset_partition();
}

bool _decision_node::split_pre(table* t, int split_type, float min_obj) {
  if (!activated_)
    throw std::runtime_error("[_decision_node::split] called on an unactivated node.");
  split_status_ = split_type;
  set_as_leaf();
  if (cases_weight_ == 0.0f) {
    // Deliberate: an empty node predicts its father's class, not its own (empty) majority.
    leaf_or_att_ = father_ ? father_->most_frequent_ : 0;
    return true;
  }
  if (cases_weight_ == class_distribution_[most_frequent_]) return true;
  if (2 * min_obj > cases_weight_) return true;
  if (!work_) work_.reset(new _node_work());
  work_->own();  // before attributes are scored, perhaps on several threads
  work_->descs.assign(t->get_no_attributes(), splitting_desc());
  return false;
}

void _decision_node::split_att(table* t, float min_obj, options const* opts, unsigned long att,
                               bool sort_copy, split_scratch& scratch) {
  score_split(*t->get_attribute(att), *t->get_class(), cases_weight_, *all_cases_, ranges()[att],
              min_obj, opts, scratch, descs()[att], sort_copy);
}

void _decision_node::split_att_on(table* t, float min_obj, options const* opts, unsigned long att,
                                  w_sequence* cases, split_scratch& scratch,
                                  order_publisher* publish) {
  score_split(*t->get_attribute(att), *t->get_class(), cases_weight_, *cases, ranges()[att],
              min_obj, opts, scratch, descs()[att], false, publish);
}

bool _decision_node::split_att_worth(unsigned long att) {
  order_range const& r = ranges()[att];
  if (r.second - r.first > 1) return true;
  descs()[att].gain = kNoGain;
  descs()[att].split_info = 0.0f;
  return false;
}

int _decision_node::split_post(table* t) {
  try {
    std::vector<splitting_desc> const& all = get_split_descs();
    long best = choose_split(all, split_status_ == 1);
    if (best >= 0) {
      leaf_or_att_ = static_cast<unsigned long>(best);
      status_ = SPLIT_NODE;
      all[best].set_partition_desc(partition_);
    }
  } catch (std::runtime_error const& e) {
    std::cerr << "exception " << e.what() << std::endl;
    print_att_gain(t, std::cerr);
    std::exit(0);  // deliberate: a failed split choice ends the program with status 0
  }
  return status_;
}

void _decision_node::make_leaf(float error) {
  status_ = LEAF_NODE;
  leaf_or_att_ = most_frequent_;
  reset_partition();
  error_ = error;
}

void _decision_node::print_att_gain(table* t, std::ostream& out) const {
  out << cases_count_ << " items, total weight " << cases_weight_ << std::endl;
  out << "[Attribute] [gain] [split] [first] [second] [OneOnAlpha] [thres] " << std::endl
      << std::endl;
  std::vector<splitting_desc> const& all = get_split_descs();
  std::vector<order_range> const* ranges = get_att_ranges();
  for (std::size_t a = 0; a < all.size(); ++a) {
    auto const& d = all[a];
    order_range r = ranges ? (*ranges)[a] : order_range(0, 0);
    out << t->get_attribute(a)->get_name() << " " << d.gain << " " << d.split_info << " " << r.first
        << " " << r.second << " " << cases_count_ << " " << std::endl;
  }
  if (status_ == LEAF_NODE) {
    out << "leaf node, class " << t->get_class()->get_o_set()->get_value(leaf_or_att_) << ", error "
        << error_;
  } else {
    out << "split node, best att: " << t->get_attribute(leaf_or_att_)->get_name();
  }
  out << std::endl;
}

// ---------------------------------------------------------------- growing

namespace {

// Prepruning of one split node, the same step for a grown tree (preprune) and while growing depth
// first: the bound its children's values are summed against, each child's own bound, and the
// verdict once the sum reaches it or the children end. Deliberate: the margin, the early stop at
// the bound and, for a kept subtree, the leaf error less the margin (not the subtree's sum) as its
// value; the float and double steps are part of the result.
struct preprune_step {
  float leaf_error = 0.0f;
  float bound = 0.0f;

  preprune_step() = default;
  preprune_step(float leaf, float father_bound)
      : leaf_error(leaf),
        bound(
            static_cast<float>(std::min(static_cast<double>(father_bound), leaf - kPruneMargin))) {}

  // Keeps the subtree, its error the children's sum, or collapses it into a leaf; returns the
  // value the father sums.
  float settle(_decision_tree& tree, float sum) const {
    if (sum < leaf_error - kPruneMargin) {
      tree.get_node()->set_error(sum);
      return static_cast<float>(leaf_error - kPruneMargin);
    }
    tree.collapse(leaf_error);
    return leaf_error;
  }
};

// Copies of at least so many rows give their pages back when dropped.
constexpr unsigned long kLocalReturn = 16384;

// The orders of the rows of cases, in case order, into to (a column of the same kind and storage
// on the same value set).
void gather_orders(column const& from, column& to, w_case const* cases, std::size_t n) {
  from.visit([&](auto rd) {
    auto fill = [&](auto& rows) {
      rows.resize(n);
      for (std::size_t i = 0; i < n; ++i)
        rows[i] = static_cast<std::remove_reference_t<decltype(rows[0])>>(rd(cases[i].first));
    };
    switch (to.get_storage()) {
      case storage_kind::bit: {
        zel::adt::bitmap& bits = static_cast<column_bool&>(to).bits();
        bits.resize(n);  // fresh bits read 0: only the second value's are set
        std::uint32_t* words = bits.words();
        for (std::size_t i = 0; i < n; ++i)
          words[i >> 5] |= static_cast<std::uint32_t>(rd(cases[i].first) - 1) << (i & 31);
        break;
      }
      case storage_kind::u8:
        fill(static_cast<column_typed<std::uint8_t>&>(to).rows());
        break;
      case storage_kind::u16:
        fill(static_cast<column_typed<std::uint16_t>&>(to).rows());
        break;
      case storage_kind::u32:
        fill(static_cast<column_typed<std::uint32_t>&>(to).rows());
        break;
      case storage_kind::u64:
        fill(static_cast<column_typed<unsigned long long>&>(to).rows());
        break;
      default:
        break;
    }
  });
}

// A table of the node's cases alone, with the cases renumbered to its rows; null where the node
// is not worth it. Only cases in ascending row order are renumbered, so that every comparison of
// rows gives what it gave before: the subtree grows exactly as it would on the table t.
std::unique_ptr<table> localize(table const& t, _decision_node const& node, float min_obj,
                                options const* opts) {
  // The root's cases are its caller's, and the model keeps their order: never renumbered.
  if (node.get_father() == nullptr) return nullptr;
  w_sequence* cases = node.get_all_cases();
  std::size_t n = cases != nullptr ? cases->size() : 0;
  if (opts == nullptr || n < opts->local_min_cases || n * kLocalSparsity > t.get_no_rows())
    return nullptr;
  double row_bytes = 0.0;
  for (unsigned long c = 0; c < t.get_loaded_columns(); ++c)
    row_bytes += storage_bytes(t.get_column(c)->get_storage());
  if (row_bytes * static_cast<double>(t.get_no_rows()) < opts->local_from_bytes) return nullptr;
  // Nodes that stay leaves read nothing more.
  float weight = node.get_cases_weight();
  if (weight == node.get_class_distribution()[node.get_most_frequent_class()] ||
      2 * min_obj > weight)
    return nullptr;
  if (!std::is_sorted(cases->begin(), cases->end(),
                      [](w_case a, w_case b) { return a.first < b.first; }))
    return nullptr;
  std::unique_ptr<table> local(t.clone_metadata());
  local->set_state(n, t.get_loaded_columns(), t.get_class_index(), t.get_weights_index(),
                   t.get_verbosity(), t.is_for_tree());
  for (unsigned long c = 0; c < t.get_loaded_columns(); ++c) {
    column const* from = t.get_column(c);
    if (from->get_storage() == storage_kind::none || from->is_weights()) continue;
    gather_orders(*from, *local->get_column(c), cases->data(), n);
  }
  for (std::size_t i = 0; i < n; ++i)
    (*cases)[i].first = static_cast<decltype(w_case::first)>(i);
  return local;
}

// Drops a node's own table once its subtree is grown. The pages of a large one go back to the
// system: the heap would keep them, and the next large node or the evaluation would not reuse
// them all, so each copy would add to the process's peak.
void release(std::unique_ptr<table>& local) {
  if (!local) return;
  bool large = local->get_no_rows() >= kLocalReturn;
  local.reset();
  if (large) zel::util::proc::return_freed_blocks();
}

}  // namespace

void _decision_tree::branch_out(table* t, options const* opts, split_scratch& scratch,
                                std::vector<w_sequence*>& parts, std::vector<float>& shares,
                                std::vector<order_range>& ranges) {
  _decision_node* node = get_node();
  if (node->status_ == _decision_node::SPLIT_NODE && node->get_no_of_splits() >= 1 &&
      node->distribute(t, parts, shares, ranges, opts, scratch)) {
    for (std::size_t i = 0; i < parts.size(); ++i) {
      auto* child = new _decision_node(node, i + 1);
      auto* sub = new _decision_tree();
      sub->set_node(child);
      push_back_child(sub);
      child->activate_with(t, parts[i], shares[i], ranges[i]);
      parts[i] = nullptr;
    }
  }
  node->disactivate();
}

void _decision_tree::build(table* t, w_sequence* cases, int split_type, options const* opts,
                           float min_obj, int workers, prune_params const* prune) {
  delete_childs();
  set_node(new _decision_node(cases));
  if (workers < 1) {
    build_depth(t, split_type, min_obj, opts, prune);
  } else {
    build_ff(t, split_type, min_obj, opts, workers);
    preprune(1.0f);
  }
}

// Depth first, and prepruned on the way exactly as preprune(1.0f) would prune the grown tree: a
// node's bound is known before its children grow, so each child is prepruned as soon as its
// subtree is complete. Children that prepruning would not reach are grown but left as they are;
// those of a node it collapses are dropped ungrown. With prune given, each complete subtree is then
// pruned as well (pruning reaches a node unless one above has known fraction 0). The tree thus
// holds the open path, its waiting brothers with their cases, and settled subtrees, instead of
// every node ever grown.
void _decision_tree::build_depth(table* t, int split_type, float min_obj, options const* opts,
                                 prune_params const* prune) {
  get_node()->activate(t);
  split_scratch scratch;
  grow_depth(t, split_type, min_obj, opts, prune, true, scratch);
}

void _decision_tree::grow_depth(table* t, int split_type, float min_obj, options const* opts,
                                prune_params const* prune, bool preprune, split_scratch& scratch) {
  struct frame {
    _decision_tree* tree;
    bool prunable;       // pruning reaches its children
    bool counting;       // prepruning still sums its children's values
    unsigned long next;  // the next child to grow
    preprune_step step;
    float sum;
    float value;                             // prepruning's value of the subtree, for the father
    table* at = nullptr;                     // the table whose rows its children's cases number
    std::unique_ptr<table> local = nullptr;  // at, when the node made a table of its own
  };
  std::vector<frame> stack;
  std::vector<w_sequence*> parts;
  std::vector<float> shares;
  std::vector<order_range> ranges;

  auto grow = [&](_decision_tree* tree, float bound, bool visit, bool prunable, table* at) {
    _decision_node* node = tree->get_node();
    std::unique_ptr<table> local = localize(*at, *node, min_obj, opts);
    if (local) at = local.get();
    scratch.fit(node->get_cases_count());
    node->split(at, split_type, min_obj, opts, &scratch);
    tree->branch_out(at, opts, scratch, parts, shares, ranges);
    frame f{tree, prunable && node->known_fract_ != 0.0f, false, 0, preprune_step(), 0.0f, 0.0f};
    f.at = at;
    f.local = std::move(local);
    if (node->status_ == _decision_node::LEAF_NODE) {
      f.value = node->error_;
    } else if (visit) {
      f.step = preprune_step(node->get_leaf_error(), bound);
      f.counting = true;
    }
    stack.push_back(std::move(f));
  };
  // Prepruning's verdict once its sum reaches the bound or the last child.
  auto settle = [](frame& f) {
    f.counting = false;
    f.value = f.step.settle(*f.tree, f.sum);  // children not yet grown go with a collapse
  };

  grow(this, 1.0f, preprune, true, t);
  while (!stack.empty()) {
    frame& f = stack.back();
    if (f.next < f.tree->get_no_childs()) {
      _decision_tree* child = f.tree->get_child(f.next++);
      grow(child, f.step.bound, f.counting, f.prunable, f.at);  // f is not used past this point
      continue;
    }
    if (f.counting) settle(f);
    if (prune != nullptr && f.prunable) f.tree->prune_dt_here(prune->cf, prune->coeff);
    float value = f.value;
    release(f.local);
    stack.pop_back();
    if (!stack.empty() && stack.back().counting) {
      frame& father = stack.back();
      father.sum += value;
      if (father.sum >= father.step.bound) settle(father);
    }
  }
}

float _decision_tree::preprune(float bound) {
  _decision_node* n = get_node();
  if (n->status_ == _decision_node::LEAF_NODE) return n->error_;
  if (n->status_ != _decision_node::SPLIT_NODE) {
    throw std::runtime_error("prepruning on an incomplete tree");
  }
  preprune_step step(n->get_leaf_error(), bound);
  float sum = 0.0f;
  for (unsigned long i = 0; i < get_no_childs(); ++i) {
    sum += get_child(i)->preprune(step.bound);
    if (sum >= step.bound) break;
  }
  return step.settle(*this, sum);
}

void _decision_tree::collapse(float error) {
  delete_childs();
  get_node()->make_leaf(error);
}

_decision_tree* _decision_tree::clone() const {
  auto* t = new _decision_tree();
  t->set_node(get_node() ? get_node()->clone() : nullptr);
  for (unsigned long i = 0; i < get_no_childs(); ++i) {
    _decision_tree* c = get_child(i);
    _decision_tree* cc = c ? c->clone() : nullptr;
    if (cc != nullptr && cc->get_node() != nullptr) cc->get_node()->father_ = t->get_node();
    t->push_back_child(cc);
  }
  return t;
}

}  // namespace impls
}  // namespace brix
