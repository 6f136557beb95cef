// gzip file connection. Reading a regular file either inflates it on a second thread while the
// reader consumes it (set_ahead) or inflates it at once into memory when it fits (see open);
// other files stream through zlib, and writing goes through zlib. Seeks: origins 0 and 1.
#ifndef ZEL_INPOUT_IOGZ_H
#define ZEL_INPOUT_IOGZ_H

#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

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
  bool is_open() const override { return file_ != nullptr || whole_open_ || ahead_ != nullptr; }
  int get_mode() const override { return mode_; }
  bool rewind() override;
  int write(const void* buf, int n) override;
  int read(void* buf, int n) override;
  // Origins 0 and 1 only: origin 2 and others throw std::runtime_error.
  long long lseek(long long off, int whence) override;
  long long tell() override;

  // Level -1 leaves the level to zlib; strategy as zlib's. False when the file can not be opened.
  // For reading, a regular file is inflated ahead (set_ahead) or, when its inflated bytes fit
  // whole_limit(), at once.
  virtual bool open(const std::string& name, int mode, int level, int strategy);

  // Whether open() inflates a regular file for reading through zlib on a second thread, at most
  // 4 MiB ahead of read(), instead of at once with libdeflate, when the process may run on two
  // cores: slower inflating, but it overlaps the reader's own work, and memory stays small. Worth
  // it where the reader does more than copy (parsing lines), not where it mostly copies (binary
  // tables). Every byte, error and position is then that of zlib's own stream. Off by default.
  void set_ahead(bool on) { want_ahead_ = on; }

  // The most inflated bytes read through memory: an eighth of the physical memory, as the
  // inflated copy lives beside whatever the reader builds from it. Larger files stream.
  static std::size_t whole_limit();

  // The zlib open mode for these arguments: "r", "w" or "a", then "b", then the level digit.
  static std::string zlib_mode(int mode, int level);

 private:
  class ahead;  // the inflating thread and its ring of blocks

  // Reading through zlib from position at.
  bool stream_from(long long at);
  void drop_whole();
  bool start_ahead();
  // Stops the thread and hands the file to zlib at pos_, in the state zlib's own stream would
  // have there after the same reads: replay_ replayed. False when zlib can not take it.
  bool resume_through_zlib();
  void drop_ahead();

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
  // Inflating ahead: the thread, the file it reads, and the reads served so far as zlib would
  // need them replayed: runs of reads shorter than zlib's output buffer as one skip (first:
  // false), others as they were (true).
  bool want_ahead_;
  std::unique_ptr<ahead> ahead_;
  int fd_;
  std::vector<std::pair<bool, long long>> replay_;
  std::string zlib_prefix_;  // what zlib puts before its messages: the name it was opened by
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
