// Probes of physical and process memory, in bytes.
#ifndef ZEL_UTIL_PROC_H
#define ZEL_UTIL_PROC_H

namespace zel {
namespace util {

// Every probe returns the all-ones value (unsigned -1) when the figure is unavailable.
class proc {
 public:
  static unsigned long phys_total_ram();
  static unsigned long phys_available_ram();
  // Shared, data and stack resident sizes as getrusage reports them (zero on Linux).
  static unsigned long process_current_mem();
  static unsigned long process_free_ram();
  // Not measured: always unsigned -1.
  static unsigned long process_peak_mem();

  // For a command that owns its process. glibc maps blocks above a bound that it moves as blocks
  // are freed, and gives the heap's top back once twice that bound is free, so tables freed and
  // taken again node after node are faulted in afresh each time. Fixed bounds keep blocks below
  // kMapFrom in the heap for reuse; larger ones (whole columns) are still mapped and returned.
  static void keep_freed_blocks_for_reuse();
  // Gives the pages of freed heap blocks back to the system: for a phase that drops many
  // blocks the next phase will not take again at once.
  static void return_freed_blocks();
  static constexpr int kMapFrom = 32 << 20;
  static constexpr int kTrimFrom = 64 << 20;

  static constexpr unsigned long unavailable = static_cast<unsigned long>(-1);
};

}  // namespace util
}  // namespace zel

#endif
