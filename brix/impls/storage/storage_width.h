// The one rule for the width of stored orders: a column with k known values
// keeps orders 0..k, and each width stops one below its largest value, which
// is never stored. The column factory, the loaders' provisional ids and the
// binary reader all ask here.
#ifndef BRIX_IMPLS_STORAGE_WIDTH_H
#define BRIX_IMPLS_STORAGE_WIDTH_H

#include <cstdint>

namespace brix {
namespace impls {

// The most known values a width of the given bytes holds.
constexpr unsigned long width_limit(unsigned bytes) {
  return bytes == 1 ? 254UL : bytes == 2 ? 65534UL : bytes == 4 ? 4294967294UL : ~0UL - 1;
}

// Bytes per row for k known values: 1, 2, 4 or 8.
constexpr unsigned width_for(unsigned long known) {
  return known <= width_limit(1)   ? 1
         : known <= width_limit(2) ? 2
         : known <= width_limit(4) ? 4
                                   : 8;
}

static_assert(width_for(width_limit(1)) == 1 && width_for(width_limit(1) + 1) == 2, "");
static_assert(width_for(width_limit(2)) == 2 && width_for(width_limit(2) + 1) == 4, "");
static_assert(width_for(width_limit(4)) == 4 && width_for(width_limit(4) + 1) == 8, "");

}  // namespace impls
}  // namespace brix

#endif
