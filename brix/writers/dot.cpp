// Graphviz DOT, every label escaped; split nodes deeper than max_depth (when >= 0) are cut to one
// summary leaf each; leaves show their class counts, coloured by class.
#include <charconv>
#include <cstdlib>
#include <ostream>
#include <sstream>
#include <string>
#include <vector>

#include "brix/tree_writer.h"
#include "brix/writers/shared.h"
#include "brix/writers/tree_view.h"

namespace brix {
namespace writers {

namespace {

std::string escape(std::string const& s) {
  std::string out;
  for (char c : s) {
    if (c == '"' || c == '\\') out += '\\';
    if (c == '\n') {
      out += "\\n";
      continue;
    }
    out += c;
  }
  return out;
}

// A threshold as the shortest text that reads back to the same value of its column's type: a
// float threshold is stored with far more decimals than it holds.
std::string threshold_text(impls::column const& c, std::string const& text) {
  std::string const& type = c.get_o_set()->get_datatype();
  if (type != "float" && type != "double") return text;
  char* end = nullptr;
  double v = std::strtod(text.c_str(), &end);
  if (end == text.c_str() || *end != '\0') return text;
  char b[64];
  auto r = type == "float" ? std::to_chars(b, b + sizeof b, static_cast<float>(v))
                           : std::to_chars(b, b + sizeof b, v);
  return std::string(b, r.ptr);
}

char const* const kColours[] = {"#8dd3c7", "#ffffb3", "#bebada", "#fb8072", "#80b1d3", "#fdb462",
                                "#b3de69", "#fccde5", "#d9d9d9", "#bc80bd", "#ccebc5", "#ffed6f"};

void dot_node(tree_view const& v, _decision_tree const& t, std::ostream& out, unsigned long& id,
              long depth, long max_depth) {
  _decision_node const& n = *t.get_node();
  unsigned long me = ++id;
  unsigned long cls = v.split_or_leaf_class(n);
  char const* colour = kColours[(cls == 0 ? 0 : cls - 1) % (sizeof kColours / sizeof kColours[0])];
  std::ostringstream counts;
  std::vector<float> const& d = n.get_class_distribution();
  for (std::size_t c = 1; c < d.size() && c <= v.classes.size(); ++c)
    if (d[c] > 0) counts << "\\n" << escape(v.classes[c - 1]) << ": " << num(d[c]);
  bool cut = v.split(t) && max_depth >= 0 && depth >= max_depth;
  if (v.split(t) && !cut) {
    out << "  n" << me << " [shape=box, label=\"" << escape(v.att(n)->get_name()) << "\"];\n";
  } else {
    out << "  n" << me << " [shape=ellipse, style=filled, fillcolor=\"" << colour << "\", label=\""
        << (cut ? "...\\n" : "") << escape(v.leaf_class(n)) << counts.str() << "\"];\n";
    return;
  }
  for (unsigned long i = 0; i < t.get_no_childs(); ++i) {
    if (t.get_child(i) == nullptr || t.get_child(i)->get_node() == nullptr) continue;
    auto b = v.branch(n, i);
    if (v.att(n)->is_continuous()) b.second = threshold_text(*v.att(n), b.second);
    unsigned long child = id + 1;
    dot_node(v, *t.get_child(i), out, id, depth + 1, max_depth);
    out << "  n" << me << " -> n" << child << " [label=\""
        << escape(std::string(b.first) + " " + b.second) << "\"];\n";
  }
}

class dot_writer : public tree_writer {
 public:
  using tree_writer::write;
  void write(tree_output const& src, std::ostream& out) const override {
    impls::decision_tree const& t = src.tree;
    tree_view v(t);
    // The graph is not named after the data file: a path says nothing in a picture.
    out << "digraph tree {\n  node [fontname=\"Helvetica\"];\n  edge [fontname=\"Helvetica\"];\n";
    unsigned long id = 0;
    dot_node(v, *t.get_root(), out, id, 0, src.max_depth);
    out << "}\n";
  }
};

}  // namespace

tree_writer const& dot() {
  static dot_writer const w;
  return w;
}

}  // namespace writers
}  // namespace brix
