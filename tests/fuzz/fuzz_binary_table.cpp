// Binary table files: any bytes give a table that holds together, or a runtime error.
#include <cstddef>
#include <cstdint>
#include <memory>
#include <sstream>
#include <stdexcept>

#include "brix/brix.h"
#include "tests/fuzz/fuzz_input.h"

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
  fuzz::memory_file file(data, size);
  try {
    std::unique_ptr<brix::table> t(brix::table::fromBinary(file.path()));
    std::ostringstream xml;
    t->toXML_data_dictionary(xml);
    t->toXML_mining_schema(xml);
    if (t->get_no_rows() > 0 && t->get_no_rows() < 5000) {
      brix::dtree tree("fuzz");
      tree.build(t.get(), nullptr, true, 0);
    }
  } catch (std::runtime_error const&) {
  }
  return 0;
}
