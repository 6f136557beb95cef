// Generic forward iterator interface over values of type T.
#ifndef ZEL_ADT_ITERATOR_H
#define ZEL_ADT_ITERATOR_H

#include <stdexcept>

namespace zel {
namespace it {

// Implementations provide hasNext(), getNext() and rewind(); the other operations are
// built on those three unless an implementation knows better.
template <class T>
class Iiterator {
 public:
  virtual ~Iiterator() {}

  virtual bool hasNext() = 0;
  // The next element; call only after hasNext() returned true.
  virtual T getNext() = 0;
  // Elements left; not every iterator can tell.
  virtual unsigned long howManyAhead() {
    throw std::logic_error("Iiterator::howManyAhead not supported by this iterator");
  }
  virtual void rewind() = 0;
  // Stores the next element in *out; false when there is none.
  virtual bool getNextPtr(T* out) {
    if (!hasNext()) return false;
    *out = getNext();
    return true;
  }
  // Stores the next element in out; false when there is none.
  virtual bool getNext(T& out) { return getNextPtr(&out); }
  // Skips one element.
  virtual void next() {
    if (hasNext()) getNext();
  }
};

}  // namespace it
}  // namespace zel

#endif
