// Checked reading of the binary table and tree files: every failure is a
// runtime error that names the kind of file.
#ifndef BRIX_IMPLS_BINARY_CHECKS_H
#define BRIX_IMPLS_BINARY_CHECKS_H

#include <cstdint>
#include <stdexcept>
#include <string>

#include "zel/inpout/binstream.h"

namespace brix {
namespace impls {

template <char const* Kind>
struct binary_checks {
  [[noreturn]] static void damaged(std::string const& what) {
    throw std::runtime_error(std::string(Kind) + ": " + what);
  }

  static void check(zel::inpout::ibinstream& in) {
    if (!in.good()) damaged("truncated or damaged data");
  }

  // A presence flag: true for 1, false for 0; anything else ends the read.
  static bool read_flag(zel::inpout::ibinstream& in) {
    unsigned char f = 2;
    in >> f;
    check(in);
    if (f > 1) damaged("bad presence flag");
    return f == 1;
  }

  // A count of items that take at least item_bytes each in the file; one the rest of the
  // file cannot hold is refused before anything is allocated for it.
  static std::uint64_t read_count(zel::inpout::ibinstream& in, std::uint64_t item_bytes = 1) {
    std::uint64_t n = 0;
    in >> n;
    check(in);
    if (n > in.bytes_left_bound() / item_bytes) damaged("truncated or damaged data");
    return n;
  }
};

}  // namespace impls
}  // namespace brix

#endif
