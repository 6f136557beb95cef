// brix: the command for today's users, on the library. Subcommands train, predict, cv and show
// grow exactly the trees brixcmd grows; data come as CSV/TSV with a header or as a .names/.data
// stem. Errors go to standard error; the status is 0 on success, 1 for a data or model error and
// 2 for a usage error; an output file is written beside its name and renamed once complete.
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <iostream>
#include <limits>
#include <map>
#include <memory>
#include <numeric>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "brix/brix.h"
#include "brix/data.h"
#include "brix/ensemble.h"
#include "brix/model.h"
#include "brix/rules.h"
#include "brix/tree_writer.h"
#include "brix/writers/shared.h"
#include "cmd/brix_import.h"
#include "zel/inpout/stream.h"
#include "zel/util/proc.h"

namespace {

struct usage_error : std::runtime_error {
  using std::runtime_error::runtime_error;
};

// ---------------------------------------------------------------- options

struct settings {
  std::vector<std::string> args;  // positional
  std::string class_column, test, model, output, format = "text", id, report = "text";
  std::string to;      // import: the stem written
  char separator = 0;  // --sep; 0: by the file's name
  std::string costs;   // a cost matrix file
  int trials = 1;
  std::map<std::string, brix::column_kind> kinds;  // --kind NAME=KIND
  std::map<std::string, brix::value_type> types;   // --type NAME=TYPE
  double test_fraction = 0.0;
  std::uint64_t seed = 1;
  unsigned folds = 10;
  bool stratified = false, proba = false, quiet = false, verbose = false, rules = false;
  long max_depth = -1;
  brix::tree_options tree;
};

double number(std::string const& word, std::string const& text) {
  char* end = nullptr;
  double v = std::strtod(text.c_str(), &end);
  if (text.empty() || *end != '\0' || !std::isfinite(v))
    throw usage_error(word + ": '" + text + "' is not a number");
  return v;
}

// A whole number in [least, most], checked before any conversion: a double out of an integer
// type's range does not convert.
double whole(std::string const& word, std::string const& text, double least, double most) {
  double d = number(word, text);
  if (d < least || d > most || d != std::floor(d)) {
    std::ostringstream range;
    range.precision(17);
    range << word << " must be a whole number in [" << least << ", " << most << "]";
    throw usage_error(range.str());
  }
  return d;
}

// NAME=VALUE of --kind and --type, VALUE one of the .names keywords of `all`.
template <typename E>
void name_keyword(char const* word, std::string const& text, std::vector<E> const& all,
                  std::map<std::string, E>& into) {
  std::size_t eq = text.rfind('=');
  std::string allowed;
  for (E e : all)
    allowed += (allowed.empty() ? "" : "|") + brix::keyword(e);
  if (eq == std::string::npos || eq == 0)
    throw usage_error(std::string(word) + " takes NAME=" + allowed + ", not '" + text + "'");
  for (E e : all)
    if (brix::keyword(e) == text.substr(eq + 1)) {
      into[text.substr(0, eq)] = e;
      return;
    }
  throw usage_error(std::string(word) + ": '" + text.substr(eq + 1) + "' is not one of " + allowed);
}

// The formats show prints: the library's text formats but brixcmd's own.
std::vector<std::string> const& shown_formats() {
  static std::vector<std::string> const names = [] {
    std::vector<std::string> v;
    for (brix::output_format const& f : brix::output_formats())
      if (!f.binary && !f.brixcmd_only) v.push_back(f.name);
    return v;
  }();
  return names;
}

// Each option: its word, whether it takes a value, and what it does with the value, checks
// included, side by side.
struct option {
  char const* word;
  bool takes_value;
  std::function<void(settings&, std::string const&)> apply;
};

// The options that say how trees are grown.
std::vector<option> growth_options() {
  return {
      {"--confidence", true,
       [](settings& s, std::string const& v) {
         s.tree.confidence = static_cast<float>(number("--confidence", v));
         if (!(s.tree.confidence > 0 && s.tree.confidence <= 1))
           throw usage_error("--confidence must be in (0,1]");
       }},
      {"--min-cases", true,
       [](settings& s, std::string const& v) {
         double d = number("--min-cases", v);
         if (!(d > 1) || d > std::numeric_limits<float>::max())
           throw usage_error("--min-cases must be > 1");
         s.tree.min_cases = static_cast<float>(d);
       }},
      {"--pruning", true,
       [](settings& s, std::string const& v) {
         if (v == "error")
           s.tree.prune = brix::pruning::error;
         else if (v == "full")
           s.tree.prune = brix::pruning::full;
         else if (v == "none")
           s.tree.prune = brix::pruning::none;
         else
           throw usage_error("--pruning must be error, full or none");
       }},
      {"--threads", true,
       [](settings& s, std::string const& v) {
         double d = number("--threads", v);
         long cpus = sysconf(_SC_NPROCESSORS_ONLN);
         if (d < 1 || d > cpus || d != std::floor(d))
           throw usage_error("--threads must be in [1," + std::to_string(cpus) + "]");
         s.tree.threads = static_cast<int>(d);
       }},
      {"--model", true, [](settings& s, std::string const& v) { s.model = v; }},
      {"--trials", true,
       [](settings& s, std::string const& v) {
         double d = number("--trials", v);
         if (d < 1 || d > 1000 || d != std::floor(d))
           throw usage_error("--trials must be a whole number in [1,1000]");
         s.trials = static_cast<int>(d);
       }},
      {"--costs", true, [](settings& s, std::string const& v) { s.costs = v; }},
      {"--rules", false, [](settings& s, std::string const&) { s.rules = true; }},
      {"--subsets", false, [](settings& s, std::string const&) { s.tree.subsets = true; }},
  };
}

std::vector<option> const& options() {
  static std::vector<option> const table = [] {
    std::vector<option> all = {
        {"--class", true, [](settings& s, std::string const& v) { s.class_column = v; }},
        {"--test", true, [](settings& s, std::string const& v) { s.test = v; }},
        {"--test-fraction", true,
         [](settings& s, std::string const& v) {
           s.test_fraction = number("--test-fraction", v);
           if (!(s.test_fraction > 0 && s.test_fraction < 1))
             throw usage_error("--test-fraction must be in (0,1)");
         }},
        {"--seed", true,
         [](settings& s, std::string const& v) {
           // Up to 2^53: every such whole number reads exactly.
           s.seed = static_cast<std::uint64_t>(whole("--seed", v, 0, 9007199254740992.0));
         }},
        {"--kind", true,
         [](settings& s, std::string const& v) {
           using k = brix::column_kind;
           name_keyword("--kind", v, {k::discrete, k::continuous, k::weights, k::ignore}, s.kinds);
         }},
        {"--type", true,
         [](settings& s, std::string const& v) {
           using t = brix::value_type;
           name_keyword("--type", v, {t::integer, t::uinteger, t::float32, t::float64, t::string},
                        s.types);
         }},
        {"--report", true,
         [](settings& s, std::string const& v) {
           if (v != "text" && v != "json") throw usage_error("--report must be text or json");
           s.report = v;
         }},
        {"--output", true, [](settings& s, std::string const& v) { s.output = v; }},
        {"--id", true, [](settings& s, std::string const& v) { s.id = v; }},
        {"--to", true, [](settings& s, std::string const& v) { s.to = v; }},
        {"--sep", true,
         [](settings& s, std::string const& v) {
           if (v == "tab" || v == "\\t" || v == "\t")
             s.separator = '\t';
           else if (v.size() == 1 && v != "\"" && v != "\n" && v != "\r")
             s.separator = v[0];
           else
             throw usage_error(
                 "--sep takes one character (not a quote or a line break) or tab, not '" + v + "'");
         }},
        {"--format", true,
         [](settings& s, std::string const& v) {
           std::vector<std::string> const& all = shown_formats();
           if (std::find(all.begin(), all.end(), v) == all.end()) {
             std::string list;
             for (std::size_t i = 0; i < all.size(); ++i)
               list += (i == 0 ? "" : i + 1 < all.size() ? ", " : " or ") + all[i];
             throw usage_error("--format must be " + list);
           }
           s.format = v;
         }},
        {"-k", true,
         [](settings& s, std::string const& v) {
           s.folds = static_cast<unsigned>(whole("-k", v, 2, 4294967295.0));
         }},
        {"--max-depth", true,
         [](settings& s, std::string const& v) {
           s.max_depth = static_cast<long>(whole("--max-depth", v, 0, 2147483647.0));
         }},
        {"--stratified", false, [](settings& s, std::string const&) { s.stratified = true; }},
        {"--proba", false, [](settings& s, std::string const&) { s.proba = true; }},
        {"--quiet", false, [](settings& s, std::string const&) { s.quiet = true; }},
        {"-v", false, [](settings& s, std::string const&) { s.verbose = true; }},
    };
    std::vector<option> growth = growth_options();
    all.insert(all.end(), growth.begin(), growth.end());
    return all;
  }();
  return table;
}

settings parse(int argc, char** argv, int first) {
  settings s;
  for (int i = first; i < argc; ++i) {
    std::string w = argv[i];
    if (w.size() > 1 && w[0] == '-') {
      option const* o = nullptr;
      for (auto const& c : options())
        if (w == c.word) o = &c;
      if (o == nullptr) throw usage_error("unknown option " + w);
      std::string value;
      if (o->takes_value) {
        if (i + 1 >= argc) throw usage_error(w + " needs a value");
        value = argv[++i];
      }
      o->apply(s, value);
    } else {
      s.args.push_back(w);
    }
  }
  return s;
}

// ---------------------------------------------------------------- data and outputs

// ---------------------------------------------------------------- progress

// The stages of a run: on a terminal, one line on standard error redrawn as each stage starts,
// with the time since the start; with -v, each stage's time on a line of its own when it ends.
class stages {
 public:
  using clock = std::chrono::steady_clock;
  void setup(settings const& s) {
    line_ = !s.quiet && ::isatty(STDERR_FILENO);
    verbose_ = s.verbose;
    start_ = clock::now();
  }
  void begin(std::string what) {
    end();
    current_ = std::move(what);
    since_ = clock::now();
    if (line_)
      std::fprintf(stderr, "\r\033[Kbrix: %s... (%.1f s)", current_.c_str(), seconds(start_));
  }
  void end() {
    if (current_.empty()) return;
    clear();
    if (verbose_) std::fprintf(stderr, "brix: %-12s %8.3f s\n", current_.c_str(), seconds(since_));
    current_.clear();
  }
  // Before anything else goes to standard error or the run ends.
  void clear() {
    if (line_) std::fputs("\r\033[K", stderr);
  }

 private:
  static double seconds(clock::time_point from) {
    return std::chrono::duration<double>(clock::now() - from).count();
  }
  bool line_ = false, verbose_ = false;
  clock::time_point start_, since_;
  std::string current_;
};

stages progress;

// An ARFF file declares how its values are separated.
void refuse_separator(std::string const& data, settings const& s) {
  if (s.separator != 0 &&
      (data.size() > 5 && (data.compare(data.size() - 5, 5, ".arff") == 0 ||
                           (data.size() > 8 && data.compare(data.size() - 8, 8, ".arff.gz") == 0))))
    throw usage_error("--sep applies to CSV/TSV files and .names/.data stems, not to " + data);
}

// "the lines split evenly at ...: --sep ... reads it" when a CSV file is better read with another
// separator than the one used; empty otherwise.
std::string separator_hint(std::string const& data, settings const& s) {
  auto ends = [&data](std::string const& tail) {
    return data.size() > tail.size() &&
           data.compare(data.size() - tail.size(), tail.size(), tail) == 0;
  };
  if (!is_table_file(data) || ends(".arff") || ends(".arff.gz")) return "";
  char sep = s.separator != 0 ? s.separator : ends(".tsv") || ends(".tsv.gz") ? '\t' : ',';
  char better = brix::better_separator(data, sep);
  if (better == 0) return "";
  return "the lines split evenly at " +
         (better == '\t'
              ? std::string("tabs: --sep tab")
              : "'" + std::string(1, better) + "': --sep '" + std::string(1, better) + "'") +
         " reads it";
}

// A refused CSV file that another separator splits evenly: the error says which.
[[noreturn]] void rethrow_with_separator_hint(std::string const& data, settings const& s,
                                              std::runtime_error const& e) {
  std::string hint = separator_hint(data, s);
  if (hint.empty()) throw e;
  throw std::runtime_error(std::string(e.what()) + " (" + hint + ")");
}

void refuse_overrides(std::string const& stem, settings const& s) {
  if (!s.kinds.empty() || !s.types.empty())
    throw usage_error("--kind and --type apply to CSV, TSV and ARFF data: " + stem +
                      ".names declares its own");
}

// DATA: a CSV/TSV file, or a stem whose .names and .data (or .data.gz) are read.
std::unique_ptr<brix::table> load(std::string const& data, settings const& s, bool need_class,
                                  brix::tree_model const* model = nullptr,
                                  brix::rule_model const* rules = nullptr) {
  brix::read_options o;
  // A ruleset's continuous attributes are read as numbers too, as a tree's are below.
  if (rules != nullptr)
    for (auto const& a : rules->attributes())
      if (a.continuous)
        o.numeric_if_present[a.name] = a.datatype == "integer"    ? brix::value_type::integer
                                       : a.datatype == "uinteger" ? brix::value_type::uinteger
                                                                  : brix::value_type::float32;
  if (model != nullptr) {
    for (auto const& c : model->attribute_columns()) {
      std::string const& type = c.datatype;
      if (c.kind != brix::column_kind::continuous) continue;
      o.numeric_if_present[c.name] = type == "integer"    ? brix::value_type::integer
                                     : type == "uinteger" ? brix::value_type::uinteger
                                                          : brix::value_type::float32;
    }
  }
  o.class_column = s.class_column;
  o.require_class = need_class;
  std::ostringstream warnings;
  o.warnings = s.quiet ? nullptr : &warnings;
  o.kinds = s.kinds;
  o.types = s.types;
  o.separator = s.separator;
  refuse_separator(data, s);
  if (!is_table_file(data)) {
    refuse_overrides(data, s);
    if (!file_exists(data + ".names"))
      throw std::runtime_error("File " + data + ".names: not found");
  }
  progress.begin("load " + data);
  std::unique_ptr<brix::table> t;
  try {
    t = brix::read_table(data, o);
  } catch (std::runtime_error const& e) {
    progress.clear();
    std::cerr << warnings.str();
    rethrow_with_separator_hint(data, s, e);
  }
  progress.end();
  std::cerr << warnings.str();
  // One column read where another separator finds several: the file read is not the one meant.
  if (!s.quiet && brix::table_columns(*t).size() == 1) {
    std::string hint = separator_hint(data, s);
    if (!hint.empty()) std::cerr << "File " << data << ": one column only; " << hint << std::endl;
  }
  return t;
}

// Writes to NAME.part beside the output and renames it once the writer succeeded.
void write_file(std::string const& path, std::function<void(std::ostream&)> const& write) {
  brix::write_replacing(
      path,
      [&](std::string const& target) {
        std::ofstream out(target);
        if (!out) throw std::runtime_error("File " + path + ": cannot be opened for writing");
        write(out);
        if (!out.flush()) throw std::runtime_error("File " + path + ": error writing output");
      },
      "cannot be written");
}

// Compares files, not spellings: ./x.csv, a link to x.csv and x.csv are one.
void refuse_same(std::string const& out, std::vector<std::string> const& ins) {
  if (out.empty()) return;
  for (auto const& in : ins)
    if (same_file(out, in))
      throw usage_error("the output " + out + " is also an input (" + in + ")");
}

// The files read for DATA and a test file (a table file, or brixcmd's rows for the stem).
std::vector<std::string> inputs(std::string const& data, std::string const& test = "") {
  std::vector<std::string> all = input_files(data);
  if (!test.empty()) {
    std::vector<std::string> more =
        is_table_file(test) ? input_files(test) : std::vector<std::string>{test};
    all.insert(all.end(), more.begin(), more.end());
  }
  return all;
}

// A CSV field, quoted when it holds a separator, a quote or a line end.
std::string csv_field(std::string const& v) {
  if (v.find_first_of(",\"\r\n") == std::string::npos) return v;
  std::string q = "\"";
  for (char c : v)
    q += c == '"' ? std::string("\"\"") : std::string(1, c);
  return q + "\"";
}

// A whole number as one, others as the stream prints floats.
std::string count(double v) {
  std::ostringstream o;
  if (v == std::floor(v) && std::fabs(v) < 1e15)
    o << static_cast<long long>(v);
  else
    o << v;
  return o.str();
}

// A percentage as people read one: two decimals.
std::string percent(double v) {
  char b[32];
  std::snprintf(b, sizeof b, "%.2f", v);
  return b;
}

void report_matrix(std::ostream& out, char const* heading, brix::conf_matrix const& m) {
  out << heading << m.mis_perc() * 100.0f << "% of " << m.cases() << " cases. " << std::endl;
  m.toTEXT(out, 0);
}

// The training matrix, then those of the test file and the holdout rows where there are any,
// each followed by what after adds (a boosted model's average cost).
void report_matrices(std::ostream& out, brix::conf_matrix const& training,
                     brix::conf_matrix const* test, brix::conf_matrix const* holdout,
                     std::function<void(brix::conf_matrix const&)> const& after = {}) {
  auto one = [&](char const* heading, brix::conf_matrix const& c) {
    report_matrix(out, heading, c);
    if (after) after(c);
  };
  one("MISCLASSIFICATION on training: ", training);
  if (test) {
    out << std::endl;
    one("MISCLASSIFICATION on test file: ", *test);
  }
  if (holdout) {
    out << std::endl;
    one("MISCLASSIFICATION on holdout test: ", *holdout);
  }
}

// A warning for class values of the test data the tree never saw: such rows can only count as
// errors.
void warn_unseen(std::string const& name, settings const& s,
                 std::vector<std::pair<std::string, unsigned long>> const& unseen) {
  if (unseen.empty() || s.quiet) return;
  std::ostringstream w;
  w << "brix: " << name << " has class values the tree never saw, counted as errors:";
  for (std::size_t i = 0; i < unseen.size(); ++i)
    w << (i ? ", '" : " '") << unseen[i].first << "' (" << unseen[i].second
      << (unseen[i].second == 1 ? " row)" : " rows)");
  progress.clear();
  std::cerr << w.str() << std::endl;
}

void warn_past_exact(brix::table const& t, settings const& s) {
  double w = 0;
  for (unsigned long r = 0; r < t.get_no_rows(); ++r)
    w += t.get_weight(r);
  if (w > 16777216.0 && !s.quiet)
    std::cerr << "brix: the training weight passes 2^24 (16,777,216): 32-bit sums stop counting "
                 "every case exactly from there, as brixcmd's arithmetic requires"
              << std::endl;
}

// ---------------------------------------------------------------- subcommands

// A float figure in JSON: whole ones as integers, others with the digits a float needs.
std::string json_number(double v) {
  if (!std::isfinite(v)) return "null";
  if (v == std::floor(v) && std::fabs(v) < 1e15) return count(v);
  char buf[32];
  std::snprintf(buf, sizeof buf, "%.9g", v);
  return buf;
}

// A confusion matrix in JSON: one array per actual class, one entry per predicted class, the
// unknown class first as in the binary tree file.
void json_matrix(std::ostream& out, char const* name, brix::conf_matrix const& m) {
  brix::confusion const c = brix::confusion_of(m);
  out << ",\"" << name << "\":{\"cases\":" << json_number(c.cases)
      << ",\"error_percent\":" << json_number(c.error_rate * 100.0f) << ",\"matrix\":[";
  for (std::size_t actual = 0; actual < c.cells.size(); ++actual) {
    out << (actual ? ",[" : "[");
    for (std::size_t predicted = 0; predicted < c.cells.size(); ++predicted)
      out << (predicted ? "," : "") << json_number(c.cells[actual][predicted]);
    out << "]";
  }
  out << "]}";
}

bool ensemble_asked(settings const& s) {
  return s.trials > 1 || !s.costs.empty();
}

void refuse_rules_with_costs(settings const& s) {
  if (s.rules && !s.costs.empty())
    throw usage_error("--rules is not read off trees grown with --costs");
}

brix::ensemble_options ensemble_options_of(settings const& s) {
  brix::ensemble_options o;
  o.tree = s.tree;
  o.trials = s.trials;
  o.rules = s.rules;
  if (!s.costs.empty()) o.costs = brix::read_costs(s.costs);
  return o;
}

// The trials' tree sizes, or with rulesets their rules.
std::size_t total_size(brix::ensemble const& m) {
  std::size_t n = 0;
  for (std::size_t i = 0; i < m.size(); ++i)
    n += m.has_rules() ? m.trial_rules(i).size() : m.trial(i).size();
  return n;
}

// train with --trials or --costs: the same report, the trials' trees in place of the tree and
// the average cost beside each error.
int train_ensemble(settings const& s) {
  brix::ensemble_options o = ensemble_options_of(s);
  auto t = load(s.args[0], s, true);
  warn_past_exact(*t, s);
  o.tree.stage = [](char const* what) { progress.begin(what); };
  std::unique_ptr<brix::ensemble> m;
  std::vector<double> proba;  // every row of t, as training classified it
  std::vector<unsigned long> rows, held;
  if (s.test_fraction > 0) {
    brix::holdout_split h = brix::split_holdout(t->get_no_rows(), s.test_fraction, s.seed);
    rows = h.train;
    held = h.test;
  } else {
    rows.resize(t->get_no_rows());
    std::iota(rows.begin(), rows.end(), 0ul);
  }
  try {
    m = brix::ensemble::train(*t, o, &rows, &proba);
  } catch (std::invalid_argument const& e) {
    // A cost matrix naming no class is a data error.
    std::string what = e.what();
    throw std::runtime_error(what.substr(what.find("] ") + 2));
  }
  progress.begin("evaluate");
  std::unique_ptr<brix::conf_matrix> training = m->evaluate(*t, proba, &rows), test, holdout;
  if (!s.test.empty()) {
    std::vector<std::pair<std::string, unsigned long>> unseen;
    std::unique_ptr<brix::table> tt;
    if (is_table_file(s.test)) {
      tt = load(s.test, s, true);
    } else {
      // A stem's test file: rows under the training data's .names, as for a tree.
      progress.begin("load " + s.test);
      tt = std::make_unique<brix::table>(s.test);
      char sep = s.separator != 0 ? s.separator : ',';
      tt->load_meta_data(brix::datasource("FILE#" + s.args[0] + ".names#" + sep));
      tt->load_data(brix::datasource("FILE#" + s.test + "#" + sep), "?");
    }
    progress.begin("test");
    test = m->evaluate(*tt, nullptr, &unseen);
    warn_unseen(s.test, s, unseen);
  }
  if (!held.empty()) {
    progress.begin("holdout test");
    holdout = m->evaluate(*t, proba, &held);
  }
  if (!s.model.empty()) {
    progress.begin("write model");
    m->save(s.model);
  }
  progress.end();
  std::ostream& out = std::cout;
  if (s.report == "json") {
    out << "{\"trials\":" << m->size() << (m->has_rules() ? ",\"rules\":" : ",\"size\":")
        << total_size(*m);
    auto with_cost = [&](char const* name, brix::conf_matrix const& c) {
      json_matrix(out, name, c);
      out << ",\"" << name << "_average_cost\":" << json_number(m->average_cost(c));
    };
    with_cost("training", *training);
    if (test) with_cost("test", *test);
    if (holdout) with_cost("holdout", *holdout);
    out << ",\"model\":";
    m->write_json(out);
    out << "}" << std::endl;
    return 0;
  }
  out << brix::get_copyright() << std::endl
      << std::endl
      << "TRIALS: " << m->size() << (m->has_rules() ? ", TOTAL RULES: " : ", TOTAL TREE SIZE: ")
      << total_size(*m) << std::endl
      << std::endl;
  report_matrices(out, *training, test.get(), holdout.get(), [&](brix::conf_matrix const& c) {
    out << "AVERAGE COST: " << m->average_cost(c) << std::endl;
  });
  out << std::endl;
  m->write_text(out);
  return 0;
}
int train_rules(settings const& s);

int train(settings const& s) {
  if (s.args.size() != 1) throw usage_error("train takes one DATA argument");
  if (!s.test.empty() && s.test_fraction > 0)
    throw usage_error("--test and --test-fraction exclude each other");
  std::vector<std::string> read = inputs(s.args[0], s.test);
  if (!s.costs.empty()) read.push_back(s.costs);
  refuse_same(s.model, read);
  refuse_rules_with_costs(s);
  if (ensemble_asked(s)) return train_ensemble(s);
  if (s.rules) return train_rules(s);
  auto t = load(s.args[0], s, true);
  warn_past_exact(*t, s);
  brix::tree_options opts = s.tree;
  opts.stage = [](char const* what) { progress.begin(what); };
  std::unique_ptr<brix::tree_model> m;
  std::vector<unsigned long> held;
  if (s.test_fraction > 0) {
    brix::holdout_split h = brix::split_holdout(t->get_no_rows(), s.test_fraction, s.seed);
    m = brix::tree_model::train(*t, opts, &h.train);
    held = h.test;
  } else {
    m = brix::tree_model::train(*t, opts);
  }
  brix::dtree const& tree = m->facade();
  std::unique_ptr<brix::conf_matrix> training(tree.get_prediction()), test, holdout;
  if (!s.test.empty()) {
    std::vector<std::pair<std::string, unsigned long>> unseen;
    if (is_table_file(s.test)) {
      auto tt = load(s.test, s, true, m.get());
      progress.begin("test");
      test = m->evaluate(*tt, &unseen);
    } else {
      // A stem's test file is read as brixcmd reads it.
      progress.begin("test");
      char sep = s.separator != 0 ? s.separator : ',';
      test = m->evaluate_data_file(s.test, sep, &unseen);
    }
    warn_unseen(s.test, s, unseen);
  }
  if (!held.empty()) {
    progress.begin("holdout test");
    brix::table::subset sub;
    for (unsigned long r : held)
      sub.push_back(r, t->get_weight(r));
    holdout.reset(const_cast<brix::dtree&>(tree).predict(t.get(), &sub));
  }
  if (!s.model.empty()) {
    progress.begin("write model");
    m->save(s.model);
  }
  progress.end();
  std::vector<std::string> names = m->attributes();
  std::vector<double> usage = m->attribute_usage();
  std::ostream& out = std::cout;
  if (s.report == "json") {
    std::vector<double> importance = m->importance();
    out << "{\"tree_size\":" << tree.size() << ",\"classes\":[";
    std::vector<std::string> classes = m->classes();
    for (std::size_t c = 0; c < classes.size(); ++c)
      out << (c ? "," : "") << brix::json_string(classes[c]);
    out << "]";
    json_matrix(out, "training", *training);
    if (test) json_matrix(out, "test", *test);
    if (holdout) json_matrix(out, "holdout", *holdout);
    out << ",\"attributes\":[";
    for (std::size_t a = 0; a < names.size(); ++a)
      out << (a ? "," : "") << "{\"name\":" << brix::json_string(names[a])
          << ",\"usage\":" << json_number(usage[a])
          << ",\"importance\":" << json_number(importance[a]) << "}";
    out << "],\"tree\":";
    m->write_json(out);
    out << "}" << std::endl;
    return 0;
  }
  out << brix::get_copyright() << std::endl
      << std::endl
      << "TREE SIZE: " << tree.size() << std::endl
      << std::endl;
  report_matrices(out, *training, test.get(), holdout.get());
  out << std::endl << "Decision Tree" << std::endl << std::endl;
  m->write_text(out);
  out << std::endl << "Attribute usage" << std::endl << std::endl;
  for (std::size_t a = 0; a < names.size(); ++a)
    if (usage[a] > 0) out << "  " << std::lround(usage[a] * 100) << "%\t" << names[a] << std::endl;
  return 0;
}

// A test file as a table: a CSV/TSV/ARFF file on its own, a stem's test file with the stem's
// .names.
std::unique_ptr<brix::table> load_test(std::string const& data, settings const& s,
                                       brix::tree_model const& tree) {
  if (is_table_file(s.test)) return load(s.test, s, true, &tree);
  progress.begin("load " + s.test);
  std::string sep(1, s.separator != 0 ? s.separator : ',');
  auto t = std::make_unique<brix::table>(s.test);
  t->load_meta_data(brix::datasource("FILE#" + data + ".names#" + sep));
  t->load_data(brix::datasource("FILE#" + s.test + "#" + sep), "?");
  return t;
}

// train --rules: the tree as train grows it, read off as a ruleset; the report gives the rules'
// errors and the ruleset instead of the tree.
int train_rules(settings const& s) {
  auto t = load(s.args[0], s, true);
  warn_past_exact(*t, s);
  brix::tree_options opts = s.tree;
  opts.stage = [](char const* what) { progress.begin(what); };
  std::vector<unsigned long> fit, held;
  if (s.test_fraction > 0) {
    brix::holdout_split h = brix::split_holdout(t->get_no_rows(), s.test_fraction, s.seed);
    fit = h.train;
    held = h.test;
  }
  auto tree = brix::tree_model::train(*t, opts, fit.empty() ? nullptr : &fit);
  progress.begin("rules");
  auto m = brix::rule_model::from_tree(*tree, *t, fit.empty() ? nullptr : &fit);
  progress.begin("evaluate");
  double training = m->error(*t, fit.empty() ? nullptr : &fit), test = -1, holdout = -1;
  unsigned long test_rows = 0;
  if (!s.test.empty()) {
    auto tt = load_test(s.args[0], s, *tree);
    progress.begin("test");
    test = m->error(*tt);
    test_rows = tt->get_no_rows();
  }
  if (!held.empty()) holdout = m->error(*t, &held);
  if (!s.model.empty()) {
    progress.begin("write model");
    m->save(s.model);
  }
  progress.end();
  std::ostream& out = std::cout;
  unsigned long n_fit = fit.empty() ? t->get_no_rows() : fit.size();
  if (s.report == "json") {
    auto part = [&](char const* name, double e, unsigned long n) {
      out << ",\"" << name << "\":{\"rows\":" << n << ",\"error_percent\":" << json_number(e * 100)
          << "}";
    };
    out << "{\"rules\":" << m->size() << ",\"tree_leaves\":" << m->leaves();
    part("training", training, n_fit);
    if (test >= 0) part("test", test, test_rows);
    if (holdout >= 0) part("holdout", holdout, held.size());
    out << ",\"ruleset\":";
    m->write_json(out);
    out << "}" << std::endl;
    return 0;
  }
  out << brix::get_copyright() << std::endl
      << std::endl
      << "RULES: " << m->size() << " (from a tree of " << m->leaves() << " leaves)" << std::endl
      << std::endl;
  out << "MISCLASSIFICATION on training: " << training * 100 << "% of " << n_fit << " rows."
      << std::endl;
  if (test >= 0)
    out << "MISCLASSIFICATION on test file: " << test * 100 << "% of " << test_rows << " rows."
        << std::endl;
  if (holdout >= 0)
    out << "MISCLASSIFICATION on holdout test: " << holdout * 100 << "% of " << held.size()
        << " rows." << std::endl;
  out << std::endl;
  m->write_text(out);
  return 0;
}

int predict(settings const& s) {
  if (s.args.size() != 2) throw usage_error("predict takes MODEL and DATA");
  std::vector<std::string> read = inputs(s.args[1]);
  read.push_back(s.args[0]);
  refuse_same(s.output, read);
  // A model file has no name a table has: DATA first is the likely mistake.
  if (is_table_file(s.args[0]) || file_exists(s.args[0] + ".names"))
    throw usage_error("predict takes MODEL then DATA: " + s.args[0] +
                      " is a table, not a model (the two swapped?)");
  progress.begin("load model");
  std::unique_ptr<brix::tree_model> m;
  std::unique_ptr<brix::ensemble> e;
  std::unique_ptr<brix::rule_model> rules;
  if (brix::ensemble::is_file(s.args[0]))
    e = brix::ensemble::load(s.args[0]);
  else if (brix::rule_model::is_rules_file(s.args[0]))
    rules = brix::rule_model::load(s.args[0]);
  else
    m = brix::tree_model::load(s.args[0]);
  auto t = load(s.args[1], s, false, m.get(), rules.get());
  // An ignored column keeps no values: one named by --id (R's row names) is read again as text.
  if (!s.id.empty() && !s.kinds.count(s.id)) {
    for (auto const& c : brix::table_columns(*t))
      if (c.name == s.id && c.kind == brix::column_kind::ignore) {
        settings again = s;
        again.kinds[s.id] = brix::column_kind::discrete;
        again.quiet = true;  // the warnings were given
        t = load(s.args[1], again, false, m.get(), rules.get());
        break;
      }
  }
  progress.begin("predict");
  std::vector<double> all = e       ? e->predict_proba(*t)
                            : rules ? rules->predict_proba(*t)
                                    : m->predict_proba(*t);
  progress.begin("write");
  std::vector<std::string> classes = e ? e->classes() : rules ? rules->classes() : m->classes();
  bool id = false;
  std::size_t id_column = 0;
  if (!s.id.empty()) {
    std::vector<brix::column_info> columns = brix::table_columns(*t);
    for (std::size_t c = 0; c < columns.size(); ++c)
      if (columns[c].name == s.id) {
        id = true;
        id_column = c;  // of equal names, the last
      }
    if (!id) throw std::runtime_error("DATA has no column '" + s.id + "'");
  }
  auto write = [&](std::ostream& out) {
    if (id) out << csv_field(s.id) << ",";
    out << "predicted";
    std::vector<std::string> shown;  // the classes as fields
    for (auto const& c : classes)
      shown.push_back(csv_field(c));
    if (s.proba)
      for (auto const& c : classes)
        out << "," << csv_field("p(" + c + ")");
    out << "\n";
    std::size_t k = classes.size();
    for (unsigned long r = 0; r < t->get_no_rows(); ++r) {
      auto p = all.begin() + static_cast<long>(r * k);
      // The first class of the largest share wins, as in prediction.
      std::size_t best =
          e ? e->decide(&*p)
            : static_cast<std::size_t>(std::max_element(p, p + static_cast<long>(k)) - p);
      if (id) out << csv_field(brix::value_text(*t, id_column, r)) << ",";
      out << shown[best];
      if (s.proba)
        for (std::size_t c = 0; c < k; ++c)
          out << "," << p[c];
      out << "\n";
    }
  };
  if (s.output.empty()) {
    write(std::cout);
  } else {
    write_file(s.output, write);
  }
  progress.end();
  return 0;
}

int cv(settings const& s) {
  if (s.args.size() != 1) throw usage_error("cv takes one DATA argument");
  // Options of train that cv has no use for are refused rather than ignored.
  if (!s.model.empty()) throw usage_error("cv writes no model (--model is for train)");
  if (s.report != "text") throw usage_error("cv has a text report only (--report is for train)");
  if (!s.test.empty() || s.test_fraction > 0)
    throw usage_error("cv tests on its folds (--test and --test-fraction are for train)");
  refuse_rules_with_costs(s);
  auto t = load(s.args[0], s, true);
  if (s.folds > t->get_no_rows()) throw usage_error("-k is larger than the number of rows");
  warn_past_exact(*t, s);
  std::vector<unsigned long> labels;
  std::vector<brix::column_info> columns = brix::table_columns(*t);
  std::size_t cls = 0;
  while (columns[cls].kind != brix::column_kind::class_label)
    ++cls;
  for (unsigned long r = 0; r < t->get_no_rows(); ++r)
    labels.push_back(brix::value_code(*t, cls, r));
  std::vector<unsigned> fold =
      brix::kfold(t->get_no_rows(), s.folds, s.seed, s.stratified ? &labels : nullptr);
  std::vector<double> errors, costs;
  bool many = ensemble_asked(s);
  brix::ensemble_options eo;
  if (many) eo = ensemble_options_of(s);
  std::cout << "fold\terror %\tsize\ttest cases" << (many ? "\taverage cost" : "") << std::endl;
  for (unsigned k = 0; k < s.folds; ++k) {
    std::vector<unsigned long> train;
    brix::table::subset test;
    for (unsigned long r = 0; r < fold.size(); ++r) {
      if (fold[r] == k)
        test.push_back(r, t->get_weight(r));
      else
        train.push_back(r);
    }
    progress.begin("fold " + std::to_string(k + 1) + "/" + std::to_string(s.folds));
    if (many) {
      std::vector<unsigned long> held;
      for (unsigned long i = 0; i < test.size(); ++i)
        held.push_back(test.get(i));
      std::unique_ptr<brix::ensemble> m;
      std::vector<double> proba;
      try {
        m = brix::ensemble::train(*t, eo, &train, &proba);
      } catch (std::invalid_argument const& x) {
        std::string what = x.what();
        throw std::runtime_error(what.substr(what.find("] ") + 2));
      }
      std::unique_ptr<brix::conf_matrix> c = m->evaluate(*t, proba, &held);
      double e = c->mis_perc() * 100.0;
      errors.push_back(e);
      costs.push_back(m->average_cost(*c));
      progress.clear();
      std::cout << k + 1 << "\t" << percent(e) << "\t" << total_size(*m) << "\t"
                << count(c->cases()) << "\t" << costs.back() << std::endl;
      continue;
    }
    auto m = brix::tree_model::train(*t, s.tree, &train);
    if (s.rules) {
      // Rules: their count as the size, each test row counted with its weight.
      auto r = brix::rule_model::from_tree(*m, *t, &train);
      std::vector<unsigned long> rows;
      double cases = 0;
      for (unsigned long i = 0; i < test.size(); ++i) {
        rows.push_back(test.get(i));
        cases += t->get_weight(test.get(i));
      }
      double e = r->error(*t, &rows) * 100.0;
      errors.push_back(e);
      progress.clear();
      std::cout << k + 1 << "\t" << percent(e) << "\t" << r->size() << "\t" << count(cases)
                << std::endl;
      continue;
    }
    std::unique_ptr<brix::conf_matrix> c(
        const_cast<brix::dtree&>(m->facade()).predict(t.get(), &test));
    double e = c->mis_perc() * 100.0;
    errors.push_back(e);
    progress.clear();
    std::cout << k + 1 << "\t" << percent(e) << "\t" << m->size() << "\t" << count(c->cases())
              << std::endl;
  }
  progress.end();
  double mean = std::accumulate(errors.begin(), errors.end(), 0.0) / errors.size(), var = 0;
  for (double e : errors)
    var += (e - mean) * (e - mean);
  double sd = errors.size() > 1 ? std::sqrt(var / (errors.size() - 1)) : 0.0;
  std::cout << "mean error " << percent(mean) << "%, standard deviation " << percent(sd) << " ("
            << s.folds << " folds, seed " << s.seed << (s.stratified ? ", stratified" : "") << ")"
            << std::endl;
  if (many)
    std::cout << "mean average cost "
              << std::accumulate(costs.begin(), costs.end(), 0.0) / costs.size() << std::endl;
  return 0;
}

int show(settings const& s) {
  if (s.args.size() != 1) throw usage_error("show takes one MODEL argument");
  if (brix::ensemble::is_file(s.args[0])) {
    auto e = brix::ensemble::load(s.args[0]);
    if (e->has_rules() && s.format == "dot")
      throw usage_error("boosted rulesets show as text, json or pmml");
    if (s.format == "json")
      e->write_json(std::cout);
    else if (s.format == "pmml")
      e->write_pmml(std::cout);
    else if (s.format == "dot")
      e->write_dot(std::cout, s.max_depth);
    else
      e->write_text(std::cout);
    return 0;
  }
  if (brix::rule_model::is_rules_file(s.args[0])) {
    auto r = brix::rule_model::load(s.args[0]);
    if (s.format == "text")
      r->write_text(std::cout);
    else if (s.format == "json")
      r->write_json(std::cout);
    else if (s.format == "pmml")
      r->write_pmml(std::cout);
    else
      throw usage_error("a ruleset shows as text, json or pmml");
    return 0;
  }
  auto m = brix::tree_model::load(s.args[0]);
  brix::output_format_named(s.format).writer->write(
      brix::tree_output{m->facade(), nullptr, s.max_depth}, std::cout);
  return 0;
}

int import_data(settings const& s) {
  if (s.args.size() != 1) throw usage_error("import takes one DATA argument");
  if (s.to.empty()) throw usage_error("import needs --to STEM");
  if (!is_table_file(s.args[0])) refuse_overrides(s.args[0], s);
  refuse_separator(s.args[0], s);
  // Outputs that are inputs under another name are import's own data error.
  for (std::string const& out : {s.to + ".names", s.to + ".data"})
    for (std::string const& in : {s.args[0], s.test})
      if (out == in) throw usage_error("the output " + out + " is also an input");
  brix::read_options o;
  o.class_column = s.class_column;
  o.kinds = s.kinds;
  o.types = s.types;
  o.separator = s.separator;
  try {
    return brix_import(s.args[0], s.to, s.test, o, s.quiet);
  } catch (std::runtime_error const& e) {
    rethrow_with_separator_hint(s.args[0], s, e);
  }
}

int check(settings const& s) {
  if (s.args.size() != 1) throw usage_error("check takes one DATA argument");
  refuse_separator(s.args[0], s);
  return brix_check(s.args[0], s.class_column, s.separator);
}

char const* const kDataNote =
    "DATA is a CSV or TSV file with a header row (.csv, .tsv, .txt), an ARFF file (.arff), each\n"
    "optionally .gz, or the stem of a .names/.data pair; --sep C reads a CSV file or a stem with\n"
    "the separator C (one character, or tab; by default a tab for .tsv, a comma otherwise).\n"
    "A first column without a name (R's row names) is ignored; a column of ISO dates\n"
    "(YYYY-MM-DD, optionally Thh:mm[:ss]) is read as days since 1970-01-01. MODEL is a binary\n"
    "tree file (brixcmd -bt reads it too), a file of trees only brix reads (from --trials or\n"
    "--costs) or a ruleset file of train --rules. Everywhere: --quiet (no progress line, no\n"
    "warnings), -v (stage timings), --help. Exit status: 0 success, 1 data or model error, 2 "
    "usage\n"
    "error.\n";

char const* const kTrainingOptions =
    "  --class NAME         the class column of a CSV or ARFF file (default: the last)\n"

    "  --kind NAME=KIND     read a CSV or ARFF column as discrete, continuous, weights or ignore\n"
    "  --type NAME=TYPE     store it as integer, uinteger, float, double or string\n"
    "  --confidence CF      pruning confidence in (0,1], default 0.25\n"
    "  --min-cases M        least weight in two branches of a split, > 1, default 2\n"
    "  --pruning P          error (default), full (also raise subtrees) or none\n"
    "  --threads N          grow on N threads (the same tree)\n"
    "  --trials N           boost: up to N trees, each on the cases weighted up where the last\n"
    "                       erred; they vote (with --rules: each tree's ruleset)\n"
    "  --costs FILE         misclassification costs, CSV predicted,actual,cost (unlisted pairs:\n"
    "                       1 off the diagonal, 0 on it); reports the average cost\n"
    "  --rules              read the pruned tree off as a ruleset (train: its report and --model\n"
    "                       file; cv: its errors and rule counts)\n"
    "  --subsets            split discrete attributes of more than two values on groups of\n"
    "                       values (\"make in {a, b}\") instead of a branch per value; the\n"
    "                       model file is then brix's own (brixcmd -bt refuses it)\n";

struct command {
  int (*run)(settings const&);
  char const* synopsis;
  char const* details;
};

std::string const& show_synopsis() {
  static std::string const text = [] {
    std::string formats;
    for (std::string const& f : shown_formats())
      formats += (formats.empty() ? "" : "|") + f;
    return "brix show MODEL [--format " + formats + "] [--max-depth D]";
  }();
  return text;
}

// In the order the usage lists them.
std::vector<std::pair<std::string, command>> const& commands() {
  static std::vector<std::pair<std::string, command>> const table = {
      {"train",
       {train,
        "brix train DATA [--test FILE | --test-fraction P] [--seed N] [--model OUT]\n"
        "                [--report text|json] [training options]",
        "Grows and prunes a tree on DATA and prints brixcmd's report (tree size, errors on the\n"
        "training data and on the test data, the tree), then each attribute's usage: the share\n"
        "of training weight passing a node that tests it. --report json prints the same figures\n"
        "with the tree as JSON. --test-fraction holds out a seeded share of the rows instead of a\n"
        "test file; --model writes the binary tree file.\n"}},
      {"predict",
       {predict, "brix predict MODEL DATA [--proba] [--id COLUMN] [--output FILE]",
        "Classifies every row of DATA (the class column may be absent) and writes CSV with a\n"
        "header: the --id column if asked, the predicted class and, with --proba, one column per\n"
        "class with its probability. To standard output unless --output names a file.\n"}},
      {"cv",
       {cv, "brix cv DATA [-k K] [--seed N] [--stratified] [training options]",
        "K-fold cross-validation (K = 10 by default): each fold's error and tree size, then the\n"
        "mean error and its standard deviation. Folds come from the seed alone, the same on every\n"
        "machine; --stratified spreads each class over the folds.\n"}},
      {"show",
       {show, show_synopsis().c_str(),
        "Prints a tree file as text, Graphviz DOT (--max-depth cuts deeper nodes to a summary),\n"
        "PMML 4.4 or JSON.\n"}},
      {"import", {import_data, kImportSynopsis, kImportHelp}},
      {"check", {check, kCheckSynopsis, kCheckHelp}},
  };
  return table;
}

void usage(std::ostream& out) {
  out << "usage: brix COMMAND [ARGS] [OPTIONS]\n\n";
  for (auto const& c : commands())
    out << "  " << c.second.synopsis << "\n";
  out << "\nTraining options (train, cv):\n" << kTrainingOptions << "\n" << kDataNote;
}

void help(std::string const& name, command const& c) {
  std::cout << "usage: " << c.synopsis << "\n\n" << c.details;
  if (name == "train" || name == "cv") std::cout << "\nTraining options:\n" << kTrainingOptions;
  std::cout << "\n" << kDataNote;
}

}  // namespace

int main(int argc, char** argv) {
  zel::util::proc::keep_freed_blocks_for_reuse();
  try {
    if (argc < 2) throw usage_error("no command given");
    std::string cmd = argv[1];
    if (cmd == "--help" || cmd == "-h" || cmd == "help") {
      usage(std::cout);
      return 0;
    }
    if (cmd == "--version") {
      std::cout << "brix " << brix::get_version() << std::endl;
      return 0;
    }
    auto it = std::find_if(commands().begin(), commands().end(),
                           [&](auto const& c) { return c.first == cmd; });
    if (it == commands().end()) throw usage_error("unknown command " + cmd);
    for (int i = 2; i < argc; ++i)
      if (std::string(argv[i]) == "--help") {
        help(it->first, it->second);
        return 0;
      }
    settings s = parse(argc, argv, 2);
    progress.setup(s);
    int status = it->second.run(s);
    progress.end();
    // What could not be written (a full device, a closed pipe) fails the run, not just the bytes.
    std::cout.flush();
    if (!std::cout || std::fflush(stdout) != 0 || std::ferror(stdout))
      throw std::runtime_error(std::string("standard output: cannot be written (") +
                               std::strerror(errno) + ")");
    return status;
  } catch (usage_error const& e) {
    progress.clear();
    std::cerr << "brix: " << e.what() << "\n(brix --help lists the commands and options)"
              << std::endl;
    return 2;
  } catch (std::exception const& e) {
    progress.clear();
    std::cerr << "brix: " << e.what() << std::endl;
    return 1;
  }
}
