// The table builder's arrays read in place: every number and code array gives the table the
// value lists give (value orders, storage widths, the tree), and bad arrays are refused.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <functional>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "brix/data.h"
#include "brix/impls/storage/column.h"
#include "brix/impls/storage/o_set.h"
#include "brix/impls/storage/table.h"
#include "brix/model.h"
#include "tests/brix/table_files.h"

namespace {

using brix::column_kind;
using brix::value_type;

// Everything of a table a tree can depend on: per column its name, type, storage width, values
// in order and every row's order; then the tree grown on it.
std::string fingerprint(brix::table& t) {
  std::ostringstream out;
  brix::impls::table const& tab = *t.get_impl();
  for (unsigned long i = 0; i < tab.get_loaded_columns(); ++i) {
    brix::impls::column const* c = tab.get_column(i);
    brix::impls::o_set* s = c->get_o_set();
    out << c->get_name() << " " << c->get_type() << " " << s->get_datatype() << " "
        << static_cast<int>(c->get_storage()) << " :";
    for (unsigned long o = 1; o <= s->size_of_known(); ++o)
      out << " " << s->get_value(o);
    out << " |";
    for (unsigned long r = 0; r < tab.get_no_rows(); ++r)
      out << " " << c->get_row_index(r);
    out << "\n";
  }
  brix::tree_model::train(t)->write_text(out);
  return out.str();
}

// Values with repeats, an unknown and a negative number; 300 rows so that a column passes the
// 8-bit order width.
struct sample {
  std::vector<double> x;
  std::vector<bool> known;
  std::vector<std::string> colour, label;
  sample() {
    char const* names[] = {"red", "green", "blue", "ochre"};
    for (int r = 0; r < 300; ++r) {
      x.push_back(r % 7 == 3 ? NAN : static_cast<double>((r * 37) % 290 - 20));
      known.push_back(r % 7 != 3);
      colour.push_back(names[(r * 5) % 4]);
      label.push_back((r * 37) % 290 - 20 > 100 || colour.back() == "blue" ? "yes" : "no");
    }
    colour[10] = "?";  // the unknown text, as in a file
  }
};

std::string from_lists(sample const& s, value_type type) {
  auto t = brix::table_builder("t")
               .add_numbers("x", column_kind::continuous, type, s.x, s.known)
               .add_strings("colour", column_kind::discrete, s.colour)
               .add_strings("class", column_kind::class_label, s.label)
               .build();
  return fingerprint(*t);
}

// Codes into categories in an order of their own, one of them never used.
template <class C>
std::unique_ptr<brix::table> with_codes(sample const& s,
                                        std::function<void(brix::table_builder&)> add_x) {
  std::vector<std::string> cats = {"unused", "ochre", "red", "green", "blue"};
  static std::vector<C> colour, label;
  colour.clear();
  label.clear();
  for (std::size_t r = 0; r < s.x.size(); ++r) {
    C c = -1;
    for (std::size_t k = 0; k < cats.size(); ++k)
      if (cats[k] == s.colour[r]) c = static_cast<C>(k);
    colour.push_back(c);
    label.push_back(s.label[r] == "yes" ? 0 : 1);
  }
  brix::table_builder b("t");
  add_x(b);
  return b.add_codes("colour", column_kind::discrete, colour.data(), colour.size(), cats)
      .add_codes("class", column_kind::class_label, label.data(), label.size(), {"yes", "no"})
      .build();
}

TEST(TableBuilderArrays, EveryArrayTypeGivesTheTableOfTheValueLists) {
  sample s;
  std::vector<float> f(s.x.begin(), s.x.end());
  std::vector<std::int64_t> i64;
  std::vector<std::int32_t> i32;
  std::unique_ptr<bool[]> mask(new bool[s.x.size()]);
  for (std::size_t r = 0; r < s.x.size(); ++r) {
    i64.push_back(s.known[r] ? static_cast<std::int64_t>(s.x[r]) : 0);
    i32.push_back(static_cast<std::int32_t>(i64.back()));
    mask[r] = s.known[r];
  }
  auto const cont = column_kind::continuous;
  using adder = std::function<void(brix::table_builder&, value_type)>;
  struct {
    char const* what;
    adder add_x;
  } const sources[] = {
      {"double, NaN unknown",
       [&](auto& b, value_type t) { b.add_numbers("x", cont, t, s.x.data(), s.x.size()); }},
      {"float, NaN unknown",
       [&](auto& b, value_type t) { b.add_numbers("x", cont, t, f.data(), f.size()); }},
      {"int64, masked",
       [&](auto& b, value_type t) {
         b.add_numbers("x", cont, t, i64.data(), i64.size(), mask.get());
       }},
      {"int32, masked",
       [&](auto& b, value_type t) {
         b.add_numbers("x", cont, t, i32.data(), i32.size(), mask.get());
       }},
  };
  for (value_type type : {value_type::integer, value_type::float32}) {
    std::string want = from_lists(s, type);
    for (auto const& src : sources) {
      auto add = [&](brix::table_builder& b) { src.add_x(b, type); };
      EXPECT_EQ(want, fingerprint(*with_codes<std::int8_t>(s, add)))
          << src.what << ", type " << brix::keyword(type);
    }
  }
  // Every width of codes.
  std::string want = from_lists(s, value_type::float32);
  auto add = [&](brix::table_builder& b) {
    b.add_numbers("x", cont, value_type::float32, s.x.data(), s.x.size());
  };
  EXPECT_EQ(want, fingerprint(*with_codes<std::int16_t>(s, add)));
  EXPECT_EQ(want, fingerprint(*with_codes<std::int32_t>(s, add)));
  EXPECT_EQ(want, fingerprint(*with_codes<std::int64_t>(s, add)));
}

TEST(TableBuilderArrays, RefusesBadCodesAndCategories) {
  std::int32_t const codes[] = {0, 1, 2};
  double const x[] = {1, 2, 3}, half[] = {1.5};
  std::string const head = "[brix::table_builder] ";
  EXPECT_EQ(head + "column 'c': category 'a' given twice", builder_refusal([&](auto& b) {
              b.add_codes("c", column_kind::class_label, codes, 3, {"a", "b", "a"});
            }));
  EXPECT_EQ(head + "column 'c', row 2: code 2 past the last of 2 categories",
            builder_refusal([&](auto& b) {
              b.add_codes("c", column_kind::class_label, codes, 3, {"a", "b"});
            }));
  EXPECT_EQ(head + "column 'x': a continuous column needs numbers", builder_refusal([&](auto& b) {
              b.add_codes("x", column_kind::continuous, codes, 3, {"a", "b", "c"});
            }));
  EXPECT_EQ(head + "column 'c' has 2 values, column 'x' 3", builder_refusal([&](auto& b) {
              b.add_numbers("x", column_kind::continuous, value_type::float32, x, 3)
                  .add_codes("c", column_kind::class_label, codes, 2, {"a", "b"});
            }));
  EXPECT_EQ(head + "1.5: not a value of type integer", builder_refusal([&](auto& b) {
              b.add_numbers("x", column_kind::continuous, value_type::integer, half, 1)
                  .add_codes("c", column_kind::class_label, codes, 1, {"a"});
            }));
}

}  // namespace
