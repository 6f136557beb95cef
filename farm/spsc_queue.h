// Bounded lock-free ring of pointers between one producer thread and one consumer thread.
#ifndef FARM_SPSC_QUEUE_H
#define FARM_SPSC_QUEUE_H

#include <atomic>
#include <cstddef>
#include <memory>

namespace farm {

// One slot stays free to tell a full ring from an empty one. Each side keeps a private copy of
// the other side's index and reloads the shared one only when its copy says full (producer) or
// empty (consumer), so the two cache lines bounce about once per lap instead of once per item.
//
// Index stores are sequentially consistent, not merely release: a thread going to sleep first
// announces it and then rechecks the ring, while its peer publishes an index and then looks for
// the announcement (see parker). Both sides need store-then-load ordering, which only seq_cst
// gives without a standalone fence.
class spsc_queue {
 public:
  // A capacity of 0 is raised to 1. The slots are left uninitialised so that a large ring costs
  // memory only for the part that is actually used.
  explicit spsc_queue(std::size_t capacity)
      : slots_((capacity == 0 ? 1 : capacity) + 1), buf_(new void*[slots_]) {}
  spsc_queue(const spsc_queue&) = delete;
  spsc_queue& operator=(const spsc_queue&) = delete;

  std::size_t capacity() const { return slots_ - 1; }

  // Producer side: false when full.
  bool push(void* p) {
    const std::size_t t = tail_.load(std::memory_order_relaxed);
    const std::size_t n = next(t);
    if (n == head_copy_) {
      head_copy_ = head_.load(std::memory_order_acquire);
      if (n == head_copy_) return false;
    }
    buf_[t] = p;
    tail_.store(n, std::memory_order_seq_cst);
    return true;
  }
  // Producer side: whether a push would succeed now.
  bool writable() const {
    return next(tail_.load(std::memory_order_relaxed)) != head_.load(std::memory_order_seq_cst);
  }

  // Consumer side: false when empty.
  bool pop(void*& p) {
    const std::size_t h = head_.load(std::memory_order_relaxed);
    if (h == tail_copy_) {
      tail_copy_ = tail_.load(std::memory_order_acquire);
      if (h == tail_copy_) return false;
    }
    p = buf_[h];
    head_.store(next(h), std::memory_order_seq_cst);
    return true;
  }
  // Consumer side: whether a pop would succeed now.
  bool readable() const {
    return head_.load(std::memory_order_relaxed) != tail_.load(std::memory_order_seq_cst);
  }

  // Drops the contents. Only while no thread uses either side.
  void reset() {
    head_.store(0, std::memory_order_relaxed);
    tail_.store(0, std::memory_order_relaxed);
    head_copy_ = tail_copy_ = 0;
  }

 private:
  std::size_t next(std::size_t i) const { return i + 1 == slots_ ? 0 : i + 1; }

  const std::size_t slots_;
  const std::unique_ptr<void*[]> buf_;
  alignas(64) std::atomic<std::size_t> head_{0};  // next slot to read; written by the consumer
  std::size_t tail_copy_ = 0;                     // the consumer's last view of tail_
  alignas(64) std::atomic<std::size_t> tail_{0};  // next slot to write; written by the producer
  std::size_t head_copy_ = 0;                     // the producer's last view of head_
};

}  // namespace farm

#endif
