// Inputs for the fuzz harnesses: fuzzer bytes as a line stream or as a file that the binary
// readers can open by name, without touching the disk.
#ifndef TESTS_FUZZ_FUZZ_INPUT_H
#define TESTS_FUZZ_FUZZ_INPUT_H

#include <sys/mman.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <string>

#include "zel/inpout/iomem.h"
#include "zel/inpout/stream.h"

namespace fuzz {

// A line stream over the bytes (copied: the stream may write a terminator past a line).
inline zel::inpout::stream* memory_stream(std::uint8_t const* data, std::size_t size, char sep) {
  auto* mem = new zel::inpout::iomem();
  mem->open(size + 1);
  if (size > 0) mem->write(data, static_cast<int>(size));
  mem->lseek(0, zel::inpout::ioconn::SEEK_BEGIN);
  return new zel::inpout::stream(mem, true, sep, 4096);
}

// The bytes as an anonymous in-memory file, reachable as /proc/self/fd/N while it lives.
class memory_file {
 public:
  memory_file(std::uint8_t const* data, std::size_t size) : fd_(memfd_create("fuzz", 0)) {
    if (fd_ < 0) throw std::logic_error("memfd_create failed");
    std::size_t done = 0;
    while (done < size) {
      ssize_t put = ::write(fd_, data + done, size - done);
      if (put <= 0) throw std::logic_error("memfd write failed");
      done += static_cast<std::size_t>(put);
    }
  }
  ~memory_file() { ::close(fd_); }
  memory_file(memory_file const&) = delete;
  memory_file& operator=(memory_file const&) = delete;
  std::string path() const { return "/proc/self/fd/" + std::to_string(fd_); }

 private:
  int fd_;
};

}  // namespace fuzz

#endif
