// Growing a whole tree: the depth-first build, each node grown by the grower, and prepruning.
#include <algorithm>
#include <memory>
#include <stdexcept>
#include <type_traits>

#include "brix/impls/learning/constants.h"
#include "brix/impls/learning/grower.h"
#include "brix/impls/model/decision_tree.h"
#include "brix/impls/storage/column_typed.h"
#include "brix/impls/storage/table.h"
#include "zel/util/proc.h"

namespace brix {
namespace impls {

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
      grower::distribute(*node, t, parts, shares, ranges, opts, scratch)) {
    for (std::size_t i = 0; i < parts.size(); ++i) {
      auto* child = new _decision_node(node, i + 1);
      auto* sub = new _decision_tree();
      sub->set_node(child);
      push_back_child(sub);
      grower::activate_with(*child, t, parts[i], shares[i], ranges[i]);
      parts[i] = nullptr;
    }
  }
  grower::disactivate(*node);
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
  grower::activate(*get_node(), t);
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
    grower::split(*node, at, split_type, min_obj, opts, &scratch);
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

float _decision_tree::preprune(float bound, settled_subtrees* settled) {
  if (settled != nullptr) {
    auto it = settled->value.find(this);
    if (it != settled->value.end()) {
      settled->reached.insert(this);
      return it->second;
    }
  }
  _decision_node* n = get_node();
  if (n->status_ == _decision_node::LEAF_NODE) return n->error_;
  if (n->status_ != _decision_node::SPLIT_NODE) {
    throw std::runtime_error("prepruning on an incomplete tree");
  }
  preprune_step step(n->get_leaf_error(), bound);
  float sum = 0.0f;
  for (unsigned long i = 0; i < get_no_childs(); ++i) {
    sum += get_child(i)->preprune(step.bound, settled);
    if (sum >= step.bound) break;
  }
  return step.settle(*this, sum);
}

float _decision_tree::child_bound(float leaf_error, float bound) {
  return preprune_step(leaf_error, bound).bound;
}

void _decision_tree::collapse(float error) {
  delete_childs();
  grower::make_leaf(*get_node(), error);
}

}  // namespace impls
}  // namespace brix
