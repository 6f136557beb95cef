// Facade of tables and case subsets.
#include <cstdlib>
#include <stdexcept>
#include <string>

#include "brix/brix.h"
#include "brix/impls/storage/table.h"
#include "zel/inpout/stream.h"

namespace brix {

namespace {

// Bad arguments to the public classes are errors the caller can catch, never undefined reads.
[[noreturn]] void fail(char const* call, std::string const& what) {
  throw std::runtime_error(std::string("[brix::") + call + "] " + what);
}

void require(bool ok, char const* call, char const* what) {
  if (!ok) fail(call, what);
}

std::string out_of(unsigned long i, unsigned long n, char const* what) {
  return what + (" " + std::to_string(i)) + " out of range (" + std::to_string(n) + ")";
}

// Checked on every row access: the message is only made when the index is out of range.
void require_in(unsigned long i, unsigned long n, char const* call, char const* what) {
  if (i >= n) fail(call, out_of(i, n, what));
}

}  // namespace

table::subset::subset() : seq_(new impls::w_sequence()) {}
table::subset::subset(impls::w_sequence* seq) : seq_(seq) {}
table::subset::~subset() {
  delete seq_;
}
unsigned long table::subset::size() const {
  return seq_->size();
}
void table::subset::reserve(unsigned long n) {
  seq_->reserve(n);
}
void table::subset::resize(unsigned long n) {
  seq_->resize(n);
}
void table::subset::push_back(unsigned long row, float weight) {
  seq_->push_back(row, weight);
}
void table::subset::set(unsigned long i, unsigned long row, float weight) {
  require_in(i, seq_->size(), "table::subset::set", "position");
  seq_->set(i, row, weight);
}
unsigned long table::subset::get(unsigned long i) const {
  require_in(i, seq_->size(), "table::subset::get", "position");
  return (*seq_)[i].first;
}

table::table(std::string const& name) : impl_(new impls::table(name, true)) {}
table::~table() {
  delete impl_;
}

void table::load_meta_data(datasource const& source) {
  impl_->load_meta_data(zel::inpout::stream::FROM_READER(source.get_descriptor()), true);
}

void table::load_data(datasource const& source, std::string const& null) {
  impl_->load_data(zel::inpout::stream::FROM_READER(source.get_descriptor()), null, true);
}

std::string table::get_name() const {
  return impl_->get_name();
}
unsigned long table::get_no_rows() const {
  return impl_->get_no_rows();
}
unsigned long table::get_no_columns() const {
  return impl_->get_no_attributes() + (impl_->get_class() ? 1 : 0) + (impl_->get_weights() ? 1 : 0);
}
double table::get_elapsed() const {
  return impl_->get_elapsed();
}
std::ostream* table::set_log(std::ostream* log) {
  return impl_->set_log(log);
}
unsigned long table::set_verbosity(unsigned long v) {
  return impl_->set_verbosity(v);
}

std::string table::get_class(unsigned long row) const {
  require(impl_->get_class() != nullptr, "table::get_class", "the table has no class column");
  require_in(row, impl_->get_no_rows(), "table::get_class", "row");
  return impl_->get_class()->get_value(row);
}

float table::get_weight(unsigned long row) const {
  require_in(row, impl_->get_no_rows(), "table::get_weight", "row");
  impls::column* w = impl_->get_weights();
  return w ? static_cast<float>(std::atof(w->get_value(row).c_str())) : 1.0f;
}

table::subset* table::get_wsubset_all() const {
  return new subset(impl_->get_wsubset_all());
}
table::subset* table::get_wsubset_random(unsigned long n) const {
  return new subset(impl_->get_wsubset_random(n));
}
table::subset* table::get_wsubset_first_n(unsigned long n) const {
  return new subset(impl_->get_wsubset_first_n(n));
}
table::subset* table::get_wsubset_difference(subset* s) const {
  require(s != nullptr, "table::get_wsubset_difference", "no subset given");
  return new subset(impl_->get_wsubset_difference(s->get_impl()));
}

}  // namespace brix
