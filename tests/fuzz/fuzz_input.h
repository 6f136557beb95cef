// Inputs for the fuzz harnesses: fuzzer bytes as a line stream or as a file that the binary
// readers can open by name, without touching the disk; and rows grown into trees.
#ifndef TESTS_FUZZ_FUZZ_INPUT_H
#define TESTS_FUZZ_FUZZ_INPUT_H

#include <sys/mman.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>

#include "brix/impls/model/conf_matrix.h"
#include "brix/impls/model/decision_tree.h"
#include "brix/impls/storage/table.h"
#include "brix/model.h"
#include "zel/inpout/iomem.h"
#include "zel/inpout/stream.h"

namespace fuzz {

// A line stream over the bytes (copied: the stream may write a terminator past a line).
inline zel::inpout::stream* memory_stream(std::uint8_t const* data, std::size_t size, char sep) {
  auto* mem = new zel::inpout::iomem();
  mem->open(size + 1);
  if (size > 0) mem->write(data, static_cast<int>(size));
  mem->lseek(0, zel::inpout::ioconn::SEEK_BEGIN);
  return new zel::inpout::stream(mem, true, sep, 4096);
}

// The bytes as an anonymous in-memory file, reachable as /proc/self/fd/N while it lives.
class memory_file {
 public:
  memory_file(std::uint8_t const* data, std::size_t size) : fd_(memfd_create("fuzz", 0)) {
    if (fd_ < 0) throw std::logic_error("memfd_create failed");
    std::size_t done = 0;
    while (done < size) {
      ssize_t put = ::write(fd_, data + done, size - done);
      if (put <= 0) throw std::logic_error("memfd write failed");
      done += static_cast<std::size_t>(put);
    }
  }
  ~memory_file() { ::close(fd_); }
  memory_file(memory_file const&) = delete;
  memory_file& operator=(memory_file const&) = delete;
  std::string path() const { return "/proc/self/fd/" + std::to_string(fd_); }

 private:
  int fd_;
};

// Loads rows under fixed metadata, then grows, prunes and classifies what loaded.
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

// Trains a tree on a loaded table (default options and no pruning) and classifies its rows.
inline void train_and_predict(brix::table& t) {
  if (t.get_impl()->get_class() == nullptr || t.get_no_rows() > 5000) return;
  try {
    for (brix::pruning p : {brix::pruning::error, brix::pruning::none}) {
      brix::tree_options o;
      o.prune = p;
      auto m = brix::tree_model::train(t, o);
      m->predict_proba(t);
      std::ostringstream out;
      m->write_text(out);
      m->write_json(out);
    }
  } catch (std::runtime_error const&) {
  }
}

// A directory of its own for the run, removed at the end.
class scratch_dir {
 public:
  scratch_dir() {
    char name[] = "/tmp/brix-fuzz-XXXXXX";
    if (::mkdtemp(name) == nullptr) throw std::logic_error("mkdtemp failed");
    path_ = name;
  }
  ~scratch_dir() { std::filesystem::remove_all(path_); }
  std::string const& path() const { return path_; }

 private:
  std::string path_;
};

}  // namespace fuzz

#endif
