// Parallel growing on a task farm. The emitter owns the tree and every
// counter; workers only evaluate: one attribute of a node (attribute task) or
// a whole node (node task). Large nodes are split attribute by attribute,
// small ones whole, and a node handled whole hands its children the same way.
//
// The tree must not depend on the number of workers. Sequential growing sorts
// a node's cases in place attribute after attribute, so each attribute sees
// the order the previous sorts left, and float sums follow that order. The
// attribute tasks of a node therefore form a chain of orders: task p waits
// for the order that task p - 1 publishes (right after sorting, before its
// scan), sorts its own copy when its search sorts, and publishes the result.
// Scans run side by side; only the sorts are serialised, and the node ends
// with the very order sequential growing gives it.
//
// Where sums are exact in any order (whole weights, below 2^24), no search
// depends on the order it is given; the root's final order still must be the
// sequential one, since the model keeps it. The root's searches then run
// without a chain on its cases as they are, and one more task sorts a copy of
// them as the sequential searches would, in the background; the root takes that
// order once the task and the root's searches are both done. The root's
// children are the same whichever order they were distributed from: exact
// sums, and the row order they are put in; distributed from the first order,
// which the rows still follow unless a random holdout drew them, they need no
// sorting. Trees whose nodes all keep row order (later boosting trials) need no
// chain anywhere: every search sorts a copy of cases in row order.
#include <algorithm>
#include <condition_variable>
#include <deque>
#include <limits>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <unordered_map>
#include <vector>

#include "brix/impls/learning/case_sort.h"
#include "brix/impls/learning/grower.h"
#include "brix/impls/model/decision_tree.h"
#include "brix/impls/storage/table.h"
#include "farm/task_farm.h"

namespace brix {
namespace impls {

namespace {

// Input-ring entries per worker, and the size of each feedback ring.
constexpr std::size_t kInputQueuePerWorker = 4096;
constexpr std::size_t kOutputQueue = 2176;
// Back-off, in pause hints, between retries of a send to a full ring.
constexpr unsigned long kSendBackoff = 1000;

// Tasks handed to one worker and not yet reported back: one running and one waiting, so that no
// worker waits for the emitter. The rest wait at the emitter and go to whichever worker frees
// first, since tasks of one node may differ twentyfold in cost.
constexpr unsigned kQueuedPerWorker = 2;

// A subtree goes to one worker whole once its node holds at most 1 / (kSubtreeShare · workers)
// of the rows: pieces enough to balance the workers, and only the few nodes above are split
// attribute by attribute and distributed by the emitter. A worker's subtree copies the orders of
// its cases once they lie scattered (kLocalSparsity); nodes searched attribute by attribute read
// the whole table, so on two workers the subtrees start where the copies do.
constexpr unsigned long kSubtreeShare = 4;

enum task_kind { NODE_TASK = 0, ATTRIBUTE_TASK = 1, SUBTREE_TASK = 2, ORDER_TASK = 3 };

// Wakes every task waiting on an order, and stops them all once any task of
// the farm has failed (its error is rethrown by the farm).
struct chain_signal {
  std::mutex m;
  std::condition_variable cv;
  bool failed = false;
};

// The orders of one node's cases along its attribute tasks: order[p] is the
// input of the p-th task, order[n] the node's final order.
class order_chain {
 public:
  order_chain(chain_signal* signal, std::size_t tasks, w_sequence* cases)
      : signal_(signal), order_(tasks + 1) {
    order_[0] = std::shared_ptr<w_sequence>(cases, [](w_sequence*) {});  // the node owns it
  }

  std::shared_ptr<w_sequence> take(std::size_t p) {
    std::unique_lock<std::mutex> lock(signal_->m);
    signal_->cv.wait(lock, [&] { return order_[p] != nullptr || signal_->failed; });
    if (order_[p] == nullptr) throw std::runtime_error("error running farm");
    return std::move(order_[p]);
  }

  void publish(std::size_t p, std::shared_ptr<w_sequence> cases) {
    {
      std::lock_guard<std::mutex> lock(signal_->m);
      order_[p] = std::move(cases);
    }
    signal_->cv.notify_all();
  }

  std::shared_ptr<w_sequence> const& final_order() const { return order_.back(); }

 private:
  chain_signal* signal_;
  std::vector<std::shared_ptr<w_sequence>> order_;
};

// The root's final order, sorted apart from its searches: the attributes' ranges are copied, since
// the root closes while the task may still run.
struct root_order {
  std::unique_ptr<w_sequence> cases;
  std::vector<order_range> ranges;
  bool sorted = false;
  bool root_decided = false;
};

struct ff_task {
  _decision_tree* subtree;
  int kind;
  unsigned long attribute;
  int worker;
  order_chain* chain;  // attribute tasks: the node's chain and this task's place in it
  std::size_t position;
  root_order* order;  // the order task's
};

// Publishes a sorted copy as the next order of the chain.
struct chain_publisher : order_publisher {
  order_chain* chain;
  std::size_t position;
  std::shared_ptr<w_sequence> cases;
  void sorted(w_sequence*) override { chain->publish(position, cases); }
};

void fail(chain_signal* signal) {
  {
    std::lock_guard<std::mutex> lock(signal->m);
    signal->failed = true;
  }
  signal->cv.notify_all();
}

}  // namespace

// Names the worker the emitter chose; the emitter, not the balancer, places tasks.
class ff_balancer : public farm::load_balancer {
 public:
  int selectworker() override { return choice; }
  int choice = 0;
};

class _ff_worker : public farm::node {
 public:
  _ff_worker(table* t, int split_type, float min_obj, options const* opts, chain_signal* signal)
      : table_(t), split_type_(split_type), min_obj_(min_obj), opts_(opts), signal_(signal) {}

  void* svc(void* task) override {
    auto* k = static_cast<ff_task*>(task);
    try {
      _decision_node* n = k->subtree->get_node();
      scratch_.fit(n->get_cases_count());
      if (k->kind == ATTRIBUTE_TASK) {
        evaluate_attribute(n, k);
      } else if (k->kind == ORDER_TASK) {
        sort_root(k->order);
      } else if (k->kind == SUBTREE_TASK) {
        k->subtree->grow_depth(table_, split_type_, min_obj_, opts_, nullptr, false, scratch_);
      } else {
        grower::split(*n, table_, split_type_, min_obj_, opts_, &scratch_);
      }
    } catch (...) {
      fail(signal_);
      throw;
    }
    return task;
  }

 private:
  void sort_root(root_order* o) {
    for (unsigned long a = 0; a < table_->get_no_attributes(); ++a) {
      sort_as_search(*table_->get_attribute(a), *table_->get_class(), *o->cases, o->ranges[a],
                     opts_, scratch_);
    }
  }

  void evaluate_attribute(_decision_node* n, ff_task* k) {
    if (k->chain == nullptr) {
      grower::split_att(*n, table_, min_obj_, opts_, k->attribute, true, scratch_);
      return;
    }
    std::shared_ptr<w_sequence> in = k->chain->take(k->position);
    order_range const& range = (*n->get_att_ranges())[k->attribute];
    if (search_sorts_cases(*table_->get_attribute(k->attribute), in->size(), range)) {
      chain_publisher pub;
      pub.chain = k->chain;
      pub.position = k->position + 1;
      pub.cases = std::make_shared<w_sequence>(*in);
      in.reset();
      w_sequence* mine = pub.cases.get();
      grower::split_att_on(*n, table_, min_obj_, opts_, k->attribute, mine, scratch_, &pub);
    } else {
      k->chain->publish(k->position + 1, in);
      grower::split_att_on(*n, table_, min_obj_, opts_, k->attribute, in.get(), scratch_, nullptr);
    }
  }

  table* table_;
  int split_type_;
  float min_obj_;
  options const* opts_;
  chain_signal* signal_;
  split_scratch scratch_;  // this worker's, from task to task
};

class _ff_emitter : public farm::node {
 public:
  _ff_emitter(_decision_tree* tree, table* t, int split_type, float min_obj, options const* opts,
              int nworkers, ff_balancer* lb, chain_signal* signal)
      : signal_(signal),
        opts_(opts),
        tree_(tree),
        table_(t),
        split_type_(split_type),
        min_obj_(min_obj),
        n_attributes_(t->get_no_attributes()),
        n_rows_(t->get_no_rows()),
        subtree_rows_(n_rows_ / (kSubtreeShare * static_cast<unsigned long>(nworkers))),
        queued_(static_cast<std::size_t>(nworkers), 0),
        lb_(lb) {}

  void* svc(void* task) override {
    try {
      void* r = task == nullptr ? start() : feedback(static_cast<ff_task*>(task));
      dispatch();
      return r;
    } catch (...) {
      fail(signal_);
      throw;
    }
  }

 private:
  struct counters {
    unsigned long sent = 0;
    unsigned long outstanding = 0;
    std::unique_ptr<order_chain> chain;
  };

  void* feedback(ff_task* k) {
    --in_flight_;
    --queued_[static_cast<std::size_t>(k->worker)];
    if (k->kind == ORDER_TASK) {
      order_.sorted = true;
      if (order_.root_decided) take_root_order();
      release(k);
      return go_on_or_end();
    }
    if (k->kind == ATTRIBUTE_TASK) {
      counters& c = counters_[k->subtree];
      if (--c.outstanding > 0) {
        release(k);
        return go_on_or_end();
      }
      unsigned long sent = c.sent;
      // The node keeps the order its last sort left, as in sequential growing.
      _decision_node* node = k->subtree->get_node();
      if (c.chain) {
        std::shared_ptr<w_sequence> const& last = c.chain->final_order();
        if (last.get() != node->get_all_cases()) node->get_all_cases()->cases().swap(last->cases());
      }
      counters_.erase(k->subtree);
      grower::split_post(*node, table_);
      bool root = k->subtree == tree_ && order_.cases;
      void* next = expand(k->subtree, sent, k);
      // Distributed from its first order, the root's children are already in row order.
      if (root) {
        order_.root_decided = true;
        if (order_.sorted) take_root_order();
      }
      return next;
    }
    if (k->kind == SUBTREE_TASK) {
      release(k);
      return go_on_or_end();
    }
    return expand(k->subtree, 0, k);
  }

  void* start() {
    _decision_node* root = tree_->get_node();
    if (grower::split_pre(*root, table_, split_type_, min_obj_)) {
      grower::disactivate(*root);
      return farm::EOS;
    }
    unsigned long sent = send_attribute_tasks(tree_, nullptr);
    if (sent == 0) {
      // Nothing to evaluate: the root decides on what it has.
      grower::split_post(*root, table_);
      return expand(tree_, 0, nullptr);
    }
    return farm::GO_ON;
  }

  // Creates and activates the children of a decided node, then hands each to
  // the workers: whole when it is small against the table, attribute by
  // attribute otherwise.
  void* expand(_decision_tree* sub, unsigned long attribute_tasks, ff_task* reuse) {
    _decision_node* node = sub->get_node();
    scratch_.fit(node->get_cases_count());
    sub->branch_out(table_, opts_, scratch_, parts_, shares_, ranges_);
    std::vector<_decision_tree*> kids;
    for (unsigned long i = 0; i < sub->get_no_childs(); ++i)
      kids.push_back(sub->get_child(i));
    unsigned long limit =
        attribute_tasks > 0 ? n_rows_ / attribute_tasks : std::numeric_limits<unsigned long>::max();
    for (_decision_tree* ct : kids) {
      _decision_node* child = ct->get_node();
      unsigned long c = child->get_cases_count();
      if (grower::split_pre(*child, table_, split_type_, min_obj_)) {
        // Already a leaf: no worker needs to see it.
        grower::disactivate(*child);
      } else if (c <= subtree_rows_) {
        send(ct, SUBTREE_TASK, 0, reuse);
        reuse = nullptr;
      } else if (limit > c * c) {
        send(ct, NODE_TASK, 0, reuse);
        reuse = nullptr;
      } else {
        unsigned long sent = send_attribute_tasks(ct, reuse);
        if (sent > 0) {
          reuse = nullptr;
        } else {
          grower::split_post(*child, table_);
          grower::disactivate(*child);
        }
      }
    }
    if (reuse != nullptr) release(reuse);
    return go_on_or_end();
  }

  void* go_on_or_end() const { return in_flight_ == 0 ? farm::EOS : farm::GO_ON; }

  // Attributes with fewer than two candidate values are settled on the spot.
  unsigned long send_attribute_tasks(_decision_tree* sub, ff_task* reuse) {
    _decision_node* node = sub->get_node();
    std::vector<unsigned long> worth;
    for (unsigned long a = 0; a < n_attributes_; ++a) {
      if (grower::split_att_worth(*node, a)) worth.push_back(a);
    }
    if (worth.empty()) return 0;
    counters& c = counters_[sub];
    c.sent = c.outstanding = worth.size();
    // Orders matter only where sums depend on them, and at the root, whose
    // final order is kept with the model; nodes that keep row order never change it.
    bool in_rows = keeps_row_order(opts_);
    if (!in_rows && !any_order_at(opts_, node->get_cases_weight())) {
      c.chain.reset(new order_chain(signal_, worth.size(), node->get_all_cases()));
    } else {
      if (sub == tree_ && !in_rows) send_order_task(node);
      // Independent searches: those that sort, the longest, go first.
      std::vector<order_range> const& ranges = *node->get_att_ranges();
      std::stable_partition(worth.begin(), worth.end(), [&](unsigned long a) {
        return search_sorts_cases(*table_->get_attribute(a), node->get_cases_count(), ranges[a]);
      });
    }
    for (std::size_t p = 0; p < worth.size(); ++p) {
      send(sub, ATTRIBUTE_TASK, worth[p], reuse, c.chain.get(), p);
      reuse = nullptr;
    }
    return worth.size();
  }

  // Sorts a copy of the root's cases in the background, if any search would sort them.
  void send_order_task(_decision_node* root) {
    std::vector<order_range> const& ranges = *root->get_att_ranges();
    w_sequence const& cases = *root->get_all_cases();
    unsigned long sorts = 0;
    for (unsigned long a = 0; a < n_attributes_; ++a) {
      if (search_sorts_cases(*table_->get_attribute(a), cases.size(), ranges[a])) ++sorts;
    }
    if (sorts == 0) return;
    order_.cases.reset(new w_sequence(cases));
    order_.ranges = ranges;
    send(tree_, ORDER_TASK, 0, nullptr, nullptr, 0, &order_);
  }

  void take_root_order() {
    tree_->get_node()->get_all_cases()->cases().swap(order_.cases->cases());
    order_.cases.reset();
  }

  // Queues a task for the next free worker.
  void send(_decision_tree* sub, int kind, unsigned long attribute, ff_task* reuse,
            order_chain* chain = nullptr, std::size_t position = 0, root_order* order = nullptr) {
    ff_task* k = reuse != nullptr ? reuse : acquire();
    *k = ff_task{sub, kind, attribute, -1, chain, position, order};
    ++in_flight_;
    waiting_.push_back(k);
  }

  // Hands waiting tasks, in the order they were sent, to workers with room; the one with the
  // fewest tasks takes the next, ties going to the lowest index. A task of an order chain waits
  // only for tasks sent before it, which every worker runs in the order it receives them.
  void dispatch() {
    while (!waiting_.empty()) {
      std::size_t w = 0;
      for (std::size_t i = 1; i < queued_.size(); ++i) {
        if (queued_[i] < queued_[w]) w = i;
      }
      if (queued_[w] >= kQueuedPerWorker) return;
      ff_task* k = waiting_.front();
      waiting_.pop_front();
      k->worker = static_cast<int>(w);
      lb_->choice = static_cast<int>(w);
      ++queued_[w];
      if (!send_out(k, -1, kSendBackoff)) {
        // Only an aborting farm refuses a send; its error is rethrown to the caller.
        --in_flight_;
        --queued_[w];
        release(k);
      }
    }
  }

  ff_task* acquire() {
    if (!free_.empty()) {
      ff_task* k = free_.back();
      free_.pop_back();
      return k;
    }
    pool_.emplace_back();
    return &pool_.back();
  }
  void release(ff_task* k) { free_.push_back(k); }

  chain_signal* signal_;
  options const* opts_;
  _decision_tree* tree_;
  table* table_;
  int split_type_;
  float min_obj_;
  unsigned long n_attributes_;
  unsigned long n_rows_;
  unsigned long subtree_rows_;  // nodes of at most so many cases go to a worker with their subtree
  std::vector<unsigned> queued_;  // tasks handed to each worker and not reported back
  std::deque<ff_task*> waiting_;  // tasks not yet handed to a worker, in the order sent
  ff_balancer* lb_;
  unsigned long in_flight_ = 0;
  std::unordered_map<_decision_tree*, counters> counters_;
  root_order order_;
  std::deque<ff_task> pool_;  // every task record, freed with the emitter
  std::vector<ff_task*> free_;
  std::vector<w_sequence*> parts_;
  split_scratch scratch_;  // for distributing
  std::vector<float> shares_;
  std::vector<order_range> ranges_;
};

void _decision_tree::build_ff(table* t, int split_type, float min_obj, options const* opts,
                              int nworkers) {
  grower::activate(*get_node(), t);
  chain_signal signal;
  ff_balancer lb;
  farm::task_farm f(&lb, kInputQueuePerWorker * static_cast<std::size_t>(nworkers), kOutputQueue);
  std::vector<std::unique_ptr<_ff_worker>> workers;
  std::vector<farm::node*> nodes;
  for (int i = 0; i < nworkers; ++i) {
    workers.emplace_back(new _ff_worker(t, split_type, min_obj, opts, &signal));
    nodes.push_back(workers.back().get());
  }
  _ff_emitter emitter(this, t, split_type, min_obj, opts, nworkers, &lb, &signal);
  if (f.add_emitter(&emitter) < 0 || f.wrap_around() < 0) {
    throw std::runtime_error("error running farm");
  }
  if (f.add_workers(nodes) < 0) {
    throw std::runtime_error("FARM, try to add too many workers, please increase max_nworkers");
  }
  if (f.run_and_wait_end() < 0) throw std::runtime_error("error running farm");
}

}  // namespace impls
}  // namespace brix
