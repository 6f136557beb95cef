// The tree as brixcmd's text report prints it, one line a branch.
#include <ostream>

#include "brix/impls/model/decision_tree.h"
#include "brix/tree_writer.h"

namespace brix {
namespace writers {

namespace {

class text_writer : public tree_writer {
 public:
  using tree_writer::write;
  void write(tree_output const& src, std::ostream& out) const override { src.tree.toTEXT(out, 0); }
};

}  // namespace

tree_writer const& text() {
  static text_writer const w;
  return w;
}

}  // namespace writers
}  // namespace brix
