// Temporary stand-ins for the facade while the library grows; replaced piece by piece.
#include <stdexcept>

#include "brix/brix.h"

namespace brix {
namespace {
[[noreturn]] void missing() { throw std::runtime_error("not available in this build"); }
}  // namespace

void table::toXML_data_dictionary(std::ostream&) const { missing(); }
void table::toXML_mining_schema(std::ostream&) const { missing(); }
void table::toBinary(std::string const&) const { missing(); }
table* table::fromBinary(std::string const&) { missing(); }

conf_matrix::conf_matrix(table*) : impl_(nullptr) {}
conf_matrix::conf_matrix(impls::conf_matrix* impl) : impl_(impl) {}
conf_matrix::~conf_matrix() {}
unsigned long conf_matrix::size() const { missing(); }
float conf_matrix::get_element(unsigned long, unsigned long) const { missing(); }
float conf_matrix::cases() const { missing(); }
float conf_matrix::mis_perc() const { missing(); }
double conf_matrix::get_elapsed() const { missing(); }
void conf_matrix::toTEXT(std::ostream&, unsigned long) const { missing(); }
void conf_matrix::toXML(std::ostream&) const { missing(); }
conf_matrix* conf_matrix::clone() const { missing(); }

dtree::dtree(std::string const&) : impl_(nullptr) {}
dtree::~dtree() {}
void dtree::set_conf_level(float) { missing(); }
void dtree::set_min_obj(float) { missing(); }
void dtree::set_pruning_strategy(PruningStrategy) { missing(); }
void dtree::set_split_type(SplitType) { missing(); }
void dtree::set_option(Options) { missing(); }
void dtree::build(table*, table::subset*, bool, int) { missing(); }
unsigned long dtree::size() const { missing(); }
unsigned long dtree::depth() const { missing(); }
unsigned long dtree::training_n_rows() const { missing(); }
double dtree::get_elapsed() const { missing(); }
conf_matrix* dtree::predict(table*, table::subset*) const { missing(); }
conf_matrix* dtree::predict(datasource const&) const { missing(); }
std::string dtree::predict(table*, unsigned long, float) const { missing(); }
std::string dtree::predict(std::vector<std::string> const&) const { missing(); }
conf_matrix* dtree::get_prediction() const { missing(); }
double dtree::evaluate(datasource const&, std::ostream&, char) const { missing(); }
void dtree::toTEXT(std::ostream&) const { missing(); }
void dtree::toXML(std::ostream&, conf_matrix const*) const { missing(); }
void dtree::toDOT(std::ostream&) const { missing(); }
void dtree::toBinary(std::string const&) const { missing(); }
dtree* dtree::fromBinary(std::string const&) { missing(); }
dtree* dtree::clone() const { missing(); }

}  // namespace brix
