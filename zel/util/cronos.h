// Stopwatch measuring wall-clock and processor time between start() and stop().
#ifndef ZEL_UTIL_CRONOS_H
#define ZEL_UTIL_CRONOS_H

#include <sys/time.h>

#include <string>

namespace zel {
namespace util {

class cronos {
 public:
  // The watch is not started: call start() before stop().
  cronos();
  virtual ~cronos();

  void start();
  // May be called several times after one start(); each call measures from that start.
  void stop();

  // Seconds between the last start() and stop().
  double get_elapsed() const { return elapsed_; }
  // Processor seconds (user and system, own and of finished children) over the same span.
  double get_process() const { return process_; }

  // Local time in asctime() form, ending with a line feed.
  static std::string get_current_time();
  // Throws std::runtime_error when ms * 1000 would overflow.
  static void sleep(unsigned long ms);

 private:
  static double processor_time();

  double elapsed_;
  double process_;
  struct timeval start_wall_;
  double start_process_;
};

}  // namespace util
}  // namespace zel

#endif
