// Prediction: a case descends from the root; where its value of a split
// attribute is unknown it follows every branch with its weight shared by the
// branches' training weights. Confusion matrices and score output.
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <deque>
#include <exception>
#include <ostream>
#include <stdexcept>
#include <thread>
#include <type_traits>

#include "brix/impls/model/conf_matrix.h"
#include "brix/impls/model/decision_tree.h"
#include "brix/impls/storage/column_typed.h"
#include "brix/impls/storage/o_set_typed.h"
#include "brix/impls/storage/table.h"
#include "zel/inpout/stream.h"
#include "zel/util/cronos.h"

namespace brix {
namespace impls {

namespace {

// Calls f with the typed value set behind s; false for a set of no value type (the null set).
template <class F>
bool with_typed(o_set* s, F&& f) {
  if (auto* p = dynamic_cast<o_set_int*>(s)) return f(*p), true;
  if (auto* p = dynamic_cast<o_set_uint*>(s)) return f(*p), true;
  if (auto* p = dynamic_cast<o_set_float*>(s)) return f(*p), true;
  if (auto* p = dynamic_cast<o_set_double*>(s)) return f(*p), true;
  if (auto* p = dynamic_cast<o_set_string*>(s)) return f(*p), true;
  return false;
}

// The side of a continuous test for a value text: 0 (not above the threshold), 1 (above), -1
// (unknown). The threshold is read once, in the data type of the tree's column.
class threshold_test {
 public:
  threshold_test(o_set* values, std::string const& threshold) : values_(values), text_(threshold) {
    with_typed(values, [&](auto& s) {
      using T = typename std::remove_reference_t<decltype(s)>::traits;
      kind_ = kind_of(T{});
      set(T::parse(threshold.c_str()));
    });
  }

  int side_of_text(std::string const& v) const {
    if (values_->is_null_text(v.c_str())) return -1;
    switch (kind_) {
      case kind::i:
        return zel::data_types::datatype<int>::parse(v.c_str()) > i_ ? 1 : 0;
      case kind::u:
        return zel::data_types::datatype<unsigned long>::parse(v.c_str()) > u_ ? 1 : 0;
      case kind::f:
        return zel::data_types::datatype<float>::parse(v.c_str()) > f_ ? 1 : 0;
      case kind::d:
        return zel::data_types::datatype<double>::parse(v.c_str()) > d_ ? 1 : 0;
      default:
        return values_->leq(v, text_);
    }
  }

  // Orders 1..n of a value set of the tree's own data type whose values are not above the
  // threshold; -1 when the set is of another type.
  long not_above(o_set* values) const {
    long n = -1;
    if (values->get_datatype() != values_->get_datatype()) return n;
    with_typed(values, [&](auto& s) {
      using T = typename std::remove_reference_t<decltype(s)>::traits;
      auto const& v = s.sorted_values();
      auto bound = T::parse(text_.c_str());
      n = static_cast<long>(
          std::upper_bound(v.begin(), v.end(), bound,
                           [](auto const& a, auto const& b) { return T::less(a, b); }) -
          v.begin());
    });
    return n;
  }

  bool numeric() const { return kind_ != kind::s && kind_ != kind::generic; }

  // The side of a known number read as the tree's type would read its text.
  int side_of_number(double v) const {
    switch (kind_) {
      case kind::i:
      case kind::u:
        return v > (kind_ == kind::i ? static_cast<double>(i_) : static_cast<double>(u_)) ? 1 : 0;
      case kind::f:
        return static_cast<float>(v) > f_ ? 1 : 0;
      default:
        return v > d_ ? 1 : 0;
    }
  }

 private:
  enum class kind { i, u, f, d, s, generic };
  static kind kind_of(zel::data_types::datatype<int>) { return kind::i; }
  static kind kind_of(zel::data_types::datatype<unsigned long>) { return kind::u; }
  static kind kind_of(zel::data_types::datatype<float>) { return kind::f; }
  static kind kind_of(zel::data_types::datatype<double>) { return kind::d; }
  static kind kind_of(zel::data_types::datatype<std::string>) { return kind::s; }
  void set(int v) { i_ = v; }
  void set(unsigned long v) { u_ = v; }
  void set(float v) { f_ = v; }
  void set(double v) { d_ = v; }
  void set(std::string const&) {}

  o_set* values_;
  std::string text_;
  kind kind_ = kind::generic;
  int i_ = 0;
  unsigned long u_ = 0;
  float f_ = 0.0f;
  double d_ = 0.0;
};

template <class T>
void const* rd_rows(typed_reader<T> rd) {
  return rd.data;
}
void const* rd_rows(bit_reader rd) {
  return rd.words;
}

}  // namespace

// A tree laid out for prediction: what descending reads of each node copied into one array in
// preorder, so that a case's path does not chase the scattered node records. Cases come either
// as value texts, read in the tree's own value sets, or as rows of a table, whose column of each
// split attribute is resolved once with a map from its value orders to the tree's branches.
class compiled_tree {
 public:
  // cols null: cases as texts; otherwise cols[a] is the table's column of attribute a of meta.
  compiled_tree(_decision_tree const* root, table const* meta,
                std::vector<column const*> const* cols)
      : meta_(meta), cols_(cols) {
    std::size_t nodes = root != nullptr ? root->size() : 1;
    entries_.reserve(nodes);  // at once: growing by doubling would hold two copies at its peak
    kids_.reserve(nodes);
    if (cols != nullptr) branch_maps_.resize(cols->size());
    add(root);
    numbers_.reserve(entries_.size());
    unsigned long n = 0;
    for (entry const& e : entries_)
      numbers_.push_back(e.present ? n++ : n);
  }

  struct entry {
    column const* col = nullptr;  // the tree's column (texts) or the table's (rows)
    // The column's stored orders, read without a virtual call a level; none: ask the column.
    storage_kind kind = storage_kind::none;
    void const* rows = nullptr;
    unsigned long order_of(unsigned long row) const {
      switch (kind) {
        case storage_kind::bit:
          return bit_reader{static_cast<std::uint32_t const*>(rows)}(row);
        case storage_kind::u8:
          return static_cast<std::uint8_t const*>(rows)[row];
        case storage_kind::u16:
          return static_cast<std::uint16_t const*>(rows)[row];
        case storage_kind::u32:
          return static_cast<std::uint32_t const*>(rows)[row];
        case storage_kind::u64:
          return static_cast<unsigned long>(static_cast<unsigned long long const*>(rows)[row]);
        default:
          return col->get_row_index(row);
      }
    }
    std::unique_ptr<threshold_test> test;  // continuous splits of texts
    // Rows, continuous: orders 1..not_above lie on side 0, unless side_of gives each order's.
    unsigned long not_above = 0;
    std::int8_t const* side_of = nullptr;
    // Rows, discrete: a table order's branch (-1: unknown); null when the orders are the tree's.
    std::int32_t const* branch_of = nullptr;
    // A split on groups of values: each tree order's branch (-1: unknown); null for the others.
    std::int32_t const* group_of = nullptr;
    bool continuous = false;
    unsigned long att = 0;
    unsigned long leaf = 0;
    std::size_t kids = 0;  // the first child's place in kids_
    std::size_t dist = 0;  // a leaf's class distribution in dists_
    std::uint32_t n_kids = 0;
    std::uint32_t dist_size = 0;
    float cw = 0.0f;  // the node's training weight
    std::uint8_t status = 0;
    bool present = false;  // false: a null node
  };

  // Descends with weight w; branch(node) gives the branch taken, or -1 for an unknown value,
  // which follows every branch with its weight shared by the branches' training weights.
  // visit(at, node, weight) is called at every node reached, before its children.
  template <class Branch, class Visit>
  void walk(std::size_t at, float w, Branch const& branch, Visit& visit) const {
    entry const& e = entries_[at];
    if (!e.present) throw std::runtime_error("Found a null node");
    visit(at, e, w);
    if (e.status != _decision_node::SPLIT_NODE) return;
    if (e.col == nullptr) throw std::runtime_error("Unknown column type");
    long b = branch(e);
    std::size_t const* kids = kids_.data() + e.kids;
    if (b >= 0 && static_cast<std::size_t>(b) < e.n_kids) {
      walk(kids[b], w, branch, visit);
      return;
    }
    if (b >= 0) throw std::runtime_error("Found a null node");
    float cw = e.cw;
    for (std::size_t i = 0; i < e.n_kids; ++i) {
      entry const& c = entries_[kids[i]];
      if (!c.present) throw std::runtime_error("Found a null node");
      walk(kids[i], w * c.cw / cw, branch, visit);
    }
  }

  // The class distribution the leaves reached add to dist.
  template <class Branch>
  void descend(std::size_t at, float w, std::vector<float>& dist, Branch const& branch) const {
    auto to_leaf = [this, &dist](std::size_t, entry const& e, float share) {
      if (e.status != _decision_node::LEAF_NODE) return;
      float cw = e.cw;
      if (cw > 0.0f) {
        float const* d = dists_.data() + e.dist;
        for (std::size_t c = 0; c < e.dist_size && c < dist.size(); ++c)
          dist[c] += share * d[c] / cw;
      } else {
        dist[e.leaf] += share;
      }
    };
    walk(at, w, branch, to_leaf);
  }

  // A node's number: its place in preorder among the nodes that are not null.
  unsigned long number(std::size_t at) const { return numbers_[at]; }
  // Whether the descent ends at a node.
  static bool ends_at(entry const& e) {
    return e.status != _decision_node::SPLIT_NODE || e.n_kids == 0;
  }

 private:
  std::size_t add(_decision_tree const* tree) {
    std::size_t at = entries_.size();
    entries_.emplace_back();
    if (tree == nullptr || tree->get_node() == nullptr) return at;
    _decision_node const* n = tree->get_node();
    entry& e = entries_[at];
    e.present = true;
    e.status = n->get_node_status();
    e.cw = n->get_cases_weight();
    e.leaf = n->get_leaf();
    if (e.status == _decision_node::LEAF_NODE) {
      std::vector<float> const& d = n->get_class_distribution();
      e.dist = dists_.size();
      e.dist_size = static_cast<std::uint32_t>(d.size());
      dists_.insert(dists_.end(), d.begin(), d.end());
    } else if (e.status == _decision_node::SPLIT_NODE) {
      e.att = n->get_split_attribute_index();
      if (cols_ == nullptr) {
        bind_text(e, n);
      } else {
        bind_rows(e, n);
      }
    }
    std::vector<std::size_t> kids;
    for (unsigned long i = 0; i < tree->get_no_childs(); ++i)
      kids.push_back(add(tree->get_child(i)));
    entries_[at].kids = kids_.size();
    entries_[at].n_kids = static_cast<std::uint32_t>(kids.size());
    kids_.insert(kids_.end(), kids.begin(), kids.end());
    return at;
  }

  void bind_text(entry& e, _decision_node const* n) {
    column const* col = meta_->get_attribute(e.att);
    if (col->is_continuous()) {
      e.col = col;
      e.continuous = true;
      e.test.reset(new threshold_test(col->get_o_set(), n->get_threshold()));
    } else if (col->is_discrete()) {
      e.col = col;
      col->get_o_set()->freeze();  // orders are then read concurrently
      e.group_of = group_map(n);
    }
  }

  // A split on groups of values: each of the tree's value orders to its branch, from 0, and the
  // unknown value (order 0) to -1; null for an ordinary split.
  std::int32_t const* group_map(_decision_node const* n) {
    value_groups const* g = n->get_value_groups();
    if (g == nullptr) return nullptr;
    std::vector<std::int32_t> map(g->size(), -1);
    for (std::size_t o = 1; o < g->size(); ++o)
      map[o] = static_cast<std::int32_t>((*g)[o]) - 1;
    group_maps_.push_back(std::move(map));
    return group_maps_.back().data();
  }

  void bind_rows(entry& e, _decision_node const* n) {
    column const* mine = meta_->get_attribute(e.att);
    column const* col = (*cols_)[e.att];
    o_set* values = col->get_o_set();
    values->freeze();
    if (mine->is_continuous()) {
      e.continuous = true;
      threshold_test test(mine->get_o_set(), n->get_threshold());
      long not_above = test.not_above(values);
      if (not_above < 0) not_above = not_above_as_numbers(test, values);
      if (not_above >= 0) {
        e.not_above = static_cast<unsigned long>(not_above);
      } else {
        // Values of an unordered type: each order's side from its text.
        std::vector<std::int8_t> sides(values->size_of_known() + 1, -1);
        for (unsigned long o = 1; o < sides.size(); ++o)
          sides[o] = static_cast<std::int8_t>(test.side_of_text(values->get_value(o)));
        side_maps_.push_back(std::move(sides));
        e.side_of = side_maps_.back().data();
      }
    } else if (mine->is_discrete()) {
      if (values != mine->get_o_set()) e.branch_of = branch_map(e.att, mine, values);
      if (std::int32_t const* groups = group_map(n)) {
        if (e.branch_of == nullptr) {
          e.group_of = groups;
        } else {
          // The table's orders through the tree's orders to the branches, once per node.
          std::vector<std::int32_t> map(e.branch_of, e.branch_of + values->size_of_known() + 1);
          for (std::int32_t& b : map)
            if (b >= 0) b = groups[b + 1];
          group_maps_.push_back(std::move(map));
          e.branch_of = group_maps_.back().data();
        }
      }
    } else {
      return;
    }
    e.col = col;
    if (col->get_storage() != storage_kind::none) {
      col->visit([&e, col](auto rd) {
        e.rows = rd_rows(rd);
        e.kind = col->get_storage();
      });
    }
  }

  // The count of a numeric value set's orders not above the threshold when the set's type is
  // another numeric one (integers read where the tree has floats): values compared as numbers,
  // the order of the set being theirs; -1 for other types.
  static long not_above_as_numbers(threshold_test const& test, o_set* values) {
    long n = -1;
    if (!test.numeric() || values->get_datatype() == "string") return n;
    with_typed(values, [&](auto& s) {
      using value = typename std::remove_reference_t<decltype(s)>::value_type;
      if constexpr (std::is_arithmetic_v<value>) {
        auto const& v = s.sorted_values();
        n = static_cast<long>(
            std::partition_point(
                v.begin(), v.end(),
                [&](value x) { return test.side_of_number(static_cast<double>(x)) == 0; }) -
            v.begin());
      }
    });
    return n;
  }

  // A table order's branch of a discrete attribute: its value's order in the tree's set, less one;
  // values the tree never saw (and the unknown value) -1. Made once per attribute.
  std::int32_t const* branch_map(unsigned long att, column const* mine, o_set* values) {
    std::vector<std::int32_t>& map = branch_maps_[att];
    if (map.empty()) {
      map.assign(values->size_of_known() + 1, -1);
      for (unsigned long o = 1; o < map.size(); ++o)
        map[o] = static_cast<std::int32_t>(mine->get_index(values->get_value(o).c_str())) - 1;
    }
    return map.data();
  }

  table const* meta_;
  std::vector<column const*> const* cols_;
  std::vector<entry> entries_;
  std::vector<std::size_t> kids_;
  std::vector<float> dists_;
  std::vector<unsigned long> numbers_;
  std::vector<std::vector<std::int32_t>> branch_maps_;
  std::deque<std::vector<std::int8_t>> side_maps_;  // a deque keeps each map where it is
  std::deque<std::vector<std::int32_t>> group_maps_;
};

namespace {

// Fewer cases than this are not worth a thread.
constexpr std::size_t kParallelPredictCases = 50000;

// The first class holding the strictly largest weight.
unsigned long best_class(std::vector<float> const& dist) {
  unsigned long best = 0;
  for (std::size_t i = 1; i < dist.size(); ++i) {
    if (dist[i] > dist[best]) best = i;
  }
  return best;
}

// The branch a case given as value texts (one per attribute) takes.
struct text_branch {
  std::vector<std::string> const& values;
  long operator()(compiled_tree::entry const& e) const {
    std::string const& v = values[e.att];
    if (e.test) return e.test->side_of_text(v);
    unsigned long order = e.col->get_index(v.c_str());
    if (e.group_of != nullptr) return e.group_of[order];
    return static_cast<long>(order) - 1;
  }
};

// The branch a row of the bound table takes.
struct row_branch {
  unsigned long row;
  long operator()(compiled_tree::entry const& e) const {
    unsigned long order = e.order_of(row);
    if (e.continuous) {
      if (e.side_of != nullptr) return e.side_of[order];
      if (order == 0) return -1;
      return order > e.not_above ? 1 : 0;
    }
    if (e.branch_of != nullptr) return e.branch_of[order];
    if (e.group_of != nullptr) return e.group_of[order];
    return static_cast<long>(order) - 1;
  }
};

// classify(from, to) over [0, n) in up to threads parallel parts (one for few cases); the first
// error of a part is rethrown.
template <class Classify>
void in_parts(std::size_t n, int threads, Classify const& classify) {
  std::size_t parts =
      threads > 1 && n >= kParallelPredictCases ? static_cast<std::size_t>(threads) : 1;
  std::vector<std::thread> pool;
  std::vector<std::exception_ptr> errors(parts);
  for (std::size_t p = 1; p < parts; ++p) {
    pool.emplace_back([&, p] {
      try {
        classify(n * p / parts, n * (p + 1) / parts);
      } catch (...) {
        errors[p] = std::current_exception();
      }
    });
  }
  try {
    classify(0, n / parts);
  } catch (...) {
    errors[0] = std::current_exception();
  }
  for (std::thread& th : pool)
    th.join();
  for (std::exception_ptr const& e : errors) {
    if (e) std::rethrow_exception(e);
  }
}

// The confusion matrix of cases of t over the classes of meta. Each case descends with its own
// weight (training evaluation) or with 1 (test data, as the score file's figures are read); the
// matrix is filled in case order, so that its sums do not depend on the thread count.
// actual_of maps t's class orders to meta's (null: the same).
conf_matrix* confusion(compiled_tree const& tree, table* meta, table const* t,
                       w_sequence const* cases, bool weighted, int threads,
                       std::vector<unsigned long> const* actual_of) {
  zel::util::cronos timer;
  timer.start();
  std::unique_ptr<conf_matrix> m(new conf_matrix(meta));
  std::size_t n_dist = meta->get_class()->get_distinct() + 1;
  std::size_t n = cases->size();
  std::vector<std::uint32_t> predicted(n);
  in_parts(n, threads, [&](std::size_t from, std::size_t to) {
    std::vector<float> dist(n_dist);
    for (std::size_t i = from; i < to; ++i) {
      std::fill(dist.begin(), dist.end(), 0.0f);
      tree.descend(0, weighted ? (*cases)[i].second : 1.0f, dist, row_branch{(*cases)[i].first});
      predicted[i] = static_cast<std::uint32_t>(best_class(dist));
    }
  });
  column const* cls = t->get_class();
  for (std::size_t i = 0; i < n; ++i) {
    unsigned long actual = cls->get_row_index((*cases)[i].first);
    if (actual_of != nullptr) actual = (*actual_of)[actual];
    m->add(predicted[i], actual, (*cases)[i].second);
  }
  timer.stop();
  m->set_elapsed(timer.get_elapsed());
  return m.release();
}

// One more row of a class value the tree never saw, values in order of first sight.
void count_unseen(std::vector<std::pair<std::string, unsigned long>>& unseen,
                  std::string const& value) {
  for (auto& u : unseen) {
    if (u.first == value) {
      ++u.second;
      return;
    }
  }
  unseen.emplace_back(value, 1);
}

}  // namespace

void class_shares(std::vector<float> const& dist, double* out) {
  double sum = 0.0;
  for (std::size_t c = 1; c < dist.size(); ++c)
    sum += dist[c];
  bool as_summed = std::fabs(sum - 1.0) <= 1e-6;
  for (std::size_t c = 1; c < dist.size(); ++c)
    out[c - 1] = as_summed ? dist[c] : sum > 0.0 ? dist[c] / sum : 0.0;
}

conf_matrix* _decision_tree::predict(table* t, w_sequence const* cases, int threads) const {
  std::vector<column const*> cols(t->get_no_attributes());
  for (unsigned long a = 0; a < cols.size(); ++a)
    cols[a] = t->get_attribute(a);
  compiled_tree tree(this, t, &cols);
  return confusion(tree, t, t, cases, true, threads, nullptr);
}

compiled_tree const& decision_tree::by_text() const {
  std::lock_guard<std::mutex> lock(compiled_mutex_);
  if (!by_text_)
    by_text_ = std::make_shared<compiled_tree const>(root_.get(), meta_.get(), nullptr);
  return *by_text_;
}

void decision_tree::forget_compiled() {
  std::lock_guard<std::mutex> lock(compiled_mutex_);
  by_text_.reset();
}

void decision_tree::distribution(std::vector<std::string> const& values, std::vector<float>& dist,
                                 float weight) const {
  if (!root_) throw std::runtime_error("Found a null node");
  by_text().descend(0, weight, dist, text_branch{values});
}

table_predictor::table_predictor(decision_tree const& tree, table const* t,
                                 std::vector<column const*> const& cols)
    : tree_(tree), table_(t) {
  if (tree.get_root() == nullptr) throw std::runtime_error("Found a null node");
  compiled_.reset(new compiled_tree(tree.get_root(), tree.get_metadata(), &cols));
}

table_predictor::~table_predictor() = default;

void table_predictor::probabilities(unsigned long from, unsigned long to, double* out,
                                    int threads) const {
  std::size_t k = tree_.get_n_classes();
  in_parts(to - from, threads, [&](std::size_t a, std::size_t b) {
    std::vector<float> dist(k + 1);
    for (std::size_t i = a; i < b; ++i) {
      std::fill(dist.begin(), dist.end(), 0.0f);
      compiled_->descend(0, 1.0f, dist, row_branch{from + i});
      class_shares(dist, out + i * k);
    }
  });
}

void table_predictor::reach(unsigned long row, std::vector<reached_node>& out) const {
  out.clear();
  auto note = [this, &out](std::size_t at, compiled_tree::entry const& e, float w) {
    out.push_back({compiled_->number(at), w, compiled_tree::ends_at(e)});
  };
  compiled_->walk(0, 1.0f, row_branch{row}, note);
}

conf_matrix* table_predictor::evaluate(
    int threads, std::vector<std::pair<std::string, unsigned long>>* unseen) const {
  column const* cls = table_->get_class();
  if (cls == nullptr) throw std::runtime_error("the data has no class column");
  column const* mine = tree_.get_metadata()->get_class();
  std::vector<unsigned long> actual_of(cls->get_distinct() + 1, 0);
  for (unsigned long o = 1; o < actual_of.size(); ++o)
    actual_of[o] = mine->get_index(cls->get_o_set()->get_value(o).c_str());
  std::unique_ptr<w_sequence> all(table_->get_wsubset_all());
  if (unseen != nullptr) {
    unseen->clear();
    std::vector<unsigned long> rows(actual_of.size(), 0);
    for (w_case const& c : *all)
      ++rows[cls->get_row_index(c.first)];
    for (unsigned long o = 1; o < actual_of.size(); ++o)
      if (actual_of[o] == 0 && rows[o] > 0)
        unseen->emplace_back(cls->get_o_set()->get_value(o), rows[o]);
  }
  return confusion(*compiled_, tree_.get_metadata(), table_, all.get(), false, threads, &actual_of);
}

conf_matrix* decision_tree::predict(table* t, w_sequence const* cases) const {
  if (t == nullptr) throw std::runtime_error("no data provided");
  if (!root_) throw std::runtime_error("Found a null node");
  if (cases != nullptr) return root_->predict(t, cases);
  std::unique_ptr<w_sequence> all(t->get_wsubset_all());
  return root_->predict(t, all.get());
}

std::pair<unsigned long, float> decision_tree::predict(std::vector<std::string> const& values,
                                                       float weight) const {
  std::vector<float> dist(get_n_classes() + 1, 0.0f);
  if (root_) distribution(values, dist, weight);
  unsigned long c = best_class(dist);
  return {c, dist[c]};
}

std::pair<std::string, float> decision_tree::prediction(std::vector<std::string> const& values,
                                                        float weight) const {
  std::pair<unsigned long, float> p = predict(values, weight);
  return {get_class_value(p.first), p.second};
}

std::pair<std::string, float> decision_tree::prediction(table* t, unsigned long row,
                                                        float weight) const {
  std::vector<std::string> values;
  unsigned long n = t->get_no_attributes();
  values.reserve(n);
  for (unsigned long a = 0; a < n; ++a)
    values.push_back(t->get_attribute(a)->get_row_value(row));
  return prediction(values, weight);
}

conf_matrix* decision_tree::predict(
    zel::inpout::stream* source, bool delete_stream,
    std::vector<std::pair<std::string, unsigned long>>* unseen) const {
  if (source == nullptr) throw std::runtime_error("no zel::inpout::stream");
  std::unique_ptr<zel::inpout::stream> owned(delete_stream ? source : nullptr);
  zel::util::cronos timer;
  timer.start();
  std::unique_ptr<conf_matrix> m(new conf_matrix(meta_.get()));
  if (!root_) throw std::runtime_error("Found a null node");
  compiled_tree const& tree = by_text();
  unsigned long n = meta_->get_no_attributes();
  column const* cls = meta_->get_class();
  std::vector<std::string> row;
  std::vector<float> dist(get_n_classes() + 1);
  unsigned long r = 0;
  while (true) {
    ++r;
    try {
      if (!meta_->load_row(source, row)) break;
      std::fill(dist.begin(), dist.end(), 0.0f);
      tree.descend(0, 1.0f, dist, text_branch{row});
      unsigned long actual = cls->get_index(row[n].c_str());
      if (actual == 0 && unseen != nullptr && !cls->get_o_set()->is_null_text(row[n].c_str()))
        count_unseen(*unseen, row[n]);
      float weight = case_weight(row[n + 1].c_str());
      if (!(weight >= 0.0f && std::isfinite(weight)))
        throw std::runtime_error("weight '" + row[n + 1] + "' is not a finite non-negative number");
      m->add(best_class(dist), actual, weight);
    } catch (std::runtime_error const& e) {
      throw std::runtime_error("Reading test data: (row " + std::to_string(r) + "): " + e.what());
    }
  }
  timer.stop();
  m->set_elapsed(timer.get_elapsed());
  return m.release();
}

double decision_tree::evaluate(zel::inpout::stream* source, std::ostream& out, char separator,
                               bool delete_stream) const {
  if (source == nullptr) throw std::runtime_error("no zel::inpout::stream");
  std::unique_ptr<zel::inpout::stream> owned(delete_stream ? source : nullptr);
  zel::util::cronos timer;
  timer.start();
  if (!root_) throw std::runtime_error("Found a null node");
  compiled_tree const& tree = by_text();
  // Class texts made once, not per scored row.
  std::vector<std::string> class_names;
  for (unsigned long c = 0; c <= get_n_classes(); ++c)
    class_names.push_back(get_class_value(c));
  std::vector<std::string> row;
  std::vector<float> dist(get_n_classes() + 1);
  unsigned long r = 0;
  try {
    while (true) {
      ++r;
      bool got;
      try {
        got = meta_->load_row(source, row);
      } catch (zel::inpout::read_error const&) {
        throw;
      } catch (std::runtime_error const&) {
        char const* line = source->get_line();
        throw std::runtime_error("bad row format (row " + std::to_string(r) +
                                 "): " + (line != nullptr ? line : ""));
      }
      if (!got) break;
      std::fill(dist.begin(), dist.end(), 0.0f);
      tree.descend(0, 1.0f, dist, text_branch{row});
      unsigned long c = best_class(dist);
      out << source->get_line() << separator << class_names[c] << separator << dist[c] << '\n';
    }
  } catch (std::runtime_error const& e) {
    throw std::runtime_error(std::string("Reading score data: ") + e.what());
  }
  timer.stop();
  return timer.get_elapsed();
}

}  // namespace impls
}  // namespace brix
