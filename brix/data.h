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

struct read_options {
  std::string class_column;  // by name; empty: the last column
  std::vector<std::string> missing = {"", "?", "NA", "N/A", "NaN", "null"};
  char separator = 0;  // 0: '\t' for names ending in .tsv or .tsv.gz, ',' otherwise
  std::map<std::string, value_type> types;   // overrides by column name
  std::map<std::string, column_kind> kinds;  // overrides by column name
  bool require_class = true;         // false: a table to classify, the class column may be absent
  std::ostream* warnings = nullptr;  // e.g. values that 32-bit floats do not hold exactly
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
// other numbers float continuous ones, anything else string discrete ones; the class column is
// string. Errors (std::runtime_error) name the file, line, column and value; nothing is returned
// then.
std::unique_ptr<table> read_csv(std::string const& path, read_options const& opts = {});

// ARFF: '%' comments, @relation, @attribute NAME numeric|real|integer|string|{v1,v2,...} (names
// and values quoted with ' or " when they hold blanks or commas), @data, then one row per line,
// dense or sparse ({index value, ...}, absent entries 0 or the first nominal value), '?' for
// unknown. integer attributes make integer continuous columns, numeric and real ones float
// continuous columns, the rest discrete; the class is the last attribute unless
// opts.class_column names another. Overrides, errors and the result as for read_csv.
std::unique_ptr<table> read_arff(std::string const& path, read_options const& opts = {});

// By name: .arff (or .arff.gz) through read_arff, .csv/.tsv/.txt (or .gz) through read_csv,
// anything else as the stem of a .names/.data (or .data.gz) pair.
std::unique_ptr<table> read_table(std::string const& path, read_options const& opts = {});

// An ISO date, YYYY-MM-DD optionally followed by 'T' (or a blank) and hh:mm or hh:mm:ss, as days
// since 1970-01-01 (fractional with a time of day); false for any other text or an impossible
// date. The CSV reader reads columns of such dates as continuous days, with a note.
bool iso_date(char const* text, double& days);

// When the first lines of a CSV/TSV file do not split evenly at sep but do at another of
// , ; TAB |, that separator; otherwise 0. For hints after a refused file.
char better_separator(std::string const& path, char sep);

// The keywords of a .names file for a type and a kind.
std::string keyword(value_type t);
std::string keyword(column_kind k);

}  // namespace brix

#endif
