// Times one table load and nothing else, so that loads from text and from the
// binary table file can be set side by side.
//
// Usage: load_only -f <stem> [-db <file>]   load <stem>.names and <stem>.data; with -db also
//                                           write the binary table (not timed)
//        load_only -n <names> <data>        load from these files (a .gz data file is inflated)
//        load_only -b <file>                load a binary table file
//        load_only -z <file>                only inflate the gzip file: the bound of -b
//        load_only -c <file>                read a CSV file with a header
// Prints "seconds S rows N" (bytes instead of rows for -z).
#include <chrono>
#include <cstdio>
#include <cstring>
#include <exception>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "brix/brix.h"
#include "brix/data.h"
#include "zel/inpout/iogz.h"

namespace {

double seconds_since(std::chrono::steady_clock::time_point t0) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
}

int usage() {
  std::fprintf(stderr,
               "usage: load_only -f <stem> [-db <file>] | -n <names> <data> | -b <file> | -z <file>"
               " | -c <file>\n");
  return 2;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 3 || argc > 5) return usage();
  std::string mode = argv[1], arg = argv[2];
  try {
    auto t0 = std::chrono::steady_clock::now();
    if (mode == "-z") {
      zel::inpout::iogz gz;
      if (!gz.open(arg, zel::inpout::ioconn::READ, 1, 0))
        throw std::runtime_error("cannot open " + arg);
      std::vector<char> buf(1 << 20);
      unsigned long long bytes = 0;
      int n;
      while ((n = gz.read(buf.data(), static_cast<int>(buf.size()))) > 0)
        bytes += n;
      std::printf("seconds %.4f bytes %llu\n", seconds_since(t0), bytes);
      return 0;
    }
    std::unique_ptr<brix::table> t;
    if (mode == "-n" && argc == 4) {
      t.reset(new brix::table("training_set"));
      t->load_meta_data(brix::datasource("FILE#" + arg + "#,"));
      t->load_data(brix::datasource("FILE#" + std::string(argv[3]) + "#,"), "?");
    } else if (mode == "-b" && argc == 3) {
      t.reset(brix::table::fromBinary(arg));
    } else if (mode == "-c" && argc == 3) {
      t = brix::read_csv(arg);
    } else if (mode == "-f" && argc != 4) {
      t.reset(new brix::table("training_set"));
      t->load_meta_data(brix::datasource("FILE#" + arg + ".names#,"));
      t->load_data(brix::datasource("FILE#" + arg + ".data#,"), "?");
    } else {
      return usage();
    }
    double s = seconds_since(t0);
    if (argc == 5) {
      if (std::strcmp(argv[3], "-db") != 0) return usage();
      t->toBinary(argv[4]);
    }
    std::printf("seconds %.4f rows %lu\n", s, t->get_no_rows());
  } catch (std::exception const& e) {
    std::fprintf(stderr, "load_only: %s\n", e.what());
    return 1;
  }
  return 0;
}
