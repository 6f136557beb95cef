// Value sets: the dictionary of one column. The unknown value has order 0 and
// the known values orders 1..k in ascending value order.
#ifndef BRIX_IMPLS_O_SET_H
#define BRIX_IMPLS_O_SET_H

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

namespace zel {
namespace inpout {
class obinstream;
class ibinstream;
}  // namespace inpout
}  // namespace zel

namespace brix {
namespace impls {

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
  [[noreturn]] void throw_bad_mid(unsigned long i, unsigned long j) const;

  bool contains_null_;
  bool admits_null_;
  std::string null_;
  std::string datatype_;
};

}  // namespace impls
}  // namespace brix

#endif
