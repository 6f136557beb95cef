#include "farm/task_farm.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <ctime>
#include <filesystem>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace {

using farm::EOS;
using farm::GO_ON;

struct task {
  int id, depth, worker;
};

void pause_us(int us) {
  std::this_thread::sleep_for(std::chrono::microseconds(us));
}

std::size_t thread_count() {
  auto it = std::filesystem::directory_iterator("/proc/self/task");
  return std::distance(begin(it), end(it));
}

// A node whose svc is a lambda.
struct fn_node : farm::node {
  explicit fn_node(std::function<void*(fn_node&, void*)> fn) : fn(std::move(fn)) {}
  void* svc(void* t) override { return fn(*this, t); }
  std::function<void*(fn_node&, void*)> fn;
};

// Counts the runs of every task id, stamps its index on the task; may sleep or throw.
struct worker : farm::node {
  worker(int index, std::vector<std::atomic<int>>& hits) : index(index), hits(hits) {}
  void* svc(void* t) override {
    if (++runs == throw_at) throw std::runtime_error("worker failed");
    if (pause > 0) pause_us(pause);
    hits[static_cast<task*>(t)->id]++;
    static_cast<task*>(t)->worker = index;
    return t;
  }
  int svc_init() override { return init_rc; }
  void svc_end() override { ++ended; }
  int index, runs = 0, throw_at = 0, pause = 0, ended = 0, init_rc = 0;
  std::vector<std::atomic<int>>& hits;
};

// Grows a tree of tasks: the root first, then `fanout` children for every task fed back above
// max_depth, plus an optional burst of leaves sent up front. Ends when nothing is in flight.
struct tree_emitter : farm::node {
  tree_emitter(int fanout, int max_depth, int burst = 0)
      : fanout(fanout), max_depth(max_depth), burst(burst) {}
  int size() const {
    int total = 1 + burst, level = 1;
    for (int d = 0; d < max_depth; ++d)
      total += level *= fanout;
    return total;
  }
  int svc_init() override {
    tasks.clear();
    calls = in_flight = 0;
    return 0;
  }
  void* svc(void* t) override {
    if (++calls == throw_at) throw std::logic_error("emitter failed");
    if (t == nullptr) {
      for (int i = 0; i <= burst; ++i)
        spawn(i == 0 ? 0 : max_depth);
    } else {
      if (pause > 0) pause_us(pause);
      --in_flight;
      for (int c = 0; static_cast<task*>(t)->depth < max_depth && c < fanout; ++c)
        spawn(static_cast<task*>(t)->depth + 1);
    }
    return in_flight == 0 ? EOS : GO_ON;
  }
  void spawn(int depth) {
    tasks.push_back(std::make_unique<task>(task{static_cast<int>(tasks.size()), depth, -1}));
    all_sent = send_out(tasks.back().get()) && all_sent;
    ++in_flight;
  }
  int fanout, max_depth, burst, calls = 0, in_flight = 0, throw_at = 0, pause = 0;
  bool all_sent = true;
  std::vector<std::unique_ptr<task>> tasks;
};

// A farm of n recording workers around the given emitter.
struct rig {
  rig(farm::node* e, int n, int ntasks, std::size_t in = 64, std::size_t out = 64, bool wrap = true,
      farm::load_balancer* lb = nullptr)
      : hits(ntasks), f(lb, in, out) {
    std::vector<farm::node*> nodes;
    for (int i = 0; i < n; ++i)
      nodes.push_back(ws.emplace_back(std::make_unique<worker>(i, hits)).get());
    f.add_emitter(e);
    f.add_workers(nodes);
    if (wrap) f.wrap_around();
  }
  void expect_hits(int times) {
    for (std::size_t i = 0; i < hits.size(); ++i)
      ASSERT_EQ(hits[i].load(), times) << "task " << i;
  }
  std::vector<std::atomic<int>> hits;
  std::vector<std::unique_ptr<worker>> ws;
  farm::task_farm f;
};

TEST(TaskFarm, FeedbackTreeRunsEveryTaskOnceAndAgain) {
  struct shape {
    int n, fanout, depth, burst, in, out, emitter_pause_us;
  };
  for (shape s : {shape{1, 3, 6, 0, 4096, 2176, 0}, shape{2, 3, 6, 0, 8192, 2176, 0},
                  shape{4, 3, 6, 0, 16384, 2176, 0}, shape{8, 3, 6, 0, 32768, 2176, 0},
                  // A burst fills every one-entry ring while the emitter is still sending.
                  shape{3, 4, 4, 3000, 1, 1, 0},
                  // A slow emitter leaves the workers asleep on full feedback rings.
                  shape{3, 2, 4, 30, 1, 1, 1000}}) {
    SCOPED_TRACE("workers " + std::to_string(s.n) + ", ring " + std::to_string(s.in));
    tree_emitter e(s.fanout, s.depth, s.burst);
    e.pause = s.emitter_pause_us;
    rig r(&e, s.n, e.size(), s.in, s.out);
    for (int run = 1; run <= 2; ++run) {
      ASSERT_EQ(r.f.run_and_wait_end(), 0);
      EXPECT_TRUE(e.all_sent);
      EXPECT_EQ(e.calls, e.size() + 1);
      r.expect_hits(run);
    }
    for (auto& w : r.ws)
      EXPECT_TRUE(w->ended == 2 && w->runs > 0);  // round robin reaches every worker
  }
}

struct fixed_balancer : farm::load_balancer {
  int selectworker() override { return choice; }
  int choice = 0;
};

TEST(TaskFarm, BalancerChoiceDecidesTheWorker) {
  fixed_balancer lb;
  task tasks[40];
  bool refused = true, steered = true;
  int back = 0;
  fn_node e([&](fn_node& self, void* t) {
    if (t != nullptr) {
      auto* tk = static_cast<task*>(t);
      steered = steered && tk->worker == tk->id * 7 % 3;
      return ++back == 40 ? EOS : GO_ON;
    }
    for (int bad : {3, -1}) {
      lb.choice = bad;
      refused = refused && !self.send_out(&tasks[0]);
    }
    for (int i = 0; i < 40; ++i) {
      tasks[i].id = i;
      lb.choice = i * 7 % 3;
      self.send_out(&tasks[i]);
    }
    return GO_ON;
  });
  rig r(&e, 3, 40, 2, 2, true, &lb);
  ASSERT_EQ(r.f.run_and_wait_end(), 0);
  EXPECT_TRUE(refused);
  EXPECT_TRUE(steered);
  r.expect_hits(1);
}

TEST(TaskFarm, RefusalsAndFailedStartsPrintTheirMessage) {
  tree_emitter e(1, 1);
  rig r(nullptr, 0, 2, 64, 64, false);
  std::vector<farm::node*> nodes;
  for (int i = 0; i < 65; ++i)
    nodes.push_back(r.ws.emplace_back(std::make_unique<worker>(i, r.hits)).get());
  farm::task_farm& f = r.f;
  testing::internal::CaptureStderr();
  EXPECT_EQ(f.run_and_wait_end(), -1);
  EXPECT_EQ(f.add_workers(nodes), -1);
  EXPECT_EQ(f.add_workers({nodes[0], nodes[1], nodes[0]}), -1);
  EXPECT_EQ(f.add_workers({nodes[0], nodes[1]}), 0);
  EXPECT_EQ(f.add_workers({nodes[1]}), -1);
  EXPECT_EQ(f.add_emitter(nodes[1]), -1);
  EXPECT_EQ(f.add_workers(std::vector<farm::node*>(nodes.begin() + 2, nodes.end() - 1)), 0);
  EXPECT_EQ(f.wrap_around(), 0);
  EXPECT_EQ(f.wrap_around(), -1);
  EXPECT_EQ(f.set_fallback([](void*) {}), -1);
  farm::task_farm g;
  EXPECT_EQ(g.set_fallback([](void*) {}), 0);
  EXPECT_EQ(g.wrap_around(), -1);
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "error running farm\n"
            "FARM, try to add too many workers, please increase max_nworkers\n"
            "FARM create_input_buffer, buffer already present\n"
            "FARM create_input_buffer, buffer already present\n"
            "LB, master_worker flag already set\n"
            "FARM, cannot add feedback channels if the fallback function has been set in the "
            "Emitter\n");
  EXPECT_EQ(f.add_emitter(&e), 0);
  EXPECT_EQ(f.nworkers(), 64u);
  EXPECT_EQ(f.run_and_wait_end(), 0);

  // A worker that fails to start stops the run before the emitter's first call.
  r.ws[5]->init_rc = 1;
  e.calls = 0;
  testing::internal::CaptureStderr();
  EXPECT_EQ(f.run_and_wait_end(), -1);
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "ff_thread, svc_init failed, thread exit!!!\nerror running farm\n");
  EXPECT_EQ(e.calls, 0);
  EXPECT_TRUE(r.ws[5]->ended == 1 && r.ws[6]->ended == 2);
}

TEST(TaskFarm, SendGivesUpOnAFullRing) {
  // The only worker holds its first task until released, so its one-entry ring stays full.
  std::atomic<bool> started{false}, release{false};
  fn_node holder([&](fn_node&, void*) {
    for (started = true; !release;)
      std::this_thread::yield();
    return GO_ON;
  });
  task tasks[3];
  bool third_sent = true;
  fn_node e([&](fn_node& self, void*) {
    self.send_out(&tasks[0]);
    while (!started)
      std::this_thread::yield();
    self.send_out(&tasks[1]);
    third_sent = self.send_out(&tasks[2], 3, 10);
    release = true;
    return EOS;
  });
  farm::task_farm f(nullptr, 1);
  f.add_emitter(&e);
  f.add_workers({&holder});
  ASSERT_EQ(f.run_and_wait_end(), 0);
  EXPECT_FALSE(third_sent);
}

TEST(TaskFarm, ExceptionsReachTheCallerAfterAllThreadsAreJoined) {
  {
    // A first run lets any helper thread of the runtime or a sanitizer start before counting.
    tree_emitter e(1, 1);
    rig r(&e, 1, e.size());
    ASSERT_EQ(r.f.run_and_wait_end(), 0);
  }
  const std::size_t threads_before = thread_count();
  {
    // Worker 1 fails while the others are busy and the emitter waits on one-entry rings.
    tree_emitter e(1, 0, 400);
    rig r(&e, 3, e.size(), 1, 1);
    for (auto& w : r.ws)
      w->pause = 50;
    r.ws[1]->throw_at = 10;
    try {
      r.f.run_and_wait_end();
      ADD_FAILURE() << "no exception";
    } catch (const std::runtime_error& x) {
      EXPECT_STREQ(x.what(), "worker failed");
    }
    EXPECT_EQ(thread_count(), threads_before);
    for (auto& w : r.ws)
      EXPECT_EQ(w->ended, 1);
  }
  tree_emitter e(4, 5);
  e.throw_at = 30;
  rig r(&e, 2, e.size());
  EXPECT_THROW(r.f.run_and_wait_end(), std::logic_error);
  EXPECT_EQ(e.calls, 30);
  EXPECT_EQ(thread_count(), threads_before);
}

TEST(TaskFarm, IdleThreadsSleep) {
  // Worker 0 sleeps on the only task; the emitter and the other workers have nothing to do.
  tree_emitter e(1, 0);
  rig r(&e, 4, 1);
  r.ws[0]->pause = 300000;
  const std::clock_t cpu = std::clock();
  ASSERT_EQ(r.f.run_and_wait_end(), 0);
  EXPECT_LT(double(std::clock() - cpu) / CLOCKS_PER_SEC, 0.1);
}

}  // namespace
