// The outputs of a trained tree behind one interface, and the table of them by format name that
// brixcmd, brix and the Python package all choose from. A new format is one writer in
// brix/writers/ and one row in the table (brix/writers/formats.cpp).
#ifndef BRIX_TREE_WRITER_H
#define BRIX_TREE_WRITER_H

#include <functional>
#include <iosfwd>
#include <string>
#include <vector>

#include "brix/brix.h"

namespace brix {

// What a writer is given: the tree, and what some formats add to it.
struct tree_output {
  tree_output(impls::decision_tree const& t, impls::conf_matrix const* test_matrix = nullptr,
              long depth = -1)
      : tree(t), test(test_matrix), max_depth(depth) {}
  tree_output(dtree const& t, conf_matrix const* test_matrix = nullptr, long depth = -1)
      : tree_output(*t.get_impl(), test_matrix ? test_matrix->get_impl() : nullptr, depth) {}

  impls::decision_tree const& tree;
  impls::conf_matrix const* test;  // brixcmd's XML lists the last test matrix after the tree
  long max_depth;                  // DOT: split nodes deeper than this cut to a summary leaf
};

class tree_writer {
 public:
  virtual ~tree_writer() = default;
  // The whole document to out. Binary formats throw std::logic_error: they write files only.
  virtual void write(tree_output const& t, std::ostream& out) const;
  // The document to the file at path, written in place (write_replacing makes it atomic).
  // Text formats go through write(ostream); errors are std::runtime_error "File PATH: ...".
  virtual void write(tree_output const& t, std::string const& path) const;
};

struct output_format {
  char const* name;       // as --format and the Python package spell it
  char const* extension;  // with its dot
  bool binary;
  bool brixcmd_only;  // brixcmd's own documents, kept as it has always written them
  tree_writer const* writer;
};

// Every format, in the order help and messages list them.
std::vector<output_format> const& output_formats();
// Throws std::invalid_argument naming the known formats when there is no such format.
output_format const& output_format_named(std::string const& name);

// Calls write with the name to write: path + ".part", renamed onto path once write returned, so
// that a reader never sees half a file. A device or a pipe is written in place: nothing can be
// renamed onto it. When write throws, the part is removed and the exception passes on; when the
// rename fails, std::runtime_error "File PATH: " + rename_error.
void write_replacing(std::string const& path,
                     std::function<void(std::string const& target)> const& write,
                     std::string const& rename_error);

}  // namespace brix

#endif
