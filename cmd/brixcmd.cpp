// brixcmd: induces a decision tree from a dataset, evaluates it and writes it out.
//
// All the work goes through the public facade in brix/brix.h; this file only parses the
// command line, opens the output channels and runs the pipeline.
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <iostream>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "brix/brix.h"
#include "brix/tree_writer.h"
#include "zel/util/proc.h"

namespace {

// Ends the run with a status once the open streams have been released, rather than calling
// exit() with buffered log output still pending.
struct early_exit {
  int status;
};

// Everything the command line can set. Empty file names mean "not given".
struct settings {
  std::string meta_file, data_file, test_file, score_file, score_out;
  std::string table_bin_in, table_bin_out, tree_bin_in, tree_bin_out;
  std::string separator = ",";
  std::string log_file, text_file, xml_file, dot_file;
  bool log_std = false, text_std = false, xml_std = false, dot_std = false;
  double holdout_random = 0;
  double holdout_first = 0;
  float conf_level = 0.25f;
  float min_obj = 2.0f;
  brix::dtree::PruningStrategy pruning = brix::dtree::DT_PRUNING;
  long workers = 0;
};

// One row per option, tried in table order and matched whole word against whole word.
struct option_row {
  const char* word;
  bool takes_arg;
  std::function<void(const char*)> apply;  // parses the argument (if any) into its setting
  std::function<bool()> valid;             // empty: every value is accepted
  std::string message;                     // printed when valid() fails
};

// Lenient parsing: a word that is not a number reads as 0.
double to_double(const char* s) {
  return std::strtod(s, nullptr);
}
float to_float(const char* s) {
  return std::strtof(s, nullptr);
}
long to_long(const char* s) {
  return std::strtol(s, nullptr, 10);
}

std::vector<option_row> option_table(settings& s, long processors) {
  auto store = [](std::string& target) { return [&target](const char* a) { target = a; }; };
  auto flag = [](bool& target) { return [&target](const char*) { target = true; }; };
  auto pruning = [&s](brix::dtree::PruningStrategy p) {
    return [&s, p](const char*) { s.pruning = p; };
  };
  auto holdout_ok = [](const double& h) { return [&h] { return h > 0 && h <= 1; }; };
  const std::string holdout_msg = "Holdout must be in (0,100]";

  return {
      {"-f", true,
       [&s](const char* a) {
         s.meta_file = std::string(a) + ".names";
         s.data_file = std::string(a) + ".data";
       },
       nullptr, ""},
      {"-fm", true, store(s.meta_file), nullptr, ""},
      {"-fd", true, store(s.data_file), nullptr, ""},
      {"-ft", true, store(s.test_file), nullptr, ""},
      {"-fs", true, store(s.score_file), nullptr, ""},
      {"-bd", true, store(s.table_bin_in), nullptr, ""},
      {"-db", true, store(s.table_bin_out), nullptr, ""},
      {"-sep", true, store(s.separator), nullptr, ""},
      {"-tb", true, store(s.tree_bin_out), nullptr, ""},
      {"-bt", true, store(s.tree_bin_in), nullptr, ""},
      {"-h", true, [&s](const char* a) { s.holdout_random = to_double(a) / 100; },
       holdout_ok(s.holdout_random), holdout_msg},
      {"-hf", true, [&s](const char* a) { s.holdout_first = to_double(a) / 100; },
       holdout_ok(s.holdout_first), holdout_msg},
      // A NaN passes these two checks; the tree then refuses it and keeps its default.
      {"-m", true, [&s](const char* a) { s.min_obj = to_float(a); },
       [&s] { return !(s.min_obj <= 1.0f); }, "MinObjects must be > 1"},
      {"-c", true, [&s](const char* a) { s.conf_level = to_float(a); },
       [&s] { return !(s.conf_level <= 0.0f || s.conf_level > 1.0f); },
       "Confidence level must be in (0,1]"},
      {"-c4.5", false, pruning(brix::dtree::C45_PRUNING), nullptr, ""},
      {"-np", false, pruning(brix::dtree::NO_PRUNING), nullptr, ""},
      {"-tstd", false, flag(s.text_std), nullptr, ""},
      {"-lstd", false, flag(s.log_std), nullptr, ""},
      {"-xstd", false, flag(s.xml_std), nullptr, ""},
      {"-dstd", false, flag(s.dot_std), nullptr, ""},
      {"-s", true, store(s.score_out), nullptr, ""},
      {"-t", true, store(s.text_file), nullptr, ""},
      {"-l", true, store(s.log_file), nullptr, ""},
      {"-x", true, store(s.xml_file), nullptr, ""},
      {"-d", true, store(s.dot_file), nullptr, ""},
      {"-ff", true, [&s](const char* a) { s.workers = to_long(a); },
       [&s, processors] { return s.workers >= 1 && s.workers <= processors; },
       "<n> must be in [1," + std::to_string(processors) + "]"},
  };
}

// Returns false, after printing why, at the first unknown word or bad value.
bool parse_options(int argc, char** argv, settings& s) {
  const std::vector<option_row> options = option_table(s, sysconf(_SC_NPROCESSORS_ONLN));
  for (int i = 1; i < argc; ++i) {
    const std::string word = argv[i];
    const option_row* row = nullptr;
    for (const option_row& r : options) {
      if (word == r.word) {
        row = &r;
        break;
      }
    }
    if (row == nullptr) {
      std::cout << "Unknown command: " << word << std::endl;
      return false;
    }
    const char* arg = nullptr;
    if (row->takes_arg) {
      if (i + 1 == argc) {
        std::cout << "Option " << word << " requires an argument" << std::endl;
        return false;
      }
      arg = argv[++i];
    }
    row->apply(arg);
    if (row->valid && !row->valid()) {
      std::cout << row->message << std::endl;
      return false;
    }
  }
  return true;
}

std::string file_source(const std::string& file, const std::string& separator) {
  return "FILE#" + file + "#" + separator;
}

// Opens an output file; the caller keeps it alive for the rest of the run.
// File streams buffer their output: a full disk or a failed write shows once they are flushed.
// A regular file that could not be written whole is removed, as a cut report or document looks
// like a complete one; the log, appended to, keeps what it had.
// empty_too: also one with nothing in it, when the run fails before writing it.
bool written_or_removed(std::ofstream* out, const std::string& file, bool empty_too = false) {
  if (out == nullptr || (out->flush() && !(empty_too && out->tellp() == 0))) return true;
  out->close();
  struct stat st;
  if (::stat(file.c_str(), &st) == 0 && S_ISREG(st.st_mode)) std::remove(file.c_str());
  return false;
}

void check_written(std::ofstream* out, const std::string& file, bool appended = false) {
  if (appended ? out != nullptr && !out->flush() : !written_or_removed(out, file))
    throw std::runtime_error("File " + file + ": error writing output");
}

std::unique_ptr<std::ofstream> open_output(const std::string& file, std::ios::openmode mode) {
  std::unique_ptr<std::ofstream> out(new std::ofstream(file, std::ios::out | mode));
  if (!out->is_open()) throw std::runtime_error("File " + file + ": cannot be opened for writing");
  return out;
}

// Writes a misclassification figure and its confusion matrix to the text report.
void report_matrix(std::ostream& out, const char* heading, const brix::conf_matrix& m) {
  out << heading << m.mis_perc() * 100.0f << "% of " << m.cases() << " cases. " << std::endl;
  m.toTEXT(out, 0);
}

void log_time(std::ostream* log, const char* what, double seconds) {
  if (log) *log << what << std::endl << " time:  " << seconds << " secs." << std::endl;
}

struct built_tree {
  std::unique_ptr<brix::dtree> tree;
  std::unique_ptr<brix::table::subset> holdout;  // null when no holdout was taken
};

}  // namespace

void USAGE() {
  std::cout << brix::get_copyright() << std::endl
            << "Command line: brixcmd [doptions] [toptions] [ooption]" << std::endl
            << " [doptions]: DataSet Options" << std::endl
            << "    -f <file>   metadata in <file>.names and training data in <file>.data"
            << std::endl
            << "    -fm <file>  metadata in <file> (*)" << std::endl
            << "    -fd <file>  training data in <file> (*)" << std::endl
            << "    -ft <file>  test data in <file> (*)" << std::endl
            << "    -fs <file>  score data in <file> (*)" << std::endl
            << "    -bd <file>  training data in binary format in <file>" << std::endl
            << "    -sep <c>    column separator in files (default ',')" << std::endl
            << " [toptions]: Tree Construction Options" << std::endl
            << "    -bt <file>  No dataset. Tree binary input from <file>" << std::endl
            << "    -c <num>    pruning confidence level -- must be in (0,1]" << std::endl
            << "    -m <num>    minimum cases to split -- must be > 1" << std::endl
            << "    -c4.5       true c4.5 pruning strategy (takes longer)" << std::endl
            << "    -np         no pruning at all" << std::endl
            << "    -h <num>    Holdout on training data: random <num>% as training and rest as "
               "test"
            << std::endl
            << "    -hf <num>   Holdout on training data: first <num>% as training and rest as "
               "test"
            << std::endl
            << " [ooptions]: Output Options" << std::endl
            << "    -db <file>  training data binary output in <file>" << std::endl
            << "    -tb <file>  tree binary output to <file>" << std::endl
            << "    -l <file>   log output appended to <file>" << std::endl
            << "    -t <file>   text output to <file>" << std::endl
            << "    -x <file>   tree XML output to <file>" << std::endl
            << "    -d <file>   tree DOT output to <file>" << std::endl
            << "    -s <file>   score output to <file>" << std::endl
            << "    -lstd       log output to stdout" << std::endl
            << "    -tstd       text output to stdout" << std::endl
            << "    -xstd       tree XML output to stdout" << std::endl
            << "    -dstd       tree DOT output to stdout" << std::endl
            << " FastFlow options" << std::endl
            << "    -ff <n> run using <n> core-CPU" << std::endl
            << std::endl
            << "(*) .gz files are automatically gunzipped." << std::endl;
}

std::unique_ptr<brix::table> load_table(const std::string& separator, const std::string& meta_file,
                                        const std::string& data_file, const std::string& bin_in,
                                        std::ostream* log) {
  if (!bin_in.empty()) {
    std::unique_ptr<brix::table> t;
    try {
      t.reset(brix::table::fromBinary(bin_in));
    } catch (...) {
      throw std::runtime_error("File " + bin_in + ": not binary format");
    }
    if (log) *log << "Data loaded." << std::endl;
    return t;
  }

  std::unique_ptr<brix::table> t(new brix::table("training_set"));
  if (meta_file.empty()) {
    std::cout << "No metadata provided." << std::endl;
    throw early_exit{0};
  }
  t->load_meta_data(brix::datasource(file_source(meta_file, separator)));
  t->set_verbosity(200);
  t->set_log(log);
  if (data_file.empty()) {
    std::cout << "No training data provided." << std::endl;
    throw early_exit{0};
  }
  t->load_data(brix::datasource(file_source(data_file, separator)), "?");
  if (log) *log << "Data loaded.\n time:  " << t->get_elapsed() << " secs." << std::endl;
  return t;
}

void save_table(brix::table* t, const std::string& bin_out, std::ostream* log) {
  if (bin_out.empty()) return;
  try {
    t->toBinary(bin_out);
  } catch (...) {
    throw std::runtime_error("File " + bin_out + ": error with binary output");
  }
  if (log) *log << "Data saved." << std::endl;
}

built_tree buildt(brix::table* t, double holdout_random, double holdout_first, float conf_level,
                  float min_obj, brix::dtree::PruningStrategy pruning, int workers,
                  std::ostream* log) {
  built_tree result;
  result.tree.reset(new brix::dtree(t->get_name()));

  // A fraction of exactly 1 passes validation but takes no holdout.
  std::unique_ptr<brix::table::subset> training;
  if (holdout_random > 0 && holdout_random < 1) {
    training.reset(t->get_wsubset_random(
        static_cast<unsigned long>(static_cast<double>(t->get_no_rows()) * holdout_random)));
  } else if (holdout_first > 0 && holdout_first < 1) {
    training.reset(t->get_wsubset_first_n(
        static_cast<unsigned long>(static_cast<double>(t->get_no_rows()) * holdout_first)));
  }

  brix::dtree& tree = *result.tree;
  tree.set_conf_level(conf_level);
  tree.set_min_obj(min_obj);
  tree.set_pruning_strategy(pruning);
  tree.build(t, training.get(), true, workers);
  if (log) {
    *log << "Tree built." << std::endl
         << " size:  " << tree.size() << " depth: " << tree.depth()
         << " time:  " << tree.get_elapsed() << " secs." << std::endl;
  }

  if (training) result.holdout.reset(t->get_wsubset_difference(training.get()));
  return result;
}

void save_tree(brix::dtree* tree, const std::string& bin_out, std::ostream* dot,
               std::ostream* log) {
  if (dot) brix::output_format_named("brixcmd-dot").writer->write(brix::tree_output{*tree}, *dot);
  if (bin_out.empty()) return;
  try {
    brix::output_format_named("binary").writer->write(brix::tree_output{*tree}, bin_out);
  } catch (...) {
    throw std::runtime_error("File " + bin_out + ": error with binary output");
  }
  if (log) *log << "Tree saved." << std::endl;
}

void test(brix::table* t, brix::dtree* tree, const std::string& separator,
          const std::string& test_file, brix::table::subset* holdout, std::ostream* text,
          std::ostream* xml, std::ostream* log) {
  if (text) {
    std::unique_ptr<brix::conf_matrix> training(tree->get_prediction());
    *text << brix::get_copyright() << std::endl
          << std::endl
          << "TREE SIZE: " << tree->size() << std::endl
          << std::endl;
    report_matrix(*text, "MISCLASSIFICATION on training: ", *training);
  }

  // The last matrix computed goes into the XML document.
  std::unique_ptr<brix::conf_matrix> last;
  if (!test_file.empty()) {
    last.reset(tree->predict(brix::datasource(file_source(test_file, separator))));
    if (text) {
      *text << std::endl;
      report_matrix(*text, "MISCLASSIFICATION on test file: ", *last);
    }
    log_time(log, "Testing done.", last->get_elapsed());
  }
  if (holdout) {
    last.reset(tree->predict(t, holdout));
    if (text) {
      *text << std::endl;
      report_matrix(*text, "MISCLASSIFICATION on holdout test: ", *last);
    }
    log_time(log, "Testing done.", last->get_elapsed());
  }

  if (text) {
    *text << std::endl << "Decision Tree" << std::endl << std::endl;
    brix::output_format_named("text").writer->write(brix::tree_output{*tree}, *text);
  }
  if (xml)
    brix::output_format_named("brixcmd-xml")
        .writer->write(brix::tree_output{*tree, last.get()}, *xml);
}

void evaluate(brix::dtree* tree, const std::string& separator, const std::string& score_file,
              const std::string& score_out, std::ostream* log) {
  if (score_file.empty()) return;
  if (score_out.empty()) {
    if (log) *log << std::endl << "No score output file provided!" << std::endl << std::endl;
    return;
  }
  std::unique_ptr<std::ofstream> out = open_output(score_out, std::ios::trunc);
  double seconds =
      tree->evaluate(brix::datasource(file_source(score_file, separator)), *out, separator[0]);
  check_written(out.get(), score_out);
  log_time(log, "Evaluation done.", seconds);
}

namespace {

// Picks a channel: a named file wins over the standard-output switch.
std::ostream* channel(bool to_stdout, const std::string& file, std::ios::openmode mode,
                      std::unique_ptr<std::ofstream>& holder) {
  if (!file.empty()) {
    holder = open_output(file, mode);
    return holder.get();
  }
  return to_stdout ? &std::cout : nullptr;
}

int run(const settings& s) {
  std::unique_ptr<std::ofstream> log_file, text_file, xml_file, dot_file;
  std::ostream* log = channel(s.log_std, s.log_file, std::ios::app, log_file);
  std::ostream* text = channel(s.text_std, s.text_file, std::ios::trunc, text_file);
  std::ostream* xml = channel(s.xml_std, s.xml_file, std::ios::trunc, xml_file);
  std::ostream* dot = channel(s.dot_std, s.dot_file, std::ios::trunc, dot_file);

  std::unique_ptr<brix::table> table;
  built_tree built;
  if (!s.tree_bin_in.empty()) {
    built.tree.reset(brix::dtree::fromBinary(s.tree_bin_in));
    if (log) *log << "Tree loaded." << std::endl;
  } else {
    table = load_table(s.separator, s.meta_file, s.data_file, s.table_bin_in, log);
    save_table(table.get(), s.table_bin_out, log);
    built = buildt(table.get(), s.holdout_random, s.holdout_first, s.conf_level, s.min_obj,
                   s.pruning, static_cast<int>(s.workers), log);
  }

  try {
    save_tree(built.tree.get(), s.tree_bin_out, dot, log);
    check_written(dot_file.get(), s.dot_file);
    test(table.get(), built.tree.get(), s.separator, s.test_file, built.holdout.get(), text, xml,
         log);
    check_written(text_file.get(), s.text_file);
    check_written(xml_file.get(), s.xml_file);
  } catch (...) {
    // Whatever failed, no output is left cut short.
    written_or_removed(text_file.get(), s.text_file, true);
    written_or_removed(xml_file.get(), s.xml_file, true);
    written_or_removed(dot_file.get(), s.dot_file, true);
    throw;
  }
  evaluate(built.tree.get(), s.separator, s.score_file, s.score_out, log);
  check_written(log_file.get(), s.log_file, true);
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  zel::util::proc::keep_freed_blocks_for_reuse();
  if (argc < 2) {
    USAGE();
    return 0;
  }
  settings s;
  if (!parse_options(argc, argv, s)) return -1;

  // Failures end the run with status 0 once their message is out.
  try {
    return run(s);
  } catch (const early_exit& e) {
    return e.status;
  } catch (const std::runtime_error& e) {
    std::cout << e.what() << std::endl;
  } catch (...) {
    std::cout << "Halting on generic error." << std::endl;
  }
  return 0;
}
