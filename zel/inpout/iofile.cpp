#include "zel/inpout/iofile.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <stdexcept>

namespace zel {
namespace inpout {

std::atomic<long> iofile::alloc{0};

iofile::iofile() : mode_(0), fd_(-1) {}

iofile::~iofile() {
  close();
}

bool iofile::finish() {
  bool ok = fd_ < 0 || ::close(fd_) == 0;
  fd_ = -1;
  close();
  return ok;
}

void iofile::close() {
  if (fd_ >= 0) ::close(fd_);
  fd_ = -1;
  mode_ = 0;
}

bool iofile::open(const std::string& name, int mode, int perm) {
  close();
  int flags;
  if (mode & WRITE)
    flags = (mode & READ) ? O_RDWR : O_WRONLY;
  else
    flags = O_RDONLY;
  if (mode & APPEND) flags |= O_APPEND;
  if (mode & CREATE) flags |= O_CREAT;
  if (mode & TRUNCATE) flags |= O_TRUNC;
  fd_ = ::open64(name.c_str(), flags | O_CLOEXEC, perm);
  if (fd_ < 0) return false;
  struct stat64 st;
  if (::fstat64(fd_, &st) == 0 && S_ISDIR(st.st_mode)) {
    // A directory opens for reading but reads fail: it is no file to read.
    ::close(fd_);
    fd_ = -1;
    errno = EISDIR;
    return false;
  }
  mode_ = mode;
  name_ = name;
  return true;
}

bool iofile::open_mmap(const std::string& name, int mode, int perm) {
  if (mode & WRITE) mode |= READ;
  return open(name, mode, perm);
}

bool iofile::open(int fd) {
  close();
  fd_ = fd;
  if (fd < 0) return false;
  struct stat64 st;
  if (::fstat64(fd, &st) != 0) {
    mode_ = 0;
  } else {
    mode_ = ((st.st_mode & S_IRUSR) ? READ : 0) | ((st.st_mode & S_IWUSR) ? WRITE : 0);
  }
  name_.clear();
  return true;
}

int iofile::read(void* buf, int n) {
  if (n < 1) return 0;
  return static_cast<int>(::read(fd_, buf, static_cast<size_t>(n)));
}

int iofile::write(const void* buf, int n) {
  if (n < 1) return 0;
  return static_cast<int>(::write(fd_, buf, static_cast<size_t>(n)));
}

bool iofile::is_random() const {
  struct stat64 st;
  return fd_ >= 0 && ::fstat64(fd_, &st) == 0 && S_ISREG(st.st_mode);
}

long long iofile::lseek(long long off, int whence) {
  int how;
  switch (whence) {
    case SEEK_BEGIN:
      how = SEEK_SET;
      break;
    case SEEK_CURRENT:
      how = SEEK_CUR;
      break;
    case SEEK_FROM_END:
      how = SEEK_END;
      break;
    default:
      return -1;
  }
  return ::lseek64(fd_, off, how);
}

long long iofile::size() {
  struct stat64 st;
  if (fd_ < 0 || ::fstat64(fd_, &st) != 0)
    throw std::runtime_error("iofile::size(): cannot access file size.");
  return st.st_size;
}

bool iofile::resize(long long n) {
  if (fd_ < 0 || n < 0) return false;
  if (!(mode_ & WRITE)) return false;
  long long old = size();
  if (n == old) return true;
  long long pos = lseek(0, SEEK_CURRENT);
  bool ok;
  if (n < old) {
    ok = ::ftruncate64(fd_, n) == 0;
  } else {
    // Writing the last byte extends the file; the gap reads as zeros.
    const char zero = 0;
    ok = ::pwrite64(fd_, &zero, 1, n - 1) == 1;
  }
  if (pos >= 0) lseek(pos < n ? pos : n, SEEK_BEGIN);
  return ok;
}

long long iofile::copy(ioconn& src) {
  if (is_random()) {
    try {
      long long left = src.size() - src.tell();
      long long here = lseek(0, SEEK_CURRENT);
      if (left > 0 && here >= 0) resize(here + left);
    } catch (const std::runtime_error&) {
      // A source without a known size is copied without pre-sizing.
    }
  }
  return ioconn::copy(src);
}

long iofile::allocation_granularity() {
  long g = alloc.load(std::memory_order_relaxed);
  if (g == 0) {
    g = ::sysconf(_SC_PAGESIZE);
    alloc.store(g, std::memory_order_relaxed);
  }
  return g;
}

void* iofile::mem_map(long long offset, long long len) {
  if (fd_ < 0 || len <= 0) return nullptr;
  int prot = ((mode_ & READ) ? PROT_READ : 0) | ((mode_ & WRITE) ? PROT_WRITE : 0);
  void* p = ::mmap64(nullptr, static_cast<size_t>(len), prot, MAP_SHARED, fd_, offset);
  return p == MAP_FAILED ? nullptr : p;
}

bool iofile::mem_unmap(void* addr, long long len) {
  if (addr == nullptr) return true;
  return ::munmap(addr, static_cast<size_t>(len)) == 0;
}

bool iofile::mem_sync(void* addr, long long len) {
  if (addr == nullptr) return true;
  return ::msync(addr, static_cast<size_t>(len), MS_SYNC) == 0;
}

bool iofile::is_directory(const std::string& name) {
  struct stat64 st;
  return ::stat64(name.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

bool iofile::is_pipe(const std::string& name) {
  struct stat64 st;
  return ::stat64(name.c_str(), &st) == 0 && S_ISFIFO(st.st_mode);
}

}  // namespace inpout
}  // namespace zel
