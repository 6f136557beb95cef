// Sorting helpers: LSD radix sort of ids by numeric keys, and the stable
// counting sort of weighted cases by a small integer key.
#ifndef ZEL_ADT_RADIX_SORT_H
#define ZEL_ADT_RADIX_SORT_H

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <type_traits>
#include <vector>

namespace zel {
namespace adt {

namespace detail {
// Unsigned images of numbers that sort in the same order as the numbers.
inline std::uint32_t sortable_bits(int v) {
  return static_cast<std::uint32_t>(v) ^ 0x80000000u;
}
inline std::uint64_t sortable_bits(unsigned long v) {
  return v;
}
inline std::uint32_t sortable_bits(float v) {
  std::uint32_t b;
  std::memcpy(&b, &v, sizeof b);
  return (b & 0x80000000u) ? ~b : (b | 0x80000000u);
}
inline std::uint64_t sortable_bits(double v) {
  std::uint64_t b;
  std::memcpy(&b, &v, sizeof b);
  return (b & 0x8000000000000000ULL) ? ~b : (b | 0x8000000000000000ULL);
}

inline std::uint32_t float_bits(float v) {
  std::uint32_t b;
  std::memcpy(&b, &v, sizeof b);
  return b;
}
inline float bits_float(std::uint32_t b) {
  float v;
  std::memcpy(&v, &b, sizeof v);
  return v;
}

}  // namespace detail

// Stable LSD radix sort by the low key_bytes bytes of key_of(item). All the
// digit histograms come from one pass; digits shared by every key are skipped.
// buf is the caller's scratch (resized to the items, contents lost): callers
// that sort often keep it instead of allocating one a sort.
template <class Item, class KeyOf>
void lsd_radix(std::vector<Item>& items, std::vector<Item>& buf, unsigned key_bytes, KeyOf key_of) {
  std::size_t n = items.size();
  std::size_t hist[8 * 256];
  std::fill_n(hist, key_bytes * 256, std::size_t(0));
  for (Item const& it : items) {
    auto k = key_of(it);
    for (unsigned byte = 0; byte < key_bytes; ++byte)
      ++hist[byte * 256 + ((k >> (byte * 8)) & 0xFF)];
  }
  buf.resize(n);
  for (unsigned byte = 0; byte < key_bytes; ++byte) {
    std::size_t* count = &hist[byte * 256];
    bool trivial = false;
    for (int d = 0; d < 256; ++d) {
      if (count[d] == n) trivial = true;
    }
    if (trivial) continue;
    std::size_t sum = 0;
    for (int d = 0; d < 256; ++d) {
      std::size_t c = count[d];
      count[d] = sum;
      sum += c;
    }
    unsigned shift = byte * 8;
    for (Item const& it : items)
      buf[count[(key_of(it) >> shift) & 0xFF]++] = it;
    items.swap(buf);
  }
}

template <class Item, class KeyOf>
void lsd_radix(std::vector<Item>& items, unsigned key_bytes, KeyOf key_of) {
  std::vector<Item> buf;
  lsd_radix(items, buf, key_bytes, key_of);
}

// Sorts ids (indexes into values) by ascending value. Values must be distinct
// and free of NaNs.
template <class V>
void radix_sort_by_key(std::vector<std::uint32_t>& ids, std::vector<V> const& values) {
  static_assert(std::is_arithmetic<V>::value, "numeric keys only");
  if (ids.size() < 512) {
    std::sort(ids.begin(), ids.end(),
              [&](std::uint32_t a, std::uint32_t b) { return values[a] < values[b]; });
    return;
  }
  using bits_t = decltype(detail::sortable_bits(V()));
  if constexpr (sizeof(bits_t) == 4) {
    std::vector<std::uint64_t> items(ids.size());
    for (std::size_t i = 0; i < ids.size(); ++i) {
      items[i] = (static_cast<std::uint64_t>(detail::sortable_bits(values[ids[i]])) << 32) | ids[i];
    }
    lsd_radix(items, 4, [](std::uint64_t x) { return x >> 32; });
    for (std::size_t i = 0; i < ids.size(); ++i)
      ids[i] = static_cast<std::uint32_t>(items[i]);
  } else {
    struct item {
      std::uint64_t key;
      std::uint32_t id;
    };
    std::vector<item> items(ids.size());
    for (std::size_t i = 0; i < ids.size(); ++i) {
      items[i] = item{detail::sortable_bits(values[ids[i]]), ids[i]};
    }
    lsd_radix(items, 8, [](item const& x) { return x.key; });
    for (std::size_t i = 0; i < ids.size(); ++i)
      ids[i] = items[i].id;
  }
}

}  // namespace adt
}  // namespace zel

#endif
