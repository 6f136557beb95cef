// Waiting for a condition on lock-free state: spin briefly, then yield, then sleep.
#ifndef FARM_PARKER_H
#define FARM_PARKER_H

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <thread>

namespace farm {

// A hint to the processor that the caller is busy-waiting; one call is one back-off tick.
inline void cpu_relax() {
#if defined(__x86_64__) || defined(__i386__)
  __builtin_ia32_pause();
#elif defined(__aarch64__)
  asm volatile("yield");
#endif
}

inline void backoff(unsigned long ticks) {
  for (unsigned long i = 0; i < ticks; ++i)
    cpu_relax();
}

// One per waiting thread; only that thread calls wait(), any thread may call notify().
//
// The condition itself lives in atomics outside the parker (ring indices, the farm state). A
// waiter that is about to sleep sets sleeping_ and then rechecks the condition; a thread that
// changes the condition stores it and then reads sleeping_. All four accesses are seq_cst, so at
// least one side sees the other: either the waiter finds the condition true, or the notifier
// finds sleeping_ set. The notifier then takes the mutex, which it can only get once the waiter
// is inside cv_.wait(), so the wake-up is never lost. When nobody sleeps, notify() is one load.
class parker {
 public:
  static constexpr int spin_rounds = 128;
  static constexpr int yield_rounds = 16;

  template <class Ready>
  void wait(Ready ready) {
    for (int i = 0; i < spin_rounds; ++i) {
      if (ready()) return;
      cpu_relax();
    }
    for (int i = 0; i < yield_rounds; ++i) {
      if (ready()) return;
      std::this_thread::yield();
    }
    std::unique_lock<std::mutex> lock(m_);
    sleeping_.store(true, std::memory_order_seq_cst);
    while (!ready())
      cv_.wait(lock);
    sleeping_.store(false, std::memory_order_relaxed);
  }

  // Call after making the waiter's condition true.
  void notify() {
    if (!sleeping_.load(std::memory_order_seq_cst)) return;
    { std::lock_guard<std::mutex> lock(m_); }
    cv_.notify_one();
  }

 private:
  std::mutex m_;
  std::condition_variable cv_;
  std::atomic<bool> sleeping_{false};
};

}  // namespace farm

#endif
