#include "zel/inpout/ioconn.h"

#include <cstring>
#include <stdexcept>

namespace zel {
namespace inpout {

ioconn::~ioconn() {}

bool ioconn::eof() {
  return tell() == size();
}

bool ioconn::rewind() {
  return lseek(0, SEEK_BEGIN) == 0;
}

int ioconn::writeln(const char* s) {
  int a = write(s, static_cast<int>(std::strlen(s)));
  if (a < 0) return -1;
  int b = write("\n", 1);
  if (b < 0) return -1;
  return a + b;
}

long long ioconn::copy(ioconn& src) {
  char chunk[COPY_CHUNK];
  long long total = 0;
  for (;;) {
    int got = src.read(chunk, COPY_CHUNK);
    if (got < 1) break;
    int put = write(chunk, got);
    if (put < 0) return -1;
    total += put;
  }
  return total;
}

long long ioconn::copy(ioconn& src, long long n) {
  if (n < 1) return 0;
  char chunk[COPY_CHUNK];
  long long left = n;
  while (left > 0) {
    int want = left < COPY_CHUNK ? static_cast<int>(left) : COPY_CHUNK;
    int got = src.read(chunk, want);
    if (got < 1) break;
    if (write(chunk, got) < 0) return -1;
    left -= got;
  }
  return n - left;
}

bool ioconn::is_random() const {
  return false;
}

long long ioconn::lseek(long long, int) {
  throw std::runtime_error("lseek not available");
}

long long ioconn::tell() {
  return lseek(0, SEEK_CURRENT);
}

long long ioconn::size() {
  long long here = tell();
  long long end = lseek(0, SEEK_FROM_END);
  lseek(here, SEEK_BEGIN);
  return end;
}

}  // namespace inpout
}  // namespace zel
