// Test and score rows against a tree grown once on the golf table.
#include <cstddef>
#include <cstdint>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>

#include "brix/impls/conf_matrix.h"
#include "brix/impls/decision_tree.h"
#include "brix/impls/table.h"
#include "tests/fuzz/fuzz_input.h"

namespace {

// Grown once for the whole run.
struct golf {
  brix::impls::table table{"golf", true};
  brix::impls::decision_tree tree{"golf"};

  golf() {
    std::string names =
        "outlook,string,discrete\ntemperature,integer,continuous\nhumidity,integer,continuous\n"
        "windy,string,discrete\nplay,string,class\n";
    std::string data =
        "sunny,85,85,FALSE,no\nsunny,80,90,TRUE,no\novercast,83,86,FALSE,yes\n"
        "rainy,70,96,FALSE,yes\nrainy,68,80,FALSE,yes\nrainy,65,70,TRUE,no\n"
        "overcast,64,65,TRUE,yes\nsunny,72,95,FALSE,no\nsunny,69,70,FALSE,yes\n"
        "rainy,75,80,FALSE,yes\nsunny,75,70,TRUE,yes\novercast,72,90,TRUE,yes\n"
        "overcast,81,75,FALSE,yes\nrainy,71,91,TRUE,no\n";
    table.load_meta_data(fuzz::memory_stream(bytes(names), names.size(), ','), true);
    table.load_data(fuzz::memory_stream(bytes(data), data.size(), ','), "?", true);
    std::unique_ptr<brix::impls::w_sequence> all(table.get_wsubset_all());
    tree.build_pruned(&table, all.get(), true, 0);
  }
  static std::uint8_t const* bytes(std::string const& s) {
    return reinterpret_cast<std::uint8_t const*>(s.data());
  }
};

brix::impls::decision_tree const& golf_tree() {
  static golf g;
  return g.tree;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
  auto const& tree = golf_tree();
  try {
    std::unique_ptr<brix::impls::conf_matrix> m(
        tree.predict(fuzz::memory_stream(data, size, ','), true));
  } catch (std::runtime_error const&) {
  }
  try {
    std::ostringstream scores;
    tree.evaluate(fuzz::memory_stream(data, size, ','), scores, ',', true);
  } catch (std::runtime_error const&) {
  }
  return 0;
}
