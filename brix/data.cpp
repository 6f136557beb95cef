// The CSV reader: the file is read whole, parsed once in place (quotes removed, fields ended by
// NUL), column types are inferred from the parsed fields, and the rows are handed to the same
// loader as .data files.
#include "brix/data.h"

#include <sys/mman.h>
#include <sys/stat.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <ostream>
#include <set>
#include <stdexcept>
#include <string_view>
#include <type_traits>

#include "brix/impls/storage/table.h"
#include "zel/inpout/iogz.h"
#include "zel/inpout/stream.h"
#include "zel/util/datatype.h"

namespace brix {

std::string keyword(value_type t) {
  switch (t) {
    case value_type::integer:
      return "integer";
    case value_type::uinteger:
      return "uinteger";
    case value_type::float32:
      return "float";
    case value_type::float64:
      return "double";
    case value_type::string:
      return "string";
  }
  return "string";
}

std::string keyword(column_kind k) {
  switch (k) {
    case column_kind::discrete:
      return "discrete";
    case column_kind::continuous:
      return "continuous";
    case column_kind::class_label:
      return "class";
    case column_kind::weights:
      return "weights";
    case column_kind::ignore:
      return "ignore";
  }
  return "discrete";
}

namespace {

bool ends_with(std::string const& s, char const* tail) {
  std::size_t n = std::strlen(tail);
  return s.size() >= n && s.compare(s.size() - n, n, tail) == 0;
}

// Large buffers (the file's text, the cell pointers) on huge pages where the system offers
// them: on large files, faulting in 4 KiB pages took as long as the parsing.
template <typename T>
struct huge_allocator {
  using value_type = T;
  static constexpr std::size_t kHuge = std::size_t{4} << 20;  // below: the usual heap
  huge_allocator() = default;
  template <typename U>
  huge_allocator(huge_allocator<U> const&) {}
  T* allocate(std::size_t n) {
    std::size_t bytes = n * sizeof(T);
    if (bytes < kHuge) return std::allocator<T>().allocate(n);
    void* p = ::mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (p == MAP_FAILED) throw std::bad_alloc();
    ::madvise(p, bytes, MADV_HUGEPAGE);  // advice only: its failure changes nothing
    return static_cast<T*>(p);
  }
  void deallocate(T* p, std::size_t n) {
    std::size_t bytes = n * sizeof(T);
    if (bytes < kHuge)
      std::allocator<T>().deallocate(p, n);
    else
      ::munmap(p, bytes);
  }
  template <typename U>
  bool operator==(huge_allocator<U> const&) const {
    return true;
  }
  template <typename U>
  bool operator!=(huge_allocator<U> const&) const {
    return false;
  }
};

using text_buffer = std::basic_string<char, std::char_traits<char>, huge_allocator<char>>;

// The whole file, inflated when its name ends in .gz.
text_buffer slurp(std::string const& path) {
  text_buffer text;
  std::size_t have = 0;
  // Inflated straight into the text, which is parsed where it lies. A file this cannot take
  // (a pipe, damage) is read below through zlib, which reports what is wrong.
  auto grow = [&text](std::size_t& n) {
    text.resize(n);
    return &text[0];
  };
  if (ends_with(path, ".gz") &&
      zel::inpout::inflate_whole(path, std::numeric_limits<std::size_t>::max(), grow, have)) {
    text.resize(have);
    return text;
  }
  text = text_buffer();
  std::unique_ptr<zel::inpout::ioconn> in = zel::inpout::open_for_reading(path);
  // A plain file is read into one buffer of its size: no doubling, whose copies and fresh pages
  // cost more than the parsing on large files.
  if (!ends_with(path, ".gz") && in->is_random()) {
    long long n = in->size();
    if (n > 0) text.resize(static_cast<std::size_t>(n) + 1);
  }
  for (;;) {
    if (text.size() - have < (1 << 20))
      text.resize(std::max<std::size_t>(text.size() * 2, 1 << 20));
    int got =
        in->read(&text[have], static_cast<int>(std::min<std::size_t>(text.size() - have, 1 << 30)));
    if (got < 0) throw std::runtime_error("File " + path + ": read error");
    if (got == 0) break;
    have += static_cast<std::size_t>(got);
  }
  text.resize(have);
  return text;
}

// The unknown-value markers, checked without a string made per cell: a cell longer than every
// marker, the common case, is settled by its length.
class markers {
 public:
  explicit markers(std::vector<std::string> const& m) : list_(m) {
    for (auto const& s : m)
      longest_ = std::max(longest_, s.size());
  }
  // n: the cell's length, known to the parser.
  bool operator()(char const* v, std::size_t n) const {
    if (n > longest_) return false;
    for (auto const& s : list_)
      if (s.size() == n && std::memcmp(s.data(), v, n) == 0) return true;
    return false;
  }

 private:
  std::vector<std::string> list_;
  std::size_t longest_ = 0;
};

// Cells holding an unknown-value marker point here.
char const* const kUnknown = "?";

// The name given to a first column without one.
char const* const kRowNames = "(row names)";

struct parsed {
  std::vector<std::string> names;
  std::vector<char const*, huge_allocator<char const*>> cells;  // row-major, names.size() a row
  std::vector<std::size_t> lines;                               // the line each row starts on
  bool broken = false;  // problems collected: nothing could be read past one
};

// Where the caller collects problems, hands one over; otherwise throws it, as the readers do.
void report(read_options const& opts, std::string const& path, std::size_t line, std::string column,
            std::string value, std::string message) {
  if (!opts.problems) throw std::runtime_error(message);
  opts.problems(read_problem{path, line, std::move(column), std::move(value), std::move(message)});
}

// The rows whose drop[r] is false, in their order.
void keep_rows(parsed& p, std::vector<bool> const& drop) {
  std::size_t k = p.names.size(), kept = 0;
  for (std::size_t r = 0; r < p.lines.size(); ++r) {
    if (drop[r]) continue;
    if (kept != r) {
      std::copy_n(&p.cells[r * k], k, &p.cells[kept * k]);
      p.lines[kept] = p.lines[r];
    }
    ++kept;
  }
  p.cells.resize(kept * k);
  p.lines.resize(kept);
}

// A quoted field from its opening quote, its text moved to out with doubled quotes undone; s
// and line move past it. false when the file ends inside it.
inline bool quoted_field(char*& s, char* end, char*& out, std::size_t& line) {
  ++s;
  for (;;) {
    if (s >= end) return false;
    if (*s == '"') {
      if (s + 1 < end && s[1] == '"') {
        *out++ = '"';
        s += 2;
        continue;
      }
      ++s;
      return true;
    }
    if (*s == '\n') ++line;
    *out++ = *s++;
  }
}

// Refuses text that no record can be split from: NUL bytes, and lines ended by CR alone.
// Returns the count of line feeds.
std::size_t whole_text(char const* s, char const* end, std::string const& path,
                       read_options const& opts) {
  if (std::memchr(s, '\0', static_cast<std::size_t>(end - s)) != nullptr) {
    report(opts, path, 0, "", "", "File " + path + ": holds NUL bytes, not a text table");
    return std::string::npos;
  }
  std::size_t feeds = 0;
  for (char const* f = s; (f = static_cast<char const*>(std::memchr(f, '\n', end - f))) != nullptr;
       ++f)
    ++feeds;
  if (feeds == 0) {
    char const* cr =
        static_cast<char const*>(std::memchr(s, '\r', static_cast<std::size_t>(end - s)));
    if (cr != nullptr && cr + 1 < end) {
      report(opts, path, 0, "", "",
             "File " + path +
                 ": lines end in CR alone (old Mac text); save it with LF or CR LF line ends");
      return std::string::npos;
    }
  }
  return feeds;
}

// Parses in place: each field's text is moved to the front of its span and ended by a NUL.
// Where problems are collected, a record at fault is reported and left out.
parsed parse(text_buffer& text, char sep, std::string const& path, markers const& missing,
             read_options const& opts) {
  auto where = [&](std::size_t line) { return "File " + path + ", line " + std::to_string(line); };
  parsed p;
  bool header = true;
  auto column = [&](std::size_t j) { return header || j >= p.names.size() ? "" : p.names[j]; };
  char* s = &text[0];
  char* end = s + text.size();
  if (text.size() >= 3 && std::memcmp(s, "\xEF\xBB\xBF", 3) == 0) s += 3;
  // One pointer per cell, reserved once from the count of line feeds.
  std::size_t feeds = whole_text(s, end, path, opts);
  p.broken = feeds == std::string::npos;
  // Where an unquoted field ends; the string's terminating NUL stops the scan at the end, as
  // no other NUL is in the text.
  bool stops[256] = {};
  stops[static_cast<unsigned char>(sep)] = stops['\n'] = stops[0] = true;
  std::size_t line = 1;
  while (s < end && !p.broken) {
    std::size_t row_line = line;
    std::size_t first = p.cells.size(), fields = 0;
    bool blank = true;  // only one field, and that empty
    bool bad = false;   // reported: the record is left out
    // One record.
    for (;;) {
      char* out = s;
      char* field = s;
      std::size_t field_line = line;
      if (s < end && *s == '"') {
        if (!quoted_field(s, end, out, line)) {
          report(
              opts, path, field_line, column(fields), "",
              where(field_line) + ", column " + std::to_string(fields + 1) + ": quote not closed");
          p.broken = header;
          bad = true;
          break;
        }
        if (s < end && *s != sep && *s != '\n' && !(*s == '\r' && s + 1 < end && s[1] == '\n') &&
            !(*s == '\r' && s + 1 == end)) {
          report(opts, path, line, column(fields), "",
                 where(line) + ", column " + std::to_string(fields + 1) +
                     ": text after a closing quote");
          // Kept in the value, as written: the record goes on.
          while (!stops[static_cast<unsigned char>(*s)])
            *out++ = *s++;
          if (out > field && out[-1] == '\r' && (s >= end || *s == '\n')) --out;
        }
      } else {
        // Unquoted text stays where it is: only its end is found.
        while (!stops[static_cast<unsigned char>(*s)])
          ++s;
        out = s;
        if (out > field && out[-1] == '\r' && (s >= end || *s == '\n')) --out;
      }
      bool last = s >= end || *s == '\n' || *s == '\r';
      if (s < end && *s == '\r') ++s;
      if (s < end) ++s;  // separator or line feed
      *out = '\0';
      std::size_t n = static_cast<std::size_t>(out - field);
      blank = fields++ == 0 && n == 0;
      if (header)
        p.names.emplace_back(field, n);
      else
        p.cells.push_back(missing(field, n) ? kUnknown : field);
      if (last) {
        ++line;
        break;
      }
    }
    if (header) {
      header = false;
      p.broken = p.broken || bad;
      p.cells.reserve((feeds + 1) * p.names.size());
      p.lines.reserve(feeds + 1);
      continue;
    }
    if (!bad && !blank && fields != p.names.size())
      report(opts, path, row_line, "", "",
             where(row_line) + ": " + std::to_string(fields) + " fields, the header has " +
                 std::to_string(p.names.size()));
    if (bad || blank || fields != p.names.size()) {
      p.cells.resize(first);
      continue;
    }
    p.lines.push_back(row_line);
  }
  if (p.broken) return p;
  if (p.names.empty()) {
    report(opts, path, 0, "", "", "File " + path + ": empty, no header row");
    p.broken = true;
  } else if (p.lines.empty()) {
    report(opts, path, 0, "", "", "File " + path + ": a header and no rows");
    p.broken = true;
  }
  return p;
}

// Digits with an optional sign, within the integer type's range, which is symmetric: the loader
// refuses -2^31, so such a column is a float one. A hand loop, as this runs on every numeric cell.
bool is_int32(char const* s) {
  if (*s == '-' || *s == '+') ++s;
  if (*s == '\0') return false;
  while (s[0] == '0' && s[1] >= '0' && s[1] <= '9')
    ++s;
  std::uint64_t v = 0;
  for (int n = 0; *s != '\0'; ++s, ++n) {
    if (*s < '0' || *s > '9' || n == 11) return false;
    v = v * 10 + static_cast<std::uint64_t>(*s - '0');
  }
  return v <= (std::uint64_t{1} << 31) - 1;
}

// A number's syntax (sign, digits, point, exponent, or inf), checked without converting it.
// far: whether the value may lie beyond a float's range (its digits and its exponent's size
// above 30 together), which only converting it tells.
bool looks_numeric(char const* s, bool& far) {
  far = false;
  if (*s == '+' || *s == '-') ++s;
  if ((s[0] == 'i' || s[0] == 'I') && (s[1] == 'n' || s[1] == 'N') && (s[2] == 'f' || s[2] == 'F'))
    return s[3] == '\0' || std::strcmp(s + 3, "inity") == 0;
  char const* from = s;
  bool digits = false;
  while (*s >= '0' && *s <= '9')
    ++s, digits = true;
  if (*s == '.') {
    ++s;
    while (*s >= '0' && *s <= '9')
      ++s, digits = true;
  }
  if (!digits) return false;
  long size = s - from;
  if (*s == 'e' || *s == 'E') {
    ++s;
    if (*s == '+' || *s == '-') ++s;
    if (!(*s >= '0' && *s <= '9')) return false;
    long e = 0;
    while (*s >= '0' && *s <= '9')
      e = std::min(e * 10 + (*s++ - '0'), 1000L);
    size += e;
  }
  far = size > 30;
  return *s == '\0';
}

bool is_number(char const* s, double& v) {
  char const* e = s + std::strlen(s);
  auto r = std::from_chars(s + (*s == '+'), e, v);
  return r.ec == std::errc() && r.ptr == e && e != s && !std::isnan(v);
}

// Fixed-width digits of an ISO date or time; false on anything else.
bool digits(char const* s, int n, int& v) {
  v = 0;
  for (int i = 0; i < n; ++i) {
    if (s[i] < '0' || s[i] > '9') return false;
    v = v * 10 + (s[i] - '0');
  }
  return true;
}

}  // namespace

bool iso_date(char const* s, double& days) {
  int y, m, d, hh = 0, mm = 0, ss = 0;
  if (!digits(s, 4, y) || s[4] != '-' || !digits(s + 5, 2, m) || s[7] != '-' ||
      !digits(s + 8, 2, d))
    return false;
  s += 10;
  if (*s == 'T' || *s == ' ') {
    if (!digits(s + 1, 2, hh) || s[3] != ':' || !digits(s + 4, 2, mm)) return false;
    s += 6;
    if (*s == ':') {
      if (!digits(s + 1, 2, ss)) return false;
      s += 3;
    }
    if (hh > 23 || mm > 59 || ss > 59) return false;
  }
  if (*s != '\0' || m < 1 || m > 12 || d < 1) return false;
  bool leap = (y % 4 == 0 && y % 100 != 0) || y % 400 == 0;
  static int const kMonth[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
  if (d > kMonth[m - 1] + (m == 2 && leap)) return false;
  // Days of the proleptic Gregorian calendar, counted in 400-year eras from March 1.
  long yy = y - (m <= 2);
  long era = yy / 400, yoe = yy - era * 400;
  long doy = (153 * (m + (m > 2 ? -3 : 9)) + 2) / 5 + d - 1;
  long doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
  days = static_cast<double>(era * 146097 + doe - 719468) + (hh * 3600 + mm * 60 + ss) / 86400.0;
  return true;
}

namespace {

// Columns a tree is better off without, told where the caller wants warnings: a class with
// (nearly) a value per row or with fractional numbers, and other columns whose values all differ,
// like an ID. Floats and dates are left alone: measurements often all differ.
void warn_columns(impls::table const& t, std::string const& path, bool class_named,
                  std::vector<bool> const& dates, std::ostream* warnings) {
  if (warnings == nullptr) return;
  unsigned long rows = t.get_no_rows();
  if (rows < 10) return;  // too few rows to tell
  for (unsigned long j = 0; j < t.get_loaded_columns(); ++j) {
    impls::column const* c = t.get_column(j);
    impls::o_set* set = c->get_o_set();
    unsigned long distinct = set->size_of_known();
    std::string const& type = set->get_datatype();
    std::string head = "File " + path + ", column '" + c->get_name() + "'";
    if (c->is_class()) {
      std::string how = class_named ? "" : " (the last column)";
      bool fractions = false;
      if (type == "string")
        for (unsigned long o = 1; o <= distinct && !fractions; ++o) {
          double v;
          std::string text = set->get_value(o);
          bool far;
          if (!looks_numeric(text.c_str(), far) || !is_number(text.c_str(), v)) break;
          fractions = v != std::floor(v);
        }
      if (distinct * 10 >= rows * 9)
        *warnings << head << ", taken as the class" << how << ": " << distinct
                  << " different values in " << rows
                  << " rows, nearly one a row; is it the class? --class NAME names another"
                  << std::endl;
      else if (fractions)
        *warnings << head << ", taken as the class" << how
                  << ": numbers with fractions, each one a class of its own; is it the class? "
                     "--class NAME names another"
                  << std::endl;
      continue;
    }
    if (c->is_ignore() || c->is_weights() || (j < dates.size() && dates[j])) continue;
    if (type != "string" && type != "integer" && type != "uinteger") continue;
    if (distinct == rows && !set->contains_null())
      *warnings << head << ": all " << rows << " values differ, likely an ID; --kind "
                << c->get_name() << "=ignore leaves it out" << std::endl;
  }
}

// A message quoting a cell or a line of any length, cut to a readable size with its tail (what
// was wrong) kept.
std::string cut(std::string const& msg) {
  if (msg.size() <= 200) return msg;
  std::size_t colon = msg.rfind(": ");
  std::string tail = colon != std::string::npos && msg.size() - colon < 80 ? msg.substr(colon) : "";
  return msg.substr(0, 100) + "..." + tail;
}

// Whether s[0..n) is UTF-8: no stray continuation bytes, overlong forms, surrogates or code
// points past U+10FFFF, so that every text output built from it is well formed.
bool is_utf8(unsigned char const* s, std::size_t n) {
  for (std::size_t i = 0; i < n;) {
    unsigned char c = s[i];
    if (c < 0x80) {
      ++i;
      continue;
    }
    std::size_t len = c >= 0xC2 && c <= 0xDF   ? 2
                      : c >= 0xE0 && c <= 0xEF ? 3
                      : c >= 0xF0 && c <= 0xF4 ? 4
                                               : 0;
    if (len == 0 || i + len > n) return false;
    for (std::size_t j = 1; j < len; ++j)
      if ((s[i + j] & 0xC0) != 0x80) return false;
    if ((c == 0xE0 && s[i + 1] < 0xA0) || (c == 0xED && s[i + 1] > 0x9F) ||
        (c == 0xF0 && s[i + 1] < 0x90) || (c == 0xF4 && s[i + 1] > 0x8F))
      return false;
    i += len;
  }
  return true;
}

bool is_utf8(char const* s) {
  return is_utf8(reinterpret_cast<unsigned char const*>(s), std::strlen(s));
}

// Whether any byte is outside ASCII, eight at a time: most tables are ASCII and need no more.
bool any_high(char const* s, std::size_t n) {
  std::size_t i = 0;
  for (; i + 8 <= n; i += 8) {
    std::uint64_t w;
    std::memcpy(&w, s + i, 8);
    if (w & 0x8080808080808080ULL) return true;
  }
  for (; i < n; ++i)
    if (static_cast<unsigned char>(s[i]) & 0x80) return true;
  return false;
}

std::string not_utf8(std::string const& where) {
  return where +
         ": bytes that are not UTF-8 (save the file as UTF-8, e.g. with iconv -f LATIN1 -t UTF-8)";
}

std::string unknown_classes(std::string const& path, std::string const& name, std::size_t n) {
  return "File " + path + ", class column '" + name + "': " + std::to_string(n) + " unknown value" +
         (n == 1 ? "" : "s") + "; a row to learn from needs its class (remove those rows or name " +
         "another class column)";
}

// A value at fault, thrown inside a row and caught where the row is read.
struct cell_error : std::runtime_error {
  cell_error(std::string const& message, std::string c, std::string v)
      : std::runtime_error(message), column(std::move(c)), value(std::move(v)) {}
  std::string column, value;
};

// Which of a row's cells its column's type refuses (k when none does), and why: the loader stops
// at the first such value without saying whose it was.
std::size_t refusing(std::vector<value_type> const& types, char const* const* cells,
                     std::string* why = nullptr) {
  namespace dt = zel::data_types;
  for (std::size_t j = 0; j < types.size(); ++j) {
    char const* v = cells[j];
    if (v == kUnknown || std::strcmp(v, "?") == 0) continue;
    try {
      switch (types[j]) {
        case value_type::integer:
          dt::datatype<int>::parse(v);
          break;
        case value_type::uinteger:
          dt::datatype<unsigned long>::parse(v);
          break;
        case value_type::float32:
          dt::datatype<float>::parse(v);
          break;
        case value_type::float64:
          dt::datatype<double>::parse(v);
          break;
        case value_type::string:
          break;
      }
    } catch (std::runtime_error const& e) {
      if (why != nullptr) *why = e.what();
      return j;
    }
  }
  return types.size();
}

// Every name and cell as UTF-8, checked only when some byte is outside ASCII.
void require_utf8(text_buffer const& text, parsed& p, std::string const& path,
                  read_options const& opts) {
  if (!any_high(text.data(), text.size())) return;
  std::size_t k = p.names.size(), rows = p.lines.size();
  for (std::size_t j = 0; j < k; ++j)
    if (!is_utf8(p.names[j].c_str())) {
      report(opts, path, 1, "", p.names[j],
             not_utf8("File " + path + ", line 1, column " + std::to_string(j + 1)));
      p.broken = true;
    }
  std::vector<bool> drop(rows, false);
  for (std::size_t r = 0; r < rows; ++r)
    for (std::size_t j = 0; j < k && !drop[r]; ++j)
      if (!is_utf8(p.cells[r * k + j])) {
        report(opts, path, p.lines[r], p.names[j], p.cells[r * k + j],
               not_utf8("File " + path + ", line " + std::to_string(p.lines[r]) + ", column '" +
                        p.names[j] + "'"));
        drop[r] = true;
      }
  keep_rows(p, drop);
}

// The header's names checked (row names taken for what they are); the class column's index,
// k when the table has none.
std::size_t header_columns(parsed& p, std::string const& path, read_options const& opts,
                           bool& row_names) {
  std::size_t k = p.names.size();
  // A first column without a name holds row names, as R's write.csv writes them.
  row_names = k > 1 && p.names[0].empty();
  if (row_names) {
    p.names[0] = kRowNames;
    if (opts.warnings)
      *opts.warnings << "File " << path << ": the first column has no name; taken as row names"
                     << " and ignored (named '" << kRowNames << "', e.g. for predict --id)"
                     << std::endl;
  }
  // Where problems are collected, each is reported; names that cannot make a table leave none,
  // a column named in the options that is not there is left unused.
  auto refuse = [&](std::size_t line, std::string const& column, std::string message) {
    report(opts, path, line, column, "", std::move(message));
    p.broken = p.broken || line > 0;
  };
  std::set<std::string> seen;
  for (auto const& n : p.names) {
    if (n.empty()) refuse(1, n, "File " + path + ", line 1: a column without a name");
    if (!n.empty() && !seen.insert(n).second)
      refuse(1, n, "File " + path + ", line 1: column '" + n + "' named twice");
  }
  std::size_t cls = k - 1;
  if (!opts.class_column.empty()) {
    auto it = std::find(p.names.begin(), p.names.end(), opts.class_column);
    if (it == p.names.end()) {
      if (opts.require_class)
        refuse(0, opts.class_column, "File " + path + ": no column '" + opts.class_column + "'");
      cls = k;
    } else {
      cls = static_cast<std::size_t>(it - p.names.begin());
    }
  } else if (!opts.require_class) {
    cls = k;
  }
  for (auto const& o : opts.types)
    if (!seen.count(o.first)) refuse(0, o.first, "File " + path + ": no column '" + o.first + "'");
  for (auto const& o : opts.kinds)
    if (!seen.count(o.first)) refuse(0, o.first, "File " + path + ": no column '" + o.first + "'");
  return cls;
}

// What the values of a CSV column look like.
struct shape {
  bool all_int = true, all_num = true, any = false, lossy = false, wide = false;
  bool all_date = true, whole_days = true;
  std::size_t looked = 0;
  std::string lossy_value, wide_value;
};

// Which columns need their values looked at: not the class, nor one whose type the caller chose
// or whose kind takes texts.
std::vector<shape> initial_shapes(parsed const& p, read_options const& opts, std::size_t cls,
                                  bool row_names) {
  std::size_t k = p.names.size();
  std::vector<shape> shapes(k);
  for (std::size_t j = 0; j < k; ++j) {
    auto kd = opts.kinds.find(p.names[j]);
    bool numeric_kind = kd == opts.kinds.end() || kd->second == column_kind::continuous ||
                        kd->second == column_kind::weights;
    if (j == cls || opts.types.count(p.names[j]) || !numeric_kind || (row_names && j == 0) ||
        opts.numeric_if_present.count(p.names[j]))
      shapes[j].all_num = false;
    // Dates are read whatever number type is asked for (the type of a training column may be
    // passed on to its test file).
    auto t = opts.types.find(p.names[j]);
    bool date_type = t == opts.types.end() || t->second != value_type::string;
    if (j == cls || !date_type || !numeric_kind || (row_names && j == 0))
      shapes[j].all_date = false;
  }
  return shapes;
}

// One known value of a column still looked at.
inline void look_at(shape& c, char const* v) {
  c.any = true;
  // The syntax only here, the calendar when the column is converted. A value may look like the
  // start of a date and still be a number (1.5e-3), or like neither (0.2s-x): the number test runs
  // on it all the same, as the column may turn out not to be dates.
  if (c.all_date)
    c.all_date =
        v[0] >= '0' && v[0] <= '9' && v[1] != '\0' && v[2] != '\0' && v[3] != '\0' && v[4] == '-';
  if (!c.all_num) return;
  if (c.all_int && is_int32(v)) return;
  c.all_int = false;
  bool far;
  if (!looks_numeric(v, far)) {
    c.all_num = false;
    return;
  }
  if (far) {
    // Converted as the loader converts: a value a float cannot hold makes the column double,
    // one no double holds either (1e309) makes it text, never a column the loader refuses.
    float f;
    double d;
    if (!zel::data_types::detail::parse_floating(v, f)) {
      if (zel::data_types::detail::parse_floating(v, d)) {
        if (!c.wide) c.wide_value = v;
        c.wide = true;
      } else
        c.all_num = false;
    }
    if (!c.all_num) return;
  }
  // Precision is looked at on the first values only: the warning gives an example.
  double d;
  if (c.lossy || ++c.looked > 1000 || !is_number(v, d)) return;
  if (static_cast<double>(static_cast<float>(d)) != d) {
    // Lossy when the float's shortest text differs from the value's.
    char a[64], b[64];
    auto ra = std::to_chars(a, a + sizeof a, static_cast<float>(d));
    auto rb = std::to_chars(b, b + sizeof b, d);
    if (std::string(a, ra.ptr) != std::string(b, rb.ptr)) {
      c.lossy = true;
      c.lossy_value = v;
    }
  }
}

// The values looked at in one pass in row order (the cells of a row lie together in memory).
void look_at_rows(parsed const& p, std::vector<shape>& shapes) {
  std::size_t k = p.names.size(), rows = p.lines.size();
  for (std::size_t r = 0; r < rows; ++r)
    for (std::size_t j = 0; j < k; ++j) {
      shape& c = shapes[j];
      if (!c.all_num && !c.all_date) continue;
      char const* v = p.cells[r * k + j];
      if (v != kUnknown) look_at(c, v);
    }
}

// ISO dates become days since 1970-01-01: whole days as integers, others as doubles. Their texts
// go to date_texts, fixed slots which the cells then point into. Which columns are dates.
std::vector<bool> convert_dates(parsed& p, std::vector<shape>& shapes, std::string const& path,
                                std::ostream* warnings, std::vector<char>& date_texts) {
  constexpr std::size_t kSlot = 32;
  std::size_t k = p.names.size(), rows = p.lines.size();
  std::vector<bool> dates(k, false);
  std::size_t date_columns = 0;
  for (std::size_t j = 0; j < k; ++j) {
    shape& c = shapes[j];
    if (!c.any || !c.all_date) continue;
    for (std::size_t r = 0; r < rows && c.all_date; ++r) {
      char const* v = p.cells[r * k + j];
      double d;
      if (v == kUnknown) continue;
      c.all_date = iso_date(v, d);
      c.whole_days = c.whole_days && d == std::floor(d);
    }
    if (c.all_date) {
      dates[j] = true;
      c.all_num = false;
      ++date_columns;
    }
  }
  date_texts.assign(rows * kSlot * date_columns, '\0');
  for (std::size_t j = 0, n = 0; j < k; ++j) {
    if (!dates[j]) continue;
    for (std::size_t r = 0; r < rows; ++r) {
      char const*& v = p.cells[r * k + j];
      double d;
      if (v == kUnknown || !iso_date(v, d)) continue;
      char* out = &date_texts[(n * rows + r) * kSlot];
      auto e = shapes[j].whole_days ? std::to_chars(out, out + kSlot - 1, static_cast<long>(d))
                                    : std::to_chars(out, out + kSlot - 1, d);
      *e.ptr = '\0';
      v = out;
    }
    ++n;
    if (warnings)
      *warnings << "File " << path << ", column '" << p.names[j]
                << "': ISO dates, read as days since 1970-01-01"
                << (shapes[j].whole_days ? "" : " with fractions") << std::endl;
  }
  return dates;
}

// Each column's type and kind, from what its values look like and the caller's overrides,
// declared to the table; the types chosen.
std::vector<value_type> declare_csv_columns(impls::table& impl, parsed const& p,
                                            std::vector<shape> const& shapes,
                                            std::vector<bool> const& dates, std::size_t cls,
                                            bool row_names, std::string const& path,
                                            read_options const& opts) {
  std::size_t k = p.names.size();
  std::vector<value_type> types(k);
  for (std::size_t j = 0; j < k; ++j) {
    std::string const& name = p.names[j];
    column_kind kind = j == cls ? column_kind::class_label : column_kind::discrete;
    value_type type = value_type::string;
    shape const& c = shapes[j];
    if (c.any && c.all_num) {
      kind = column_kind::continuous;
      type = c.all_int ? value_type::integer : c.wide ? value_type::float64 : value_type::float32;
      if (c.wide && opts.warnings)
        *opts.warnings << "File " << path << ", column '" << name
                       << "': values lie beyond 32-bit float (e.g. " << c.wide_value
                       << "); the column is read as doubles" << std::endl;
      if (!c.all_int && !c.wide && c.lossy && opts.warnings)
        *opts.warnings << "File " << path << ", column '" << name << "': values such as '"
                       << c.lossy_value << "' are not exact in 32-bit float; --type " << name
                       << "=double keeps them exact" << std::endl;
    } else if (dates[j]) {
      kind = column_kind::continuous;
      type = c.whole_days ? value_type::integer : value_type::float64;
    } else if (row_names && j == 0) {
      kind = column_kind::ignore;
    }
    auto n = opts.numeric_if_present.find(name);
    if (n != opts.numeric_if_present.end() && j != cls) {
      kind = column_kind::continuous;
      type = n->second;
    }
    auto t = opts.types.find(name);
    if (t != opts.types.end()) {
      type = t->second;
      // A number type on its own keeps the column continuous; --kind may still say otherwise.
      if (j != cls && type != value_type::string) kind = column_kind::continuous;
    }
    auto kd = opts.kinds.find(name);
    if (kd != opts.kinds.end()) kind = kd->second;
    types[j] = type;
    try {
      impl.push_back(name, keyword(type), keyword(kind));
    } catch (std::runtime_error const& e) {
      throw std::runtime_error("File " + path + ", column '" + name + "': " + e.what());
    }
  }
  return types;
}

// The cells of a row lie together, unknown ones already the table's null text.
void load_csv_rows(impls::table& impl, parsed const& p, std::vector<value_type> const& types,
                   std::string const& path) {
  std::size_t k = p.names.size(), rows = p.lines.size(), r = 0;
  try {
    impl.load_rows([&]() -> char const* const* { return r == rows ? nullptr : &p.cells[r++ * k]; },
                   "?");
  } catch (std::runtime_error const& e) {
    // The loader stops at the first value its column refuses; find which one it was.
    std::size_t at = r == 0 ? 0 : r - 1;
    std::size_t j = refusing(types, &p.cells[at * k]);
    throw std::runtime_error(cut("File " + path + ", line " + std::to_string(p.lines[at]) +
                                 (j < k ? ", column '" + p.names[j] + "'" : "") + ": " + e.what()));
  }
}

}  // namespace

// Where problems are collected: rows without a class (when cls < k) and, with types given,
// rows holding a value its column's type refuses are reported and left out; false when no row
// is left.
bool drop_csv_rows(parsed& p, std::size_t cls, std::vector<value_type> const* types,
                   std::string const& path, read_options const& opts) {
  std::size_t k = p.names.size(), rows = p.lines.size(), unknown = 0;
  std::vector<bool> drop(rows, false);
  for (std::size_t r = 0; r < rows; ++r) {
    char const* const* row = &p.cells[r * k];
    if (cls < k && row[cls] == kUnknown) {
      drop[r] = true;
      ++unknown;
      continue;
    }
    std::string why;
    std::size_t j = types == nullptr ? k : refusing(*types, row, &why);
    if (j < k) {
      report(opts, path, p.lines[r], p.names[j], row[j],
             cut("File " + path + ", line " + std::to_string(p.lines[r]) + ", column '" +
                 p.names[j] + "': " + why));
      drop[r] = true;
    }
  }
  if (unknown > 0)
    report(opts, path, 0, p.names[cls], "", unknown_classes(path, p.names[cls], unknown));
  keep_rows(p, drop);
  if (p.lines.empty()) report(opts, path, 0, "", "", "File " + path + ": no row left to read");
  return !p.lines.empty();
}

std::unique_ptr<table> read_csv(std::string const& path, read_options const& opts) {
  char sep = opts.separator != 0                                       ? opts.separator
             : (ends_with(path, ".tsv") || ends_with(path, ".tsv.gz")) ? '\t'
                                                                       : ',';
  text_buffer text = slurp(path);
  markers missing(opts.missing);
  parsed p = parse(text, sep, path, missing, opts);
  if (p.broken) return nullptr;
  require_utf8(text, p, path, opts);
  bool row_names = false;
  std::size_t cls = header_columns(p, path, opts, row_names);
  std::size_t k = p.names.size();
  if (p.broken || (opts.problems && !drop_csv_rows(p, cls, nullptr, path, opts))) return nullptr;
  std::size_t rows = p.lines.size();
  auto impl = std::make_unique<impls::table>(path, cls < k);
  std::vector<shape> shapes = initial_shapes(p, opts, cls, row_names);
  look_at_rows(p, shapes);
  std::vector<char> date_texts;
  std::vector<bool> dates = convert_dates(p, shapes, path, opts.warnings, date_texts);
  if (cls < k) {
    std::size_t unknown = 0;
    for (std::size_t r = 0; r < rows; ++r)
      unknown += p.cells[r * k + cls] == kUnknown;
    if (unknown > 0) throw std::runtime_error(unknown_classes(path, p.names[cls], unknown));
  }
  std::vector<value_type> types;
  try {
    types = declare_csv_columns(*impl, p, shapes, dates, cls, row_names, path, opts);
  } catch (std::runtime_error const& e) {
    if (!opts.problems) throw;
    report(opts, path, 0, "", "", e.what());
    return nullptr;
  }
  if (opts.problems && !drop_csv_rows(p, k, &types, path, opts)) return nullptr;
  load_csv_rows(*impl, p, types, path);
  if (opts.row_lines != nullptr) opts.row_lines->assign(p.lines.begin(), p.lines.end());
  warn_columns(*impl, path, !opts.class_column.empty(), dates, opts.warnings);
  return std::unique_ptr<table>(table::adopt(impl.release()));
}

namespace {

// Splits an ARFF line at unquoted commas (or, with blanks, at unquoted blanks), removing quotes
// and the blanks around fields; false when a quote is not closed.
bool arff_fields(std::string const& line, std::vector<std::string>& out, bool by_blank) {
  out.clear();
  std::string f;
  bool any = false;
  std::size_t keep = 0;  // f up to its last character that is not a trailing blank
  auto end_field = [&]() {
    f.resize(keep);
    out.push_back(f);
    f.clear();
    any = false;
    keep = 0;
  };
  for (std::size_t i = 0; i < line.size();) {
    char c = line[i];
    if (c == ' ' || c == '\t') {
      if (by_blank) {
        if (any) end_field();
      } else if (any) {
        f += c;  // inside a value; dropped again if nothing follows
      }
      ++i;
      continue;
    }
    if (c == '\'' || c == '"') {
      std::size_t close = line.find(c, i + 1);
      while (close != std::string::npos && line[close - 1] == '\\')
        close = line.find(c, close + 1);
      if (close == std::string::npos) return false;
      f += line.substr(i + 1, close - i - 1);
      any = true;
      keep = f.size();
      i = close + 1;
      continue;
    }
    if (!by_blank && c == ',') {
      end_field();
      ++i;
      continue;
    }
    f += c;
    any = true;
    keep = f.size();
    ++i;
  }
  if (any || !by_blank) end_field();
  return true;
}

std::string lower(std::string s) {
  for (char& c : s)
    c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return s;
}

struct attribute {
  std::string name;
  value_type type;
  column_kind kind;
  std::vector<std::string> nominal;
  std::set<std::string> listed;  // the nominal values, to look rows' values up
};

// An ARFF file's declarations and its rows as texts, with the line each row is on.
struct arff_text {
  std::vector<attribute> atts;
  std::vector<std::vector<std::string>> rows;
  std::vector<std::size_t> lines;
};

std::string arff_where(std::string const& path, std::size_t line_no) {
  return "File " + path + ", line " + std::to_string(line_no);
}

// An @attribute line (the keyword included), as declared.
attribute arff_attribute(std::string const& line, std::string const& word, std::string const& path,
                         std::size_t line_no) {
  auto where = [&]() { return arff_where(path, line_no); };
  std::string rest = line.substr(word.size());
  std::size_t brace = rest.find('{');
  std::vector<std::string> head;
  if (!arff_fields(brace == std::string::npos ? rest : rest.substr(0, brace), head, true) ||
      head.empty())
    throw std::runtime_error(where() + ": bad attribute declaration");
  attribute a{head[0], value_type::string, column_kind::discrete, {}, {}};
  if (brace != std::string::npos) {
    std::size_t close = rest.rfind('}');
    if (close == std::string::npos || close < brace)
      throw std::runtime_error(where() + ": nominal values without a closing brace");
    if (!arff_fields(rest.substr(brace + 1, close - brace - 1), a.nominal, false))
      throw std::runtime_error(where() + ": quote not closed");
    a.listed.insert(a.nominal.begin(), a.nominal.end());
  } else {
    std::string type = head.size() > 1 ? lower(head[1]) : "";
    if (type == "integer") {
      a.type = value_type::integer;
      a.kind = column_kind::continuous;
    } else if (type == "numeric" || type == "real") {
      a.type = value_type::float32;
      a.kind = column_kind::continuous;
    } else if (type != "string") {
      throw std::runtime_error(where() + ", attribute '" + a.name + "': type '" + type +
                               "' is not supported");
    }
  }
  return a;
}

// A data line, dense or sparse, as one text per attribute; f is scratch space.
std::vector<std::string> arff_row(std::string const& line, std::vector<attribute> const& atts,
                                  std::vector<std::string>& f, std::string const& path,
                                  std::size_t line_no) {
  auto where = [&]() { return arff_where(path, line_no); };
  std::vector<std::string> row(atts.size());
  if (line[0] == '{') {
    // Sparse: absent entries are 0, or a nominal attribute's first value.
    for (std::size_t j = 0; j < atts.size(); ++j)
      row[j] = atts[j].nominal.empty() ? (atts[j].type == value_type::string ? "" : "0")
                                       : atts[j].nominal[0];
    std::size_t close = line.rfind('}');
    if (close == std::string::npos) throw std::runtime_error(where() + ": sparse row not closed");
    if (!arff_fields(line.substr(1, close - 1), f, false))
      throw std::runtime_error(where() + ": quote not closed");
    for (auto const& entry : f) {
      if (entry.empty()) continue;
      std::vector<std::string> iv;
      arff_fields(entry, iv, true);
      char* end = nullptr;
      unsigned long i = iv.empty() ? 0 : std::strtoul(iv[0].c_str(), &end, 10);
      if (iv.size() != 2 || *end != '\0' || i >= atts.size())
        throw std::runtime_error(where() + ": bad sparse entry '" + entry + "'");
      row[i] = iv[1];
    }
  } else {
    if (!arff_fields(line, f, false)) throw std::runtime_error(where() + ": quote not closed");
    if (f.size() != atts.size())
      throw std::runtime_error(where() + ": " + std::to_string(f.size()) + " values, " +
                               std::to_string(atts.size()) + " attributes declared");
    row = f;
  }
  for (std::size_t j = 0; j < atts.size(); ++j) {
    attribute const& a = atts[j];
    if (!is_utf8(row[j].c_str()))
      throw cell_error(not_utf8(where() + ", column '" + a.name + "'"), a.name, row[j]);
    // A value its declaration does not list is a typing error, not a new value (in the class,
    // a new class).
    if (!a.nominal.empty() && row[j] != "?" && !a.listed.count(row[j]))
      throw cell_error(cut(where() + ", column '" + a.name + "': '" + row[j] +
                           "' is not one of the values declared for it"),
                       a.name, row[j]);
  }
  return row;
}

// One line's declaration or row into a; false at @data.
bool arff_line(arff_text& a, std::string const& line, bool data, std::vector<std::string>& f,
               std::string const& path, std::size_t line_no) {
  auto where = [&]() { return arff_where(path, line_no); };
  if (!data) {
    if (!is_utf8(line.c_str())) throw std::runtime_error(not_utf8(where()));
    if (line[0] != '@') throw std::runtime_error(where() + ": expected a declaration");
    std::string word = lower(line.substr(0, line.find_first_of(" \t")));
    if (word == "@relation") return true;
    if (word == "@data") return false;
    if (word != "@attribute") throw std::runtime_error(where() + ": unknown declaration " + word);
    a.atts.push_back(arff_attribute(line, word, path, line_no));
    return true;
  }
  if (a.atts.empty()) throw std::runtime_error(where() + ": data before any attribute");
  a.rows.push_back(arff_row(line, a.atts, f, path, line_no));
  a.lines.push_back(line_no);
  return true;
}

// The declarations and the rows, line by line. Where problems are collected, a row at fault is
// left out; after a declaration at fault the rows are not read (their columns are unknown) and
// broken is set.
arff_text parse_arff(text_buffer const& text, std::string const& path, read_options const& opts,
                     bool& broken) {
  arff_text a;
  std::size_t at = 0, line_no = 0;
  bool data = false;
  std::vector<std::string> f;
  broken = false;
  while (at < text.size() && !(broken && data)) {
    std::size_t nl = text.find('\n', at);
    if (nl == std::string::npos) nl = text.size();
    std::string line(text, at, nl - at);
    at = nl + 1;
    ++line_no;
    if (!line.empty() && line.back() == '\r') line.pop_back();
    std::size_t first = line.find_first_not_of(" \t");
    if (first == std::string::npos || line[first] == '%') continue;
    line = line.substr(first);
    try {
      if (!arff_line(a, line, data, f, path, line_no)) data = true;
    } catch (cell_error const& e) {
      report(opts, path, line_no, e.column, e.value, e.what());
    } catch (std::runtime_error const& e) {
      if (!opts.problems) throw;
      report(opts, path, line_no, "", "", e.what());
      broken = broken || !data || a.atts.empty();
    }
  }
  if (broken) return a;
  if (a.atts.empty()) {
    report(opts, path, 0, "", "", "File " + path + ": no attribute declared");
    broken = true;
  } else if (a.rows.empty()) {
    report(opts, path, 0, "", "", "File " + path + ": no data rows");
    broken = true;
  }
  return a;
}

// The class attribute's index, k when the table has none.
std::size_t arff_class(std::vector<attribute> const& atts, std::string const& path,
                       read_options const& opts) {
  std::size_t k = atts.size(), cls = k - 1;
  if (!opts.class_column.empty()) {
    cls = k;
    for (std::size_t j = 0; j < k; ++j)
      if (atts[j].name == opts.class_column) cls = j;
    if (cls == k && opts.require_class)
      throw std::runtime_error("File " + path + ": no attribute '" + opts.class_column + "'");
  } else if (!opts.require_class) {
    cls = k;
  }
  return cls;
}

// The attributes declared to the table, the caller's overrides applied; their types.
std::vector<value_type> declare_arff_columns(impls::table& impl, std::vector<attribute>& atts,
                                             std::size_t cls, std::string const& path,
                                             read_options const& opts) {
  std::size_t k = atts.size();
  std::vector<value_type> types(k);
  for (std::size_t j = 0; j < k; ++j) {
    attribute& a = atts[j];
    if (j == cls) {
      a.type = value_type::string;
      a.kind = column_kind::class_label;
    }
    auto t = opts.types.find(a.name);
    if (t != opts.types.end()) a.type = t->second;
    auto kd = opts.kinds.find(a.name);
    if (kd != opts.kinds.end()) a.kind = kd->second;
    types[j] = a.type;
    try {
      impl.push_back(a.name, keyword(a.type), keyword(a.kind));
    } catch (std::runtime_error const& e) {
      throw std::runtime_error("File " + path + ", attribute '" + a.name + "': " + e.what());
    }
  }
  return types;
}

void load_arff_rows(impls::table& impl, arff_text const& a, std::vector<value_type> const& types,
                    markers const& missing, std::string const& path) {
  std::size_t k = a.atts.size(), r = 0;
  std::vector<char const*> cells(k);
  try {
    impl.load_rows(
        [&]() -> char const* const* {
          if (r == a.rows.size()) return nullptr;
          for (std::size_t j = 0; j < k; ++j)
            cells[j] =
                missing(a.rows[r][j].c_str(), a.rows[r][j].size()) ? "?" : a.rows[r][j].c_str();
          ++r;
          return cells.data();
        },
        "?");
  } catch (std::runtime_error const& e) {
    std::size_t at = r == 0 ? 0 : r - 1, j = k;
    if (r > 0) {
      for (std::size_t i = 0; i < k; ++i)
        cells[i] = a.rows[at][i].c_str();
      j = refusing(types, cells.data());
    }
    throw std::runtime_error(cut("File " + path + ", line " + std::to_string(a.lines[at]) +
                                 (j < k ? ", column '" + a.atts[j].name + "'" : "") + ": " +
                                 e.what()));
  }
}

}  // namespace

// Where problems are collected: rows without a class and rows with a value its column's type
// refuses are reported and left out; false when no row is left.
bool drop_arff_rows(arff_text& a, std::size_t cls, std::vector<value_type> const& types,
                    markers const& missing, std::string const& path, read_options const& opts) {
  std::size_t k = a.atts.size(), kept = 0, unknown = 0;
  std::vector<char const*> cells(k);
  for (std::size_t r = 0; r < a.rows.size(); ++r) {
    auto& row = a.rows[r];
    if (cls < k && missing(row[cls].c_str(), row[cls].size())) {
      ++unknown;
      continue;
    }
    for (std::size_t j = 0; j < k; ++j)
      cells[j] = missing(row[j].c_str(), row[j].size()) ? "?" : row[j].c_str();
    std::string why;
    std::size_t j = refusing(types, cells.data(), &why);
    if (j < k) {
      report(opts, path, a.lines[r], a.atts[j].name, row[j],
             cut("File " + path + ", line " + std::to_string(a.lines[r]) + ", column '" +
                 a.atts[j].name + "': " + why));
      continue;
    }
    if (kept != r) {
      a.rows[kept] = std::move(row);
      a.lines[kept] = a.lines[r];
    }
    ++kept;
  }
  a.rows.resize(kept);
  a.lines.resize(kept);
  if (unknown > 0)
    report(opts, path, 0, a.atts[cls].name, "?", unknown_classes(path, a.atts[cls].name, unknown));
  if (kept == 0) report(opts, path, 0, "", "", "File " + path + ": no data rows");
  return kept > 0;
}

std::unique_ptr<table> read_arff(std::string const& path, read_options const& opts) {
  text_buffer text = slurp(path);
  bool broken = false;
  arff_text a = parse_arff(text, path, opts, broken);
  if (broken) return nullptr;
  std::size_t k = a.atts.size(), cls = k;
  try {
    cls = arff_class(a.atts, path, opts);
  } catch (std::runtime_error const& e) {
    if (!opts.problems) throw;
    report(opts, path, 0, opts.class_column, "", e.what());
    return nullptr;
  }
  markers missing({"?"});
  if (cls < k && !opts.problems) {
    std::size_t unknown = 0;
    for (auto const& row : a.rows)
      unknown += missing(row[cls].c_str(), row[cls].size());
    if (unknown > 0) throw std::runtime_error(unknown_classes(path, a.atts[cls].name, unknown));
  }
  auto impl = std::make_unique<impls::table>(path, cls < k);
  std::vector<value_type> types;
  try {
    types = declare_arff_columns(*impl, a.atts, cls, path, opts);
  } catch (std::runtime_error const& e) {
    if (!opts.problems) throw;
    report(opts, path, 0, "", "", e.what());
    return nullptr;
  }
  if (opts.problems && !drop_arff_rows(a, cls, types, missing, path, opts)) return nullptr;
  load_arff_rows(*impl, a, types, missing, path);
  if (opts.row_lines != nullptr) *opts.row_lines = a.lines;
  warn_columns(*impl, path, !opts.class_column.empty(), {}, opts.warnings);
  return std::unique_ptr<table>(table::adopt(impl.release()));
}

char better_separator(std::string const& path, char sep) {
  // The first lines only: enough to tell, whatever the size of the file.
  std::string head;
  try {
    std::unique_ptr<zel::inpout::ioconn> in = zel::inpout::open_for_reading(path);
    head.resize(1 << 16);
    int got = in->read(&head[0], static_cast<int>(head.size()));
    head.resize(got > 0 ? static_cast<std::size_t>(got) : 0);
  } catch (std::exception const&) {
    return 0;
  }
  auto fits = [&head](char s) {
    std::size_t lines = 0, first = 0, fields = 1;
    bool quoted = false;
    for (std::size_t i = 0; i < head.size() && lines < 5; ++i) {
      char c = head[i];
      if (c == '"') {
        quoted = !quoted;
      } else if (!quoted && c == s) {
        ++fields;
      } else if (!quoted && c == '\n') {
        if (lines++ == 0) first = fields;
        if (fields != first) return false;
        fields = 1;
      }
    }
    return lines >= 2 && first >= 2;
  };
  if (fits(sep)) return 0;
  for (char s : {',', ';', '\t', '|'})
    if (s != sep && fits(s)) return s;
  return 0;
}

std::string non_utf8_text(impls::table const& t) {
  for (unsigned long j = 0; j < t.get_no_columns(); ++j) {
    impls::column const* c = t.get_column(j);
    if (!is_utf8(c->get_name().c_str())) return "the name of column " + std::to_string(j + 1);
    impls::o_set* values = c->get_o_set();
    if (values == nullptr || values->get_datatype() != "string") continue;
    for (unsigned long v = 1; v <= values->size_of_known(); ++v)
      if (!is_utf8(values->get_value(v).c_str()))
        return "a value of column '" + c->get_name() + "'";
  }
  return "";
}

namespace {

// A stem read on past its problems, each passed to opts.problems with its file and the message
// read_table would throw.
std::unique_ptr<table> read_stem_on(std::string const& path, std::string const& rows,
                                    read_options const& opts) {
  auto t = std::make_unique<table>(path);
  impls::table& impl = *t->get_impl();
  auto sink = [&opts](std::string const& file, char const* stage, std::vector<std::size_t>* lines) {
    impls::load_problems p;
    p.report = [&opts, file, stage](unsigned long line, std::string const& column,
                                    std::string const& value, std::string const& message) {
      opts.problems(read_problem{file, line, column, value, cut(stage + message)});
    };
    p.lines = lines;
    return p;
  };
  char sep = opts.separator != 0 ? opts.separator : ',';
  try {
    impls::load_problems names = sink(path + ".names", "Reading metadata: ", opts.column_lines);
    impl.load_meta_data(zel::inpout::stream::FROM_FILE(path + ".names", sep), true, &names);
    impls::load_problems data = sink(rows, "Reading training data: ", opts.row_lines);
    std::vector<std::string> texts;
    if (opts.rows_left_out)
      data.left_out = [&](unsigned long line, char const* const* fields,
                          std::vector<bool> const& refused) {
        texts.assign(fields, fields + refused.size());
        opts.rows_left_out(line, texts, refused);
      };
    impl.load_data(zel::inpout::stream::FROM_FILE(rows, sep), "?", true, &data);
  } catch (std::runtime_error const& e) {
    throw std::runtime_error(cut(e.what()));
  }
  std::string bad = non_utf8_text(impl);
  if (!bad.empty()) {
    std::string file = bad.compare(0, 8, "the name") == 0 ? path + ".names" : rows;
    opts.problems(read_problem{file, 0, "", "", not_utf8("File " + file + ", " + bad)});
  }
  return t;
}

}  // namespace

std::unique_ptr<table> read_table(std::string const& path, read_options const& opts) {
  if (ends_with(path, ".arff") || ends_with(path, ".arff.gz")) return read_arff(path, opts);
  for (char const* e : {".csv", ".tsv", ".txt", ".csv.gz", ".tsv.gz", ".txt.gz"})
    if (ends_with(path, e)) return read_csv(path, opts);
  std::string rows = opts.rows_file.empty() ? path + ".data" : opts.rows_file;
  struct stat st;
  if (opts.rows_file.empty() && ::stat(rows.c_str(), &st) != 0 &&
      ::stat((rows + ".gz").c_str(), &st) == 0)
    rows += ".gz";
  if (opts.problems) return read_stem_on(path, rows, opts);
  auto t = std::make_unique<table>(path);
  try {
    std::string sep(1, opts.separator != 0 ? opts.separator : ',');
    t->load_meta_data(datasource("FILE#" + path + ".names#" + sep));
    t->load_data(datasource("FILE#" + rows + "#" + sep), "?");
  } catch (std::runtime_error const& e) {
    throw std::runtime_error(cut(e.what()));  // such messages quote whole lines
  }
  std::string bad = non_utf8_text(*t->get_impl());
  if (!bad.empty()) throw std::runtime_error(not_utf8("File " + path + ".names/.data, " + bad));
  return t;
}

namespace {
// Where a builder's column takes its values from: a copied list, or an array read in place.
enum class source { numbers, texts, f64, f32, i64, i32, c8, c16, c32, c64 };
}  // namespace

// A column as given: copied value lists, or an array read in place (numbers or codes).
struct table_builder::column_values {
  column_values(std::string n, column_kind k, value_type t, source f)
      : name(std::move(n)), kind(k), type(t), from(f) {}
  std::string name;
  column_kind kind;
  value_type type;
  std::vector<double> numbers;
  std::vector<std::string> texts;
  std::vector<bool> known;
  source from;
  void const* data = nullptr;  // in place: the caller's array, span values
  std::size_t span = 0;
  bool const* mask = nullptr;
  std::vector<std::string> categories;
  // Whether row r holds the unknown value, read as the loader will read it.
  bool unknown_at(std::size_t r) const {
    if (mask != nullptr && !mask[r]) return true;
    if (!known.empty() && !known[r]) return true;
    auto code = [&](auto const* p) {
      return p[r] < 0 || (static_cast<std::size_t>(p[r]) < categories.size() &&
                          categories[static_cast<std::size_t>(p[r])] == "?");
    };
    switch (from) {
      case source::texts:
        return texts[r] == "?";
      case source::numbers:
        return std::isnan(numbers[r]);
      case source::f64:
        return std::isnan(static_cast<double const*>(data)[r]);
      case source::f32:
        return std::isnan(static_cast<float const*>(data)[r]);
      case source::i64:
      case source::i32:
        return false;
      case source::c8:
        return code(static_cast<std::int8_t const*>(data));
      case source::c16:
        return code(static_cast<std::int16_t const*>(data));
      case source::c32:
        return code(static_cast<std::int32_t const*>(data));
      case source::c64:
        return code(static_cast<std::int64_t const*>(data));
    }
    return false;
  }
  std::size_t size() const {
    switch (from) {
      case source::numbers:
        return numbers.size();
      case source::texts:
        return texts.size();
      default:
        return span;
    }
  }
};

namespace {

void refuse(std::string const& name, std::string const& what) {
  throw std::invalid_argument("[brix::table_builder] column '" + name + "': " + what);
}

void check_known(std::string const& name, std::size_t flags, std::size_t values) {
  if (flags != 0 && flags != values)
    refuse(name, std::to_string(flags) + " known flags for " + std::to_string(values) + " values");
}

void check_text_kind(std::string const& name, column_kind kind) {
  if (kind == column_kind::continuous || kind == column_kind::weights)
    refuse(name, "a " + keyword(kind) + " column needs numbers");
}

template <class T>
constexpr source number_source() {
  if constexpr (std::is_same<T, double>::value) return source::f64;
  if constexpr (std::is_same<T, float>::value) return source::f32;
  if constexpr (std::is_same<T, std::int64_t>::value) return source::i64;
  return source::i32;
}
template <class T>
constexpr source code_source() {
  if constexpr (sizeof(T) == 1) return source::c8;
  if constexpr (sizeof(T) == 2) return source::c16;
  if constexpr (sizeof(T) == 4) return source::c32;
  return source::c64;
}

// The loader's feed for one row of an array read in place.
template <class T>
std::function<void(impls::value_loader&, std::size_t)> number_feed(void const* data,
                                                                   bool const* mask) {
  T const* v = static_cast<T const*>(data);
  if (mask == nullptr)
    return [v](impls::value_loader& l, std::size_t r) { l.add_number(double(v[r]), true); };
  return [v, mask](impls::value_loader& l, std::size_t r) { l.add_number(double(v[r]), mask[r]); };
}

// Each category's text goes to the loader once, when its code is first met (so that unused
// categories stay out of the value set); rows then pass its id: the loader registers exactly what
// it registers reading the same texts from a file.
template <class T>
std::function<void(impls::value_loader&, std::size_t)> code_feed(
    void const* data, std::vector<std::string> const& categories, std::string const& name) {
  constexpr std::uint32_t kUnset = ~0u;
  T const* c = static_cast<T const*>(data);
  std::size_t n = categories.size();
  // Slot n: the unknown value.
  return [c, n, &categories, &name, ids = std::vector<std::uint32_t>(n + 1, kUnset)](
             impls::value_loader& l, std::size_t r) mutable {
    T code = c[r];
    std::size_t k = code < 0 ? n : static_cast<std::size_t>(code);
    if (code >= 0 && static_cast<std::uint64_t>(code) >= n)
      throw std::runtime_error("column '" + name + "', row " + std::to_string(r) + ": code " +
                               std::to_string(static_cast<long long>(code)) + " past the last of " +
                               std::to_string(n) + " categories");
    std::uint32_t& id = ids[k];
    if (id == kUnset) id = l.text_id(k == n ? "?" : categories[k].c_str());
    l.add_id(id);
  };
}

}  // namespace

table_builder::table_builder(std::string name) : name_(std::move(name)) {}
table_builder::~table_builder() = default;

table_builder& table_builder::add_numbers(std::string const& name, column_kind kind,
                                          value_type type, std::vector<double> const& values,
                                          std::vector<bool> const& known) {
  if (type == value_type::string) refuse(name, "numbers of type string");
  check_known(name, known.size(), values.size());
  columns_.emplace_back(name, kind, type, source::numbers);
  columns_.back().numbers = values;
  columns_.back().known = known;
  return *this;
}

table_builder& table_builder::add_strings(std::string const& name, column_kind kind,
                                          std::vector<std::string> const& values,
                                          std::vector<bool> const& known) {
  check_text_kind(name, kind);
  check_known(name, known.size(), values.size());
  columns_.emplace_back(name, kind, value_type::string, source::texts);
  columns_.back().texts = values;
  columns_.back().known = known;
  return *this;
}

template <class T>
table_builder& table_builder::add_span(std::string const& name, column_kind kind, value_type type,
                                       T const* values, std::size_t n, bool const* known) {
  if (type == value_type::string) refuse(name, "numbers of type string");
  if (values == nullptr && n != 0) refuse(name, "no array for " + std::to_string(n) + " values");
  column_values c(name, kind, type, number_source<T>());
  c.data = values;
  c.span = n;
  c.mask = known;
  columns_.push_back(std::move(c));
  return *this;
}

template <class T>
table_builder& table_builder::add_code_span(std::string const& name, column_kind kind,
                                            T const* codes, std::size_t n,
                                            std::vector<std::string> categories) {
  check_text_kind(name, kind);
  if (codes == nullptr && n != 0) refuse(name, "no array for " + std::to_string(n) + " codes");
  std::set<std::string_view> seen;
  for (auto const& t : categories)
    if (!seen.insert(t).second) refuse(name, "category '" + t + "' given twice");
  column_values c(name, kind, value_type::string, code_source<T>());
  c.data = codes;
  c.span = n;
  c.categories = std::move(categories);
  columns_.push_back(std::move(c));
  return *this;
}

table_builder& table_builder::add_numbers(std::string const& name, column_kind kind,
                                          value_type type, double const* values, std::size_t n,
                                          bool const* known) {
  return add_span(name, kind, type, values, n, known);
}
table_builder& table_builder::add_numbers(std::string const& name, column_kind kind,
                                          value_type type, float const* values, std::size_t n,
                                          bool const* known) {
  return add_span(name, kind, type, values, n, known);
}
table_builder& table_builder::add_numbers(std::string const& name, column_kind kind,
                                          value_type type, std::int64_t const* values,
                                          std::size_t n, bool const* known) {
  return add_span(name, kind, type, values, n, known);
}
table_builder& table_builder::add_numbers(std::string const& name, column_kind kind,
                                          value_type type, std::int32_t const* values,
                                          std::size_t n, bool const* known) {
  return add_span(name, kind, type, values, n, known);
}
table_builder& table_builder::add_codes(std::string const& name, column_kind kind,
                                        std::int8_t const* codes, std::size_t n,
                                        std::vector<std::string> categories) {
  return add_code_span(name, kind, codes, n, std::move(categories));
}
table_builder& table_builder::add_codes(std::string const& name, column_kind kind,
                                        std::int16_t const* codes, std::size_t n,
                                        std::vector<std::string> categories) {
  return add_code_span(name, kind, codes, n, std::move(categories));
}
table_builder& table_builder::add_codes(std::string const& name, column_kind kind,
                                        std::int32_t const* codes, std::size_t n,
                                        std::vector<std::string> categories) {
  return add_code_span(name, kind, codes, n, std::move(categories));
}
table_builder& table_builder::add_codes(std::string const& name, column_kind kind,
                                        std::int64_t const* codes, std::size_t n,
                                        std::vector<std::string> categories) {
  return add_code_span(name, kind, codes, n, std::move(categories));
}

table_builder& table_builder::keep_values(std::string const& name, std::vector<double> values,
                                          bool unknown) {
  kept& k = kept_[name];
  k.numbers = std::move(values);
  k.texts.clear();
  k.unknown = unknown;
  return *this;
}

table_builder& table_builder::keep_texts(std::string const& name, std::vector<std::string> texts,
                                         bool unknown) {
  kept& k = kept_[name];
  k.texts = std::move(texts);
  k.numbers.clear();
  k.unknown = unknown;
  return *this;
}

namespace {
[[noreturn]] void bad_build(std::string const& what) {
  throw std::invalid_argument("[brix::table_builder] " + what);
}

// Refuses columns of unequal lengths, a name given twice and unknown classes; returns whether a
// class column is among them.
template <class Columns>
bool checked_columns(Columns const& columns, std::set<std::string>& names) {
  std::size_t rows = columns[0].size();
  bool has_class = false;
  for (auto const& c : columns) {
    if (c.size() != rows)
      bad_build("column '" + c.name + "' has " + std::to_string(c.size()) + " values, column '" +
                columns[0].name + "' " + std::to_string(rows));
    if (!names.insert(c.name).second) bad_build("column '" + c.name + "' given twice");
    has_class |= c.kind == column_kind::class_label;
    if (c.kind == column_kind::class_label) {
      std::size_t unknown = 0;
      for (std::size_t r = 0; r < c.size(); ++r)
        unknown += c.unknown_at(r);
      if (unknown > 0)
        bad_build("class column '" + c.name + "': " + std::to_string(unknown) + " unknown value" +
                  (unknown == 1 ? "" : "s") + "; a row to learn from needs its class");
    }
  }
  return has_class;
}

using value_feed = std::function<void(impls::value_loader&, std::size_t)>;

// What hands row r of a given column to the loader.
template <class Column>
value_feed feed_of(Column const* v) {
  switch (v->from) {
    case source::texts:
      return [v](impls::value_loader& l, std::size_t r) {
        bool known = v->known.empty() || v->known[r];
        l.add(known ? v->texts[r].c_str() : "?");
      };
    case source::numbers:
      return [v](impls::value_loader& l, std::size_t r) {
        l.add_number(v->numbers[r], v->known.empty() || v->known[r]);
      };
    case source::f64:
      return number_feed<double>(v->data, v->mask);
    case source::f32:
      return number_feed<float>(v->data, v->mask);
    case source::i64:
      return number_feed<std::int64_t>(v->data, v->mask);
    case source::i32:
      return number_feed<std::int32_t>(v->data, v->mask);
    case source::c8:
      return code_feed<std::int8_t>(v->data, v->categories, v->name);
    case source::c16:
      return code_feed<std::int16_t>(v->data, v->categories, v->name);
    case source::c32:
      return code_feed<std::int32_t>(v->data, v->categories, v->name);
    case source::c64:
      return code_feed<std::int64_t>(v->data, v->categories, v->name);
  }
  return {};
}
}  // namespace

std::unique_ptr<table> table_builder::build(bool require_class) {
  auto bad = bad_build;
  if (columns_.empty()) bad("no columns");
  std::size_t rows = columns_[0].size();
  std::set<std::string> names;
  bool has_class = checked_columns(columns_, names);
  if (rows == 0) bad("no rows");
  if (require_class && !has_class) bad("no class column");
  auto impl = std::make_unique<impls::table>(name_, has_class);
  std::vector<value_feed> put;
  for (auto const& c : columns_) {
    try {
      impl->push_back(c.name, keyword(c.type), keyword(c.kind));
    } catch (std::runtime_error const& e) {
      bad("column '" + c.name + "': " + e.what());
    }
    put.push_back(feed_of(&c));
  }
  // Kept values go in rows of their own after the given ones; other columns repeat row 0 there.
  std::size_t extra = 0;
  for (auto const& k : kept_) {
    if (names.count(k.first) == 0) bad("values kept for column '" + k.first + "', not given");
    extra = std::max(extra, k.second.size());
  }
  if (extra > 0) {
    for (std::size_t j = 0; j < columns_.size(); ++j) {
      auto it = kept_.find(columns_[j].name);
      kept const* k = it == kept_.end() ? nullptr : &it->second;
      source from = columns_[j].from;
      bool by_code =
          from == source::c8 || from == source::c16 || from == source::c32 || from == source::c64;
      bool text = from == source::texts || by_code;
      put[j] = [given = std::move(put[j]), k, rows, by_code, text](impls::value_loader& l,
                                                                   std::size_t r) mutable {
        if (r < rows) return given(l, r);
        std::size_t i = r - rows;
        if (k == nullptr || i >= k->size()) return given(l, 0);
        if (!text) {
          return l.add_number(i < k->numbers.size() ? k->numbers[i] : 0.0, i < k->numbers.size());
        }
        char const* t = i < k->texts.size() ? k->texts[i].c_str() : "?";
        if (by_code) return l.add_id(l.text_id(t));
        l.add(t);
      };
    }
  }
  try {
    impl->load_columns(put, rows + extra);
  } catch (std::runtime_error const& e) {
    throw std::invalid_argument(std::string("[brix::table_builder] ") + e.what());
  }
  return std::unique_ptr<table>(table::adopt(impl.release()));
}

}  // namespace brix
