// Value sets: the dictionary of one column. The unknown value has order 0 and
// the known values orders 1..k in ascending value order.
#ifndef BRIX_IMPLS_O_SET_H
#define BRIX_IMPLS_O_SET_H

#include <cstdint>
#include <cstring>
#include <stdexcept>
#include <string>
#include <vector>

#include "zel/inpout/fwd.h"

namespace brix {
namespace impls {

class column;

// Collects the values of one column while a table is read. add() takes each
// row's value text; after the read, index() sorts the value set, attach()
// hands the rows to the column built for it and fill() turns the rows of a
// range into value orders (the second pass).
class value_loader {
 public:
  virtual ~value_loader() = default;
  virtual void add(char const* text) = 0;
  // A number given as such, or an unknown value when known is false; only numeric sets take
  // numbers.
  virtual void add_number(double value, bool known) {
    throw std::runtime_error("numbers given for a column of texts");
  }
  // Columns given as codes into their distinct texts: text_id() registers a text as add() does
  // and returns its id (0: the null text), add_id() adds a row of a registered text. Only
  // loaders that keep rows by id take them.
  virtual std::uint32_t text_id(char const* text) {
    throw std::runtime_error("text ids given for a column of numbers");
  }
  virtual void add_id(std::uint32_t id) {
    throw std::runtime_error("text ids given for a column of numbers");
  }
  virtual void index() = 0;
  virtual void attach(column* target) = 0;
  virtual void fill(std::size_t from, std::size_t to) = 0;
};

class o_set {
 public:
  // Makes the value set of a data type keyword; unknown keywords throw.
  static o_set* NEW_O_SET(std::string const& datatype, bool admits_null, std::string const& null);

  o_set(std::string const& datatype, bool admits_null, std::string const& null);
  o_set(o_set const&) = delete;
  o_set& operator=(o_set const&) = delete;
  virtual ~o_set();

  virtual void insert(char const* value);
  virtual unsigned long size_of_known() const { return 0; }
  virtual bool get_order(char const* value, unsigned long& order);
  virtual std::string get_value(unsigned long order);
  virtual o_set* clone() const;
  virtual int leq(std::string const& a, std::string const& b) const { return -1; }
  virtual int leq(unsigned long order, std::string const& value) { return -1; }
  virtual std::string find_mid(unsigned long i, unsigned long j);

  // Loading in one read: insert_id() adds a value and returns a provisional
  // id (0 for the null text, then 1, 2, ... in order of first appearance);
  // freeze_remap() sorts the values and maps every provisional id to its order.
  virtual std::uint32_t insert_id(char const* value);
  virtual void freeze_remap(std::vector<std::uint32_t>& remap);
  // Makes the sorted view current; orders may be read concurrently afterwards.
  virtual void freeze() {}

  // The values of the binary table file: a presence flag, the count and the
  // values in ascending order. The null set writes the flag 0.
  virtual void bin_out(zel::inpout::obinstream& out);
  virtual void bin_in(zel::inpout::ibinstream& in);
  // A loader for this set; keep_rows is false for columns that store no rows.
  virtual value_loader* make_loader(bool keep_rows);
  // Why a text is no value the set takes: what loading it would throw; empty when it is one.
  virtual std::string refusal(char const* text) const;

  bool admits_null() const { return admits_null_; }
  bool contains_null() const { return contains_null_; }
  void set_contains_null(bool c) { contains_null_ = c; }
  std::string const& get_null() const { return null_; }
  std::string const& get_datatype() const { return datatype_; }
  bool is_dt_null() const { return datatype_ == "null"; }
  bool is_dt_numeric() const {
    return datatype_ == "integer" || datatype_ == "uinteger" || datatype_ == "float";
  }
  bool is_null_text(char const* v) const {
    return v[0] == null_[0] && std::strcmp(v, null_.c_str()) == 0;
  }

 protected:
  // Registers the null text; throws when the set does not admit it.
  void insert_null();

  template <class T>
  friend class raw_loader;
  [[noreturn]] void throw_bad_mid(unsigned long i, unsigned long j) const;

  bool contains_null_;
  bool admits_null_;
  std::string null_;
  std::string datatype_;
};

// The value set record of the binary table file (null pointers as the flag 0).
zel::inpout::obinstream& operator<<(zel::inpout::obinstream& out, o_set* s);
zel::inpout::ibinstream& operator>>(zel::inpout::ibinstream& in, o_set*& s);

}  // namespace impls
}  // namespace brix

#endif
