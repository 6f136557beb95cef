#include "zel/inpout/iogz.h"

#include "zel/inpout/iofile.h"

#include <zlib.h>

#include <stdexcept>
#include <string>

namespace zel {
namespace inpout {

namespace {

// Larger than zlib's default so that each input refill is one big read.
constexpr unsigned GZ_BUFFER = 128 * 1024;

inline gzFile gz(void* f) {
  return static_cast<gzFile>(f);
}

}  // namespace

iogz::iogz() : mode_(0), file_(nullptr) {}

iogz::~iogz() {
  close();
}

std::string iogz::zlib_mode(int mode, int level) {
  std::string m = "r";
  if (mode & APPEND)
    m = "a";
  else if (mode & WRITE)
    m = "w";
  m += 'b';
  if (level != -1) m += static_cast<char>('0' + level);
  return m;
}

bool iogz::open(const std::string& name, int mode, int level, int strategy) {
  close();
  // zlib would open a directory for reading and fail on the first read.
  if (iofile::is_directory(name)) return false;
  gzFile f = gzopen(name.c_str(), zlib_mode(mode, level).c_str());
  if (f == nullptr) return false;
  gzbuffer(f, GZ_BUFFER);
  gzsetparams(f, level, strategy);
  file_ = f;
  mode_ = mode;
  name_ = name;
  return true;
}

bool iogz::finish() {
  bool ok = file_ == nullptr || gzclose(gz(file_)) == Z_OK;
  file_ = nullptr;
  mode_ = 0;
  return ok;
}

void iogz::close() {
  if (file_ != nullptr) gzclose(gz(file_));
  file_ = nullptr;
  mode_ = 0;
}

bool iogz::eof() {
  return file_ != nullptr && gzeof(gz(file_)) != 0;
}

bool iogz::rewind() {
  return file_ != nullptr && gzrewind(gz(file_)) == 0;
}

int iogz::read(void* buf, int n) {
  if (file_ == nullptr) return -1;
  if (n < 1) return 0;
  int got = gzread(gz(file_), buf, static_cast<unsigned>(n));
  if (got < n) {
    // A short read is the end only when the stream ended cleanly: a stream cut short or damaged
    // must not read as a shorter file.
    int err = Z_OK;
    char const* what = gzerror(gz(file_), &err);
    if (err != Z_OK) {
      std::string reason = what;
      if (reason.compare(0, name_.size() + 2, name_ + ": ") == 0) reason.erase(0, name_.size() + 2);
      throw read_error("File " + name_ + ": truncated or corrupt compressed data (" + reason + ")");
    }
  }
  return got;
}

int iogz::write(const void* buf, int n) {
  if (file_ == nullptr) return -1;
  if (n < 1) return 0;
  int put = gzwrite(gz(file_), buf, static_cast<unsigned>(n));
  return put == 0 ? -1 : put;  // zlib reports errors as 0
}

long long iogz::lseek(long long off, int whence) {
  if (whence == SEEK_FROM_END) throw std::runtime_error("iogz::lseek LSEEK_END not supported");
  if (whence != SEEK_BEGIN && whence != SEEK_CURRENT)
    throw std::runtime_error("iogz::lseek position not supported");
  if (file_ == nullptr) return -1;
  return gzseek(gz(file_), static_cast<z_off_t>(off), whence == SEEK_BEGIN ? SEEK_SET : SEEK_CUR);
}

long long iogz::tell() {
  if (file_ == nullptr) return -1;
  return gztell(gz(file_));
}

std::unique_ptr<ioconn> open_for_reading(const std::string& name) {
  if (iofile::is_directory(name)) throw std::runtime_error("File " + name + ": is a directory");
  bool gz = name.size() > 2 && name.compare(name.size() - 3, 3, ".gz") == 0;
  std::unique_ptr<ioconn> in;
  if (gz) {
    auto z = std::make_unique<iogz>();
    if (z->open(name, ioconn::READ, -1, 0)) in = std::move(z);
  } else {
    auto f = std::make_unique<iofile>();
    if (f->open(name, ioconn::READ, 0)) in = std::move(f);
  }
  if (!in) throw std::runtime_error("File " + name + ": not found or inaccessible");
  return in;
}

}  // namespace inpout
}  // namespace zel
