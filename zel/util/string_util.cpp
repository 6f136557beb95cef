#include "zel/util/string_util.h"

#include <limits>
#include <stdexcept>

namespace zel {
namespace util {

template <class T>
void string_util::str2int(const char* s, T& out) {
  constexpr T maxabs = std::numeric_limits<T>::max();
  constexpr T max10 = maxabs / 10;

  if (s == nullptr) throw std::runtime_error("str2int:: cannot convert a NULL string.");
  const char* p = s;
  while (*p == ' ')
    ++p;
  if (*p == '\0') throw std::runtime_error(std::string(s) + ": not an int");

  bool negative = false;
  if (*p == '+') {
    ++p;
  } else if (*p == '-') {
    if (!std::numeric_limits<T>::is_signed)
      throw std::runtime_error("str2int:: a negative number provided.");
    negative = true;
    ++p;
  }

  T value = 0;
  for (; *p >= '0' && *p <= '9'; ++p) {
    if (value > max10) throw std::runtime_error("str2int:: overflow");
    T digit = static_cast<T>(*p - '0');
    value = value * 10;
    if (digit > maxabs - value) throw std::runtime_error("str2int:: overflow");
    value += digit;
  }
  if (*p != '\0') throw std::runtime_error(std::string(s) + ": _not an int");
  out = negative ? static_cast<T>(0 - value) : value;
}

template void string_util::str2int<unsigned long>(const char*, unsigned long&);
template void string_util::str2int<int>(const char*, int&);

std::string string_util::toXML(const std::string& s) {
  std::string r;
  r.reserve(s.size());
  for (char c : s) {
    switch (c) {
      case '<':
        r += "&lt;";
        break;
      case '>':
        r += "&gt;";
        break;
      case '&':
        r += "&amp;";
        break;
      default:
        r += c;
    }
  }
  return r;
}

}  // namespace util
}  // namespace zel
