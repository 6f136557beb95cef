// Read access to a file through sliding memory-mapped windows.
#ifndef ZEL_INPOUT_IOMMAP_H
#define ZEL_INPOUT_IOMMAP_H

#include <string>

#include "zel/inpout/iofile.h"

namespace zel {
namespace inpout {

class iommap : public ioconn {
 public:
  iommap();
  ~iommap() override;

  void close() override;
  bool eof() override;
  bool is_open() const override { return file_.is_open(); }
  int get_mode() const override { return file_.get_mode(); }
  // Throws std::runtime_error: the mapping is read-only.
  int write(const void* buf, int n) override;
  int read(void* buf, int n) override;
  bool is_random() const override { return file_.is_random(); }
  // Origins other than 0, 1, 2 and negative targets give -1.
  long long lseek(long long off, int whence) override;
  long long tell() override;
  long long size() override { return file_.size(); }

  // Collects the bytes up to the next line feed (not kept) into an own buffer;
  // false at end of file.
  virtual bool read_line();
  virtual char* get_line() { return line_; }
  virtual bool open(const std::string& name, int mode, int perm);
  virtual unsigned long get_mapped_area_size() const { return area_; }
  // Rounded down to a multiple of the granularity, at least one granule; used from the next remap.
  virtual void set_mapped_area_size(unsigned long n);
  virtual bool resize(long long n);
  // Maps the window starting at the window offset; throws std::runtime_error on failure.
  virtual void remap();

 private:
  void unmap();

  iofile file_;
  char* map_;              // window start, aligned to the granularity
  unsigned long map_len_;  // bytes mapped
  unsigned long area_;     // a window maps 4 times this
  long long offset_;       // file offset the window was asked for
  unsigned long delta_;    // offset_ minus the aligned start of the window
  unsigned long pos_;      // next byte, counted from map_
  char* line_;
  unsigned long line_cap_;

  static unsigned long remaps;
};

}  // namespace inpout
}  // namespace zel

#endif
