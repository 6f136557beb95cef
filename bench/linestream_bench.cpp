// Reads a file line by line through the line stream and splits every field, as table loading
// does, then reports the throughput. With --lines the fields are not split.
// Usage: linestream_bench [--lines] FILE [SEPARATOR]
#include <chrono>
#include <cstdio>
#include <cstring>
#include <exception>
#include <memory>

#include "zel/inpout/stream.h"

int main(int argc, char** argv) {
  bool split = true;
  if (argc > 1 && std::strcmp(argv[1], "--lines") == 0) {
    split = false;
    --argc;
    ++argv;
  }
  if (argc < 2) {
    std::fprintf(stderr, "usage: linestream_bench [--lines] FILE [SEPARATOR]\n");
    return 2;
  }
  char sep = argc > 2 && argv[2][0] != 0 ? argv[2][0] : ',';
  try {
    auto t0 = std::chrono::steady_clock::now();
    std::unique_ptr<zel::inpout::stream> in(zel::inpout::stream::FROM_FILE(argv[1], sep));
    unsigned long long lines = 0, fields = 0, field_bytes = 0;
    while (in->read_line()) {
      ++lines;
      if (!split) continue;
      zel::util::tokenizer& t = in->tokenizer;
      for (;;) {
        const char* before = t.rest();
        t.next();
        ++fields;
        field_bytes += t.length();
        // The cursor stays on the terminating NUL only after the last field.
        if (t.rest() == before + t.length()) break;
      }
    }
    unsigned long long bytes = in->tell2();
    double secs = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
    std::printf("lines %llu fields %llu bytes %llu field_bytes %llu seconds %.4f MB/s %.1f\n",
                lines, fields, bytes, field_bytes, secs, secs > 0 ? bytes / secs / 1e6 : 0.0);
  } catch (const std::exception& e) {
    std::fprintf(stderr, "%s\n", e.what());
    return 1;
  }
  return 0;
}
