// brix import: a table read as brix reads it, written as the .names/.data pair from which brixcmd
// loads the same table (same columns, types, kinds, value sets and row order), hence the same
// tree. brix check: a pre-flight that lists every problem rather than stopping at the first:
// every format through its reader, which reports each problem to it and reads on, then the
// values of the rows it keeps.
#include "cmd/brix_import.h"

#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <iostream>
#include <map>
#include <memory>
#include <set>
#include <sstream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "brix/brix.h"
#include "brix/data.h"
#include "zel/inpout/iogz.h"

char const* const kImportSynopsis =
    "brix import DATA --to STEM [--test FILE] [--class NAME] [--kind NAME=KIND] [--type NAME=TYPE]";
char const* const kImportHelp =
    "Writes STEM.names and STEM.data (and STEM.test from --test) for brixcmd, which then grows\n"
    "the tree brix train grows from DATA. DATA is a CSV/TSV file with a header row, an ARFF file\n"
    "(each optionally .gz) or a stem. Values are written as brix reads them; unknown values\n"
    "become '?'. The separator is the first of , ; TAB | ... that no value holds; when it is not\n"
    "',' brixcmd needs -sep. Standard error lists the columns, the separator and every change\n"
    "made to values (--quiet: nothing). The files are written whole or not at all.\n";

char const* const kCheckSynopsis = "brix check STEM|DATA [--class NAME] [--sep C]";
char const* const kCheckHelp =
    "Lists every problem of a .names/.data stem (and its .test) or a CSV/TSV file, one line\n"
    "each (FILE:LINE: column N 'name': ...), then a summary: byte order marks, blank lines, a\n"
    "header row in .data, rows with the wrong number of fields, unclosed quotes, unknown class\n"
    "values, numbers a column's type refuses, quotes kept in values, blanks around values,\n"
    "values that differ only in case or blanks, columns with one value only, columns whose\n"
    "values all differ (IDs), a class with nearly a value a row or of fractional numbers, and\n"
    "another separator that splits the lines evenly. Exit status 0 when there is none, 1\n"
    "otherwise.\n";

bool is_table_file(std::string const& p) {
  for (std::string tail :
       {".csv", ".tsv", ".txt", ".csv.gz", ".tsv.gz", ".txt.gz", ".arff", ".arff.gz"})
    if (p.size() > tail.size() && p.compare(p.size() - tail.size(), tail.size(), tail) == 0)
      return true;
  return false;
}

bool file_exists(std::string const& p) {
  struct stat st;
  return ::stat(p.c_str(), &st) == 0;
}

std::vector<std::string> input_files(std::string const& data) {
  if (data.empty()) return {};
  if (is_table_file(data)) return {data};
  std::string rows = data + ".data";
  if (!file_exists(rows) && file_exists(rows + ".gz")) rows += ".gz";
  return {data + ".names", rows};
}

namespace {

// A file's name with every link resolved; for a file not there yet, its directory's resolved
// name and its own (empty when the directory is not there either).
std::string resolved(std::string const& p) {
  std::unique_ptr<char, decltype(&std::free)> full(::realpath(p.c_str(), nullptr), &std::free);
  if (full) return full.get();
  std::size_t slash = p.rfind('/');
  std::string dir = slash == std::string::npos ? "." : slash == 0 ? "/" : p.substr(0, slash);
  std::string name = slash == std::string::npos ? p : p.substr(slash + 1);
  std::unique_ptr<char, decltype(&std::free)> d(::realpath(dir.c_str(), nullptr), &std::free);
  if (!d || name.empty() || name == "." || name == "..") return "";
  return std::string(d.get()) + (std::strcmp(d.get(), "/") == 0 ? "" : "/") + name;
}

}  // namespace

bool same_file(std::string const& a, std::string const& b) {
  if (a.empty() || b.empty()) return false;
  if (a == b) return true;
  struct stat sa, sb;
  if (::stat(a.c_str(), &sa) == 0 && ::stat(b.c_str(), &sb) == 0)
    return sa.st_dev == sb.st_dev && sa.st_ino == sb.st_ino;
  std::string ra = resolved(a);
  return !ra.empty() && ra == resolved(b);
}

namespace {

bool ends_with(std::string const& s, char const* tail) {
  std::size_t n = std::strlen(tail);
  return s.size() >= n && s.compare(s.size() - n, n, tail) == 0;
}

// "1 value", "2 values".
std::string values(std::size_t n, char const* what = "value") {
  return std::to_string(n) + " " + what + (n == 1 ? "" : "s");
}

// Shown in single quotes, control characters escaped so that a report stays one line.
std::string quoted(std::string_view v) {
  std::string s = "'";
  for (char c : v.substr(0, 60)) {
    if (static_cast<unsigned char>(c) < 32) {
      char b[8];
      std::snprintf(b, sizeof b,
                    c == '\t'   ? "\\t"
                    : c == '\r' ? "\\r"
                                : "\\x%02x",
                    static_cast<unsigned char>(c));
      s += b;
    } else {
      s += c;
    }
  }
  return s + (v.size() > 60 ? "...'" : "'");
}

// ---------------------------------------------------------------- import

// One column as written: keywords, and the text of each value order (0 is the unknown value).
struct column_text {
  std::string name, type, kind;
  std::vector<std::string> texts;
  bool stores_rows = true;
  std::size_t line_breaks = 0;    // values whose line breaks became blanks
  bool empty_to_unknown = false;  // an empty value of the last column became '?'
};

// A line break cannot be carried by a .data line: it becomes a blank.
std::size_t unbreak(std::string& s) {
  if (s.find_first_of("\r\n") == std::string::npos) return 0;
  std::replace(s.begin(), s.end(), '\n', ' ');
  std::replace(s.begin(), s.end(), '\r', ' ');
  return 1;
}

column_text describe(brix::table const& table, std::size_t j, brix::column_info const& c,
                     bool last) {
  column_text t{
      c.name, c.datatype, brix::keyword(c.kind), {"?"}, c.kind != brix::column_kind::ignore};
  std::vector<std::string> known = brix::value_texts(table, j);
  t.texts.insert(t.texts.end(), known.begin(), known.end());
  unbreak(t.name);
  for (std::size_t o = 1; o < t.texts.size(); ++o) {
    t.line_breaks += unbreak(t.texts[o]);
    // A separator that ends a line is not counted, so a row cannot end with an empty field.
    if (last && t.texts[o].empty()) {
      if (!c.admits_unknown)
        throw std::runtime_error("column '" + t.name +
                                 "' holds an empty value, which the last field of a .data "
                                 "row cannot carry");
      t.texts[o] = "?";
      t.empty_to_unknown = true;
    }
  }
  return t;
}

// The first of the usual separators that no name or value holds, then a control character.
char pick_separator(std::vector<std::vector<column_text> const*> const& tables) {
  std::array<bool, 256> used{};
  auto mark = [&](std::string const& s) {
    for (char c : s)
      used[static_cast<unsigned char>(c)] = true;
  };
  for (auto const* cols : tables)
    for (auto const& c : *cols) {
      mark(c.name);
      for (auto const& v : c.texts)
        mark(v);
    }
  // Not '#': it ends the file name in brixcmd's data-source descriptors.
  for (char c : std::string(",;\t|:^~!@$%&*=+/\\"))
    if (!used[static_cast<unsigned char>(c)]) return c;
  for (int c = 1; c < 32; ++c)
    if (c != '\t' && c != '\n' && c != '\r' && !used[c]) return static_cast<char>(c);
  throw std::runtime_error("every character that could separate fields occurs in a value");
}

// An output written to NAME.part and renamed by commit(); the part is removed when the writer
// fails or is never committed.
class part_file {
 public:
  explicit part_file(std::string path) : path_(std::move(path)), part_(path_ + ".part") {
    f_ = std::fopen(part_.c_str(), "wb");
    if (f_ == nullptr) throw std::runtime_error("File " + path_ + ": cannot be opened for writing");
  }
  part_file(part_file const&) = delete;
  part_file& operator=(part_file const&) = delete;
  ~part_file() {
    if (f_ != nullptr) std::fclose(f_);
    if (!done_) std::remove(part_.c_str());
  }
  void write(std::string& buf) {
    if (!buf.empty() && std::fwrite(buf.data(), 1, buf.size(), f_) != buf.size()) fail();
    buf.clear();
  }
  void close() {
    std::FILE* f = f_;
    f_ = nullptr;
    if (std::fclose(f) != 0) fail();
  }
  void commit() {
    if (std::rename(part_.c_str(), path_.c_str()) != 0)
      throw std::runtime_error("File " + path_ + ": cannot be written");
    done_ = true;
  }

 private:
  [[noreturn]] void fail() const {
    throw std::runtime_error("File " + path_ + ": error writing output");
  }
  std::string path_, part_;
  std::FILE* f_ = nullptr;
  bool done_ = false;
};

// The rows of t, columns in the order of cols (whose texts index t's value orders).
void write_rows(part_file& out, brix::table const& t, std::vector<std::size_t> const& from,
                std::vector<column_text> const& cols, char sep, std::vector<std::size_t>& unknown) {
  std::string buf;
  buf.reserve(1 << 20);
  unknown.assign(cols.size(), 0);
  for (unsigned long r = 0; r < t.get_no_rows(); ++r) {
    for (std::size_t j = 0; j < cols.size(); ++j) {
      unsigned long o = cols[j].stores_rows ? brix::value_code(t, from[j], r) : 0;
      unknown[j] += o == 0;
      buf += cols[j].texts[o];
      buf += j + 1 < cols.size() ? sep : '\n';
    }
    if (buf.size() >= (1 << 20) - 4096) out.write(buf);
  }
  out.write(buf);
}

brix::value_type type_of(std::string const& keyword) {
  for (auto t : {brix::value_type::integer, brix::value_type::uinteger, brix::value_type::float32,
                 brix::value_type::float64})
    if (brix::keyword(t) == keyword) return t;
  return brix::value_type::string;
}

std::string shell_word(std::string const& s) {
  if (s.find_first_not_of("abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789_./-") ==
      std::string::npos)
    return s;
  std::string q = "'";
  for (char c : s)
    q += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return q + "'";
}

std::string separator_option(char sep) {
  if (sep == ',') return "";
  if (sep == '\t') return " -sep \"$(printf '\\t')\"";
  if (static_cast<unsigned char>(sep) < 32) {
    char b[32];
    std::snprintf(b, sizeof b, " -sep \"$(printf '\\%03o')\"", sep);
    return b;
  }
  return " -sep " + shell_word(std::string(1, sep));
}

// Refuses a stem brixcmd cannot name and outputs that would overwrite an input; the outputs.
std::vector<std::string> import_outputs(std::string const& data, std::string const& stem,
                                        std::string const& test) {
  // brixcmd names its files in descriptors where '#' separates fields.
  if (stem.find('#') != std::string::npos)
    throw std::runtime_error("STEM " + stem + ": brixcmd cannot open a name that holds '#'");
  std::vector<std::string> outputs = {stem + ".names", stem + ".data"};
  if (!test.empty()) outputs.push_back(stem + ".test");
  std::vector<std::string> inputs = input_files(data), more = input_files(test);
  inputs.insert(inputs.end(), more.begin(), more.end());
  for (auto const& o : outputs)
    for (auto const& i : inputs)
      if (same_file(o, i)) throw std::runtime_error("File " + o + ": is also an input (" + i + ")");
  return outputs;
}

// A table's columns as written, refused when brixcmd cannot declare one.
std::vector<column_text> describe_columns(brix::table const& t,
                                          std::vector<brix::column_info> const& info,
                                          std::vector<std::size_t>& from) {
  std::size_t k = info.size();
  std::vector<column_text> cols;
  for (auto const& c : info) {
    // brixcmd's continuous columns are at most 32-bit.
    if (c.kind == brix::column_kind::continuous && c.datatype == "double")
      throw std::runtime_error("column '" + c.name +
                               "': continuous doubles (dates with times, --type " + c.name +
                               "=double) cannot be declared to brixcmd; --type " + c.name +
                               "=float reads it as brixcmd can");
  }
  for (std::size_t j = 0; j < k; ++j) {
    from.push_back(j);
    cols.push_back(describe(t, j, info[j], k > 1 && j + 1 == k));
  }
  return cols;
}

// The test rows of an import: the training columns by name, in the training order, with their
// types and kinds; other columns are left out (named in dropped).
struct test_rows {
  std::unique_ptr<brix::table> table;
  std::vector<std::size_t> from;
  std::vector<column_text> cols;
  std::vector<std::string> dropped;
};

test_rows read_test_rows(std::string const& test, std::vector<brix::column_info> const& info,
                         std::vector<column_text> const& cols, brix::read_options const& opts) {
  test_rows out;
  if (test.empty()) return out;
  brix::read_options o;
  o.warnings = opts.warnings;
  o.separator = opts.separator;
  for (auto const& c : info) {
    if (c.kind == brix::column_kind::class_label) o.class_column = c.name;
    o.kinds[c.name] = c.kind;
    o.types[c.name] = type_of(c.datatype);
  }
  out.table = brix::read_table(test, o);
  std::vector<brix::column_info> const test_info = brix::table_columns(*out.table);
  std::map<std::string, std::size_t> by_name;
  for (std::size_t j = 0; j < test_info.size(); ++j)
    by_name[test_info[j].name] = j;
  for (std::size_t j = 0; j < info.size(); ++j) {
    auto it = by_name.find(info[j].name);
    if (it == by_name.end())
      throw std::runtime_error("File " + test + ": no column '" + info[j].name + "'");
    out.from.push_back(it->second);
    out.cols.push_back(describe(*out.table, it->second, test_info[it->second], false));
    out.cols.back().stores_rows = cols[j].stores_rows;
    by_name.erase(it);
  }
  for (auto const& d : by_name)
    out.dropped.push_back(d.first);
  return out;
}

// The .names, .data and (with test rows) .test files, whole or not at all; the unknown values
// written per column, for the training and the test rows.
void write_import(std::vector<std::string> const& outputs, char sep, brix::table const& t,
                  std::vector<std::size_t> const& from, std::vector<column_text> const& cols,
                  test_rows const& test, std::vector<std::size_t>& unknown,
                  std::vector<std::size_t>& test_unknown) {
  part_file names(outputs[0]), rows(outputs[1]);
  std::unique_ptr<part_file> tests;
  if (test.table) tests = std::make_unique<part_file>(outputs[2]);
  std::string buf;
  for (auto const& c : cols)
    buf += c.name + sep + c.type + sep + c.kind + "\n";
  names.write(buf);
  write_rows(rows, t, from, cols, sep, unknown);
  if (tests) write_rows(*tests, *test.table, test.from, test.cols, sep, test_unknown);
  names.close();
  rows.close();
  if (tests) tests->close();
  // The .names last: once it is there, so are the rows it describes.
  rows.commit();
  if (tests) tests->commit();
  names.commit();
}

// The columns, their changes and the brixcmd command line, on standard error.
void report_import(std::string const& data, std::string const& stem, std::string const& test,
                   std::vector<std::string> const& outputs, char sep, brix::table const& t,
                   std::vector<column_text> const& cols, std::vector<std::size_t> const& unknown,
                   test_rows const& tests) {
  std::size_t k = cols.size();
  std::ostream& log = std::cerr;
  log << "brix import: " << data << ": " << t.get_no_rows() << " rows, " << k << " columns";
  if (tests.table) log << "; " << test << ": " << tests.table->get_no_rows() << " rows";
  log << "\n";
  std::size_t width = 0;
  for (auto const& c : cols)
    width = std::max(width, c.name.size());
  for (std::size_t j = 0; j < k; ++j) {
    column_text const& c = cols[j];
    log << "  " << c.name << std::string(width - c.name.size() + 2, ' ') << c.type << " " << c.kind;
    std::vector<std::string> notes;
    if (!c.stores_rows) notes.push_back("ignored: its values are not kept, all written as '?'");
    if (c.stores_rows && unknown[j] > 0)
      notes.push_back(values(unknown[j], "unknown value") + " written as '?'");
    if (c.empty_to_unknown)
      notes.push_back("empty values written as '?' (a .data row cannot end with an empty field)");
    std::size_t breaks = c.line_breaks + (tests.cols.empty() ? 0 : tests.cols[j].line_breaks);
    if (breaks > 0) notes.push_back(values(breaks) + " with line breaks, written as blanks");
    for (std::size_t n = 0; n < notes.size(); ++n)
      log << (n == 0 ? " (" : "; ") << notes[n] << (n + 1 == notes.size() ? ")" : "");
    log << "\n";
  }
  for (auto const& d : tests.dropped)
    log << "  " << test << ": column '" << d << "' is not in " << data << ", left out\n";
  std::string sep_name = sep == '\t' ? "TAB"
                         : static_cast<unsigned char>(sep) < 32
                             ? "control character " + std::to_string(int(sep))
                             : quoted(std::string(1, sep));
  log << "brix import: wrote " << outputs[0] << ", " << outputs[1]
      << (test.empty() ? "" : ", " + outputs[2]) << " with the separator " << sep_name
      << "; run: brixcmd -f " << shell_word(stem) << separator_option(sep)
      << (test.empty() ? "" : " -ft " + shell_word(outputs[2])) << " -tstd" << std::endl;
}

}  // namespace

int brix_import(std::string const& data, std::string const& stem, std::string const& test,
                brix::read_options opts, bool quiet) {
  std::vector<std::string> outputs = import_outputs(data, stem, test);
  opts.warnings = quiet ? nullptr : &std::cerr;
  auto table = brix::read_table(data, opts);
  brix::table const& t = *table;
  std::vector<brix::column_info> const info = brix::table_columns(t);
  std::vector<std::size_t> from;
  std::vector<column_text> cols = describe_columns(t, info, from);
  test_rows tests = read_test_rows(test, info, cols, opts);
  char sep = pick_separator({&cols, &tests.cols});
  std::vector<std::size_t> unknown, test_unknown;
  write_import(outputs, sep, t, from, cols, tests, unknown, test_unknown);
  if (!quiet) report_import(data, stem, test, outputs, sep, t, cols, unknown, tests);
  return 0;
}

// ---------------------------------------------------------------- check

namespace {

struct problem {
  std::size_t file, line;  // line 0: the whole file or column
  std::string text;
};

// Problems in file order, then by line. Row problems of one kind are listed up to kShown per
// file, then counted in one line.
class problems {
 public:
  static constexpr std::size_t kShown = 10;
  std::size_t file(std::string const& name) {
    files_.push_back(name);
    return files_.size() - 1;
  }
  void add(std::size_t f, std::size_t line, std::string text) {
    list_.push_back({f, line, std::move(text)});
  }
  // A file that is not text: its other problems are mere consequences.
  void not_text(std::size_t f, std::size_t line) {
    list_.erase(
        std::remove_if(list_.begin(), list_.end(), [f](problem const& p) { return p.file == f; }),
        list_.end());
    for (auto& c : counts_)
      if (c.first.first == f) c.second = 0;
    add(f, line, "NUL bytes: not a text file");
  }
  void row(std::size_t f, std::size_t line, std::string const& kind, std::string text) {
    auto& n = counts_[{f, kind}];
    if (++n <= kShown) add(f, line, std::move(text));
  }
  int finish(std::string const& what) {
    for (auto const& c : counts_)
      if (c.second > kShown)
        add(c.first.first, 0,
            std::to_string(c.second - kShown) + " more " + c.first.second + " not listed");
    std::stable_sort(list_.begin(), list_.end(), [](problem const& a, problem const& b) {
      return a.file != b.file ? a.file < b.file : a.line < b.line;
    });
    for (auto const& p : list_) {
      std::cout << files_[p.file];
      if (p.line > 0) std::cout << ":" << p.line;
      std::cout << ": " << p.text << "\n";
    }
    std::string names;
    for (auto const& f : files_)
      names += (names.empty() ? "" : ", ") + f;
    if (list_.empty())
      std::cout << "brix check: no problems in " << names << " (" << what << ")" << std::endl;
    else
      std::cout << "brix check: " << list_.size() << (list_.size() == 1 ? " problem" : " problems")
                << " in " << names << std::endl;
    return list_.empty() ? 0 : 1;
  }

 private:
  std::vector<std::string> files_;
  std::vector<problem> list_;
  std::map<std::pair<std::size_t, std::string>, std::size_t> counts_;
};

// How often a problem occurs in a column, and its first occurrence.
struct tally {
  std::size_t n = 0, line = 0;
  std::string first;
  void see(std::size_t at, std::string_view v) {
    if (n++ == 0) {
      line = at;
      first = v.substr(0, 200);
    }
  }
};

// What is looked at in each value of one column.
struct column_check {
  static constexpr std::size_t kMaxDistinct = 50000;
  std::string name, type;  // type: the .names keyword; empty for CSV, where numbers are inferred
  std::size_t index = 0;
  bool is_class = false, weights = false, dates = true, ignored = false;
  tally blanks, quotes, unknown, unreadable;
  bool any = false, several = false, all_numbers = true, fractions = false;
  std::size_t known = 0;  // rows with a known value
  std::string one;
  // CSV: how many values are numbers, and the first few distinct texts that are not.
  std::size_t numbers = 0;
  tally texts;
  std::vector<std::string> stray;
  // Distinct texts (views into the store) and the line each first occurs on; not kept past
  // kMaxDistinct values, a column that varies that much is a key, not a category.
  std::unordered_map<std::string_view, std::size_t> seen;
  bool tracking = true;

  std::string where() const { return "column " + std::to_string(index + 1) + " '" + name + "'"; }
  bool numeric_type() const {
    return type == "integer" || type == "uinteger" || type == "float" || type == "double";
  }
};

bool blank(char c) {
  return c == ' ' || c == '\t' || c == '\r';
}

// A number as the CSV reader tells one: the whole text, an optional '+', not NaN.
bool is_number(std::string_view v, double& d) {
  char const* b = v.data() + (!v.empty() && v[0] == '+');
  auto r = std::from_chars(b, v.data() + v.size(), d);
  return r.ec == std::errc() && r.ptr == v.data() + v.size() && b != r.ptr && !std::isnan(d);
}

// Whether a value differs from the column's first. Numbers of a numeric column are compared as
// such: a row the reader left out gives its text as written, a row kept the table's.
bool differ(column_check const& c, std::string_view v) {
  double a = 0, b = 0;
  if (c.numeric_type() && is_number(v, a) && is_number(c.one, b)) return a != b;
  return v != c.one;
}

class value_checks {
 public:
  std::vector<column_check> columns;

  // One value of column j on line, as the table holds it. Numbers are looked at as a whole only
  // (one value, IDs): their texts are the table's.
  void see(std::size_t j, std::string const& value, std::size_t line, bool unknown, bool training) {
    column_check& c = columns[j];
    if (unknown) {
      if (c.is_class || c.weights) c.unknown.see(line, value);
      return;
    }
    std::string_view v = value;
    ++c.known;
    if (!c.numeric_type()) {
      double d = 0;
      bool number = is_number(v, d);
      if (c.all_numbers) c.all_numbers = number;
      if (c.all_numbers && d != std::floor(d)) c.fractions = true;
      if (number) {
        ++c.numbers;
      } else if (c.type.empty()) {
        c.texts.see(line, v);
        if (c.stray.size() < 4 && std::find(c.stray.begin(), c.stray.end(), v) == c.stray.end())
          c.stray.emplace_back(v.substr(0, 60));
      }
      if (c.dates) c.dates = brix::iso_date(value.c_str(), d);
      if (!v.empty() && (blank(v.front()) || blank(v.back()))) c.blanks.see(line, v);
      if (v.find('"') != std::string_view::npos ||
          (v.size() >= 2 && v.front() == '\'' && v.back() == '\''))
        c.quotes.see(line, v);
    }
    if (!training) return;
    if (!c.any) {
      c.any = true;
      c.one = value;
    } else if (!c.several && differ(c, v)) {
      c.several = true;
    }
    if (c.tracking && !c.numeric_type() && c.seen.find(v) == c.seen.end()) {
      if (c.seen.size() >= column_check::kMaxDistinct || stored_ > (256u << 20)) {
        c.tracking = false;
      } else {
        store_.emplace_back(value);
        stored_ += value.size() + 32;
        c.seen.emplace(store_.back(), line);
      }
    }
  }

  void report(problems& p, std::size_t f, std::size_t rows, bool training) {
    for (auto& c : columns) {
      if (c.blanks.n > 0)
        p.add(f, c.blanks.line,
              c.where() + ": " + values(c.blanks.n) + " with surrounding blanks, such as " +
                  quoted(c.blanks.first));
      if (c.quotes.n > 0)
        p.add(f, c.quotes.line,
              c.where() + ": " + values(c.quotes.n) +
                  " holding quotes (they break DOT and PMML), such as " + quoted(c.quotes.first));
      if (c.unknown.n > 0)
        p.add(f, c.unknown.line,
              c.where() + ": " +
                  values(c.unknown.n, c.is_class ? "unknown class value" : "unknown weight") +
                  ", which brixcmd refuses");
      if (c.unreadable.n > 0)
        p.add(f, c.unreadable.line,
              c.where() + ": " + values(c.unreadable.n) + " that " +
                  (c.unreadable.n == 1 ? "is" : "are") + " not " + c.type + ", such as " +
                  quoted(c.unreadable.first));
      if (c.ignored) continue;  // its values are not kept, only refused
      // A few texts among many numbers: most likely unknown values the reader does not know as
      // such, and they turn the column discrete.
      if (training && c.type.empty() && !c.is_class && c.texts.n > 0 && c.stray.size() <= 3 &&
          c.numbers >= 4 * c.texts.n) {
        std::string shown;
        for (std::size_t i = 0; i < c.stray.size(); ++i)
          shown += (i == 0 ? "" : ", ") + quoted(c.stray[i]);
        p.add(f, c.texts.line,
              c.where() + ": " + values(c.numbers, "number") + " and " + values(c.texts.n, "text") +
                  " (" + shown + ") make it a discrete column; mark unknown values as ? or NA");
      }
      if (!training || rows < 2) continue;
      // As the readers warn: a class of (nearly) a value per row or of fractional numbers, and
      // another column whose values all differ, like an ID (not numbers with fractions or dates,
      // measurements often all differ).
      bool counted = c.tracking && !c.numeric_type();
      if (rows >= 10 && counted && c.is_class && c.seen.size() * 10 >= rows * 9)
        p.add(f, 0,
              c.where() + ": " + std::to_string(c.seen.size()) + " different values in " +
                  std::to_string(rows) +
                  " rows, nearly one a row; is it the class? --class NAME names another");
      else if (rows >= 10 && c.is_class && c.all_numbers && c.fractions)
        p.add(f, 0,
              c.where() +
                  ": the class holds numbers with fractions, each one a class of its own; is it "
                  "the class? --class NAME names another");
      else if (rows >= 10 && counted && !c.is_class && !c.weights && c.known == rows &&
               c.seen.size() == rows && !(c.all_numbers && c.fractions) && !c.dates)
        p.add(f, 0,
              c.where() + ": all " + std::to_string(rows) +
                  " values differ, likely an ID; --kind " + c.name + "=ignore leaves it out");
      if (!c.any)
        p.add(f, 0, c.where() + ": no known value");
      else if (!c.several)
        p.add(f, 0, c.where() + ": one value only, " + quoted(c.one));
      if (!c.numeric_type() && !(c.type.empty() && c.all_numbers)) variants(p, f, c);
    }
  }

 private:
  // Values brixcmd reads as different while they differ only in letter case or blanks.
  static void variants(problems& p, std::size_t f, column_check const& c) {
    std::unordered_map<std::string, std::vector<std::pair<std::size_t, std::string_view>>> groups;
    for (auto const& s : c.seen) {
      std::string key;
      for (char ch : s.first) {
        if (blank(ch)) {
          if (!key.empty() && key.back() != ' ') key += ' ';
        } else {
          key += static_cast<char>(std::tolower(static_cast<unsigned char>(ch)));
        }
      }
      if (!key.empty() && key.back() == ' ') key.pop_back();
      groups[key].push_back({s.second, s.first});
    }
    std::size_t n = 0, line = 0;
    std::string example;
    for (auto& g : groups) {
      if (g.second.size() < 2) continue;
      n += g.second.size();
      std::sort(g.second.begin(), g.second.end());
      if (line == 0 || g.second[1].first < line) {
        line = g.second[1].first;
        example = quoted(g.second[0].second) + " (line " + std::to_string(g.second[0].first) +
                  ") and " + quoted(g.second[1].second);
      }
    }
    if (n > 0)
      p.add(f, line,
            c.where() + ": " + example + " are different values to brixcmd; " + std::to_string(n) +
                " values differ from another only in case or blanks");
  }

  std::deque<std::string> store_;
  std::size_t stored_ = 0;
};

// A reader's message without the place it names ("File PATH, line N"), which the report
// shows in front of it.
std::string without_place(std::string const& message, std::string const& path, std::size_t line) {
  std::string_view m = message;
  std::string const file = "File " + path, at = ", line " + std::to_string(line);
  if (m.substr(0, file.size()) != file) return message;
  m.remove_prefix(file.size());
  if (line > 0 && m.substr(0, at.size()) == at) m.remove_prefix(at.size());
  if (m.substr(0, 2) == ", " || m.substr(0, 2) == ": ") m.remove_prefix(2);
  return std::string(m);
}

// A problem the CSV reader reports, as a line of the check: problems of rows of one kind are
// counted past the first few; a file that is not text has no other problem.
void csv_problem(problems& p, std::size_t f, brix::read_problem const& q, std::string const& path) {
  std::string text = without_place(q.message, path, q.line);
  auto ends = [&](char const* tail) { return ends_with(text, tail); };
  if (ends("holds NUL bytes, not a text table"))
    p.not_text(f, q.line);
  else if (q.line > 0 && ends("text after a closing quote"))
    p.row(f, q.line, "texts after closing quotes", text);
  else if (q.line > 1 && text.find(" fields, the header has ") != std::string::npos)
    p.row(f, q.line, "rows of the wrong length", text);
  else
    p.add(f, q.line, text);
}

// The names of a CSV header, as the reader took them.
void check_header(problems& p, std::size_t f, value_checks& checks) {
  for (auto const& c : checks.columns) {
    std::string col = "column " + std::to_string(c.index + 1) + ": ";
    if (!c.name.empty() && (blank(c.name.front()) || blank(c.name.back())))
      p.add(f, 1, col + "the name " + quoted(c.name) + " has blanks around it");
    if (c.name.find('"') != std::string::npos)
      p.add(f, 1, col + "the name " + quoted(c.name) + " holds a quote (it breaks DOT and PMML)");
  }
}

// A row the reader left out for values its columns refuse.
struct left_row {
  std::size_t line;
  std::vector<std::string> fields;
  std::vector<bool> refused;
};

// The values of a row left out: those refused are counted as such (an unknown class or weight,
// or a text where a number is due), the others looked at as those of the rows kept.
void see_left_out(left_row const& row, bool training, value_checks& checks) {
  for (std::size_t j = 0; j < checks.columns.size() && j < row.fields.size(); ++j) {
    column_check& c = checks.columns[j];
    std::string const& v = row.fields[j];
    if (row.refused[j] && v == "?") {
      c.unknown.see(row.line, v);
      continue;
    }
    // A text where a number is due is a value of the column all the same: one among others.
    if (row.refused[j] && c.numeric_type()) c.unreadable.see(row.line, v);
    if (!c.ignored) checks.see(j, v, row.line, v == "?", training);
  }
}

// The values of a table, row by row on the lines they came from, with the rows the reader left
// out in between. A stem's columns are of the types its .names declares (types, where given); a
// CSV file's are inferred.
void check_values(brix::table const& t, std::vector<std::size_t> const& lines,
                  std::set<std::string> const& dates, bool stem, bool training,
                  value_checks& checks, std::vector<left_row> const& left = {},
                  std::vector<std::string> const* types = nullptr) {
  std::vector<brix::column_info> const info = brix::table_columns(t);
  std::size_t k = info.size();
  std::vector<std::vector<std::string>> texts(k);
  for (std::size_t j = 0; j < k; ++j) {
    brix::column_info const& c = info[j];
    column_check col;
    col.name = c.name;
    col.index = j;
    col.is_class = c.kind == brix::column_kind::class_label;
    col.weights = c.kind == brix::column_kind::weights;
    bool ignored = c.kind == brix::column_kind::ignore;
    // The reader takes a first column without a name for row names and ignores it.
    col.ignored = ignored;
    if (stem) col.type = types != nullptr ? (*types)[j] : c.datatype;
    checks.columns.push_back(std::move(col));
    if (!ignored) {
      texts[j] = {"?"};
      std::vector<std::string> known = brix::value_texts(t, j);
      texts[j].insert(texts[j].end(), known.begin(), known.end());
    }
  }
  auto next = left.begin();
  for (unsigned long r = 0; r < t.get_no_rows(); ++r) {
    for (; next != left.end() && next->line < lines[r]; ++next)
      see_left_out(*next, training, checks);
    for (std::size_t j = 0; j < k; ++j) {
      if (checks.columns[j].ignored) continue;
      unsigned long o = brix::value_code(t, j, r);
      checks.see(j, texts[j][o], lines[r], o == 0, training);
    }
  }
  for (; next != left.end(); ++next)
    see_left_out(*next, training, checks);
  // Dates are read as days: an ID they are not.
  for (auto& c : checks.columns)
    if (dates.count(c.name)) c.dates = true;
}

// A CSV file is checked by reading it: the reader lists every problem of its text, leaving out
// the rows at fault; the values of the rest are then looked at.
int check_csv(std::string const& path, std::string const& class_column, char given, problems& p) {
  char sep = given != 0                                              ? given
             : ends_with(path, ".tsv") || ends_with(path, ".tsv.gz") ? '\t'
                                                                     : ',';
  std::size_t f = p.file(path);
  zel::inpout::open_for_reading(path);  // missing or unreadable files fail as for the others
  if (char better = brix::better_separator(path, sep))
    p.add(f, 0,
          "the lines split evenly at " +
              (better == '\t'
                   ? std::string("tabs, not at ") + quoted(std::string(1, sep)) +
                         ": --sep tab reads them"
                   : quoted(std::string(1, better)) + ", not at " + quoted(std::string(1, sep)) +
                         ": --sep " + quoted(std::string(1, better)) + " reads them"));
  brix::read_options o;
  o.class_column = class_column;
  o.separator = sep;
  std::ostringstream warnings;
  o.warnings = &warnings;
  o.problems = [&](brix::read_problem const& q) { csv_problem(p, f, q, path); };
  std::vector<std::size_t> lines;
  o.row_lines = &lines;
  auto table = brix::read_csv(path, o);
  if (!table) return p.finish("");
  // Columns of dates, which the reader names among its notes.
  std::set<std::string> dates;
  std::istringstream notes(warnings.str());
  std::string const date_note = "': ISO dates, read as days since 1970-01-01";
  for (std::string line; std::getline(notes, line);) {
    std::size_t at = line.find(date_note), from = line.find(", column '");
    if (at != std::string::npos && from != std::string::npos && from + 10 <= at)
      dates.insert(line.substr(from + 10, at - from - 10));
  }
  value_checks checks;
  check_values(*table, lines, dates, false, true, checks);
  check_header(p, f, checks);
  std::size_t rows = table->get_no_rows();
  checks.report(p, f, rows, true);
  return p.finish(std::to_string(rows) + " rows");
}

// ARFF is checked by reading it: its reader lists every problem it meets, leaving out the rows
// at fault, and warns of columns a tree is better off without.
int check_arff(std::string const& path, std::string const& class_column, problems& p) {
  std::size_t f = p.file(path);
  zel::inpout::open_for_reading(path);  // missing or unreadable files fail as for the others
  brix::read_options o;
  o.class_column = class_column;
  std::ostringstream warnings;
  o.warnings = &warnings;
  o.problems = [&](brix::read_problem const& q) {
    p.add(f, q.line, without_place(q.message, path, q.line));
  };
  std::size_t rows = 0;
  try {
    auto table = brix::read_arff(path, o);
    if (table) rows = table->get_no_rows();
  } catch (std::runtime_error const& e) {
    p.add(f, 0, e.what());
  }
  // The reader's warnings on columns are problems here.
  std::istringstream lines(warnings.str());
  for (std::string line; std::getline(lines, line);)
    p.add(f, 0, without_place(line, path, 0));
  return p.finish(std::to_string(rows) + " rows");
}

// A stem is checked by reading it as brixcmd does, the reader reporting each problem and
// reading on; the values of the rows it keeps are then looked at.
struct stem_read {
  std::unique_ptr<brix::table> table;
  std::vector<brix::read_problem> problems;
  std::vector<std::size_t> rows, columns;  // the line of each row, of each column
  std::vector<left_row> left;              // rows left out for values refused
  std::string names;                       // the .names file
};

// Thrown from the reader's problem sink: the separator tried does not split the first
// declaration into a name, a type and a kind.
struct wrong_separator {};

stem_read read_stem(std::string const& stem, std::string const& rows, char sep, bool trying) {
  stem_read r;
  brix::read_options o;
  o.separator = sep;
  o.rows_file = rows;
  o.row_lines = &r.rows;
  o.column_lines = &r.columns;
  o.rows_left_out = [&r](std::size_t line, std::vector<std::string> const& fields,
                         std::vector<bool> const& refused) {
    r.left.push_back({line, fields, refused});
  };
  std::string const names = r.names = stem + ".names";
  o.problems = [&](brix::read_problem const& q) {
    auto has = [&q](char const* s) { return q.message.find(s) != std::string::npos; };
    if (trying && q.file == names && q.line == 1 &&
        (has("bad row format") || has("invalid o_set type") || has("Unknown column type")))
      throw wrong_separator{};
    r.problems.push_back(q);
  };
  r.table = brix::read_table(stem, o);
  return r;
}

// The training rows, read with the separator given, else the first that splits the first line
// of the .names into a name, a type and a kind (',' when none does).
stem_read read_training(std::string const& stem, std::string const& rows, char given, char& sep) {
  if (given != 0) return read_stem(stem, rows, sep = given, false);
  for (char s : std::string(",;\t|:^~!@$%&*=+/\\")) {
    try {
      return read_stem(stem, rows, sep = s, true);
    } catch (wrong_separator const&) {
    }
  }
  return read_stem(stem, rows, sep = ',', false);
}

// Fields in a line as the loader counts them: a separator ending the line opens none.
std::size_t fields_in(std::string const& line, char sep) {
  std::size_t n = 1 + static_cast<std::size_t>(std::count(line.begin(), line.end(), sep));
  return n > 1 && line.back() == sep ? n - 1 : n;
}

// A problem of the .names, in the check's words.
void names_problem(problems& p, std::size_t f, brix::read_problem const& q, char sep) {
  auto has = [&q](char const* s) { return q.message.find(s) != std::string::npos; };
  if (has("NUL bytes"))
    p.not_text(f, q.line);
  else if (has("a byte order mark"))
    p.add(f, q.line, "a byte order mark, which brixcmd reads as part of the first field");
  else if (has("bad row format") && q.value.empty())
    p.add(f, q.line, "a blank line, which brixcmd refuses");
  else if (has("bad row format"))
    p.add(f, q.line,
          std::to_string(fields_in(q.value, sep)) +
              " field(s) where name, type and kind are expected");
  else if (has("invalid o_set type"))
    p.add(f, q.line,
          "unknown type " + quoted(q.value) + " (integer, uinteger, float, double, string, null)");
  else if (has("Unknown column type"))
    p.add(f, q.line,
          "unknown kind " + quoted(q.value) + " (discrete, continuous, class, weights, ignore)");
  else if (has("requires a numeric data type"))
    p.add(f, q.line, "a continuous column needs the type integer, uinteger or float");
  else if (has("requires a non-negative numeric data type"))
    p.add(f, q.line, "a weights column needs the type integer, uinteger or float");
  else if (has("Null set of column values"))
    p.add(f, q.line, "the type null is for ignored columns only");
  else
    p.add(f, q.line, without_place(q.message, q.file, q.line));
}

// What the .names declares as a whole and the names of its columns, on the lines they are
// declared on. reported: whether the reader reported problems with it.
void check_declarations(problems& p, std::size_t f, stem_read const& r, bool reported) {
  std::vector<brix::column_info> const info = brix::table_columns(*r.table);
  if (info.empty() && !reported) return p.add(f, 0, "empty");
  std::size_t classes = 0, weights = 0;
  std::map<std::string, std::size_t> named;
  for (std::size_t j = 0; j < info.size(); ++j) {
    std::string const& name = info[j].name;
    std::size_t line = r.columns[j];
    classes += info[j].kind == brix::column_kind::class_label;
    weights += info[j].kind == brix::column_kind::weights;
    if (!name.empty() && (blank(name.front()) || blank(name.back())))
      p.add(f, line, "the name " + quoted(name) + " has blanks around it");
    if (name.find('"') != std::string::npos)
      p.add(f, line, "the name " + quoted(name) + " holds a quote (it breaks DOT and PMML)");
    auto again = named.emplace(name, line);
    if (!again.second)
      p.add(f, line,
            "column " + quoted(name) + " named before, on line " +
                std::to_string(again.first->second));
  }
  if (classes != 1)
    p.add(
        f, 0,
        classes == 0 ? "no class column" : std::to_string(classes) + " class columns, one wanted");
  if (weights > 1) p.add(f, 0, std::to_string(weights) + " weights columns, one at most");
}

// A problem of a file of rows, in the check's words; values a column refuses are counted with
// the column's other findings, from the rows left out. Returns false for a file that is not text.
bool rows_problem(problems& p, std::size_t f, brix::read_problem const& q, char sep,
                  std::size_t k) {
  auto has = [&q](char const* s) { return q.message.find(s) != std::string::npos; };
  if (has("NUL bytes")) {
    p.not_text(f, q.line);
    return false;
  }
  if (has("a byte order mark"))
    p.add(f, q.line, "a byte order mark, which brixcmd reads as part of the first field");
  else if (has("a header row"))
    p.add(f, q.line, "a header row (the column names), which brixcmd reads as data");
  else if (has("bad row format") && q.value.empty())
    p.row(f, q.line, "blank lines", "a blank line, which brixcmd refuses");
  else if (has("bad row format"))
    p.row(f, q.line, "rows of the wrong length",
          std::to_string(fields_in(q.value, sep)) + " fields, the .names declares " +
              std::to_string(k));
  else if (!q.column.empty())
    return true;                   // a value refused, counted with its column's findings
  else if (!has("there must be"))  // one class, one weights column at most: the .names's
    p.add(f, q.line, without_place(q.message, q.file, q.line));
  return true;
}

// The type each column is declared with, also where the declaration was refused and a column of
// another type stands in for it.
std::vector<std::string> declared_types(stem_read const& r) {
  std::vector<brix::column_info> const info = brix::table_columns(*r.table);
  std::vector<std::string> types;
  for (std::size_t j = 0; j < info.size(); ++j) {
    types.push_back(info[j].datatype);
    for (auto const& q : r.problems)
      if (q.file == r.names && q.line == r.columns[j] && !q.column.empty() &&
          (q.message.find("invalid o_set type") != std::string::npos ||
           q.message.find("requires a non-negative") != std::string::npos)) {
        types.back() = q.value;
        break;
      }
  }
  return types;
}

// A file of rows of the stem: its problems, then its values. Returns its number of rows.
std::size_t check_rows(problems& p, std::string const& path, stem_read const& r, char sep,
                       bool training) {
  std::size_t f = p.file(path);
  value_checks checks;
  std::vector<std::string> types = declared_types(r);
  check_values(*r.table, r.rows, {}, true, training, checks, r.left, &types);
  bool text = true;
  for (auto const& q : r.problems)
    if (q.file == path && text) text = rows_problem(p, f, q, sep, checks.columns.size());
  if (!text) return 0;
  // As brixcmd counts them: the rows left out for a value refused too.
  std::size_t rows = r.table->get_no_rows() + r.left.size();
  if (rows == 0 && training) p.add(f, 0, "no rows");
  checks.report(p, f, rows, training);
  return rows;
}

// The .names: the reader's problems with it, then what it declares.
void check_names(problems& p, std::string const& names, stem_read const& r, char sep) {
  std::size_t f = p.file(names);
  bool reported = false;
  for (auto const& q : r.problems) {
    if (q.file != names) continue;
    reported = true;
    names_problem(p, f, q, sep);
    if (q.message.find("NUL bytes") != std::string::npos) return;  // no text: nothing else
  }
  check_declarations(p, f, r, reported);
}

int check_stem(std::string const& stem, char given, problems& p) {
  std::string names = stem + ".names";
  if (!file_exists(names)) throw std::runtime_error("File " + names + ": not found");
  std::string data = input_files(stem)[1], test = stem + ".test";
  if (!file_exists(data)) throw std::runtime_error("File " + stem + ".data: not found");
  zel::inpout::open_for_reading(names);  // unreadable files fail as for the other formats
  zel::inpout::open_for_reading(data);
  char sep = given;
  stem_read training = read_training(stem, data, given, sep);
  check_names(p, names, training, sep);
  std::size_t rows = check_rows(p, data, training, sep, true);
  if (file_exists(test)) check_rows(p, test, read_stem(stem, test, sep, false), sep, false);
  std::string what = std::to_string(rows) + " rows";
  if (sep != ',') what += ", separator " + quoted(std::string(1, sep));
  return p.finish(what);
}

}  // namespace

int brix_check(std::string const& data, std::string const& class_column, char sep) {
  problems p;
  if (ends_with(data, ".arff") || ends_with(data, ".arff.gz"))
    return check_arff(data, class_column, p);
  if (is_table_file(data)) return check_csv(data, class_column, sep, p);
  return check_stem(data, sep, p);
}
