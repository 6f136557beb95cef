#include "brix/impls/storage/table.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>
#include <ostream>
#include <stdexcept>

#include "brix/impls/storage/column_typed.h"
#include "brix/impls/storage/line_fields.h"
#include "zel/inpout/stream.h"
#include "zel/util/cronos.h"
#include "zel/util/rand_gen.h"

namespace brix {
namespace impls {

namespace {

// Deletes an owned source however the reader leaves.
struct source_guard {
  zel::inpout::stream* source;
  bool owns;
  ~source_guard() {
    if (owns) delete source;
  }
};

// Rows between two progress counters in the log.
constexpr unsigned long kProgressRows = 10000;

void progress(std::ostream* log, unsigned long verbosity, unsigned long r) {
  if (log && verbosity > 1 && r % kProgressRows == 0) {
    *log << "  " << r << "\r";
    log->flush();
  }
}

}  // namespace

table::table(std::string const& name, bool for_tree)
    : name_(name),
      log_(nullptr),
      verbosity_(0),
      no_rows_(0),
      loaded_(0),
      class_index_(0),
      weights_index_(0),
      elapsed_(0.0),
      for_tree_(for_tree) {}

table::~table() {
  for (column* c : columns_)
    delete c;
}

std::ostream* table::set_log(std::ostream* log) {
  std::ostream* old = log_;
  log_ = log;
  return old;
}

unsigned long table::set_verbosity(unsigned long verbosity) {
  unsigned long old = verbosity_;
  verbosity_ = verbosity;
  return old;
}

// ---------------------------------------------------------------- metadata

void table::load_meta_data(zel::inpout::stream* source, bool owns, load_problems const* problems) {
  source_guard guard{source, owns};
  if (source == nullptr) throw std::runtime_error("no data provider detected.");
  if (problems != nullptr) return declare_reading_on(*source, *problems);
  try {
    char sep = source->get_delim();
    unsigned long row = 0;
    line_fields fields;
    while (source->read_line()) {
      ++row;
      char const* line = source->get_line();
      if (count_fields(line, sep) < 3) {
        throw std::runtime_error("bad row format (row " + std::to_string(row) + "): " + line);
      }
      std::string copy(line);
      fields.split(&copy[0], sep, 3);
      // A .names file declares continuous columns of at most 32-bit numbers, as ever; doubles
      // come from the readers of CSV and ARFF files only.
      if (std::strcmp(fields[1], "double") == 0 && std::strcmp(fields[2], "continuous") == 0)
        throw std::runtime_error(std::string("Continuous column '") + fields[0] +
                                 "' requires a numeric data type");
      push_back(fields[0], fields[1], fields[2]);
    }
  } catch (std::runtime_error const& e) {
    throw std::runtime_error(std::string("Reading metadata: ") + e.what());
  }
}

void table::push_back(std::string const& name, std::string const& datatype,
                      std::string const& kind) {
  std::unique_ptr<o_set> values(o_set::NEW_O_SET(datatype, column::admits_null(kind), "?"));
  std::string error;
  column* c = column::NEW_COLUMN(values.get(), name, kind, error);
  if (c == nullptr) throw std::runtime_error(error);
  values.release();
  columns_.push_back(c);
}

// ---------------------------------------------------------------- consistency

bool table::consistency_check(unsigned long n, std::string& error) {
  if (!for_tree_) {
    class_index_ = n;
    weights_index_ = n;
    refresh_attributes();
    return true;
  }
  unsigned long n_class = 0, n_weights = 0, first_class = n, first_weights = n;
  for (unsigned long i = 0; i < n && i < columns_.size(); ++i) {
    if (columns_[i]->is_class() && n_class++ == 0) first_class = i;
    if (columns_[i]->is_weights() && n_weights++ == 0) first_weights = i;
  }
  if (n_class != 1) {
    error = "there must be only one class column";
    return false;
  }
  if (n_weights >= 2) {
    error = "there must be at most one weights column";
    return false;
  }
  class_index_ = first_class;
  weights_index_ = first_weights;
  refresh_attributes();
  return true;
}

bool table::set_consistency_for_tree(bool for_tree, std::string& error) {
  bool old = for_tree_;
  for_tree_ = for_tree;
  if (consistency_check(loaded_, error)) return true;
  for_tree_ = old;
  std::string scratch;
  consistency_check(loaded_, scratch);
  return false;
}

unsigned long table::get_no_attributes() const {
  if (!for_tree_) return loaded_;
  unsigned long n = loaded_ - 1;
  if (weights_index_ < loaded_) --n;
  return n;
}

void table::refresh_attributes() {
  attribute_columns_.clear();
  for (unsigned long i = 0; i < columns_.size(); ++i) {
    if (for_tree_ && (i == class_index_ || i == weights_index_)) continue;
    attribute_columns_.push_back(i);
  }
}

void table::set_state(unsigned long no_rows, unsigned long loaded, unsigned long class_index,
                      unsigned long weights_index, unsigned long verbosity, bool for_tree) {
  no_rows_ = no_rows;
  loaded_ = loaded;
  class_index_ = class_index;
  weights_index_ = weights_index;
  verbosity_ = verbosity;
  for_tree_ = for_tree;
  refresh_attributes();
}

// ---------------------------------------------------------------- loading

o_set* table::make_column_o_set(unsigned long i, std::string const& null) const {
  if (i >= columns_.size()) return nullptr;
  o_set* v = columns_[i]->get_o_set();
  return o_set::NEW_O_SET(v->get_datatype(), v->admits_null(), null);
}

column* table::make_column(unsigned long i, o_set* values) const {
  if (i >= columns_.size()) return nullptr;
  std::string error;
  return column::NEW_COLUMN(values, columns_[i]->get_name(), columns_[i]->get_type(), error);
}

// The rows are read once. Each value goes to its column's loader, which
// registers it in the value set and keeps the row's provisional id (or the
// value itself, for columns of mostly distinct numbers); once every value is
// known the sets are sorted and a second pass over the kept rows turns them
// into orders, in place.
void table::load_data(zel::inpout::stream* source, std::string const& null, bool owns,
                      load_problems const* problems) {
  source_guard guard{source, owns};
  try {
    if (source == nullptr) throw std::runtime_error("no data provider detected.");
    if (problems != nullptr) return load_reading_on(*source, null, *problems);
    char sep = source->get_delim();
    line_fields fields;
    unsigned long r = 0, k = columns_.size() - loaded_;
    load_from(
        [&]() { return source->read_line(); },
        [&](std::vector<std::unique_ptr<value_loader>>& loaders) {
          ++r;
          char* line = source->get_line();
          if (fields.split_all(line, sep) != k) {
            fields.restore();
            throw std::runtime_error("bad row format (row " + std::to_string(r) + "): " + line);
          }
          for (unsigned long j = 0; j < k; ++j)
            loaders[j]->add(fields[j]);
        },
        null);
  } catch (std::runtime_error const& e) {
    throw std::runtime_error(std::string("Reading training data: ") + e.what());
  }
}

void table::load_rows(std::function<char const* const*()> const& next, std::string const& null) {
  char const* const* row = nullptr;
  load_from([&]() { return (row = next()) != nullptr; },
            [&](std::vector<std::unique_ptr<value_loader>>& loaders) {
              for (std::size_t j = 0; j < loaders.size(); ++j)
                loaders[j]->add(row[j]);
            },
            null);
}

void table::load_columns(std::vector<std::function<void(value_loader&, std::size_t)>> const& put,
                         std::size_t rows) {
  if (put.size() != columns_.size() - loaded_)
    throw std::runtime_error("one value source per column not loaded yet is needed");
  std::size_t r = 0;
  load_from([&]() { return r < rows; },
            [&](std::vector<std::unique_ptr<value_loader>>& loaders) {
              for (std::size_t j = 0; j < loaders.size(); ++j)
                put[j](*loaders[j], r);
              ++r;
            },
            "?");
}

// The rows are read once. Each value goes to its column's loader, which
// registers it in the value set and keeps the row's provisional id (or the
// value itself, for columns of mostly distinct numbers); once every value is
// known the sets are sorted and a second pass over the kept rows turns them
// into orders, in place. advance() moves to the next row (false after the last one), put_row()
// hands its values to the loaders.
template <class Advance, class PutRow>
void table::load_from(Advance&& advance, PutRow&& put_row, std::string const& null) {
  zel::util::cronos timer;
  timer.start();
  std::vector<std::unique_ptr<o_set>> sets;
  std::vector<std::unique_ptr<value_loader>> loaders;
  std::vector<std::unique_ptr<column>> fresh;
  std::string error;
  if (!consistency_check(columns_.size(), error)) throw std::runtime_error(error);
  unsigned long first = loaded_, total = columns_.size(), k = total - first;
  for (unsigned long i = first; i < total; ++i) {
    sets.emplace_back(make_column_o_set(i, null));
    loaders.emplace_back(sets.back()->make_loader(!columns_[i]->is_ignore()));
  }

  if (log_ && verbosity_ >= 1) {
    *log_ << "Reading data ";
    if (verbosity_ > 1) *log_ << std::endl << " ... 1st pass: " << std::endl;
  }

  unsigned long r = 0;
  while (advance()) {
    ++r;
    progress(log_, verbosity_, r);
    if (r == 0xFFFFFFFFUL)
      throw std::runtime_error("too many rows: at most 4294967294 are supported");
    put_row(loaders);
  }
  if (log_ && verbosity_ >= 1) *log_ << "  " << r << " rows read. Indexing ... ";

  for (unsigned long j = 0; j < k; ++j) {
    loaders[j]->index();
    std::string why;
    column* c = column::NEW_COLUMN(sets[j].get(), columns_[first + j]->get_name(),
                                   columns_[first + j]->get_type(), why);
    if (c == nullptr) throw std::runtime_error(why);
    sets[j].release();
    fresh.emplace_back(c);
    loaders[j]->attach(c);
  }
  if (log_ && verbosity_ >= 1) {
    *log_ << " done." << std::endl << " ... 2nd pass: " << std::endl;
  }

  // Second pass, in blocks of rows so that progress shows as it goes.
  unsigned long r2 = 0;
  while (r2 < r) {
    unsigned long next_block = std::min(r, r2 + kProgressRows);
    for (auto& l : loaders)
      l->fill(r2, next_block);
    r2 = next_block;
    if (r2 % kProgressRows == 0) progress(log_, verbosity_, r2);
  }
  loaders.clear();

  if (r2 > no_rows_) no_rows_ = r2;
  for (unsigned long j = 0; j < k; ++j) {
    delete columns_[first + j];
    columns_[first + j] = fresh[j].release();
  }
  loaded_ = total;
  refresh_attributes();
  if (log_ && verbosity_ > 1) *log_ << "  " << r2 << " rows read." << std::endl;
  timer.stop();
  elapsed_ = timer.get_elapsed();
}

// ---------------------------------------------------------------- loading that reads on

namespace {

// Whether the line just read, size bytes with its end of line, holds a NUL byte: its text then
// ends before the end of line does (whose LF, or the CR before it, is now the terminator; a last
// line without LF has none).
bool holds_nul(char const* line, unsigned long long size, bool lf) {
  std::size_t n = std::strlen(line);
  if (!lf) return n < size;
  return n + 1 < size && !(n + 2 == size && line[n + 1] == '\n');
}

// The next line of a file read on past its problems, after a byte order mark on the first line;
// null at the end, and at a line holding NUL bytes (a file that is no text has nothing to read),
// where text turns false.
char* line_reading_on(zel::inpout::stream& source, unsigned long line, load_problems const& p,
                      bool& text) {
  unsigned long long before = source.tell2();
  if (!source.read_line()) return nullptr;
  char* s = source.get_line();
  if (holds_nul(s, source.tell2() - before, source.line_had_lf())) {
    p.report(line, "", "", "NUL bytes: not a text file");
    text = false;
    return nullptr;
  }
  if (line == 1 && std::strncmp(s, "\xEF\xBB\xBF", 3) == 0) {
    p.report(line, "", "", "a byte order mark, otherwise read as part of the first field");
    s += 3;
  }
  return s;
}

}  // namespace

void table::declare_reading_on(zel::inpout::stream& source, load_problems const& p) {
  char sep = source.get_delim();
  line_fields fields;
  std::size_t first = columns_.size(), lines = p.lines != nullptr ? p.lines->size() : 0;
  bool text = true;
  for (unsigned long row = 1;; ++row) {
    char* line = line_reading_on(source, row, p, text);
    if (!text) {
      // A file that is no text declares nothing.
      for (std::size_t j = first; j < columns_.size(); ++j)
        delete columns_[j];
      columns_.resize(first);
      if (p.lines != nullptr) p.lines->resize(lines);
    }
    if (line == nullptr) return;
    if (count_fields(line, sep) < 3) {
      p.report(row, "", line, "bad row format (row " + std::to_string(row) + "): " + line);
      continue;
    }
    fields.split(line, sep, 3);
    declare_or_stand_in(fields[0], fields[1], fields[2], row, p);
  }
}

// Every rule the declaration breaks is reported, each with the same message as where the first
// one is thrown.
void table::declare_or_stand_in(char const* name, char const* type, char const* kind,
                                unsigned long line, load_problems const& p) {
  auto refused = [&](std::string const& value, std::string const& why) {
    p.report(line, name, value, why);
  };
  bool type_known = true, declared = false;
  try {
    delete o_set::NEW_O_SET(type, true, "?");
  } catch (std::runtime_error const& e) {
    refused(type, e.what());
    type_known = false;
  }
  column::_type k = column::DISCRETE;
  bool kind_known = column::get_type(kind, k);
  if (!kind_known) refused(kind, std::string("Unknown column type: ") + kind);
  std::string null_rule;
  if (std::strcmp(type, "null") == 0 && std::strcmp(kind, "ignore") != 0) {
    std::unique_ptr<o_set> none(o_set::NEW_O_SET("null", true, "?"));
    column::NEW_COLUMN(none.get(), name, "discrete", null_rule);
  }
  if (type_known && kind_known) {
    if (std::strcmp(type, "double") == 0 && k == column::CONTINUOUS) {
      refused(type, std::string("Continuous column '") + name + "' requires a numeric data type");
    } else {
      try {
        push_back(name, type, kind);
        declared = true;
      } catch (std::runtime_error const& e) {
        refused(type, e.what());
        if (e.what() == null_rule) null_rule.clear();
      }
    }
  }
  if (!null_rule.empty()) refused(type, null_rule);
  if (!declared && kind_known && k == column::WEIGHTS) {
    // One of floats, whatever the type declared: its unknown values are still refused and
    // reported, as they would be once the declaration is right.
    push_back(name, "float", "weights");
  } else if (!declared) {
    bool typed = type_known && std::strcmp(type, "null") != 0;
    push_back(name, typed ? type : "string",
              kind_known && k == column::CLASS ? "class" : "discrete");
  }
  if (p.lines != nullptr) p.lines->push_back(line);
}

void table::load_reading_on(zel::inpout::stream& source, std::string const& null,
                            load_problems const& p) {
  std::string error;
  if (!consistency_check(columns_.size(), error)) {
    p.report(0, "", "", error);
    for_tree_ = false;  // the rows are read all the same, the class being no class
  }
  char sep = source.get_delim();
  line_fields fields;
  unsigned long line = 0, first = loaded_, k = columns_.size() - first;
  bool is_text = true;
  std::vector<bool> refused(k);
  // The first row is the column names, written by mistake: reported, not read as data.
  auto header = [&]() {
    for (unsigned long j = 0; j < k; ++j)
      if (columns_[first + j]->get_name() != fields[j]) return false;
    fields.restore();
    p.report(1, "", fields[0], "a header row: the column names, otherwise read as data");
    return true;
  };
  load_from(
      [&]() {
        for (char* text; (text = line_reading_on(source, ++line, p, is_text)) != nullptr;) {
          if (fields.split_all(text, sep) != k) {
            fields.restore();
            p.report(line, "", text, "bad row format (row " + std::to_string(line) + "): " + text);
          } else if (!(line == 1 && header())) {
            if (row_reads(fields, line, p, refused)) {
              if (p.lines != nullptr) p.lines->push_back(line);
              return true;
            }
            if (p.left_out) p.left_out(line, fields.data(), refused);
          }
        }
        return false;
      },
      [&](std::vector<std::unique_ptr<value_loader>>& loaders) {
        for (unsigned long j = 0; j < k; ++j)
          loaders[j]->add(fields[j]);
      },
      null);
}

// Whether every value of the row is one its column takes; those that are not are reported and
// marked in refused.
bool table::row_reads(line_fields const& fields, unsigned long line, load_problems const& p,
                      std::vector<bool>& refused) const {
  bool reads = true;
  for (unsigned long j = loaded_; j < columns_.size(); ++j) {
    char const* text = fields[j - loaded_];
    std::string why = columns_[j]->get_o_set()->refusal(text);
    refused[j - loaded_] = !why.empty();
    if (why.empty()) continue;
    p.report(line, columns_[j]->get_name(), text, why);
    reads = false;
  }
  return reads;
}

bool table::load_row(zel::inpout::stream* source, std::vector<std::string>& row) const {
  unsigned long n = loaded_;
  bool weighted = weights_index_ < loaded_;
  std::size_t size = (!for_tree_ || weighted) ? n : n + 1;
  row.resize(size);
  if (!source->read_line()) return false;
  char const* line = source->get_line();
  if (!take_fields(line, source->get_delim(), n, row)) {
    throw std::runtime_error(std::string("bad row format: ") + line);
  }
  if (!for_tree_) return true;
  // Attributes first, then class and weight. The weights position is read
  // after the class entry has been taken out, without correcting for it.
  std::string cls = row[class_index_];
  for (std::size_t j = class_index_; j + 1 < size; ++j)
    row[j].swap(row[j + 1]);
  std::string weight = "1";
  if (weighted) {
    weight = row[weights_index_];
    for (std::size_t j = weights_index_; j + 2 < size; ++j)
      row[j].swap(row[j + 1]);
  }
  row[size - 1] = weight;
  row[size - 2] = cls;
  return true;
}

table* table::clone_metadata() const {
  auto* t = new table(name_, for_tree_);
  t->columns_.reserve(columns_.size());
  for (column* c : columns_)
    t->columns_.push_back(c->share_values());
  t->set_state(0, loaded_, class_index_, weights_index_, verbosity_, for_tree_);
  return t;
}

// ---------------------------------------------------------------- case sequences

w_sequence* table::get_wsubset_all() const {
  return get_wsubset_first_n(no_rows_);
}

w_sequence* table::get_wsubset_first_n(unsigned long n) const {
  unsigned long m = std::min(n, no_rows_);
  std::unique_ptr<w_sequence> s(new w_sequence());
  s->reserve(m);
  for (unsigned long i = 0; i < m; ++i)
    s->push_back(i, 1.0f);
  update_weights(s.get());
  return s.release();
}

// Selection sampling: every subset of m rows is equally likely and the rows
// come out ascending. The generator is deliberately reseeded with the time in
// seconds, so two draws within one second are the same.
w_sequence* table::get_wsubset_random(unsigned long n) const {
  std::srand(static_cast<unsigned>(std::time(nullptr)));
  unsigned long m = std::min(n, no_rows_), big_n = no_rows_, i = 0;
  std::unique_ptr<w_sequence> s(new w_sequence());
  s->reserve(m);
  while (m > 0) {
    long double u = std::rand() / zel::util::rand_gen::rmax;
    auto x = static_cast<unsigned long>(static_cast<long double>(big_n) * u);
    if (x < m) {
      s->push_back(i, 1.0f);
      --m;
    }
    --big_n;
    ++i;
  }
  update_weights(s.get());
  return s.release();
}

// The walk advances through s only on a match, so a row listed twice stops
// all later matches: every later row is kept (deliberate). Callers pass sets of rows. The
// argument is deliberately sorted in place.
w_sequence* table::get_wsubset_difference(w_sequence* s) const {
  std::sort(s->begin(), s->end());
  std::unique_ptr<w_sequence> d(new w_sequence());
  std::size_t p = 0;
  for (unsigned long row = 0; row < no_rows_; ++row) {
    if (p < s->size() && (*s)[p].first == row) {
      ++p;
      continue;
    }
    d->push_back(row, 1.0f);
  }
  update_weights(d.get());
  return d.release();
}

void table::update_weights(w_sequence* s) const {
  column* w = get_weights();
  if (w == nullptr) return;
  // The weight of a row is its value text read as a number; computed once
  // per distinct value.
  unsigned long k = w->get_distinct();
  std::vector<float> by_order(k + 1, 0.0f);
  bool any_bad = false;
  for (unsigned long o = 0; o <= k; ++o) {
    by_order[o] = case_weight(w->get_o_set()->get_value(o).c_str());
    any_bad = any_bad || !(by_order[o] >= 0.0f && std::isfinite(by_order[o]));
  }
  for (w_case& c : *s) {
    c.second = by_order[w->get_row_index(c.first)];
    if (any_bad && !(c.second >= 0.0f && std::isfinite(c.second))) {
      throw std::runtime_error("Weights column '" + w->get_name() + "': weight '" +
                               w->get_value(c.first) + "' on row " + std::to_string(c.first + 1) +
                               " is not a finite non-negative number");
    }
  }
}

float case_weight(char const* text) {
  if (text[0] == '1' && text[1] == '\0') return 1.0f;  // every row of an unweighted table
  return static_cast<float>(std::atof(text));
}

}  // namespace impls
}  // namespace brix
