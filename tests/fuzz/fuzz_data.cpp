// Data rows under a table of every column kind; what loads is grown into a tree and classified,
// so that values the loader accepts are also values the grower and the predictor survive.
#include <cstddef>
#include <cstdint>

#include "tests/fuzz/fuzz_input.h"

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
  fuzz::grow_and_predict(
      "i,integer,continuous\nf,float,continuous\nd,string,discrete\nx,string,ignore\n"
      "w,float,weights\nk,string,class\n",
      data, size, ',');
  return 0;
}
