// Element types of value sets: a thin wrapper of one value with its text
// conversions, hashing and order.
#ifndef ZEL_UTIL_DATATYPE_H
#define ZEL_UTIL_DATATYPE_H

#include <charconv>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <stdexcept>
#include <string>
#include <string_view>

#include "zel/util/string_util.h"

namespace zel {
namespace data_types {

template <class X>
struct datatype;

namespace detail {
inline std::uint64_t mix(std::uint64_t x) {
  x ^= x >> 33;
  x *= 0xff51afd7ed558ccdULL;
  x ^= x >> 33;
  return x;
}

// Plain decimals ("-123.45": at most 15 digits, no exponent) as a correctly rounded F, the common
// case of table files. The digits make an exact integer m < 2^53 and 10^k (k <= 15) is exact, so
// m / 10^k is the correctly rounded double. For a float that double is rounded once more, which
// can only go wrong when it lies exactly halfway between two floats: those are left to the
// general parser, as is everything else (returns false).
template <class F>
bool parse_plain_decimal(char const* s, F& out) {
  static constexpr double kPow10[] = {1e0, 1e1, 1e2,  1e3,  1e4,  1e5,  1e6,  1e7,
                                      1e8, 1e9, 1e10, 1e11, 1e12, 1e13, 1e14, 1e15};
  bool negative = *s == '-';
  s += negative;
  std::uint64_t m = 0;
  int digits = 0, decimals = -1;
  for (;; ++s) {
    unsigned d = static_cast<unsigned char>(*s) - '0';
    if (d < 10) {
      if (++digits > 15) return false;
      m = m * 10 + d;
      if (decimals >= 0) ++decimals;
    } else if (*s == '.' && decimals < 0) {
      decimals = 0;
    } else {
      break;
    }
  }
  if (*s != '\0' || digits == 0) return false;
  double v = static_cast<double>(m) / kPow10[decimals < 0 ? 0 : decimals];
  if constexpr (sizeof(F) == sizeof(float)) {
    std::uint64_t bits;
    std::memcpy(&bits, &v, sizeof bits);
    // 29 = the significand bits a double has beyond a float's.
    if ((bits & ((1ULL << 29) - 1)) == (1ULL << 28)) return false;
  }
  out = static_cast<F>(negative ? -v : v);
  return true;
}

// Floating text as a correctly rounded value. Leading blanks and a '+' are
// taken as the C library takes them; anything after the number, a NaN or an
// overflow to infinity is refused so that no value is silently garbled.
template <class F>
bool parse_floating(char const* s, F& out) {
  while (*s == ' ' || *s == '\t')
    ++s;
  if (*s == '+' && s[1] != '-') ++s;
  if (parse_plain_decimal(s, out)) return true;
  char const* end = s + std::strlen(s);
  F v;
  auto r = std::from_chars(s, end, v);
  if (r.ec != std::errc() || r.ptr != end || s == end) return false;
  if (std::isnan(v)) return false;
  if (std::isinf(v)) {
    // Accept only an explicit infinity, never an overflow.
    char const* p = s + (*s == '-');
    if (*p != 'i' && *p != 'I') return false;
  }
  out = v;
  return true;
}

template <class F>
std::string print_fixed30(F v) {
  // Values up to 3.4e38 with 30 decimals fit comfortably.
  char buf[96];
  int n = std::snprintf(buf, sizeof buf, "%.30f", static_cast<double>(v));
  if (n >= static_cast<int>(sizeof buf)) {
    std::string big(static_cast<std::size_t>(n) + 1, '\0');
    std::snprintf(&big[0], big.size(), "%.30f", static_cast<double>(v));
    big.resize(static_cast<std::size_t>(n));
    return big;
  }
  return std::string(buf, static_cast<std::size_t>(n));
}
}  // namespace detail

template <>
struct datatype<int> {
  using value_type = int;
  static char const* keyword() { return "integer"; }
  static value_type parse(char const* s) {
    int v = 0;
    zel::util::string_util::str2int<int>(s, v);
    return v;
  }
  static std::string print(value_type v) { return std::to_string(v); }
  static std::uint64_t hash(value_type v) { return detail::mix(static_cast<std::uint32_t>(v)); }
  static bool equal(value_type a, value_type b) { return a == b; }
  static bool less(value_type a, value_type b) { return a < b; }
  // Midpoint without overflow, truncating toward zero.
  static value_type mid(value_type lo, value_type hi) {
    if (lo < 0 && hi >= 0) return (lo + hi) / 2;
    return lo + (hi - lo) / 2;
  }
};

template <>
struct datatype<unsigned long> {
  using value_type = unsigned long;
  static char const* keyword() { return "uinteger"; }
  static value_type parse(char const* s) {
    unsigned long v = 0;
    zel::util::string_util::str2int<unsigned long>(s, v);
    return v;
  }
  static std::string print(value_type v) { return std::to_string(v); }
  static std::uint64_t hash(value_type v) { return detail::mix(v); }
  static bool equal(value_type a, value_type b) { return a == b; }
  static bool less(value_type a, value_type b) { return a < b; }
  static value_type mid(value_type lo, value_type hi) { return lo + ((hi - lo) >> 1); }
};

template <>
struct datatype<float> {
  using value_type = float;
  static char const* keyword() { return "float"; }
  static value_type parse(char const* s) {
    float v;
    if (!detail::parse_floating(s, v)) throw std::runtime_error(std::string(s) + ": not a float");
    return v;
  }
  static std::string print(value_type v) { return detail::print_fixed30(v); }
  static std::uint64_t hash(value_type v) {
    if (v == 0.0f) v = 0.0f;  // -0 and +0 are one value
    std::uint32_t bits;
    std::memcpy(&bits, &v, sizeof bits);
    return detail::mix(bits);
  }
  static bool equal(value_type a, value_type b) { return a == b; }
  static bool less(value_type a, value_type b) { return a < b; }
  static value_type mid(value_type lo, value_type hi) {
    double l = lo, h = hi;
    return static_cast<float>(l + (h - l) * 0.5);
  }
};

template <>
struct datatype<double> {
  using value_type = double;
  static char const* keyword() { return "double"; }
  static value_type parse(char const* s) {
    double v;
    if (!detail::parse_floating(s, v)) throw std::runtime_error(std::string(s) + ": not a double");
    return v;
  }
  // Shortest text that reads back to the same double.
  static std::string print(value_type v) {
    char buf[64];
    auto r = std::to_chars(buf, buf + sizeof buf, v);
    return std::string(buf, r.ptr);
  }
  static std::uint64_t hash(value_type v) {
    if (v == 0.0) v = 0.0;
    std::uint64_t bits;
    std::memcpy(&bits, &v, sizeof bits);
    return detail::mix(bits);
  }
  static bool equal(value_type a, value_type b) { return a == b; }
  static bool less(value_type a, value_type b) { return a < b; }
  static value_type mid(value_type lo, value_type hi) { return lo + (hi - lo) * 0.5; }
};

template <>
struct datatype<std::string> {
  using value_type = std::string;
  static char const* keyword() { return "string"; }
  static value_type parse(char const* s) { return value_type(s); }
  static std::string print(value_type const& v) { return v; }
  static std::uint64_t hash(std::string_view v) {
    std::uint64_t h = 1469598103934665603ULL;
    for (unsigned char c : v)
      h = (h ^ c) * 1099511628211ULL;
    return detail::mix(h);
  }
  static bool equal(std::string_view a, std::string_view b) { return a == b; }
  static bool less(std::string const& a, std::string const& b) { return a < b; }
};

}  // namespace data_types
}  // namespace zel

#endif
