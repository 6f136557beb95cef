// brix import: CSV text that reads is written as a .names/.data pair, and the pair reads back as
// the same table (names, kinds, types, every value, row order).
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <stdexcept>
#include <string>

#include "brix/brix.h"
#include "brix/data.h"
#include "brix/impls/storage/table.h"
#include "cmd/brix_import.h"
#include "tests/fuzz/fuzz_input.h"

namespace {

void differ(std::string const& what) {
  std::fprintf(stderr, "import changed the table: %s\n", what.c_str());
  std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
  static fuzz::scratch_dir dir;
  std::string csv = dir.path() + "/in.csv", stem = dir.path() + "/out";
  std::ofstream(csv, std::ios::binary | std::ios::trunc)
      .write(reinterpret_cast<char const*>(data), static_cast<std::streamsize>(size));
  std::unique_ptr<brix::table> before;
  try {
    before = brix::read_table(csv);
  } catch (std::runtime_error const&) {
    return 0;
  }
  try {
    brix_import(csv, stem, "", brix::read_options(), true);
  } catch (std::runtime_error const& e) {
    // brixcmd's format cannot carry everything (a '#' in a name, for one): a refusal, not a
    // different table.
    return 0;
  }
  // The pair is read as brixcmd reads it, with the separator import chose: the character before
  // the kind that ends the first line of the .names file.
  std::string first;
  std::getline(std::ifstream(stem + ".names"), first);
  std::size_t kind = first.find_last_of(",;:|^~!@$%&*+=/\\`'?<>\t ");
  for (char const* k : {"discrete", "continuous", "class", "weights", "ignore"}) {
    std::size_t n = std::strlen(k);
    if (first.size() > n && first.compare(first.size() - n, n, k) == 0) kind = first.size() - n - 1;
  }
  std::string sep(1, kind < first.size() ? first[kind] : ',');
  auto after = std::make_unique<brix::table>(stem);
  after->load_meta_data(brix::datasource("FILE#" + stem + ".names#" + sep));
  after->load_data(brix::datasource("FILE#" + stem + ".data#" + sep), "?");
  brix::impls::table const& a = *before->get_impl();
  brix::impls::table const& b = *after->get_impl();
  if (a.get_loaded_columns() != b.get_loaded_columns()) differ("column count");
  if (before->get_no_rows() != after->get_no_rows()) differ("row count");
  for (unsigned long j = 0; j < a.get_loaded_columns(); ++j) {
    brix::impls::column const* x = a.get_column(j);
    brix::impls::column const* y = b.get_column(j);
    // Names, like values, have their line breaks written as blanks (import says so).
    std::string name = x->get_name();
    std::replace(name.begin(), name.end(), '\n', ' ');
    std::replace(name.begin(), name.end(), '\r', ' ');
    if (name != y->get_name()) differ("name of column " + std::to_string(j));
    if (x->get_type() != y->get_type()) differ("kind of " + x->get_name());
    if (x->get_o_set()->get_datatype() != y->get_o_set()->get_datatype())
      differ("type of " + x->get_name());
    if (x->is_ignore()) continue;
    for (unsigned long r = 0; r < before->get_no_rows(); ++r) {
      bool known = x->get_row_index(r) != 0, kept = y->get_row_index(r) != 0;
      std::string v = known ? x->get_value(r) : "";
      // What import says it changes: line breaks become blanks, and an empty value of the last
      // column, which a .data line cannot end with, becomes unknown.
      std::replace(v.begin(), v.end(), '\n', ' ');
      std::replace(v.begin(), v.end(), '\r', ' ');
      if (known && !kept && v.empty() && j + 1 == a.get_loaded_columns()) continue;
      if (known != kept || (known && v != y->get_value(r)))
        differ(x->get_name() + ", row " + std::to_string(r));
    }
  }
  return 0;
}
