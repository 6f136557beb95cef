#include "zel/util/cronos.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>

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
  EXPECT_THROW(cronos::sleep(18446744073709551UL), std::runtime_error);
  std::string now = cronos::get_current_time();
  EXPECT_TRUE(!now.empty() && now.back() == '\n') << now;
}

TEST(Proc, MemoryProbes) {
  unsigned long total = proc::phys_total_ram();
  ASSERT_NE(total, proc::unavailable);
  EXPECT_GT(total, 0UL);
  EXPECT_LE(proc::phys_available_ram(), total);
  EXPECT_LE(proc::process_free_ram(), total);
}
