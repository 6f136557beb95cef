// Tables made from text written into a scratch directory under /tmp.
#ifndef TESTS_BRIX_TABLE_FILES_H
#define TESTS_BRIX_TABLE_FILES_H

#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <memory>
#include <stdexcept>
#include <string>

#include "brix/impls/table.h"
#include "zel/inpout/stream.h"

class table_files {
 public:
  table_files() {
    char templ[] = "/tmp/brix_tables_XXXXXX";
    if (mkdtemp(templ) == nullptr) throw std::runtime_error("mkdtemp failed");
    dir_ = templ;
  }
  ~table_files() {
    std::error_code ec;
    std::filesystem::remove_all(dir_, ec);
  }
  table_files(table_files const&) = delete;
  table_files& operator=(table_files const&) = delete;

  std::string path(std::string const& name) const { return dir_ + "/" + name; }

  std::string write(std::string const& name, std::string const& text) const {
    std::string p = path(name);
    std::ofstream(p, std::ios::binary) << text;
    return p;
  }

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

 private:
  std::string dir_;
};

// The message of the runtime error that f throws, or "" when it throws none.
template <class F>
std::string error_of(F&& f) {
  try {
    f();
  } catch (std::runtime_error const& e) {
    return e.what();
  }
  return "";
}

#endif
