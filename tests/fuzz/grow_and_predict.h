// Loads fuzzer rows under fixed metadata, then grows, prunes and classifies what loaded.
#ifndef TESTS_FUZZ_GROW_AND_PREDICT_H
#define TESTS_FUZZ_GROW_AND_PREDICT_H

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

namespace fuzz {

inline void grow_and_predict(std::string const& names, std::uint8_t const* data, std::size_t size,
                             char sep) {
  brix::impls::table t("fuzz", true);
  try {
    t.load_meta_data(
        memory_stream(reinterpret_cast<std::uint8_t const*>(names.data()), names.size(), sep),
        true);
    t.load_data(memory_stream(data, size, sep), "?", true);
    std::unique_ptr<brix::impls::w_sequence> all(t.get_wsubset_all());
    for (int strategy : {0, 1, 2}) {
      brix::impls::decision_tree tree("fuzz");
      tree.set_pruning_strategy(strategy);
      tree.build_pruned(&t, all.get(), true, 0);
      std::unique_ptr<brix::impls::conf_matrix> m(tree.predict(&t, all.get()));
      std::ostringstream text;
      tree.toTEXT(text, 0);
    }
  } catch (std::runtime_error const&) {
  }
}

}  // namespace fuzz

#endif
