// Test and score rows against a tree grown once on the golf table of the examples.
#include <cstddef>
#include <cstdint>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>

#include "brix/impls/model/conf_matrix.h"
#include "brix/impls/model/decision_tree.h"
#include "brix/impls/storage/table.h"
#include "tests/fuzz/fuzz_input.h"

namespace {

// Grown once for the whole run.
struct golf {
  brix::impls::table table{"golf", true};
  brix::impls::decision_tree tree{"golf"};

  golf() {
    std::string stem = BRIX_EXAMPLES "/golf";
    table.load_meta_data(zel::inpout::stream::FROM_FILE(stem + ".names", ','), true);
    table.load_data(zel::inpout::stream::FROM_FILE(stem + ".data", ','), "?", true);
    std::unique_ptr<brix::impls::w_sequence> all(table.get_wsubset_all());
    tree.build_pruned(&table, all.get(), true, 0);
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
