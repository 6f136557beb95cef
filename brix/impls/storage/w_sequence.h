// Weighted case sequences: the cases of a node or a sample as (row, weight)
// pairs. Growing and evaluation move these, never rows.
#ifndef BRIX_IMPLS_W_SEQUENCE_H
#define BRIX_IMPLS_W_SEQUENCE_H

#include <cstdint>
#include <vector>

#include "zel/adt/radix_sort.h"

namespace brix {
namespace impls {

// Row numbers are kept in 32 bits: half the memory traffic of a 64-bit pair
// when cases are sorted and partitioned; tables are limited to 2^32 - 1 rows.
struct w_case {
  std::uint32_t first;  // row
  float second;         // weight

  friend bool operator<(w_case const& a, w_case const& b) {
    return a.first < b.first || (a.first == b.first && a.second < b.second);
  }
};

class w_sequence {
 public:
  using value_type = w_case;
  using iterator = std::vector<w_case>::iterator;
  using const_iterator = std::vector<w_case>::const_iterator;

  w_sequence() = default;
  explicit w_sequence(std::size_t n) : cases_(n) {}

  std::size_t size() const { return cases_.size(); }
  bool empty() const { return cases_.empty(); }
  void reserve(std::size_t n) { cases_.reserve(n); }
  void resize(std::size_t n) { cases_.resize(n); }
  void clear() { cases_.clear(); }
  void shrink_to_fit() { cases_.shrink_to_fit(); }
  void push_back(unsigned long row, float weight) {
    cases_.push_back(w_case{static_cast<std::uint32_t>(row), weight});
  }
  void set(std::size_t i, unsigned long row, float weight) {
    cases_[i] = w_case{static_cast<std::uint32_t>(row), weight};
  }

  w_case& operator[](std::size_t i) { return cases_[i]; }
  w_case const& operator[](std::size_t i) const { return cases_[i]; }
  iterator begin() { return cases_.begin(); }
  iterator end() { return cases_.end(); }
  const_iterator begin() const { return cases_.begin(); }
  const_iterator end() const { return cases_.end(); }
  w_case* data() { return cases_.data(); }
  w_case const* data() const { return cases_.data(); }
  std::vector<w_case>& cases() { return cases_; }

 private:
  std::vector<w_case> cases_;
};

// Puts the cases in ascending row order (rows are distinct in a node).
inline void sort_by_row(w_sequence& s) {
  std::uint32_t top = 0;
  for (w_case const& c : s)
    top |= c.first;
  unsigned bytes = 1;
  while (bytes < 4 && (top >> (8 * bytes)) != 0)
    ++bytes;
  zel::adt::lsd_radix(s.cases(), bytes, [](w_case const& c) { return c.first; });
}

}  // namespace impls
}  // namespace brix

#endif
