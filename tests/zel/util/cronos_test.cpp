#include "zel/util/cronos.h"

#include <gtest/gtest.h>

#include <stdexcept>

#include "zel/util/proc.h"

using zel::util::cronos;
using zel::util::proc;

TEST(Cronos, StoppedTwiceMeasuresFromTheSameStart) {
  cronos c;
  EXPECT_EQ(c.get_elapsed(), 0.0);
  c.start();
  cronos::sleep(20);
  c.stop();
  double first = c.get_elapsed();
  cronos::sleep(20);
  c.stop();
  EXPECT_GE(first, 0.015);
  EXPECT_GE(c.get_elapsed(), first + 0.015);
  EXPECT_GE(c.get_process(), 0.0);
}

TEST(Cronos, SleepRefusesOverflowingTimes) {
  EXPECT_THROW(cronos::sleep(18446744073709551UL), std::runtime_error);
}

TEST(Cronos, CurrentTimeEndsWithLineFeed) {
  std::string now = cronos::get_current_time();
  ASSERT_FALSE(now.empty());
  EXPECT_EQ(now.back(), '\n');
}

TEST(Proc, MemoryProbes) {
  unsigned long total = proc::phys_total_ram();
  ASSERT_NE(total, proc::unavailable);
  EXPECT_GT(total, 0UL);
  EXPECT_LE(proc::phys_available_ram(), total);
  EXPECT_EQ(proc::process_free_ram(), total - proc::process_current_mem());
  EXPECT_EQ(proc::process_peak_mem(), proc::unavailable);
}
