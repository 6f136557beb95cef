// The binary table file: value sets, columns and the table record. Writers
// put the items down as they are kept in memory; readers trust nothing and
// check every count and order that later code would index with.
#include <algorithm>
#include <cstdint>
#include <cstring>
#include <limits>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "brix/impls/storage/binary_checks.h"
#include "brix/impls/storage/column_typed.h"
#include "brix/impls/storage/o_set_typed.h"
#include "brix/impls/storage/table.h"
#include "zel/inpout/binstream.h"

namespace brix {
namespace impls {

using zel::inpout::ibinstream;
using zel::inpout::obinstream;

namespace {

constexpr char kKind[] = "Binary table";
using checks = binary_checks<kKind>;

// Loading stores row numbers in 32 bits and stops one below the largest.
constexpr std::uint64_t kMaxRows = 0xFFFFFFFEull;

// Elements that are items of their own are added as they arrive, so that a
// count no file backs ends at the first short read instead of allocating.
// in_order(previous, item) is asked of every item after the first as it arrives, so that a
// long run of equal items (cheap to compress) is refused at its second item.
template <class T, class InOrder>
void read_items(ibinstream& in, std::vector<T>& v, InOrder in_order) {
  std::uint64_t n = checks::read_count(in);
  v.clear();
  for (std::uint64_t i = 0; i < n; ++i) {
    T item{};
    in >> item;
    checks::check(in);
    if (!v.empty() && !in_order(v.back(), item)) return;
    v.push_back(std::move(item));
  }
}

// Orders stored in a column must name a value of its set: 1..k, or 0 when
// the set holds the unknown value.
void check_order_bounds(column const& c, unsigned long max, bool zero) {
  o_set const* s = c.get_o_set();
  if (max > s->size_of_known() || (zero && !s->contains_null())) {
    checks::damaged("column '" + c.get_name() +
                    "' holds a value order its value set does not have");
  }
}

}  // namespace

// ---------------------------------------------------------------- value sets

void o_set::bin_out(obinstream& out) {
  out << static_cast<unsigned char>(0);
}

void o_set::bin_in(ibinstream& in) {
  if (checks::read_flag(in)) checks::damaged("the null value set holds values");
}

template <class T>
void o_set_typed<T>::bin_out(obinstream& out) {
  out << &sorted_values();
}

template <class T>
void o_set_typed<T>::bin_in(ibinstream& in) {
  std::vector<value_type> values;
  if (checks::read_flag(in)) {
    if constexpr (std::is_arithmetic<value_type>::value) {
      in >> values;
      checks::check(in);
    } else {
      read_items(in, values, [this](value_type const& a, value_type const& b) {
        if (!T::less(a, b)) checks::damaged("value set of type " + datatype_ + " not in order");
        return true;
      });
    }
  }
  // Orders are positions in this view, found by binary search: ascending
  // and distinct, which also keeps NaN out.
  for (std::size_t i = 1; i < values.size(); ++i) {
    if (!T::less(values[i - 1], values[i]))
      checks::damaged("value set of type " + datatype_ + " not in order");
  }
  set_sorted_values(std::move(values));
}

template void o_set_typed<zel::data_types::datatype<int>>::bin_out(obinstream&);
template void o_set_typed<zel::data_types::datatype<int>>::bin_in(ibinstream&);
template void o_set_typed<zel::data_types::datatype<unsigned long>>::bin_out(obinstream&);
template void o_set_typed<zel::data_types::datatype<unsigned long>>::bin_in(ibinstream&);
template void o_set_typed<zel::data_types::datatype<float>>::bin_out(obinstream&);
template void o_set_typed<zel::data_types::datatype<float>>::bin_in(ibinstream&);
template void o_set_typed<zel::data_types::datatype<double>>::bin_out(obinstream&);
template void o_set_typed<zel::data_types::datatype<double>>::bin_in(ibinstream&);
template void o_set_typed<zel::data_types::datatype<std::string>>::bin_out(obinstream&);
template void o_set_typed<zel::data_types::datatype<std::string>>::bin_in(ibinstream&);

obinstream& operator<<(obinstream& out, o_set* s) {
  if (s == nullptr) return out << static_cast<unsigned char>(0);
  out << static_cast<unsigned char>(1) << s->get_datatype() << s->admits_null()
      << s->contains_null() << s->get_null();
  s->bin_out(out);
  return out;
}

ibinstream& operator>>(ibinstream& in, o_set*& s) {
  s = nullptr;
  if (!checks::read_flag(in)) return in;
  std::string type, null;
  bool admits = false, contains = false;
  in >> type >> admits >> contains >> null;
  checks::check(in);
  std::unique_ptr<o_set> set;
  try {
    set.reset(o_set::NEW_O_SET(type, admits, null));
  } catch (std::exception const&) {
    throw std::runtime_error("Failed to create object");
  }
  if (contains && !admits) checks::damaged("value set holds an unknown value it does not admit");
  set->set_contains_null(contains);
  set->bin_in(in);
  s = set.release();
  return in;
}

// ---------------------------------------------------------------- columns

template <class T>
void column_typed<T>::bin_out(obinstream& out) const {
  out << rows_;
}

template <class T>
void column_typed<T>::bin_in(ibinstream& in) {
  in >> rows_;
  checks::check(in);
  // Smallest and largest in a pass the compiler vectorizes; a zero is a smallest of 0.
  T max = 0, min = std::numeric_limits<T>::max();
  for (T v : rows_) {
    max = std::max(max, v);
    min = std::min(min, v);
  }
  check_order_bounds(*this, max, min == 0);
}

template void column_typed<std::uint8_t>::bin_out(obinstream&) const;
template void column_typed<std::uint8_t>::bin_in(ibinstream&);
template void column_typed<std::uint16_t>::bin_out(obinstream&) const;
template void column_typed<std::uint16_t>::bin_in(ibinstream&);
template void column_typed<std::uint32_t>::bin_out(obinstream&) const;
template void column_typed<std::uint32_t>::bin_in(ibinstream&);
template void column_typed<unsigned long long>::bin_out(obinstream&) const;
template void column_typed<unsigned long long>::bin_in(ibinstream&);

void column_bool::bin_out(obinstream& out) const {
  out << static_cast<std::uint64_t>(bits_.size());
  out.write_array(bits_.words(), bits_.word_count());
}

void column_bool::bin_in(ibinstream& in) {
  std::uint64_t n = checks::read_count(in);
  if (n > kMaxRows) checks::damaged("column '" + name_ + "' has too many rows");
  // The words arrive into a vector that grows with them; the bitmap is
  // sized once they are all there.
  std::uint64_t count = zel::adt::bitmap::words_for(n), done = 0;
  std::vector<std::uint32_t> words;
  while (done < count) {
    std::uint64_t k = std::min<std::uint64_t>(count - done, 1u << 18);
    words.resize(done + k);
    in.read_array(words.data() + done, k);
    checks::check(in);
    done += k;
  }
  // Bits past the last row stay clear, as a loaded column keeps them.
  if (n % 32 != 0) words.back() &= (std::uint32_t(1) << (n % 32)) - 1;
  bool any = false;
  for (std::uint32_t w : words)
    any |= w != 0;
  check_order_bounds(*this, n == 0 ? 0 : any ? 2 : 1, false);
  zel::adt::bitmap bits;
  bits.resize(n);
  if (count > 0) std::memcpy(bits.words(), words.data(), count * sizeof(std::uint32_t));
  bits_ = std::move(bits);
}

obinstream& operator<<(obinstream& out, column const* c) {
  if (c == nullptr) return out << static_cast<unsigned char>(0);
  out << static_cast<unsigned char>(1) << c->get_o_set() << c->get_name() << c->get_type();
  c->bin_out(out);
  return out;
}

ibinstream& operator>>(ibinstream& in, column*& c) {
  c = nullptr;
  if (!checks::read_flag(in)) return in;
  o_set* raw = nullptr;
  in >> raw;
  std::unique_ptr<o_set> values(raw);
  std::string name, kind, error;
  in >> name >> kind;
  checks::check(in);
  std::unique_ptr<column> col(column::NEW_COLUMN(values.get(), name, kind, error));
  if (!col) throw std::runtime_error("Failed to create object");
  values.release();
  col->bin_in(in);
  c = col.release();
  return in;
}

// ---------------------------------------------------------------- tables

obinstream& operator<<(obinstream& out, table const* t) {
  if (t == nullptr) return out << static_cast<unsigned char>(0);
  auto list = [&] {
    out << static_cast<std::uint64_t>(t->get_no_columns());
    for (unsigned long i = 0; i < t->get_no_columns(); ++i) {
      out << static_cast<column const*>(t->get_column(i));
    }
  };
  out << static_cast<unsigned char>(1) << t->get_name();
  list();
  out << static_cast<std::uint64_t>(t->get_class_index());
  // The list goes out twice; readers keep the second copy.
  list();
  out << static_cast<std::uint64_t>(t->get_no_rows())
      << static_cast<std::uint64_t>(t->get_verbosity()) << t->is_for_tree()
      << static_cast<std::uint64_t>(t->get_weights_index())
      << static_cast<std::uint64_t>(t->get_loaded_columns())
      << static_cast<std::uint64_t>(t->get_file_counter());
  return out;
}

namespace {

column* read_column(ibinstream& in) {
  column* c = nullptr;
  in >> c;
  if (c == nullptr) checks::damaged("column missing");
  return c;
}

// Everything later code indexes with: row counts, class and weights.
void validate(table& t, std::uint64_t class_index, std::uint64_t weights_index) {
  unsigned long loaded = t.get_loaded_columns(), n = t.get_no_columns();
  if (loaded > n) checks::damaged("more loaded columns than columns");
  if (t.get_no_rows() > kMaxRows) checks::damaged("too many rows");
  for (unsigned long i = 0; i < n; ++i) {
    column const* c = t.get_column(i);
    unsigned long want = i < loaded && !c->is_ignore() ? t.get_no_rows() : 0;
    if (c->size() != want)
      checks::damaged("column '" + c->get_name() + "' does not hold the table's rows");
  }
  if (loaded == 0 && t.get_no_rows() != 0) checks::damaged("rows without loaded columns");
  // Without the tree rules the check only marks class and weights as none.
  if (t.is_for_tree() && loaded == 0) return;
  std::string error;
  if (!t.consistency_check(loaded, error)) checks::damaged(error);
  // Indexes at or past the loaded columns all mean "none".
  auto same = [loaded](std::uint64_t stored, unsigned long found) {
    return found < loaded ? stored == found : stored >= loaded;
  };
  if (!same(class_index, t.get_class_index()) || !same(weights_index, t.get_weights_index())) {
    checks::damaged("class or weights column index does not match the columns");
  }
}

}  // namespace

ibinstream& operator>>(ibinstream& in, table*& out) {
  out = nullptr;
  if (!checks::read_flag(in)) return in;
  std::unique_ptr<table> t(new table("", true));
  std::string name;
  in >> name;
  checks::check(in);
  t->set_name(name);

  // The first copy of the column list is read, checked and dropped.
  std::uint64_t first = checks::read_count(in);
  for (std::uint64_t i = 0; i < first; ++i)
    delete read_column(in);
  std::uint64_t class_index = checks::read_count(in);
  std::uint64_t second = checks::read_count(in);
  if (second != first) checks::damaged("the two column lists differ");
  std::vector<column*>& columns = t->columns();
  for (std::uint64_t i = 0; i < second; ++i)
    columns.push_back(read_column(in));

  std::uint64_t rows = 0, verbosity = 0, weights_index = 0, loaded = 0, counter = 0;
  bool for_tree = true;
  in >> rows >> verbosity >> for_tree >> weights_index >> loaded >> counter;
  checks::check(in);
  if (loaded > columns.size()) checks::damaged("more loaded columns than columns");
  t->set_state(rows, loaded, class_index, weights_index, verbosity, for_tree);
  t->set_file_counter(counter);
  validate(*t, class_index, weights_index);
  out = t.release();
  return in;
}

}  // namespace impls
}  // namespace brix
