// Column storage classes: order numbers in a vector of one unsigned width, or
// one bit per row for two-valued discrete attributes without unknowns.
#ifndef BRIX_IMPLS_COLUMN_TYPED_H
#define BRIX_IMPLS_COLUMN_TYPED_H

#include <cstdint>
#include <memory>
#include <stdexcept>
#include <vector>

#include "brix/impls/storage/column.h"
#include "brix/impls/storage/storage_width.h"
#include "zel/adt/bitmap.h"

namespace brix {
namespace impls {

// Provisional value ids of one column during a load, kept at the width the
// final column will have (width_for of the largest id so far), so the rows
// can become the column's storage without a copy.
class id_buffer {
 public:
  std::size_t size() const { return n_; }
  unsigned width() const { return width_; }

  void push_back(std::uint32_t id) {
    if (id > limit_) widen(id);
    switch (width_) {
      case 1:
        u8_.push_back(static_cast<std::uint8_t>(id));
        break;
      case 2:
        u16_.push_back(static_cast<std::uint16_t>(id));
        break;
      default:
        u32_.push_back(id);
        break;
    }
    ++n_;
  }

  std::vector<std::uint8_t>& u8() { return u8_; }
  std::vector<std::uint16_t>& u16() { return u16_; }
  std::vector<std::uint32_t>& u32() { return u32_; }

  // Calls f with the vector of the current width.
  template <class F>
  void visit(F&& f) {
    switch (width_) {
      case 1:
        f(u8_);
        break;
      case 2:
        f(u16_);
        break;
      default:
        f(u32_);
        break;
    }
  }

 private:
  void widen(std::uint32_t id) {
    unsigned w = width_for(id);
    if (width_ == 1 && w > 1) {
      u16_.assign(u8_.begin(), u8_.end());
      std::vector<std::uint8_t>().swap(u8_);
      width_ = 2;
    }
    if (width_ == 2 && w > 2) {
      u32_.assign(u16_.begin(), u16_.end());
      std::vector<std::uint16_t>().swap(u16_);
      width_ = 4;
    }
    limit_ = static_cast<std::uint32_t>(width_limit(width_));
  }

  std::vector<std::uint8_t> u8_;
  std::vector<std::uint16_t> u16_;
  std::vector<std::uint32_t> u32_;
  std::size_t n_ = 0;
  unsigned width_ = 1;
  std::uint32_t limit_ = width_limit(1);
};

// The ids of the short texts a loader met last. Columns of few values repeat the same texts row
// after row; a text seen before gives its id back without parsing or hashing. Ids stay fixed
// while a loader registers values, so a remembered id stays right.
class recent_texts {
 public:
  struct slot {
    std::uint64_t key = 0;  // the text's bytes and length; 0: empty
    std::uint32_t id = 0;   // 0: not known yet
  };

  // The slot of a text of 1 to 7 bytes, its id 0 when the text is not the one remembered there
  // (the caller then stores the id it finds); null for other texts.
  slot* find(char const* text) {
    std::uint64_t key = 0;
    for (unsigned i = 0;; ++i) {
      if (text[i] == '\0') {
        if (i == 0) return nullptr;
        key |= static_cast<std::uint64_t>(i) << 56;
        break;
      }
      if (i == 7) return nullptr;
      key |= static_cast<std::uint64_t>(static_cast<unsigned char>(text[i])) << (8 * i);
    }
    slot& s = slots_[(key * 0x9E3779B97F4A7C15ULL) >> (64 - kBits)];
    if (s.key != key) s = slot{key, 0};
    return &s;
  }

 private:
  static constexpr unsigned kBits = 4;
  slot slots_[1u << kBits];
};

template <class T>
class column_typed : public column {
 public:
  template <class Values>
  column_typed(_type type, std::string const& name, Values values)
      : column(type, name, std::move(values)) {}

  column* clone(bool empty) const override {
    auto* c = new column_typed<T>(type_, name_, values_->clone());
    if (!empty) c->rows_ = rows_;
    return c;
  }
  column* share_values() const override { return new column_typed<T>(type_, name_, values_); }
  void reserve(unsigned long n) override { rows_.reserve(n); }
  unsigned long size() const override { return rows_.size(); }
  void push_back(char const* value) override {
    unsigned long order;
    if (!values_->get_order(value, order)) throw std::runtime_error("column require a valid o_set");
    rows_.push_back(static_cast<T>(order));
  }
  unsigned long get_row_index(unsigned long row) const override { return rows_[row]; }
  bool less_than(unsigned long r1, unsigned long r2) const override {
    return rows_[r1] < rows_[r2];
  }
  storage_kind get_storage() const override {
    switch (sizeof(T)) {
      case 1:
        return storage_kind::u8;
      case 2:
        return storage_kind::u16;
      case 4:
        return storage_kind::u32;
      default:
        return storage_kind::u64;
    }
  }
  T const* data() const { return rows_.data(); }
  std::vector<T>& rows() { return rows_; }
  void bin_out(zel::inpout::obinstream& out) const override;
  void bin_in(zel::inpout::ibinstream& in) override;

 private:
  std::vector<T> rows_;
};

class column_bool : public column {
 public:
  template <class Values>
  column_bool(_type type, std::string const& name, Values values)
      : column(type, name, std::move(values)) {}

  column* clone(bool empty) const override;
  column* share_values() const override;
  void reserve(unsigned long n) override { bits_.reserve(n); }
  unsigned long size() const override { return bits_.size(); }
  void push_back(char const* value) override;
  unsigned long get_row_index(unsigned long row) const override { return 1 + bits_.get(row); }
  storage_kind get_storage() const override { return storage_kind::bit; }
  zel::adt::bitmap& bits() { return bits_; }
  zel::adt::bitmap const& bits() const { return bits_; }
  void bin_out(zel::inpout::obinstream& out) const override;
  void bin_in(zel::inpout::ibinstream& in) override;

 private:
  zel::adt::bitmap bits_;
};

// The second pass of a load: provisional ids become orders, block by block.
// Typed columns take over the id vector and rewrite it in place.
class column_filler {
 public:
  column_filler(column* target, id_buffer& ids, std::vector<std::uint32_t> const& remap);
  void fill(std::size_t from, std::size_t to);

 private:
  template <class T>
  void adopt(std::vector<T>& ids);

  column* target_;
  id_buffer& ids_;
  std::uint32_t const* remap_;
  std::size_t remap_size_;
  void* rows_ = nullptr;  // the adopted storage, of the target's width
};

// The loader for values kept by id: the set registers each value and the
// rows keep provisional ids until the second pass.
class id_loader : public value_loader {
 public:
  id_loader(o_set* set, bool keep_rows);
  void add(char const* text) override;
  std::uint32_t text_id(char const* text) override { return set_->insert_id(text); }
  void add_id(std::uint32_t id) override {
    if (keep_) ids_.push_back(id);
  }
  void index() override;
  void attach(column* target) override;
  void fill(std::size_t from, std::size_t to) override;

 private:
  o_set* set_;
  bool keep_;
  recent_texts recent_;
  id_buffer ids_;
  std::vector<std::uint32_t> remap_;
  std::unique_ptr<column_filler> filler_;
};

template <class F>
decltype(auto) column::visit(F&& f) const {
  switch (get_storage()) {
    case storage_kind::bit:
      return f(bit_reader{static_cast<column_bool const*>(this)->bits().words()});
    case storage_kind::u8:
      return f(
          typed_reader<std::uint8_t>{static_cast<column_typed<std::uint8_t> const*>(this)->data()});
    case storage_kind::u16:
      return f(typed_reader<std::uint16_t>{
          static_cast<column_typed<std::uint16_t> const*>(this)->data()});
    case storage_kind::u32:
      return f(typed_reader<std::uint32_t>{
          static_cast<column_typed<std::uint32_t> const*>(this)->data()});
    case storage_kind::u64:
      return f(typed_reader<unsigned long long>{
          static_cast<column_typed<unsigned long long> const*>(this)->data()});
    default:
      throw std::runtime_error("[column] no rows stored for column type '" + get_type() + "'");
  }
}

}  // namespace impls
}  // namespace brix

#endif
