#include "brix/impls/learning/value_subsets.h"

#include <cstdint>
#include <limits>
#include <memory>
#include <utility>
#include <vector>

#include "brix/impls/learning/entropy.h"

namespace brix {
namespace impls {

namespace {

constexpr std::uint32_t kNoGroup = ~0u;

// The groups of one stage of merging: each group's class weights (cols a group, column 0
// unused), its weight and information, in the order of their lowest value; owner[r] is the
// group of tally row r.
struct grouping {
  std::size_t cols;
  std::vector<float> weights;
  std::vector<float> branch;
  std::vector<float> infos;
  std::vector<std::uint32_t> owner;

  std::size_t size() const { return branch.size(); }
  float const* classes_of(std::size_t g) const { return &weights[g * cols + 1]; }

  void settle(std::size_t g, xlogx_table const& logs) {
    float s = 0.0f;
    for (std::size_t k = 1; k < cols; ++k)
      s += weights[g * cols + k];
    branch[g] = s;
    infos[g] = info(logs, classes_of(g), cols - 1);
  }

  // Group j into group i (i < j), the later groups moving down a place.
  void merge(std::size_t i, std::size_t j, xlogx_table const& logs) {
    for (std::size_t k = 1; k < cols; ++k)
      weights[i * cols + k] += weights[j * cols + k];
    weights.erase(weights.begin() + j * cols, weights.begin() + (j + 1) * cols);
    branch.erase(branch.begin() + j);
    infos.erase(infos.begin() + j);
    for (std::uint32_t& o : owner) {
      if (o == kNoGroup || o < j) continue;
      o = o == j ? static_cast<std::uint32_t>(i) : o - 1;
    }
    settle(i, logs);
  }
};

// The split measures of a grouping, as the ordinary discrete split computes them for its
// branches: information summed in branch order, the unknown weight a branch of the split
// information.
struct measures {
  float gain = 0.0f;
  float split_info = 0.0f;
  int reaching = 0;  // branches of at least the least weight
};

// The pair of groups whose merge leaves the best gain ratio, the first of equal ones. The split
// information and class information of the current groups are summed once; each candidate
// changes two terms of each.
template <class Gain>
std::pair<std::size_t, std::size_t> best_pair(grouping const& g, float unknown, float total_weight,
                                              Gain const& gain_of, xlogx_table const& logs,
                                              std::vector<float>& merged,
                                              std::vector<float>& parts) {
  std::size_t classes = g.cols - 1;
  float hs = 0.0f;
  parts.assign(1, unknown);
  for (std::size_t i = 0; i < g.size(); ++i) {
    hs += g.infos[i];
    parts.push_back(g.branch[i]);
  }
  float hsplit = info(logs, parts.data(), parts.size());
  float top = -std::numeric_limits<float>::infinity();
  std::size_t bi = 0, bj = 1;
  for (std::size_t i = 0; i + 1 < g.size(); ++i) {
    for (std::size_t j = i + 1; j < g.size(); ++j) {
      float const* a = g.classes_of(i);
      float const* b = g.classes_of(j);
      for (std::size_t k = 0; k < classes; ++k)
        merged[k] = a[k] + b[k];
      float w = g.branch[i] + g.branch[j];
      float h = hs - g.infos[i] - g.infos[j] + info(logs, merged.data(), classes);
      float si = hsplit + logs.term(g.branch[i]) + logs.term(g.branch[j]) - logs.term(w);
      if (!(si > 0.0f)) continue;
      float ratio = gain_of(h) / (si / total_weight);
      if (ratio > top) {  // strictly: the first pair of equal ones
        top = ratio;
        bi = i;
        bj = j;
      }
    }
  }
  return {bi, bj};
}

}  // namespace

bool score_value_groups(float const* freq, std::size_t rows, std::size_t cols, unsigned long base,
                        unsigned long distinct, float const* class_total, float unknown,
                        float total_weight, float min_objects, xlogx_table const& logs,
                        splitting_desc& best) {
  std::size_t classes = cols - 1;
  best.groups.reset();
  best.gain = kNoGain;
  best.split_info = 0.0f;
  float known = total_weight - unknown;
  if (known == 0.0f) return true;

  grouping g{cols, {}, {}, {}, std::vector<std::uint32_t>(rows, kNoGroup)};
  for (std::size_t r = 1; r < rows; ++r) {
    float s = 0.0f;
    for (std::size_t k = 1; k < cols; ++k)
      s += freq[r * cols + k];
    if (!(s > 0.0f)) continue;
    g.owner[r] = static_cast<std::uint32_t>(g.size());
    g.weights.insert(g.weights.end(), freq + r * cols, freq + (r + 1) * cols);
    g.branch.push_back(0.0f);
    g.infos.push_back(0.0f);
    g.settle(g.size() - 1, logs);
  }
  std::size_t present = g.size();
  if (present < 2) return true;

  float hc = info(logs, class_total + 1, classes);
  float known_share = known / (unknown + known);
  auto gain_of = [&](float hs) { return (hc / known - hs / known) * known_share; };
  std::vector<float> parts;
  auto measure = [&]() {
    measures m;
    float hs = 0.0f;
    parts.assign(1, unknown);
    for (std::size_t i = 0; i < g.size(); ++i) {
      hs += g.infos[i];
      parts.push_back(g.branch[i]);
      if (g.branch[i] >= min_objects) ++m.reaching;
    }
    m.gain = gain_of(hs);
    m.split_info = info(logs, parts.data(), parts.size()) / total_weight;
    return m;
  };

  // The best grouping so far; ties keep the one with more groups (met first).
  float best_ratio = -std::numeric_limits<float>::infinity();
  measures chosen;
  grouping kept{cols, {}, {}, {}, {}};
  bool found = false;
  auto consider = [&]() {
    measures m = measure();
    if (m.reaching < 2 || !(m.split_info > 0.0f)) return;
    float ratio = m.gain / m.split_info;
    if (!(ratio > best_ratio)) return;
    best_ratio = ratio;
    chosen = m;
    kept = g;
    found = true;
  };
  consider();

  std::vector<float> merged(cols, 0.0f);
  while (g.size() > 2) {
    std::pair<std::size_t, std::size_t> p =
        best_pair(g, unknown, total_weight, gain_of, logs, merged, parts);
    g.merge(p.first, p.second, logs);
    consider();
  }
  if (!found) return true;
  if (kept.size() == present && present == distinct) return false;

  std::size_t heaviest = 0;
  for (std::size_t i = 1; i < kept.size(); ++i)
    if (kept.branch[i] > kept.branch[heaviest]) heaviest = i;
  auto map = std::make_shared<value_groups>(distinct + 1, 0u);
  for (unsigned long o = 1; o <= distinct; ++o)
    (*map)[o] = static_cast<std::uint32_t>(heaviest + 1);
  for (std::size_t r = 1; r < rows; ++r)
    if (kept.owner[r] != kNoGroup) (*map)[r + base] = kept.owner[r] + 1;
  best.branches = kept.size();
  best.gain = chosen.gain;
  best.split_info = chosen.split_info;
  best.groups = std::move(map);
  return true;
}

}  // namespace impls
}  // namespace brix
