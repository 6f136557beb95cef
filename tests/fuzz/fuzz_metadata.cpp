// Metadata files: any bytes either declare columns or fail with a runtime error.
#include <cstddef>
#include <cstdint>
#include <stdexcept>

#include "brix/impls/storage/table.h"
#include "tests/fuzz/fuzz_input.h"

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
  brix::impls::table t("fuzz", true);
  try {
    t.load_meta_data(fuzz::memory_stream(data, size, ','), true);
  } catch (std::runtime_error const&) {
  }
  return 0;
}
