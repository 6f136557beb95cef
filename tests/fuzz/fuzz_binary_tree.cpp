// Binary tree files: any bytes give a model that prints and classifies, or a runtime error.
#include <cstddef>
#include <cstdint>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "brix/brix.h"
#include "tests/fuzz/fuzz_input.h"

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
  fuzz::memory_file file(data, size);
  try {
    std::unique_ptr<brix::dtree> tree(brix::dtree::fromBinary(file.path()));
    std::ostringstream out;
    tree->toTEXT(out);
    tree->toXML(out, nullptr);
    tree->toDOT(out);
    std::unique_ptr<brix::conf_matrix> m(tree->get_prediction());
    std::vector<std::string> values(4, "?");
    tree->predict(values);
  } catch (std::runtime_error const&) {
  }
  return 0;
}
