// The raw-pointer facade of the Brix decision tree library, kept for brixcmd and the callers
// written against it. New code includes brix/model.h and brix/data.h (with brix/ensemble.h and
// brix/rules.h) instead, with the table and conf_matrix classes declared here.
//
// Every class holds one owning pointer to its implementation object in
// brix::impls, so that this header exposes no implementation type.
#ifndef BRIX_BRIX_H
#define BRIX_BRIX_H

#include <iosfwd>
#include <string>
#include <vector>

#include "brix/version.h"

namespace brix {

namespace impls {
class table;
class w_sequence;
class decision_tree;
class conf_matrix;
}  // namespace impls

std::string get_version();
unsigned long get_build();
std::string get_copyright();

// A data source descriptor: "FILE#" + file name + "#" + separator.
class datasource {
 public:
  explicit datasource(std::string const& descriptor) : descriptor_(descriptor) {}
  std::string const& get_descriptor() const { return descriptor_; }

 private:
  std::string descriptor_;
};

class table {
 public:
  // A weighted list of row numbers of a table.
  class subset {
   public:
    subset();
    explicit subset(impls::w_sequence* seq);  // takes ownership
    ~subset();
    subset(subset const&) = delete;
    subset& operator=(subset const&) = delete;

    unsigned long size() const;
    void reserve(unsigned long n);
    void resize(unsigned long n);
    void push_back(unsigned long row, float weight);
    void set(unsigned long i, unsigned long row, float weight);
    unsigned long get(unsigned long i) const;

    impls::w_sequence* get_impl() const { return seq_; }

   private:
    impls::w_sequence* seq_;
  };

  explicit table(std::string const& name);
  ~table();
  table(table const&) = delete;
  table& operator=(table const&) = delete;

  void load_meta_data(datasource const& source);
  void load_data(datasource const& source, std::string const& null);

  std::string get_name() const;
  unsigned long get_no_rows() const;
  unsigned long get_no_columns() const;
  double get_elapsed() const;
  std::ostream* set_log(std::ostream* log);
  unsigned long set_verbosity(unsigned long verbosity);
  std::string get_class(unsigned long row) const;
  float get_weight(unsigned long row) const;

  subset* get_wsubset_all() const;
  subset* get_wsubset_random(unsigned long n) const;
  subset* get_wsubset_first_n(unsigned long n) const;
  subset* get_wsubset_difference(subset* s) const;

  void toXML_data_dictionary(std::ostream& out) const;
  void toXML_mining_schema(std::ostream& out) const;

  void toBinary(std::string const& file) const;
  static table* fromBinary(std::string const& file);
  // A table around an implementation built elsewhere (the readers); takes ownership.
  static table* adopt(impls::table* impl) { return new table(impl); }

  impls::table* get_impl() const { return impl_; }

 private:
  explicit table(impls::table* impl) : impl_(impl) {}
  impls::table* impl_;
};

class conf_matrix {
 public:
  explicit conf_matrix(table* t);
  explicit conf_matrix(impls::conf_matrix* impl);  // takes ownership
  ~conf_matrix();
  conf_matrix(conf_matrix const&) = delete;
  conf_matrix& operator=(conf_matrix const&) = delete;

  unsigned long size() const;
  float get_element(unsigned long i, unsigned long j) const;
  float cases() const;
  float mis_perc() const;
  double get_elapsed() const;
  void toTEXT(std::ostream& out, unsigned long level) const;
  void toXML(std::ostream& out) const;
  conf_matrix* clone() const;

  impls::conf_matrix* get_impl() const { return impl_; }

 private:
  impls::conf_matrix* impl_;
};

class dtree {
 public:
  enum PruningStrategy { NO_PRUNING = 0, C45_PRUNING = 1, DT_PRUNING = 2 };
  enum SplitType { GAIN = 0, GAIN_RATIO = 1 };
  enum Options { ALL_CASES_COUNT = 0, WEIGHTED_COUNT = 1 };

  explicit dtree(std::string const& name);
  ~dtree();
  dtree(dtree const&) = delete;
  dtree& operator=(dtree const&) = delete;

  void set_conf_level(float cf);
  void set_min_obj(float m);
  void set_pruning_strategy(PruningStrategy p);
  void set_split_type(SplitType t);
  void set_option(Options o);

  // A null subset means all rows.
  void build(table* t, table::subset* cases, bool evaluate, int workers);

  unsigned long size() const;
  unsigned long depth() const;
  unsigned long training_n_rows() const;
  double get_elapsed() const;

  conf_matrix* predict(table* t, table::subset* cases) const;
  conf_matrix* predict(datasource const& source) const;
  std::string predict(table* t, unsigned long row, float weight) const;
  std::string predict(std::vector<std::string> const& values) const;
  conf_matrix* get_prediction() const;
  double evaluate(datasource const& source, std::ostream& out, char separator) const;

  void toTEXT(std::ostream& out) const;
  void toXML(std::ostream& out, conf_matrix const* test) const;
  void toDOT(std::ostream& out) const;

  void toBinary(std::string const& file) const;
  static dtree* fromBinary(std::string const& file);
  dtree* clone() const;

  impls::decision_tree* get_impl() const { return impl_; }

 private:
  explicit dtree(impls::decision_tree* impl) : impl_(impl) {}
  impls::decision_tree* impl_;
};

}  // namespace brix

#endif
