// A trained tree with owning, typed calls beside the facade: training on rows of a table,
// class probabilities, attribute usage and importance, and reproducible splits of a table.
// Everything runs on the same growing, pruning and prediction code as brixcmd.
#ifndef BRIX_MODEL_H
#define BRIX_MODEL_H

#include <cstdint>
#include <functional>
#include <iosfwd>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "brix/brix.h"
#include "brix/data.h"

namespace brix {

namespace impls {
class column;
class w_sequence;
}  // namespace impls

// error: prune by estimated error (brixcmd's default); full: also raise subtrees (-c4.5);
// none: no pruning (-np).
enum class pruning { error, full, none };

struct tree_options {
  float confidence = 0.25f;  // in (0, 1]
  float min_cases = 2.0f;    // > 1
  pruning prune = pruning::error;
  int threads = 1;  // above 1: grown on that many worker threads, to the same tree
  // Discrete attributes of more than two values split on groups of their values instead of a
  // branch per value. Such a tree's file is not brixcmd's: brixcmd refuses it.
  bool subsets = false;
  // Told each stage as it starts: "grow", "prune", "evaluate"; for progress and timings.
  std::function<void(char const*)> stage;
};

class tree_model {
 public:
  ~tree_model();
  tree_model(tree_model const&) = delete;
  tree_model& operator=(tree_model const&) = delete;

  // Grows and prunes on every row of the table, or on the given rows (each once, with the
  // table's weights). Throws std::invalid_argument for bad options or rows.
  static std::unique_ptr<tree_model> train(table& t, tree_options const& o = {},
                                           std::vector<unsigned long> const* rows = nullptr);
  // Grows and prunes on the given cases with the weights they carry instead of the table's: how
  // an ensemble trains on reweighted cases. The facade's training matrix is left empty (an
  // ensemble classifies the cases itself). Throws as train does.
  static std::unique_ptr<tree_model> train_weighted(table& t, tree_options const& o,
                                                    table::subset const& cases);
  // The binary tree file, as brixcmd -tb writes and -bt reads it.
  static std::unique_ptr<tree_model> load(std::string const& path);
  // Written to a temporary file beside path and renamed when complete.
  void save(std::string const& path) const;

  // Class values, in the order of every probability vector.
  std::vector<std::string> classes() const;
  // Attribute names, in table order (class and weights columns left out).
  std::vector<std::string> attributes() const;
  unsigned long size() const;
  unsigned long depth() const;

  // Class probabilities: the class distribution at the leaves a case reaches; a case with an
  // unknown value follows every branch with a share of its weight. Each vector sums to 1 within
  // 1e-6. The shares are summed in 32-bit floats, as brixcmd's score figures are, and kept as
  // they are where they sum to 1 within 1e-6; the shares of a case with unknown values may add
  // up to a little more or less than 1 (children's weights need not add up to their parent's),
  // and those are divided by their sum. Values: one text per attribute, "?" for unknown.
  std::vector<double> predict_proba(std::vector<std::string> const& values) const;
  // A row of a table: its columns are matched to the attributes by name; its value sets are its
  // own (values the tree never saw count as unknown).
  std::vector<double> predict_proba(table const& t, unsigned long row) const;
  // Every row: rows x classes, row-major; a large table on every core (the figures do not
  // depend on it).
  std::vector<double> predict_proba(table const& t) const;
  std::string predict(table const& t, unsigned long row) const;
  std::vector<std::string> predict(table const& t) const;
  // The confusion matrix of a table with a class column, each row counted with its weight, the
  // columns matched by name. Rows whose class value the tree never saw count as errors; unseen,
  // when given, receives each such value with the number of rows carrying it.
  std::unique_ptr<conf_matrix> evaluate(
      table const& t, std::vector<std::pair<std::string, unsigned long>>* unseen = nullptr) const;

  // The same for a .data file laid out as the training table's, read as brixcmd reads it (fields
  // split at separator, no header row).
  std::unique_ptr<conf_matrix> evaluate_data_file(
      std::string const& path, char separator,
      std::vector<std::pair<std::string, unsigned long>>* unseen = nullptr) const;
  // The attributes as the training table declared them, in table order.
  std::vector<column_info> attribute_columns() const;

  // Per attribute: the share of training weight that passes through a node testing it.
  std::vector<double> attribute_usage() const;
  // Per attribute: the sum over its split nodes of node weight times information gain,
  // normalised to sum to 1 (all 0 for a tree of one leaf).
  std::vector<double> importance() const;

  // The tree as brixcmd's text report prints it.
  void write_text(std::ostream& out) const;
  // PMML 4.4: the data dictionary with types and values, the mining schema, the tree with record
  // counts and class distributions; unknown values are aggregated over the branches, as the
  // tree itself does.
  void write_pmml(std::ostream& out) const;
  // Graphviz DOT, every label escaped; nodes deeper than max_depth (when >= 0) are cut to one
  // summary node each; leaves show their class counts, coloured by class.
  void write_dot(std::ostream& out, long max_depth = -1) const;
  // JSON of the whole tree (docs/json-model.md describes it; installed under share/doc/brix).
  void write_json(std::ostream& out) const;
  dtree const& facade() const { return *tree_; }

 private:
  friend class ensemble;  // reads and writes its trees inside a file of its own
  explicit tree_model(std::unique_ptr<dtree> tree);
  // The options already checked; null cases: every row with the table's weights.
  // stable_order: nodes keep row order, the searches sort copies stably and take float
  // logarithms of fractional weights (later boosting trials: nothing earlier to reproduce).
  static std::unique_ptr<tree_model> grow(table& t, tree_options const& o, impls::w_sequence* cases,
                                          bool evaluate = true, bool stable_order = false);
  // train_weighted, choosing the sorts' order as grow does.
  static std::unique_ptr<tree_model> train_weighted(table& t, tree_options const& o,
                                                    table::subset const& cases, bool stable_order);
  friend class tally_grower;
  // The table's column for each attribute, matched by name once per call.
  std::vector<impls::column const*> columns_of(table const& t) const;
  std::unique_ptr<dtree> tree_;

 public:
  // Nodes are numbered in preorder from the root (0), children in branch order, up to size().
  // The nodes each row of a table reaches (its columns matched by name): a row with an unknown
  // value at a split, or a value the tree never saw there, follows every branch, as prediction
  // does, so it can reach several leaves. Row r's nodes are nodes[starts[r]] up to
  // nodes[starts[r + 1]], ascending; leaves[r] is the leaf that receives the largest share of its
  // weight, the lowest numbered of equal shares.
  struct node_paths {
    std::vector<unsigned long> starts, nodes, leaves;
  };
  node_paths paths(table const& t) const;
  unsigned long leaves() const;
};

// A confusion matrix as plain figures. classes label both axes, the unknown class first;
// cells[actual][predicted] holds summed case weights.
struct confusion {
  std::vector<std::string> classes;
  std::vector<std::vector<float>> cells;
  float cases = 0.0f;       // the sum of all cells
  float error_rate = 0.0f;  // the share of it off the diagonal (0/0 when empty)
};
// An empty confusion for a matrix without cells.
confusion confusion_of(conf_matrix const& m);

// Splits drawn from a generator of our own (splitmix64): the same on every machine, and the C
// library's rand() state is left alone.
struct holdout_split {
  std::vector<unsigned long> train, test;  // ascending
};
holdout_split split_holdout(unsigned long n_rows, double test_fraction, std::uint64_t seed);
// fold[i] is the fold of row i, 0..k-1, folds as equal in size as possible; with labels, each
// label's rows are spread over the folds as evenly as possible.
std::vector<unsigned> kfold(unsigned long n_rows, unsigned k, std::uint64_t seed,
                            std::vector<unsigned long> const* labels = nullptr);

}  // namespace brix

#endif
