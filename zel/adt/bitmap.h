// Growable vector of bits kept in 32-bit words.
#ifndef ZEL_ADT_BITMAP_H
#define ZEL_ADT_BITMAP_H

#include <cstdint>

#include "zel/adt/iterator.h"

namespace zel {
namespace adt {

// Bit i lives in word i >> BASE_log at bit position i & 31, counted from the least significant
// bit. The words are native little-endian words and are written to files as they are, so bit i
// is also bit i & 7 of byte i >> 3 of the word array.
//
// The class is final so that calls through it are resolved statically and the accessors
// inline.
class bitmap final {
 public:
  typedef std::uint32_t word_type;
  static constexpr unsigned BASE_log = 5;
  static constexpr unsigned long word_bits = 1UL << BASE_log;

  class Iterator;

  bitmap() : words_(nullptr), size_(0), capacity_(0) {}
  bitmap(const bitmap& other);
  bitmap(bitmap&& other) noexcept;
  bitmap& operator=(const bitmap& other);
  bitmap& operator=(bitmap&& other) noexcept;
  virtual ~bitmap();

  // Grows the storage to hold at least n bits; never shrinks it. Throws std::runtime_error
  // "out of memory" when allocation fails.
  virtual void reserve(unsigned long n);
  // Grows the size to n. Shortening is refused, but only after the size has been set to n.
  virtual void resize(unsigned long n);
  virtual unsigned long size() const { return size_; }
  virtual unsigned long capacity() const { return capacity_; }
  // Appends a bit, growing by max(size / 2, 32) bits when full. A false bit is not cleared:
  // it keeps what the word holds.
  virtual void push_back(bool b);

  // No bound checks on the accessors.
  virtual bool operator[](unsigned long i) const { return get(i); }
  virtual void set(unsigned long i) { words_[i >> BASE_log] |= word_type(1) << (i & bit_mask); }
  virtual bool get(unsigned long i) const { return (words_[i >> BASE_log] >> (i & bit_mask)) & 1u; }
  // Clears the whole word holding bit i, not only bit i.
  virtual void reset(unsigned long i) { words_[i >> BASE_log] = 0; }

  // Combine word by word into this bitmap; false, with nothing changed, when sizes differ.
  virtual bool and_op(const bitmap& other);
  virtual bool or_op(const bitmap& other);
  // Zeroes the words in use; size and capacity stay.
  virtual void clear();

  // The words in use, for storage and serialisation: word_count() of them are meaningful.
  word_type* words() { return words_; }
  const word_type* words() const { return words_; }
  unsigned long word_count() const { return words_for(size_); }
  static unsigned long words_for(unsigned long bits) {
    return (bits >> BASE_log) + ((bits & bit_mask) != 0 ? 1 : 0);
  }

 private:
  static constexpr unsigned long bit_mask = word_bits - 1;

  word_type* words_;
  unsigned long size_;
  unsigned long capacity_;  // always word_bits times the number of allocated words
};

// Lists the positions of the set bits in increasing order, up to the end of the last word in
// use. Invalidated when the bitmap reallocates its words.
class bitmap::Iterator : public it::Iiterator<unsigned long> {
 public:
  explicit Iterator(const bitmap& b);

  bool hasNext() override;
  unsigned long getNext() override;
  void rewind() override;
  using it::Iiterator<unsigned long>::getNext;

 private:
  const word_type* first_;
  const word_type* end_;
  const word_type* cur_;
  unsigned bit_;
  bool advance_;   // cur_/bit_ was returned: step past it before searching
  bool has_next_;  // cur_/bit_ is a set bit not yet returned
};

}  // namespace adt
}  // namespace zel

#endif
