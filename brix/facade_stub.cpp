// Temporary stand-ins for the facade while the library grows; replaced piece by piece.
#include <stdexcept>

#include "brix/brix.h"
#include "brix/impls/decision_tree.h"

namespace brix {
namespace {
[[noreturn]] void missing() { throw std::runtime_error("not available in this build"); }
}  // namespace

void table::toXML_data_dictionary(std::ostream&) const { missing(); }
void table::toXML_mining_schema(std::ostream&) const { missing(); }
void table::toBinary(std::string const&) const { missing(); }
table* table::fromBinary(std::string const&) { missing(); }
void conf_matrix::toXML(std::ostream&) const { missing(); }
void dtree::toXML(std::ostream&, conf_matrix const*) const { missing(); }
void dtree::toDOT(std::ostream&) const { missing(); }
void dtree::toBinary(std::string const&) const { missing(); }
dtree* dtree::fromBinary(std::string const&) { missing(); }

namespace impls {
void _decision_tree::build_ff(table*, int, float, options const*, int) {
  throw std::runtime_error("error running farm");
}
}  // namespace impls

}  // namespace brix
