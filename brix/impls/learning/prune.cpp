// Error-based pruning: each node's training error is raised to the upper
// limit of a binomial confidence interval, and a subtree gives way to a leaf
// (or, in the full strategy, to its largest branch) when that is no worse.
#include <cmath>
#include <memory>
#include <stdexcept>

#include "brix/impls/learning/grower.h"
#include "brix/impls/model/decision_tree.h"
#include "brix/impls/storage/table.h"

namespace brix {
namespace impls {

// Tolerance by which a simpler tree may be worse and still be preferred.
constexpr double kPruneSlack = 0.1;

float _decision_tree::CFCoefficient(float cf) {
  if (cf < 0.0f || cf > 1.0f) {
    throw std::runtime_error("Confidence level required between 0.00 and 1.00");
  }
  static float const level[9] = {0.0f, 0.001f, 0.005f, 0.01f, 0.05f, 0.10f, 0.20f, 0.40f, 1.00f};
  static float const dev[9] = {4.0f, 3.09f, 2.58f, 2.33f, 1.65f, 1.28f, 0.84f, 0.25f, 0.00f};
  int i = 1;
  while (cf > level[i])
    ++i;
  float d = dev[i - 1] + (dev[i] - dev[i - 1]) * (cf - level[i - 1]) / (level[i] - level[i - 1]);
  return d * d;
}

float _decision_tree::add_errs(float cf, float coeff, float n, float e) {
  double N = n, E = e;
  if (E < 0.000001)
    return static_cast<float>(N * (1.0 - std::exp(std::log(static_cast<double>(cf)) / N)));
  if (E < 0.9999) {
    double v = N * (1.0 - std::exp(std::log(static_cast<double>(cf)) / N));
    return static_cast<float>(v + E * (add_errs(cf, coeff, n, 1.0f) - v));
  }
  if (E + 0.5 >= N) return static_cast<float>(0.67 * (N - E));
  double c = coeff;
  float p = static_cast<float>(
      (E + 0.5 + c / 2 + std::sqrt(c * ((E + 0.5) * (1 - (E + 0.5) / N) + c / 4))) / (N + c));
  return static_cast<float>(N * p - E);
}

float _decision_tree::prune_dt(table* t, float cf) {
  return prune_dt(t, cf, CFCoefficient(cf));
}

float _decision_tree::prune_dt(table* t, float cf, float coeff) {
  _decision_node* n = get_node();
  if (n->known_fract_ != 0.0f && n->status_ != _decision_node::LEAF_NODE) {
    for (unsigned long i = 0; i < get_no_childs(); ++i)
      get_child(i)->prune_dt(t, cf, coeff);
  }
  return prune_dt_here(cf, coeff);
}

float _decision_tree::pruned_value() const {
  _decision_node const* n = get_node();
  return n->known_fract_ == 0.0f ? 0.0f : n->error_;
}

// A node settled here keeps its value in error_, so pruning a pruned tree again changes nothing:
// growing prunes subtrees as they complete and the whole tree is pruned once more after.
float _decision_tree::prune_dt_here(float cf, float coeff) {
  _decision_node* n = get_node();
  if (n->known_fract_ == 0.0f) return 0.0f;  // deliberately neither pruned nor valued
  float leaf = n->get_leaf_error();
  float estimate = leaf + add_errs(cf, coeff, n->cases_weight_, leaf);
  if (n->status_ == _decision_node::LEAF_NODE) {
    n->error_ = estimate;
    return estimate;
  }
  float sum = 0.0f;
  for (unsigned long i = 0; i < get_no_childs(); ++i)
    sum += get_child(i)->pruned_value();
  if (estimate <= sum + kPruneSlack) {
    collapse(estimate);
    return estimate;
  }
  n->error_ = sum;
  return sum;
}

std::pair<float, float> _decision_tree::prune_c45(table* t, float cf) {
  return prune_c45(t, cf, CFCoefficient(cf), true, false);
}

std::pair<float, float> _decision_tree::prune_c45(table* t, float cf, float coeff, bool update,
                                                  bool substitute_father) {
  // An estimate works on a copy of the node, so the tree stays as it is.
  std::unique_ptr<_decision_node> copy;
  _decision_node* n = get_node();
  if (!update) {
    copy.reset(n->clone());
    n = copy.get();
  }
  if (substitute_father) {
    grower::activate_substitute_father(*n, t);
  } else {
    grower::activate(*n, t);
  }
  float known = n->known_fract_;
  if (known == 0.0f) {
    grower::disactivate(*n);
    return {0.0f, 0.0f};
  }
  float leaf = n->get_leaf_error();
  float estimate = leaf + add_errs(cf, coeff, n->cases_weight_, leaf);
  if (n->status_ == _decision_node::LEAF_NODE) {
    grower::disactivate(*n);
    if (update) n->error_ = estimate;
    return {known, estimate};
  }

  float sum = 0.0f;
  unsigned long largest = 0;
  float largest_known = 0.0f;
  for (unsigned long i = 0; i < get_no_childs(); ++i) {
    _decision_tree* child = get_child(i);
    _decision_node* own_father = child->get_node()->father_;
    if (!update) child->get_node()->set_father(n);
    std::pair<float, float> r = child->prune_c45(t, cf, coeff, update, false);
    if (!update) child->get_node()->set_father(own_father);
    sum += r.second;
    if (i == 0 || r.first >= largest_known) {
      largest = i;
      largest_known = r.first;
    }
  }
  if (!update) {
    grower::disactivate(*n);
    return {known, sum};
  }

  _decision_tree* branch = get_child(largest);
  float raised = branch->prune_c45(t, cf, coeff, false, true).second;
  if (estimate <= raised + kPruneSlack && estimate <= sum + kPruneSlack) {
    grower::disactivate(*n);
    collapse(estimate);
    return {known, estimate};
  }
  if (raised <= sum + kPruneSlack) {
    std::pair<float, float> r = branch->prune_c45(t, cf, coeff, true, true);
    _decision_node* grand = n->father_;
    grower::disactivate(*n);
    replace_with_son(largest);
    get_node()->father_ = grand;
    return r;
  }
  grower::disactivate(*n);
  n->error_ = sum;
  return {known, sum};
}

}  // namespace impls
}  // namespace brix
