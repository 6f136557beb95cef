// Connection over a memory area, either adopted (fixed capacity) or owned (grows on write).
#ifndef ZEL_INPOUT_IOMEM_H
#define ZEL_INPOUT_IOMEM_H

#include "zel/inpout/ioconn.h"

namespace zel {
namespace inpout {

class iomem : public ioconn {
 public:
  iomem();
  ~iomem() override;

  // Frees owned memory and clears all fields.
  void close() override;
  bool eof() override { return pos_ >= size_; }
  bool is_open() const override { return data_ != nullptr; }
  // Always readable and writable while open.
  int get_mode() const override { return data_ != nullptr ? READ | WRITE : 0; }
  int write(const void* buf, int n) override;
  int read(void* buf, int n) override;
  bool is_random() const override { return true; }
  // The target is clamped to [0, size]; other origins give -1.
  long long lseek(long long off, int whence) override;
  long long tell() override { return static_cast<long long>(pos_); }
  long long size() override { return static_cast<long long>(size_); }

  // Adopts external memory of which the first size bytes are valid; writes stop at capacity.
  virtual bool open(void* data, unsigned long capacity, unsigned long size);
  // Owned memory; throws std::runtime_error "Out of memory".
  virtual bool open(unsigned long capacity);

  char* get_data() const { return data_; }
  unsigned long get_capacity() const { return capacity_; }

 private:
  char* data_;
  unsigned long capacity_;
  unsigned long size_;
  unsigned long pos_;
  bool owns_;
};

}  // namespace inpout
}  // namespace zel

#endif
