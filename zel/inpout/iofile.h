// Plain file connection over a POSIX descriptor.
#ifndef ZEL_INPOUT_IOFILE_H
#define ZEL_INPOUT_IOFILE_H

#include <atomic>
#include <string>

#include "zel/inpout/ioconn.h"

namespace zel {
namespace inpout {

class iofile : public ioconn {
 public:
  iofile();
  ~iofile() override;

  void close() override;
  bool finish() override;
  bool is_open() const override { return fd_ >= 0; }
  int get_mode() const override { return mode_; }
  int write(const void* buf, int n) override;
  using ioconn::copy;
  // Pre-sizes a random-access target when the bytes left in src are known.
  long long copy(ioconn& src) override;
  int read(void* buf, int n) override;
  // A regular file.
  bool is_random() const override;
  // Origins other than 0, 1, 2 give -1.
  long long lseek(long long off, int whence) override;
  // From the file status; throws std::runtime_error when it can not be read.
  long long size() override;

  // Closes first; maps the mode bits to open flags. Returns whether a descriptor was obtained.
  virtual bool open(const std::string& name, int mode, int perm);
  // As open(), with read access added to a writable mode so that shared mappings can be written.
  virtual bool open_mmap(const std::string& name, int mode, int perm);
  // Adopts fd; the mode comes from the owner permissions (0 when fd can not be examined).
  virtual bool open(int fd);
  // Truncates or extends to n bytes; the position ends at min(old position, n).
  virtual bool resize(long long n);
  // Shared mapping with protection from the mode; null on failure.
  virtual void* mem_map(long long offset, long long len);
  virtual bool mem_unmap(void* addr, long long len);
  virtual bool mem_sync(void* addr, long long len);

  int get_fd() const { return fd_; }

  // Page size, asked of the system once per process.
  static long allocation_granularity();
  static bool is_pipe(const std::string& name);
  static bool is_directory(const std::string& name);

 private:
  int mode_;
  int fd_;
  static std::atomic<long> alloc;
};

}  // namespace inpout
}  // namespace zel

#endif
