// The fixed figures of the split rule and of prepruning, each with why it is what it is.
#ifndef BRIX_IMPLS_CONSTANTS_H
#define BRIX_IMPLS_CONSTANTS_H

#include "brix/impls/model/split_record.h"  // kNoGain, which the records start from

namespace brix {
namespace impls {

// The tolerance of the split choice: an attribute's gain may fall this far below the average
// gain, and its split information must exceed it. Compared in double, as the trees expect.
constexpr double kGainTolerance = 0.001;

// Prepruning keeps a subtree only when its error is below the leaf's by this much; a kept
// subtree then counts, deliberately, as the leaf's error less the margin. In double.
constexpr double kPruneMargin = 0.001;

}  // namespace impls
}  // namespace brix

#endif
