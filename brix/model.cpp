// The trained-tree API over the facade and the tree implementation.
#include "brix/model.h"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <numeric>
#include <ostream>
#include <stdexcept>
#include <thread>

#include "brix/data.h"
#include "brix/impls/model/conf_matrix.h"
#include "brix/impls/model/decision_tree.h"
#include "brix/impls/storage/table.h"
#include "brix/tree_writer.h"
#include "brix/writers/shared.h"
#include "zel/inpout/stream.h"

namespace brix {

namespace {

using impls::_decision_node;
using impls::_decision_tree;

// Messages reach users as they are: no internal prefix.
[[noreturn]] void bad(std::string const& what) {
  throw std::invalid_argument(what);
}

impls::decision_tree& impl(dtree const& t) {
  return *t.get_impl();
}

// Information of a class distribution (index 0, the unknown class, included), in bits.
double info(std::vector<float> const& d) {
  double total = 0.0, sum = 0.0;
  for (float w : d)
    total += w;
  if (total <= 0.0) return 0.0;
  for (float w : d)
    if (w > 0.0f) sum -= (w / total) * std::log2(w / total);
  return sum;
}

// Walks the tree, telling f each split node with the set of attributes tested above it.
template <class F>
void each_split(_decision_tree const* t, std::vector<bool>& above, F const& f) {
  if (t == nullptr || t->get_node() == nullptr) return;
  _decision_node const* n = t->get_node();
  if (n->get_node_status() != _decision_node::SPLIT_NODE) return;
  unsigned long a = n->get_split_attribute_index();
  f(*t, a, above[a]);
  bool was = above[a];
  above[a] = true;
  for (unsigned long i = 0; i < t->get_no_childs(); ++i)
    each_split(t->get_child(i), above, f);
  above[a] = was;
}

// Threads for classifying a large table: each row's figures are the same on any number.
int cores() {
  return static_cast<int>(std::min(8u, std::max(1u, std::thread::hardware_concurrency())));
}

std::uint64_t splitmix64(std::uint64_t& state) {
  std::uint64_t z = (state += 0x9E3779B97F4A7C15ull);
  z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
  z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
  return z ^ (z >> 31);
}

// Fisher-Yates with draws made unbiased by rejection.
void shuffle(std::vector<unsigned long>& v, std::uint64_t& state) {
  for (std::size_t i = v.size(); i > 1; --i) {
    std::uint64_t bound = i, limit = UINT64_MAX - UINT64_MAX % bound, r;
    do {
      r = splitmix64(state);
    } while (r >= limit);
    std::swap(v[i - 1], v[static_cast<std::size_t>(r % bound)]);
  }
}

}  // namespace

tree_model::tree_model(std::unique_ptr<dtree> tree) : tree_(std::move(tree)) {}
tree_model::~tree_model() = default;

std::unique_ptr<tree_model> tree_model::train(table& t, tree_options const& o,
                                              std::vector<unsigned long> const* rows) {
  if (!(o.confidence > 0.0f && o.confidence <= 1.0f)) bad("confidence must be in (0,1]");
  if (!(o.min_cases > 1.0f)) bad("min_cases must be > 1");
  if (o.threads < 1 || o.threads > 64) bad("threads must be in [1,64]");
  if (t.get_impl()->get_class() == nullptr) bad("the table has no class column");
  if (t.get_no_rows() == 0) bad("the table has no rows");
  std::unique_ptr<table::subset> cases;
  if (rows != nullptr) {
    if (rows->empty()) bad("no rows to train on");
    cases.reset(new table::subset());
    cases->reserve(rows->size());
    for (unsigned long r : *rows) {
      if (r >= t.get_no_rows()) bad("row " + std::to_string(r) + " is not in the table");
      cases->push_back(r, t.get_weight(r));
    }
  }
  return grow(t, o, cases ? cases->get_impl() : nullptr);
}

std::unique_ptr<tree_model> tree_model::train_weighted(table& t, tree_options const& o,
                                                       table::subset const& cases) {
  return train_weighted(t, o, cases, false);
}

std::unique_ptr<tree_model> tree_model::train_weighted(table& t, tree_options const& o,
                                                       table::subset const& cases,
                                                       bool stable_order) {
  if (!(o.confidence > 0.0f && o.confidence <= 1.0f)) bad("confidence must be in (0,1]");
  if (!(o.min_cases > 1.0f)) bad("min_cases must be > 1");
  if (o.threads < 1 || o.threads > 64) bad("threads must be in [1,64]");
  if (t.get_impl()->get_class() == nullptr) bad("the table has no class column");
  if (cases.size() == 0) bad("no rows to train on");
  for (unsigned long i = 0; i < cases.size(); ++i)
    if (cases.get(i) >= t.get_no_rows())
      bad("row " + std::to_string(cases.get(i)) + " is not in the table");
  return grow(t, o, cases.get_impl(), false, stable_order);
}

std::unique_ptr<tree_model> tree_model::grow(table& t, tree_options const& o,
                                             impls::w_sequence* cases, bool evaluate,
                                             bool stable_order) {
  auto tree = std::make_unique<dtree>(t.get_name());
  impl(*tree).set_stable_order(stable_order);
  impl(*tree).set_subsets(o.subsets);
  tree->set_conf_level(o.confidence);
  tree->set_min_obj(o.min_cases);
  tree->set_pruning_strategy(o.prune == pruning::none   ? dtree::NO_PRUNING
                             : o.prune == pruning::full ? dtree::C45_PRUNING
                                                        : dtree::DT_PRUNING);
  if (o.stage) o.stage("grow");
  impl(*tree).build_pruned(t.get_impl(), cases, evaluate, o.threads > 1 ? o.threads : 0, o.stage);
  return std::unique_ptr<tree_model>(new tree_model(std::move(tree)));
}

std::unique_ptr<tree_model> tree_model::load(std::string const& path) {
  // The binary reader cannot say why a file does not open; the name and the reason are asked
  // for here first.
  if (std::FILE* f = std::fopen(path.c_str(), "rb"))
    std::fclose(f);
  else
    throw std::runtime_error("File " + path + ": cannot be opened (" + std::strerror(errno) + ")");
  std::unique_ptr<dtree> tree(writers::read_tree_file(path, true));
  if (impl(*tree).get_metadata() == nullptr || impl(*tree).get_root() == nullptr)
    throw std::runtime_error("File " + path + ": holds no tree");
  // A tree grown from text that is not UTF-8 (brixcmd takes any bytes) would make malformed
  // JSON and PMML.
  std::string bad = non_utf8_text(*impl(*tree).get_metadata());
  if (!bad.empty())
    throw std::runtime_error("File " + path + ": " + bad + " holds bytes that are not UTF-8");
  return std::unique_ptr<tree_model>(new tree_model(std::move(tree)));
}

void tree_model::save(std::string const& path) const {
  char const* failed = "error with binary output";
  write_replacing(
      path,
      [&](std::string const& target) {
        try {
          output_format_named("binary").writer->write(tree_output{*tree_}, target);
        } catch (std::exception const&) {
          throw std::runtime_error("File " + path + ": " + failed);
        }
      },
      failed);
}

std::vector<std::string> tree_model::classes() const {
  std::vector<std::string> out;
  for (unsigned long c = 1; c <= impl(*tree_).get_n_classes(); ++c)
    out.push_back(impl(*tree_).get_class_value(c));
  return out;
}

std::vector<std::string> tree_model::attributes() const {
  impls::table const* meta = impl(*tree_).get_metadata();
  std::vector<std::string> out;
  for (unsigned long a = 0; a < meta->get_no_attributes(); ++a)
    out.push_back(meta->get_attribute(a)->get_name());
  return out;
}

unsigned long tree_model::size() const {
  return tree_->size();
}
unsigned long tree_model::depth() const {
  return tree_->depth();
}

std::vector<double> tree_model::predict_proba(std::vector<std::string> const& values) const {
  impls::decision_tree const& t = impl(*tree_);
  if (values.size() != t.get_metadata()->get_no_attributes()) {
    bad(std::to_string(values.size()) + " values given for " +
        std::to_string(t.get_metadata()->get_no_attributes()) + " attributes");
  }
  std::vector<float> dist(t.get_n_classes() + 1, 0.0f);
  t.distribution(values, dist, 1.0f);
  std::vector<double> p(dist.size() - 1, 0.0);
  impls::class_shares(dist, p.data());
  return p;
}

std::vector<impls::column const*> tree_model::columns_of(table const& t) const {
  impls::table const& tab = *t.get_impl();
  impls::table const* meta = impl(*tree_).get_metadata();
  std::vector<impls::column const*> cols;
  for (unsigned long a = 0; a < meta->get_no_attributes(); ++a) {
    std::string const& name = meta->get_attribute(a)->get_name();
    impls::column const* col = nullptr;
    for (unsigned long i = 0; i < tab.get_loaded_columns() && col == nullptr; ++i)
      if (tab.get_column(i)->get_name() == name) col = tab.get_column(i);
    if (col == nullptr) bad("the table has no column '" + name + "'");
    cols.push_back(col);
  }
  return cols;
}

std::vector<double> tree_model::predict_proba(table const& t, unsigned long row) const {
  if (row >= t.get_no_rows()) bad("row " + std::to_string(row) + " is not in the table");
  std::vector<double> p(impl(*tree_).get_n_classes());
  impls::table_predictor(impl(*tree_), t.get_impl(), columns_of(t))
      .probabilities(row, row + 1, p.data(), 1);
  return p;
}

std::vector<double> tree_model::predict_proba(table const& t) const {
  std::vector<double> out(t.get_no_rows() * impl(*tree_).get_n_classes());
  impls::table_predictor(impl(*tree_), t.get_impl(), columns_of(t))
      .probabilities(0, t.get_no_rows(), out.data(), cores());
  return out;
}

namespace {
// The first class of the largest share wins, as in prediction.
std::string best_of(impls::decision_tree const& tree, double const* p, std::size_t k) {
  auto best = std::max_element(p, p + k) - p;
  return tree.get_class_value(static_cast<unsigned long>(best) + 1);
}
}  // namespace

std::string tree_model::predict(table const& t, unsigned long row) const {
  std::vector<double> p = predict_proba(t, row);
  return best_of(impl(*tree_), p.data(), p.size());
}

std::vector<std::string> tree_model::predict(table const& t) const {
  std::vector<double> p = predict_proba(t);
  std::size_t k = impl(*tree_).get_n_classes();
  std::vector<std::string> out;
  out.reserve(t.get_no_rows());
  for (std::size_t at = 0; at < p.size(); at += k)
    out.push_back(best_of(impl(*tree_), p.data() + at, k));
  return out;
}

std::unique_ptr<conf_matrix> tree_model::evaluate(
    table const& t, std::vector<std::pair<std::string, unsigned long>>* unseen) const {
  if (t.get_impl()->get_class() == nullptr) bad("the table has no class column");
  impls::table_predictor p(impl(*tree_), t.get_impl(), columns_of(t));
  return std::make_unique<conf_matrix>(p.evaluate(cores(), unseen));
}

std::unique_ptr<conf_matrix> tree_model::evaluate_data_file(
    std::string const& path, char separator,
    std::vector<std::pair<std::string, unsigned long>>* unseen) const {
  return std::make_unique<conf_matrix>(impl(*tree_).predict(
      zel::inpout::stream::FROM_READER("FILE#" + path + "#" + std::string(1, separator)), true,
      unseen));
}

std::vector<column_info> tree_model::attribute_columns() const {
  impls::table const* meta = impl(*tree_).get_metadata();
  std::vector<column_info> out;
  for (unsigned long a = 0; a < meta->get_no_attributes(); ++a) {
    impls::column const& c = *meta->get_attribute(a);
    out.push_back({c.get_name(),
                   c.is_continuous() ? column_kind::continuous : column_kind::discrete,
                   c.get_o_set()->get_datatype(), c.get_o_set()->admits_null()});
  }
  return out;
}

confusion confusion_of(conf_matrix const& m) {
  confusion out;
  impls::conf_matrix const* c = m.get_impl();
  if (c == nullptr) return out;
  out.classes = c->names();
  out.cases = c->cases();
  out.error_rate = c->mis_perc();
  out.cells.assign(c->size(), std::vector<float>(c->size(), 0.0f));
  for (unsigned long actual = 0; actual < c->size(); ++actual)
    for (unsigned long predicted = 0; predicted < c->size(); ++predicted)
      out.cells[actual][predicted] = c->get_element(predicted, actual);
  return out;
}

std::vector<double> tree_model::attribute_usage() const {
  impls::decision_tree const& t = impl(*tree_);
  std::size_t n = t.get_metadata()->get_no_attributes();
  std::vector<double> usage(n, 0.0);
  std::vector<bool> above(n, false);
  double total = t.get_root()->get_node()->get_cases_weight();
  // A case is counted once per attribute, at the first node on its path that tests it.
  each_split(t.get_root(), above, [&](_decision_tree const& node, unsigned long a, bool seen) {
    if (!seen) usage[a] += node.get_node()->get_cases_weight();
  });
  for (double& u : usage)
    u = total > 0.0 ? u / total : 0.0;
  return usage;
}

std::vector<double> tree_model::importance() const {
  impls::decision_tree const& t = impl(*tree_);
  std::size_t n = t.get_metadata()->get_no_attributes();
  std::vector<double> imp(n, 0.0);
  std::vector<bool> above(n, false);
  each_split(t.get_root(), above, [&](_decision_tree const& node, unsigned long a, bool) {
    _decision_node const* p = node.get_node();
    double children = 0.0, weighted = 0.0;
    for (unsigned long i = 0; i < node.get_no_childs(); ++i) {
      _decision_tree const* c = node.get_child(i);
      if (c == nullptr || c->get_node() == nullptr) continue;
      double w = c->get_node()->get_cases_weight();
      children += w;
      weighted += w * info(c->get_node()->get_class_distribution());
    }
    double gain = info(p->get_class_distribution()) - (children > 0.0 ? weighted / children : 0.0);
    imp[a] += p->get_cases_weight() * std::max(gain, 0.0);
  });
  double sum = std::accumulate(imp.begin(), imp.end(), 0.0);
  for (double& v : imp)
    v = sum > 0.0 ? v / sum : 0.0;
  return imp;
}

void tree_model::write_text(std::ostream& out) const {
  output_format_named("text").writer->write(tree_output{*tree_}, out);
}
void tree_model::write_pmml(std::ostream& out) const {
  output_format_named("pmml").writer->write(tree_output{*tree_}, out);
}
void tree_model::write_dot(std::ostream& out, long max_depth) const {
  output_format_named("dot").writer->write(tree_output{*tree_, nullptr, max_depth}, out);
}
void tree_model::write_json(std::ostream& out) const {
  output_format_named("json").writer->write(tree_output{*tree_}, out);
}

holdout_split split_holdout(unsigned long n_rows, double test_fraction, std::uint64_t seed) {
  if (!(test_fraction >= 0.0 && test_fraction <= 1.0))
    throw std::invalid_argument("[brix::split_holdout] the test fraction must be in [0,1]");
  std::vector<unsigned long> rows(n_rows);
  std::iota(rows.begin(), rows.end(), 0ul);
  std::uint64_t state = seed;
  shuffle(rows, state);
  auto n_test = static_cast<std::size_t>(std::llround(test_fraction * static_cast<double>(n_rows)));
  holdout_split s;
  s.test.assign(rows.begin(), rows.begin() + static_cast<long>(n_test));
  s.train.assign(rows.begin() + static_cast<long>(n_test), rows.end());
  std::sort(s.test.begin(), s.test.end());
  std::sort(s.train.begin(), s.train.end());
  return s;
}

std::vector<unsigned> kfold(unsigned long n_rows, unsigned k, std::uint64_t seed,
                            std::vector<unsigned long> const* labels) {
  if (k < 2 || k > n_rows) throw std::invalid_argument("[brix::kfold] k must be in [2, rows]");
  if (labels != nullptr && labels->size() != n_rows)
    throw std::invalid_argument("[brix::kfold] one label per row is needed");
  std::vector<unsigned long> rows(n_rows);
  std::iota(rows.begin(), rows.end(), 0ul);
  std::uint64_t state = seed;
  shuffle(rows, state);
  // Stratified: rows of one label stay together in the dealing order, so each label is dealt
  // round the folds in turn.
  if (labels != nullptr)
    std::stable_sort(rows.begin(), rows.end(),
                     [&](unsigned long a, unsigned long b) { return (*labels)[a] < (*labels)[b]; });
  std::vector<unsigned> fold(n_rows);
  for (std::size_t i = 0; i < rows.size(); ++i)
    fold[rows[i]] = static_cast<unsigned>(i % k);
  return fold;
}

}  // namespace brix
