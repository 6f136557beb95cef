#include "brix/impls/model/decision_tree.h"

#include <algorithm>
#include <cmath>
#include <iomanip>
#include <ostream>
#include <stdexcept>

#include "brix/impls/model/conf_matrix.h"
#include "brix/impls/storage/table.h"
#include "zel/util/cronos.h"

namespace brix {
namespace impls {

// ---------------------------------------------------------------- nodes

_decision_node::_decision_node(_decision_node* father, unsigned long index)
    : father_(father), index_(index) {}

_decision_node::_decision_node(w_sequence* cases) : all_cases_(cases) {}

_decision_node::~_decision_node() {
  if (owns_cases_) delete all_cases_;
}

std::vector<splitting_desc> const& _decision_node::get_split_descs() const {
  static std::vector<splitting_desc> const none;
  return work_ ? work_->descs : none;
}

std::vector<order_range>& _decision_node::reset_ranges(std::vector<order_range> const* from) {
  if (!work_) work_.reset(new _node_work());
  work_->ranges = from != nullptr ? std::make_shared<std::vector<order_range>>(*from)
                                  : std::make_shared<std::vector<order_range>>();
  work_->narrowed = _node_work::kNone;
  return *work_->ranges;
}

_decision_node* _decision_node::clone() const {
  auto* n = new _decision_node(father_, index_);
  n->status_ = status_;
  n->activated_ = activated_;
  n->cases_weight_ = cases_weight_;
  n->cases_count_ = cases_count_;
  n->class_distribution_ = class_distribution_;
  n->known_fract_ = known_fract_;
  n->most_frequent_ = most_frequent_;
  if (all_cases_ != nullptr && owns_cases_) {
    n->all_cases_ = new w_sequence(*all_cases_);
    n->owns_cases_ = true;
  } else {
    n->all_cases_ = all_cases_;
  }
  if (work_) n->work_.reset(new _node_work(*work_));
  n->split_status_ = split_status_;
  n->error_ = error_;
  n->leaf_or_att_ = leaf_or_att_;
  n->partition_ = partition_;
  return n;
}

void _decision_node::set_father(_decision_node* father) {
  if (activated_) {
    throw std::runtime_error("[_decision_node::activate_substitute_father()]: node is activated.");
  }
  if (father == nullptr) {
    throw std::runtime_error(
        "[_decision_node::activate_substitute_father()]: father node is NULL.");
  }
  father_ = father;
}

// ---------------------------------------------------------------- trees

_decision_tree* _decision_tree::clone() const {
  auto* t = new _decision_tree();
  t->set_node(get_node() ? get_node()->clone() : nullptr);
  for (unsigned long i = 0; i < get_no_childs(); ++i) {
    _decision_tree* c = get_child(i);
    _decision_tree* cc = c ? c->clone() : nullptr;
    if (cc != nullptr && cc->get_node() != nullptr) cc->get_node()->father_ = t->get_node();
    t->push_back_child(cc);
  }
  return t;
}

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

void decision_tree::set_prediction(std::unique_ptr<conf_matrix> m) {
  training_ = std::move(m);
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

bool decision_tree::has_value_groups() const {
  if (!root_) return false;
  std::vector<_decision_tree const*> pending{root_.get()};
  while (!pending.empty()) {
    _decision_tree const* t = pending.back();
    pending.pop_back();
    if (t->get_node() != nullptr && t->get_node()->get_value_groups() != nullptr) return true;
    for (unsigned long i = 0; i < t->get_no_childs(); ++i)
      if (t->get_child(i) != nullptr) pending.push_back(t->get_child(i));
  }
  return false;
}

std::vector<std::string> group_values(column const* col, value_groups const& groups,
                                      unsigned long i) {
  std::vector<std::string> out;
  for (unsigned long o = 1; o < groups.size(); ++o)
    if (groups[o] == i + 1) out.push_back(col->get_o_set()->get_value(o));
  return out;
}

std::string group_test(column const* col, value_groups const& groups, unsigned long i) {
  std::vector<std::string> values = group_values(col, groups, i);
  if (values.size() == 1) return "= " + values[0];
  std::string s = "in {";
  for (std::size_t k = 0; k < values.size(); ++k)
    s += (k > 0 ? ", " : "") + values[k];
  return s + "}";
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
  } else if (col->is_discrete() && partition_.groups) {
    out << col->get_name() << " " << group_test(col, *partition_.groups, branch) << ":";
  } else if (col->is_discrete()) {
    out << col->get_name() << " = " << col->get_o_set()->get_value(branch + 1) << ":";
  } else {
    out << col->get_name() << " # unhandled type " << col->get_type();
  }
}

void _decision_node::print_att_gain(table* t, std::ostream& out) const {
  out << cases_count_ << " items, total weight " << cases_weight_ << std::endl;
  out << "[Attribute] [gain] [split] [first] [second] [OneOnAlpha] [thres] " << std::endl
      << std::endl;
  std::vector<splitting_desc> const& all = get_split_descs();
  std::vector<order_range> const* ranges = get_att_ranges();
  for (std::size_t a = 0; a < all.size(); ++a) {
    auto const& d = all[a];
    order_range r = ranges ? (*ranges)[a] : order_range(0, 0);
    out << t->get_attribute(a)->get_name() << " " << d.gain << " " << d.split_info << " " << r.first
        << " " << r.second << " " << cases_count_ << " " << std::endl;
  }
  if (status_ == LEAF_NODE) {
    out << "leaf node, class " << t->get_class()->get_o_set()->get_value(leaf_or_att_) << ", error "
        << error_;
  } else {
    out << "split node, best att: " << t->get_attribute(leaf_or_att_)->get_name();
  }
  out << std::endl;
}

}  // namespace impls
}  // namespace brix
