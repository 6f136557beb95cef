// Tables made from text written into a scratch directory, and tables of the example files.
#ifndef TESTS_BRIX_TABLE_FILES_H
#define TESTS_BRIX_TABLE_FILES_H

#include <functional>
#include <memory>
#include <stdexcept>
#include <string>

#include "brix/brix.h"
#include "brix/data.h"
#include "brix/impls/storage/table.h"
#include "tests/zel/inpout/scratch_dir.h"
#include "zel/inpout/stream.h"

class table_files : public scratch_dir {
 public:
  // A line stream over a file of the given text.
  zel::inpout::stream* source(std::string const& name, std::string const& text,
                              char sep = ',') const {
    return zel::inpout::stream::FROM_FILE(write(name, text), sep);
  }

  // A training table with the given metadata and no rows.
  std::unique_ptr<brix::impls::table> declared(std::string const& names,
                                               bool for_tree = true) const {
    auto t = std::make_unique<brix::impls::table>("t", for_tree);
    t->load_meta_data(source("t.names", names), true);
    return t;
  }

  // A training table with metadata and rows; "?" marks unknown values.
  std::unique_ptr<brix::impls::table> loaded(std::string const& names, std::string const& data,
                                             bool for_tree = true) const {
    auto t = declared(names, for_tree);
    t->load_data(source("t.data", data), "?", true);
    return t;
  }
};

// The examples beside the tests.
inline std::string const kExamples = std::string(BRIX_TEST_DATA) + "/../../examples/";

// The table of a stem's .names and the rows of stem + suffix (none for an empty suffix).
inline std::unique_ptr<brix::table> stem_table(std::string const& stem,
                                               std::string const& suffix = ".data") {
  auto t = std::make_unique<brix::table>("t");
  t->load_meta_data(brix::datasource("FILE#" + stem + ".names#,"));
  if (!suffix.empty()) t->load_data(brix::datasource("FILE#" + stem + suffix + "#,"), "?");
  return t;
}

// The message of a builder that add fills when build refuses it, or "(built)".
inline std::string builder_refusal(std::function<void(brix::table_builder&)> const& add) {
  try {
    brix::table_builder b("t");
    add(b);
    b.build();
  } catch (std::invalid_argument const& e) {
    return e.what();
  }
  return "(built)";
}

#endif
