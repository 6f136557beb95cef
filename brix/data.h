// Tables from the files users have: CSV and TSV with a header row, read straight into the
// library's table, with column types inferred and unknown values recognised.
#ifndef BRIX_DATA_H
#define BRIX_DATA_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <iosfwd>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "brix/brix.h"

namespace brix {

enum class column_kind { discrete, continuous, class_label, weights, ignore };
enum class value_type { integer, uinteger, float32, float64, string };

// A problem met while reading a table, for callers that want every problem rather than the first.
struct read_problem {
  std::string file;
  std::size_t line = 0;  // 0: not one line's (a column's, the file's)
  std::string column;    // empty: not one column's
  std::string value;     // the value at fault; empty when none is
  std::string message;   // the whole message, as it is thrown where no sink is set
};

struct read_options {
  std::string class_column;  // by name; empty: the last column
  std::vector<std::string> missing = {"", "?", "NA", "N/A", "NaN", "null"};
  char separator = 0;  // 0: '\t' for names ending in .tsv or .tsv.gz, ',' otherwise
  std::map<std::string, value_type> types;   // overrides by column name
  std::map<std::string, column_kind> kinds;  // overrides by column name
  // Continuous columns of these types where present and not overridden (CSV/TSV): a model's
  // numeric columns when classifying, so that a value that is not a number is refused where it
  // lies.
  std::map<std::string, value_type> numeric_if_present;
  bool require_class = true;         // false: a table to classify, the class column may be absent
  std::ostream* warnings = nullptr;  // e.g. values that 32-bit floats do not hold exactly
  // Where set, problems that would throw are passed here instead and reading goes on, leaving
  // out the rows at fault. CSV/TSV and ARFF: text after a closing quote is kept in its value;
  // after a problem nothing can be read past (a bad header or declaration, no rows left) the
  // reader returns no table (nullptr). Stems: a .names line that declares no column is left out
  // and a refused declaration gives way to a discrete column (a class column where it declares
  // one); a byte order mark, a header row of the column names and NUL bytes (after which the
  // file is read no further) are problems too; a table is always returned, read without the
  // roles of class and weights when the .names does not declare one class and at most one
  // weights column. Files that cannot be opened still throw.
  std::function<void(read_problem const&)> problems;
  // Where set, receives the line each row of the table starts on (stems: with problems only).
  std::vector<std::size_t>* row_lines = nullptr;
  // Stems, with problems: where set, receives the .names line each column is declared on.
  std::vector<std::size_t>* column_lines = nullptr;
  // Stems, with problems: where set, receives each row left out for values its columns refuse:
  // its line, its field texts and which of them were refused.
  std::function<void(std::size_t line, std::vector<std::string> const& fields,
                     std::vector<bool> const& refused)>
      rows_left_out;
  // Stems: the file of rows; empty: STEM.data, or STEM.data.gz where only that is there.
  std::string rows_file;
};

// A table built from columns in memory, with no text in between: the same table (value orders,
// storage widths, hence the same tree) as loading the same values from .names/.data.
class table_builder {
 public:
  explicit table_builder(std::string name);
  ~table_builder();
  // Numbers of a numeric type; unknown where known[i] is false (an empty known: all known) or
  // where the value is NaN. Integer types refuse fractions and values out of their range.
  table_builder& add_numbers(std::string const& name, column_kind kind, value_type type,
                             std::vector<double> const& values,
                             std::vector<bool> const& known = {});
  // Texts, for discrete, class and ignored columns; unknown where known[i] is false.
  table_builder& add_strings(std::string const& name, column_kind kind,
                             std::vector<std::string> const& values,
                             std::vector<bool> const& known = {});

  // Columns read where they lie (arrays of n values, read by build(), which they must outlive;
  // nothing is copied before). Numbers as above, unknown where known (when given) is false or
  // the value is NaN; each value converts to the column's type as a double would.
  table_builder& add_numbers(std::string const& name, column_kind kind, value_type type,
                             double const* values, std::size_t n, bool const* known = nullptr);
  table_builder& add_numbers(std::string const& name, column_kind kind, value_type type,
                             float const* values, std::size_t n, bool const* known = nullptr);
  table_builder& add_numbers(std::string const& name, column_kind kind, value_type type,
                             std::int64_t const* values, std::size_t n,
                             bool const* known = nullptr);
  table_builder& add_numbers(std::string const& name, column_kind kind, value_type type,
                             std::int32_t const* values, std::size_t n,
                             bool const* known = nullptr);
  // A discrete, class or ignored column as codes into its distinct texts, given once: code c
  // stands for categories[c], a negative code for an unknown value. No text is made per row;
  // the table is the one add_strings gives for the texts the codes stand for. Categories must
  // differ; a code past the last category is refused at build().
  table_builder& add_codes(std::string const& name, column_kind kind, std::int8_t const* codes,
                           std::size_t n, std::vector<std::string> categories);
  table_builder& add_codes(std::string const& name, column_kind kind, std::int16_t const* codes,
                           std::size_t n, std::vector<std::string> categories);
  table_builder& add_codes(std::string const& name, column_kind kind, std::int32_t const* codes,
                           std::size_t n, std::vector<std::string> categories);
  table_builder& add_codes(std::string const& name, column_kind kind, std::int64_t const* codes,
                           std::size_t n, std::vector<std::string> categories);
  // Values a column's value set must hold besides those of its rows, so that tables built from
  // parts of the same rows share value sets and orders (an unknown value too, when unknown). They
  // are stored as rows after the given ones, which carry the first row's values elsewhere:
  // callers leave those rows out of their cases (the table's first n rows are the given ones).
  table_builder& keep_values(std::string const& name, std::vector<double> values,
                             bool unknown = false);
  table_builder& keep_texts(std::string const& name, std::vector<std::string> texts,
                            bool unknown = false);
  // Throws std::invalid_argument for columns of different lengths, repeated names, no class
  // column (when require_class) or no rows; the builder can be used again afterwards.
  std::unique_ptr<table> build(bool require_class = true);

 private:
  struct column_values;
  template <class T>
  table_builder& add_span(std::string const& name, column_kind kind, value_type type,
                          T const* values, std::size_t n, bool const* known);
  template <class T>
  table_builder& add_code_span(std::string const& name, column_kind kind, T const* codes,
                               std::size_t n, std::vector<std::string> categories);
  struct kept {
    std::vector<double> numbers;
    std::vector<std::string> texts;
    bool unknown = false;
    std::size_t size() const { return numbers.size() + texts.size() + (unknown ? 1 : 0); }
  };
  std::string name_;
  std::vector<column_values> columns_;
  std::map<std::string, kept> kept_;
};

// RFC 4180: a header row of names, then one record per row; fields may be quoted, with doubled
// quotes, separators and line feeds inside; CR LF or LF; a UTF-8 byte order mark is skipped;
// a name ending in .gz is inflated. Integers that fit 32 bits make integer continuous columns,
// other numbers float continuous ones (double discrete ones where a float cannot hold a value),
// anything else string discrete ones; the class column is string. Text that is not UTF-8 and
// unknown class values are refused. Errors (std::runtime_error) name the file, line, column and
// value; nothing is returned then.
std::unique_ptr<table> read_csv(std::string const& path, read_options const& opts = {});

// ARFF: '%' comments, @relation, @attribute NAME numeric|real|integer|string|{v1,v2,...} (names
// and values quoted with ' or " when they hold blanks or commas), @data, then one row per line,
// dense or sparse ({index value, ...}, absent entries 0 or the first nominal value), '?' for
// unknown. integer attributes make integer continuous columns, numeric and real ones float
// continuous columns, the rest discrete; the class is the last attribute unless
// opts.class_column names another. Overrides, errors and the result as for read_csv.
std::unique_ptr<table> read_arff(std::string const& path, read_options const& opts = {});

// By name: .arff (or .arff.gz) through read_arff, .csv/.tsv/.txt (or .gz) through read_csv,
// anything else as the stem of a .names/.data (or .data.gz) pair, refused when its text is not
// UTF-8.
std::unique_ptr<table> read_table(std::string const& path, read_options const& opts = {});

// An ISO date, YYYY-MM-DD optionally followed by 'T' (or a blank) and hh:mm or hh:mm:ss, as days
// since 1970-01-01 (fractional with a time of day); false for any other text or an impossible
// date. The CSV reader reads columns of such dates as continuous days, with a note.
bool iso_date(char const* text, double& days);

// When the first lines of a CSV/TSV file do not split evenly at sep but do at another of
// , ; TAB |, that separator; otherwise 0. For hints after a refused file.
char better_separator(std::string const& path, char sep);
// A column of a table as read: every column of the file, ignored ones too, in file order.
struct column_info {
  std::string name;
  column_kind kind;
  std::string datatype;  // the value set's: integer, uinteger, float, double, string
  bool admits_unknown;   // false where the value set has no unknown value at all
};
std::vector<column_info> table_columns(table const& t);
// The known values of column c in value order: value code k (1 upward) stands for texts[k - 1].
// Floats as the shortest text that reads back to the same float.
std::vector<std::string> value_texts(table const& t, std::size_t c);
// Row's value code in column c, 0 for unknown; an ignored column keeps no values: always 0.
// Constant time, nothing allocated: for loops over every row. A column or row out of range
// throws std::out_of_range, here and below.
unsigned long value_code(table const& t, std::size_t c, unsigned long row);
// Row's value in column c as the tree's outputs print it.
std::string value_text(table const& t, std::size_t c, unsigned long row);

namespace impls {
class table;
}
// Where a table or a model's metadata holds text that is not UTF-8 ("a value of column 'c'"),
// which no XML or JSON output may carry; empty when there is none.
std::string non_utf8_text(impls::table const& t);

// The keywords of a .names file for a type and a kind.
std::string keyword(value_type t);
std::string keyword(column_kind k);

}  // namespace brix

#endif
