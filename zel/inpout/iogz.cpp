#include "zel/inpout/iogz.h"

#include "zel/inpout/iofile.h"

#include <fcntl.h>
#include <libdeflate.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zlib.h>

#include <algorithm>
#include <cerrno>
#include <condition_variable>
#include <cstdint>
#include <cstring>
#include <exception>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>

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

// Inflating ahead: blocks of the ring, their number, and the compressed bytes read at a time.
// Small blocks start the reader sooner and are read while still in cache (256 KiB to 2 MiB
// measured; 256 and 512 KiB were fastest).
constexpr std::size_t AHEAD_BLOCK = 512 * 1024;
constexpr std::size_t AHEAD_BLOCKS = 8;
constexpr std::size_t AHEAD_INPUT = 256 * 1024;
// A read is served from the ring only when the thread has inflated this much past its end
// without trouble: zlib, reading the same file, inflates at most its output buffer (twice
// GZ_BUFFER) past a read, so it too would have served the read whatever comes later.
constexpr std::size_t AHEAD_MARGIN = 2 * GZ_BUFFER + 64 * 1024;
static_assert((AHEAD_BLOCKS - 1) * AHEAD_BLOCK >= AHEAD_MARGIN, "the ring holds the margin");

}  // namespace

// One thread inflates the file through zlib into a ring of blocks; read() copies from them.
// Only a file of gzip members from its first byte to its last, each whole and sound, is served
// to its end from the ring: at anything else (damage, a cut, bytes after the last member, a
// read error) the thread stops and says how far it got, and reads beyond that margin go to
// zlib itself, which then says what is wrong in its own words at the very read it would have.
class iogz::ahead {
 public:
  // fd stays the caller's. Throws when the memory or the thread can not be had.
  explicit ahead(int fd) : fd_(fd), ring_(new char[AHEAD_BLOCKS * AHEAD_BLOCK]) {
    thread_ = std::thread([this] { run(); });
  }
  ~ahead() {
    {
      std::lock_guard<std::mutex> lock(m_);
      stop_ = true;
    }
    changed_.notify_all();
    thread_.join();
  }
  ahead(const ahead&) = delete;
  ahead& operator=(const ahead&) = delete;

  // The n bytes at position at (where the previous read ended) into buf: n, fewer at the end
  // of a sound file, or -1 when zlib must serve this read. Rethrows what the thread threw.
  int read(char* buf, int n, long long at) {
    auto want = static_cast<std::size_t>(n);
    auto end = static_cast<unsigned long long>(at) + want;
    if (holding_ && off_ + want <= held_ && end <= safe_) {
      std::memcpy(buf, block(cur_) + off_, want);
      off_ += want;
      return n;
    }
    return read_slow(buf, want, end);
  }

 private:
  enum class outcome { running, sound, trouble };

  char* block(unsigned long long b) { return ring_.get() + (b % AHEAD_BLOCKS) * AHEAD_BLOCK; }

  int read_slow(char* buf, std::size_t want, unsigned long long end);
  void run();
  void inflate_all();
  // Hands block b, made bytes long, to the reader, with the thread's state.
  void publish(unsigned long long b, std::size_t made, outcome o);

  const int fd_;
  std::unique_ptr<char[]> ring_;
  std::mutex m_;
  std::condition_variable changed_;  // a block published or released, the end, or stop
  // Under m_.
  unsigned long long published_ = 0;  // blocks
  unsigned long long released_ = 0;
  std::size_t size_[AHEAD_BLOCKS] = {};
  unsigned long long inflated_ = 0;  // bytes in the published blocks
  outcome state_ = outcome::running;
  std::exception_ptr error_;
  bool stop_ = false;
  // The reader's own: the block it holds (cur_, held_ bytes long, off_ read), and the end up to
  // which a read may be served without asking (stale values only err on the side of asking).
  bool holding_ = false;
  unsigned long long cur_ = 0;
  std::size_t held_ = 0;
  std::size_t off_ = 0;
  unsigned long long safe_ = 0;
  std::thread thread_;  // last: started once the rest is set
};

int iogz::ahead::read_slow(char* buf, std::size_t want, unsigned long long end) {
  std::size_t got = 0;
  for (;;) {
    // The held block is the reader's until released: copied without the lock.
    if (holding_) {
      std::size_t k = std::min(want - got, held_ - off_);
      std::memcpy(buf + got, block(cur_) + off_, k);
      got += k;
      off_ += k;
    }
    std::unique_lock<std::mutex> lock(m_);
    if (error_) std::rethrow_exception(error_);
    if (holding_ && off_ == held_) {
      holding_ = false;
      released_ = ++cur_;
      changed_.notify_all();
    }
    if (!holding_ && cur_ < published_ && got < want) {
      holding_ = true;
      held_ = size_[cur_ % AHEAD_BLOCKS];
      off_ = 0;
      continue;
    }
    safe_ = state_ == outcome::sound ? inflated_
                                     : (inflated_ > AHEAD_MARGIN ? inflated_ - AHEAD_MARGIN : 0);
    if (state_ == outcome::sound && (got == want || (!holding_ && cur_ == published_)))
      return static_cast<int>(got);
    if (got == want && end <= safe_) return static_cast<int>(got);
    if (state_ == outcome::trouble) return -1;
    changed_.wait(lock);
  }
}

void iogz::ahead::run() {
  try {
    inflate_all();
  } catch (...) {
    std::lock_guard<std::mutex> lock(m_);
    error_ = std::current_exception();
    state_ = outcome::trouble;
    changed_.notify_all();
  }
}

void iogz::ahead::publish(unsigned long long b, std::size_t made, outcome o) {
  std::lock_guard<std::mutex> lock(m_);
  if (made > 0) {
    size_[b % AHEAD_BLOCKS] = made;
    published_ = b + 1;
    inflated_ += made;
  }
  state_ = o;
  changed_.notify_all();
}

void iogz::ahead::inflate_all() {
  z_stream z{};
  // As zlib's own stream reads: gzip members only, each checked to its trailer.
  if (inflateInit2(&z, 15 + 16) != Z_OK) return publish(0, 0, outcome::trouble);
  std::unique_ptr<z_stream, int (*)(z_stream*)> end_z(&z, inflateEnd);
  std::unique_ptr<unsigned char[]> in(new unsigned char[AHEAD_INPUT]);
  bool member = true, file_end = false;
  outcome o = outcome::running;
  for (unsigned long long b = 0; o == outcome::running; ++b) {
    {
      std::unique_lock<std::mutex> lock(m_);
      changed_.wait(lock, [&] { return stop_ || b - released_ < AHEAD_BLOCKS; });
      if (stop_) return;
    }
    z.next_out = reinterpret_cast<unsigned char*>(block(b));
    z.avail_out = AHEAD_BLOCK;
    while (z.avail_out > 0 && o == outcome::running) {
      // Between members zlib looks at two bytes for the next header.
      if (!file_end && (z.avail_in == 0 || (!member && z.avail_in < 2))) {
        if (z.avail_in > 0) std::memmove(in.get(), z.next_in, z.avail_in);
        ssize_t r;
        do
          r = ::read(fd_, in.get() + z.avail_in, AHEAD_INPUT - z.avail_in);
        while (r < 0 && errno == EINTR);
        if (r < 0) {
          o = outcome::trouble;
          break;
        }
        file_end = r == 0;
        z.next_in = in.get();
        z.avail_in += static_cast<unsigned>(r);
      }
      if (!member) {
        if (z.avail_in == 0) {
          o = outcome::sound;
          break;
        }
        // Bytes after the last member (zlib ignores them) are left to zlib, like any doubt.
        if (z.avail_in < 2 || z.next_in[0] != 0x1f || z.next_in[1] != 0x8b) {
          o = outcome::trouble;
          break;
        }
        inflateReset(&z);
        member = true;
      }
      if (z.avail_in == 0) {  // cut inside a member
        o = outcome::trouble;
        break;
      }
      int r = inflate(&z, Z_NO_FLUSH);
      if (r == Z_STREAM_END)
        member = false;
      else if (r != Z_OK && !(r == Z_BUF_ERROR && z.avail_in == 0))
        o = outcome::trouble;
    }
    publish(b, AHEAD_BLOCK - z.avail_out, o);
  }
}

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
      past_end_(false),
      want_ahead_(false),
      fd_(-1) {}

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

bool iogz::start_ahead() {
  // On one core the two would take turns, and zlib inflates at half libdeflate's speed.
  cpu_set_t cpus;
  if (::sched_getaffinity(0, sizeof cpus, &cpus) != 0 || CPU_COUNT(&cpus) < 2) return false;
  struct stat st;
  if (::stat(name_.c_str(), &st) != 0 || !S_ISREG(st.st_mode)) return false;
  int fd = ::open(name_.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return false;
  // The smallest files and those the thread can not be had for stream through zlib.
  if (::fstat(fd, &st) == 0 && S_ISREG(st.st_mode) &&
      static_cast<std::size_t>(st.st_size) >= MIN_MEMBER) {
    try {
      ahead_.reset(new ahead(fd));
      fd_ = fd;
      pos_ = 0;
      past_end_ = false;
      replay_.clear();
      return true;
    } catch (std::exception const&) {
    }
  }
  ::close(fd);
  return false;
}

void iogz::drop_ahead() {
  ahead_.reset();
  if (fd_ >= 0) ::close(fd_);
  fd_ = -1;
  replay_.clear();
  pos_ = 0;
  past_end_ = false;
}

bool iogz::resume_through_zlib() {
  ahead_.reset();
  int fd = fd_;
  fd_ = -1;
  gzFile f = ::lseek(fd, 0, SEEK_SET) == 0 ? gzdopen(fd, "rb") : nullptr;
  if (f == nullptr) {
    ::close(fd);
    drop_ahead();
    return false;
  }
  gzbuffer(f, GZ_BUFFER);
  file_ = f;
  zlib_prefix_ = "<fd:" + std::to_string(fd) + ">: ";
  // Skips leave zlib as the short reads did; long reads filled the caller's buffer directly
  // and are read again. Every step was served short of any trouble, so none fails.
  std::unique_ptr<char[]> scratch;
  std::size_t scratch_size = 0;
  for (auto const& step : replay_) {
    auto n = static_cast<std::size_t>(step.second);
    if (!step.first) {
      gzseek(f, static_cast<z_off_t>(n), SEEK_CUR);
      continue;
    }
    if (n > scratch_size) {
      scratch.reset(new char[n]);
      scratch_size = n;
    }
    gzread(f, scratch.get(), static_cast<unsigned>(n));
  }
  replay_.clear();
  return true;
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
  zlib_prefix_ = name + ": ";
  name_ = name;
  if ((mode & (WRITE | APPEND)) == 0 && want_ahead_ && start_ahead()) {
    mode_ = mode;
    return true;
  }
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
  drop_ahead();
  drop_whole();
  mode_ = 0;
  return ok;
}

void iogz::close() {
  if (file_ != nullptr) gzclose(gz(file_));
  file_ = nullptr;
  drop_ahead();
  drop_whole();
  mode_ = 0;
}

bool iogz::eof() {
  if (whole_open_ || ahead_) return past_end_;
  return file_ != nullptr && gzeof(gz(file_)) != 0;
}

bool iogz::rewind() {
  if (ahead_) {
    // Inflated again from the start, as zlib would.
    drop_ahead();
    return start_ahead();
  }
  if (whole_open_) return lseek(0, SEEK_BEGIN) == 0;
  return file_ != nullptr && gzrewind(gz(file_)) == 0;
}

int iogz::read(void* buf, int n) {
  if (ahead_) {
    if (n < 1) return 0;
    int got = ahead_->read(static_cast<char*>(buf), n, pos_);
    if (got >= 0) {
      // zlib serves reads shorter than its output buffer from it, longer ones directly.
      bool direct = n >= 2 * static_cast<int>(GZ_BUFFER);
      if (!direct && !replay_.empty() && !replay_.back().first)
        replay_.back().second += got;
      else
        replay_.emplace_back(direct, direct ? n : got);
      pos_ += got;
      if (got < n) past_end_ = true;
      return got;
    }
    if (!resume_through_zlib()) throw read_error("File " + name_ + ": can not be read again");
  }
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
      if (reason.compare(0, zlib_prefix_.size(), zlib_prefix_) == 0)
        reason.erase(0, zlib_prefix_.size());
      throw read_error("File " + name_ + ": truncated or corrupt compressed data (" + reason + ")");
    }
  }
  return got;
}

int iogz::write(const void* buf, int n) {
  if (file_ == nullptr || whole_open_ || ahead_) return -1;
  if (n < 1) return 0;
  int put = gzwrite(gz(file_), buf, static_cast<unsigned>(n));
  return put == 0 ? -1 : put;  // zlib reports errors as 0
}

long long iogz::lseek(long long off, int whence) {
  if (whence == SEEK_FROM_END) throw std::runtime_error("iogz::lseek LSEEK_END not supported");
  if (whence != SEEK_BEGIN && whence != SEEK_CURRENT)
    throw std::runtime_error("iogz::lseek position not supported");
  if (ahead_ && whence == SEEK_BEGIN && off == 0) return rewind() ? 0 : -1;
  if (ahead_ && !resume_through_zlib()) return -1;
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
  if (whole_open_ || ahead_) return pos_;
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
