// Facade of the model outputs and of the binary table and tree files. Binary
// files are gzip files at level 1.
#include <memory>
#include <stdexcept>

#include "brix/brix.h"
#include "brix/impls/model/conf_matrix.h"
#include "brix/impls/model/decision_tree.h"
#include "brix/impls/storage/table.h"
#include "brix/rules.h"
#include "brix/tree_writer.h"
#include "brix/writers/shared.h"
#include "zel/inpout/binstream.h"

namespace brix {

namespace {

// A file holds one record; bytes after it, or a gzip trailer that does not
// check out, mean the file is not what it seems.
void check_end(zel::inpout::ibinstream& in, char const* what) {
  char c;
  if (in.get_ioconn()->read(&c, 1) != 0) {
    throw std::runtime_error(std::string(what) + ": damaged or unexpected data after the record");
  }
}

}  // namespace

void table::toXML_data_dictionary(std::ostream& out) const {
  writers::xml_data_dictionary(*impl_, out);
}
void table::toXML_mining_schema(std::ostream& out) const {
  writers::xml_mining_schema(*impl_, out);
}

void table::toBinary(std::string const& file) const {
  writers::write_binary_file(
      file, [&](zel::inpout::obinstream& out) { out << static_cast<impls::table const*>(impl_); });
}

table* table::fromBinary(std::string const& file) {
  zel::inpout::ibinstream in(file, true);
  impls::table* read = nullptr;
  in >> read;
  std::unique_ptr<impls::table> t(read);
  if (!t) throw std::runtime_error("Binary table: the file holds no table");
  check_end(in, "Binary table");
  return new table(t.release());
}

void conf_matrix::toXML(std::ostream& out) const {
  if (impl_) writers::xml_matrix(*impl_, "Test", out);
}

void dtree::toXML(std::ostream& out, conf_matrix const* test) const {
  output_format_named("brixcmd-xml")
      .writer->write(tree_output{*impl_, test ? test->get_impl() : nullptr}, out);
}

void dtree::toDOT(std::ostream& out) const {
  output_format_named("brixcmd-dot").writer->write(tree_output{*impl_}, out);
}

// Every dtree holds a tree: its constructors make one.
void dtree::toBinary(std::string const& file) const {
  output_format_named("binary").writer->write(tree_output{*this}, file);
}

dtree* dtree::fromBinary(std::string const& file) {
  return writers::read_tree_file(file, false);
}

dtree* writers::read_tree_file(std::string const& file, bool groups) {
  zel::inpout::ibinstream in(file, true);
  std::unique_ptr<dtree> tree(new dtree("my_decision_tree"));
  unsigned char present = 2;
  in >> present;
  // The first byte of an ensemble file (brix/ensemble.cpp).
  if (in.good() && present == 'E')
    throw std::runtime_error(
        "Binary tree: the file holds boosted or cost-sensitive trees, not one tree");
  if (in.good() && present == kGroupsTag && !groups)
    throw std::runtime_error(
        "Binary tree: the file holds a tree split on groups of values (brix train --subsets), "
        "which this format cannot hold; read it with brix or the Python package");
  if (in.good() && present == kGroupsTag) present = 1;
  if (!in.good() || present > 1) {
    if (rule_model::is_rules_file(file))
      throw std::runtime_error("Binary tree: the file holds a ruleset, not a tree");
    throw std::runtime_error("Binary tree: truncated or damaged data");
  }
  // The loaded model is there to test and score: it needs its tree, its
  // metadata and its training matrix.
  if (present == 0) throw std::runtime_error("Binary tree: the file holds no model");
  in >> *tree->get_impl();
  check_end(in, "Binary tree");
  impls::decision_tree const& t = *tree->get_impl();
  if (!t.get_root() || !t.get_metadata() || !t.get_prediction()) {
    throw std::runtime_error("Binary tree: the model holds no grown tree");
  }
  return tree.release();
}

}  // namespace brix
