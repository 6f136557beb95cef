// Facade of trees and confusion matrices.
#include <memory>
#include <stdexcept>
#include <string>

#include "brix/brix.h"
#include "brix/impls/model/conf_matrix.h"
#include "brix/impls/model/decision_tree.h"
#include "brix/impls/storage/table.h"
#include "zel/inpout/stream.h"
#include "zel/util/cronos.h"

namespace brix {

namespace {

void require(bool ok, char const* call, std::string const& what) {
  if (!ok) throw std::runtime_error(std::string("[brix::") + call + "] " + what);
}

// Every row of the cases must be a row of the table.
void require_rows(table const* t, table::subset const* cases, char const* call) {
  require(t != nullptr, call, "no table given");
  if (cases == nullptr) return;
  unsigned long rows = t->get_no_rows();
  for (auto const& c : *cases->get_impl())
    require(c.first < rows, call,
            "case row " + std::to_string(c.first) + " out of range (" + std::to_string(rows) + ")");
}

// A table to classify must have the tree's attributes.
void require_fits(impls::decision_tree const* tree, table const* t, char const* call) {
  impls::table const* meta = tree->get_metadata();
  require(meta != nullptr, call, "the tree has not been built");
  require(t->get_impl()->get_no_attributes() == meta->get_no_attributes(), call,
          "the table has " + std::to_string(t->get_impl()->get_no_attributes()) +
              " attributes, the tree " + std::to_string(meta->get_no_attributes()));
}

}  // namespace

conf_matrix::conf_matrix(table* t) : impl_(t ? new impls::conf_matrix(t->get_impl()) : nullptr) {}
conf_matrix::conf_matrix(impls::conf_matrix* impl) : impl_(impl) {}
conf_matrix::~conf_matrix() {
  delete impl_;
}
unsigned long conf_matrix::size() const {
  return impl_->size();
}
float conf_matrix::get_element(unsigned long i, unsigned long j) const {
  require(impl_ != nullptr && i < impl_->size() && j < impl_->size(), "conf_matrix::get_element",
          "cell (" + std::to_string(i) + ", " + std::to_string(j) + ") out of range");
  return impl_->get_element(i, j);
}
float conf_matrix::cases() const {
  return impl_->cases();
}
float conf_matrix::mis_perc() const {
  return impl_->mis_perc();
}
double conf_matrix::get_elapsed() const {
  return impl_->get_elapsed();
}
void conf_matrix::toTEXT(std::ostream& out, unsigned long level) const {
  impl_->toTEXT(out, level);
}
conf_matrix* conf_matrix::clone() const {
  return new conf_matrix(impl_ ? impl_->clone() : nullptr);
}

dtree::dtree(std::string const& name) : impl_(new impls::decision_tree(name)) {}
dtree::~dtree() {
  delete impl_;
}

void dtree::set_conf_level(float cf) {
  impl_->set_conf_level(cf);
}
void dtree::set_min_obj(float m) {
  impl_->set_min_obj(m);
}
void dtree::set_pruning_strategy(PruningStrategy p) {
  if (p == NO_PRUNING || p == C45_PRUNING || p == DT_PRUNING) impl_->set_pruning_strategy(p);
}
void dtree::set_split_type(SplitType t) {
  if (t == GAIN || t == GAIN_RATIO) impl_->set_split_type(t);
}
void dtree::set_option(Options o) {
  if (o == ALL_CASES_COUNT || o == WEIGHTED_COUNT) impl_->set_option(o);
}

void dtree::build(table* t, table::subset* cases, bool evaluate, int workers) {
  require_rows(t, cases, "dtree::build");
  impl_->build_pruned(t ? t->get_impl() : nullptr, cases ? cases->get_impl() : nullptr, evaluate,
                      workers);
}

unsigned long dtree::size() const {
  return impl_->size();
}
unsigned long dtree::depth() const {
  return impl_->depth();
}
unsigned long dtree::training_n_rows() const {
  return impl_->training_n_rows();
}
double dtree::get_elapsed() const {
  return impl_->get_elapsed();
}

conf_matrix* dtree::predict(table* t, table::subset* cases) const {
  require_rows(t, cases, "dtree::predict");
  require_fits(impl_, t, "dtree::predict");
  return new conf_matrix(
      impl_->predict(t ? t->get_impl() : nullptr, cases ? cases->get_impl() : nullptr));
}

conf_matrix* dtree::predict(datasource const& source) const {
  return new conf_matrix(
      impl_->predict(zel::inpout::stream::FROM_READER(source.get_descriptor()), true));
}

std::string dtree::predict(table* t, unsigned long row, float weight) const {
  require(t != nullptr, "dtree::predict", "no table given");
  require(
      row < t->get_no_rows(), "dtree::predict",
      "row " + std::to_string(row) + " out of range (" + std::to_string(t->get_no_rows()) + ")");
  require_fits(impl_, t, "dtree::predict");
  return impl_->prediction(t->get_impl(), row, weight).first;
}

std::string dtree::predict(std::vector<std::string> const& values) const {
  impls::table const* meta = impl_->get_metadata();
  require(meta != nullptr, "dtree::predict", "the tree has not been built");
  require(values.size() == meta->get_no_attributes(), "dtree::predict",
          std::to_string(values.size()) + " values given for " +
              std::to_string(meta->get_no_attributes()) + " attributes");
  return impl_->prediction(values, 1.0f).first;
}

conf_matrix* dtree::get_prediction() const {
  impls::conf_matrix const* m = impl_->get_prediction();
  return new conf_matrix(m ? m->clone() : nullptr);
}

double dtree::evaluate(datasource const& source, std::ostream& out, char separator) const {
  zel::util::cronos timer;
  timer.start();
  impl_->evaluate(zel::inpout::stream::FROM_READER(source.get_descriptor()), out, separator, true);
  timer.stop();
  return timer.get_elapsed();
}

void dtree::toTEXT(std::ostream& out) const {
  impl_->toTEXT(out, 0);
}

dtree* dtree::clone() const {
  return new dtree(impl_->clone());
}

}  // namespace brix
