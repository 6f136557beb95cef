// The nodes a table's rows reach, followed on the tree as prediction binds it to the table, so
// that a row's nodes are those its probabilities come from.
#include <algorithm>
#include <vector>

#include "brix/impls/model/decision_tree.h"
#include "brix/impls/storage/table.h"
#include "brix/model.h"

namespace brix {

namespace {
using impls::_decision_node;
using impls::_decision_tree;
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
  impls::table_predictor walker(*tree_->get_impl(), t.get_impl(), columns_of(t));
  node_paths out;
  unsigned long rows = t.get_no_rows();
  out.starts.reserve(rows + 1);
  out.leaves.reserve(rows);
  out.starts.push_back(0);
  std::vector<impls::table_predictor::reached_node> reached;
  for (unsigned long r = 0; r < rows; ++r) {
    walker.reach(r, reached);
    unsigned long best = 0;
    float best_w = -1.0f;
    std::size_t first = out.nodes.size();
    for (auto const& n : reached) {
      out.nodes.push_back(n.node);
      if (n.leaf && (n.weight > best_w || (n.weight == best_w && n.node < best))) {
        best = n.node;
        best_w = n.weight;
      }
    }
    std::sort(out.nodes.begin() + static_cast<std::ptrdiff_t>(first), out.nodes.end());
    out.starts.push_back(out.nodes.size());
    out.leaves.push_back(best);
  }
  return out;
}

}  // namespace brix
