#include "brix/impls/model/decision_tree.h"

#include <algorithm>
#include <cmath>
#include <iomanip>
#include <ostream>
#include <stdexcept>

#include "brix/impls/learning/entropy.h"
#include "brix/impls/model/conf_matrix.h"
#include "brix/impls/storage/table.h"
#include "zel/util/cronos.h"

namespace brix {
namespace impls {

decision_tree::decision_tree(std::string const& name) : name_(name) {}

decision_tree::~decision_tree() = default;

decision_tree* decision_tree::clone() const {
  auto* t = new decision_tree("my_decision_tree");
  t->settings_ = settings_;
  t->elapsed_ = elapsed_;
  if (meta_) t->meta_.reset(meta_->clone_metadata());
  if (training_) t->training_.reset(training_->clone());
  if (root_cases_) t->root_cases_.reset(new w_sequence(*root_cases_));
  if (root_) {
    t->root_.reset(root_->clone());
    // The root shares the model's own case sequence.
    _decision_node* r = t->root_->get_node();
    if (r != nullptr && root_->get_node()->get_all_cases() == root_cases_.get()) {
      r->all_cases_ = t->root_cases_.get();
    }
  }
  return t;
}

bool decision_tree::set_split_type(unsigned long t) {
  if (t > 1) return false;
  settings_.split_type = static_cast<int>(t);
  return true;
}

bool decision_tree::set_min_obj(float m) {
  if (!(m > 0.0f)) return false;
  settings_.min_obj = m;
  return true;
}

bool decision_tree::set_conf_level(float c) {
  if (!(c >= 0.0f && c <= 1.0f)) return false;
  settings_.conf_level = c;
  return true;
}

bool decision_tree::set_pruning_strategy(int p) {
  settings_.pruning_strategy = p;
  return true;
}

bool decision_tree::set_option(int o) {
  if (o == COUNT_CASES) settings_.count_cases = true;
  if (o == WEIGHT_CASES) settings_.count_cases = false;
  return true;
}

void decision_tree::build_unpruned(table* t, w_sequence* cases, bool evaluate) {
  build(t, cases, evaluate, 0, false);
}

void decision_tree::build_pruned(table* t, w_sequence* cases, bool evaluate, int workers,
                                 std::function<void(char const*)> const& stage) {
  build(t, cases, evaluate, workers, true, stage);
}

namespace {
// The largest sum of case weights that growing can meet, when every weight is
// a whole number: the size of the x·log2(x) table worth making.
std::uint64_t integral_weight_bound(w_sequence const& cases) {
  double total = 0.0;
  for (w_case const& c : cases) {
    if (!(c.second >= 0.0f) || c.second != std::floor(c.second)) return 0;
    total += c.second;
  }
  // Bounded by the table's cap and, for memory's sake, by the case count.
  double cap = 64.0 * static_cast<double>(cases.size()) + 4096.0;
  return static_cast<std::uint64_t>(std::min(total, cap));
}

// Whether the cases of growing keep whole weights: whole weights to start with, and no unknown
// attribute value, whose case would be shared out with fractional weights.
bool weights_stay_whole(table const* t, w_sequence const& cases) {
  for (w_case const& c : cases) {
    if (!(c.second >= 0.0f) || c.second != std::floor(c.second)) return false;
  }
  for (unsigned long a = 0; a < t->get_no_attributes(); ++a) {
    column const* col = t->get_attribute(a);
    if ((col->is_discrete() || col->is_continuous()) && col->get_o_set()->contains_null()) {
      return false;
    }
  }
  return true;
}
}  // namespace

void decision_tree::build(table* t, w_sequence* cases, bool evaluate, int workers, bool pruned,
                          std::function<void(char const*)> const& stage) {
  zel::util::cronos timer;
  timer.start();
  // Deliberately the pruning message, even when only growing.
  if (t == nullptr) throw std::runtime_error("no table provided to prune_dt");
  std::string message;
  if (!t->set_consistency_for_tree(true, message)) throw std::runtime_error(message);
  forget_compiled();
  root_.reset();
  meta_.reset(t->clone_metadata());
  root_cases_.reset(cases ? new w_sequence(*cases) : t->get_wsubset_all());

  // The build's own context: its tables live as long as this call.
  xlogx_table logs(integral_weight_bound(*root_cases_));
  std::vector<char> one_bit(t->get_no_attributes());
  for (unsigned long a = 0; a < one_bit.size(); ++a) {
    column const* col = t->get_attribute(a);
    one_bit[a] = col->is_discrete() && col->get_storage() == storage_kind::bit;
  }
  options opts;
  opts.flag = settings_.count_cases;
  opts.logs = &logs;
  opts.any_order = weights_stay_whole(t, *root_cases_);
  opts.unit_weights =
      opts.any_order && std::all_of(root_cases_->begin(), root_cases_->end(),
                                    [](w_case const& c) { return c.second == 1.0f; });
  opts.one_bit = &one_bit;
  opts.stable_order = stable_order_;
  // Default pruning is settled subtree by subtree while growing; prune() below then finds
  // nothing left to change but stays the one definition of the pruned tree, and the one to
  // refuse a level out of range (only a damaged model file holds one).
  float cf = settings_.conf_level;
  bool prune_online =
      pruned && settings_.pruning_strategy == DT_PRUNING && cf >= 0.0f && cf <= 1.0f;
  prune_params online{cf, prune_online ? _decision_tree::CFCoefficient(cf) : 0.0f};
  root_.reset(new _decision_tree());
  root_->build(t, root_cases_.get(), settings_.split_type, &opts, settings_.min_obj, workers,
               prune_online ? &online : nullptr);

  if (pruned) {
    if (stage) stage("prune");
    prune(t);
  }
  if (evaluate) {
    if (stage) stage("evaluate");
    std::unique_ptr<w_sequence> all;
    w_sequence const* seq = cases;
    if (seq == nullptr) {
      all.reset(t->get_wsubset_all());
      seq = all.get();
    }
    training_.reset(root_->predict(t, seq, workers));
  } else if (!training_) {
    training_.reset(new conf_matrix(t));
  }
  timer.stop();
  elapsed_ = timer.get_elapsed();
}

void decision_tree::adopt_grown(table* t, std::unique_ptr<_decision_tree> root) {
  zel::util::cronos timer;
  timer.start();
  if (t == nullptr) throw std::runtime_error("no table provided to prune_dt");
  if (settings_.pruning_strategy == C45_PRUNING)
    throw std::invalid_argument(
        "subtree raising needs the cases of every node: not available here");
  forget_compiled();
  meta_.reset(t->clone_metadata());
  root_cases_.reset();
  root_ = std::move(root);
  prune(t);
  training_.reset(new conf_matrix(t));
  timer.stop();
  elapsed_ = timer.get_elapsed();
}

void decision_tree::set_prediction(std::unique_ptr<conf_matrix> m) {
  training_ = std::move(m);
}

void decision_tree::prune(table* t) {
  if (t == nullptr) throw std::runtime_error("no table provided to prune_dt");
  std::string message;
  if (!t->set_consistency_for_tree(true, message)) throw std::runtime_error(message);
  if (!root_) throw std::runtime_error("no unpruned tree");
  forget_compiled();
  zel::util::cronos timer;
  timer.start();
  float cf = settings_.conf_level;
  if (settings_.pruning_strategy == C45_PRUNING) {
    root_->prune_c45(t, cf, _decision_tree::CFCoefficient(cf), true, false);
  } else if (settings_.pruning_strategy == DT_PRUNING) {
    root_->prune_dt(t, cf, _decision_tree::CFCoefficient(cf));
  }
  timer.stop();
  elapsed_ = timer.get_elapsed();
}

unsigned long decision_tree::size() const {
  return root_ ? root_->size() : 0;
}

unsigned long decision_tree::depth() const {
  return root_ ? root_->depth() : 0;
}

unsigned long decision_tree::get_n_classes() const {
  column* c = meta_ ? meta_->get_class() : nullptr;
  return c ? c->get_distinct() : 0;
}

std::string decision_tree::get_class_value(unsigned long i) const {
  return meta_->get_class()->get_o_set()->get_value(i);
}

unsigned long decision_tree::training_n_rows() const {
  return root_ && root_->get_node() ? root_->get_node()->get_cases_count() : 0;
}

// ---------------------------------------------------------------- text report

void decision_tree::toTEXT(std::ostream& out, unsigned long level) const {
  if (root_) root_->toTEXT(meta_.get(), out, level);
  out << '\n';
}

void _decision_tree::toTEXT(table* meta, std::ostream& out, unsigned long level) const {
  _decision_node const* n = get_node();
  if (get_no_childs() == 0) {
    n->toTEXT(meta, out, 0);
    return;
  }
  for (unsigned long i = 0; i < get_no_childs(); ++i) {
    out << '\n';
    for (unsigned long l = 0; l < level; ++l)
      out << "|   ";
    n->toTEXT(meta, out, i);
    if (get_child(i) != nullptr) get_child(i)->toTEXT(meta, out, level + 1);
  }
}

void _decision_node::toTEXT(table* meta, std::ostream& out, unsigned long branch) const {
  out << std::fixed << std::setprecision(1);
  if (status_ != SPLIT_NODE) {
    out << " " << meta->get_class()->get_o_set()->get_value(leaf_or_att_) << " (" << cases_weight_;
    if (error_ > 0.0f) out << "/" << error_;
    out << ")";
    return;
  }
  column const* col = meta->get_attribute(leaf_or_att_);
  if (col->is_continuous()) {
    out << col->get_name()
        << (branch == 0   ? " <= "
            : branch == 1 ? " > "
                          : " unknown ")
        << partition_.threshold << " :";
  } else if (col->is_discrete()) {
    out << col->get_name() << " = " << col->get_o_set()->get_value(branch + 1) << ":";
  } else {
    out << col->get_name() << " # unhandled type " << col->get_type();
  }
}

}  // namespace impls
}  // namespace brix
