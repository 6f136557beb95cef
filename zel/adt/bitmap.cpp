#include "zel/adt/bitmap.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <stdexcept>
#include <utility>

namespace zel {
namespace adt {

namespace {
constexpr unsigned long max_bits = std::numeric_limits<unsigned long>::max();
}

bitmap::bitmap(const bitmap& other) : words_(nullptr), size_(other.size_), capacity_(0) {
  unsigned long n = other.capacity_ / word_bits;
  if (n == 0) return;
  words_ = static_cast<word_type*>(std::malloc(n * sizeof(word_type)));
  if (words_ == nullptr) throw std::runtime_error("out of memory");
  std::memcpy(words_, other.words_, n * sizeof(word_type));
  capacity_ = other.capacity_;
}

bitmap::bitmap(bitmap&& other) noexcept
    : words_(other.words_), size_(other.size_), capacity_(other.capacity_) {
  other.words_ = nullptr;
  other.size_ = other.capacity_ = 0;
}

bitmap& bitmap::operator=(const bitmap& other) {
  if (this != &other) *this = bitmap(other);
  return *this;
}

bitmap& bitmap::operator=(bitmap&& other) noexcept {
  std::swap(words_, other.words_);
  std::swap(size_, other.size_);
  std::swap(capacity_, other.capacity_);
  return *this;
}

bitmap::~bitmap() {
  std::free(words_);
}

void bitmap::reserve(unsigned long n) {
  if (n <= capacity_) return;
  unsigned long old_words = capacity_ / word_bits;
  unsigned long new_words = words_for(n);
  // Zeroed allocation: the fill below starts at 4 x old words, so it misses the words just past
  // the copied ones, and push_back(false) relies on fresh bits reading as 0.
  word_type* w = static_cast<word_type*>(std::calloc(new_words, sizeof(word_type)));
  if (w == nullptr) throw std::runtime_error("out of memory");
  if (words_ != nullptr) std::memcpy(w, words_, words_for(size_) * sizeof(word_type));
  std::free(words_);
  words_ = w;
  unsigned long fill_begin = 4 * old_words;
  if (fill_begin < new_words) {
    unsigned long fill_end = std::min(new_words, fill_begin + (new_words - old_words));
    std::fill(words_ + fill_begin, words_ + fill_end, word_type(0));
  }
  capacity_ = new_words * word_bits;
}

void bitmap::resize(unsigned long n) {
  if (n > size_) {
    reserve(n);
    size_ = n;
  } else if (n < size_) {
    size_ = n;
    throw std::runtime_error("bitmap::resize cannot deal with shortening of bitmaps");
  }
}

void bitmap::push_back(bool b) {
  if (size_ == capacity_) {
    if (size_ == max_bits) throw std::runtime_error("bitmap maximum length exceeded.");
    unsigned long grow = std::max(size_ / 2, word_bits);
    reserve(size_ > max_bits - grow ? max_bits : size_ + grow);
  }
  if (b) set(size_);
  ++size_;
}

bool bitmap::and_op(const bitmap& other) {
  if (size_ != other.size_) return false;
  for (unsigned long i = 0, n = word_count(); i < n; ++i)
    words_[i] &= other.words_[i];
  return true;
}

bool bitmap::or_op(const bitmap& other) {
  if (size_ != other.size_) return false;
  for (unsigned long i = 0, n = word_count(); i < n; ++i)
    words_[i] |= other.words_[i];
  return true;
}

void bitmap::clear() {
  if (words_ != nullptr) std::fill(words_, words_ + word_count(), word_type(0));
}

bitmap::Iterator::Iterator(const bitmap& b) : first_(b.words_), end_(b.words_ + b.word_count()) {
  rewind();
}

void bitmap::Iterator::rewind() {
  cur_ = first_;
  bit_ = 0;
  advance_ = false;
  has_next_ = false;
}

bool bitmap::Iterator::hasNext() {
  if (has_next_) return true;
  if (advance_) {
    advance_ = false;
    if (++bit_ == word_bits) {
      ++cur_;
      bit_ = 0;
    }
  }
  for (; cur_ < end_; ++cur_, bit_ = 0) {
    word_type w = *cur_ >> bit_;
    if (w != 0) {
      bit_ += static_cast<unsigned>(__builtin_ctz(w));
      has_next_ = true;
      return true;
    }
  }
  return false;
}

unsigned long bitmap::Iterator::getNext() {
  if (!hasNext()) throw std::out_of_range("bitmap::Iterator::getNext past the last set bit");
  has_next_ = false;
  advance_ = true;
  return static_cast<unsigned long>(cur_ - first_) * word_bits + bit_;
}

}  // namespace adt
}  // namespace zel
