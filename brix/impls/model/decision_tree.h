// The decision tree model: the user-facing decision_tree, its tree of nodes
// and the node record.
#ifndef BRIX_IMPLS_DECISION_TREE_H
#define BRIX_IMPLS_DECISION_TREE_H

#include <functional>
#include <iosfwd>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <utility>
#include <vector>

#include "brix/impls/model/split_record.h"
#include "brix/impls/model/tree_settings.h"
#include "brix/impls/storage/column.h"
#include "brix/impls/storage/w_sequence.h"
#include "zel/adt/basic_tree.h"
#include "zel/inpout/fwd.h"

namespace brix {
class tally_grower;
namespace impls {

class table;
class conf_matrix;
class _decision_tree;

class compiled_tree;
class grower;
class split_scratch;
struct options;

class _decision_node {
 public:
  enum node_status : std::uint8_t { UNDEFINED_NODE = 0, LEAF_NODE = 1, SPLIT_NODE = 2 };

  _decision_node(_decision_node* father, unsigned long index);
  explicit _decision_node(w_sequence* cases);  // a root; the cases stay the caller's
  _decision_node(_decision_node const&) = delete;
  _decision_node& operator=(_decision_node const&) = delete;
  ~_decision_node();

  // A copy of every field, vectors deep-copied; the cases pointer is shared
  // for the root and copied otherwise.
  _decision_node* clone() const;

  node_status get_node_status() const { return status_; }
  void set_node_status(node_status s) { status_ = s; }
  bool is_activated() const { return activated_; }
  int get_split_status() const { return split_status_; }
  float get_cases_weight() const { return cases_weight_; }
  unsigned long get_cases_count() const { return cases_count_; }
  std::vector<float> const& get_class_distribution() const { return class_distribution_; }
  w_sequence* get_all_cases() const { return all_cases_; }
  _decision_node* get_father() const { return father_; }
  void set_father(_decision_node* father);
  unsigned long get_index() const { return index_; }
  float get_known_fract_over_father() const { return known_fract_; }
  unsigned long get_most_frequent_class() const { return most_frequent_; }
  unsigned long get_leaf() const { return leaf_or_att_; }
  unsigned long get_split_attribute_index() const { return leaf_or_att_; }
  std::string const& get_threshold() const { return partition_.threshold; }
  unsigned long get_no_of_splits() const { return partition_.branches; }
  partition_desc const& get_partition() const { return partition_; }
  // A split on groups of values: each value order's branch, from 1; null for other nodes.
  value_groups const* get_value_groups() const { return partition_.groups.get(); }
  float get_error() const { return error_; }
  void set_error(float e) { error_ = e; }
  float get_leaf_error() const { return cases_weight_ - class_distribution_[most_frequent_]; }
  std::vector<splitting_desc> const& get_split_descs() const;
  std::vector<order_range> const* get_att_ranges() const { return work_ ? work_->own() : nullptr; }

  // Hands owned cases over to the caller; the node keeps pointing to them.
  w_sequence* share_cases();

  void toTEXT(table* meta, std::ostream& out, unsigned long branch) const;
  void print_att_gain(table* t, std::ostream& out) const;

  // Fields restored by the binary tree reader.
  friend zel::inpout::ibinstream& operator>>(zel::inpout::ibinstream& in, _decision_node& n);
  friend zel::inpout::obinstream& operator<<(zel::inpout::obinstream& out, _decision_node const& n);
  friend class grower;
  friend class _decision_tree;
  friend class decision_tree;
  friend class ::brix::tally_grower;

 private:
  void reset_partition() { partition_ = partition_desc(); }
  // The node's ranges, replaced by a copy of the given ones (or the empty set).
  std::vector<order_range>& reset_ranges(std::vector<order_range> const* from);
  std::vector<order_range>& ranges() const { return *work_->own(); }
  std::vector<splitting_desc>& descs() const { return work_->descs; }

  // Wide fields first, the small ones packed at the end: a grown tree holds one record a node.
  _decision_node* father_ = nullptr;
  w_sequence* all_cases_ = nullptr;
  std::unique_ptr<_node_work> work_;  // while activated
  std::vector<float> class_distribution_;
  partition_desc partition_;
  // Rows, classes, attributes and branches all number below 2^32.
  std::uint32_t index_ = 0;  // branch of the father leading here, from 1
  std::uint32_t cases_count_ = 0;
  std::uint32_t most_frequent_ = 0;
  std::uint32_t leaf_or_att_ = 0;
  float cases_weight_ = 0.0f;
  float known_fract_ = 0.0f;
  float error_ = 0.0f;
  node_status status_ = UNDEFINED_NODE;
  std::uint8_t split_status_ = 0;
  bool activated_ = false;
  bool owns_cases_ = false;  // the root's cases belong to its caller
};
static_assert(sizeof(_decision_node) <= 128, "a grown tree keeps one node record a node");

// Error-based pruning's confidence level and the coefficient derived from it.
struct prune_params {
  float cf;
  float coeff;
};

class _decision_tree;

// Subtrees grown and prepruned elsewhere, each against the bound its place in the tree gives it:
// prepruning takes each one's value instead of descending into it, and notes those it reaches.
struct settled_subtrees {
  std::unordered_map<_decision_tree const*, float> value;
  std::unordered_set<_decision_tree const*> reached;
};

class _decision_tree : public zel::adt::basic_tree<_decision_node, _decision_tree> {
 public:
  _decision_tree() = default;
  ~_decision_tree() override = default;

  _decision_tree* clone() const;

  // Grows and preprunes the tree; with prune given, sequential growing also prunes each
  // subtree as it completes (the caller's later pruning of the whole tree leaves it as it is).
  void build(table* t, w_sequence* cases, int split_type, options const* opts, float min_obj,
             int workers, prune_params const* prune = nullptr);
  void build_depth(table* t, int split_type, float min_obj, options const* opts,
                   prune_params const* prune);
  // Grows the subtree of this activated node depth first, prepruning it when preprune (as the
  // root of the whole tree) and pruning each settled subtree when prune is given.
  void grow_depth(table* t, int split_type, float min_obj, options const* opts,
                  prune_params const* prune, bool preprune, split_scratch& scratch);
  // Hands the cases of this decided node to new activated children (none when it stays a
  // leaf), then closes the node; parts, shares and ranges are the caller's reusable buffers.
  void branch_out(table* t, options const* opts, split_scratch& scratch,
                  std::vector<w_sequence*>& parts, std::vector<float>& shares,
                  std::vector<order_range>& ranges);
  void build_ff(table* t, int split_type, float min_obj, options const* opts, int nworkers);
  float preprune(float bound, settled_subtrees* settled = nullptr);
  // The bound prepruning hands the children of a split node of this leaf error when it reaches
  // the node with bound.
  static float child_bound(float leaf_error, float bound);

  static float CFCoefficient(float cf);
  static float add_errs(float cf, float coeff, float n, float e);
  float prune_dt(table* t, float cf, float coeff);
  float prune_dt(table* t, float cf);
  // Error-based pruning of this node alone, its children already pruned; returns what prune_dt
  // returns for it.
  float prune_dt_here(float cf, float coeff);
  // What prune_dt returned for this subtree once it is pruned.
  float pruned_value() const;
  std::pair<float, float> prune_c45(table* t, float cf, float coeff, bool update,
                                    bool substitute_father);
  std::pair<float, float> prune_c45(table* t, float cf);

  // The confusion matrix of a table's cases, classified on up to threads threads; each case
  // descends with its own weight. The table is the one the tree was grown on, or one with the
  // same value sets.
  conf_matrix* predict(table* t, w_sequence const* cases, int threads = 1) const;

  void toTEXT(table* meta, std::ostream& out, unsigned long level) const;

  // Replaces this tree by the subtree record read from in. Throws
  // std::runtime_error on a short read or a shape no writer produces.
  // groups: each split node's value groups follow it (an empty list for an ordinary split).
  void load_bin(zel::inpout::ibinstream& in, _decision_node* father, bool groups = false);
  // The subtree as the tree file holds it, for load_bin.
  void save_bin(zel::inpout::obinstream& out, bool groups = false) const;

  // Drops the children and turns the node into a leaf with the given error.
  void collapse(float error);
};

class decision_tree {
 public:
  enum SplitType { GAIN = 0, GAIN_RATIO = 1 };
  enum PruningStrategy { NO_PRUNING = 0, C45_PRUNING = 1, DT_PRUNING = 2 };
  enum Options { COUNT_CASES = 0, WEIGHT_CASES = 1 };

  explicit decision_tree(std::string const& name);
  decision_tree(decision_tree const&) = delete;
  decision_tree& operator=(decision_tree const&) = delete;
  ~decision_tree();

  decision_tree* clone() const;

  bool set_split_type(unsigned long t);
  bool set_min_obj(float m);
  bool set_conf_level(float c);
  bool set_pruning_strategy(int p);
  bool set_option(int o);
  // Later boosting trials only: see options::stable_order. Not kept with the model.
  void set_stable_order(bool on) { stable_order_ = on; }
  // Discrete attributes split on groups of their values (options::subsets). Not kept with the
  // model: its split nodes keep their groups.
  void set_subsets(bool on) { subsets_ = on; }
  // Whether any split node of the tree is on groups of values.
  bool has_value_groups() const;

  void build_unpruned(table* t, w_sequence* cases, bool evaluate);
  // stage, when given, is told "prune" and "evaluate" as growing hands over to them.
  void build_pruned(table* t, w_sequence* cases, bool evaluate, int workers,
                    std::function<void(char const*)> const& stage = nullptr);
  // Takes a tree grown elsewhere from statistics alone (on several tables with t's value sets;
  // t itself need hold no cases), prepruned as growing leaves it, and prunes it as build_pruned
  // does. Subtree raising needs every node's cases: that strategy is refused. The training
  // matrix starts empty (set_prediction gives it).
  void adopt_grown(table* t, std::unique_ptr<_decision_tree> root);
  void set_prediction(std::unique_ptr<conf_matrix> m);
  void prune(table* t);

  unsigned long size() const;
  unsigned long depth() const;
  unsigned long get_n_classes() const;
  std::string get_class_value(unsigned long i) const;
  unsigned long training_n_rows() const;
  double get_elapsed() const { return elapsed_; }
  std::string const& get_name() const { return name_; }
  float get_conf_level() const { return settings_.conf_level; }
  float get_min_obj() const { return settings_.min_obj; }
  int get_split_type() const { return settings_.split_type; }
  int get_pruning_strategy() const { return settings_.pruning_strategy; }
  _decision_tree* get_root() const { return root_.get(); }
  table* get_metadata() const { return meta_.get(); }
  conf_matrix* get_prediction() const { return training_.get(); }

  // The class distribution (index 0: the unknown class) a case given as one value text per
  // attribute reaches with the given weight, added to dist (classes + 1 entries).
  void distribution(std::vector<std::string> const& values, std::vector<float>& dist,
                    float weight) const;
  std::pair<unsigned long, float> predict(std::vector<std::string> const& values,
                                          float weight) const;
  std::pair<std::string, float> prediction(std::vector<std::string> const& values,
                                           float weight) const;
  std::pair<std::string, float> prediction(table* t, unsigned long row, float weight) const;
  conf_matrix* predict(table* t, w_sequence const* cases) const;
  // The test rows of a stream; unseen, when given, receives each class value the tree never saw
  // with the number of rows carrying it.
  conf_matrix* predict(zel::inpout::stream* source, bool delete_stream,
                       std::vector<std::pair<std::string, unsigned long>>* unseen = nullptr) const;
  double evaluate(zel::inpout::stream* source, std::ostream& out, char separator,
                  bool delete_stream) const;

  void toTEXT(std::ostream& out, unsigned long level) const;

  friend zel::inpout::ibinstream& operator>>(zel::inpout::ibinstream& in, decision_tree& t);
  friend zel::inpout::obinstream& operator<<(zel::inpout::obinstream& out, decision_tree const& t);

 private:
  void build(table* t, w_sequence* cases, bool evaluate, int workers, bool pruned,
             std::function<void(char const*)> const& stage = nullptr);
  // The tree laid out for cases given as value texts, made at the first such case and kept
  // until the tree changes.
  compiled_tree const& by_text() const;
  void forget_compiled();

  std::unique_ptr<_decision_tree> root_;
  std::unique_ptr<table> meta_;
  std::unique_ptr<conf_matrix> training_;
  tree_settings settings_;
  double elapsed_ = 0.0;
  bool stable_order_ = false;
  bool subsets_ = false;
  std::string name_;
  std::unique_ptr<w_sequence> root_cases_;  // the cases the root was grown from
  mutable std::mutex compiled_mutex_;
  mutable std::shared_ptr<compiled_tree const> by_text_;
};

// The value texts of branch i (from 0) of a split of col on groups of values, in value order.
std::vector<std::string> group_values(column const* col, value_groups const& groups,
                                      unsigned long i);
// A branch's test as the text report words it: "= v" for a group of one value, "in {v, w}".
std::string group_test(column const* col, value_groups const& groups, unsigned long i);

// The classes of a distribution of weight 1 (index 0, the unknown class, left out) as shares that
// sum to 1 within 1e-6: as summed where they do, which keeps them equal to the score file's
// figures, and divided by their sum where they do not (a case with unknown values reaches shares
// that, summed in 32-bit floats, may add up to a little more or less than its weight).
void class_shares(std::vector<float> const& dist, double* out);

// The tree bound to a table whose columns carry its attribute names but whose value sets are its
// own (another file's, in another order, with values the tree never saw): built once per table,
// each split node then reads the table's stored orders through a map to the tree's branches, and
// every row is classified as the same values given as texts would be.
class table_predictor {
 public:
  // cols[a]: the table's column of the tree's attribute a.
  table_predictor(decision_tree const& tree, table const* t,
                  std::vector<column const*> const& cols);
  ~table_predictor();
  table_predictor(table_predictor const&) = delete;
  table_predictor& operator=(table_predictor const&) = delete;

  // Rows [from, to), each with weight 1, as class probabilities (the unknown class left out)
  // that sum to 1: (to - from) x classes, row-major, into out.
  void probabilities(unsigned long from, unsigned long to, double* out, int threads) const;
  // Every row of a table with a class column, each counted with its weight. Class values the
  // tree never saw count as the unknown class; unseen, when given, receives each with the
  // number of rows carrying it.
  conf_matrix* evaluate(int threads,
                        std::vector<std::pair<std::string, unsigned long>>* unseen) const;

  // A node a row reaches: its number (preorder from the root, 0, null nodes left out), the share
  // of the row's weight of 1 reaching it, and whether the descent ends there.
  struct reached_node {
    unsigned long node;
    float weight;
    bool leaf;
  };
  // The nodes a row reaches, descending as probabilities() does, in the order visited: into out,
  // cleared first.
  void reach(unsigned long row, std::vector<reached_node>& out) const;

 private:
  decision_tree const& tree_;
  table const* table_;
  std::unique_ptr<compiled_tree> compiled_;
};

}  // namespace impls
}  // namespace brix

#endif
