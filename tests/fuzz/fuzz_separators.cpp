// The first byte is the separator of both the metadata and the rows that follow.
#include <cstddef>
#include <cstdint>
#include <string>

#include "tests/fuzz/fuzz_input.h"

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
  if (size == 0) return 0;
  char sep = static_cast<char>(data[0]);
  std::string names = std::string("u") + sep + "uinteger" + sep + "continuous\nd" + sep + "string" +
                      sep + "discrete\nk" + sep + "string" + sep + "class\n";
  fuzz::grow_and_predict(names, data + 1, size - 1, sep);
  return 0;
}
