// Trees combined: boosting (trials grown in turn on reweighted training cases, each voting with
// its confidence) and misclassification costs (classes reweighted for growing, each case's class
// chosen by least expected cost). Every trial is grown, pruned and applied by tree_model.
#ifndef BRIX_ENSEMBLE_H
#define BRIX_ENSEMBLE_H

#include <iosfwd>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "brix/brix.h"
#include "brix/model.h"
#include "brix/rules.h"

namespace brix {

// One cell of a cost matrix: the cost of predicting `predicted` for a case of class `actual`.
struct cost_entry {
  std::string predicted, actual;
  double cost;
};

// A cost matrix file: CSV lines predicted,actual,cost, optionally under a header line whose
// first field is "predicted". Throws std::runtime_error "File PATH: ..." on a malformed line.
std::vector<cost_entry> read_costs(std::string const& path);

struct ensemble_options {
  tree_options tree;
  int trials = 1;                 // in [1, 1000]; 1: a single tree
  std::vector<cost_entry> costs;  // unlisted pairs cost 1 off the diagonal, 0 on it
  // Each trial's tree read off as a ruleset on the trial's weighted cases; the rulesets classify
  // (and reweight the cases for the next trial) in place of the trees. Not with costs.
  bool rules = false;
};

class ensemble {
 public:
  // Why the sequence of trials ended.
  enum class stop { all_grown, zero_error, half_error, one_leaf };

  ~ensemble();
  ensemble(ensemble const&) = delete;
  ensemble& operator=(ensemble const&) = delete;

  // Trains on every row of the table or on the given rows (each once, with the table's
  // weights). Throws std::invalid_argument for bad options, rows or costs. proba, when given,
  // receives predict_proba(t) as the trials' own classification of t leaves it, so that
  // evaluating on t need not classify every row again.
  static std::unique_ptr<ensemble> train(table& t, ensemble_options const& o = {},
                                         std::vector<unsigned long> const* rows = nullptr,
                                         std::vector<double>* proba = nullptr);
  // The file save writes. Its first byte is not a tree file's presence flag, so the tree
  // loaders refuse it; is_file tells the two kinds apart.
  static std::unique_ptr<ensemble> load(std::string const& path);
  static bool is_file(std::string const& path);
  // Written beside path and renamed when complete.
  void save(std::string const& path) const;

  std::vector<std::string> classes() const;
  std::vector<std::string> attributes() const;
  std::size_t size() const { return trials_.size(); }  // trials kept
  tree_model const& trial(std::size_t i) const { return *trials_[i].tree; }
  bool has_rules() const { return !trials_.empty() && trials_.front().rules != nullptr; }
  // A trial's ruleset (has_rules()).
  rule_model const& trial_rules(std::size_t i) const { return *trials_[i].rules; }
  double vote(std::size_t i) const { return trials_[i].vote; }
  // The trial's training error, each case weighed as that trial saw it.
  double trial_error(std::size_t i) const { return trials_[i].error; }
  int trials_asked() const { return asked_; }
  stop stopped() const { return stopped_; }
  bool has_costs() const { return has_costs_; }
  // cost(p, a): predicting class p for a case of class a, in class order.
  double cost(std::size_t predicted, std::size_t actual) const {
    return costs_[predicted * n_classes() + actual];
  }
  // What growing multiplied each class's case weights by (all 1 without costs).
  std::vector<double> const& class_weights() const { return class_weights_; }

  // Every row: rows x classes, row-major. The trials' votes for their classes, normalised; for
  // one tree or with costs, the trials' class distributions weighted by their votes and
  // normalised, with costs divided by the class weights growing used and normalised again, to
  // estimate the classes as they were before reweighting.
  std::vector<double> predict_proba(table const& t) const;
  std::vector<std::string> predict(table const& t) const;
  // The class chosen for one row of predict_proba: the first of the largest share, or with
  // costs the first of least expected cost.
  std::size_t decide(double const* p) const;
  // As tree_model::evaluate; rows, when given, are the rows evaluated.
  std::unique_ptr<conf_matrix> evaluate(
      table const& t, std::vector<unsigned long> const* rows = nullptr,
      std::vector<std::pair<std::string, unsigned long>>* unseen = nullptr) const;
  // evaluate from proba, predict_proba(t) made earlier (as train gives it).
  std::unique_ptr<conf_matrix> evaluate(
      table const& t, std::vector<double> const& proba,
      std::vector<unsigned long> const* rows = nullptr,
      std::vector<std::pair<std::string, unsigned long>>* unseen = nullptr) const;
  // The mean cost per case of a matrix evaluate returned (unknown classes cost 1 when wrong).
  double average_cost(conf_matrix const& m) const;

  void write_text(std::ostream& out) const;
  // JSON: the trials with their votes and errors, each tree as tree_model writes it.
  void write_json(std::ostream& out) const;
  // PMML 4.4: a MiningModel whose segments, one per trial, are TreeModels (or RuleSetModels)
  // weighted by their votes (costs are not expressed).
  void write_pmml(std::ostream& out) const;
  // One Graphviz graph per trial; rulesets have none (std::invalid_argument).
  void write_dot(std::ostream& out, long max_depth = -1) const;

 private:
  struct trial_tree {
    std::unique_ptr<tree_model> tree;
    double vote, error;
    std::unique_ptr<rule_model> rules;  // with rules: what classifies, read off tree
  };
  ensemble() = default;
  std::size_t n_classes() const { return class_weights_.size(); }
  // Boosted trials without costs each vote for their class; one tree, or trials with costs,
  // vote with their class distributions, which the expected costs need.
  bool hard_votes() const { return trials_.size() > 1 && !has_costs_; }
  static std::vector<double> proba_of(trial_tree const& tr, table const& t);
  // Adds a trial's vote for every row (p: its predict_proba) to sum; normalise turns the sums
  // into probabilities.
  void add_vote(double vote, std::vector<double> const& p, std::vector<double>& sum,
                bool hard) const;
  void normalise(std::vector<double>& sum) const;

  std::vector<trial_tree> trials_;
  std::vector<double> class_weights_, costs_;  // costs_: classes x classes, [predicted][actual]
  bool has_costs_ = false;
  int asked_ = 1;
  stop stopped_ = stop::all_grown;
};

}  // namespace brix

#endif
