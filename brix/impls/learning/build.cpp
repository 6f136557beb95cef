// A model's builds: the build's own context (its tables live as long as the call), growing, and
// the pruning strategy the user chose.
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "brix/impls/learning/entropy.h"
#include "brix/impls/learning/grow_options.h"
#include "brix/impls/model/conf_matrix.h"
#include "brix/impls/model/decision_tree.h"
#include "brix/impls/storage/table.h"
#include "zel/util/cronos.h"

namespace brix {
namespace impls {

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
  // Later boosting trials' fractional terms take the float logarithm: nothing to reproduce.
  xlogx_table logs(integral_weight_bound(*root_cases_), stable_order_);
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
  opts.subsets = subsets_;
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

}  // namespace impls
}  // namespace brix
