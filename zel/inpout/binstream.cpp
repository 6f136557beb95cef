#include "zel/inpout/binstream.h"

#include <sys/stat.h>

#include <cstring>
#include <memory>

#include "zel/inpout/iobuf.h"
#include "zel/inpout/iofile.h"
#include "zel/inpout/iogz.h"

namespace zel {
namespace inpout {

namespace {

constexpr int BUFFER = 65536;
constexpr int MODE_WRITE = ioconn::WRITE | ioconn::CREATE | ioconn::TRUNCATE;  // 100
// The length field is 64-bit but a write call takes a signed 32-bit count.
constexpr std::uint64_t MAX_TEXT = 0x7FFFFFFE;
// Large blocks go in pieces that fit a signed 32-bit count.
constexpr std::size_t PIECE = 1u << 30;

ioconn* open_connection(const std::string& name, bool compressed, int mode, int level) {
  if (compressed) {
    std::unique_ptr<iogz> gz(new iogz());
    if (!gz->open(name, mode, level, 0))
      throw std::runtime_error("Error description not available");
    return gz.release();
  }
  std::unique_ptr<iofile> file(new iofile());
  if (!file->open(name, mode, 0644)) throw std::runtime_error("Error description not available");
  std::unique_ptr<iobuf> buf(new iobuf());
  buf->open(file.get(), true, BUFFER);
  file.release();
  return buf.release();
}

}  // namespace

obinstream::obinstream(const std::string& name, bool compressed, int level)
    : conn_(open_connection(name, compressed, MODE_WRITE, level)), owns_(true), failed_(false) {}

obinstream::~obinstream() {
  if (owns_ && conn_ != nullptr) {
    conn_->close();
    delete conn_;
  }
}

bool obinstream::finish() {
  if (owns_ && conn_ != nullptr) {
    if (!conn_->finish()) failed_ = true;
    delete conn_;
    conn_ = nullptr;
  }
  return !failed_;
}

void obinstream::put_block(const void* p, std::size_t n) {
  const char* at = static_cast<const char*>(p);
  while (n > 0) {
    int k = static_cast<int>(n < PIECE ? n : PIECE);
    int put = conn_->write(at, k);
    if (put < 1) {
      failed_ = true;
      return;
    }
    at += put;
    n -= static_cast<std::size_t>(put);
  }
}

obinstream& obinstream::operator<<(const char* s) {
  if (s == nullptr) return *this << static_cast<unsigned char>(0);
  std::uint64_t n = std::strlen(s);
  if (n > MAX_TEXT) throw std::runtime_error("obinstream::writing too long string");
  *this << static_cast<unsigned char>(1) << n;
  put(s, static_cast<int>(n));
  return *this;
}

obinstream& obinstream::operator<<(const std::string& s) {
  std::uint64_t n = s.size();
  if (n > MAX_TEXT) throw std::runtime_error("obinstream::writing too long string");
  *this << static_cast<unsigned char>(1) << n;
  put(s.data(), static_cast<int>(n));
  return *this;
}

ibinstream::ibinstream(const std::string& name, bool compressed)
    : conn_(open_connection(name, compressed, ioconn::READ, 1)),
      owns_(true),
      failed_(false),
      limit_(UINT64_MAX) {
  struct stat st;
  if (::stat(name.c_str(), &st) == 0 && S_ISREG(st.st_mode)) {
    auto size = static_cast<std::uint64_t>(st.st_size);
    limit_ = compressed ? size * 1032 + 1024 : size;
  }
}

std::uint64_t ibinstream::bytes_left_bound() const {
  long long at = conn_->tell();
  auto pos = static_cast<std::uint64_t>(at < 0 ? 0 : at);
  return pos >= limit_ ? 0 : limit_ - pos;
}

ibinstream::~ibinstream() {
  if (owns_ && conn_ != nullptr) {
    conn_->close();
    delete conn_;
  }
}

std::size_t ibinstream::get_some(void* p, std::size_t n) {
  char* at = static_cast<char*>(p);
  std::size_t done = 0;
  while (done < n) {
    std::size_t left = n - done;
    int got = conn_->read(at + done, static_cast<int>(left < PIECE ? left : PIECE));
    if (got < 1) break;
    done += static_cast<std::size_t>(got);
  }
  if (done < n) failed_ = true;
  return done;
}

int ibinstream::read_presence() {
  unsigned char c;
  if (!get(&c, 1)) return -1;
  if (c > 1) {
    failed_ = true;
    return -1;
  }
  return c;
}

ibinstream& ibinstream::operator>>(bool& b) {
  unsigned char c;
  if (get(&c, 1)) b = c != 0;
  return *this;
}

bool ibinstream::read_length(std::uint64_t& n) {
  if (!get(&n, sizeof n)) return false;
  if (n <= MAX_TEXT) return true;
  failed_ = true;
  return false;
}

bool ibinstream::read_body(std::string& s, std::uint64_t n) {
  try {
    s.clear();
    std::uint64_t done = 0;
    while (done < n) {
      std::uint64_t k = n - done < AHEAD ? n - done : AHEAD;
      s.resize(static_cast<std::size_t>(done + k));
      std::size_t got = get_some(&s[static_cast<std::size_t>(done)], static_cast<std::size_t>(k));
      if (got < k) {
        s.resize(static_cast<std::size_t>(done + got));
        return false;
      }
      done += k;
    }
  } catch (const std::bad_alloc&) {
    throw std::runtime_error("Failed to create object");
  }
  return true;
}

ibinstream& ibinstream::operator>>(std::string& s) {
  int present = read_presence();
  if (present == 0) s.clear();
  std::uint64_t n;
  if (present == 1 && read_length(n)) read_body(s, n);
  return *this;
}

ibinstream& ibinstream::operator>>(char*& s) {
  s = nullptr;
  std::uint64_t n;
  if (read_presence() != 1 || !read_length(n)) return *this;
  if (n <= AHEAD) {
    // The common case: one allocation, one read straight into it.
    char* p = new (std::nothrow) char[static_cast<std::size_t>(n) + 1];
    if (p == nullptr) throw std::runtime_error("Failed to create object");
    std::size_t got = get_some(p, static_cast<std::size_t>(n));
    std::memset(p + got, 0, static_cast<std::size_t>(n) - got + 1);
    s = p;
    return *this;
  }
  // Long texts arrive in pieces so that a foreign length allocates no more than the file holds.
  std::string text;
  read_body(text, n);
  char* p = new (std::nothrow) char[text.size() + 1];
  if (p == nullptr) throw std::runtime_error("Failed to create object");
  std::memcpy(p, text.data(), text.size() + 1);
  s = p;
  return *this;
}

}  // namespace inpout
}  // namespace zel
