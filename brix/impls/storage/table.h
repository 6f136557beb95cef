// A dataset: columns declared by a metadata file, rows loaded from a data file.
#ifndef BRIX_IMPLS_TABLE_H
#define BRIX_IMPLS_TABLE_H

#include <functional>
#include <iosfwd>
#include <string>
#include <vector>

#include "brix/impls/storage/column.h"
#include "brix/impls/storage/w_sequence.h"
#include "zel/inpout/fwd.h"

namespace brix {
namespace impls {

// Loading that reads on past its problems (a pre-flight check wants every one, not the first):
// each problem that would throw goes to report (the line, 0 for none; the column's name and the
// value at fault, where there are; the message as it would be thrown) and the line at fault is
// left out. lines, where set, receives the line each column (row) loaded was read from.
// left_out, where set, receives each row left out for values its columns refuse: its line, its
// field texts (one per column loaded) and which of them were refused; a check looks at the rest.
struct load_problems {
  std::function<void(unsigned long line, std::string const& column, std::string const& value,
                     std::string const& message)>
      report;
  std::vector<std::size_t>* lines = nullptr;
  std::function<void(unsigned long line, char const* const* fields,
                     std::vector<bool> const& refused)>
      left_out;
};

class line_fields;

class table {
 public:
  table(std::string const& name, bool for_tree);
  table(table const&) = delete;
  table& operator=(table const&) = delete;
  ~table();

  // Reads one column per line of the source; deletes the source when owns. With problems, a
  // declaration refused is reported and a stand-in takes its place (a discrete column of its type,
  // of strings where the type is unknown, a class column of strings or a weights column of floats)
  // so that rows still line up.
  void load_meta_data(zel::inpout::stream* source, bool owns,
                      load_problems const* problems = nullptr);
  void push_back(std::string const& name, std::string const& datatype, std::string const& kind);
  // Reads every row of the source into the columns not loaded yet. With problems, rows at fault
  // are reported and left out, a first row of the column names too; columns that cannot make a
  // tree (no class, two) are reported and read without the roles of class and weights.
  void load_data(zel::inpout::stream* source, std::string const& null, bool owns,
                 load_problems const* problems = nullptr);
  // Rows from any reader into the columns not loaded yet: next() gives one row's field texts (one
  // per such column, the null text for an unknown value), or null after the last row.
  void load_rows(std::function<char const* const*()> const& next, std::string const& null);
  // Values given column by column without text: put[j](loader, row) hands row's value of the
  // j-th column not loaded yet to its loader. Unknown values are "?".
  void load_columns(std::vector<std::function<void(value_loader&, std::size_t)>> const& put,
                    std::size_t rows);
  // One row of a test or score file, reordered to attributes, class, weight.
  bool load_row(zel::inpout::stream* source, std::vector<std::string>& row) const;

  bool consistency_check(unsigned long n, std::string& error);
  bool set_consistency_for_tree(bool for_tree, std::string& error);

  o_set* make_column_o_set(unsigned long i, std::string const& null) const;
  column* make_column(unsigned long i, o_set* values) const;

  // A copy of the table's description: the columns, sharing their value sets,
  // but no rows. The tree keeps one to read and write cases.
  table* clone_metadata() const;

  std::string const& get_name() const { return name_; }
  void set_name(std::string const& name) { name_ = name; }
  unsigned long get_no_rows() const { return no_rows_; }
  unsigned long get_no_columns() const { return columns_.size(); }
  unsigned long get_loaded_columns() const { return loaded_; }
  column* get_column(unsigned long i) const { return columns_[i]; }
  column* get_class() const { return class_index_ < loaded_ ? columns_[class_index_] : nullptr; }
  column* get_weights() const {
    return weights_index_ < loaded_ ? columns_[weights_index_] : nullptr;
  }
  unsigned long get_class_index() const { return class_index_; }
  unsigned long get_weights_index() const { return weights_index_; }
  unsigned long get_no_attributes() const;
  // Attribute i: the columns in table order, class and weights skipped.
  column* get_attribute(unsigned long i) const { return columns_[attribute_columns_[i]]; }
  unsigned long get_attribute_column(unsigned long i) const { return attribute_columns_[i]; }
  bool is_for_tree() const { return for_tree_; }
  std::ostream* set_log(std::ostream* log);
  std::ostream* get_log() const { return log_; }
  unsigned long set_verbosity(unsigned long verbosity);
  unsigned long get_verbosity() const { return verbosity_; }
  double get_elapsed() const { return elapsed_; }

  // Case sequences; the caller owns the result.
  w_sequence* get_wsubset_all() const;
  w_sequence* get_wsubset_first_n(unsigned long n) const;
  w_sequence* get_wsubset_random(unsigned long n) const;
  w_sequence* get_wsubset_difference(w_sequence* s) const;
  void update_weights(w_sequence* s) const;

  // Direct access for the binary table reader.
  std::vector<column*>& columns() { return columns_; }
  void set_state(unsigned long no_rows, unsigned long loaded, unsigned long class_index,
                 unsigned long weights_index, unsigned long verbosity, bool for_tree);
  // A counter that binary table files carry and give back unchanged; 0 for
  // tables loaded from text.
  unsigned long get_file_counter() const { return file_counter_; }
  void set_file_counter(unsigned long c) { file_counter_ = c; }

  // The DataDictionary and MiningSchema sections of the XML model.

 private:
  void refresh_attributes();
  void declare_reading_on(zel::inpout::stream& source, load_problems const& p);
  void declare_or_stand_in(char const* name, char const* type, char const* kind, unsigned long line,
                           load_problems const& p);
  void load_reading_on(zel::inpout::stream& source, std::string const& null,
                       load_problems const& p);
  bool row_reads(line_fields const& fields, unsigned long line, load_problems const& p,
                 std::vector<bool>& refused) const;
  template <class Advance, class PutRow>
  void load_from(Advance&& advance, PutRow&& put_row, std::string const& null);

  std::string name_;
  std::ostream* log_;
  unsigned long verbosity_;
  std::vector<column*> columns_;
  unsigned long no_rows_;
  unsigned long loaded_;
  unsigned long class_index_;
  unsigned long weights_index_;
  double elapsed_;
  bool for_tree_;
  std::vector<unsigned long> attribute_columns_;
  unsigned long file_counter_ = 0;
};

// A case weight from its text: lenient, as every weight is read (text that is not a number is 0).
float case_weight(char const* text);

// The table record of the binary table file (a null table is the flag 0).
zel::inpout::obinstream& operator<<(zel::inpout::obinstream& out, table const* t);
zel::inpout::ibinstream& operator>>(zel::inpout::ibinstream& in, table*& t);

}  // namespace impls
}  // namespace brix

#endif
