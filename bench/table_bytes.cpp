// Bytes a loaded table needs at the least: its column storage (rows x width,
// one bit per row for bit columns) and its value sets (distinct values x
// element size, the text length for strings). bench/load.sh sets peak memory
// against these figures.
//
// Usage: table_bytes <file.names> <file.data> [separator]
// Prints "rows N", "columns BYTES", "sets BYTES", then one line per column.
#include <cstdio>
#include <exception>
#include <string>

#include "brix/impls/storage/column.h"
#include "brix/impls/storage/o_set.h"
#include "brix/impls/storage/table.h"
#include "zel/inpout/stream.h"

using brix::impls::column;
using brix::impls::storage_kind;

namespace {

unsigned long long column_bytes(column const& c, unsigned long long rows) {
  double bytes = brix::impls::storage_bytes(c.get_storage());
  return bytes < 1 ? (bytes > 0 ? (rows + 7) / 8 : 0)
                   : rows * static_cast<unsigned long long>(bytes);
}

unsigned long long set_bytes(brix::impls::o_set& s) {
  std::string const& type = s.get_datatype();
  unsigned long long k = s.size_of_known();
  if (type == "integer" || type == "float") return k * 4;
  if (type == "uinteger" || type == "double") return k * 8;
  if (type == "string") {
    unsigned long long bytes = 0;
    for (unsigned long o = 1; o <= k; ++o)
      bytes += s.get_value(o).size();
    return bytes;
  }
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 3) {
    std::fprintf(stderr, "usage: %s <file.names> <file.data> [separator]\n", argv[0]);
    return 2;
  }
  char sep = argc > 3 && argv[3][0] ? argv[3][0] : ',';
  try {
    brix::impls::table t("training_set", true);
    t.load_meta_data(zel::inpout::stream::FROM_FILE(argv[1], sep), true);
    t.load_data(zel::inpout::stream::FROM_FILE(argv[2], sep), "?", true);
    unsigned long long rows = t.get_no_rows(), columns = 0, sets = 0;
    std::string detail;
    for (unsigned long i = 0; i < t.get_no_columns(); ++i) {
      column const& c = *t.get_column(i);
      unsigned long long cb = column_bytes(c, rows), sb = set_bytes(*c.get_o_set());
      columns += cb;
      sets += sb;
      char line[256];
      std::snprintf(line, sizeof line, "column %s %s distinct %lu storage %llu set %llu\n",
                    c.get_name().c_str(), c.get_o_set()->get_datatype().c_str(), c.get_distinct(),
                    cb, sb);
      detail += line;
    }
    std::printf("rows %llu\ncolumns %llu\nsets %llu\n%s", rows, columns, sets, detail.c_str());
  } catch (std::exception const& e) {
    std::fprintf(stderr, "%s\n", e.what());
    return 1;
  }
  return 0;
}
