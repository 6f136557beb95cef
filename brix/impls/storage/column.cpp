#include "brix/impls/storage/column.h"

#include <algorithm>
#include <ostream>
#include <stdexcept>

#include "brix/impls/storage/column_typed.h"
#include "brix/impls/storage/storage_width.h"

namespace brix {
namespace impls {

namespace {
char const* const kKeywords[] = {"discrete", "class", "continuous", "weights", "ignore"};
}

bool column::get_type(std::string const& keyword, _type& kind) {
  for (int k = 0; k < 5; ++k) {
    if (keyword == kKeywords[k]) {
      kind = static_cast<_type>(k);
      return true;
    }
  }
  return false;
}

bool column::admits_null(std::string const& keyword) {
  return keyword != "class" && keyword != "weights";
}

std::string column::get_type() const {
  int k = static_cast<int>(type_);
  return (k >= 0 && k < 5) ? kKeywords[k] : "unspecified";
}

column* column::NEW_COLUMN(o_set* values, std::string const& name, std::string const& keyword,
                           std::string& error) {
  if (values == nullptr) {
    error = "No set of values provided";
    return nullptr;
  }
  _type kind;
  if (!get_type(keyword, kind)) {
    error = "Unknown column type: " + keyword;
    return nullptr;
  }
  bool numeric = values->is_dt_numeric();
  // Doubles are not numeric to .names files (table::load_meta_data refuses them there), but the
  // CSV and ARFF readers make continuous double columns when asked to keep values exact.
  if (kind == CONTINUOUS && !numeric && values->get_datatype() != "double") {
    error = "Continuous column '" + name + "' requires a numeric data type";
    return nullptr;
  }
  if (kind == WEIGHTS && !numeric) {
    error = "Weights column '" + name + "' requires a non-negative numeric data type";
    return nullptr;
  }
  if (kind == WEIGHTS && values->contains_null()) {
    error = "Weights column '" + name + "' does not admit unknown values";
    return nullptr;
  }
  if (kind == CLASS && values->contains_null()) {
    error = "Class column '" + name + "' does not admit unknown values";
    return nullptr;
  }
  if (values->is_dt_null() && kind != IGNORE) {
    error = "Null set of column values can only be used for ignore column type";
    return nullptr;
  }
  if ((kind == CLASS || kind == WEIGHTS) && values->contains_null()) {
    error = "Column type " + keyword + " does not admit unknown values";
    return nullptr;
  }
  if (kind == IGNORE) return new column(kind, name, values);
  unsigned long k = values->size_of_known();
  if (k <= 2 && kind == DISCRETE && !values->contains_null())
    return new column_bool(kind, name, values);
  switch (width_for(k)) {
    case 1:
      return new column_typed<std::uint8_t>(kind, name, values);
    case 2:
      return new column_typed<std::uint16_t>(kind, name, values);
    case 4:
      return new column_typed<std::uint32_t>(kind, name, values);
    default:
      return new column_typed<unsigned long long>(kind, name, values);
  }
}

column::column(_type type, std::string const& name, o_set* values)
    : type_(type), name_(name), values_(values) {}

column::column(_type type, std::string const& name, std::shared_ptr<o_set> values)
    : type_(type), name_(name), values_(std::move(values)) {}

column::~column() = default;

column* column::clone(bool) const {
  return new column(type_, name_, values_->clone());
}

column* column::share_values() const {
  return new column(type_, name_, values_);
}

void column::toXML(std::ostream& out) const {
  out << "<WARNING value=\"XML output not implemented\" />";
}

unsigned long column::get_index(char const* value) const {
  unsigned long order = 0;
  return values_->get_order(value, order) ? order : 0;
}

order_range column::get_range() const {
  unsigned long k = values_->size_of_known();
  return k == 0 ? order_range(0, 0) : order_range(1, k + 1);
}

std::string column::find_threshold(unsigned long i, unsigned long j) const {
  return is_continuous() ? values_->find_mid(i, j) : values_->get_null();
}

column* column_bool::clone(bool empty) const {
  auto* c = new column_bool(type_, name_, values_->clone());
  if (!empty) c->bits_ = bits_;
  return c;
}

column* column_bool::share_values() const {
  return new column_bool(type_, name_, values_);
}

void column_bool::push_back(char const* value) {
  unsigned long order;
  if (!values_->get_order(value, order)) {
    throw std::runtime_error("[column::push_back] index not found for value '" +
                             std::string(value) + "'");
  }
  bits_.push_back(order == 2);
}

column_filler::column_filler(column* target, id_buffer& ids,
                             std::vector<std::uint32_t> const& remap)
    : target_(target), ids_(ids), remap_(remap.data()), remap_size_(remap.size()) {
  switch (target->get_storage()) {
    case storage_kind::u8:
      adopt(static_cast<column_typed<std::uint8_t>*>(target)->rows());
      break;
    case storage_kind::u16:
      adopt(static_cast<column_typed<std::uint16_t>*>(target)->rows());
      break;
    case storage_kind::u32:
      adopt(static_cast<column_typed<std::uint32_t>*>(target)->rows());
      break;
    case storage_kind::u64:
      adopt(static_cast<column_typed<unsigned long long>*>(target)->rows());
      break;
    case storage_kind::bit:
      static_cast<column_bool*>(target)->bits().reserve(ids.size());
      break;
    default:
      break;
  }
}

// Takes the ids as the column's rows: by a swap when the widths agree, which
// the id buffer's widening rule makes the normal case.
template <class T>
void column_filler::adopt(std::vector<T>& rows) {
  auto take = [&rows](auto& ids) {
    using U = typename std::decay_t<decltype(ids)>::value_type;
    if constexpr (std::is_same<U, T>::value) {
      rows.swap(ids);
    } else {
      rows.assign(ids.begin(), ids.end());
      std::decay_t<decltype(ids)>().swap(ids);
    }
  };
  ids_.visit(take);
  rows_ = &rows;
}

void column_filler::fill(std::size_t from, std::size_t to) {
  auto remap_in_place = [&](auto* rows) {
    auto* d = rows->data();
    for (std::size_t i = from; i < to; ++i)
      d[i] = static_cast<std::remove_reference_t<decltype(*d)>>(remap_[d[i]]);
  };
  switch (target_->get_storage()) {
    case storage_kind::u8:
      remap_in_place(static_cast<std::vector<std::uint8_t>*>(rows_));
      break;
    case storage_kind::u16:
      remap_in_place(static_cast<std::vector<std::uint16_t>*>(rows_));
      break;
    case storage_kind::u32:
      remap_in_place(static_cast<std::vector<std::uint32_t>*>(rows_));
      break;
    case storage_kind::u64:
      remap_in_place(static_cast<std::vector<unsigned long long>*>(rows_));
      break;
    case storage_kind::bit: {
      // Two known values without unknowns: the ids are bytes.
      zel::adt::bitmap& bits = static_cast<column_bool*>(target_)->bits();
      std::uint8_t const* ids = ids_.u8().data();
      std::size_t base = bits.size(), end = base + (to - from);
      if (end > bits.capacity()) bits.reserve(std::max(end, bits.capacity() + bits.capacity() / 2));
      bits.resize(end);  // fresh bits read 0: only the second value's are set
      // The ids are 1 and 2; each row's bit is whether its id maps to the second value. A
      // load may have met only one of the two values, so the remap can stop at id 1.
      auto second = [this](std::size_t id) {
        return id < remap_size_ && remap_[id] == 2 ? 1u : 0u;
      };
      std::uint32_t const hit[3] = {0, second(1), second(2)};
      std::uint32_t* words = bits.words();
      std::size_t i = from, b = base;
      for (; i < to && (b & 31) != 0; ++i, ++b)
        words[b >> 5] |= hit[ids[i]] << (b & 31);
      for (; to - i >= 32; i += 32, b += 32) {  // a word at a time, built in a register
        std::uint32_t w = 0;
        for (unsigned k = 0; k < 32; ++k)
          w |= hit[ids[i + k]] << k;
        words[b >> 5] = w;
      }
      for (; i < to; ++i, ++b)
        words[b >> 5] |= hit[ids[i]] << (b & 31);
      if (to == ids_.size()) std::vector<std::uint8_t>().swap(ids_.u8());
      break;
    }
    default:
      break;
  }
}

}  // namespace impls
}  // namespace brix
