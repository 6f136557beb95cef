// brixcmd's DOT graph (-d): leaves with their share of the cases and their error, cut (not
// rounded) to two decimals; names and values are not escaped, deliberately, as brixcmd has always
// written them.
#include <cmath>
#include <ios>
#include <ostream>

#include "brix/impls/model/decision_tree.h"
#include "brix/impls/storage/table.h"
#include "brix/tree_writer.h"

namespace brix {
namespace writers {

namespace {

using impls::_decision_node;
using impls::_decision_tree;

// A figure cut (not rounded) to two decimals, in single precision.
float cut2(float v) {
  return std::trunc(v * 100.0f) / 100.0f;
}

// The DOT lines of the subtree numbered from id; returns the largest number used.
unsigned long subtree(_decision_tree const& t, impls::table const& meta, std::ostream& out,
                      unsigned long total, unsigned long id) {
  _decision_node const* n = t.get_node();
  if (t.get_no_childs() == 0) {
    float share = cut2(static_cast<float>(n->get_cases_count()) / static_cast<float>(total));
    out << "n" << id << " [ shape=ellipse, label=\""
        << meta.get_class()->get_o_set()->get_value(n->get_leaf()) << " [" << share << "%,"
        << cut2(n->get_error()) << "%]\"]" << '\n';
    return id;
  }
  impls::column const* col = meta.get_attribute(n->get_split_attribute_index());
  out << "n" << id << " [ shape=box, label=\"" << col->get_name() << "\\n\"]" << '\n';
  unsigned long last = id;
  for (unsigned long i = 0; i < t.get_no_childs(); ++i) {
    _decision_tree const* child = t.get_child(i);
    if (child == nullptr || child->get_node() == nullptr) continue;
    unsigned long child_id = last + 1;
    out << "n" << id << " -> n" << child_id << " [label=\"";
    if (col->is_continuous()) {
      out << (i == 0 ? "<=" : ">") << n->get_threshold();
    } else {
      out << col->get_o_set()->get_value(i + 1);
    }
    out << "\"]" << '\n';
    last = subtree(*child, meta, out, total, child_id);
  }
  return last;
}

class brixcmd_dot_writer : public tree_writer {
 public:
  using tree_writer::write;
  void write(tree_output const& src, std::ostream& out) const override {
    impls::decision_tree const& t = src.tree;
    out << "digraph Brix {" << '\n';
    _decision_node const* root = t.get_root() ? t.get_root()->get_node() : nullptr;
    if (root != nullptr && t.get_metadata()) {
      // The figures go out in the default float format, whatever the stream had.
      std::ios::fmtflags flags = out.flags();
      std::streamsize precision = out.precision();
      out.unsetf(std::ios::floatfield);
      out.precision(6);
      subtree(*t.get_root(), *t.get_metadata(), out, root->get_cases_count(), 0);
      out.flags(flags);
      out.precision(precision);
    }
    out << "}" << '\n';
  }
};

}  // namespace

tree_writer const& brixcmd_dot() {
  static brixcmd_dot_writer const w;
  return w;
}

}  // namespace writers
}  // namespace brix
