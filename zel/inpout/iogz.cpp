#include "zel/inpout/iogz.h"

#include "zel/inpout/iofile.h"

#include <fcntl.h>
#include <libdeflate.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zlib.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <stdexcept>
#include <string>

namespace zel {
namespace inpout {

namespace {

// Larger than zlib's default so that each input refill is one big read.
constexpr unsigned GZ_BUFFER = 128 * 1024;

inline gzFile gz(void* f) {
  return static_cast<gzFile>(f);
}

// Header and trailer of the smallest gzip member.
constexpr std::size_t MIN_MEMBER = 18;
constexpr unsigned char FLAG_HEADER_CRC = 0x02;
// Bytes read are given back to the system in steps of this size (a huge page).
constexpr std::size_t DROP_STEP = std::size_t{2} << 20;

std::size_t page_round(std::size_t n) {
  auto page = static_cast<std::size_t>(::sysconf(_SC_PAGESIZE));
  return (std::max<std::size_t>(n, 1) + page - 1) / page * page;
}

// The members of the mapped file in[0, n) inflated one after another, as zlib reads them.
bool inflate_members(const unsigned char* in, std::size_t n, std::size_t limit,
                     const std::function<char*(std::size_t&)>& grow, std::size_t& size) {
  std::unique_ptr<libdeflate_decompressor, void (*)(libdeflate_decompressor*)> d(
      libdeflate_alloc_decompressor(), libdeflate_free_decompressor);
  if (!d) return false;
  // The last member's trailer holds its length mod 2^32: the whole length for the usual single
  // member. A length deflate can not reach from n bytes is a lie that the member's own check
  // will catch; it must not size the buffer.
  std::uint32_t isize;
  std::memcpy(&isize, in + n - 4, 4);
  std::size_t cap = std::min<std::size_t>({isize, limit, n * 1032});
  char* out = grow(cap);
  cap = std::min(cap, limit);
  std::size_t at = 0, used = 0;
  while (at < n) {
    if (out == nullptr) return false;
    // Bytes after a member that are not a member (zlib ignores them), and header checksums
    // (which zlib checks and libdeflate skips) are left to zlib.
    if (n - at < MIN_MEMBER || in[at] != 0x1f || in[at + 1] != 0x8b ||
        (in[at + 3] & FLAG_HEADER_CRC) != 0)
      return false;
    std::size_t took = 0, made = 0;
    libdeflate_result r = libdeflate_gzip_decompress_ex(d.get(), in + at, n - at, out + used,
                                                        cap - used, &took, &made);
    if (r == LIBDEFLATE_INSUFFICIENT_SPACE) {
      // The trailer undercounted (an earlier member, or over 4 GiB): more room, same member.
      if (cap >= limit) return false;
      cap = cap >= limit / 2 ? limit : std::max(2 * cap, cap + (std::size_t{1} << 20));
      out = grow(cap);
      cap = std::min(cap, limit);
      continue;
    }
    if (r != LIBDEFLATE_SUCCESS) return false;
    at += took;
    used += made;
  }
  size = used;
  return true;
}

}  // namespace

bool inflate_whole(const std::string& name, std::size_t limit,
                   const std::function<char*(std::size_t&)>& grow, std::size_t& size) {
  // Checked before opening: opening a named pipe would wait for a writer.
  struct stat st;
  if (::stat(name.c_str(), &st) != 0 || !S_ISREG(st.st_mode)) return false;
  int fd = ::open(name.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return false;
  bool ok = false;
  if (::fstat(fd, &st) == 0 && S_ISREG(st.st_mode) &&
      static_cast<std::size_t>(st.st_size) >= MIN_MEMBER) {
    auto n = static_cast<std::size_t>(st.st_size);
    // Mapped rather than read: no copy, and the compressed bytes go as soon as they are inflated.
    void* m = ::mmap(nullptr, n, PROT_READ, MAP_PRIVATE | MAP_POPULATE, fd, 0);
    if (m != MAP_FAILED) {
      ok = inflate_members(static_cast<const unsigned char*>(m), n, limit, grow, size);
      ::munmap(m, n);
    }
  }
  ::close(fd);
  return ok;
}

std::size_t iogz::whole_limit() {
  static const std::size_t limit = [] {
    long pages = ::sysconf(_SC_PHYS_PAGES), page = ::sysconf(_SC_PAGESIZE);
    if (pages <= 0 || page <= 0) return std::size_t{256} << 20;
    return static_cast<std::size_t>(pages) / 8 * static_cast<std::size_t>(page);
  }();
  return limit;
}

iogz::iogz()
    : mode_(0),
      file_(nullptr),
      whole_open_(false),
      whole_(nullptr),
      whole_size_(0),
      whole_cap_(0),
      pos_(0),
      kept_from_(0),
      past_end_(false) {}

iogz::~iogz() {
  close();
}

std::string iogz::zlib_mode(int mode, int level) {
  std::string m = "r";
  if (mode & APPEND)
    m = "a";
  else if (mode & WRITE)
    m = "w";
  m += 'b';
  if (level != -1) m += static_cast<char>('0' + level);
  return m;
}

void iogz::drop_whole() {
  if (whole_ != nullptr) ::munmap(whole_, whole_cap_);
  whole_open_ = false;
  whole_ = nullptr;
  whole_size_ = whole_cap_ = kept_from_ = 0;
  pos_ = 0;
  past_end_ = false;
}

bool iogz::open(const std::string& name, int mode, int level, int strategy) {
  close();
  // zlib would open a directory for reading and fail on the first read.
  if (iofile::is_directory(name)) return false;
  if ((mode & (WRITE | APPEND)) == 0) {
    // Inflating at once runs several times faster than zlib's stream. Pipes and files whose
    // inflated copy would not fit beside what is built from it stream through zlib.
    // The whole limit is reserved at once: pages never written cost nothing, and a member
    // longer than the trailer says (files of several members) is then not inflated twice.
    auto grow = [this](std::size_t& n) -> char* {
      if (whole_ == nullptr) {
        std::size_t cap = page_round(std::max(n, whole_limit()));
        void* p = ::mmap(nullptr, cap, PROT_READ | PROT_WRITE,
                         MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
        if (p == MAP_FAILED) return nullptr;
        ::madvise(p, cap, MADV_HUGEPAGE);  // advice only: its failure changes nothing
        whole_ = static_cast<char*>(p);
        whole_cap_ = cap;
      }
      if (n > whole_cap_) return nullptr;
      n = std::min(whole_cap_, whole_limit());
      return whole_;
    };
    std::size_t size = 0;
    if (inflate_whole(name, whole_limit(), grow, size)) {
      whole_open_ = true;
      whole_size_ = size;
      mode_ = mode;
      name_ = name;
      return true;
    }
    drop_whole();
  }
  gzFile f = gzopen(name.c_str(), zlib_mode(mode, level).c_str());
  if (f == nullptr) return false;
  gzbuffer(f, GZ_BUFFER);
  gzsetparams(f, level, strategy);
  file_ = f;
  mode_ = mode;
  name_ = name;
  return true;
}

bool iogz::stream_from(long long at) {
  drop_whole();
  gzFile f = gzopen(name_.c_str(), "rb");
  if (f == nullptr) return false;
  gzbuffer(f, GZ_BUFFER);
  file_ = f;
  return gzseek(f, static_cast<z_off_t>(at), SEEK_SET) == at;
}

bool iogz::finish() {
  bool ok = file_ == nullptr || gzclose(gz(file_)) == Z_OK;
  file_ = nullptr;
  drop_whole();
  mode_ = 0;
  return ok;
}

void iogz::close() {
  if (file_ != nullptr) gzclose(gz(file_));
  file_ = nullptr;
  drop_whole();
  mode_ = 0;
}

bool iogz::eof() {
  if (whole_open_) return past_end_;
  return file_ != nullptr && gzeof(gz(file_)) != 0;
}

bool iogz::rewind() {
  if (whole_open_) return lseek(0, SEEK_BEGIN) == 0;
  return file_ != nullptr && gzrewind(gz(file_)) == 0;
}

int iogz::read(void* buf, int n) {
  if (whole_open_) {
    if (n < 1) return 0;
    auto at = static_cast<std::size_t>(pos_);
    std::size_t k = at < whole_size_ ? std::min(whole_size_ - at, static_cast<std::size_t>(n)) : 0;
    if (k > 0) std::memcpy(buf, whole_ + at, k);
    pos_ += static_cast<long long>(k);
    if (k < static_cast<std::size_t>(n)) past_end_ = true;
    // Read bytes go back to the system as the reader moves on, so that the inflated copy does
    // not stay beside everything built from it.
    auto done = static_cast<std::size_t>(pos_) / DROP_STEP * DROP_STEP;
    if (done > kept_from_ && done <= whole_cap_) {
      ::madvise(whole_ + kept_from_, done - kept_from_, MADV_DONTNEED);
      kept_from_ = done;
    }
    return static_cast<int>(k);
  }
  if (file_ == nullptr) return -1;
  if (n < 1) return 0;
  int got = gzread(gz(file_), buf, static_cast<unsigned>(n));
  if (got < n) {
    // A short read is the end only when the stream ended cleanly: a stream cut short or damaged
    // must not read as a shorter file.
    int err = Z_OK;
    char const* what = gzerror(gz(file_), &err);
    if (err != Z_OK) {
      std::string reason = what;
      if (reason.compare(0, name_.size() + 2, name_ + ": ") == 0) reason.erase(0, name_.size() + 2);
      throw read_error("File " + name_ + ": truncated or corrupt compressed data (" + reason + ")");
    }
  }
  return got;
}

int iogz::write(const void* buf, int n) {
  if (file_ == nullptr || whole_open_) return -1;
  if (n < 1) return 0;
  int put = gzwrite(gz(file_), buf, static_cast<unsigned>(n));
  return put == 0 ? -1 : put;  // zlib reports errors as 0
}

long long iogz::lseek(long long off, int whence) {
  if (whence == SEEK_FROM_END) throw std::runtime_error("iogz::lseek LSEEK_END not supported");
  if (whence != SEEK_BEGIN && whence != SEEK_CURRENT)
    throw std::runtime_error("iogz::lseek position not supported");
  if (whole_open_) {
    long long target = whence == SEEK_BEGIN ? off : pos_ + off;
    if (target < 0) return -1;
    // Bytes given back are inflated again by zlib.
    if (static_cast<unsigned long long>(target) < kept_from_)
      return stream_from(target) ? target : -1;
    pos_ = target;
    past_end_ = false;
    return target;
  }
  if (file_ == nullptr) return -1;
  return gzseek(gz(file_), static_cast<z_off_t>(off), whence == SEEK_BEGIN ? SEEK_SET : SEEK_CUR);
}

long long iogz::tell() {
  if (whole_open_) return pos_;
  if (file_ == nullptr) return -1;
  return gztell(gz(file_));
}

std::unique_ptr<ioconn> open_for_reading(const std::string& name) {
  if (iofile::is_directory(name)) throw std::runtime_error("File " + name + ": is a directory");
  bool gz = name.size() > 2 && name.compare(name.size() - 3, 3, ".gz") == 0;
  std::unique_ptr<ioconn> in;
  if (gz) {
    auto z = std::make_unique<iogz>();
    if (z->open(name, ioconn::READ, -1, 0)) in = std::move(z);
  } else {
    auto f = std::make_unique<iofile>();
    if (f->open(name, ioconn::READ, 0)) in = std::move(f);
  }
  if (!in) throw std::runtime_error("File " + name + ": not found or inaccessible");
  return in;
}

}  // namespace inpout
}  // namespace zel
