// JSON of the whole tree: names, classes, attributes with their values, then the nodes nested
// (docs/json-model.md describes it).
#include <cstdio>
#include <ostream>
#include <string>
#include <vector>

#include "brix/tree_writer.h"
#include "brix/writers/shared.h"
#include "brix/writers/tree_view.h"

namespace brix {

std::string json_string(std::string const& s) {
  std::string out = "\"";
  for (unsigned char c : s) {
    if (c == '"' || c == '\\') {
      out += '\\';
      out += static_cast<char>(c);
    } else if (c < 0x20) {
      char buf[8];
      std::snprintf(buf, sizeof buf, "\\u%04x", c);
      out += buf;
    } else {
      out += static_cast<char>(c);
    }
  }
  return out + "\"";
}

namespace writers {

namespace {

void json_node(tree_view const& v, _decision_tree const& t, std::ostream& out) {
  _decision_node const& n = *t.get_node();
  out << "{\"weight\":" << num(n.get_cases_weight())
      << ",\"class\":" << json_string(v.leaf_class(n)) << ",\"distribution\":[";
  std::vector<float> const& d = n.get_class_distribution();
  for (std::size_t c = 1; c < d.size(); ++c)
    out << (c > 1 ? "," : "") << num(d[c]);
  out << "],\"error\":" << num(n.get_error());
  if (v.split(t)) {
    impls::column const* c = v.att(n);
    bool groups = n.get_value_groups() != nullptr;
    out << ",\"attribute\":" << json_string(c->get_name()) << ",\"test\":"
        << (c->is_continuous() ? "\"threshold\""
            : groups           ? "\"subset\""
                               : "\"value\"")
        << ",\"branches\":[";
    bool first = true;
    for (unsigned long i = 0; i < t.get_no_childs(); ++i) {
      if (t.get_child(i) == nullptr || t.get_child(i)->get_node() == nullptr) continue;
      out << (first ? "" : ",");
      if (groups) {
        out << "{\"operator\":\"in\",\"values\":[";
        std::vector<std::string> values = v.branch_values(n, i);
        for (std::size_t k = 0; k < values.size(); ++k)
          out << (k ? "," : "") << json_string(values[k]);
        out << "],\"node\":";
      } else {
        auto b = v.branch(n, i);
        out << "{\"operator\":" << json_string(b.first) << ",\"value\":" << json_string(b.second)
            << ",\"node\":";
      }
      json_node(v, *t.get_child(i), out);
      out << "}";
      first = false;
    }
    out << "]";
  }
  out << "}";
}

class json_writer : public tree_writer {
 public:
  using tree_writer::write;
  void write(tree_output const& src, std::ostream& out) const override {
    impls::decision_tree const& t = src.tree;
    impls::table const& meta = *t.get_metadata();
    tree_view v(t);
    out << "{\"format\":\"brix-tree\",\"version\":1,\"name\":" << json_string(t.get_name())
        << ",\"class\":" << json_string(meta.get_class()->get_name()) << ",\"classes\":[";
    for (std::size_t c = 0; c < v.classes.size(); ++c)
      out << (c ? "," : "") << json_string(v.classes[c]);
    out << "],\"attributes\":[";
    for (unsigned long a = 0; a < meta.get_no_attributes(); ++a) {
      impls::column const* c = meta.get_attribute(a);
      out << (a ? "," : "") << "{\"name\":" << json_string(c->get_name())
          << ",\"kind\":" << json_string(c->get_type())
          << ",\"type\":" << json_string(c->get_o_set()->get_datatype());
      if (c->is_discrete()) {
        out << ",\"values\":[";
        for (unsigned long o = 1; o <= c->get_distinct(); ++o)
          out << (o > 1 ? "," : "") << json_string(c->get_o_set()->get_value(o));
        out << "]";
      }
      out << "}";
    }
    out << "],\"tree\":";
    json_node(v, *t.get_root(), out);
    out << "}\n";
  }
};

}  // namespace

tree_writer const& json() {
  static json_writer const w;
  return w;
}

}  // namespace writers
}  // namespace brix
