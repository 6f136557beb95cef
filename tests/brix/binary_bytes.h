// Byte strings of the binary files, written by hand item by item, and the
// gzip layer around them.
#ifndef TESTS_BRIX_BINARY_BYTES_H
#define TESTS_BRIX_BINARY_BYTES_H

#include <zlib.h>

#include <cstdint>
#include <cstring>
#include <stdexcept>
#include <string>

struct bytes {
  std::string s;
  template <class T>
  bytes& raw(T v) {
    s.append(reinterpret_cast<char const*>(&v), sizeof v);
    return *this;
  }
  bytes& u8(unsigned v) { return raw(static_cast<std::uint8_t>(v)); }
  bytes& u32(std::uint32_t v) { return raw(v); }
  bytes& u64(std::uint64_t v) { return raw(v); }
  bytes& f32(float v) { return raw(v); }
  bytes& f64(double v) { return raw(v); }
  // A present text: flag 1, length, characters.
  bytes& text(std::string const& t) {
    u8(1).u64(t.size());
    s += t;
    return *this;
  }
  bytes& add(bytes const& b) {
    s += b.s;
    return *this;
  }
};

inline std::string gunzip_file(std::string const& path) {
  gzFile f = gzopen(path.c_str(), "rb");
  if (f == nullptr) throw std::runtime_error("cannot open " + path);
  std::string out;
  char buf[4096];
  int n;
  while ((n = gzread(f, buf, sizeof buf)) > 0)
    out.append(buf, static_cast<std::size_t>(n));
  gzclose(f);
  return out;
}

inline void gzip_file(std::string const& path, std::string const& content) {
  gzFile f = gzopen(path.c_str(), "wb1");
  if (f == nullptr) throw std::runtime_error("cannot open " + path);
  if (!content.empty()) gzwrite(f, content.data(), static_cast<unsigned>(content.size()));
  gzclose(f);
}

#endif
