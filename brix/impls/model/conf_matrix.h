// Confusion matrices: summed case weights indexed [predicted][actual] by class
// order, with entry 0 the slot of the unknown class.
#ifndef BRIX_IMPLS_CONF_MATRIX_H
#define BRIX_IMPLS_CONF_MATRIX_H

#include <iosfwd>
#include <string>
#include <vector>

#include "zel/inpout/fwd.h"

namespace brix {
namespace impls {

class table;

class conf_matrix {
 public:
  // An empty matrix over the classes of a table's class column.
  explicit conf_matrix(table const* t);
  conf_matrix(std::vector<std::vector<float>> cells, std::vector<std::string> names);

  conf_matrix* clone() const { return new conf_matrix(*this); }

  unsigned long size() const { return cells_.size(); }
  float get_element(unsigned long i, unsigned long j) const { return cells_[i][j]; }
  void add(unsigned long predicted, unsigned long actual, float weight) {
    cells_[predicted][actual] += weight;
  }
  // Sum of all cells, and the fraction of it off the diagonal (0/0 when empty).
  float cases() const;
  float mis_perc() const;
  double get_elapsed() const { return elapsed_; }
  void set_elapsed(double e) { elapsed_ = e; }
  std::vector<std::vector<float>> const& cells() const { return cells_; }
  std::vector<std::string> const& names() const { return names_; }

  void toTEXT(std::ostream& out, unsigned long level) const;

 private:
  conf_matrix(conf_matrix const&) = default;

  std::vector<std::vector<float>> cells_;
  std::vector<std::string> names_;
  double elapsed_ = 0.0;
};

// The matrix record of the binary tree file: the cells row by row and the
// class names; the elapsed time is not kept. A null matrix is the flag 0.
zel::inpout::obinstream& operator<<(zel::inpout::obinstream& out, conf_matrix const* m);
zel::inpout::ibinstream& operator>>(zel::inpout::ibinstream& in, conf_matrix*& m);

}  // namespace impls
}  // namespace brix

#endif
