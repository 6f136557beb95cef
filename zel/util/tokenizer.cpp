#include "zel/util/tokenizer.h"

#include <cstdlib>
#include <cstring>
#include <stdexcept>

namespace zel {
namespace util {

namespace {
constexpr std::size_t INITIAL_TOKEN = 256;
constexpr std::size_t SHORT_FIELD = 16;
static_assert(SHORT_FIELD < INITIAL_TOKEN, "short fields must fit the initial token buffer");
const char empty_string[1] = {0};
}  // namespace

const char* const tokenizer::EMPTY = empty_string;

tokenizer::tokenizer() : tokenizer(nullptr, '\t') {}

tokenizer::tokenizer(const char* s, char delim)
    : cursor_(EMPTY),
      start_(EMPTY),
      token_(nullptr),
      token_end_(nullptr),
      delim_(delim),
      length_(0) {
  token_ = static_cast<char*>(std::malloc(INITIAL_TOKEN));
  if (token_ == nullptr) throw std::runtime_error("Out of memory");
  token_end_ = token_ + INITIAL_TOKEN;
  token_[0] = 0;
  reset(s, delim);
}

tokenizer::~tokenizer() {
  std::free(token_);
}

void tokenizer::grow(std::size_t need) {
  std::size_t cap = static_cast<std::size_t>(token_end_ - token_);
  while (cap < need)
    cap += cap / 2;
  // The old token is dead once next() overwrites it, so nothing needs keeping.
  char* p = static_cast<char*>(std::malloc(cap));
  if (p == nullptr) throw std::runtime_error("Out of memory");
  std::free(token_);
  token_ = p;
  token_end_ = p + cap;
}

const char* tokenizer::next() {
  const char* from = cursor_;
  const char d = delim_;
  // Most fields are short: scan and copy the first bytes in one pass, with no calls. The
  // token buffer never holds less than INITIAL_TOKEN bytes, so they always fit.
  std::size_t n = 0;
  for (; n < SHORT_FIELD; ++n) {
    char c = from[n];
    if (c == d || c == 0) break;
    token_[n] = c;
  }
  if (n == SHORT_FIELD) {
    const char* stop = ::strchrnul(from + n, d);
    n = static_cast<std::size_t>(stop - from);
    if (n + 1 > static_cast<std::size_t>(token_end_ - token_)) grow(n + 1);
    std::memcpy(token_, from, n);
  }
  token_[n] = 0;
  length_ = n;
  // On the delimiter step past it; on the NUL stay, so later calls give "".
  cursor_ = from[n] != 0 ? from + n + 1 : from + n;
  return token_;
}

}  // namespace util
}  // namespace zel
