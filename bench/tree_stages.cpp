// Times the stages of one default run separately: load, growing the unpruned
// tree, pruning it (default strategy), predicting the training cases and
// predicting a test file.
//
// Usage: tree_stages <names-file> <data-file> [<test-file>]   (data and test may be .gz)
// Prints one line of "key value" pairs:
//   load S grow S prune S train S test S size N depth N train_error P test_error P
// (test and test_error are "-" without a test file; errors are percentages).
#include <chrono>
#include <cstdio>
#include <exception>
#include <memory>
#include <string>

#include "brix/brix.h"
#include "brix/impls/model/conf_matrix.h"
#include "brix/impls/model/decision_tree.h"
#include "brix/impls/storage/table.h"
#include "zel/inpout/stream.h"

namespace {

using clock_type = std::chrono::steady_clock;

double seconds_since(clock_type::time_point t0) {
  return std::chrono::duration<double>(clock_type::now() - t0).count();
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3 && argc != 4) {
    std::fprintf(stderr, "usage: tree_stages <names-file> <data-file> [<test-file>]\n");
    return 2;
  }
  using brix::impls::decision_tree;
  try {
    auto t0 = clock_type::now();
    brix::table table("training_set");
    table.load_meta_data(brix::datasource(std::string("FILE#") + argv[1] + "#,"));
    table.load_data(brix::datasource(std::string("FILE#") + argv[2] + "#,"), "?");
    double load = seconds_since(t0);
    brix::impls::table* t = table.get_impl();

    decision_tree tree("tree_stages");
    tree.set_pruning_strategy(decision_tree::DT_PRUNING);
    t0 = clock_type::now();
    tree.build_unpruned(t, nullptr, false);
    double grow = seconds_since(t0);

    t0 = clock_type::now();
    tree.prune(t);
    double prune = seconds_since(t0);

    t0 = clock_type::now();
    std::unique_ptr<brix::impls::conf_matrix> training(tree.predict(t, nullptr));
    double train = seconds_since(t0);

    std::printf("load %.4f grow %.4f prune %.4f train %.4f", load, grow, prune, train);
    std::unique_ptr<brix::impls::conf_matrix> test;
    if (argc == 4) {
      t0 = clock_type::now();
      test.reset(tree.predict(
          zel::inpout::stream::FROM_READER(std::string("FILE#") + argv[3] + "#,"), true));
      std::printf(" test %.4f", seconds_since(t0));
    } else {
      std::printf(" test -");
    }
    std::printf(" size %lu depth %lu train_error %.3f", tree.size(), tree.depth(),
                100.0 * training->mis_perc());
    if (test)
      std::printf(" test_error %.3f\n", 100.0 * test->mis_perc());
    else
      std::printf(" test_error -\n");
  } catch (std::exception const& e) {
    std::fprintf(stderr, "tree_stages: %s\n", e.what());
    return 1;
  }
  return 0;
}
