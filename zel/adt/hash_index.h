// Open-addressing indexes from values to dense ids 0..n-1, in order of first
// registration. Loading registers every value of every row, mostly values
// already seen, so a lookup must cost one probe into a flat table and
// allocate nothing.
#ifndef ZEL_ADT_HASH_INDEX_H
#define ZEL_ADT_HASH_INDEX_H

#include <cstddef>
#include <cstdint>
#include <vector>

namespace zel {
namespace adt {

// Keeps only ids; the values live with the caller (in a vector indexed by
// id), which suits values that are costly to copy, such as strings.
class hash_index {
 public:
  static constexpr std::uint32_t npos = 0xFFFFFFFFu;

  std::size_t size() const { return count_; }

  void clear() {
    std::vector<std::uint32_t>().swap(slots_);
    count_ = 0;
    mask_ = 0;
  }

  // Returns the id of the value, registering next_id for it when same(id)
  // holds for none; hash_of(id) re-hashes stored values when the table grows.
  template <class Same, class HashOf>
  std::uint32_t find_or_add(std::uint64_t h, Same same, std::uint32_t next_id, HashOf hash_of) {
    if ((count_ + 1) * 2 > slots_.size()) grow(hash_of);
    for (std::size_t i = h & mask_;; i = (i + 1) & mask_) {
      std::uint32_t s = slots_[i];
      if (s == 0) {
        slots_[i] = next_id + 1;
        ++count_;
        return next_id;
      }
      if (same(s - 1)) return s - 1;
    }
  }

 private:
  template <class HashOf>
  void grow(HashOf hash_of) {
    std::size_t n = slots_.empty() ? 64 : slots_.size() * 2;
    std::vector<std::uint32_t> old;
    old.swap(slots_);
    slots_.assign(n, 0);
    mask_ = n - 1;
    for (std::uint32_t s : old) {
      if (s == 0) continue;
      std::size_t i = hash_of(s - 1) & mask_;
      while (slots_[i] != 0)
        i = (i + 1) & mask_;
      slots_[i] = s;
    }
  }

  std::vector<std::uint32_t> slots_;
  std::size_t mask_ = 0;
  std::size_t count_ = 0;
};

// Keeps the value next to its id, so a lookup touches one cache line of the
// table and nothing else: the index for plain numbers.
template <class K>
class value_index {
 public:
  static constexpr std::uint32_t npos = 0xFFFFFFFFu;

  std::size_t size() const { return count_; }

  void clear() {
    std::vector<slot>().swap(slots_);
    count_ = 0;
    mask_ = 0;
  }

  // Returns the id of key (whose hash is h), registering next_id when new;
  // hash(key) re-hashes stored keys when the table grows.
  template <class Hash>
  std::uint32_t find_or_add(K key, std::uint64_t h, std::uint32_t next_id, Hash hash) {
    if ((count_ + 1) * 2 > slots_.size()) grow(hash);
    for (std::size_t i = h & mask_;; i = (i + 1) & mask_) {
      slot& s = slots_[i];
      if (s.id == npos) {
        s.key = key;
        s.id = next_id;
        ++count_;
        return next_id;
      }
      if (s.key == key) return s.id;
    }
  }

 private:
  struct slot {
    K key;
    std::uint32_t id = npos;
  };

  template <class Hash>
  void grow(Hash hash) {
    std::size_t n = slots_.empty() ? 64 : slots_.size() * 2;
    std::vector<slot> old;
    old.swap(slots_);
    slots_.assign(n, slot());
    mask_ = n - 1;
    for (slot const& s : old) {
      if (s.id == npos) continue;
      std::size_t i = hash(s.key) & mask_;
      while (slots_[i].id != npos)
        i = (i + 1) & mask_;
      slots_[i] = s;
    }
  }

  std::vector<slot> slots_;
  std::size_t mask_ = 0;
  std::size_t count_ = 0;
};

}  // namespace adt
}  // namespace zel

#endif
