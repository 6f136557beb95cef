#include "zel/inpout/iobuf.h"

#include <climits>
#include <cstring>
#include <new>
#include <stdexcept>

namespace zel {
namespace inpout {

iobuf::iobuf() : conn_(nullptr), owns_(false), buf_(nullptr), size_(0), fill_(0), pos_(0) {}

iobuf::~iobuf() {
  close();
}

bool iobuf::open(ioconn* conn, bool owns, unsigned long bufsize) {
  if (conn == nullptr) return false;
  close();
  int mode = conn->get_mode();
  if ((mode & READ) && (mode & WRITE))
    throw std::runtime_error("iobuf::open: IOBuffers are either READ or WRITE, not both.");
  if (bufsize < 1024) bufsize = 1024;
  if (bufsize > INT_MAX) bufsize = INT_MAX;
  char* b = nullptr;
  for (;;) {
    b = new (std::nothrow) char[bufsize];
    if (b != nullptr || bufsize / 2 < 1024) break;
    bufsize /= 2;
  }
  if (b == nullptr) throw std::runtime_error("iobuf::open : Out of memory");
  conn_ = conn;
  owns_ = owns;
  buf_ = b;
  size_ = static_cast<int>(bufsize);
  fill_ = 0;
  pos_ = 0;
  return true;
}

bool iobuf::writing() const {
  return conn_ != nullptr && (conn_->get_mode() & WRITE);
}

bool iobuf::flush() {
  int done = 0;
  while (done < fill_) {
    int put = conn_->write(buf_ + done, fill_ - done);
    if (put < 1) return false;
    done += put;
  }
  return true;
}

bool iobuf::finish() {
  bool ok = true;
  if (conn_ != nullptr) {
    if (writing() && fill_ > 0) ok = flush();
    ioconn* conn = conn_;
    bool owned = owns_;
    conn_ = nullptr;
    ok = conn->finish() && ok;
    if (owned) delete conn;
  }
  close();
  return ok;
}

void iobuf::close() {
  if (conn_ != nullptr) {
    if (writing() && fill_ > 0) flush();
    conn_->close();
    if (owns_) delete conn_;
  }
  delete[] buf_;
  conn_ = nullptr;
  owns_ = false;
  buf_ = nullptr;
  size_ = fill_ = pos_ = 0;
}

bool iobuf::eof() {
  if (pos_ != fill_) return false;
  return conn_ == nullptr || conn_->eof();
}

bool iobuf::is_open() const {
  return conn_ != nullptr && conn_->is_open();
}

int iobuf::get_mode() const {
  return conn_ != nullptr ? conn_->get_mode() : 0;
}

bool iobuf::is_random() const {
  return conn_ != nullptr && conn_->is_random();
}

long long iobuf::size() {
  return conn_ != nullptr ? conn_->size() : -1;
}

bool iobuf::rewind() {
  if (conn_ == nullptr) return false;
  if (writing() && fill_ > 0) flush();
  fill_ = pos_ = 0;
  return conn_->rewind();
}

long long iobuf::lseek(long long off, int whence) {
  if (conn_ == nullptr) return -1;
  if (writing() && fill_ > 0) flush();
  fill_ = pos_ = 0;
  return conn_->lseek(off, whence);
}

long long iobuf::tell() {
  if (conn_ == nullptr) return -1;
  long long at = conn_->tell();
  if (at < 0) return at;
  return (conn_->get_mode() & READ) ? at - (fill_ - pos_) : at + fill_;
}

int iobuf::read(void* buf, int n) {
  if (n < 1) return 0;
  if (conn_ == nullptr) return -1;
  char* out = static_cast<char*>(buf);
  int have = fill_ - pos_;
  if (have >= n) {
    std::memcpy(out, buf_ + pos_, static_cast<size_t>(n));
    pos_ += n;
    return n;
  }
  if (have > 0) std::memcpy(out, buf_ + pos_, static_cast<size_t>(have));
  fill_ = pos_ = 0;
  int rest = n - have;
  if (rest > size_) {
    // Too big for the buffer: straight into the caller's memory.
    int got = conn_->read(out + have, rest);
    if (got < 0) return have > 0 ? have : -1;
    return have + got;
  }
  int got = conn_->read(buf_, size_);
  if (got < 0) return have > 0 ? have : -1;
  fill_ = got;
  int give = rest < fill_ ? rest : fill_;
  std::memcpy(out + have, buf_, static_cast<size_t>(give));
  pos_ = give;
  return have + give;
}

int iobuf::write(const void* buf, int n) {
  if (n < 1) return 0;
  if (conn_ == nullptr) return -1;
  if (n > size_ - fill_) {
    if (!flush()) return -1;
    fill_ = 0;
    if (n > size_) return conn_->write(buf, n);
  }
  std::memcpy(buf_ + fill_, buf, static_cast<size_t>(n));
  fill_ += n;
  return n;
}

}  // namespace inpout
}  // namespace zel
