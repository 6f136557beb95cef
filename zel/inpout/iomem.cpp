#include "zel/inpout/iomem.h"

#include <cstdlib>
#include <cstring>
#include <stdexcept>

namespace zel {
namespace inpout {

iomem::iomem() : data_(nullptr), capacity_(0), size_(0), pos_(0), owns_(false) {}

iomem::~iomem() {
  close();
}

void iomem::close() {
  if (owns_) std::free(data_);
  data_ = nullptr;
  capacity_ = size_ = pos_ = 0;
  owns_ = false;
}

bool iomem::open(void* data, unsigned long capacity, unsigned long size) {
  close();
  data_ = static_cast<char*>(data);
  capacity_ = capacity;
  size_ = size < capacity ? size : capacity;
  owns_ = false;
  return true;
}

bool iomem::open(unsigned long capacity) {
  close();
  // One byte at least, so that an open area is never null.
  char* p = static_cast<char*>(std::malloc(capacity > 0 ? capacity : 1));
  if (p == nullptr) throw std::runtime_error("Out of memory");
  data_ = p;
  capacity_ = capacity;
  owns_ = true;
  return true;
}

int iomem::read(void* buf, int n) {
  if (n < 1) return 0;
  if (data_ == nullptr) return -1;
  unsigned long left = size_ > pos_ ? size_ - pos_ : 0;
  unsigned long k = static_cast<unsigned long>(n) < left ? static_cast<unsigned long>(n) : left;
  std::memcpy(buf, data_ + pos_, k);
  pos_ += k;
  return static_cast<int>(k);
}

int iomem::write(const void* buf, int n) {
  if (n < 1) return 0;
  if (data_ == nullptr) return -1;
  unsigned long k = static_cast<unsigned long>(n);
  if (pos_ + k > capacity_) {
    if (owns_) {
      unsigned long need = pos_ + k;
      unsigned long grown = need + capacity_ / 2;
      if (grown < need) throw std::runtime_error("Out of memory");
      char* p = static_cast<char*>(std::realloc(data_, grown));
      if (p == nullptr) throw std::runtime_error("Out of memory");
      data_ = p;
      capacity_ = grown;
    } else {
      k = capacity_ > pos_ ? capacity_ - pos_ : 0;
    }
  }
  std::memcpy(data_ + pos_, buf, k);
  pos_ += k;
  if (pos_ > size_) size_ = pos_;
  return static_cast<int>(k);
}

long long iomem::lseek(long long off, int whence) {
  long long base;
  switch (whence) {
    case SEEK_BEGIN:
      base = 0;
      break;
    case SEEK_CURRENT:
      base = static_cast<long long>(pos_);
      break;
    case SEEK_FROM_END:
      base = static_cast<long long>(size_);
      break;
    default:
      return -1;
  }
  long long target = base + off;
  if (target < 0) target = 0;
  if (target > static_cast<long long>(size_)) target = static_cast<long long>(size_);
  pos_ = static_cast<unsigned long>(target);
  return target;
}

}  // namespace inpout
}  // namespace zel
