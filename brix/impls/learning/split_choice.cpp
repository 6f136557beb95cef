#include "brix/impls/learning/split_choice.h"

#include "brix/impls/learning/constants.h"

namespace brix {
namespace impls {

namespace {

// The average gain of the attributes that have a split, summed in attribute order in a float;
// with none, a figure no gain reaches.
float average_gain(std::vector<splitting_desc> const& descs) {
  float sum = 0.0f;
  unsigned long count = 0;
  for (auto const& d : descs) {
    if (d.gain > kNoGain) {
      sum += d.gain;
      ++count;
    }
  }
  return count > 0 ? sum / static_cast<float>(count) : 1000000.0f;
}

}  // namespace

long choose_split(std::vector<splitting_desc> const& descs, bool use_ratio) {
  // The float sum and the tolerances compared in double are deliberate: they decide ties as the
  // trees expect.
  float average = average_gain(descs);
  float best_score = kNoGain;
  long best = -1;
  for (std::size_t a = 0; a < descs.size(); ++a) {
    auto const& d = descs[a];
    if (!(d.gain > kNoGain)) continue;
    float score;
    if (use_ratio) {
      if (!(d.gain >= average - kGainTolerance) || !(d.split_info > kGainTolerance)) continue;
      score = d.gain / d.split_info;
    } else {
      if (!(d.split_info > 0.0f)) continue;
      score = d.gain;
    }
    if (score > best_score) {  // strictly: the first best attribute keeps its place
      best_score = score;
      best = static_cast<long>(a);
    }
  }
  return best;
}

}  // namespace impls
}  // namespace brix
