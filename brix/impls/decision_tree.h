// The decision tree model: the user-facing decision_tree, its tree of nodes
// and the node record.
#ifndef BRIX_IMPLS_DECISION_TREE_H
#define BRIX_IMPLS_DECISION_TREE_H

#include <functional>
#include <iosfwd>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "brix/impls/column.h"
#include "brix/impls/w_sequence.h"
#include "zel/adt/basic_tree.h"
#include "zel/inpout/fwd.h"

namespace brix {
namespace impls {

class table;
class conf_matrix;
class _decision_tree;

class xlogx_table;

// Options handed unchanged to the split measures: when flag is set, the
// penalty of continuous cuts is divided by the number of cases instead of
// their weight. The other fields are set by the grower for one build: logs is
// its table of x·log2(x) (may be null); any_order says that every weight sum
// is exact whatever the order of the cases (whole weights, no unknown values
// to share out), so nodes below the root may keep their cases in row order,
// which reads the columns far faster, and searches sort copies.
struct options {
  bool flag = false;
  xlogx_table const* logs = nullptr;
  bool any_order = false;
};

class _decision_node {
 public:
  enum node_status { UNDEFINED_NODE = 0, LEAF_NODE = 1, SPLIT_NODE = 2 };

  _decision_node(_decision_node* father, unsigned long index);
  explicit _decision_node(w_sequence* cases);  // a root; the cases stay the caller's
  _decision_node(_decision_node const&) = delete;
  _decision_node& operator=(_decision_node const&) = delete;
  ~_decision_node();

  // A copy of every field, vectors deep-copied; the cases pointer is shared
  // for the root and copied otherwise.
  _decision_node* clone() const;
  void blank_node();

  void activate(table* t);
  void activate_root(table* t);
  void activate_node(table* t);
  // Stands in for the father: its index, its known fraction and a copy of
  // all its cases.
  void activate_substitute_father(table* t);
  // Activation with cases already distributed by the father.
  void activate_with(table* t, w_sequence* cases, float known_fraction, order_range att_range);
  void compute_statistics(table* t);
  void disactivate();

  int split(table* t, int split_type, float min_obj, options const* opts);
  int split_gain(table* t, bool use_ratio, float min_obj, options const* opts);
  bool split_pre(table* t, int split_type, float min_obj);
  void split_att(table* t, float min_obj, options const* opts, unsigned long att, bool sort_copy);
  // Scores one attribute on the given cases (the node's, or an order of them).
  void split_att_on(table* t, float min_obj, options const* opts, unsigned long att,
                    w_sequence* cases, order_publisher* publish);
  int split_post(table* t);
  int split2(table* t, int split_type, float min_obj, options const* opts);
  bool split_att_worth(unsigned long att);
  void set_as_leaf();
  // Distributes the cases to every branch of the split at once. Returns false, and turns the
  // node into a leaf, when no threshold can separate its cases.
  bool distribute(table* t, std::vector<w_sequence*>& children, std::vector<float>& shares,
                  std::vector<order_range>& ranges, options const* opts);

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
  column::partition_desc const& get_partition() const { return partition_; }
  float get_error() const { return error_; }
  void set_error(float e) { error_ = e; }
  float get_leaf_error() const { return cases_weight_ - class_distribution_[most_frequent_]; }
  std::vector<column::splitting_desc> const& get_split_descs() const { return split_descs_; }
  std::vector<order_range> const* get_att_ranges() const { return att_ranges_; }

  // Collapses the node into a leaf with the given error.
  void make_leaf(float error);
  // Hands owned cases over to the caller; the node keeps pointing to them.
  w_sequence* share_cases();

  void toTEXT(table* meta, std::ostream& out, unsigned long branch) const;
  void print_att_gain(table* t, std::ostream& out) const;
  // The XML model: the predicate that leads here, then the class distribution.
  void toXML(table* meta, std::ostream& out) const;
  void toXML_class_distribution(table* meta, std::ostream& out) const;

  // Fields restored by the binary tree reader.
  friend zel::inpout::ibinstream& operator>>(zel::inpout::ibinstream& in, _decision_node& n);
  friend zel::inpout::obinstream& operator<<(zel::inpout::obinstream& out, _decision_node const& n);
  friend class _decision_tree;
  friend class decision_tree;

 private:
  void reset_partition() { partition_ = column::partition_desc(); }
  bool holds_all(std::vector<w_sequence*> const& children) const;
  static void drop(std::vector<w_sequence*>& children);

  node_status status_ = UNDEFINED_NODE;
  bool activated_ = false;
  _decision_node* father_ = nullptr;
  unsigned long index_ = 0;  // branch of the father leading here, from 1
  float cases_weight_ = 0.0f;
  unsigned long cases_count_ = 0;
  std::vector<float> class_distribution_;
  float known_fract_ = 0.0f;
  unsigned long most_frequent_ = 0;
  w_sequence* all_cases_ = nullptr;
  bool owns_cases_ = false;  // the root's cases belong to its caller
  std::vector<order_range>* att_ranges_ = nullptr;
  std::vector<column::splitting_desc> split_descs_;
  int split_status_ = 0;
  float error_ = 0.0f;
  unsigned long leaf_or_att_ = 0;
  column::partition_desc partition_;
};

class _decision_tree : public zel::adt::basic_tree<_decision_node, _decision_tree> {
 public:
  _decision_tree() = default;
  ~_decision_tree() override = default;

  _decision_tree* clone() const;

  void build(table* t, w_sequence* cases, int split_type, options const* opts, float min_obj,
             int workers);
  void build_breadth(table* t, int split_type, float min_obj, options const* opts);
  void build_ff(table* t, int split_type, float min_obj, options const* opts, int nworkers);
  float preprune(float bound);

  static float CFCoefficient(float cf);
  static float add_errs(float cf, float coeff, float n, float e);
  float prune_dt(table* t, float cf, float coeff);
  float prune_dt(table* t, float cf);
  std::pair<float, float> prune_c45(table* t, float cf, float coeff, bool update,
                                    bool substitute_father);
  std::pair<float, float> prune_c45(table* t, float cf);

  // Adds the weighted class distribution that a case reaches to dist.
  void predict(std::vector<std::string> const& values, std::vector<float>& dist, table* meta,
               float weight) const;
  // The confusion matrix of a table's cases, classified on up to threads threads.
  conf_matrix* predict(table* t, w_sequence const* cases, int threads = 1) const;

  void toTEXT(table* meta, std::ostream& out, unsigned long level) const;
  // One Node element of the XML model with its subtree.
  void toXML(table* meta, std::ostream& out) const;
  // The DOT lines of the subtree numbered from id; returns the largest number used.
  unsigned long toDOT(table* meta, std::ostream& out, unsigned long total, unsigned long id) const;

  // Replaces this tree by the subtree record read from in. Throws
  // std::runtime_error on a short read or a shape no writer produces.
  void load_bin(zel::inpout::ibinstream& in, _decision_node* father);

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

  void build_unpruned(table* t, w_sequence* cases, bool evaluate);
  // stage, when given, is told "prune" and "evaluate" as growing hands over to them.
  void build_pruned(table* t, w_sequence* cases, bool evaluate, int workers,
                    std::function<void(char const*)> const& stage = nullptr);
  void prune(table* t);

  unsigned long size() const;
  unsigned long depth() const;
  unsigned long get_n_classes() const;
  std::string get_class_value(unsigned long i) const;
  unsigned long training_n_rows() const;
  double get_elapsed() const { return elapsed_; }
  std::string const& get_name() const { return name_; }
  float get_conf_level() const { return conf_level_; }
  float get_min_obj() const { return min_obj_; }
  int get_split_type() const { return split_type_; }
  int get_pruning_strategy() const { return pruning_strategy_; }
  _decision_tree* get_root() const { return root_.get(); }
  table* get_metadata() const { return meta_.get(); }
  conf_matrix* get_prediction() const { return training_.get(); }

  std::pair<unsigned long, float> predict(std::vector<std::string> const& values,
                                          float weight) const;
  std::pair<std::string, float> prediction(std::vector<std::string> const& values,
                                           float weight) const;
  std::pair<std::string, float> prediction(table* t, unsigned long row, float weight) const;
  conf_matrix* predict(table* t, w_sequence const* cases) const;
  conf_matrix* predict(zel::inpout::stream* source, bool delete_stream) const;
  double evaluate(zel::inpout::stream* source, std::ostream& out, char separator,
                  bool delete_stream) const;

  void toTEXT(std::ostream& out, unsigned long level) const;
  // The XML model (with the test matrix when one is given) and the DOT graph.
  void toXML(std::ostream& out, conf_matrix const* test) const;
  void toDOT(std::ostream& out) const;

  friend zel::inpout::ibinstream& operator>>(zel::inpout::ibinstream& in, decision_tree& t);
  friend zel::inpout::obinstream& operator<<(zel::inpout::obinstream& out, decision_tree const& t);

 private:
  void build(table* t, w_sequence* cases, bool evaluate, int workers, bool pruned,
             std::function<void(char const*)> const& stage = nullptr);

  std::unique_ptr<_decision_tree> root_;
  std::unique_ptr<table> meta_;
  std::unique_ptr<conf_matrix> training_;
  int split_type_ = GAIN_RATIO;
  int pruning_strategy_ = DT_PRUNING;
  float min_obj_ = 2.0f;
  float conf_level_ = 0.25f;
  std::unique_ptr<options> options_;
  double elapsed_ = 0.0;
  std::string name_;
  std::unique_ptr<w_sequence> root_cases_;  // the cases the root was grown from
};

}  // namespace impls
}  // namespace brix

#endif
