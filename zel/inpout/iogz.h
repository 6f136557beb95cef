// gzip file connection. Reading inflates a regular file at once into memory when it fits (see
// open) and otherwise streams through zlib; writing goes through zlib. Seeks: origins 0 and 1.
#ifndef ZEL_INPOUT_IOGZ_H
#define ZEL_INPOUT_IOGZ_H

#include <cstddef>
#include <functional>
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
  bool is_open() const override { return file_ != nullptr || whole_open_; }
  int get_mode() const override { return mode_; }
  bool rewind() override;
  int write(const void* buf, int n) override;
  int read(void* buf, int n) override;
  // Origins 0 and 1 only: origin 2 and others throw std::runtime_error.
  long long lseek(long long off, int whence) override;
  long long tell() override;

  // Level -1 leaves the level to zlib; strategy as zlib's. False when the file can not be opened.
  // For reading, a regular file whose inflated bytes fit whole_limit() is inflated at once.
  virtual bool open(const std::string& name, int mode, int level, int strategy);

  // The most inflated bytes read through memory: an eighth of the physical memory, as the
  // inflated copy lives beside whatever the reader builds from it. Larger files stream.
  static std::size_t whole_limit();

  // The zlib open mode for these arguments: "r", "w" or "a", then "b", then the level digit.
  static std::string zlib_mode(int mode, int level);

 private:
  // Reading through zlib from position at.
  bool stream_from(long long at);
  void drop_whole();

  int mode_;
  void* file_;  // gzFile, kept opaque so that users need no zlib header
  // The file inflated at once: mapped memory, its size and capacity, the read position and
  // the start of the bytes not yet given back to the system (read bytes are, as they go).
  bool whole_open_;
  char* whole_;
  std::size_t whole_size_;
  std::size_t whole_cap_;
  long long pos_;
  std::size_t kept_from_;
  bool past_end_;  // a read asked beyond the end, as zlib's end-of-file flag
};

// Inflates the gzip file name whole: grow(n) must give a buffer of at least n bytes keeping the
// bytes already in it, and may raise n to the room it gave; size receives the inflated length.
// False, with the buffer's contents meaningless, when the file must be streamed instead: not a
// regular file, not gzip members from its first byte to its last, more than limit inflated bytes,
// or damaged; reading it through zlib then says what is wrong in zlib's own words, as before.
bool inflate_whole(const std::string& name, std::size_t limit,
                   const std::function<char*(std::size_t&)>& grow, std::size_t& size);

// A file opened for reading, inflated when its name ends in .gz. Throws std::runtime_error
// naming the file when it is a directory or cannot be opened.
std::unique_ptr<ioconn> open_for_reading(const std::string& name);

}  // namespace inpout
}  // namespace zel

#endif
