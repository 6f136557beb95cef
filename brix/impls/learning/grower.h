// The growing of a tree's nodes one at a time: a node is activated on its cases (its class
// statistics and attribute ranges), split (each attribute scored, one chosen), and its cases
// distributed to its children, or it is made a leaf. The node record itself only holds what the
// model keeps; the sequential build, the farm's workers and the growing from tallies all grow
// through here.
#ifndef BRIX_IMPLS_GROWER_H
#define BRIX_IMPLS_GROWER_H

#include <vector>

#include "brix/impls/learning/grow_options.h"
#include "brix/impls/learning/split_search.h"
#include "brix/impls/model/decision_tree.h"

namespace brix {
namespace impls {

class table;

class grower {
 public:
  // Activation computes the node's class statistics and ranges from its cases: the root's are
  // the table's, another node's its father's cases on its branch (the father still activated).
  static void activate(_decision_node& n, table* t);
  // Stands in for the father: its index, its known fraction and a copy of all its cases.
  static void activate_substitute_father(_decision_node& n, table* t);
  // Activation with cases already distributed by the father.
  static void activate_with(_decision_node& n, table* t, w_sequence* cases, float known_fraction,
                            order_range att_range);
  // Activation from statistics gathered elsewhere, with no cases: the class weights (one per
  // class value, index 0 unknown) summed in case order, the number of cases and the ranges.
  static void activate_from(_decision_node& n, std::vector<float> const& class_weights,
                            unsigned long count, float known_fraction,
                            std::vector<order_range> const& ranges);
  // The class statistics of a node whose cases the caller set (a node grown away from its tree).
  static void compute_statistics(_decision_node& n, table* t);
  // Frees the node's own cases and its growing scratch.
  static void disactivate(_decision_node& n);

  // Decides an activated node: a split node or a leaf; returns its status. Without a scratch,
  // the search works in tables of its own.
  static int split(_decision_node& n, table* t, int split_type, float min_obj, options const* opts,
                   split_scratch* scratch = nullptr);
  // The steps of split for callers that score the attributes themselves: split_pre makes the
  // node a leaf and says whether it stays one; otherwise each attribute is scored (split_att,
  // split_att_on) and split_post chooses.
  static bool split_pre(_decision_node& n, table* t, int split_type, float min_obj);
  static void split_att(_decision_node& n, table* t, float min_obj, options const* opts,
                        unsigned long att, bool sort_copy, split_scratch& scratch);
  // Scores one attribute on the given cases (the node's, or an order of them).
  static void split_att_on(_decision_node& n, table* t, float min_obj, options const* opts,
                           unsigned long att, w_sequence* cases, split_scratch& scratch,
                           order_publisher* publish);
  static int split_post(_decision_node& n, table* t);
  // Whether the attribute can split the node at all; if not, its result is set to no gain.
  static bool split_att_worth(_decision_node& n, unsigned long att);
  // split's decision from tallies summed elsewhere over the node's cases, one block per
  // attribute (unread where tally_rows gives none).
  static int split_tallies(_decision_node& n, table* t, int split_type, float min_obj,
                           options const* opts, std::vector<tally_block> const& tallies,
                           split_scratch& scratch);

  // Distributes the cases to every branch of the split at once. Returns false, and turns the
  // node into a leaf, when no threshold can separate its cases.
  static bool distribute(_decision_node& n, table* t, std::vector<w_sequence*>& children,
                         std::vector<float>& shares, std::vector<order_range>& ranges,
                         options const* opts, split_scratch& scratch);
  // A leaf of the majority class, its error the leaf's own.
  static void set_as_leaf(_decision_node& n);
  // Collapses the node into a leaf with the given error.
  static void make_leaf(_decision_node& n, float error);

 private:
  static void activate_root(_decision_node& n, table* t);
  static void activate_node(_decision_node& n, table* t);
  // The cases weight and the most frequent class, from the class distribution.
  static void settle_statistics(_decision_node& n);
  static int split_gain(_decision_node& n, table* t, bool use_ratio, float min_obj,
                        options const* opts, split_scratch* scratch);
  static bool holds_all(_decision_node const& n, std::vector<w_sequence*> const& children);
  static void drop(std::vector<w_sequence*>& children);
};

}  // namespace impls
}  // namespace brix

#endif
