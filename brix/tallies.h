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
//
// A node whose cases are few is better grown whole in one place by the ordinary grower: the
// holders give its cases with their rows' value orders (tally_worker::rows_of), one process
// gathers them from every holder in the order of the rows (holder after holder, or by the rows'
// keys when a holder's table joins several) and grows the node's subtree, settling it there
// as the single-table grower settles a complete subtree (tally_grower::grow_handed), and the
// deciding grower grafts the subtree in its place: only pruned subtrees travel.
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
  // One a split node: the order of its threshold in the value set of all the rows (0 for a
  // discrete split), for holders whose tables hold only their own values. Empty: not given.
  std::vector<std::int64_t> cuts;
};

// Cases of some open nodes with their rows' value orders, to grow the nodes elsewhere: per case
// its node and weight, and one order per loaded column of its table (0 for columns that store
// none, and for the weights, which the cases carry).
struct tally_rows {
  std::vector<std::int64_t> nodes;
  std::vector<float> weights;
  std::vector<std::uint32_t> orders;  // cases x loaded columns
  // Per case its row among all the rows (tally_worker::set_keys), so that cases from holders
  // of several tables each come in the order one table of all the rows holds them. Empty: the
  // holders' cases follow one another in that order already.
  std::vector<std::uint64_t> keys;
};

// One group of attributes' share of the split search over the open nodes, scored where the group's
// tallies were summed: per node its class weights and case count, and per node and attribute of
// the group (in the group's order) the attribute's best split and the division it makes. The
// deciding grower chooses among the attributes from these alone: it needs neither the tallies
// nor the continuous value sets.
struct tally_scores {
  std::vector<std::int64_t> atts;
  std::vector<float> classes;        // classes + 1 a node
  std::vector<std::int64_t> counts;  // one a node
  std::vector<float> gains;          // (gain, split information) a node and attribute
  // (branches, low, high, children, cut) a node and attribute; children 0: the split divides
  // nothing (a leaf if chosen); cut: the order of the threshold (continuous attributes)
  std::vector<std::int64_t> splits;
  std::vector<std::string> thresholds;  // one a node and attribute
  std::vector<float> shares;            // one a child
  std::vector<std::int64_t> ranges;     // (first, second) a child
};

// Open nodes handed out to be grown whole: per node its number, its branch of its father (0 for
// the root), its father's most frequent class (-1 for the root), then (first, second) of each
// attribute's range; and per node its known fraction. So that the subtree can be prepruned and
// pruned where it grows, as the single-table grower settles a subtree once it is complete: per
// node the bound prepruning brings to it from its ancestors, and whether pruning reaches it (1:
// no ancestor has known fraction 0).
struct tally_handoff {
  std::vector<std::int64_t> nodes;
  std::vector<float> known;
  std::vector<float> bounds;
  std::vector<std::int64_t> reach;
};

// Sparse tallies held elsewhere, read in place: n offsets (ascending) and n_rows floats.
struct tally_view {
  std::int64_t const* at;
  std::size_t n;
  float const* rows;
  std::size_t n_rows;
};

// Two sparse tallies (offsets ascending, rows of cols floats) summed into out: rows at the same
// offset added (a's plus b's, in 32-bit floats as the grower adds), offsets kept ascending.
void tally_add(std::vector<std::int64_t> const& a_at, std::vector<float> const& a_rows,
               std::vector<std::int64_t> const& b_at, std::vector<float> const& b_rows,
               std::size_t cols, std::vector<std::int64_t>& at, std::vector<float>& rows);
// The same over arrays held elsewhere (a_n offsets and a_n x cols floats of a, likewise b), read
// in place.
void tally_add(std::int64_t const* a_at, std::size_t a_n, float const* a_rows,
               std::int64_t const* b_at, std::size_t b_n, float const* b_rows, std::size_t cols,
               std::vector<std::int64_t>& at, std::vector<float>& rows);

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
  // only: the attributes to tally (empty: all); the others' blocks keep their place in the
  // layout but hold nothing.
  void tallies(std::vector<std::int64_t> const& open, std::vector<std::int64_t>& at,
               std::vector<float>& rows, std::vector<std::int64_t>& counts,
               std::vector<std::int64_t> const& only = {}) const;
  // A holder of the children's cases: each decided node's cases shared out to its children, a
  // leaf's dropped. This one is left as it is (it can be asked again after a failure elsewhere).
  std::unique_ptr<tally_worker> applied(tally_decisions const& d) const;
  // The cases of every open node and the root's, as (node, row, weight) triples (the root as
  // node -1): to move a holder elsewhere, with the table, and restore it.
  void cases(std::vector<std::int64_t>& nodes, std::vector<std::uint32_t>& rows,
             std::vector<float>& weights) const;
  tally_worker(table const& t, std::vector<std::int64_t> const& nodes,
               std::vector<std::uint32_t> const& rows, std::vector<float> const& weights);
  // A table that holds only its own rows' values: per attribute, the order in the value set of
  // all the rows of each of its orders (index 0, the unknown value, to 0; ascending), or none
  // for an attribute whose orders are already those. Tallies, the cases given for growing
  // elsewhere and the division of cases (with the decisions' cuts) then speak of those orders.
  void set_orders(std::vector<std::vector<std::uint32_t>> orders);
  std::vector<std::vector<std::uint32_t>> const& orders() const;
  // A table of several tables' rows one after another: run k starts at the table's row
  // first_rows[k] (ascending, the first 0) and at first_keys[k] among all the rows. rows_of then
  // gives each case's row among all the rows.
  void set_keys(std::vector<std::uint64_t> first_rows, std::vector<std::uint64_t> first_keys);
  std::vector<std::uint64_t> const& key_rows() const;
  std::vector<std::uint64_t> const& key_starts() const;
  // The values of a continuous attribute of a table, ascending, as numbers.
  static std::vector<double> values(table const& t, unsigned long att);
  // Cases held, over all open nodes.
  std::size_t held() const;
  // The open nodes held and their case counts.
  void counts(std::vector<std::int64_t>& nodes, std::vector<std::int64_t>& counts) const;
  // The cases of the given nodes, node by node in the order given, each node's in the order held.
  void rows_of(std::vector<std::int64_t> const& nodes, tally_rows& out) const;
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
  // With the root's range of every attribute given (first, second each): meta then needs only
  // the discrete value sets; its continuous ones may hold any values (they are not read).
  tally_grower(table const& meta, tree_options const& o, std::vector<std::int64_t> const& ranges);
  ~tally_grower();
  tally_grower(tally_grower const&) = delete;
  tally_grower& operator=(tally_grower const&) = delete;

  // The root's range of every attribute of a table, (first, second) each: of a table with every
  // value set, for the constructor that takes them.
  static std::vector<std::int64_t> root_ranges(table const& t);
  // A table of meta's columns (no rows) whose attributes atts hold the value sets values (one
  // each: sorted, distinct, as tables of the attribute's type hold them), each admitting unknown
  // values as meta's does: the value sets of all the rows, as keep_values would give them,
  // without a row a value. For the split search and handed growing, which read no rows.
  static std::unique_ptr<table> like_table(table const& meta, std::vector<std::int64_t> const& atts,
                                           std::vector<std::vector<double>> const& values);
  // No node open and none handed out.
  bool done() const;
  std::vector<std::int64_t> open() const;
  // The numbers of the open nodes.
  std::vector<std::int64_t> open_ids() const;
  // Takes the given open nodes out of the open ones, to be grown whole elsewhere and grafted.
  tally_handoff hand_off(std::vector<std::int64_t> const& ids);
  // Puts the subtree grown for a handed node (a file grow_handed wrote) in the node's place.
  void graft(std::int64_t id, std::string const& path);
  // The same for a subtree already prepruned and pruned where it grew, with the value its
  // prepruning returned: the final prepruning takes that value instead of descending into it.
  void graft(std::int64_t id, std::string const& path, float value);
  // Once done: prepruning of the whole tree. Returns the settled subtrees it did not reach (an
  // earlier brother's sum met the bound first) and left in the tree: each needs the form grown
  // without prepruning (regraft) before finish.
  std::vector<std::int64_t> preprune();
  // Replaces such a subtree by its form grown without prepruning (pruned if the tree is); an
  // empty path keeps the one grafted (the two forms are the same).
  void regraft(std::int64_t id, std::string const& path);
  // Grows every node of h on the cases of parts (the holders' rows_of, in table order: each
  // node's cases then come in the order one table of all the rows holds them), unpruned and not
  // prepruned, on the ordinary grower with the options a single table's growing sets: whole says
  // that every case weight of the table is whole, unit that each is 1. like: any table with the
  // value sets (its rows are not read). The subtree of node i goes to the file paths[i].
  // With unreached_paths given, each subtree is instead settled where it grows, as the
  // single-table grower settles a complete subtree: prepruned against h's bound and, if o prunes
  // and pruning reaches it, pruned; the values its prepruning returned come back (for graft),
  // and the subtree pruned without prepruning goes to unreached_paths[i] (for regraft).
  static std::vector<float> grow_handed(table const& like, tally_handoff const& h,
                                        std::vector<tally_rows const*> const& parts,
                                        tree_options const& o, bool whole, bool unit,
                                        std::vector<std::string> const& paths,
                                        std::vector<std::string> const& unreached_paths = {});
  // Floats of the open nodes' tallies.
  std::size_t tally_size() const;
  // Decides every open node from the summed sparse tallies (offsets ascending, each once); the
  // children become the open nodes. score over every attribute, then decide_scored.
  tally_decisions decide(std::vector<std::int64_t> const& at, std::vector<float> const& rows,
                         std::vector<std::int64_t> const& counts);
  // The group atts' scores of the open nodes (open() at the time) from their summed tallies (as
  // decide takes them, the group's attributes at least), on like's value sets.
  static tally_scores score(table const& like, tree_options const& o,
                            std::vector<std::int64_t> const& open,
                            std::vector<std::int64_t> const& atts,
                            std::vector<std::int64_t> const& at, std::vector<float> const& rows,
                            std::vector<std::int64_t> const& counts);
  // The same over tallies read in place.
  static tally_scores score(table const& like, tree_options const& o,
                            std::vector<std::int64_t> const& open,
                            std::vector<std::int64_t> const& atts, tally_view const& tallies,
                            std::vector<std::int64_t> const& counts);
  // Decides every open node from the scores of groups that together cover every attribute once;
  // as decide.
  tally_decisions decide_scored(std::vector<tally_scores const*> const& groups);
  // Once done (and prepruned, with every unreached subtree regrafted, if preprune was called):
  // the pruned model, with an empty training matrix.
  std::unique_ptr<tree_model> finish();
  // The training matrix of a model, flat as tally_worker::evaluate gives it (summed).
  static void set_training(tree_model& m, std::vector<float> const& flat);

 private:
  static tally_scores score_on(impls::table* t, tree_options const& o,
                               std::vector<std::int64_t> const& open,
                               std::vector<std::int64_t> const& atts, tally_view const& tallies,
                               std::vector<std::int64_t> const& counts);
  struct impl;
  std::unique_ptr<impl> impl_;
};

}  // namespace brix

#endif
