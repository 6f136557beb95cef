// Value sets of one element type. Insertions go to a hashed list of distinct
// values in order of first appearance; the first lookup sorts them into the
// frozen view that all orders refer to.
#ifndef BRIX_IMPLS_O_SET_TYPED_H
#define BRIX_IMPLS_O_SET_TYPED_H

#include <algorithm>
#include <charconv>
#include <cmath>
#include <limits>
#include <numeric>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "brix/impls/storage/column_typed.h"
#include "brix/impls/storage/o_set.h"
#include "brix/impls/storage/storage_width.h"
#include "zel/adt/hash_index.h"
#include "zel/adt/radix_sort.h"
#include "zel/util/datatype.h"

namespace brix {
namespace impls {

template <class T>
class raw_loader;

template <class T>
class o_set_typed : public o_set {
 public:
  using traits = T;
  using value_type = typename T::value_type;

  o_set_typed(bool admits_null, std::string const& null) : o_set(T::keyword(), admits_null, null) {}

  void insert(char const* value) override { insert_id(value); }

  std::string refusal(char const* text) const override {
    if (is_null_text(text)) return o_set::refusal(text);
    try {
      T::parse(text);
    } catch (std::runtime_error const& e) {
      return e.what();
    }
    return "";
  }

  unsigned long size_of_known() const override {
    return frozen_ ? sorted_.size() : pending_.size();
  }

  bool get_order(char const* value, unsigned long& order) override {
    freeze();
    if (is_null_text(value)) {
      if (!contains_null_) return false;
      order = 0;
      return true;
    }
    return find_order(T::parse(value), order);
  }

  // Binary search in the frozen view (which must be current).
  bool find_order(value_type const& v, unsigned long& order) const {
    auto it = std::lower_bound(sorted_.begin(), sorted_.end(), v, less_fn());
    if (it == sorted_.end() || T::less(v, *it)) return false;
    order = static_cast<unsigned long>(it - sorted_.begin()) + 1;
    return true;
  }

  std::string get_value(unsigned long order) override {
    freeze();
    if (order == 0) return null_;
    if (order > sorted_.size()) {
      throw std::runtime_error("[o_set::get_value()] called for a non-existing element " +
                               std::to_string(order));
    }
    return T::print(sorted_[order - 1]);
  }

  // The value of a known order, frozen view current.
  value_type const& value_at(unsigned long order) const { return sorted_[order - 1]; }

  o_set* clone() const override {
    auto* c = new o_set_typed<T>(admits_null_, null_);
    c->contains_null_ = contains_null_;
    c->pending_ = pending_;
    c->sorted_ = sorted_;
    c->frozen_ = frozen_;
    c->rebuild_index();
    return c;
  }

  int leq(std::string const& a, std::string const& b) const override {
    if (a == null_ || b == null_) return -1;
    return T::less(T::parse(b.c_str()), T::parse(a.c_str())) ? 1 : 0;
  }

  int leq(unsigned long order, std::string const& value) override {
    freeze();
    if (order == 0 || value == null_) return -1;
    if (order > sorted_.size()) {
      throw std::runtime_error("[o_set::leq()] called for a non-existing element " +
                               std::to_string(order));
    }
    return T::less(T::parse(value.c_str()), sorted_[order - 1]) ? 1 : 0;
  }

  std::string find_mid(unsigned long i, unsigned long j) override {
    freeze();
    unsigned long k = sorted_.size();
    if (i == 0 || j == 0 || i - 1 >= k || j - 1 >= k || i > j) throw_bad_mid(i, j);
    return mid_text(i, j);
  }

  std::uint32_t insert_id(char const* value) override {
    if (is_null_text(value)) {
      insert_null();
      return 0;
    }
    return add(T::parse(value)) + 1;
  }

  void freeze_remap(std::vector<std::uint32_t>& remap) override {
    if (frozen_) {
      remap.assign(sorted_.size() + 1, 0);
      for (std::size_t i = 0; i < sorted_.size(); ++i)
        remap[i + 1] = static_cast<std::uint32_t>(i + 1);
      return;
    }
    remap.assign(pending_.size() + 1, 0);
    sort_pending(&remap);
  }

  void freeze() override {
    if (!frozen_) sort_pending(nullptr);
  }

  value_loader* make_loader(bool keep_rows) override;

  // Typed access for the binary formats.
  std::vector<value_type> const& sorted_values() {
    freeze();
    return sorted_;
  }
  void set_sorted_values(std::vector<value_type> values) {
    pending_.clear();
    index_.clear();
    sorted_ = std::move(values);
    frozen_ = true;
  }
  // Defined with the binary table format.
  void bin_out(zel::inpout::obinstream& out) override;
  void bin_in(zel::inpout::ibinstream& in) override;

 private:
  struct less_fn {
    bool operator()(value_type const& a, value_type const& b) const { return T::less(a, b); }
  };

  // The text of the threshold between orders i and j: the largest known value
  // of the stretch that is not above their midpoint.
  std::string mid_text(unsigned long i, unsigned long j) const {
    if constexpr (std::is_same<value_type, std::string>::value) {
      throw std::runtime_error("mid_value() is undefined on type datatype_string");
    } else {
      value_type lo = sorted_[i - 1], hi = sorted_[j - 1];
      if (T::less(hi, lo)) std::swap(lo, hi);
      value_type mid = T::mid(lo, hi);
      auto first = sorted_.begin() + static_cast<long>(i - 1);
      auto last = sorted_.begin() + static_cast<long>(j);
      auto it = std::upper_bound(first, last, mid, less_fn());
      if (it != first) --it;
      return T::print(*it);
    }
  }

  void thaw() {
    pending_.swap(sorted_);
    sorted_.clear();
    sorted_.shrink_to_fit();
    rebuild_index();
    frozen_ = false;
  }

  void rebuild_index() {
    index_.clear();
    for (std::uint32_t id = 0; id < pending_.size(); ++id)
      register_value(pending_[id], id);
  }

  template <class V>
  std::uint32_t register_value(V const& v, std::uint32_t next) {
    if constexpr (std::is_arithmetic<value_type>::value) {
      return index_.find_or_add(v, T::hash(v), next, [](value_type k) { return T::hash(k); });
    } else {
      return index_.find_or_add(
          T::hash(v), [&](std::uint32_t k) { return T::equal(pending_[k], v); }, next,
          [this](std::uint32_t k) { return hash_of_id(k); });
    }
  }

  std::uint64_t hash_of_id(std::uint32_t id) const { return T::hash(pending_[id]); }

  // Returns the provisional index (0-based) of a known value.
  template <class V>
  std::uint32_t add(V const& v) {
    if (frozen_) {
      if (!sorted_.empty()) thaw();
      frozen_ = false;
    }
    if (pending_.size() >= 0xFFFFFFFEu) throw std::runtime_error("too many distinct values");
    std::uint32_t next = static_cast<std::uint32_t>(pending_.size());
    std::uint32_t id = register_value(v, next);
    if (id == next) pending_.emplace_back(v);
    return id;
  }

  // Sorts the pending values into the frozen view; optionally records, for
  // every provisional id, the order it received.
  void sort_pending(std::vector<std::uint32_t>* remap) {
    std::size_t n = pending_.size();
    std::vector<std::uint32_t> ids(n);
    std::iota(ids.begin(), ids.end(), 0u);
    if constexpr (std::is_arithmetic<value_type>::value) {
      zel::adt::radix_sort_by_key(ids, pending_);
    } else {
      std::sort(ids.begin(), ids.end(), [this](std::uint32_t a, std::uint32_t b) {
        return T::less(pending_[a], pending_[b]);
      });
    }
    std::vector<value_type> sorted;
    sorted.reserve(n);
    for (std::size_t p = 0; p < n; ++p) {
      sorted.push_back(std::move(pending_[ids[p]]));
      if (remap) (*remap)[ids[p] + 1] = static_cast<std::uint32_t>(p + 1);
    }
    sorted_.swap(sorted);
    std::vector<value_type>().swap(pending_);
    index_.clear();
    frozen_ = true;
  }

  friend class raw_loader<T>;

  // Numbers sit in the index itself; strings stay in pending_ only.
  using index_type = std::conditional_t<std::is_arithmetic<value_type>::value,
                                        zel::adt::value_index<value_type>, zel::adt::hash_index>;

  std::vector<value_type> pending_;
  index_type index_;
  std::vector<value_type> sorted_;
  bool frozen_ = true;
};

// Numbers are first registered by id like any value; once a column shows
// more distinct values than 16-bit ids can hold, the ids become the values
// themselves (raw bits, one per row) and the set stops hashing: a column of
// mostly distinct numbers then costs one append per row and a radix sort at
// the end, and no hash table of a million entries.
template <class T>
class raw_loader : public value_loader {
  using V = typename T::value_type;
  using raw_t = std::conditional_t<sizeof(V) == 4, std::uint32_t, std::uint64_t>;

 public:
  raw_loader(o_set_typed<T>* set, bool keep_rows) : set_(set), keep_(keep_rows) {}

  void add(char const* text) override {
    if (set_->is_null_text(text)) {
      add_unknown();
      return;
    }
    recent_texts::slot* seen = raw_mode_ ? nullptr : recent_.find(text);
    if (seen != nullptr && seen->id != 0) {
      ++rows_;
      if (keep_) ids_.push_back(seen->id);
      return;
    }
    std::uint32_t id = add_value(T::parse(text));
    if (seen != nullptr && !raw_mode_) seen->id = id;
  }

  void add_number(double x, bool known) override {
    if (!known || std::isnan(x)) {
      add_unknown();
      return;
    }
    if constexpr (std::is_integral<V>::value) {
      if (x != std::floor(x) || !(x >= static_cast<double>(std::numeric_limits<V>::min())) ||
          !(x <= static_cast<double>(std::numeric_limits<V>::max())))
        throw std::runtime_error(number_text(x) + ": not a value of type " + T::keyword());
    }
    add_value(static_cast<V>(x));
  }

 private:
  static std::string number_text(double x) {
    char buf[64];
    auto r = std::to_chars(buf, buf + sizeof buf, x);
    return std::string(buf, r.ptr);
  }

  void add_unknown() {
    set_->insert_null();
    if (raw_mode_) {
      if (keep_) {
        nulls_.push_back(rows_);
        raw_.push_back(0);
      }
    } else if (keep_) {
      ids_.push_back(0);
    }
    ++rows_;
  }

  // The row's id (from 1) while rows are registered by id.
  std::uint32_t add_value(V v) {
    ++rows_;
    if (raw_mode_) {
      raw_.push_back(to_raw(v));
      return 0;
    }
    std::uint32_t id = set_->add(v) + 1;
    if (keep_) ids_.push_back(id);
    if (set_->pending_.size() > kIdLimit &&
        (sizeof(V) == 4 || !keep_ || set_->pending_.size() * 10 > rows_)) {
      to_raw_mode();
    }
    return id;
  }

 public:
  void index() override {
    if (!raw_mode_) {
      set_->freeze_remap(remap_);
      return;
    }
    sort_raw();
  }

  void attach(column* target) override {
    if (!keep_) return;
    if (!raw_mode_) {
      filler_.reset(new column_filler(target, ids_, remap_));
      return;
    }
    // Raw mode begins past the 16-bit limit: the column keeps 32-bit orders.
    auto* typed = static_cast<column_typed<std::uint32_t>*>(target);
    if constexpr (sizeof(raw_t) == 4) {
      typed->rows().swap(raw_);
    } else {
      typed->rows().swap(orders_);
    }
  }

  void fill(std::size_t from, std::size_t to) override {
    if (filler_) filler_->fill(from, to);
  }

 private:
  // Past the 16-bit limit ids would widen to 32 bits: sorting raw values is cheaper.
  static constexpr std::size_t kIdLimit = width_limit(2);
  static_assert(width_for(kIdLimit + 1) == 4, "raw mode hands over 32-bit orders");

  static raw_t to_raw(V v) {
    raw_t r;
    std::memcpy(&r, &v, sizeof r);
    return r;
  }
  static V from_raw(raw_t r) {
    V v;
    std::memcpy(&v, &r, sizeof v);
    return v;
  }
  // Keys that sort like the values; the two zeros of floating types are one.
  static auto key_of(raw_t r) {
    V v = from_raw(r);
    if constexpr (std::is_floating_point<V>::value) {
      if (v == 0) v = 0;
    }
    return zel::adt::detail::sortable_bits(v);
  }

  void to_raw_mode() {
    if (keep_) {
      raw_.reserve(rows_);
      auto convert = [&](auto const& ids) {
        for (std::size_t r = 0; r < ids.size(); ++r) {
          std::uint32_t id = ids[r];
          if (id == 0) nulls_.push_back(r);
          raw_.push_back(id == 0 ? 0 : to_raw(set_->pending_[id - 1]));
        }
      };
      ids_.visit(convert);
      ids_ = id_buffer();
    } else {
      // Only the distinct values matter for a column that stores no rows.
      for (V const& v : set_->pending_)
        raw_.push_back(to_raw(v));
    }
    std::vector<V>().swap(set_->pending_);
    set_->index_.clear();
    raw_mode_ = true;
  }

  // Sorts the rows by value (stable, so the first row of each value gives
  // the value kept), numbers the distinct values and writes each row's order.
  void sort_raw() {
    using key_t = decltype(key_of(raw_t()));
    struct item {
      key_t key;
      std::uint32_t row;
    };
    std::vector<item> items;
    items.reserve(raw_.size() - nulls_.size());
    std::size_t next_null = 0;
    for (std::size_t r = 0; r < raw_.size(); ++r) {
      if (next_null < nulls_.size() && nulls_[next_null] == r) {
        ++next_null;
        continue;
      }
      items.push_back(item{key_of(raw_[r]), static_cast<std::uint32_t>(r)});
    }
    zel::adt::lsd_radix(items, sizeof(key_t), [](item const& x) { return x.key; });
    std::vector<V> values;
    if constexpr (sizeof(raw_t) != 4) orders_.assign(raw_.size(), 0);
    std::uint32_t order = 0;
    for (std::size_t i = 0; i < items.size(); ++i) {
      if (i == 0 || items[i].key != items[i - 1].key) {
        values.push_back(from_raw(raw_[items[i].row]));
        ++order;
      }
      if constexpr (sizeof(raw_t) == 4) {
        raw_[items[i].row] = order;
      } else {
        orders_[items[i].row] = order;
      }
    }
    for (std::size_t r : nulls_) {
      if constexpr (sizeof(raw_t) == 4) raw_[r] = 0;
    }
    std::vector<item>().swap(items);
    set_->set_sorted_values(std::move(values));
    if constexpr (sizeof(raw_t) != 4) std::vector<raw_t>().swap(raw_);
  }

  recent_texts recent_;
  o_set_typed<T>* set_;
  bool keep_;
  bool raw_mode_ = false;
  std::size_t rows_ = 0;
  id_buffer ids_;
  std::vector<std::uint32_t> remap_;
  std::unique_ptr<column_filler> filler_;
  std::vector<raw_t> raw_;             // raw mode: the value of every row
  std::vector<std::uint32_t> orders_;  // raw mode, 64-bit values: the orders
  std::vector<std::size_t> nulls_;     // raw mode: rows holding the null text
};

template <class T>
value_loader* o_set_typed<T>::make_loader(bool keep_rows) {
  if constexpr (std::is_arithmetic<value_type>::value) {
    return new raw_loader<T>(this, keep_rows);
  } else {
    return new id_loader(this, keep_rows);
  }
}

// Insertion of text into a string set looks the text up without copying it.
template <>
inline std::uint32_t o_set_typed<zel::data_types::datatype<std::string>>::insert_id(
    char const* value) {
  if (is_null_text(value)) {
    insert_null();
    return 0;
  }
  return add(std::string_view(value)) + 1;
}

using o_set_int = o_set_typed<zel::data_types::datatype<int>>;
using o_set_uint = o_set_typed<zel::data_types::datatype<unsigned long>>;
using o_set_float = o_set_typed<zel::data_types::datatype<float>>;
using o_set_double = o_set_typed<zel::data_types::datatype<double>>;
using o_set_string = o_set_typed<zel::data_types::datatype<std::string>>;

}  // namespace impls
}  // namespace brix

#endif
