#include "brix/impls/column.h"

#include <algorithm>
#include <ostream>
#include <stdexcept>

#include "brix/impls/column_typed.h"
#include "brix/impls/storage_width.h"

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
  if (kind == CONTINUOUS && !numeric) {
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

column::~column() {
  delete values_;
}

column* column::clone(bool) const {
  return new column(type_, name_, values_->clone());
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

void column::splitting_desc::set_partition_desc(partition_desc& desc) const {
  desc.threshold = att->find_threshold(low, high);
  desc.branches = branches;
}

namespace {

[[noreturn]] void throw_no_partition(column const& c) {
  throw std::runtime_error("[column::partition] method not defined for column type '" +
                           c.get_type() + "'");
}

// Orders of the father's cases, read once in the first pass and reused in
// the second, so the column is read in row order only once per split.
thread_local std::vector<std::uint32_t> partition_keys;

// The two passes over the father's cases for a discrete split: per-branch
// sums in case order, then each case copied to its branch and every unknown
// one to all branches with the branch's share of its weight.
template <class Reader>
void partition_discrete(Reader rd, w_case const* begin, w_case const* end, float total_weight,
                        std::vector<w_sequence*>& children, std::vector<float>& shares,
                        std::vector<order_range>& ranges) {
  std::size_t k = children.size();
  std::vector<float> wv(k + 1, 0.0f);
  std::vector<std::size_t> count(k + 1, 0);
  std::vector<std::uint32_t>& keys = partition_keys;
  keys.resize(static_cast<std::size_t>(end - begin));
  for (w_case const* c = begin; c != end; ++c) {
    auto a = static_cast<std::uint32_t>(rd(c->first));
    keys[static_cast<std::size_t>(c - begin)] = a;
    wv[a] += c->second;
    ++count[a];
  }
  float known = total_weight - wv[0];
  for (std::size_t v = 1; v <= k; ++v) {
    shares[v - 1] = wv[v] / known;
    ranges[v - 1] = order_range(v, v + 1);
    children[v - 1]->reserve(count[v] + count[0]);
  }
  for (w_case const* c = begin; c != end; ++c) {
    std::uint32_t a = keys[static_cast<std::size_t>(c - begin)];
    if (a != 0) {
      children[a - 1]->cases().push_back(*c);
    } else {
      for (std::size_t v = 0; v < k; ++v) {
        children[v]->cases().push_back(w_case{c->first, shares[v] * c->second});
      }
    }
  }
}

// Continuous split at threshold order t: branch 1 takes orders up to t and,
// deliberately, counts the unknown cases in its own weight too.
template <class Reader>
void partition_continuous(Reader rd, unsigned long t, w_case const* begin, w_case const* end,
                          float total_weight, std::vector<w_sequence*>& children,
                          std::vector<float>& shares, std::vector<order_range>& ranges) {
  float w1 = 0.0f, w2 = 0.0f, wu = 0.0f;
  std::size_t n1 = 0, n2 = 0, nu = 0;
  std::vector<std::uint32_t>& keys = partition_keys;
  keys.resize(static_cast<std::size_t>(end - begin));
  for (w_case const* c = begin; c != end; ++c) {
    unsigned long a = rd(c->first);
    keys[static_cast<std::size_t>(c - begin)] = static_cast<std::uint32_t>(a);
    if (a <= t) {
      w1 += c->second;
      ++n1;
    } else {
      w2 += c->second;
      ++n2;
    }
    if (a == 0) {
      wu += c->second;
      ++nu;
    }
  }
  shares[0] = w1 / total_weight;
  shares[1] = w2 / (total_weight - wu);
  children[0]->reserve(n1);
  children[1]->reserve(n2 + nu);
  unsigned long lo1 = t, hi1 = t, lo2 = t, hi2 = t;
  for (w_case const* c = begin; c != end; ++c) {
    unsigned long a = keys[static_cast<std::size_t>(c - begin)];
    if (a == 0) {
      children[0]->cases().push_back(w_case{c->first, shares[0] * c->second});
      children[1]->cases().push_back(w_case{c->first, shares[1] * c->second});
      lo1 = 0;
      lo2 = 0;
    } else if (a <= t) {
      children[0]->cases().push_back(*c);
      lo1 = std::min(lo1, a);
    } else {
      children[1]->cases().push_back(*c);
      hi2 = std::max(hi2, a);
    }
  }
  ranges[0] = order_range(lo1, hi1 + 1);
  ranges[1] = order_range(lo2, hi2 + 1);
}

}  // namespace

void column::partition_all(w_case const* begin, w_case const* end, float total_weight,
                           partition_desc const& desc, std::vector<w_sequence*>& children,
                           std::vector<float>& shares, std::vector<order_range>& ranges) const {
  std::size_t k;
  if (is_discrete() || is_class()) {
    k = get_distinct();
  } else if (is_continuous()) {
    k = 2;
  } else {
    throw_no_partition(*this);
  }
  children.assign(k, nullptr);
  for (auto& c : children)
    c = new w_sequence();
  shares.assign(k, 0.0f);
  ranges.assign(k, order_range(0, 0));
  try {
    if (k == 2 && is_continuous()) {
      unsigned long t = get_index(desc.threshold.c_str());
      visit([&](auto rd) {
        partition_continuous(rd, t, begin, end, total_weight, children, shares, ranges);
      });
    } else {
      visit([&](auto rd) {
        partition_discrete(rd, begin, end, total_weight, children, shares, ranges);
      });
    }
  } catch (...) {
    for (auto* c : children)
      delete c;
    children.clear();
    throw;
  }
}

w_sequence* column::partition(w_case const* begin, w_case const* end, unsigned long branch,
                              float total_weight, float& share, order_range& range,
                              partition_desc const& desc) const {
  if (!is_discrete() && !is_class() && !is_continuous()) throw_no_partition(*this);
  auto* out = new w_sequence();
  if (is_continuous()) {
    unsigned long t = get_index(desc.threshold.c_str());
    visit([&](auto rd) {
      float wb = 0.0f, wu = 0.0f;
      for (w_case const* c = begin; c != end; ++c) {
        unsigned long a = rd(c->first);
        if (branch == 1) {
          if (a <= t) wb += c->second;
        } else if (branch == 2) {
          if (a > t) wb += c->second;
          if (a == 0) wu += c->second;
        }
      }
      share = wb / (total_weight - wu);
      unsigned long lo = t, hi = t;
      for (w_case const* c = begin; c != end; ++c) {
        unsigned long a = rd(c->first);
        if (a == 0) {
          out->cases().push_back(w_case{c->first, share * c->second});
          lo = 0;
        } else if ((branch == 1 && a <= t) || (branch == 2 && a > t)) {
          out->cases().push_back(*c);
          lo = std::min(lo, a);
          hi = std::max(hi, a);
        }
      }
      range = order_range(lo, hi + 1);
    });
    return out;
  }
  visit([&](auto rd) {
    float wv = 0.0f, wu = 0.0f;
    for (w_case const* c = begin; c != end; ++c) {
      unsigned long a = rd(c->first);
      if (a == branch) wv += c->second;
      if (a == 0) wu += c->second;
    }
    share = wv / (total_weight - wu);
    for (w_case const* c = begin; c != end; ++c) {
      unsigned long a = rd(c->first);
      if (a == branch) {
        out->cases().push_back(*c);
      } else if (a == 0) {
        out->cases().push_back(w_case{c->first, share * c->second});
      }
    }
  });
  range = order_range(branch, branch + 1);
  return out;
}

column* column_bool::clone(bool empty) const {
  auto* c = new column_bool(type_, name_, values_->clone());
  if (!empty) c->bits_ = bits_;
  return c;
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
    : target_(target), ids_(ids), remap_(remap.data()) {
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
      for (std::size_t i = from; i < to; ++i)
        bits.push_back(remap_[ids[i]] == 2);
      if (to == ids_.size()) std::vector<std::uint8_t>().swap(ids_.u8());
      break;
    }
    default:
      break;
  }
}

}  // namespace impls
}  // namespace brix
