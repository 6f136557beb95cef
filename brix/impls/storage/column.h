// Columns: one attribute of a table for all rows, stored as the order numbers
// of the values in the column's value set, at the narrowest width that holds
// them. Scoring and partitioning a node's cases on a column is the split
// search's (split_search.h), through the typed readers that visit gives.
#ifndef BRIX_IMPLS_COLUMN_H
#define BRIX_IMPLS_COLUMN_H

#include <cstdint>
#include <iosfwd>
#include <memory>
#include <string>
#include <vector>

#include "brix/impls/storage/o_set.h"
#include "brix/impls/storage/w_sequence.h"
#include "zel/util/pair.h"

namespace brix {
namespace impls {

class id_buffer;

// How a column keeps its rows; hot loops are instantiated once per width.
enum class storage_kind { none, bit, u8, u16, u32, u64 };

// Bytes a row of each storage (an eighth for a bit).
constexpr double storage_bytes(storage_kind k) {
  return k == storage_kind::bit   ? 0.125
         : k == storage_kind::u8  ? 1
         : k == storage_kind::u16 ? 2
         : k == storage_kind::u32 ? 4
         : k == storage_kind::u64 ? 8
                                  : 0;
}

using order_range = zel::util::pair<unsigned long, unsigned long>;

class column {
 public:
  enum _type { DISCRETE = 0, CLASS = 1, CONTINUOUS = 2, WEIGHTS = 3, IGNORE = 4 };

  // Makes the column of a kind keyword over a value set (owned on success);
  // returns null with the reason in error.
  static column* NEW_COLUMN(o_set* values, std::string const& name, std::string const& keyword,
                            std::string& error);
  static bool get_type(std::string const& keyword, _type& kind);
  static bool admits_null(std::string const& keyword);

  column(_type type, std::string const& name, o_set* values);
  column(_type type, std::string const& name, std::shared_ptr<o_set> values);
  column(column const&) = delete;
  column& operator=(column const&) = delete;
  virtual ~column();

  virtual column* clone(bool empty) const;
  // A column of the same kind without rows on this very value set: how a
  // model describes its training table, whose value sets nothing changes
  // once loaded, without a second copy of every distinct value.
  virtual column* share_values() const;
  virtual void reserve(unsigned long n) {}
  virtual unsigned long size() const { return 0; }
  virtual void push_back(char const* value) {}
  virtual unsigned long get_row_index(unsigned long row) const { return 0; }
  virtual bool less_than(unsigned long row1, unsigned long row2) const {
    return get_row_index(row1) < get_row_index(row2);
  }
  virtual void toXML(std::ostream& out) const;
  virtual storage_kind get_storage() const { return storage_kind::none; }
  // The rows of the binary table file; an ignored column stores none. bin_in
  // checks every order against the value set.
  virtual void bin_out(zel::inpout::obinstream& out) const {}
  virtual void bin_in(zel::inpout::ibinstream& in) {}

  _type get_kind() const { return type_; }
  std::string get_type() const;
  std::string const& get_name() const { return name_; }
  o_set* get_o_set() const { return values_.get(); }
  bool is_discrete() const { return type_ == DISCRETE; }
  bool is_class() const { return type_ == CLASS; }
  bool is_continuous() const { return type_ == CONTINUOUS; }
  bool is_weights() const { return type_ == WEIGHTS; }
  bool is_ignore() const { return type_ == IGNORE; }

  std::string get_value(unsigned long row) const { return values_->get_value(get_row_index(row)); }
  std::string get_row_value(unsigned long row) const { return get_value(row); }
  // The order of a value text, or 0 when the value set does not hold it.
  unsigned long get_index(char const* value) const;
  unsigned long get_distinct() const { return values_->size_of_known(); }
  order_range get_range() const;
  std::string find_threshold(unsigned long i, unsigned long j) const;

  // Calls f with a reader (row -> order) matched to the storage width, so that
  // loops over rows are compiled once per width without virtual calls.
  template <class F>
  decltype(auto) visit(F&& f) const;

 protected:
  _type type_;
  std::string name_;
  std::shared_ptr<o_set> values_;
};

// Readers of the stored orders.
template <class T>
struct typed_reader {
  T const* data;
  unsigned long operator()(std::size_t row) const { return data[row]; }
};
struct bit_reader {
  std::uint32_t const* words;
  unsigned long operator()(std::size_t row) const {
    return 1 + ((words[row >> 5] >> (row & 31)) & 1u);
  }
};

// The column record of the binary table file (null pointers as the flag 0).
zel::inpout::obinstream& operator<<(zel::inpout::obinstream& out, column const* c);
zel::inpout::ibinstream& operator>>(zel::inpout::ibinstream& in, column*& c);

}  // namespace impls
}  // namespace brix

#endif
