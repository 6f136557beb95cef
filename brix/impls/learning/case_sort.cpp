// The sorts of the split search that are not templates over the column readers.
#include "brix/impls/learning/case_sort.h"

#include <algorithm>
#include <cstdint>
#include <vector>

#include "brix/impls/learning/grow_options.h"
#include "brix/impls/storage/column_typed.h"
#include "zel/adt/radix_sort.h"

namespace brix {
namespace impls {

void sort_buckets(std::vector<std::uint64_t>& packed, std::vector<std::uint32_t> const& ends,
                  std::size_t buckets, unsigned long base, unsigned shift,
                  std::vector<std::uint64_t>& run, bool stable) {
  auto by_key = [](std::uint64_t a, std::uint64_t b) { return (a >> 32) < (b >> 32); };
  std::size_t hist[256];
  std::size_t begin = 0;
  for (std::size_t d = 0; d < buckets; ++d) {
    std::size_t end = ends[d], n = end - begin;
    std::uint64_t* a = packed.data() + begin;
    if (n <= 32) {
      for (std::size_t i = 1; i < n; ++i) {
        std::uint64_t x = a[i];
        std::size_t j = i;
        for (; j > 0 && by_key(x, a[j - 1]); --j)
          a[j] = a[j - 1];
        a[j] = x;
      }
    } else if (std::is_sorted(a, a + n, by_key)) {  // often one value fills a bucket
    } else if (!stable) {
      std::sort(a, a + n);  // the payload may order equal keys
    } else if (n > kScratchKeep) {
      std::stable_sort(a, a + n, by_key);
    } else {
      if (run.size() < n) run.resize(n);
      std::uint64_t* from = a;
      std::uint64_t* to = run.data();
      for (unsigned low = 0; low < shift; low += 8) {
        auto digit = [base, low](std::uint64_t x) { return (((x >> 32) - base) >> low) & 0xFF; };
        std::fill_n(hist, 256, std::size_t(0));
        for (std::size_t i = 0; i < n; ++i)
          ++hist[digit(from[i])];
        if (hist[digit(from[0])] == n) continue;
        std::size_t sum = 0;
        for (std::size_t& h : hist) {
          std::size_t c = h;
          h = sum;
          sum += c;
        }
        for (std::size_t i = 0; i < n; ++i)
          to[hist[digit(from[i])]++] = from[i];
        std::swap(from, to);
      }
      if (from != a) std::copy(from, from + n, a);
    }
    begin = end;
  }
}

void sort_by_row(w_sequence& cases, split_scratch& scratch) {
  std::vector<w_case>& v = cases.cases();
  std::uint32_t top = 0;
  for (w_case const& c : v)
    top |= c.first;
  unsigned bytes = 1;
  while (bytes < 4 && (top >> (8 * bytes)) != 0)
    ++bytes;
  w_case const* own = v.data();
  zel::adt::lsd_radix(v, scratch.spare, bytes, [](w_case const& c) { return c.first; });
  if (v.data() != own) {
    // An odd number of passes ends in the scratch: the cases keep their own storage.
    std::copy(v.begin(), v.end(), scratch.spare.begin());
    v.swap(scratch.spare);
  }
}

void sort_as_search(column const& att, column const& cls, w_sequence& cases,
                    order_range const& range, options const* opts, split_scratch& scratch) {
  if (!search_sorts_cases(att, cases.size(), range)) return;
  cls.visit([&](auto c) {
    att.visit([&](auto a) { sort_cases_in_place(a, c, cases.cases(), range, opts, scratch); });
  });
}

}  // namespace impls
}  // namespace brix
