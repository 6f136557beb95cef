// Field splitting of data lines. A line has 1 + (number of separators)
// fields, except that a separator ending the line opens no further field.
#ifndef BRIX_IMPLS_LINE_FIELDS_H
#define BRIX_IMPLS_LINE_FIELDS_H

#include <cstring>
#include <string>
#include <vector>

namespace brix {
namespace impls {

inline unsigned long count_fields(char const* line, char sep) {
  if (sep == '\0' || *line == '\0') return 1;
  unsigned long n = 1;
  char const* last = line;
  for (char const* p = std::strchr(line, sep); p != nullptr; p = std::strchr(p + 1, sep)) {
    ++n;
    last = p;
  }
  if (n > 1 && last[1] == '\0') --n;
  return n;
}

// Splits a line in place into k fields (k being its field count): the
// separators become terminators and the fields are pointers into the line.
class line_fields {
 public:
  void split(char* line, char sep, unsigned long k) {
    fields_.resize(k);
    char* p = line;
    for (unsigned long j = 0; j < k; ++j) {
      fields_[j] = p;
      char* q = sep == '\0' ? nullptr : std::strchr(p, sep);
      if (q == nullptr) {
        p += std::strlen(p);
      } else {
        *q = '\0';
        p = q + 1;
      }
    }
  }
  // Splits the whole line in one scan and returns its field count;
  // restore() puts the separators back (for messages quoting the line).
  unsigned long split_all(char* line, char sep) {
    fields_.clear();
    fields_.push_back(line);
    char* p = line;
    if (sep != '\0') {
      for (; *p != '\0'; ++p) {
        if (*p == sep) {
          *p = '\0';
          fields_.push_back(p + 1);
        }
      }
    }
    trailing_ = nullptr;
    if (fields_.size() > 1 && fields_.back() == p) {
      fields_.pop_back();
      trailing_ = p - 1;
    }
    sep_ = sep;
    return fields_.size();
  }
  void restore() {
    for (std::size_t j = 1; j < fields_.size(); ++j)
      fields_[j][-1] = sep_;
    if (trailing_ != nullptr) *trailing_ = sep_;
  }
  char const* operator[](unsigned long j) const { return fields_[j]; }
  char const* const* data() const { return fields_.data(); }

 private:
  std::vector<char*> fields_;
  char sep_ = ',';
  char* trailing_ = nullptr;  // the separator that ended the line, if any
};

// Copies the first n fields of a line into row[0..n-1]; missing fields are
// empty. Returns false when text is left after the n-th field (a single
// separator ending the line is not text).
inline bool take_fields(char const* line, char sep, unsigned long n,
                        std::vector<std::string>& row) {
  char const* p = line;
  bool at_end = *p == '\0';
  for (unsigned long j = 0; j < n; ++j) {
    if (at_end) {
      row[j].clear();
      continue;
    }
    char const* q = sep == '\0' ? nullptr : std::strchr(p, sep);
    if (q == nullptr) {
      row[j].assign(p);
      at_end = true;
    } else {
      row[j].assign(p, static_cast<std::size_t>(q - p));
      p = q + 1;
      at_end = *p == '\0';
    }
  }
  return n == 0 ? *line == '\0' : at_end;
}

}  // namespace impls
}  // namespace brix

#endif
