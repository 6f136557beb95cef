// The nodes a table's rows reach: each split is resolved once against the table's own value
// orders (a threshold becomes the last order at or below it, a discrete value's order the branch
// of its text), so rows are followed without any text.
#include <algorithm>
#include <stdexcept>
#include <string>
#include <vector>

#include "brix/impls/decision_tree.h"
#include "brix/impls/table.h"
#include "brix/model.h"

namespace brix {

namespace {

using impls::_decision_node;
using impls::_decision_tree;

constexpr unsigned long kNone = ~0ul;

struct node_entry {
  impls::column const* col = nullptr;  // the table's column a split reads
  bool continuous = false;
  unsigned long last_below = 0;     // continuous: orders 1..last_below go to branch 0
  std::vector<long> branch_of;      // discrete: per table order, the branch (-1: all)
  std::vector<unsigned long> kids;  // node numbers, null branches left out
  float weight = 0.0f;              // training weight
  bool split = false;
};

// The last order of a continuous column whose value is not above the threshold text.
unsigned long last_not_above(impls::o_set* values, std::string const& threshold) {
  unsigned long lo = 0, hi = values->size_of_known();  // orders 1..lo are not above it
  while (lo < hi) {
    unsigned long mid = lo + (hi - lo + 1) / 2;
    if (values->leq(mid, threshold) == 1)  // the value of order mid is above the threshold
      hi = mid - 1;
    else
      lo = mid;
  }
  return lo;
}

class flat_tree {
 public:
  flat_tree(_decision_tree const* root, impls::table const* meta,
            std::vector<impls::column const*> const& cols)
      : meta_(meta), cols_(cols) {
    if (root != nullptr && root->get_node() != nullptr) add(root);
  }
  std::vector<node_entry> const& nodes() const { return nodes_; }

 private:
  unsigned long add(_decision_tree const* t) {
    unsigned long at = nodes_.size();
    nodes_.emplace_back();
    _decision_node const* n = t->get_node();
    node_entry e;
    e.weight = n->get_cases_weight();
    e.split = n->get_node_status() == _decision_node::SPLIT_NODE;
    if (e.split) {
      unsigned long a = n->get_split_attribute_index();
      e.col = cols_[a];
      impls::o_set* own = e.col->get_o_set();
      e.continuous = meta_->get_attribute(a)->is_continuous();
      if (e.continuous) {
        e.last_below = last_not_above(own, n->get_threshold());
      } else {
        impls::column const* tree_col = meta_->get_attribute(a);
        e.branch_of.assign(own->size_of_known() + 1, -1);
        for (unsigned long o = 1; o < e.branch_of.size(); ++o)
          e.branch_of[o] = static_cast<long>(tree_col->get_index(own->get_value(o).c_str())) - 1;
      }
    }
    for (unsigned long i = 0; i < t->get_no_childs(); ++i) {
      _decision_tree const* c = t->get_child(i);
      e.kids.push_back(c != nullptr && c->get_node() != nullptr ? add(c) : kNone);
    }
    nodes_[at] = std::move(e);
    return at;
  }

  impls::table const* meta_;
  std::vector<impls::column const*> const& cols_;
  std::vector<node_entry> nodes_;
};

}  // namespace

unsigned long tree_model::leaves() const {
  impls::decision_tree const& t = *tree_->get_impl();
  std::vector<_decision_tree const*> stack{t.get_root()};
  unsigned long n = 0;
  while (!stack.empty()) {
    _decision_tree const* d = stack.back();
    stack.pop_back();
    if (d == nullptr || d->get_node() == nullptr) continue;
    if (d->get_node()->get_node_status() != _decision_node::SPLIT_NODE) ++n;
    for (unsigned long i = 0; i < d->get_no_childs(); ++i)
      stack.push_back(d->get_child(i));
  }
  return n;
}

tree_model::node_paths tree_model::paths(table const& t) const {
  impls::decision_tree const& dt = *tree_->get_impl();
  std::vector<impls::column const*> cols = columns_of(t);
  flat_tree flat(dt.get_root(), dt.get_metadata(), cols);
  std::vector<node_entry> const& nodes = flat.nodes();
  node_paths out;
  unsigned long rows = t.get_no_rows();
  out.starts.reserve(rows + 1);
  out.leaves.reserve(rows);
  out.starts.push_back(0);
  // Per row: the nodes to visit with the weight reaching them, and each reached leaf's weight.
  std::vector<std::pair<unsigned long, float>> todo;
  std::vector<unsigned long> reached;
  for (unsigned long r = 0; r < rows; ++r) {
    reached.clear();
    unsigned long best = 0;
    float best_w = -1.0f;
    if (!nodes.empty()) todo.emplace_back(0, 1.0f);
    while (!todo.empty()) {
      auto [at, w] = todo.back();
      todo.pop_back();
      reached.push_back(at);
      node_entry const& e = nodes[at];
      if (!e.split || e.kids.empty()) {
        if (w > best_w || (w == best_w && at < best)) {
          best = at;
          best_w = w;
        }
        continue;
      }
      unsigned long order = e.col->get_row_index(r);
      long b = -1;
      if (order != 0) {
        if (e.continuous)
          b = order > e.last_below ? 1 : 0;
        else
          b = order < e.branch_of.size() ? e.branch_of[order] : -1;
      }
      if (b >= 0) {
        unsigned long k = static_cast<unsigned long>(b) < e.kids.size() ? e.kids[b] : kNone;
        if (k == kNone) throw std::runtime_error("a branch without a node");
        todo.emplace_back(k, w);
        continue;
      }
      // Shared by the branches' training weights, as prediction shares it.
      for (unsigned long k : e.kids)
        if (k != kNone)
          todo.emplace_back(k, e.weight > 0.0f ? w * nodes[k].weight / e.weight : 0.0f);
    }
    std::sort(reached.begin(), reached.end());
    out.nodes.insert(out.nodes.end(), reached.begin(), reached.end());
    out.starts.push_back(out.nodes.size());
    out.leaves.push_back(best);
  }
  return out;
}

}  // namespace brix
