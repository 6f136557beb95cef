// Buffered line reader over any connection, with a field tokenizer for the current line.
#ifndef ZEL_INPOUT_STREAM_H
#define ZEL_INPOUT_STREAM_H

#include <cstdint>
#include <string>

#include "zel/inpout/ioconn.h"
#include "zel/util/tokenizer.h"

namespace zel {
namespace inpout {

class stream {
 public:
  // source: "FILE#" + file name + "#" + separator. Throws std::runtime_error for other kinds.
  static stream* FROM_READER(const std::string& source);
  // Names ending in ".gz" are read through zlib and read as empty when they can not be
  // opened; other files must open or std::runtime_error is thrown.
  static stream* FROM_FILE(const std::string& name, char sep);

  static constexpr int DEFAULT_BUFFER = 16384;

  // With owns, the stream closes and deletes conn. Throws std::runtime_error when a buffer
  // can not be had; conn then stays with the caller.
  stream(ioconn* conn, bool owns, char delim, int bufsize);
  virtual ~stream();
  stream(const stream&) = delete;
  stream& operator=(const stream&) = delete;

  // Closes, then starts over on conn. Always true.
  virtual bool open(ioconn* conn, bool owns, char delim, int bufsize);
  // Used from the next read_line().
  virtual void set_delim(char delim) { delim_ = delim; }
  virtual void close();
  virtual bool eof() const;
  virtual bool rewind();
  // Next line, LF or CR LF terminated (a last line may lack the LF); false at end or on error.
  // The line and the tokenizer are reset to it and stay valid until the next call that moves.
  virtual bool read_line();
  virtual char* get_line() const { return line_; }
  // Whether the current line ended at a LF (a last line may not).
  bool line_had_lf() const { return had_lf_; }
  // The connection's position, ahead of the current line by what is buffered.
  virtual long long tell() const;
  // Bytes handed out as lines since open, rewind or seek: the offset of the next line.
  virtual unsigned long long tell2() const { return consumed_; }
  virtual long long size() const;
  // -1 from the connection changes nothing; otherwise the buffer is dropped.
  virtual long long lseek(long long off, int whence);
  virtual ioconn* get_ioconn() { return conn_; }

  int get_buffer_size() const { return bufsize_; }
  char get_delim() const { return delim_; }

  // Splits the current line at the delimiter.
  zel::util::tokenizer tokenizer;

 private:
  void reset_position();
  // Finishes a line of len bytes starting at cursor_ whose LF (or NUL room) is at end.
  void take_line(char* end, int len, bool has_lf);
  // The first line feed in [from, end), or null.
  char* find_lf(char* from, char* end);

  ioconn* conn_;
  char* buf_;
  int bufsize_;
  char* cursor_;
  char* line_;
  int unread_;
  unsigned long long consumed_;
  bool owns_;
  bool had_lf_ = false;
  char delim_;
  // Line feed bits of the 64 bytes at mask_base_ (null: none kept).
  char* mask_base_;
  std::uint64_t mask_;
};

}  // namespace inpout
}  // namespace zel

#endif
