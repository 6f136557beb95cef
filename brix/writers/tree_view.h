// What the PMML, DOT and JSON writers read of a tree: its class names, each node's class and the
// test of each branch, and numbers printed so that they read back the same.
#ifndef BRIX_WRITERS_TREE_VIEW_H
#define BRIX_WRITERS_TREE_VIEW_H

#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "brix/impls/model/decision_tree.h"
#include "brix/impls/storage/table.h"

namespace brix {
namespace writers {

using impls::_decision_node;
using impls::_decision_tree;

// Shortest text that reads back to the same number.
inline std::string num(double v) {
  std::ostringstream o;
  o.precision(9);
  o << v;
  return o.str();
}

struct tree_view {
  impls::decision_tree const& tree;
  impls::table const& meta;
  std::vector<std::string> classes;

  explicit tree_view(impls::decision_tree const& t) : tree(t), meta(*t.get_metadata()) {
    for (unsigned long c = 1; c <= t.get_n_classes(); ++c)
      classes.push_back(t.get_class_value(c));
  }

  impls::column const* att(_decision_node const& n) const {
    return meta.get_attribute(n.get_split_attribute_index());
  }
  bool split(_decision_tree const& t) const {
    return t.get_node()->get_node_status() == _decision_node::SPLIT_NODE;
  }
  std::string leaf_class(_decision_node const& n) const {
    unsigned long c = split_or_leaf_class(n);
    return c >= 1 && c <= classes.size() ? classes[c - 1] : "?";
  }
  unsigned long split_or_leaf_class(_decision_node const& n) const {
    return n.get_node_status() == _decision_node::LEAF_NODE ? n.get_leaf()
                                                            : n.get_most_frequent_class();
  }
  // The test of branch i of a split, as (operator, value text); for a split on groups of
  // values, ("in", the text report's "{a, b}").
  std::pair<char const*, std::string> branch(_decision_node const& n, unsigned long i) const {
    impls::column const* c = att(n);
    if (c->is_continuous()) return {i == 0 ? "<=" : ">", n.get_threshold()};
    if (impls::value_groups const* g = n.get_value_groups()) {
      std::string test = impls::group_test(c, *g, i);
      return test[0] == '=' ? std::make_pair("=", test.substr(2))
                            : std::make_pair("in", test.substr(3));
    }
    return {"=", c->get_o_set()->get_value(i + 1)};
  }
  // The values of branch i of a split on groups of values, in value order.
  std::vector<std::string> branch_values(_decision_node const& n, unsigned long i) const {
    return impls::group_values(att(n), *n.get_value_groups(), i);
  }
};

}  // namespace writers
}  // namespace brix

#endif
