// Binary item streams for table and tree files: numbers as raw native bytes, strings with a
// presence byte and a 64-bit length, optional objects and sequences behind a presence byte.
//
// Writers chain: out << a << b; readers mirror them: in >> a >> b. Classes add their own
//   obinstream& operator<<(obinstream&, const T&) and ibinstream& operator>>(ibinstream&, T&)
// (found by argument-dependent lookup) to become items, optional objects and sequence elements.
#ifndef ZEL_INPOUT_BINSTREAM_H
#define ZEL_INPOUT_BINSTREAM_H

#include <cstddef>
#include <cstdint>
#include <new>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <vector>

#include "zel/inpout/ioconn.h"

namespace zel {
namespace inpout {

namespace detail {
template <class T>
struct is_raw
    : std::integral_constant<bool, std::is_arithmetic<T>::value || std::is_enum<T>::value> {};
}  // namespace detail

class obinstream {
 public:
  // Compressed: gzip at level through iogz. Plain: a 65536-byte iobuf over an iofile.
  // Throws std::runtime_error "Error description not available" when the file can not be opened.
  obinstream(const std::string& name, bool compressed, int level);
  // Closing flushes the buffer and finishes the gzip stream.
  virtual ~obinstream();
  obinstream(const obinstream&) = delete;
  obinstream& operator=(const obinstream&) = delete;

  // Numbers, bool, char and enumerations: their in-memory bytes.
  template <class T, typename std::enable_if<detail::is_raw<T>::value, int>::type = 0>
  obinstream& operator<<(T v) {
    put(&v, sizeof v);
    return *this;
  }

  // C string: 0 for null, else 1, the length as 8 bytes and the characters.
  // Throws std::runtime_error for more than 2147483646 characters.
  obinstream& operator<<(const char* s);
  obinstream& operator<<(const std::string& s);

  // Sequence: count as 8 bytes, then the elements; numbers go out in one write.
  template <class T>
  obinstream& operator<<(const std::vector<T>& v) {
    static_assert(!std::is_same<T, bool>::value, "vector<bool> has no item encoding");
    *this << static_cast<std::uint64_t>(v.size());
    if constexpr (detail::is_raw<T>::value) {
      write_array(v.data(), v.size());
    } else {
      for (const T& e : v)
        *this << e;
    }
    return *this;
  }

  // Optional object: presence byte, then the object (a vector pointer is a sequence).
  template <class T>
  obinstream& operator<<(const T* p) {
    return write_special(p);
  }
  template <class T>
  obinstream& write_special(const T* p) {
    if (p == nullptr) return *this << static_cast<unsigned char>(0);
    *this << static_cast<unsigned char>(1);
    return *this << *p;
  }

  // n elements of fixed width back to back, one write when they fit a write call.
  template <class T>
  obinstream& write_array(const T* a, std::size_t n) {
    static_assert(detail::is_raw<T>::value, "write_array takes fixed-width numbers");
    put_block(a, n * sizeof(T));
    return *this;
  }

  // False once a write came back short or failed.
  bool good() const { return !failed_; }
  // Flushes and closes the file; false when any byte may not have reached it.
  bool finish();
  ioconn* get_ioconn() const { return conn_; }

 private:
  void put(const void* p, int n) {
    if (conn_->write(p, n) != n) failed_ = true;
  }
  void put_block(const void* p, std::size_t n);

  ioconn* conn_;
  bool owns_;
  bool failed_;
};

class ibinstream {
 public:
  // Compressed: through iogz. Plain: a 65536-byte iobuf over an iofile.
  // Throws std::runtime_error "Error description not available" when the file can not be opened.
  ibinstream(const std::string& name, bool compressed);
  virtual ~ibinstream();
  ibinstream(const ibinstream&) = delete;
  ibinstream& operator=(const ibinstream&) = delete;

  // A short read keeps the bytes that did arrive and sets the failure flag (see good()).
  template <class T,
            typename std::enable_if<std::is_arithmetic<T>::value && !std::is_same<T, bool>::value,
                                    int>::type = 0>
  ibinstream& operator>>(T& v) {
    get(&v, sizeof v);
    return *this;
  }
  // Any non-zero byte reads as true.
  ibinstream& operator>>(bool& b);
  template <class T, typename std::enable_if<std::is_enum<T>::value, int>::type = 0>
  ibinstream& operator>>(T& v) {
    T tmp;
    if (get(&tmp, sizeof tmp)) v = tmp;
    return *this;
  }

  // C string: null for a presence byte 0, else a new[] array the caller deletes.
  // Throws std::runtime_error "Failed to create object" when the array can not be had.
  ibinstream& operator>>(char*& s);
  // A null C string reads as "".
  ibinstream& operator>>(std::string& s);

  // Sequence: count, then the elements. A failed read stops early and leaves the
  // elements read so far (the last one possibly incomplete).
  template <class T>
  ibinstream& operator>>(std::vector<T>& v) {
    static_assert(!std::is_same<T, bool>::value, "vector<bool> has no item encoding");
    std::uint64_t n = 0;
    if (!get(&n, sizeof n)) return *this;
    if (n > bytes_left_bound() / (detail::is_raw<T>::value ? sizeof(T) : 1)) {
      failed_ = true;
      return *this;
    }
    read_vector(v, n, detail::is_raw<T>{});
    return *this;
  }

  // Optional object: presence byte 0 gives null; 1 makes a T with its default constructor
  // and reads it. Throws std::runtime_error when the object can not be made.
  template <class T>
  ibinstream& operator>>(T*& p) {
    return read_special(p);
  }
  template <class T>
  ibinstream& read_special(T*& p) {
    p = nullptr;
    if (read_presence() != 1) return *this;
    p = new (std::nothrow) T();
    if (p == nullptr) throw std::runtime_error("ibinstream::operator >>: failed to create object.");
    return *this >> *p;
  }

  // n elements of fixed width written by write_array.
  template <class T>
  ibinstream& read_array(T* a, std::size_t n) {
    static_assert(detail::is_raw<T>::value, "read_array takes fixed-width numbers");
    get_block(a, n * sizeof(T));
    return *this;
  }

  // At least the bytes still to read (deflate expands a stream at most 1032 times), so that a
  // count can be refused before anything is allocated for it.
  std::uint64_t bytes_left_bound() const;

  // False once a read returned fewer bytes than asked (truncated or foreign file) or a
  // presence byte was neither 0 nor 1. Later reads still run; check once after a record.
  bool good() const { return !failed_; }
  explicit operator bool() const { return !failed_; }
  ioconn* get_ioconn() const { return conn_; }

 private:
  bool get(void* p, int n) {
    if (conn_->read(p, n) == n) return true;
    failed_ = true;
    return false;
  }
  // Bytes delivered; fewer than n sets the failure flag.
  std::size_t get_some(void* p, std::size_t n);
  bool get_block(void* p, std::size_t n) { return get_some(p, n) == n; }
  // 1: present, 0: absent, -1: short read or a byte other than 0 and 1 (sets the flag).
  int read_presence();
  // A C string's length; false after a short read or for a length no writer produces.
  bool read_length(std::uint64_t& n);
  // n characters into s, allocating only as bytes arrive; false after a short read.
  bool read_body(std::string& s, std::uint64_t n);

  // Largest element count allocated ahead of the data, so that a foreign count can not
  // demand memory the file does not back.
  static constexpr std::uint64_t AHEAD = 1 << 20;

  template <class T>
  void read_vector(std::vector<T>& v, std::uint64_t n, std::true_type) {
    v.clear();
    std::uint64_t done = 0;
    while (done < n) {
      std::uint64_t k = n - done < AHEAD ? n - done : AHEAD;
      v.resize(static_cast<std::size_t>(done + k));
      if (!get_block(v.data() + done, static_cast<std::size_t>(k) * sizeof(T))) return;
      done += k;
    }
  }
  template <class T>
  void read_vector(std::vector<T>& v, std::uint64_t n, std::false_type) {
    v.clear();
    v.reserve(static_cast<std::size_t>(n < AHEAD ? n : AHEAD));
    for (std::uint64_t i = 0; i < n && !failed_; ++i) {
      v.emplace_back();
      *this >> v.back();
    }
  }

  ioconn* conn_;
  bool owns_;
  bool failed_;
  std::uint64_t limit_;
};

}  // namespace inpout
}  // namespace zel

#endif
