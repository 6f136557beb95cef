// Buffer in front of another connection, for reading or for writing (never both).
#ifndef ZEL_INPOUT_IOBUF_H
#define ZEL_INPOUT_IOBUF_H

#include "zel/inpout/ioconn.h"

namespace zel {
namespace inpout {

class iobuf : public ioconn {
 public:
  iobuf();
  ~iobuf() override;

  // Flushes, closes the connection and deletes it when owned.
  void close() override;
  bool finish() override;
  bool eof() override;
  bool is_open() const override;
  int get_mode() const override;
  bool rewind() override;
  int write(const void* buf, int n) override;
  int read(void* buf, int n) override;
  bool is_random() const override;
  // Empties the buffer first: a relative seek in read mode is relative to the connection.
  long long lseek(long long off, int whence) override;
  long long tell() override;
  long long size() override;

  // False for a null conn. The size is raised to at least 1024 bytes; when it can not be
  // allocated, halved sizes are tried down to 1024. Throws std::runtime_error for a
  // connection opened for both reading and writing, or when no buffer can be had.
  virtual bool open(ioconn* conn, bool owns, unsigned long bufsize);

  int get_buffer_size() const { return size_; }
  ioconn* get_ioconn() const { return conn_; }

 private:
  bool writing() const;
  // Writes out the buffered bytes; false on a write error.
  bool flush();

  ioconn* conn_;
  bool owns_;
  char* buf_;
  int size_;
  int fill_;
  int pos_;
};

}  // namespace inpout
}  // namespace zel

#endif
