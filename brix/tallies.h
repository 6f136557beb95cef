// Growing one tree over cases that lie in several tables (on several machines) without moving
// them: each table's holder tallies its share of the cases of the open nodes, the tallies are
// added up, and one grower decides every split from the sums with the engine's own split search
// and choice. The holders then share their cases out to the children. With whole case weights
// whose sums stay below 2^24 the tree is the one grown on a single table of all the rows.
//
// Every table must carry the same value sets (table_builder::keep_values), so that orders mean
// the same everywhere. Open nodes are numbered from 0 (the root); the grower gives the children
// of a node consecutive numbers.
//
// Messages between them are flat arrays, to travel as they are:
// - the open nodes: per node its number, then (first, second) of each attribute's range;
// - the tallies: per open node, the weights of its classes (classes + 1 values, index 0 unused),
//   then per attribute a block laid out as impls::tally_cases lays it out, sent sparse (rows of
//   classes + 1 floats that hold a weight); a separate count of cases per node;
// - the decisions: per open node (node, attribute or -1 for a leaf, first child, branches), the
//   thresholds of the split nodes (as the tree keeps them), the children's shares of the cases
//   whose split value is unknown.
#ifndef BRIX_TALLIES_H
#define BRIX_TALLIES_H

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "brix/brix.h"
#include "brix/model.h"

namespace brix {

struct tally_decisions {
  std::vector<std::int64_t> nodes;  // 4 a node: node, attribute (-1: leaf), first child, branches
  std::vector<std::string> thresholds;  // one a split node
  std::vector<float> shares;            // branches a split node
};

// One table's share of the cases. The table must outlive it.
class tally_worker {
 public:
  // The first n_rows rows of the table, with their weights, are the root's cases (rows past them
  // only carry values into the value sets).
  tally_worker(table const& t, unsigned long n_rows);
  // The given rows (ascending), with their weights: one table's rows shared out among workers.
  tally_worker(table const& t, std::vector<unsigned long> const& rows);
  ~tally_worker();
  tally_worker(tally_worker const&) = delete;
  tally_worker& operator=(tally_worker const&) = delete;

  // The tallies of the open nodes, sparse: of the dense layout above, cut into rows of classes + 1
  // floats, only the rows that hold a weight, each as its offset in the dense layout (ascending)
  // and its floats; counts gets the nodes' case counts. Deep nodes hold few of the values of an
  // attribute: dense tallies would grow with the nodes times the values.
  void tallies(std::vector<std::int64_t> const& open, std::vector<std::int64_t>& at,
               std::vector<float>& rows, std::vector<std::int64_t>& counts) const;
  // A holder of the children's cases: each decided node's cases shared out to its children, a
  // leaf's dropped. This one is left as it is (it can be asked again after a failure elsewhere).
  std::unique_ptr<tally_worker> applied(tally_decisions const& d) const;
  // The cases of every open node and the root's, as (node, row, weight) triples (the root as
  // node -1): to move a holder elsewhere, with the table, and restore it.
  void cases(std::vector<std::int64_t>& nodes, std::vector<std::uint32_t>& rows,
             std::vector<float>& weights) const;
  tally_worker(table const& t, std::vector<std::int64_t> const& nodes,
               std::vector<std::uint32_t> const& rows, std::vector<float> const& weights);
  // Cases held, over all open nodes.
  std::size_t held() const;
  // Confusion matrix of the root's cases by a tree grown with these value sets, flat
  // [predicted][actual], (classes + 1)^2.
  std::vector<float> evaluate(tree_model const& model) const;

 private:
  tally_worker();
  struct impl;
  std::unique_ptr<impl> impl_;
};

// The tree, decided from summed tallies.
class tally_grower {
 public:
  // meta: a table with the value sets of all the rows (its rows are not read). Bad options throw
  // std::invalid_argument, as tree_model::train does; pruning::full is refused (raising subtrees
  // needs every node's cases).
  tally_grower(table const& meta, tree_options const& o);
  ~tally_grower();
  tally_grower(tally_grower const&) = delete;
  tally_grower& operator=(tally_grower const&) = delete;

  bool done() const;
  std::vector<std::int64_t> open() const;
  // Floats of the open nodes' tallies.
  std::size_t tally_size() const;
  // Decides every open node from the summed sparse tallies (offsets ascending, each once); the
  // children become the open nodes.
  tally_decisions decide(std::vector<std::int64_t> const& at, std::vector<float> const& rows,
                         std::vector<std::int64_t> const& counts);
  // Once done: the pruned model, with an empty training matrix.
  std::unique_ptr<tree_model> finish();
  // The training matrix of a model, flat as tally_worker::evaluate gives it (summed).
  static void set_training(tree_model& m, std::vector<float> const& flat);

 private:
  struct impl;
  std::unique_ptr<impl> impl_;
};

}  // namespace brix

#endif
