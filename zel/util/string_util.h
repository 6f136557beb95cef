// Strict decimal integer parsing and XML escaping.
#ifndef ZEL_UTIL_STRING_UTIL_H
#define ZEL_UTIL_STRING_UTIL_H

#include <string>

namespace zel {
namespace util {

class string_util {
 public:
  // Parses a decimal integer into out; instantiated for unsigned long and int. Leading spaces
  // and one sign are accepted, anything after the digits is not. A lone sign reads as 0.
  // Throws std::runtime_error and leaves out unchanged on failure. The int range is
  // symmetric, so -2147483648 overflows.
  template <class T>
  static void str2int(const char* s, T& out);

  // Escapes <, > and &; quotes are left as they are.
  static std::string toXML(const std::string& s);
};

}  // namespace util
}  // namespace zel

#endif
