// The binary tree file: nodes, subtrees, confusion matrices and the model.
// Readers check what prediction and the writers rely on: class distributions
// sized for the metadata's class, leaf classes and split attributes in range,
// one child per branch, thresholds of the split column's type, finite weights.
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "brix/impls/model/conf_matrix.h"
#include "brix/impls/model/decision_tree.h"
#include "brix/impls/storage/binary_checks.h"
#include "brix/impls/storage/table.h"
#include "zel/inpout/binstream.h"
#include "zel/util/datatype.h"

namespace brix {
namespace impls {

using zel::inpout::ibinstream;
using zel::inpout::obinstream;

namespace {

constexpr char kKind[] = "Binary tree";
using checks = binary_checks<kKind>;

// Deeper files are refused: prediction and the writers recurse per level.
constexpr std::size_t kMaxDepth = 10000;
// Cases go through a buffer of this many (row, weight) pairs at a time.
constexpr std::size_t kCaseBlock = 1 << 16;
constexpr std::size_t kCaseBytes = 12;  // u64 row, f32 weight

void check_finite(float v, char const* what) {
  if (!std::isfinite(v)) checks::damaged(std::string(what) + " is not a finite number");
}

void write_cases(obinstream& out, w_sequence const& cases) {
  out << static_cast<std::uint64_t>(cases.size());
  std::vector<char> buf;
  for (std::size_t at = 0; at < cases.size(); at += kCaseBlock) {
    std::size_t k = std::min(kCaseBlock, cases.size() - at);
    buf.resize(k * kCaseBytes);
    char* p = buf.data();
    for (std::size_t i = 0; i < k; ++i, p += kCaseBytes) {
      std::uint64_t row = cases[at + i].first;
      std::memcpy(p, &row, 8);
      std::memcpy(p + 8, &cases[at + i].second, 4);
    }
    out.write_array(buf.data(), buf.size());
  }
}

w_sequence* read_cases(ibinstream& in) {
  std::uint64_t n = checks::read_count(in);
  std::unique_ptr<w_sequence> cases(new w_sequence());
  std::vector<char> buf;
  for (std::uint64_t at = 0; at < n;) {
    std::size_t k = static_cast<std::size_t>(std::min<std::uint64_t>(kCaseBlock, n - at));
    buf.resize(k * kCaseBytes);
    in.read_array(buf.data(), buf.size());
    checks::check(in);
    char const* p = buf.data();
    for (std::size_t i = 0; i < k; ++i, p += kCaseBytes) {
      std::uint64_t row;
      float weight;
      std::memcpy(&row, p, 8);
      std::memcpy(&weight, p + 8, 4);
      // Case sequences keep 32-bit row numbers.
      if (row > 0xFFFFFFFFull) checks::damaged("case row number beyond 32 bits");
      check_finite(weight, "case weight");
      cases->push_back(static_cast<unsigned long>(row), weight);
    }
    at += k;
  }
  return cases.release();
}

}  // namespace

// ---------------------------------------------------------------- nodes

obinstream& operator<<(obinstream& out, _decision_node const& n) {
  out << static_cast<std::uint64_t>(n.index_) << static_cast<std::uint32_t>(n.status_)
      << n.activated_ << n.cases_weight_ << static_cast<std::uint64_t>(n.cases_count_)
      << n.class_distribution_ << n.known_fract_ << static_cast<std::uint64_t>(n.most_frequent_);
  if (n.activated_) {
    std::vector<order_range> const* ranges = n.get_att_ranges();
    out << static_cast<unsigned char>(ranges ? 1 : 0);
    if (ranges) {
      out << static_cast<std::uint64_t>(ranges->size());
      for (order_range const& r : *ranges) {
        out << static_cast<std::uint64_t>(r.first) << static_cast<std::uint64_t>(r.second);
      }
    }
  }
  out << static_cast<unsigned char>(n.all_cases_ ? 1 : 0);
  if (n.all_cases_) write_cases(out, *n.all_cases_);
  out << static_cast<std::uint32_t>(n.split_status_);
  if (n.status_ == _decision_node::LEAF_NODE || n.status_ == _decision_node::SPLIT_NODE) {
    out << n.error_ << static_cast<std::uint64_t>(n.leaf_or_att_);
  }
  if (n.status_ == _decision_node::SPLIT_NODE) {
    out << n.partition_.threshold << static_cast<std::uint64_t>(n.partition_.branches);
  }
  return out;
}

ibinstream& operator>>(ibinstream& in, _decision_node& n) {
  std::uint64_t index = 0, count = 0, most = 0;
  std::uint32_t status = 0, split_status = 0;
  bool activated = false;
  float weight = 0.0f, known = 0.0f;
  std::vector<float> dist;
  in >> index >> status >> activated >> weight >> count >> dist >> known >> most;
  checks::check(in);
  if (status > _decision_node::SPLIT_NODE) checks::damaged("unknown node status");
  check_finite(weight, "cases weight");
  check_finite(known, "known fraction");
  for (float v : dist)
    check_finite(v, "class distribution entry");

  std::unique_ptr<std::vector<order_range>> ranges;
  if (activated && checks::read_flag(in)) {
    std::uint64_t k = checks::read_count(in, 2 * sizeof(std::uint64_t));
    ranges.reset(new std::vector<order_range>());
    for (std::uint64_t i = 0; i < k; ++i) {
      std::uint64_t first = 0, second = 0;
      in >> first >> second;
      checks::check(in);
      if (first > second) checks::damaged("bad attribute range");
      ranges->emplace_back(first, second);
    }
  }
  std::unique_ptr<w_sequence> cases;
  if (checks::read_flag(in)) cases.reset(read_cases(in));
  in >> split_status;
  checks::check(in);
  if (split_status > 1) checks::damaged("unknown split type");

  float error = 0.0f;
  std::uint64_t leaf_or_att = 0, branches = 0;
  std::string threshold;
  if (status != _decision_node::UNDEFINED_NODE) {
    in >> error >> leaf_or_att;
    checks::check(in);
    check_finite(error, "node error");
  }
  if (status == _decision_node::SPLIT_NODE) {
    in >> threshold >> branches;
    checks::check(in);
  }

  if (n.owns_cases_) delete n.all_cases_;
  // A field too wide for the record is kept as the largest value, which the validation of the
  // tree refuses with the message it gives any out-of-range value.
  auto narrow = [](std::uint64_t v) {
    return static_cast<std::uint32_t>(std::min<std::uint64_t>(v, 0xFFFFFFFFu));
  };
  n.index_ = narrow(index);
  n.status_ = static_cast<_decision_node::node_status>(status);
  n.activated_ = activated;
  n.cases_weight_ = weight;
  n.cases_count_ = narrow(count);
  n.class_distribution_.swap(dist);
  n.known_fract_ = known;
  n.most_frequent_ = narrow(most);
  n.work_.reset();
  if (ranges) n.reset_ranges(ranges.get());
  n.all_cases_ = cases.release();
  n.owns_cases_ = n.all_cases_ != nullptr;
  n.split_status_ = static_cast<std::uint8_t>(split_status);
  n.error_ = error;
  n.leaf_or_att_ = narrow(leaf_or_att);
  n.partition_.threshold.swap(threshold);
  n.partition_.branches = branches;
  return in;
}

w_sequence* _decision_node::share_cases() {
  if (!owns_cases_) return nullptr;
  owns_cases_ = false;
  return all_cases_;
}

// ---------------------------------------------------------------- subtrees

// Iterative, as load_bin reads: the subtree's nodes depth first, pre-order.
void _decision_tree::save_bin(obinstream& out, bool groups) const {
  struct frame {
    _decision_tree const* tree;
    unsigned long next;
  };
  std::vector<frame> stack;
  auto open = [&](_decision_tree const* t) {
    out << *t->get_node();
    if (groups && t->get_node()->get_node_status() == _decision_node::SPLIT_NODE) {
      value_groups const* g = t->get_node()->get_value_groups();
      out << (g != nullptr ? *g : value_groups());
    }
    out << static_cast<std::uint64_t>(t->get_no_childs());
    stack.push_back({t, 0});
  };
  open(this);
  while (!stack.empty()) {
    frame& f = stack.back();
    if (f.next == f.tree->get_no_childs()) {
      stack.pop_back();
      continue;
    }
    _decision_tree const* child = f.tree->get_child(f.next++);
    if (child == nullptr || child->get_node() == nullptr) {
      out << static_cast<unsigned char>(0);
    } else {
      out << static_cast<unsigned char>(1);
      open(child);
    }
  }
}

// Iterative, so that a file can not exhaust the stack; the depth is bounded
// for the recursive readers of the tree.
void _decision_tree::load_bin(ibinstream& in, _decision_node* father, bool groups) {
  struct frame {
    _decision_tree* tree;
    std::uint64_t left;
  };
  std::vector<frame> stack;
  auto load_one = [&](_decision_tree* t, _decision_node* f) {
    t->delete_childs();
    t->set_node(new _decision_node(f, 0));
    in >> *t->get_node();
    _decision_node* n = t->get_node();
    if (groups && n->get_node_status() == _decision_node::SPLIT_NODE) {
      std::uint64_t k = checks::read_count(in, sizeof(std::uint32_t));
      value_groups g(static_cast<std::size_t>(k));
      for (std::uint32_t& b : g)
        in >> b;
      checks::check(in);
      if (!g.empty()) n->partition_.groups = group_map(std::move(g));
    }
    std::uint64_t children = checks::read_count(in);
    // Only split nodes have children, one per branch.
    bool split = n->get_node_status() == _decision_node::SPLIT_NODE;
    if (children != (split ? n->get_no_of_splits() : 0)) {
      checks::damaged("child count does not match the node's split");
    }
    stack.push_back({t, children});
  };
  load_one(this, father);
  while (!stack.empty()) {
    frame& f = stack.back();
    if (f.left == 0) {
      stack.pop_back();
      continue;
    }
    --f.left;
    _decision_tree* parent = f.tree;
    if (!checks::read_flag(in)) {
      parent->push_back_child(nullptr);
      continue;
    }
    if (stack.size() >= kMaxDepth) checks::damaged("tree too deep");
    auto* sub = new _decision_tree();
    parent->push_back_child(sub);
    load_one(sub, parent->get_node());
  }
}

// ---------------------------------------------------------------- matrices

obinstream& operator<<(obinstream& out, conf_matrix const* m) {
  if (m == nullptr) return out << static_cast<unsigned char>(0);
  return out << static_cast<unsigned char>(1) << m->cells() << m->names();
}

ibinstream& operator>>(ibinstream& in, conf_matrix*& m) {
  m = nullptr;
  if (!checks::read_flag(in)) return in;
  std::vector<std::vector<float>> cells;
  std::uint64_t rows = checks::read_count(in);
  for (std::uint64_t i = 0; i < rows; ++i) {
    std::vector<float> row;
    in >> row;
    checks::check(in);
    if (row.size() != rows) checks::damaged("confusion matrix not square");
    cells.push_back(std::move(row));
  }
  std::vector<std::string> names;
  std::uint64_t n = checks::read_count(in);
  if (n != rows) checks::damaged("confusion matrix names do not match its size");
  for (std::uint64_t i = 0; i < n; ++i) {
    std::string name;
    in >> name;
    checks::check(in);
    names.push_back(std::move(name));
  }
  m = new conf_matrix(std::move(cells), std::move(names));
  return in;
}

// ---------------------------------------------------------------- model

obinstream& operator<<(obinstream& out, decision_tree const& t) {
  bool has_tree = t.root_ && t.root_->get_node();
  bool groups = has_tree && t.has_value_groups();
  // 2: a tree whose split nodes each carry their value groups (none for ordinary splits).
  out << static_cast<unsigned char>(groups ? 2 : has_tree ? 1 : 0);
  if (has_tree) t.root_->save_bin(out, groups);
  out << static_cast<table const*>(t.meta_.get())
      << static_cast<conf_matrix const*>(t.training_.get()) << t.elapsed_ << t.settings_.conf_level
      << t.settings_.min_obj << static_cast<std::uint32_t>(t.settings_.split_type) << t.name_
      << static_cast<std::uint32_t>(t.settings_.pruning_strategy);
  return out;
}

namespace {

// A threshold text of the column's type, as prediction will parse it.
bool threshold_parses(column const* col, std::string const& text) {
  try {
    std::string const& type = col->get_o_set()->get_datatype();
    if (type == "integer") {
      zel::data_types::datatype<int>::parse(text.c_str());
    } else if (type == "uinteger") {
      zel::data_types::datatype<unsigned long>::parse(text.c_str());
    } else {
      zel::data_types::datatype<float>::parse(text.c_str());
    }
  } catch (std::exception const&) {
    return false;
  }
  return true;
}

void validate_node(_decision_node const& n, table const& meta, unsigned long classes) {
  if (n.get_class_distribution().size() != classes + 1) {
    checks::damaged("class distribution does not match the class column");
  }
  if (n.get_most_frequent_class() > classes) checks::damaged("most frequent class out of range");
  if (n.get_node_status() == _decision_node::LEAF_NODE && n.get_leaf() > classes) {
    checks::damaged("leaf class out of range");
  }
  unsigned long attributes = meta.get_no_attributes();
  if (auto const* ranges = n.get_att_ranges()) {
    if (ranges->size() != attributes)
      checks::damaged("attribute ranges do not match the attributes");
    for (unsigned long a = 0; a < attributes; ++a) {
      if ((*ranges)[a].second > meta.get_attribute(a)->get_distinct() + 1) {
        checks::damaged("attribute range out of bounds");
      }
    }
  }
  if (n.get_node_status() != _decision_node::SPLIT_NODE) return;
  if (n.get_split_attribute_index() >= attributes) checks::damaged("split attribute out of range");
  column const* col = meta.get_attribute(n.get_split_attribute_index());
  unsigned long branches = n.get_no_of_splits();
  if (col->is_continuous()) {
    if (branches != 2) checks::damaged("continuous split without two branches");
    if (!threshold_parses(col, n.get_threshold())) {
      checks::damaged("threshold '" + n.get_threshold() + "' is not a value of column '" +
                      col->get_name() + "'");
    }
  } else if (value_groups const* g = n.get_value_groups()) {
    // Every value has a branch, and every branch a value.
    if (!col->is_discrete() || g->size() != col->get_distinct() + 1 || (*g)[0] != 0 ||
        branches < 2 || branches > col->get_distinct()) {
      checks::damaged("value groups that do not match column '" + col->get_name() + "'");
    }
    std::vector<char> used(branches + 1, 0);
    for (std::size_t o = 1; o < g->size(); ++o) {
      if ((*g)[o] < 1 || (*g)[o] > branches) checks::damaged("value group out of range");
      used[(*g)[o]] = 1;
    }
    if (std::count(used.begin() + 1, used.end(), 1) != static_cast<long>(branches))
      checks::damaged("a branch without values");
  } else if (col->is_discrete()) {
    if (branches == 0 || branches != col->get_distinct()) {
      checks::damaged("discrete split without one branch per value");
    }
  } else {
    checks::damaged("split on column '" + col->get_name() + "' of type " + col->get_type());
  }
}

// Every node against the metadata; a child's index is its branch, from 1.
void validate_tree(_decision_tree const& root, table const* meta) {
  if (meta == nullptr || !meta->is_for_tree() || meta->get_loaded_columns() == 0 ||
      meta->get_loaded_columns() != meta->get_no_columns() || meta->get_class() == nullptr) {
    checks::damaged("the model's metadata does not describe a class");
  }
  unsigned long classes = meta->get_class()->get_distinct();
  if (root.get_node()->get_index() != 0) checks::damaged("root with a branch index");
  std::vector<_decision_tree const*> pending{&root};
  while (!pending.empty()) {
    _decision_tree const* t = pending.back();
    pending.pop_back();
    validate_node(*t->get_node(), *meta, classes);
    for (unsigned long i = 0; i < t->get_no_childs(); ++i) {
      _decision_tree const* c = t->get_child(i);
      if (c == nullptr) continue;
      if (c->get_node()->get_index() != i + 1) checks::damaged("child with a wrong branch index");
      pending.push_back(c);
    }
  }
}

}  // namespace

ibinstream& operator>>(ibinstream& in, decision_tree& t) {
  std::unique_ptr<_decision_tree> root;
  unsigned char present = 3;
  in >> present;
  checks::check(in);
  if (present > 2) checks::damaged("bad presence flag");
  if (present > 0) {
    root.reset(new _decision_tree());
    root->load_bin(in, nullptr, present == 2);
  }
  table* meta_read = nullptr;
  in >> meta_read;
  std::unique_ptr<table> meta(meta_read);
  conf_matrix* matrix_read = nullptr;
  in >> matrix_read;
  std::unique_ptr<conf_matrix> training(matrix_read);
  double elapsed = 0.0;
  float conf_level = 0.0f, min_obj = 0.0f;
  std::uint32_t split_type = 0, pruning = 0;
  std::string name;
  in >> elapsed >> conf_level >> min_obj >> split_type >> name >> pruning;
  checks::check(in);

  if (split_type > decision_tree::GAIN_RATIO) checks::damaged("unknown split type");
  if (pruning > decision_tree::DT_PRUNING) checks::damaged("unknown pruning strategy");
  if (!(conf_level >= 0.0f && conf_level <= 1.0f)) checks::damaged("confidence level out of range");
  if (!(min_obj > 0.0f)) checks::damaged("minimum cases out of range");
  if (root) validate_tree(*root, meta.get());
  column const* cls = meta ? meta->get_class() : nullptr;
  if (training && cls && training->size() != cls->get_distinct() + 1) {
    checks::damaged("training matrix does not match the class column");
  }

  t.forget_compiled();
  t.root_ = std::move(root);
  t.meta_ = std::move(meta);
  t.training_ = std::move(training);
  t.elapsed_ = elapsed;
  t.settings_.conf_level = conf_level;
  t.settings_.min_obj = min_obj;
  t.settings_.split_type = static_cast<int>(split_type);
  t.name_ = name;
  t.settings_.pruning_strategy = static_cast<int>(pruning);
  // The model owns the root's cases; the root only points to them.
  t.root_cases_.reset(t.root_ ? t.root_->get_node()->share_cases() : nullptr);
  return in;
}

}  // namespace impls
}  // namespace brix
