// The tree as an XML model document and as a DOT graph. Both are written line
// by line without indentation; names and values are escaped in XML only.
#include <cmath>
#include <iomanip>
#include <ios>
#include <ostream>
#include <string>

#include "brix/brix.h"
#include "brix/impls/conf_matrix.h"
#include "brix/impls/decision_tree.h"
#include "brix/impls/table.h"
#include "zel/util/string_util.h"

namespace brix {
namespace impls {

namespace {

std::string xml(std::string const& s) {
  return zel::util::string_util::toXML(s);
}

std::string class_value(table* meta, unsigned long order) {
  return meta->get_class()->get_o_set()->get_value(order);
}

}  // namespace

// ---------------------------------------------------------------- XML

void table::toXML_data_dictionary(std::ostream& out) const {
  out << "<DataDictionary numberOfFields=\"" << columns_.size() << "\">" << '\n';
  for (column const* c : columns_) {
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

void table::toXML_mining_schema(std::ostream& out) const {
  out << "<MiningSchema>" << '\n';
  for (column const* c : columns_) {
    char const* usage = c->is_ignore() ? "supplementary" : c->is_class() ? "predicted" : "active";
    out << "<MiningField name=\"" << xml(c->get_name()) << "\" usageType=\"" << usage << "\" />"
        << '\n';
  }
  out << "</MiningSchema>" << '\n';
}

void conf_matrix::toXML(std::ostream& out, std::string const& name) const {
  float total = 0.0f, miss = 0.0f;
  for (std::size_t i = 0; i < cells_.size(); ++i) {
    for (std::size_t j = 0; j < cells_[i].size(); ++j) {
      total += cells_[i][j];
      if (i != j) miss += cells_[i][j];
    }
  }
  float fraction = miss / total;
  out << "<X-ConfusionMatrix" << name << " x-incorrectlyInst = \"" << total * fraction
      << "\" x-incorrectlyInstPerc = \"" << fraction * 100 << "%\" x-totalInst = \"" << total
      << "\">" << '\n';
  // Index 0 is the unknown-class slot: only the known classes are listed.
  std::size_t k = cells_.size();
  out << "<Array n=\"" << (k > 0 ? k - 1 : 0) << "\" type=\"string\">";
  for (std::size_t i = 1; i < k; ++i)
    out << (i > 1 ? " " : "") << '"' << xml(names_[i]) << '"';
  out << '\n' << "</Array>" << '\n' << "<Matrix>" << '\n';
  // Each array is one column of the stored matrix: the actual class i.
  for (std::size_t i = 1; i < k; ++i) {
    out << "<Array n=\"" << k - 1 << "\" type=\"real\">" << '\n';
    for (std::size_t r = 1; r < k; ++r)
      out << (r > 1 ? " " : "") << cells_[r][i];
    out << '\n' << "</Array>" << '\n';
  }
  out << "</Matrix>" << '\n' << "</X-ConfusionMatrix" << name << ">" << '\n';
}

void _decision_node::toXML(table* meta, std::ostream& out) const {
  if (father_ == nullptr) {
    out << "<True />" << '\n';
  } else {
    column const* col = meta->get_attribute(father_->leaf_or_att_);
    out << "<SimplePredicate field=\"" << xml(col->get_name()) << "\" operator=\"";
    if (col->is_continuous()) {
      out << (index_ == 1 ? "lessOrEqual" : "greaterThan") << "\" value=\""
          << xml(father_->partition_.threshold);
    } else {
      out << "equal\" value=\"" << xml(col->get_o_set()->get_value(index_));
    }
    out << "\" />" << '\n';
  }
  if (status_ != UNDEFINED_NODE || activated_) toXML_class_distribution(meta, out);
}

// Switches the stream to three fixed decimals, which stay for the rest of
// the document.
void _decision_node::toXML_class_distribution(table* meta, std::ostream& out) const {
  out << std::fixed << std::setprecision(3);
  unsigned long classes = meta->get_class()->get_distinct();
  for (unsigned long c = 1; c <= classes && c < class_distribution_.size(); ++c) {
    out << "<ScoreDistribution value=\"" << xml(class_value(meta, c)) << "\" recordCount =\""
        << class_distribution_[c] << "\" />" << '\n';
  }
}

void _decision_tree::toXML(table* meta, std::ostream& out) const {
  _decision_node const* n = get_node();
  if (n == nullptr) return;
  out << "<Node score=\""
      << (n->get_node_status() == _decision_node::SPLIT_NODE
              ? ""
              : xml(class_value(meta, n->get_leaf())))
      << "\" recordCount=\"" << n->get_cases_count() << "\">" << '\n';
  n->toXML(meta, out);
  for (unsigned long i = 0; i < get_no_childs(); ++i) {
    if (get_child(i) != nullptr) get_child(i)->toXML(meta, out);
  }
  out << "</Node>" << '\n';
}

void decision_tree::toXML(std::ostream& out, conf_matrix const* test) const {
  std::string version = get_version();
  out << "<PMML version=\"2.0\">" << '\n'
      << "<Header copyright=\"" << get_copyright() << "\">" << '\n'
      << "<Application name=\"Brix\" version=\"" << version << "\" />" << '\n'
      << "</Header>" << '\n';
  if (meta_) meta_->toXML_data_dictionary(out);
  out << "<TreeModel modelName=\"" << xml(name_)
      << "\" functionName=\"classification\" algorithmName=\"Brix " << version << "\">" << '\n';
  if (meta_) meta_->toXML_mining_schema(out);
  if (root_ && meta_) root_->toXML(meta_.get(), out);
  out << "<Extension>" << '\n';
  if (training_) training_->toXML(out, "Training");
  if (test) test->toXML(out, "Test");
  out << "</Extension>" << '\n' << "</TreeModel>" << '\n' << "</PMML>" << '\n';
}

// ---------------------------------------------------------------- DOT

namespace {

// A figure cut (not rounded) to two decimals, in single precision.
float cut2(float v) {
  return std::trunc(v * 100.0f) / 100.0f;
}

}  // namespace

unsigned long _decision_tree::toDOT(table* meta, std::ostream& out, unsigned long total,
                                    unsigned long id) const {
  _decision_node const* n = get_node();
  if (get_no_childs() == 0) {
    float share = cut2(static_cast<float>(n->get_cases_count()) / static_cast<float>(total));
    out << "n" << id << " [ shape=ellipse, label=\"" << class_value(meta, n->get_leaf()) << " ["
        << share << "%," << cut2(n->get_error()) << "%]\"]" << '\n';
    return id;
  }
  column const* col = meta->get_attribute(n->get_split_attribute_index());
  out << "n" << id << " [ shape=box, label=\"" << col->get_name() << "\\n\"]" << '\n';
  unsigned long last = id;
  for (unsigned long i = 0; i < get_no_childs(); ++i) {
    _decision_tree const* child = get_child(i);
    if (child == nullptr || child->get_node() == nullptr) continue;
    unsigned long child_id = last + 1;
    out << "n" << id << " -> n" << child_id << " [label=\"";
    if (col->is_continuous()) {
      out << (i == 0 ? "<=" : ">") << n->get_threshold();
    } else {
      out << col->get_o_set()->get_value(i + 1);
    }
    out << "\"]" << '\n';
    last = child->toDOT(meta, out, total, child_id);
  }
  return last;
}

void decision_tree::toDOT(std::ostream& out) const {
  out << "digraph Brix {" << '\n';
  _decision_node const* root = root_ ? root_->get_node() : nullptr;
  if (root != nullptr && meta_) {
    // The figures go out in the default float format, whatever the stream had.
    std::ios::fmtflags flags = out.flags();
    std::streamsize precision = out.precision();
    out.unsetf(std::ios::floatfield);
    out.precision(6);
    root_->toDOT(meta_.get(), out, root->get_cases_count(), 0);
    out.flags(flags);
    out.precision(precision);
  }
  out << "}" << '\n';
}

}  // namespace impls
}  // namespace brix
