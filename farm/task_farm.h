// A master-worker task farm: one emitter hands pointers to n worker threads over bounded
// single-producer single-consumer rings, and may get every finished task back over a feedback
// ring per worker.
#ifndef FARM_TASK_FARM_H
#define FARM_TASK_FARM_H

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <deque>
#include <exception>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "farm/parker.h"
#include "farm/spsc_queue.h"

namespace farm {

namespace detail {
inline char go_on_tag;
inline char eos_tag;
}  // namespace detail

// Tokens returned by svc. Their addresses belong to the runtime, so no task can equal them.
// GO_ON: keep running, nothing to pass on. EOS: end of stream (from the emitter: stop the farm).
inline constexpr void* GO_ON = &detail::go_on_tag;
inline constexpr void* EOS = &detail::eos_tag;

class task_farm;

// A unit of the farm, run by one thread. Worker nodes get tasks; their svc returns the task (or
// any other pointer) to feed back to the emitter, or GO_ON, EOS or null to feed back nothing.
// Without feedback channels whatever a worker returns is dropped.
//
// The emitter node's svc is called once with null at the start and then once per fed-back task;
// it returns GO_ON to keep running, EOS to end the farm, or a task to send like send_out(task).
// With feedback, GO_ON while nothing is in flight waits forever: the emitter must count its tasks
// and return EOS when the last one is back. Without feedback channels the emitter's svc is
// called with null again and again until it returns EOS.
class node {
 public:
  node() = default;
  node(const node&) = delete;
  node& operator=(const node&) = delete;
  virtual ~node() = default;

  virtual void* svc(void* task) = 0;
  // Called on the node's thread before the first svc; nonzero fails the run.
  virtual int svc_init() { return 0; }
  // Called on the node's thread after the last svc, also when the run is aborted.
  virtual void svc_end() {}

  // Emitter only, from inside its svc: hands the task to the worker that the load balancer
  // selects. While that worker's ring is full it retries `retries` more times (-1: until it
  // succeeds), backing off `ticks` processor pause hints between the first tries and then
  // yielding or sleeping. False when it gave up, when the farm is being aborted, when the task is
  // null or a token, when the balancer names no worker, or when called on anything but the
  // running emitter.
  bool send_out(void* task, int retries = -1, unsigned long ticks = 1000);

 private:
  friend class task_farm;
  task_farm* farm_ = nullptr;  // set while this node runs as an emitter
};

// Chooses the worker of every task the emitter sends. Called only on the emitter's thread.
class load_balancer {
 public:
  virtual ~load_balancer() = default;
  // An index in [0, nworkers()); anything else makes the send fail. Round robin by default.
  virtual int selectworker();
  // The worker count of the farm being run.
  int nworkers() const { return nworkers_; }

 private:
  friend class task_farm;
  int nworkers_ = 0;
  int next_ = 0;
};

// The farm. The caller's thread runs the emitter inside run_and_wait_end(); every worker gets a
// thread of its own. Nodes and the balancer are not owned and must outlive the farm's runs.
class task_farm {
 public:
  static constexpr std::size_t default_max_nworkers = 64;

  // Every worker gets an input ring of in_queue_size entries and, once wrapped, a feedback ring
  // of out_queue_size entries. A null balancer means round robin.
  explicit task_farm(load_balancer* lb = nullptr, std::size_t in_queue_size = 1024,
                     std::size_t out_queue_size = 1024,
                     std::size_t max_nworkers = default_max_nworkers);
  task_farm(const task_farm&) = delete;
  task_farm& operator=(const task_farm&) = delete;
  ~task_farm();

  // All setup calls return 0, or -1 (with nothing changed) when refused or when the farm runs.
  int add_emitter(node* emitter);
  // Appends workers; their indices follow the order given.
  int add_workers(const std::vector<node*>& workers);
  // Adds a feedback ring from every worker, present and future, back to the emitter.
  int wrap_around();
  // A function that runs a task on the emitter's thread when send_out gives up on it. Its
  // result is dropped, so it cannot be combined with feedback, where every task sent must come
  // back.
  int set_fallback(std::function<void(void*)> fallback);

  // Runs the farm until the emitter returns EOS and every thread has been joined. Returns 0, or
  // -1 when it could not run (no emitter, no workers, a thread that would not start, an
  // svc_init that failed). An exception thrown by any node is rethrown here after all threads
  // are stopped and joined; the first one wins. May be called again after it returns.
  int run_and_wait_end();

  std::size_t nworkers() const { return workers_.size(); }

 private:
  friend class node;
  enum : int { running, closing, aborting };

  struct worker_slot {
    node* n;
    std::unique_ptr<spsc_queue> in;   // emitter -> worker
    std::unique_ptr<spsc_queue> out;  // worker -> emitter, when wrapped
    parker park;
    std::thread thread;
  };

  bool attached(const node* n) const;
  bool start_workers();
  bool wait_worker_inits();
  bool init_emitter();
  void run_emitter();
  void close_workers();
  void abort_run();
  void record(std::exception_ptr e);
  int state() const { return state_.load(std::memory_order_seq_cst); }

  bool send(void* task, int retries, unsigned long ticks);
  bool next_feedback(void*& task);
  void drain_feedback();
  bool any_feedback() const;

  void worker_main(worker_slot& w);
  void serve(worker_slot& w);

  load_balancer default_lb_;
  load_balancer* lb_;
  const std::size_t in_queue_size_;
  const std::size_t out_queue_size_;
  const std::size_t max_nworkers_;

  node* emitter_ = nullptr;
  std::vector<std::unique_ptr<worker_slot>> workers_;
  bool wrapped_ = false;
  bool running_ = false;
  std::function<void(void*)> fallback_;

  std::atomic<int> state_{running};
  parker emitter_park_;
  std::deque<void*> pending_;  // fed-back tasks not yet given to the emitter's svc
  std::size_t drain_from_ = 0;

  std::mutex error_m_;
  std::exception_ptr error_;

  std::mutex init_m_;
  std::condition_variable init_cv_;
  std::size_t inits_pending_ = 0;
  bool init_failed_ = false;
};

}  // namespace farm

#endif
