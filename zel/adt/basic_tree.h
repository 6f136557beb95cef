// A generic tree: each tree object owns one node and its child trees.
// Derived is the concrete tree type (the children are Derived objects).
#ifndef ZEL_ADT_BASIC_TREE_H
#define ZEL_ADT_BASIC_TREE_H

#include <algorithm>
#include <utility>
#include <vector>

namespace zel {
namespace adt {

template <class Node, class Derived>
class basic_tree {
 public:
  basic_tree() : node_(nullptr) {}
  basic_tree(basic_tree const&) = delete;
  basic_tree& operator=(basic_tree const&) = delete;
  virtual ~basic_tree() {
    delete_childs();
    delete node_;
  }

  // Replaces the node (the old one is deleted).
  virtual void set_node(Node* node) {
    if (node_ != node) delete node_;
    node_ = node;
  }
  // Detaches the node without deleting it.
  virtual void clear_node() { node_ = nullptr; }
  virtual void push_back_child(Derived* child) { childs_.push_back(child); }
  virtual void delete_childs() {
    // Children are released level by level, so deep trees cannot exhaust the stack.
    std::vector<Derived*> pending;
    pending.swap(childs_);
    while (!pending.empty()) {
      Derived* t = pending.back();
      pending.pop_back();
      if (t == nullptr) continue;
      for (Derived* c : t->childs_)
        pending.push_back(c);
      t->childs_.clear();
      delete t;
    }
  }
  virtual void delete_child(unsigned long i) {
    Derived* c = childs_[i];
    childs_[i] = nullptr;
    if (c != nullptr) {
      c->delete_childs();
      delete c;
    }
  }
  virtual void clear_child(unsigned long i) { childs_[i] = nullptr; }
  virtual void clear_childs() { childs_.clear(); }

  // Number of nodes.
  virtual unsigned long size() const {
    unsigned long n = 0;
    std::vector<basic_tree const*> stack{this};
    while (!stack.empty()) {
      basic_tree const* t = stack.back();
      stack.pop_back();
      ++n;
      for (Derived const* c : t->childs_) {
        if (c != nullptr) stack.push_back(c);
      }
    }
    return n;
  }
  // Number of levels: 1 for a single node.
  virtual unsigned long depth() const {
    unsigned long best = 0;
    std::vector<std::pair<basic_tree const*, unsigned long>> stack{{this, 1}};
    while (!stack.empty()) {
      auto [t, d] = stack.back();
      stack.pop_back();
      best = std::max(best, d);
      for (Derived const* c : t->childs_) {
        if (c != nullptr) stack.emplace_back(c, d + 1);
      }
    }
    return best;
  }
  virtual unsigned long get_no_childs() const { return childs_.size(); }
  virtual Node* get_node() const { return node_; }
  virtual Derived* get_child(unsigned long i) const { return childs_[i]; }

  // Puts child i's node and children in place of this node's; the old node
  // and the other children are deleted.
  virtual void replace_with_son(unsigned long i) {
    Derived* son = childs_[i];
    childs_[i] = nullptr;
    delete_childs();
    delete node_;
    node_ = son->node_;
    son->node_ = nullptr;
    childs_.swap(son->childs_);
    delete son;
  }

 protected:
  Node* node_;
  std::vector<Derived*> childs_;
};

}  // namespace adt
}  // namespace zel

#endif
