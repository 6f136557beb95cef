// The choice among a node's attributes once each is scored on its own (split_search.h).
#ifndef BRIX_IMPLS_SPLIT_CHOICE_H
#define BRIX_IMPLS_SPLIT_CHOICE_H

#include <vector>

#include "brix/impls/learning/split_search.h"

namespace brix {
namespace impls {

// The index of the attribute a node splits on, or -1 where none may; descs[a] is attribute a's
// best split. Only attributes with a gain above kNoGain compete. On gain ratio (use_ratio), of
// those only the ones whose gain reaches their average gain, less kGainTolerance, and whose split
// information exceeds kGainTolerance; on gain, those with any split information.
// Ties: a later attribute wins only with a strictly greater score, so the first best attribute is
// chosen whichever order or thread the attributes were scored in.
long choose_split(std::vector<splitting_desc> const& descs, bool use_ratio);

}  // namespace impls
}  // namespace brix

#endif
