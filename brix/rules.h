// A ruleset read off a pruned tree: one rule per leaf, each generalised by dropping, one at a
// time, the condition whose loss gives the lowest pessimistic error rate on the training cases
// (the upper confidence bound pruning uses, at the tree's confidence level), while that rate does
// not rise; the last condition stays. Duplicates and rules subsumed by a rule of their class are
// dropped, unless more confident than it. For each class, the subset of its rules that codes the
// training cases in the fewest bits: the rules' own bits, halved, plus the exceptions' (false
// positives among the covered cases, false negatives among the others), every subset tried for up
// to 10 rules, a greedy climb for more. Classes are ordered by their rules' false positives,
// fewest first, each class's rules by confidence. A default class, the majority of the training
// cases no rule covers (ties to the first class), takes the cases no rule fires on; last, rules
// whose loss does not raise the training error go, one at a time, and the default is set again.
//
// Conditions: a discrete attribute equals a value; a continuous one is <= or > a threshold (the
// tests of one path on one attribute merged into the tightest interval). A case whose value of an
// attribute is unknown satisfies no condition on that attribute: a rule testing it does not fire.
//
// Prediction: among the rules that fire, the one of highest Laplace confidence decides; of equal
// confidences, the first class's rule (the first listed within a class). Probabilities: each
// class's best confidence among its firing rules, divided by their sum; a case no rule covers gets
// the default distribution (the uncovered training cases' class weights, Laplace-smoothed). The
// class predicted is thus always the first of the largest probability.
#ifndef BRIX_RULES_H
#define BRIX_RULES_H

#include <iosfwd>
#include <memory>
#include <string>
#include <vector>

#include "brix/brix.h"
#include "brix/model.h"

namespace brix {

struct rule_condition {
  // value == text, value <= text, value > text, value one of values (a tree split on groups of
  // values)
  enum kind { equal, not_above, above, in };
  unsigned long attribute = 0;  // index into rule_model::attributes()
  kind test = equal;
  std::string value;                // in: the values as the text report shows them, "{a, b}"
  std::vector<std::string> values;  // in: the values, in the tree's value order
  bool operator==(rule_condition const& o) const {
    return attribute == o.attribute && test == o.test && value == o.value && values == o.values;
  }
};

struct rule {
  std::vector<rule_condition> conditions;  // by attribute, then test; none: always fires
  unsigned long cls = 0;                   // index into rule_model::classes()
  double cases = 0;                        // training weight covered
  double errors = 0;                       // of it, not of the rule's class
  double confidence = 0;                   // Laplace: (cases - errors + 1) / (cases + 2)
  double lift = 0;                         // confidence over the class's training share
};

class rule_model {
 public:
  struct attribute {
    std::string name;
    bool continuous = false;
    std::string datatype;             // the value set's: integer, uinteger, float, double, string
    std::vector<std::string> values;  // discrete: the known values, in order
  };

  ~rule_model();
  rule_model(rule_model const&) = delete;
  rule_model& operator=(rule_model const&) = delete;

  // The ruleset of a tree, generalised and selected on the cases it was grown on: every row of
  // t, or the given rows, each with the table's weight. Throws std::invalid_argument for a table
  // without the tree's columns or class, or bad rows.
  static std::unique_ptr<rule_model> from_tree(tree_model const& tree, table const& t,
                                               std::vector<unsigned long> const* rows = nullptr);
  // The same on the given rows with the weights given (one per row) instead of the table's: the
  // cases of a boosting trial, weighted as its tree was grown on them.
  static std::unique_ptr<rule_model> from_tree(tree_model const& tree, table const& t,
                                               std::vector<unsigned long> const& rows,
                                               std::vector<float> const& weights);
  // Each leaf's rule once generalised, in the tree's order, before duplicates and subsumed rules
  // are dropped and the classes' subsets chosen (lift left 0): what selection chooses from.
  static std::vector<rule> generalised(tree_model const& tree, table const& t,
                                       std::vector<unsigned long> const* rows = nullptr);
  // Grows and prunes a tree as tree_model::train does, then reads its ruleset.
  static std::unique_ptr<rule_model> train(table& t, tree_options const& o = {},
                                           std::vector<unsigned long> const* rows = nullptr);

  // A ruleset file is text whose first line is kRulesHeader; the tree files are gzip, so that each
  // loader refuses the other's files (load throws std::runtime_error for anything else).
  static constexpr char const* kRulesHeader = "brix ruleset 1";
  static bool is_rules_file(std::string const& path);
  static std::unique_ptr<rule_model> load(std::string const& path);
  // The file's text on a stream, and back (what names the source in load's messages): how a
  // file of boosted rulesets keeps each trial's.
  void write(std::ostream& out) const;
  static std::unique_ptr<rule_model> read(std::istream& in, std::string const& what);
  // Written to a temporary file beside path and renamed when complete.
  void save(std::string const& path) const;

  std::vector<std::string> const& classes() const { return classes_; }
  std::vector<attribute> const& attributes() const { return attributes_; }
  // In prediction order.
  std::vector<rule> const& rules() const { return rules_; }
  std::vector<unsigned long> const& class_order() const { return class_order_; }
  unsigned long default_class() const { return default_; }
  unsigned long size() const { return static_cast<unsigned long>(rules_.size()); }
  // The tree's leaves the rules were read from.
  unsigned long leaves() const { return leaves_; }

  // Every row: rows x classes, row-major. Columns matched to the attributes by name.
  std::vector<double> predict_proba(table const& t) const;
  std::vector<std::string> predict(table const& t) const;
  // Per row, the class index predicted and the rule deciding it (size() when none fires).
  void classify(table const& t, std::vector<unsigned long>& cls,
                std::vector<unsigned long>* by_rule = nullptr) const;
  // The weighted error share (0..1) on a table with a class column, over every row or the given
  // ones; rows whose class the rules never saw count as errors.
  double error(table const& t, std::vector<unsigned long> const* rows = nullptr) const;

  void write_text(std::ostream& out) const;
  void write_json(std::ostream& out) const;
  // PMML 4.4 RuleSetModel, selection by the highest weight (the confidence) among firing rules.
  void write_pmml(std::ostream& out) const;

 private:
  rule_model() = default;
  struct bound;
  bound bind(table const& t) const;
  // The ruleset, or with generalised given, only the generalised rules (into it; null returned).
  static std::unique_ptr<rule_model> read_off(tree_model const& tree, table const& t,
                                              std::vector<unsigned long> const* rows,
                                              std::vector<float> const* weights,
                                              std::vector<rule>* generalised);

  std::string name_, class_name_;
  float confidence_level_ = 0.25f;
  std::vector<std::string> classes_;
  std::vector<attribute> attributes_;
  std::vector<rule> rules_;
  std::vector<unsigned long> class_order_;
  std::vector<double> default_dist_;
  unsigned long default_ = 0;
  unsigned long leaves_ = 0;
};

}  // namespace brix

#endif
