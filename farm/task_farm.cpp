#include "farm/task_farm.h"

#include <cstdio>
#include <system_error>
#include <utility>

// Threads. run_and_wait_end() starts one thread per worker and runs the emitter on the calling
// thread, so an emitter exception is already where it must be rethrown. Every thread waits
// through its own parker: workers for input (or for room in their feedback ring), the emitter for
// feedback (or for room in a worker's input ring). Whoever changes a ring notifies the peer, which
// costs one load while the peer is awake; an idle farm sleeps on condition variables.
//
// No deadlock on full rings. A worker blocks only on its full feedback ring and the emitter
// only on a full input ring. Whenever the emitter waits for room it first moves everything from
// the feedback rings into pending_, an unbounded queue, and it wakes again whenever feedback
// arrives, so no worker stays blocked on feedback while the emitter is waiting. Each worker then
// finishes its current svc (every svc must return) and pops its input, making room. The emitter
// never calls svc while sending: fed-back tasks wait in pending_ until svc returns.
//
// Shutdown. When the emitter returns EOS the state becomes `closing`: workers drop any further
// results (nobody will read them) and the emitter queues an EOS behind the tasks already in each
// input ring, so every task sent is still processed before its worker leaves. An exception in
// any node, or a failed start, makes the state `aborting`: every wait returns, workers leave
// after their current svc, and send_out refuses. Either way all threads are joined before
// run_and_wait_end() returns or rethrows. Tasks left in rings or in pending_ are dropped; they
// belong to the caller.

namespace farm {

bool node::send_out(void* task, int retries, unsigned long ticks) {
  return farm_ != nullptr && farm_->send(task, retries, ticks);
}

int load_balancer::selectworker() {
  if (nworkers_ <= 0) return -1;
  if (next_ >= nworkers_) next_ = 0;
  return next_++;
}

task_farm::task_farm(load_balancer* lb, std::size_t in_queue_size, std::size_t out_queue_size,
                     std::size_t max_nworkers)
    : lb_(lb != nullptr ? lb : &default_lb_),
      in_queue_size_(in_queue_size),
      out_queue_size_(out_queue_size),
      max_nworkers_(max_nworkers) {}

task_farm::~task_farm() = default;

bool task_farm::attached(const node* n) const {
  if (n == emitter_) return true;
  for (const auto& w : workers_)
    if (w->n == n) return true;
  return false;
}

int task_farm::add_emitter(node* emitter) {
  if (running_ || emitter == nullptr || emitter_ != nullptr || attached(emitter)) return -1;
  emitter_ = emitter;
  return 0;
}

int task_farm::add_workers(const std::vector<node*>& workers) {
  if (running_) return -1;
  if (workers.size() > max_nworkers_ - workers_.size()) {
    std::fputs("FARM, try to add too many workers, please increase max_nworkers\n", stderr);
    return -1;
  }
  std::vector<std::unique_ptr<worker_slot>> added;
  for (node* n : workers) {
    if (n == nullptr) return -1;
    // A node is one thread's state: a second input ring for it would mean two threads in svc.
    bool twice = attached(n);
    for (const auto& w : added)
      twice = twice || w->n == n;
    if (twice) {
      std::fputs("FARM create_input_buffer, buffer already present\n", stderr);
      return -1;
    }
    auto w = std::make_unique<worker_slot>();
    w->n = n;
    w->in = std::make_unique<spsc_queue>(in_queue_size_);
    if (wrapped_) w->out = std::make_unique<spsc_queue>(out_queue_size_);
    added.push_back(std::move(w));
  }
  for (auto& w : added)
    workers_.push_back(std::move(w));
  return 0;
}

int task_farm::wrap_around() {
  if (running_) return -1;
  if (fallback_) {
    std::fputs(
        "FARM, cannot add feedback channels if the fallback function has been set in the "
        "Emitter\n",
        stderr);
    return -1;
  }
  if (wrapped_) {
    std::fputs("LB, master_worker flag already set\n", stderr);
    return -1;
  }
  wrapped_ = true;
  for (auto& w : workers_)
    w->out = std::make_unique<spsc_queue>(out_queue_size_);
  return 0;
}

int task_farm::set_fallback(std::function<void(void*)> fallback) {
  if (running_ || wrapped_) return -1;
  fallback_ = std::move(fallback);
  return 0;
}

int task_farm::run_and_wait_end() {
  if (running_ || emitter_ == nullptr || workers_.empty()) {
    std::fputs("error running farm\n", stderr);
    return -1;
  }
  running_ = true;
  state_.store(running);
  error_ = nullptr;
  pending_.clear();
  drain_from_ = 0;
  inits_pending_ = workers_.size();
  init_failed_ = false;
  lb_->nworkers_ = static_cast<int>(workers_.size());

  const bool ok = start_workers() && wait_worker_inits() && init_emitter();
  if (ok) run_emitter();
  if (ok && state() == running)
    close_workers();
  else
    abort_run();
  for (auto& w : workers_)
    if (w->thread.joinable()) w->thread.join();
  if (ok) {
    try {
      emitter_->svc_end();
    } catch (...) {
      record(std::current_exception());
    }
  }

  for (auto& w : workers_) {
    w->in->reset();
    if (w->out) w->out->reset();
  }
  pending_.clear();
  running_ = false;
  if (std::exception_ptr e = std::exchange(error_, nullptr)) std::rethrow_exception(e);
  if (!ok) {
    std::fputs("error running farm\n", stderr);
    return -1;
  }
  return 0;
}

bool task_farm::start_workers() {
  for (auto& w : workers_) {
    try {
      w->thread = std::thread(&task_farm::worker_main, this, std::ref(*w));
    } catch (const std::system_error&) {
      abort_run();
      return false;
    }
  }
  return true;
}

bool task_farm::wait_worker_inits() {
  std::unique_lock<std::mutex> lock(init_m_);
  init_cv_.wait(lock, [this] { return inits_pending_ == 0; });
  return !init_failed_;
}

bool task_farm::init_emitter() {
  int rc = -1;
  try {
    rc = emitter_->svc_init();
  } catch (...) {
    record(std::current_exception());
    abort_run();
    return false;
  }
  if (rc != 0) {
    std::fputs("ff_thread, svc_init failed, thread exit!!!\n", stderr);
    abort_run();
    return false;
  }
  return true;
}

void task_farm::run_emitter() {
  emitter_->farm_ = this;
  try {
    void* task = nullptr;
    for (;;) {
      void* r = emitter_->svc(task);
      if (state() == aborting || r == EOS) break;
      if (r != GO_ON && r != nullptr) send(r, -1, 1000);
      if (!wrapped_) continue;
      if (!next_feedback(task)) break;
    }
  } catch (...) {
    record(std::current_exception());
    abort_run();
  }
  emitter_->farm_ = nullptr;
}

void task_farm::close_workers() {
  state_.store(closing);
  for (auto& w : workers_)
    w->park.notify();  // a worker waiting for feedback room may now drop its result
  for (auto& w : workers_) {
    // Workers no longer wait on feedback, so each keeps emptying its ring and this ends.
    while (!w->in->push(EOS)) {
      if (state() == aborting) return;
      emitter_park_.wait([&] { return w->in->writable() || state() == aborting; });
    }
    w->park.notify();
  }
}

void task_farm::abort_run() {
  state_.store(aborting);
  emitter_park_.notify();
  for (auto& w : workers_)
    w->park.notify();
}

void task_farm::record(std::exception_ptr e) {
  std::lock_guard<std::mutex> lock(error_m_);
  if (!error_) error_ = std::move(e);
}

bool task_farm::send(void* task, int retries, unsigned long ticks) {
  if (task == nullptr || task == GO_ON || task == EOS) return false;
  const int i = lb_->selectworker();
  if (i < 0 || static_cast<std::size_t>(i) >= workers_.size()) return false;
  worker_slot& w = *workers_[i];
  constexpr long spin_tries = 8;
  for (long attempt = 0;; ++attempt) {
    if (state() == aborting) return false;
    if (w.in->push(task)) {
      w.park.notify();
      return true;
    }
    // Keep the workers' results flowing while this one is full; see the note at the top.
    if (wrapped_) drain_feedback();
    if (retries >= 0 && attempt >= retries) break;
    if (attempt < spin_tries) {
      backoff(ticks);
    } else if (retries < 0) {
      emitter_park_.wait([&] { return w.in->writable() || any_feedback() || state() == aborting; });
    } else {
      std::this_thread::yield();
    }
  }
  if (!fallback_) return false;
  fallback_(task);
  return true;
}

bool task_farm::next_feedback(void*& task) {
  for (;;) {
    if (state() == aborting) return false;
    if (pending_.empty()) drain_feedback();
    if (!pending_.empty()) {
      task = pending_.front();
      pending_.pop_front();
      return true;
    }
    emitter_park_.wait([this] { return any_feedback() || state() == aborting; });
  }
}

void task_farm::drain_feedback() {
  const std::size_t n = workers_.size();
  for (std::size_t k = 0; k < n; ++k) {
    worker_slot& w = *workers_[(drain_from_ + k) % n];
    // At most one ring's worth per visit, so a busy worker cannot hold the emitter here.
    std::size_t got = 0;
    void* t;
    while (got < out_queue_size_ && w.out->pop(t)) {
      pending_.push_back(t);
      ++got;
    }
    if (got > 0) w.park.notify();
  }
  drain_from_ = (drain_from_ + 1) % n;
}

bool task_farm::any_feedback() const {
  for (const auto& w : workers_)
    if (w->out && w->out->readable()) return true;
  return false;
}

void task_farm::worker_main(worker_slot& w) {
  bool ok = false;
  try {
    ok = w.n->svc_init() == 0;
    if (!ok) std::fputs("ff_thread, svc_init failed, thread exit!!!\n", stderr);
  } catch (...) {
    record(std::current_exception());
  }
  {
    std::lock_guard<std::mutex> lock(init_m_);
    --inits_pending_;
    init_failed_ = init_failed_ || !ok;
  }
  init_cv_.notify_one();
  if (!ok) return;
  try {
    serve(w);
  } catch (...) {
    record(std::current_exception());
    abort_run();
  }
  try {
    w.n->svc_end();
  } catch (...) {
    record(std::current_exception());
    abort_run();
  }
}

void task_farm::serve(worker_slot& w) {
  for (;;) {
    if (state() == aborting) return;
    void* t;
    if (!w.in->pop(t)) {
      w.park.wait([&] { return w.in->readable() || state() == aborting; });
      continue;
    }
    emitter_park_.notify();  // the emitter may be waiting for room in this ring
    if (t == EOS) return;
    void* r = w.n->svc(t);
    if (r == nullptr || r == GO_ON || r == EOS || !w.out) continue;
    while (!w.out->push(r)) {
      if (state() != running) break;  // closing or aborting: nobody reads feedback any more
      w.park.wait([&] { return w.out->writable() || state() != running; });
    }
    emitter_park_.notify();
  }
}

}  // namespace farm
