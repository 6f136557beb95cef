// Information terms in 32-bit floats, as the split measures need them: sums
// in index order, logarithms in double rounded once to float.
#ifndef BRIX_IMPLS_ENTROPY_H
#define BRIX_IMPLS_ENTROPY_H

#include <cmath>
#include <cstdint>
#include <vector>

namespace brix {
namespace impls {

struct weight_type {
  // ln 2 as a float; widened to double it is 0.6931471824645996.
  static constexpr float Log2 = 0.693147180559945309f;
};

inline float log2w(float x) {
  return static_cast<float>(std::log(static_cast<double>(x)) /
                            static_cast<double>(weight_type::Log2));
}

// x·log2(x) for integral x from a table: case counts are integral whenever
// every case weight is, and most split evaluations then need no logarithm.
// The table holds the very values the formula gives, so results are the same
// bits either way. Filled before growing starts; read-only while threads run.
class xlogx_table {
 public:
  // Every integer up to n, capped where floats stop being exact integers. With float_logs,
  // term takes the logarithm of other values in float (about twice as fast, and other bits):
  // for trees that reproduce no earlier output.
  explicit xlogx_table(std::uint64_t n = 0, bool float_logs = false) : float_logs_(float_logs) {
    constexpr std::uint64_t kCap = 1ULL << 24;
    if (n > kCap) n = kCap;
    values_.resize(static_cast<std::size_t>(n) + 1);
    for (std::size_t i = 1; i <= n; ++i) {
      float x = static_cast<float>(i);
      values_[i] = x * log2w(x);
    }
    limit_ = static_cast<float>(n);
  }

  // term(x) for a whole x.
  float whole(std::uint32_t x) const {
    return x < values_.size() ? values_[x] : term(static_cast<float>(x));
  }

  float term(float x) const {
    if (x <= 0.0f) return 0.0f;
    if (x <= limit_) {
      auto i = static_cast<std::uint32_t>(x);
      if (static_cast<float>(i) == x) return values_[i];
    }
    return float_logs_ ? x * std::log2(x) : x * log2w(x);
  }

 private:
  bool float_logs_;
  std::vector<float> values_;
  float limit_ = -1.0f;
};

// I(x) = S·log2(S) − Σ xi·log2(xi), S = Σ xi; non-positive terms count 0.
inline float info(xlogx_table const& t, float const* x, std::size_t n) {
  float s = 0.0f, sum = 0.0f;
  for (std::size_t i = 0; i < n; ++i) {
    s += x[i];
    sum += t.term(x[i]);
  }
  float head = s > 0.0f ? t.term(s) : 0.0f * s;
  return head - sum;
}

// info with each weight's term already taken: terms[i] = t.term(x[i]), kept by a scan from one
// cut to the next for the classes that did not move. The same sums in the same order as info.
inline float info_of_terms(xlogx_table const& t, float const* x, float const* terms,
                           std::size_t n) {
  float s = 0.0f, sum = 0.0f;
  for (std::size_t i = 0; i < n; ++i) {
    s += x[i];
    sum += terms[i];
  }
  float head = s > 0.0f ? t.term(s) : 0.0f * s;
  return head - sum;
}

// info of whole weights, x(1) .. x(n), that sum below 2^24: the same bits as info on their
// floats, which add exactly.
template <class Count>
float info_whole(xlogx_table const& t, Count x, std::size_t n) {
  std::uint32_t s = 0;
  float sum = 0.0f;
  for (std::size_t i = 1; i <= n; ++i) {
    std::uint32_t v = x(i);
    s += v;
    sum += t.whole(v);
  }
  return (s > 0 ? t.whole(s) : 0.0f) - sum;
}

}  // namespace impls
}  // namespace brix

#endif
