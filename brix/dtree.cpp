// Facade of trees and confusion matrices.
#include <memory>

#include "brix/brix.h"
#include "brix/impls/conf_matrix.h"
#include "brix/impls/decision_tree.h"
#include "brix/impls/table.h"
#include "zel/inpout/stream.h"
#include "zel/util/cronos.h"

namespace brix {

conf_matrix::conf_matrix(table* t) : impl_(t ? new impls::conf_matrix(t->get_impl()) : nullptr) {}
conf_matrix::conf_matrix(impls::conf_matrix* impl) : impl_(impl) {}
conf_matrix::~conf_matrix() {
  delete impl_;
}
unsigned long conf_matrix::size() const {
  return impl_->size();
}
float conf_matrix::get_element(unsigned long i, unsigned long j) const {
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
  return new conf_matrix(
      impl_->predict(t ? t->get_impl() : nullptr, cases ? cases->get_impl() : nullptr));
}

conf_matrix* dtree::predict(datasource const& source) const {
  return new conf_matrix(
      impl_->predict(zel::inpout::stream::FROM_READER(source.get_descriptor()), true));
}

std::string dtree::predict(table* t, unsigned long row, float weight) const {
  return impl_->prediction(t->get_impl(), row, weight).first;
}

std::string dtree::predict(std::vector<std::string> const& values) const {
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
