#include "brix/impls/storage/o_set.h"

#include <stdexcept>

#include "brix/impls/storage/column_typed.h"
#include "brix/impls/storage/o_set_typed.h"

namespace brix {
namespace impls {

o_set* o_set::NEW_O_SET(std::string const& datatype, bool admits_null, std::string const& null) {
  if (datatype == "integer") return new o_set_int(admits_null, null);
  if (datatype == "uinteger") return new o_set_uint(admits_null, null);
  if (datatype == "float") return new o_set_float(admits_null, null);
  if (datatype == "double") return new o_set_double(admits_null, null);
  if (datatype == "string") return new o_set_string(admits_null, null);
  if (datatype == "null") return new o_set("null", admits_null, null);
  throw std::runtime_error("invalid o_set type = " + datatype);
}

o_set::o_set(std::string const& datatype, bool admits_null, std::string const& null)
    : contains_null_(false), admits_null_(admits_null), null_(null), datatype_(datatype) {}

o_set::~o_set() {}

namespace {
char const* const kUnadmittedNull = "[o_set::insert()] called with unadmitted null value";
}

void o_set::insert_null() {
  if (!admits_null_) throw std::runtime_error(kUnadmittedNull);
  contains_null_ = true;
}

std::string o_set::refusal(char const* text) const {
  return is_null_text(text) && !admits_null_ ? kUnadmittedNull : "";
}

// The null set keeps no values: anything but the null text is dropped.
void o_set::insert(char const* value) {
  insert_id(value);
}

std::uint32_t o_set::insert_id(char const* value) {
  if (is_null_text(value)) insert_null();
  return 0;
}

void o_set::freeze_remap(std::vector<std::uint32_t>& remap) {
  remap.assign(1, 0);
}

id_loader::id_loader(o_set* set, bool keep_rows) : set_(set), keep_(keep_rows) {}

void id_loader::add(char const* text) {
  recent_texts::slot* seen = recent_.find(text);
  if (seen == nullptr || seen->id == 0) {
    std::uint32_t id = set_->insert_id(text);
    if (keep_) ids_.push_back(id);
    // The null text's id is 0, the mark of a slot not known yet: it is looked up each time.
    if (seen != nullptr) seen->id = id;
    return;
  }
  if (keep_) ids_.push_back(seen->id);
}

void id_loader::index() {
  set_->freeze_remap(remap_);
}

void id_loader::attach(column* target) {
  if (keep_) filler_.reset(new column_filler(target, ids_, remap_));
}

void id_loader::fill(std::size_t from, std::size_t to) {
  if (filler_) filler_->fill(from, to);
}

value_loader* o_set::make_loader(bool keep_rows) {
  return new id_loader(this, keep_rows);
}

bool o_set::get_order(char const* value, unsigned long& order) {
  if (contains_null_ && is_null_text(value)) {
    order = 0;
    return true;
  }
  return false;
}

std::string o_set::get_value(unsigned long order) {
  if (order == 0) return null_;
  throw std::runtime_error("[o_set::get_value()] called for a non-existing element " +
                           std::to_string(order));
}

o_set* o_set::clone() const {
  auto* c = new o_set(datatype_, admits_null_, null_);
  c->contains_null_ = contains_null_;
  return c;
}

std::string o_set::find_mid(unsigned long i, unsigned long j) {
  throw std::runtime_error("[o_set::find_threshold()] called for non-existing elements");
}

void o_set::throw_bad_mid(unsigned long i, unsigned long j) const {
  throw std::runtime_error("[o_set::find_threshold()] called for non-existing elements " +
                           std::to_string(i) + "-" + std::to_string(j));
}

}  // namespace impls
}  // namespace brix
