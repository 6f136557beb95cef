// Model files as brix predict and the Python package load them: any bytes give a model that
// prints in every format and classifies, or a runtime error.
#include <cstddef>
#include <cstdint>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "brix/model.h"
#include "tests/fuzz/fuzz_input.h"

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
  fuzz::memory_file file(data, size);
  try {
    auto m = brix::tree_model::load(file.path());
    std::ostringstream out;
    m->write_text(out);
    m->write_json(out);
    m->write_pmml(out);
    m->write_dot(out, 2);
    m->attribute_usage();
    m->importance();
    m->classes();
    std::vector<std::string> values(m->attributes().size(), "?");
    m->predict_proba(values);
    for (auto& v : values)
      v = "1";
    m->predict_proba(values);
  } catch (std::runtime_error const&) {
  } catch (std::invalid_argument const&) {
  }
  return 0;
}
