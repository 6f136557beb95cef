#include "zel/inpout/iommap.h"

#include <cstdlib>
#include <cstring>
#include <iostream>
#include <stdexcept>

namespace zel {
namespace inpout {

unsigned long iommap::remaps = 0;

namespace {
constexpr unsigned long DEFAULT_AREA = 1UL << 20;
}

iommap::iommap()
    : map_(nullptr),
      map_len_(0),
      area_(DEFAULT_AREA),
      offset_(0),
      delta_(0),
      pos_(0),
      line_(nullptr),
      line_cap_(0) {
  set_mapped_area_size(DEFAULT_AREA);
}

iommap::~iommap() {
  close();
  std::free(line_);
}

void iommap::unmap() {
  if (map_ != nullptr) file_.mem_unmap(map_, static_cast<long long>(map_len_));
  map_ = nullptr;
  map_len_ = 0;
  pos_ = 0;
  delta_ = 0;
}

void iommap::close() {
  unmap();
  file_.close();
  offset_ = 0;
}

bool iommap::open(const std::string& name, int mode, int perm) {
  close();
  if (!file_.open_mmap(name, mode, perm)) return false;
  name_ = name;
  offset_ = 0;
  remap();
  return true;
}

void iommap::set_mapped_area_size(unsigned long n) {
  unsigned long g = static_cast<unsigned long>(iofile::allocation_granularity());
  if (n < g) n = g;
  area_ = n - n % g;
}

void iommap::remap() {
  unmap();
  ++remaps;
  long long fsize = file_.size();
  if (offset_ >= fsize) {
    offset_ = fsize;
    return;
  }
  long long g = iofile::allocation_granularity();
  long long aligned = offset_ - offset_ % g;
  long long len = 4 * static_cast<long long>(area_);
  if (len > fsize - aligned) len = fsize - aligned;
  void* p = file_.mem_map(aligned, len);
  if (p == nullptr) {
    std::cout << "@@" << remaps << std::endl;
    throw std::runtime_error("iommap::remap failed.");
  }
  map_ = static_cast<char*>(p);
  map_len_ = static_cast<unsigned long>(len);
  delta_ = static_cast<unsigned long>(offset_ - aligned);
  pos_ = delta_;
}

long long iommap::tell() {
  return map_ != nullptr ? offset_ - static_cast<long long>(delta_) + static_cast<long long>(pos_)
                         : offset_;
}

bool iommap::eof() {
  return tell() >= file_.size();
}

int iommap::write(const void*, int) {
  throw std::runtime_error("iommap::write not implemented yet");
}

int iommap::read(void* buf, int n) {
  if (n < 1) return 0;
  if (!file_.is_open()) return -1;
  char* out = static_cast<char*>(buf);
  int done = 0;
  while (done < n) {
    if (map_ == nullptr) break;
    if (pos_ == map_len_) {
      // Window exhausted: slide to the byte after it.
      offset_ = offset_ - static_cast<long long>(delta_) + static_cast<long long>(map_len_);
      remap();
      continue;
    }
    unsigned long k = map_len_ - pos_;
    if (k > static_cast<unsigned long>(n - done)) k = static_cast<unsigned long>(n - done);
    std::memcpy(out + done, map_ + pos_, k);
    pos_ += k;
    done += static_cast<int>(k);
  }
  return done;
}

long long iommap::lseek(long long off, int whence) {
  long long target;
  switch (whence) {
    case SEEK_BEGIN:
      target = off;
      break;
    case SEEK_CURRENT:
      target = tell() + off;
      break;
    case SEEK_FROM_END:
      target = file_.size() + off;
      break;
    default:
      return -1;
  }
  if (target < 0) return -1;
  long long start = offset_ - static_cast<long long>(delta_);
  if (map_ != nullptr && target >= start && target < start + static_cast<long long>(map_len_)) {
    pos_ = static_cast<unsigned long>(target - start);
    return target;
  }
  offset_ = target;
  remap();
  return tell();
}

bool iommap::read_line() {
  unsigned long len = 0;
  bool any = false;
  while (map_ != nullptr) {
    if (pos_ == map_len_) {
      offset_ = offset_ - static_cast<long long>(delta_) + static_cast<long long>(map_len_);
      remap();
      continue;
    }
    any = true;
    const char* from = map_ + pos_;
    unsigned long avail = map_len_ - pos_;
    const char* lf = static_cast<const char*>(std::memchr(from, '\n', avail));
    unsigned long take = lf != nullptr ? static_cast<unsigned long>(lf - from) : avail;
    if (len + take + 1 > line_cap_) {
      char* p = static_cast<char*>(std::realloc(line_, len + take + 1));
      if (p == nullptr) throw std::runtime_error("Out of memory");
      line_ = p;
      line_cap_ = len + take + 1;
    }
    std::memcpy(line_ + len, from, take);
    len += take;
    pos_ += take;
    if (lf != nullptr) {
      ++pos_;
      break;
    }
  }
  if (!any) return false;
  line_[len] = 0;
  return true;
}

bool iommap::resize(long long n) {
  long long here = tell();
  unmap();
  offset_ = here;
  bool ok = file_.resize(n);
  long long fsize = file_.size();
  if (offset_ > fsize) offset_ = fsize;
  remap();
  return ok;
}

}  // namespace inpout
}  // namespace zel
