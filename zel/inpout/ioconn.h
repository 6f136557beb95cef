// Abstract byte source or sink: the common interface of files, gzip files,
// buffers, memory areas and memory-mapped files.
#ifndef ZEL_INPOUT_IOCONN_H
#define ZEL_INPOUT_IOCONN_H

#include <stdexcept>
#include <string>

namespace zel {
namespace inpout {

// Input that cannot be read to its end (a damaged or cut-short stream): unlike a malformed
// line, the data itself are lost, so callers pass it on as it is.
class read_error : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

class ioconn {
 public:
  // Open mode bits, combined with |. Bits 1 and 16 are carried but change nothing.
  static constexpr int READ = 2;
  static constexpr int WRITE = 4;
  static constexpr int APPEND = 8;
  static constexpr int CREATE = 32;
  static constexpr int TRUNCATE = 64;

  // Seek origins.
  static constexpr int SEEK_BEGIN = 0;
  static constexpr int SEEK_CURRENT = 1;
  static constexpr int SEEK_FROM_END = 2;

  ioconn() = default;
  virtual ~ioconn();
  ioconn(const ioconn&) = delete;
  ioconn& operator=(const ioconn&) = delete;

  virtual void close() = 0;
  // Closes and says whether every byte written reached its destination (buffered and compressed
  // writers fail only here on a full disk).
  virtual bool finish() {
    close();
    return true;
  }
  // Base rule: tell() == size().
  virtual bool eof();
  virtual bool is_open() const = 0;
  virtual int get_mode() const = 0;
  // True when lseek(0, 0) returns 0.
  virtual bool rewind();
  // Byte counts: 0 at end, -1 on error.
  virtual int write(const void* buf, int n) = 0;
  // Writes s and a line feed; -1 when either write fails.
  virtual int writeln(const char* s);
  // Copies src to its end in 65536-byte chunks; returns the bytes written, -1 on a write error.
  virtual long long copy(ioconn& src);
  // Copies at most n bytes; returns the bytes copied, -1 on a write error.
  virtual long long copy(ioconn& src, long long n);
  virtual int read(void* buf, int n) = 0;
  virtual bool is_random() const;
  // Throws std::runtime_error "lseek not available" unless overridden.
  virtual long long lseek(long long off, int whence);
  virtual long long tell();
  // Learned by seeking to the end and back.
  virtual long long size();

  const std::string& get_name() const { return name_; }

 protected:
  static constexpr int COPY_CHUNK = 65536;

  std::string name_;
};

}  // namespace inpout
}  // namespace zel

#endif
