// Scale of the C library generator, for turning rand() into a fraction in [0, 1).
#ifndef ZEL_UTIL_RAND_GEN_H
#define ZEL_UTIL_RAND_GEN_H

#include <cstdlib>

namespace zel {
namespace util {
namespace rand_gen {

// RAND_MAX + 1.
inline constexpr long double rmax = 2147483648.0L;
static_assert(RAND_MAX == 2147483647, "rmax assumes a 31-bit rand()");

}  // namespace rand_gen
}  // namespace util
}  // namespace zel

#endif
