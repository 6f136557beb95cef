// The least work a load of a data file must do: one read of the file, every
// line split at the separator and every numeric field converted to its type
// (types from the metadata file); string fields are only located. Nothing is
// stored. bench/load.sh compares the table load against this.
//
// Usage: load_baseline <file.names> <file.data> [separator]
// Prints the rows and fields read and a checksum of the converted values.
#include <fcntl.h>
#include <unistd.h>

#include <charconv>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

namespace {

enum class kind { integer, uinteger, real32, real64, text };

std::vector<kind> read_types(char const* names, char sep) {
  std::ifstream in(names);
  std::vector<kind> types;
  std::string line;
  while (std::getline(in, line)) {
    if (!line.empty() && line.back() == '\r') line.pop_back();
    std::size_t a = line.find(sep);
    if (a == std::string::npos) continue;
    std::size_t b = line.find(sep, a + 1);
    std::string type = line.substr(a + 1, b == std::string::npos ? std::string::npos : b - a - 1);
    if (type == "integer") {
      types.push_back(kind::integer);
    } else if (type == "uinteger") {
      types.push_back(kind::uinteger);
    } else if (type == "float") {
      types.push_back(kind::real32);
    } else if (type == "double") {
      types.push_back(kind::real64);
    } else {
      types.push_back(kind::text);
    }
  }
  return types;
}

struct totals {
  std::uint64_t rows = 0, fields = 0, bad = 0;
  double sum = 0;
  std::uint64_t text_bytes = 0;
};

// One field [p, e) of column j.
inline void convert(kind k, char const* p, char const* e, totals& t) {
  switch (k) {
    case kind::integer: {
      int v = 0;
      if (std::from_chars(p, e, v).ec != std::errc()) ++t.bad;
      t.sum += v;
      break;
    }
    case kind::uinteger: {
      unsigned long v = 0;
      if (std::from_chars(p, e, v).ec != std::errc()) ++t.bad;
      t.sum += static_cast<double>(v);
      break;
    }
    case kind::real32: {
      float v = 0;
      if (std::from_chars(p, e, v).ec != std::errc()) ++t.bad;
      t.sum += v;
      break;
    }
    case kind::real64: {
      double v = 0;
      if (std::from_chars(p, e, v).ec != std::errc()) ++t.bad;
      t.sum += v;
      break;
    }
    case kind::text:
      t.text_bytes += static_cast<std::uint64_t>(e - p);
      break;
  }
}

void split_line(char const* p, char const* end, char sep, std::vector<kind> const& types,
                totals& t) {
  if (end > p && end[-1] == '\r') --end;
  std::size_t j = 0;
  while (true) {
    char const* q =
        static_cast<char const*>(std::memchr(p, sep, static_cast<std::size_t>(end - p)));
    char const* fe = q ? q : end;
    if (j < types.size()) convert(types[j], p, fe, t);
    ++j;
    if (q == nullptr) break;
    p = q + 1;
  }
  t.fields += j;
  ++t.rows;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 3) {
    std::fprintf(stderr, "usage: %s <file.names> <file.data> [separator]\n", argv[0]);
    return 2;
  }
  char sep = argc > 3 && argv[3][0] ? argv[3][0] : ',';
  auto start = std::chrono::steady_clock::now();
  std::vector<kind> types = read_types(argv[1], sep);
  int fd = open(argv[2], O_RDONLY);
  if (fd < 0) {
    std::perror(argv[2]);
    return 1;
  }
  totals t;
  std::vector<char> buf(1 << 20);
  std::size_t have = 0;
  while (true) {
    ssize_t n = read(fd, buf.data() + have, buf.size() - have);
    if (n < 0) {
      std::perror("read");
      return 1;
    }
    have += static_cast<std::size_t>(n);
    char const* p = buf.data();
    char const* end = p + have;
    while (true) {
      char const* nl =
          static_cast<char const*>(std::memchr(p, '\n', static_cast<std::size_t>(end - p)));
      if (nl == nullptr) break;
      split_line(p, nl, sep, types, t);
      p = nl + 1;
    }
    std::size_t rest = static_cast<std::size_t>(end - p);
    if (n == 0) {
      if (rest > 0) split_line(p, end, sep, types, t);
      break;
    }
    std::memmove(buf.data(), p, rest);
    have = rest;
    if (have == buf.size()) buf.resize(buf.size() * 2);  // a line longer than the buffer
  }
  close(fd);
  double secs = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  std::printf("rows %llu fields %llu bad %llu checksum %.6g text_bytes %llu seconds %.4f\n",
              static_cast<unsigned long long>(t.rows), static_cast<unsigned long long>(t.fields),
              static_cast<unsigned long long>(t.bad), t.sum,
              static_cast<unsigned long long>(t.text_bytes), secs);
  return 0;
}
