// brixcmd's XML model document (-x): a PMML 2.0 tree with brixcmd's confusion matrices as
// extensions. Written line by line without indentation; names and values escaped. Its quirks (the
// space in "recordCount =", a field count that includes the extenders, a split's empty score) are
// kept deliberately: brixcmd's output does not change.
#include <iomanip>
#include <ostream>
#include <string>

#include "brix/impls/model/conf_matrix.h"
#include "brix/impls/model/decision_tree.h"
#include "brix/impls/storage/table.h"
#include "brix/tree_writer.h"
#include "brix/writers/shared.h"
#include "zel/util/string_util.h"

namespace brix {
namespace writers {

using impls::_decision_node;
using impls::_decision_tree;
using impls::column;

namespace {

std::string xml(std::string const& s) {
  return zel::util::string_util::toXML(s);
}

std::string class_value(impls::table const& meta, unsigned long order) {
  return meta.get_class()->get_o_set()->get_value(order);
}

// Switches the stream to three fixed decimals, which stay for the rest of the document.
void class_distribution(_decision_node const& n, impls::table const& meta, std::ostream& out) {
  out << std::fixed << std::setprecision(3);
  unsigned long classes = meta.get_class()->get_distinct();
  std::vector<float> const& d = n.get_class_distribution();
  for (unsigned long c = 1; c <= classes && c < d.size(); ++c) {
    out << "<ScoreDistribution value=\"" << xml(class_value(meta, c)) << "\" recordCount =\""
        << d[c] << "\" />" << '\n';
  }
}

// The predicate that leads to the node, then its class distribution.
void node_body(_decision_node const& n, impls::table const& meta, std::ostream& out) {
  _decision_node const* father = n.get_father();
  if (father == nullptr) {
    out << "<True />" << '\n';
  } else {
    column const* col = meta.get_attribute(father->get_split_attribute_index());
    out << "<SimplePredicate field=\"" << xml(col->get_name()) << "\" operator=\"";
    if (col->is_continuous()) {
      out << (n.get_index() == 1 ? "lessOrEqual" : "greaterThan") << "\" value=\""
          << xml(father->get_threshold());
    } else {
      out << "equal\" value=\"" << xml(col->get_o_set()->get_value(n.get_index()));
    }
    out << "\" />" << '\n';
  }
  if (n.get_node_status() != _decision_node::UNDEFINED_NODE || n.is_activated())
    class_distribution(n, meta, out);
}

void node(_decision_tree const& t, impls::table const& meta, std::ostream& out) {
  _decision_node const* n = t.get_node();
  if (n == nullptr) return;
  out << "<Node score=\""
      << (n->get_node_status() == _decision_node::SPLIT_NODE
              ? ""
              : xml(class_value(meta, n->get_leaf())))
      << "\" recordCount=\"" << n->get_cases_count() << "\">" << '\n';
  node_body(*n, meta, out);
  for (unsigned long i = 0; i < t.get_no_childs(); ++i) {
    if (t.get_child(i) != nullptr) node(*t.get_child(i), meta, out);
  }
  out << "</Node>" << '\n';
}

class brixcmd_xml_writer : public tree_writer {
 public:
  using tree_writer::write;
  void write(tree_output const& src, std::ostream& out) const override {
    impls::decision_tree const& t = src.tree;
    impls::table const* meta = t.get_metadata();
    std::string version = get_version();
    out << "<PMML version=\"2.0\">" << '\n'
        << "<Header copyright=\"" << get_copyright() << "\">" << '\n'
        << "<Application name=\"Brix\" version=\"" << version << "\" />" << '\n'
        << "</Header>" << '\n';
    if (meta) xml_data_dictionary(*meta, out);
    out << "<TreeModel modelName=\"" << xml(t.get_name())
        << "\" functionName=\"classification\" algorithmName=\"Brix " << version << "\">" << '\n';
    if (meta) xml_mining_schema(*meta, out);
    if (t.get_root() && meta) node(*t.get_root(), *meta, out);
    out << "<Extension>" << '\n';
    if (t.get_prediction()) xml_matrix(*t.get_prediction(), "Training", out);
    if (src.test) xml_matrix(*src.test, "Test", out);
    out << "</Extension>" << '\n' << "</TreeModel>" << '\n' << "</PMML>" << '\n';
  }
};

}  // namespace

void xml_data_dictionary(impls::table const& meta, std::ostream& out) {
  out << "<DataDictionary numberOfFields=\"" << meta.get_no_columns() << "\">" << '\n';
  for (unsigned long i = 0; i < meta.get_no_columns(); ++i) {
    column const* c = meta.get_column(i);
    if (c->is_ignore() || c->is_weights()) {
      out << "<Extender name=\"" << xml(c->get_name()) << "\" value=\"" << c->get_type() << "\" />"
          << '\n';
    } else {
      out << "<DataField name=\"" << xml(c->get_name()) << "\" optype=\""
          << (c->is_continuous() ? "continuous" : "categorical") << "\" />" << '\n';
    }
  }
  out << "</DataDictionary>" << '\n';
}

void xml_mining_schema(impls::table const& meta, std::ostream& out) {
  out << "<MiningSchema>" << '\n';
  for (unsigned long i = 0; i < meta.get_no_columns(); ++i) {
    column const* c = meta.get_column(i);
    char const* usage = c->is_ignore() ? "supplementary" : c->is_class() ? "predicted" : "active";
    out << "<MiningField name=\"" << xml(c->get_name()) << "\" usageType=\"" << usage << "\" />"
        << '\n';
  }
  out << "</MiningSchema>" << '\n';
}

void xml_matrix(impls::conf_matrix const& m, std::string const& name, std::ostream& out) {
  std::vector<std::vector<float>> const& cells = m.cells();
  float total = 0.0f, miss = 0.0f;
  for (std::size_t i = 0; i < cells.size(); ++i) {
    for (std::size_t j = 0; j < cells[i].size(); ++j) {
      total += cells[i][j];
      if (i != j) miss += cells[i][j];
    }
  }
  float fraction = miss / total;
  out << "<X-ConfusionMatrix" << name << " x-incorrectlyInst = \"" << total * fraction
      << "\" x-incorrectlyInstPerc = \"" << fraction * 100 << "%\" x-totalInst = \"" << total
      << "\">" << '\n';
  // Index 0 is the unknown-class slot: only the known classes are listed.
  std::size_t k = cells.size();
  out << "<Array n=\"" << (k > 0 ? k - 1 : 0) << "\" type=\"string\">";
  for (std::size_t i = 1; i < k; ++i)
    out << (i > 1 ? " " : "") << '"' << xml(m.names()[i]) << '"';
  out << '\n' << "</Array>" << '\n' << "<Matrix>" << '\n';
  // Each array is one column of the stored matrix: the actual class i.
  for (std::size_t i = 1; i < k; ++i) {
    out << "<Array n=\"" << k - 1 << "\" type=\"real\">" << '\n';
    for (std::size_t r = 1; r < k; ++r)
      out << (r > 1 ? " " : "") << cells[r][i];
    out << '\n' << "</Array>" << '\n';
  }
  out << "</Matrix>" << '\n' << "</X-ConfusionMatrix" << name << ">" << '\n';
}

tree_writer const& brixcmd_xml() {
  static brixcmd_xml_writer const w;
  return w;
}

}  // namespace writers
}  // namespace brix
