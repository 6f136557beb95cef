// The exports of a trained tree for other programs: PMML 4.4, escaped DOT and JSON. brixcmd's
// own PMML and DOT writers are left as they are.
#include <cmath>
#include <cstdio>
#include <ostream>
#include <sstream>
#include <string>
#include <vector>

#include "brix/impls/decision_tree.h"
#include "brix/impls/table.h"
#include "brix/model.h"

namespace brix {

namespace {

using impls::_decision_node;
using impls::_decision_tree;

std::string xml(std::string const& s) {
  std::string out;
  for (char c : s) {
    switch (c) {
      case '&':
        out += "&amp;";
        break;
      case '<':
        out += "&lt;";
        break;
      case '>':
        out += "&gt;";
        break;
      case '"':
        out += "&quot;";
        break;
      case '\'':
        out += "&apos;";
        break;
      default:
        out += c;
    }
  }
  return out;
}

std::string dot(std::string const& s) {
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

// Shortest text that reads back to the same number.
std::string num(double v) {
  std::ostringstream o;
  o.precision(9);
  o << v;
  return o.str();
}

struct view {
  impls::decision_tree const& tree;
  impls::table const& meta;
  std::vector<std::string> classes;

  impls::column const* att(_decision_node const& n) const {
    return meta.get_attribute(n.get_split_attribute_index());
  }
  bool split(_decision_tree const& t) const {
    return t.get_node()->get_node_status() == _decision_node::SPLIT_NODE;
  }
  std::string leaf_class(_decision_node const& n) const {
    unsigned long c = split_or_leaf_class(n);
    return c >= 1 && c <= classes.size() ? classes[c - 1] : "?";
  }
  unsigned long split_or_leaf_class(_decision_node const& n) const {
    return n.get_node_status() == _decision_node::LEAF_NODE ? n.get_leaf()
                                                            : n.get_most_frequent_class();
  }
  // The test of branch i of a split, as (operator, value text).
  std::pair<char const*, std::string> branch(_decision_node const& n, unsigned long i) const {
    impls::column const* c = att(n);
    if (c->is_continuous()) return {i == 0 ? "<=" : ">", n.get_threshold()};
    return {"=", c->get_o_set()->get_value(i + 1)};
  }
};

void pmml_node(view const& v, _decision_tree const& t, std::ostream& out, std::string const& pred,
               unsigned long& id, int depth) {
  _decision_node const& n = *t.get_node();
  std::string pad(static_cast<std::size_t>(depth) * 2, ' ');
  out << pad << "<Node id=\"" << ++id << "\" score=\"" << xml(v.leaf_class(n))
      << "\" recordCount=\"" << num(n.get_cases_weight()) << "\">\n"
      << pad << "  " << pred << "\n";
  std::vector<float> const& d = n.get_class_distribution();
  for (std::size_t c = 1; c < d.size() && c <= v.classes.size(); ++c)
    out << pad << "  <ScoreDistribution value=\"" << xml(v.classes[c - 1]) << "\" recordCount=\""
        << num(d[c]) << "\"/>\n";
  if (v.split(t)) {
    std::string field = xml(v.att(n)->get_name());
    for (unsigned long i = 0; i < t.get_no_childs(); ++i) {
      if (t.get_child(i) == nullptr || t.get_child(i)->get_node() == nullptr) continue;
      auto b = v.branch(n, i);
      char const* op = b.first[0] == '='   ? "equal"
                       : b.first[1] == '=' ? "lessOrEqual"
                                           : "greaterThan";
      pmml_node(v, *t.get_child(i), out,
                "<SimplePredicate field=\"" + field + "\" operator=\"" + op + "\" value=\"" +
                    xml(b.second) + "\"/>",
                id, depth + 1);
    }
  }
  out << pad << "</Node>\n";
}

char const* pmml_type(impls::column const* c) {
  std::string const& t = c->get_o_set()->get_datatype();
  if (t == "integer" || t == "uinteger") return "integer";
  if (t == "float") return "float";
  if (t == "double") return "double";
  return "string";
}

void json_node(view const& v, _decision_tree const& t, std::ostream& out) {
  _decision_node const& n = *t.get_node();
  out << "{\"weight\":" << num(n.get_cases_weight())
      << ",\"class\":" << json_string(v.leaf_class(n)) << ",\"distribution\":[";
  std::vector<float> const& d = n.get_class_distribution();
  for (std::size_t c = 1; c < d.size(); ++c)
    out << (c > 1 ? "," : "") << num(d[c]);
  out << "],\"error\":" << num(n.get_error());
  if (v.split(t)) {
    impls::column const* c = v.att(n);
    out << ",\"attribute\":" << json_string(c->get_name())
        << ",\"test\":" << (c->is_continuous() ? "\"threshold\"" : "\"value\"")
        << ",\"branches\":[";
    bool first = true;
    for (unsigned long i = 0; i < t.get_no_childs(); ++i) {
      if (t.get_child(i) == nullptr || t.get_child(i)->get_node() == nullptr) continue;
      auto b = v.branch(n, i);
      out << (first ? "" : ",") << "{\"operator\":" << json_string(b.first)
          << ",\"value\":" << json_string(b.second) << ",\"node\":";
      json_node(v, *t.get_child(i), out);
      out << "}";
      first = false;
    }
    out << "]";
  }
  out << "}";
}

char const* const kColours[] = {"#8dd3c7", "#ffffb3", "#bebada", "#fb8072", "#80b1d3", "#fdb462",
                                "#b3de69", "#fccde5", "#d9d9d9", "#bc80bd", "#ccebc5", "#ffed6f"};

void dot_node(view const& v, _decision_tree const& t, std::ostream& out, unsigned long& id,
              long depth, long max_depth) {
  _decision_node const& n = *t.get_node();
  unsigned long me = ++id;
  unsigned long cls = v.split_or_leaf_class(n);
  char const* colour = kColours[(cls == 0 ? 0 : cls - 1) % (sizeof kColours / sizeof kColours[0])];
  std::ostringstream counts;
  std::vector<float> const& d = n.get_class_distribution();
  for (std::size_t c = 1; c < d.size() && c <= v.classes.size(); ++c)
    if (d[c] > 0) counts << "\\n" << dot(v.classes[c - 1]) << ": " << num(d[c]);
  bool cut = v.split(t) && max_depth >= 0 && depth >= max_depth;
  if (v.split(t) && !cut) {
    out << "  n" << me << " [shape=box, label=\"" << dot(v.att(n)->get_name()) << "\"];\n";
  } else {
    out << "  n" << me << " [shape=ellipse, style=filled, fillcolor=\"" << colour << "\", label=\""
        << (cut ? "...\\n" : "") << dot(v.leaf_class(n)) << counts.str() << "\"];\n";
    return;
  }
  for (unsigned long i = 0; i < t.get_no_childs(); ++i) {
    if (t.get_child(i) == nullptr || t.get_child(i)->get_node() == nullptr) continue;
    auto b = v.branch(n, i);
    unsigned long child = id + 1;
    dot_node(v, *t.get_child(i), out, id, depth + 1, max_depth);
    out << "  n" << me << " -> n" << child << " [label=\""
        << dot(std::string(b.first) + " " + b.second) << "\"];\n";
  }
}

}  // namespace

void tree_model::write_pmml(std::ostream& out) const {
  impls::decision_tree const& t = *tree_->get_impl();
  impls::table const& meta = *t.get_metadata();
  view v{t, meta, classes()};
  out << "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
      << "<PMML xmlns=\"http://www.dmg.org/PMML-4_4\" version=\"4.4\">\n"
      << "  <Header description=\"" << xml(t.get_name()) << "\">\n"
      << "    <Application name=\"Brix\" version=\"" << get_version() << "\"/>\n"
      << "  </Header>\n";
  std::vector<impls::column const*> cols;
  for (unsigned long i = 0; i < meta.get_no_columns(); ++i)
    if (!meta.get_column(i)->is_ignore()) cols.push_back(meta.get_column(i));
  out << "  <DataDictionary numberOfFields=\"" << cols.size() << "\">\n";
  for (impls::column const* c : cols) {
    bool categorical = c->is_discrete() || c->is_class();
    out << "    <DataField name=\"" << xml(c->get_name()) << "\" optype=\""
        << (categorical ? "categorical" : "continuous") << "\" dataType=\""
        << (categorical ? "string" : pmml_type(c)) << "\"";
    if (!categorical) {
      out << "/>\n";
      continue;
    }
    out << ">\n";
    for (unsigned long o = 1; o <= c->get_distinct(); ++o)
      out << "      <Value value=\"" << xml(c->get_o_set()->get_value(o)) << "\"/>\n";
    out << "    </DataField>\n";
  }
  out << "  </DataDictionary>\n"
      << "  <TreeModel modelName=\"" << xml(t.get_name())
      << "\" functionName=\"classification\" splitCharacteristic=\"multiSplit\""
      << " missingValueStrategy=\"aggregateNodes\" noTrueChildStrategy=\"returnLastPrediction\">\n"
      << "    <MiningSchema>\n";
  for (impls::column const* c : cols) {
    char const* usage = c->is_class() ? "target" : c->is_weights() ? "analysisWeight" : "active";
    out << "      <MiningField name=\"" << xml(c->get_name()) << "\" usageType=\"" << usage
        << "\"/>\n";
  }
  out << "    </MiningSchema>\n";
  unsigned long id = 0;
  pmml_node(v, *t.get_root(), out, "<True/>", id, 2);
  out << "  </TreeModel>\n</PMML>\n";
}

void tree_model::write_dot(std::ostream& out, long max_depth) const {
  impls::decision_tree const& t = *tree_->get_impl();
  view v{t, *t.get_metadata(), classes()};
  out << "digraph " << json_string(t.get_name()) << " {\n  node [fontname=\"Helvetica\"];\n";
  unsigned long id = 0;
  dot_node(v, *t.get_root(), out, id, 0, max_depth);
  out << "}\n";
}

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

void tree_model::write_json(std::ostream& out) const {
  impls::decision_tree const& t = *tree_->get_impl();
  impls::table const& meta = *t.get_metadata();
  view v{t, meta, classes()};
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

}  // namespace brix
