// PMML 4.4: the data dictionary with types and values, the mining schema, the tree with record
// counts and class distributions; unknown values are aggregated over the branches, as the tree
// itself does. Indented two spaces a level; names and values escaped.
#include <ostream>
#include <string>
#include <vector>

#include "brix/tree_writer.h"
#include "brix/writers/tree_view.h"

namespace brix {
namespace writers {

std::string xml_escape(std::string const& s) {
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

std::string set_predicate(std::string const& field, std::vector<std::string> const& values) {
  std::string array;
  for (std::string const& value : values) {
    if (!array.empty()) array += ' ';
    array += '"';
    for (char ch : value) {
      if (ch == '"' || ch == '\\') array += '\\';
      array += ch;
    }
    array += '"';
  }
  return "<SimpleSetPredicate field=\"" + xml_escape(field) +
         "\" booleanOperator=\"isIn\"><Array n=\"" + std::to_string(values.size()) +
         "\" type=\"string\">" + xml_escape(array) + "</Array></SimpleSetPredicate>";
}

namespace {

void pmml_node(tree_view const& v, _decision_tree const& t, std::ostream& out,
               std::string const& pred, unsigned long& id, int depth) {
  _decision_node const& n = *t.get_node();
  std::string pad(static_cast<std::size_t>(depth) * 2, ' ');
  out << pad << "<Node id=\"" << ++id << "\" score=\"" << xml_escape(v.leaf_class(n))
      << "\" recordCount=\"" << num(n.get_cases_weight()) << "\">\n"
      << pad << "  " << pred << "\n";
  std::vector<float> const& d = n.get_class_distribution();
  for (std::size_t c = 1; c < d.size() && c <= v.classes.size(); ++c)
    out << pad << "  <ScoreDistribution value=\"" << xml_escape(v.classes[c - 1])
        << "\" recordCount=\"" << num(d[c]) << "\"/>\n";
  if (v.split(t)) {
    std::string field = xml_escape(v.att(n)->get_name());
    for (unsigned long i = 0; i < t.get_no_childs(); ++i) {
      if (t.get_child(i) == nullptr || t.get_child(i)->get_node() == nullptr) continue;
      if (n.get_value_groups() != nullptr) {
        pmml_node(v, *t.get_child(i), out,
                  set_predicate(v.att(n)->get_name(), v.branch_values(n, i)), id, depth + 1);
        continue;
      }
      auto b = v.branch(n, i);
      char const* op = b.first[0] == '='   ? "equal"
                       : b.first[1] == '=' ? "lessOrEqual"
                                           : "greaterThan";
      pmml_node(v, *t.get_child(i), out,
                "<SimplePredicate field=\"" + field + "\" operator=\"" + op + "\" value=\"" +
                    xml_escape(b.second) + "\"/>",
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

class pmml_writer : public tree_writer {
 public:
  using tree_writer::write;
  void write(tree_output const& src, std::ostream& out) const override {
    impls::decision_tree const& t = src.tree;
    impls::table const& meta = *t.get_metadata();
    tree_view v(t);
    out << "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
        << "<PMML xmlns=\"http://www.dmg.org/PMML-4_4\" version=\"4.4\">\n"
        << "  <Header description=\"" << xml_escape(t.get_name()) << "\">\n"
        << "    <Application name=\"Brix\" version=\"" << get_version() << "\"/>\n"
        << "  </Header>\n";
    std::vector<impls::column const*> cols;
    for (unsigned long i = 0; i < meta.get_no_columns(); ++i)
      if (!meta.get_column(i)->is_ignore()) cols.push_back(meta.get_column(i));
    out << "  <DataDictionary numberOfFields=\"" << cols.size() << "\">\n";
    for (impls::column const* c : cols) {
      bool categorical = c->is_discrete() || c->is_class();
      out << "    <DataField name=\"" << xml_escape(c->get_name()) << "\" optype=\""
          << (categorical ? "categorical" : "continuous") << "\" dataType=\""
          << (categorical ? "string" : pmml_type(c)) << "\"";
      if (!categorical) {
        out << "/>\n";
        continue;
      }
      out << ">\n";
      for (unsigned long o = 1; o <= c->get_distinct(); ++o)
        out << "      <Value value=\"" << xml_escape(c->get_o_set()->get_value(o)) << "\"/>\n";
      out << "    </DataField>\n";
    }
    out << "  </DataDictionary>\n"
        << "  <TreeModel modelName=\"" << xml_escape(t.get_name())
        << "\" functionName=\"classification\" splitCharacteristic=\"multiSplit\""
        << " missingValueStrategy=\"aggregateNodes\" "
           "noTrueChildStrategy=\"returnLastPrediction\">\n"
        << "    <MiningSchema>\n";
    for (impls::column const* c : cols) {
      char const* usage = c->is_class() ? "target" : c->is_weights() ? "analysisWeight" : "active";
      out << "      <MiningField name=\"" << xml_escape(c->get_name()) << "\" usageType=\"" << usage
          << "\"/>\n";
    }
    out << "    </MiningSchema>\n";
    unsigned long id = 0;
    pmml_node(v, *t.get_root(), out, "<True/>", id, 2);
    out << "  </TreeModel>\n</PMML>\n";
  }
};

}  // namespace

tree_writer const& pmml() {
  static pmml_writer const w;
  return w;
}

}  // namespace writers
}  // namespace brix
