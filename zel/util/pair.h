#ifndef ZEL_UTIL_PAIR_H
#define ZEL_UTIL_PAIR_H

#include <utility>

namespace zel {
namespace util {

template <class A, class B>
using pair = std::pair<A, B>;

}  // namespace util
}  // namespace zel

#endif
