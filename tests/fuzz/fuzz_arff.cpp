// ARFF text: the reader returns a table or refuses the file with a runtime error; what loads is
// grown into a tree.
#include <cstddef>
#include <cstdint>
#include <stdexcept>

#include "brix/data.h"
#include "tests/fuzz/fuzz_input.h"

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
  fuzz::memory_file file(data, size);
  std::unique_ptr<brix::table> t;
  try {
    t = brix::read_arff(file.path());
  } catch (std::runtime_error const&) {
    return 0;
  }
  fuzz::train_and_predict(*t);
  return 0;
}
