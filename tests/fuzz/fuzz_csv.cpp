// CSV and TSV text (the first byte picks the separator): the reader returns a table or refuses
// the file with a runtime error, and never refuses a value of a column it inferred as numbers;
// what loads is grown into a tree.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <stdexcept>
#include <string>

#include "brix/data.h"
#include "brix/model.h"
#include "tests/fuzz/fuzz_input.h"

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
  if (size == 0) return 0;
  brix::read_options o;
  o.separator = data[0] & 1 ? '\t' : ',';
  fuzz::memory_file file(data + 1, size - 1);
  std::unique_ptr<brix::table> t;
  try {
    t = brix::read_csv(file.path(), o);
  } catch (std::runtime_error const& e) {
    // Without overrides every column's type is inferred: a value refused by its type's parser
    // means inference and loader disagree.
    // The parsers' words end the message; a column's name, which may hold anything, comes
    // before them.
    std::string m = e.what();
    for (std::string refusal : {": not a float", ": not a double", "not an int",
                                "str2int:: overflow", "str2int:: a negative number provided."})
      if (m.size() >= refusal.size() &&
          m.compare(m.size() - refusal.size(), refusal.size(), refusal) == 0) {
        std::fprintf(stderr, "inferred column refused: %s\n", m.c_str());
        std::abort();
      }
    return 0;
  }
  fuzz::train_and_predict(*t);
  return 0;
}
