// Prediction: a case descends from the root; where its value of a split
// attribute is unknown it follows every branch with its weight shared by the
// branches' training weights. Confusion matrices and score output.
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <exception>
#include <ostream>
#include <stdexcept>
#include <thread>

#include "brix/impls/column_typed.h"
#include "brix/impls/conf_matrix.h"
#include "brix/impls/decision_tree.h"
#include "brix/impls/o_set_typed.h"
#include "brix/impls/table.h"
#include "zel/inpout/stream.h"
#include "zel/util/cronos.h"

namespace brix {
namespace impls {

namespace {

// The side of a continuous test for a value: 0 (not above the threshold),
// 1 (above), -1 (unknown). The threshold is read once per node.
class threshold_test {
 public:
  threshold_test(o_set* values, std::string const& threshold)
      : values_(values), kind_(values->get_datatype()) {
    if (kind_ == "integer") {
      i_ = zel::data_types::datatype<int>::parse(threshold.c_str());
    } else if (kind_ == "uinteger") {
      u_ = zel::data_types::datatype<unsigned long>::parse(threshold.c_str());
    } else if (kind_ == "float") {
      f_ = zel::data_types::datatype<float>::parse(threshold.c_str());
    } else {
      generic_ = true;
      text_ = threshold;
    }
    if (!generic_) {
      // Orders of values not above the threshold are 1..leq_order_.
      values->freeze();
      leq_order_ = count_not_above();
    }
  }

  int side_of_text(std::string const& v) const {
    if (generic_) return values_->leq(v, text_);
    if (values_->is_null_text(v.c_str())) return -1;
    if (kind_[0] == 'i') return zel::data_types::datatype<int>::parse(v.c_str()) > i_ ? 1 : 0;
    if (kind_[0] == 'u')
      return zel::data_types::datatype<unsigned long>::parse(v.c_str()) > u_ ? 1 : 0;
    return zel::data_types::datatype<float>::parse(v.c_str()) > f_ ? 1 : 0;
  }

  int side_of_order(unsigned long order) const {
    if (order == 0) return -1;
    if (generic_) return values_->leq(order, text_);
    return order > leq_order_ ? 1 : 0;
  }

 private:
  template <class X>
  unsigned long count_in(X bound) const {
    auto const& v =
        static_cast<o_set_typed<zel::data_types::datatype<X>>*>(values_)->sorted_values();
    return static_cast<unsigned long>(std::upper_bound(v.begin(), v.end(), bound) - v.begin());
  }
  unsigned long count_not_above() const {
    if (kind_[0] == 'i') return count_in<int>(i_);
    if (kind_[0] == 'u') return count_in<unsigned long>(u_);
    return count_in<float>(f_);
  }

  o_set* values_;
  std::string kind_;
  bool generic_ = false;
  std::string text_;
  int i_ = 0;
  unsigned long u_ = 0;
  float f_ = 0.0f;
  unsigned long leq_order_ = 0;
};

template <class T>
void const* rd_rows(typed_reader<T> rd) {
  return rd.data;
}
void const* rd_rows(bit_reader rd) {
  return rd.words;
}

// A tree laid out for prediction: the column and threshold test of every
// split node, resolved once against the table whose values are read, and what
// descending reads of each node copied into one array in preorder, so that a
// case's path does not chase the scattered node records.
class compiled_tree {
 public:
  compiled_tree(_decision_tree const* root, table* t) : table_(t) {
    std::size_t nodes = root != nullptr ? root->size() : 1;
    entries_.reserve(nodes);  // at once: growing by doubling would hold two copies at its peak
    kids_.reserve(nodes);
    add(root);
  }

  // Descends with weight w; branch(node) gives the branch taken, or -1.
  template <class Branch>
  void descend(std::size_t at, float w, std::vector<float>& dist, Branch const& branch) const {
    entry const& e = entries_[at];
    if (!e.present) throw std::runtime_error("Found a null node");
    float cw = e.cw;
    if (e.status == _decision_node::LEAF_NODE) {
      if (cw > 0.0f) {
        float const* d = dists_.data() + e.dist;
        for (std::size_t c = 0; c < e.dist_size && c < dist.size(); ++c)
          dist[c] += w * d[c] / cw;
      } else {
        dist[e.leaf] += w;
      }
      return;
    }
    if (e.status != _decision_node::SPLIT_NODE) return;
    if (e.col == nullptr) throw std::runtime_error("Unknown column type");
    long b = branch(e);
    std::size_t const* kids = kids_.data() + e.kids;
    if (b >= 0 && static_cast<std::size_t>(b) < e.n_kids) {
      descend(kids[b], w, dist, branch);
      return;
    }
    if (b >= 0) throw std::runtime_error("Found a null node");
    for (std::size_t i = 0; i < e.n_kids; ++i) {
      entry const& c = entries_[kids[i]];
      if (!c.present) throw std::runtime_error("Found a null node");
      descend(kids[i], w * c.cw / cw, dist, branch);
    }
  }

  struct entry {
    column const* col = nullptr;
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
    std::unique_ptr<threshold_test> test;  // continuous splits
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
      unsigned long att = n->get_split_attribute_index();
      column const* col = table_->get_attribute(att);
      e.att = att;
      if (col->is_continuous()) {
        e.col = col;
        e.test.reset(new threshold_test(col->get_o_set(), n->get_threshold()));
      } else if (col->is_discrete()) {
        e.col = col;
      }
      if (e.col != nullptr && e.col->get_storage() != storage_kind::none) {
        e.col->visit([&e](auto rd) {
          e.rows = rd_rows(rd);
          e.kind = e.col->get_storage();
        });
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

  table* table_;
  std::vector<entry> entries_;
  std::vector<std::size_t> kids_;
  std::vector<float> dists_;
};

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
    return static_cast<long>(e.col->get_index(v.c_str())) - 1;
  }
};

}  // namespace

void _decision_tree::predict(std::vector<std::string> const& values, std::vector<float>& dist,
                             table* meta, float weight) const {
  compiled_tree(this, meta).descend(0, weight, dist, text_branch{values});
}

conf_matrix* _decision_tree::predict(table* t, w_sequence const* cases, int threads) const {
  zel::util::cronos timer;
  timer.start();
  std::unique_ptr<conf_matrix> m(new conf_matrix(t));
  compiled_tree tree(this, t);
  column const* cls = t->get_class();
  std::size_t n = cases->size();
  // Cases are classified in parallel chunks; the matrix is then filled in
  // case order, so that its sums do not depend on the thread count.
  std::vector<std::uint32_t> predicted(n);
  auto classify = [&](std::size_t from, std::size_t to) {
    std::vector<float> dist(cls->get_distinct() + 1);
    for (std::size_t i = from; i < to; ++i) {
      unsigned long row = (*cases)[i].first;
      std::fill(dist.begin(), dist.end(), 0.0f);
      tree.descend(0, (*cases)[i].second, dist, [&](compiled_tree::entry const& e) -> long {
        unsigned long order = e.order_of(row);
        if (e.test) return e.test->side_of_order(order);
        return static_cast<long>(order) - 1;
      });
      predicted[i] = static_cast<std::uint32_t>(best_class(dist));
    }
  };
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
  for (std::size_t i = 0; i < n; ++i) {
    m->add(predicted[i], cls->get_row_index((*cases)[i].first), (*cases)[i].second);
  }
  timer.stop();
  m->set_elapsed(timer.get_elapsed());
  return m.release();
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
  if (root_) root_->predict(values, dist, meta_.get(), weight);
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

conf_matrix* decision_tree::predict(zel::inpout::stream* source, bool delete_stream) const {
  if (source == nullptr) throw std::runtime_error("no zel::inpout::stream");
  std::unique_ptr<zel::inpout::stream> owned(delete_stream ? source : nullptr);
  zel::util::cronos timer;
  timer.start();
  std::unique_ptr<conf_matrix> m(new conf_matrix(meta_.get()));
  if (!root_) throw std::runtime_error("Found a null node");
  compiled_tree tree(root_.get(), meta_.get());
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
  compiled_tree tree(root_.get(), meta_.get());
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
