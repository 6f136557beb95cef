// Splits a NUL-terminated string at a one-character delimiter, one field per next().
#ifndef ZEL_UTIL_TOKENIZER_H
#define ZEL_UTIL_TOKENIZER_H

#include <cstddef>

namespace zel {
namespace util {

class tokenizer {
 public:
  // The string of a tokenizer that has none.
  static const char* const EMPTY;

  // Delimiter tab, no string. Throws std::runtime_error "Out of memory".
  tokenizer();
  tokenizer(const char* s, char delim);
  virtual ~tokenizer();
  tokenizer(const tokenizer&) = delete;
  tokenizer& operator=(const tokenizer&) = delete;

  // Starts over on s (EMPTY when null). s must outlive the tokens taken from it.
  void reset(const char* s, char delim) {
    start_ = cursor_ = s != nullptr ? s : EMPTY;
    delim_ = delim;
  }
  void set_delim(char delim) { delim_ = delim; }
  char get_delim() const { return delim_; }

  // The next field, as it stands, in a buffer reused by the next call. Once the string is
  // exhausted every call gives "". n delimiters give n + 1 fields.
  const char* next();
  // Length of the token returned by the last next().
  std::size_t length() const { return length_; }
  // The unread rest of the string.
  const char* rest() const { return cursor_; }
  // True when the cursor is on the terminating NUL.
  bool at_end() const { return *cursor_ == 0; }
  const char* get_string() const { return start_; }

 private:
  void grow(std::size_t need);

  const char* cursor_;
  const char* start_;
  char* token_;
  char* token_end_;
  char delim_;
  std::size_t length_;
};

}  // namespace util
}  // namespace zel

#endif
