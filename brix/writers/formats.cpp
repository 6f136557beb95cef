// The table of output formats, the writers' shared defaults and the atomic file helper.
#include <sys/stat.h>

#include <cstdio>
#include <fstream>
#include <stdexcept>

#include "brix/tree_writer.h"

namespace brix {

namespace writers {
// Each is defined in its own file beside this one.
tree_writer const& text();
tree_writer const& dot();
tree_writer const& pmml();
tree_writer const& json();
tree_writer const& binary();
tree_writer const& brixcmd_xml();
tree_writer const& brixcmd_dot();
}  // namespace writers

std::vector<output_format> const& output_formats() {
  static std::vector<output_format> const table = {
      {"text", ".txt", false, false, &writers::text()},
      {"dot", ".dot", false, false, &writers::dot()},
      {"pmml", ".pmml", false, false, &writers::pmml()},
      {"json", ".json", false, false, &writers::json()},
      {"binary", ".tree", true, false, &writers::binary()},
      {"brixcmd-xml", ".xml", false, true, &writers::brixcmd_xml()},
      {"brixcmd-dot", ".dot", false, true, &writers::brixcmd_dot()},
  };
  return table;
}

output_format const& output_format_named(std::string const& name) {
  std::string known;
  for (output_format const& f : output_formats()) {
    if (name == f.name) return f;
    known += (known.empty() ? "" : ", ") + std::string(f.name);
  }
  throw std::invalid_argument("unknown output format '" + name + "' (known: " + known + ")");
}

void tree_writer::write(tree_output const&, std::ostream&) const {
  throw std::logic_error("a binary format is written to a file, not to a stream");
}

void tree_writer::write(tree_output const& t, std::string const& path) const {
  std::ofstream out(path);
  if (!out) throw std::runtime_error("File " + path + ": cannot be opened for writing");
  write(t, out);
  if (!out.flush()) throw std::runtime_error("File " + path + ": error writing output");
}

void write_replacing(std::string const& path,
                     std::function<void(std::string const& target)> const& write,
                     std::string const& rename_error) {
  struct stat st;
  bool special = ::stat(path.c_str(), &st) == 0 && !S_ISREG(st.st_mode);
  std::string part = special ? path : path + ".part";
  try {
    write(part);
  } catch (...) {
    // Only a file: a directory of that name was never ours.
    if (!special && ::stat(part.c_str(), &st) == 0 && S_ISREG(st.st_mode))
      std::remove(part.c_str());
    throw;
  }
  if (!special && std::rename(part.c_str(), path.c_str()) != 0) {
    std::remove(part.c_str());
    throw std::runtime_error("File " + path + ": " + rename_error);
  }
}

}  // namespace brix
