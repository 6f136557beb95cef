#include "brix/impls/model/conf_matrix.h"

#include <ostream>
#include <stdexcept>

#include "brix/impls/storage/table.h"

namespace brix {
namespace impls {

conf_matrix::conf_matrix(table const* t) {
  if (t == nullptr) throw std::runtime_error("Table pointer was NULL");
  column* cls = t->get_class();
  unsigned long n = cls ? cls->get_distinct() + 1 : 0;
  cells_.assign(n, std::vector<float>(n, 0.0f));
  names_.reserve(n);
  for (unsigned long i = 0; i < n; ++i)
    names_.push_back(cls->get_o_set()->get_value(i));
}

conf_matrix::conf_matrix(std::vector<std::vector<float>> cells, std::vector<std::string> names)
    : cells_(std::move(cells)), names_(std::move(names)) {}

float conf_matrix::cases() const {
  float total = 0.0f;
  for (auto const& row : cells_) {
    for (float v : row)
      total += v;
  }
  return total;
}

float conf_matrix::mis_perc() const {
  float total = 0.0f, miss = 0.0f;
  for (std::size_t i = 0; i < cells_.size(); ++i) {
    for (std::size_t j = 0; j < cells_[i].size(); ++j) {
      total += cells_[i][j];
      if (i != j) miss += cells_[i][j];
    }
  }
  return miss / total;
}

void conf_matrix::toTEXT(std::ostream& out, unsigned long) const {
  for (std::string const& name : names_)
    out << name << '\t';
  out << "actual/predicted" << '\n';
  for (std::size_t i = 0; i < cells_.size(); ++i) {
    for (float v : cells_[i])
      out << v << '\t';
    out << names_[i] << '\n';
  }
}

}  // namespace impls
}  // namespace brix
