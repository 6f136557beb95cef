// gzip file connection through zlib; sequential, forward seeks only.
#ifndef ZEL_INPOUT_IOGZ_H
#define ZEL_INPOUT_IOGZ_H

#include <memory>
#include <string>

#include "zel/inpout/ioconn.h"

namespace zel {
namespace inpout {

class iogz : public ioconn {
 public:
  iogz();
  ~iogz() override;

  void close() override;
  bool finish() override;
  bool eof() override;
  bool is_open() const override { return file_ != nullptr; }
  int get_mode() const override { return mode_; }
  bool rewind() override;
  int write(const void* buf, int n) override;
  int read(void* buf, int n) override;
  // Origins 0 and 1 only: origin 2 and others throw std::runtime_error.
  long long lseek(long long off, int whence) override;
  long long tell() override;

  // Level -1 leaves the level to zlib; strategy as zlib's. False when the file can not be opened.
  virtual bool open(const std::string& name, int mode, int level, int strategy);

  // The zlib open mode for these arguments: "r", "w" or "a", then "b", then the level digit.
  static std::string zlib_mode(int mode, int level);

 private:
  int mode_;
  void* file_;  // gzFile, kept opaque so that users need no zlib header
};

// A file opened for reading, inflated when its name ends in .gz. Throws std::runtime_error
// naming the file when it is a directory or cannot be opened.
std::unique_ptr<ioconn> open_for_reading(const std::string& name);

}  // namespace inpout
}  // namespace zel

#endif
