#include "zel/inpout/stream.h"

#include <climits>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <stdexcept>

#include "zel/inpout/iofile.h"
#include "zel/inpout/iogz.h"

#ifdef __SSE2__
#include <emmintrin.h>
#endif

namespace zel {
namespace inpout {

namespace {

// The buffer has this many bytes of zeroed slack after its end, so that the line feed scan
// may always load a whole 64-byte block.
constexpr int SLACK = 64;

char* allocate(int size) {
  return static_cast<char*>(std::calloc(static_cast<size_t>(size) + SLACK, 1));
}

#ifdef __SSE2__
// Bit i set when p[i] is a line feed, for i in [0, 64).
inline std::uint64_t lf_mask(const char* p) {
  const __m128i lf = _mm_set1_epi8('\n');
  std::uint64_t m = 0;
  for (int i = 0; i < 4; ++i) {
    __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i*>(p + 16 * i));
    m |= static_cast<std::uint64_t>(static_cast<unsigned>(_mm_movemask_epi8(_mm_cmpeq_epi8(v, lf))))
         << (16 * i);
  }
  return m;
}
#endif

}  // namespace

stream* stream::FROM_READER(const std::string& source) {
  zel::util::tokenizer fields(source.c_str(), '#');
  std::string kind = fields.next();
  if (kind == "FILE") {
    std::string name = fields.next();
    char sep = fields.next()[0];
    return FROM_FILE(name, sep);
  }
  if (kind == "JDBC") throw std::runtime_error("JDBC zel server not available");
  throw std::runtime_error("Unknown data source: " + source);
}

stream* stream::FROM_FILE(const std::string& name, char sep) {
  if (name.size() > 2 && name.compare(name.size() - 3, 3, ".gz") == 0) {
    if (iofile::is_directory(name))
      throw std::runtime_error("File: " + name + " not found or inaccessible");
    std::unique_ptr<iogz> gz(new iogz());
    // Parsing lines costs more than inflating: the two overlap.
    gz->set_ahead(true);
    // A ".gz" that can not be opened reads as an empty file, so the result is not checked.
    gz->open(name, 3, 1, 0);
    stream* s = new stream(gz.get(), true, sep, DEFAULT_BUFFER);
    gz.release();
    return s;
  }
  std::unique_ptr<iofile> file(new iofile());
  if (!file->open(name, 19, 0644))
    throw std::runtime_error("File: " + name + " not found or inaccessible");
  stream* s = new stream(file.get(), true, ',', DEFAULT_BUFFER);
  file.release();
  s->set_delim(sep);
  return s;
}

stream::stream(ioconn* conn, bool owns, char delim, int bufsize)
    : tokenizer(),
      conn_(conn),
      buf_(nullptr),
      bufsize_(bufsize < 1 ? 1 : bufsize),
      cursor_(nullptr),
      line_(nullptr),
      unread_(0),
      consumed_(0),
      owns_(owns),
      delim_(delim),
      mask_base_(nullptr),
      mask_(0) {
  buf_ = allocate(bufsize_);
  if (buf_ == nullptr) throw std::runtime_error("stream: out of memory");
  cursor_ = buf_;
}

stream::~stream() {
  close();
  std::free(buf_);
}

void stream::reset_position() {
  line_ = nullptr;
  consumed_ = 0;
  unread_ = 0;
  cursor_ = buf_;
  mask_base_ = nullptr;
  tokenizer.reset(nullptr, delim_);
}

bool stream::open(ioconn* conn, bool owns, char delim, int bufsize) {
  close();
  conn_ = conn;
  owns_ = owns;
  delim_ = delim;
  if (bufsize < 1) bufsize = 1;
  if (bufsize != bufsize_) {
    std::free(buf_);
    buf_ = allocate(bufsize);
    bufsize_ = buf_ != nullptr ? bufsize : 0;
    if (buf_ == nullptr) throw std::runtime_error("stream: out of memory");
  }
  reset_position();
  return true;
}

void stream::close() {
  if (conn_ != nullptr && owns_) {
    conn_->close();
    delete conn_;
    conn_ = nullptr;
  }
  reset_position();
}

bool stream::eof() const {
  return unread_ == 0 && (conn_ == nullptr || conn_->eof());
}

bool stream::rewind() {
  if (conn_ == nullptr || !conn_->rewind()) return false;
  reset_position();
  return true;
}

long long stream::lseek(long long off, int whence) {
  if (conn_ == nullptr) return -1;
  long long r = conn_->lseek(off, whence);
  if (r == -1) return r;
  reset_position();
  return r;
}

long long stream::tell() const {
  return conn_ != nullptr ? conn_->tell() : -1;
}

long long stream::size() const {
  return conn_ != nullptr ? conn_->size() : -1;
}

void stream::take_line(char* end, int len, bool has_lf) {
  had_lf_ = has_lf;
  if (has_lf) {
    // CR LF loses both; a lone LF is replaced in place.
    if (len > 1 && end[-1] == '\r')
      end[-1] = 0;
    else
      *end = 0;
  } else {
    *end = 0;  // a last line without LF keeps a final CR
  }
  line_ = cursor_;
  cursor_ += len;
  unread_ -= len;
  consumed_ += static_cast<unsigned long long>(len);
  tokenizer.reset(line_, delim_);
}

char* stream::find_lf(char* from, char* end) {
#ifdef __SSE2__
  // Lines are short: one 64-byte block usually holds the ends of one or two lines, so its
  // line feed mask is kept and reused by the next call instead of scanning again.
  if (mask_base_ == nullptr || from < mask_base_ || from >= mask_base_ + 64) {
    mask_base_ = from;
    mask_ = lf_mask(from);
  }
  std::uint64_t hits = mask_ & (~0ULL << (from - mask_base_));
  while (hits == 0) {
    mask_base_ += 64;
    if (mask_base_ >= end) return nullptr;
    mask_ = lf_mask(mask_base_);
    hits = mask_;
  }
  char* lf = mask_base_ + __builtin_ctzll(hits);
  return lf < end ? lf : nullptr;
#else
  return static_cast<char*>(std::memchr(from, '\n', static_cast<size_t>(end - from)));
#endif
}

bool stream::read_line() {
  if (unread_ > 0) {
    char* lf = find_lf(cursor_, cursor_ + unread_);
    if (lf != nullptr) {
      take_line(lf, static_cast<int>(lf - cursor_) + 1, true);
      return true;
    }
    if (cursor_ != buf_) std::memmove(buf_, cursor_, static_cast<size_t>(unread_));
  }
  cursor_ = buf_;
  for (;;) {
    if (unread_ == bufsize_) {
      // Full and no LF: double. The buffer never shrinks while the stream lives.
      long long grown = 2LL * bufsize_;
      if (grown > INT_MAX) throw std::runtime_error("ioconn::read_line(): out of memory");
      char* p = static_cast<char*>(std::realloc(buf_, static_cast<size_t>(grown) + SLACK));
      if (p == nullptr) throw std::runtime_error("ioconn::read_line(): out of memory");
      std::memset(p + bufsize_ + SLACK, 0, static_cast<size_t>(grown - bufsize_));
      buf_ = cursor_ = p;
      bufsize_ = static_cast<int>(grown);
    }
    int got = (conn_ != nullptr && buf_ != nullptr)
                  ? conn_->read(buf_ + unread_, bufsize_ - unread_)
                  : -1;
    // The bytes under any kept mask have changed.
    mask_base_ = nullptr;
    if (got < 0 || (got == 0 && unread_ == 0)) {
      line_ = nullptr;
      tokenizer.reset(nullptr, delim_);
      return false;
    }
    char* fresh = buf_ + unread_;
    unread_ += got;
    char* lf = find_lf(fresh, buf_ + unread_);
    if (lf != nullptr) {
      take_line(lf, static_cast<int>(lf - cursor_) + 1, true);
      return true;
    }
    if (got == 0) {
      // End of input: the remainder is the last line.
      take_line(buf_ + unread_, unread_, false);
      return true;
    }
    // A short read from a pipe is not the end: read on until the source says so.
  }
}

}  // namespace inpout
}  // namespace zel
