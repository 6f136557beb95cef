// The binary tree file, as brixcmd -tb writes and -bt reads it: gzip at level 1.
#include <sys/stat.h>

#include <cstdio>
#include <stdexcept>
#include <string>

#include "brix/impls/model/decision_tree.h"
#include "brix/tree_writer.h"
#include "brix/writers/shared.h"
#include "zel/inpout/binstream.h"

namespace brix {
namespace writers {

namespace {

class binary_writer : public tree_writer {
 public:
  using tree_writer::write;
  // A failed write leaves no partial regular file behind.
  void write(tree_output const& src, std::string const& path) const override {
    write_binary_file(path, [&](zel::inpout::obinstream& out) {
      // The presence flag of the model: a file always holds one. A tree split on groups of
      // values is flagged with a letter instead, which brixcmd's reader refuses.
      out << (src.tree.has_value_groups() ? kGroupsTag : static_cast<unsigned char>(1)) << src.tree;
    });
  }
};

}  // namespace

void write_binary_file(std::string const& file,
                       std::function<void(zel::inpout::obinstream&)> const& write) {
  try {
    zel::inpout::obinstream out(file, true, 1);
    write(out);
    if (!out.finish()) throw std::runtime_error("binary output failed");
  } catch (...) {
    struct stat st;
    if (::stat(file.c_str(), &st) == 0 && S_ISREG(st.st_mode)) std::remove(file.c_str());
    throw;
  }
}

tree_writer const& binary() {
  static binary_writer const w;
  return w;
}

}  // namespace writers
}  // namespace brix
