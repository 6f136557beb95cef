#include "zel/util/cronos.h"

#include <sys/times.h>
#include <unistd.h>

#include <cerrno>
#include <ctime>
#include <limits>
#include <stdexcept>

namespace zel {
namespace util {

cronos::cronos() : elapsed_(0), process_(0), start_wall_(), start_process_(0) {}

cronos::~cronos() {}

double cronos::processor_time() {
  struct tms t;
  times(&t);
  clock_t ticks = t.tms_utime + t.tms_stime + t.tms_cutime + t.tms_cstime;
  return static_cast<double>(ticks) / static_cast<double>(sysconf(_SC_CLK_TCK));
}

void cronos::start() {
  gettimeofday(&start_wall_, nullptr);
  start_process_ = processor_time();
}

void cronos::stop() {
  struct timeval now;
  gettimeofday(&now, nullptr);
  long long now_us = static_cast<long long>(now.tv_sec) * 1000000 + now.tv_usec;
  long long start_us = static_cast<long long>(start_wall_.tv_sec) * 1000000 + start_wall_.tv_usec;
  elapsed_ = static_cast<double>(now_us - start_us) / 1e6;
  process_ = processor_time() - start_process_;
}

std::string cronos::get_current_time() {
  time_t now = time(nullptr);
  struct tm local;
  localtime_r(&now, &local);
  char buf[64];  // asctime_r needs at least 26 bytes
  return asctime_r(&local, buf) ? std::string(buf) : std::string();
}

void cronos::sleep(unsigned long ms) {
  if (ms >= std::numeric_limits<unsigned long>::max() / 1000)
    throw std::runtime_error("cronos::sleep() called with too much time");
  // nanosleep rather than usleep: useconds_t is 32 bits wide and would wrap long sleeps.
  struct timespec left;
  left.tv_sec = static_cast<time_t>(ms / 1000);
  left.tv_nsec = static_cast<long>(ms % 1000) * 1000000L;
  while (nanosleep(&left, &left) == -1 && errno == EINTR) {
  }
}

}  // namespace util
}  // namespace zel
