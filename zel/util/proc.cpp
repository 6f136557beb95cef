#include "zel/util/proc.h"

#include <malloc.h>
#include <sys/resource.h>
#include <sys/sysinfo.h>

namespace zel {
namespace util {

unsigned long proc::phys_total_ram() {
  struct sysinfo info;
  if (sysinfo(&info) != 0) return unavailable;
  return (static_cast<unsigned long>(info.totalram) + info.totalhigh) * info.mem_unit;
}

unsigned long proc::phys_available_ram() {
  struct sysinfo info;
  if (sysinfo(&info) != 0) return unavailable;
  return (static_cast<unsigned long>(info.freeram) + info.freehigh) * info.mem_unit;
}

unsigned long proc::process_current_mem() {
  struct rusage usage;
  if (getrusage(RUSAGE_SELF, &usage) != 0) return unavailable;
  return static_cast<unsigned long>(usage.ru_ixrss + usage.ru_idrss + usage.ru_isrss);
}

unsigned long proc::process_free_ram() {
  unsigned long total = phys_total_ram();
  unsigned long used = process_current_mem();
  if (total == unavailable || used == unavailable) return unavailable;
  return total - used;
}

void proc::keep_freed_blocks_for_reuse() {
#if defined(M_MMAP_THRESHOLD) && defined(M_TRIM_THRESHOLD)
  mallopt(M_MMAP_THRESHOLD, kMapFrom);
  mallopt(M_TRIM_THRESHOLD, kTrimFrom);
#endif
}

void proc::return_freed_blocks() {
#ifdef __GLIBC__
  malloc_trim(0);
#endif
}

unsigned long proc::process_peak_mem() {
  return unavailable;
}

}  // namespace util
}  // namespace zel
