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

  static constexpr unsigned long unavailable = static_cast<unsigned long>(-1);
};

}  // namespace util
}  // namespace zel

#endif
