// What a table holds, column by column, for front ends that show or rewrite it without reaching
// into the table's storage.
#include <charconv>
#include <stdexcept>
#include <string>
#include <vector>

#include "brix/data.h"
#include "brix/impls/storage/o_set_typed.h"
#include "brix/impls/storage/table.h"
#include "zel/util/datatype.h"

namespace brix {

namespace {

impls::column* column_at(table const& t, std::size_t c) {
  impls::table const& i = *t.get_impl();
  if (c >= i.get_loaded_columns())
    throw std::out_of_range("column " + std::to_string(c) + " out of range (" +
                            std::to_string(i.get_loaded_columns()) + ")");
  return i.get_column(c);
}

column_kind kind_of(impls::column const& c) {
  return c.is_class()        ? column_kind::class_label
         : c.is_continuous() ? column_kind::continuous
         : c.is_weights()    ? column_kind::weights
         : c.is_ignore()     ? column_kind::ignore
                             : column_kind::discrete;
}

impls::column const* cell_at(table const& t, std::size_t c, unsigned long row) {
  unsigned long n = t.get_impl()->get_no_rows();
  if (row >= n)
    throw std::out_of_range("row " + std::to_string(row) + " out of range (" + std::to_string(n) +
                            ")");
  return column_at(t, c);
}

}  // namespace

std::vector<column_info> table_columns(table const& t) {
  impls::table const& i = *t.get_impl();
  std::vector<column_info> out;
  out.reserve(i.get_loaded_columns());
  for (unsigned long c = 0; c < i.get_loaded_columns(); ++c) {
    impls::column const& col = *i.get_column(c);
    out.push_back({col.get_name(), kind_of(col), col.get_o_set()->get_datatype(),
                   col.get_o_set()->admits_null()});
  }
  return out;
}

std::vector<std::string> value_texts(table const& t, std::size_t c) {
  using float_set = impls::o_set_typed<zel::data_types::datatype<float>>;
  impls::o_set* set = column_at(t, c)->get_o_set();
  std::vector<std::string> texts;
  if (auto* f = dynamic_cast<float_set*>(set)) {
    // The shortest text that reads back to the same float, not the 30 decimals of get_value.
    for (float v : f->sorted_values()) {
      char b[48];
      auto r = std::to_chars(b, b + sizeof b, v);
      texts.emplace_back(b, r.ptr);
    }
  } else {
    for (unsigned long o = 1; o <= set->size_of_known(); ++o)
      texts.push_back(set->get_value(o));
  }
  return texts;
}

unsigned long value_code(table const& t, std::size_t c, unsigned long row) {
  impls::column const* col = cell_at(t, c, row);
  return col->is_ignore() ? 0 : col->get_row_index(row);
}

std::string value_text(table const& t, std::size_t c, unsigned long row) {
  return cell_at(t, c, row)->get_value(row);
}

}  // namespace brix
