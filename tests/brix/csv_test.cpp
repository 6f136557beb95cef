// The CSV reader: tables read from CSV rewrites of .names/.data pairs grow the trees of the pairs;
// RFC 4180 details; every malformed file is refused with its file, line and column.
#include <gtest/gtest.h>

#include <zlib.h>

#include <cmath>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "brix/data.h"
#include "brix/impls/table.h"
#include "brix/model.h"
#include "tests/zel/inpout/scratch_dir.h"

namespace {

namespace fs = std::filesystem;

std::string const kExamples = std::string(BRIX_TEST_DATA) + "/../../examples/";

struct names_line {
  std::string name, type, kind;
};

std::vector<names_line> read_names(std::string const& path) {
  std::vector<names_line> out;
  std::ifstream in(path);
  std::string line;
  while (std::getline(in, line)) {
    std::stringstream s(line);
    names_line n;
    std::getline(s, n.name, ',');
    std::getline(s, n.type, ',');
    std::getline(s, n.kind, ',');
    out.push_back(n);
  }
  return out;
}

// The training report of a tree: its matrix and the tree, as brixcmd prints them.
std::string report(brix::table& t) {
  auto m = brix::tree_model::train(t);
  std::unique_ptr<brix::conf_matrix> c(m->facade().get_prediction());
  std::ostringstream out;
  out << c->mis_perc() << " " << c->cases() << "\n";
  c->toTEXT(out, 0);
  m->write_text(out);
  return out.str();
}

// The rows of a .data (or .data.gz) file, appended to out as they are.
void copy_rows(std::string const& stem, std::ostream& out) {
  gzFile in =
      gzopen((fs::exists(stem + ".data") ? stem + ".data" : stem + ".data.gz").c_str(), "rb");
  char buf[1 << 16];
  int n;
  while ((n = gzread(in, buf, sizeof buf)) > 0)
    out.write(buf, n);
  gzclose(in);
}

class CsvFiles : public ::testing::Test, public scratch_dir {
 protected:
  // The .data file behind a header of the .names column names, as CSV.
  std::string rewrite(std::string const& stem, brix::read_options& opts) {
    auto names = read_names(stem + ".names");
    std::string csv = file(fs::path(stem).filename().string() + ".csv");
    std::ofstream out(csv);
    for (std::size_t i = 0; i < names.size(); ++i) {
      out << (i ? "," : "") << names[i].name;
      // The declared types and kinds: inference alone makes integers continuous.
      static std::map<std::string, brix::value_type> const types = {
          {"integer", brix::value_type::integer},
          {"uinteger", brix::value_type::uinteger},
          {"float", brix::value_type::float32},
          {"double", brix::value_type::float64},
          {"string", brix::value_type::string}};
      static std::map<std::string, brix::column_kind> const kinds = {
          {"discrete", brix::column_kind::discrete},
          {"continuous", brix::column_kind::continuous},
          {"class", brix::column_kind::class_label},
          {"weights", brix::column_kind::weights},
          {"ignore", brix::column_kind::ignore}};
      if (names[i].kind == "class") opts.class_column = names[i].name;
      if (types.count(names[i].type)) opts.types[names[i].name] = types.at(names[i].type);
      opts.kinds[names[i].name] = kinds.at(names[i].kind);
    }
    out << "\n";
    copy_rows(stem, out);
    return csv;
  }

  // The same rows as ARFF, the .names types as attribute types.
  std::string rewrite_arff(std::string const& stem) {
    auto names = read_names(stem + ".names");
    std::string arff = file(fs::path(stem).filename().string() + ".arff");
    std::ofstream out(arff);
    out << "% a rewrite\n@relation 'rewrite of " << stem << "'\n";
    for (auto const& n : names) {
      std::string type = n.kind == "continuous" || n.kind == "weights"
                             ? (n.type == "integer" ? "integer" : "real")
                             : "string";
      out << "@attribute '" << n.name << "' " << type << "\n";
    }
    out << "\n@data\n";
    copy_rows(stem, out);
    return arff;
  }

  void same_tree(std::string const& stem) {
    brix::table pair("t");
    pair.load_meta_data(brix::datasource("FILE#" + stem + ".names#,"));
    pair.load_data(
        brix::datasource("FILE#" +
                         (fs::exists(stem + ".data") ? stem + ".data" : stem + ".data.gz") + "#,"),
        "?");
    brix::read_options opts;
    opts.missing = {"?"};
    auto csv = brix::read_csv(rewrite(stem, opts), opts);
    std::string expected = report(pair);
    EXPECT_EQ(expected, report(*csv)) << stem;
    // ARFF declares only numeric or not: the kinds and classes come from the .names too.
    auto arff = brix::read_table(rewrite_arff(stem), opts);
    EXPECT_EQ(expected, report(*arff)) << stem << ".arff";
  }

  std::string error_of(std::string const& name, std::string const& text) {
    std::ofstream(file(name)) << text;
    try {
      brix::read_csv(file(name));
    } catch (std::runtime_error const& e) {
      return e.what();
    }
    return "(read)";
  }
};

TEST_F(CsvFiles, RewritesGrowTheTreesOfTheirPairs) {
  for (char const* stem : {"golf", "iris", "votes"})
    same_tree(kExamples + stem);
  fs::path shared = BRIX_SHARED_DATA;
  if (!fs::is_directory(shared)) GTEST_SKIP() << shared << " not found: only the examples ran";
  for (auto const& e : fs::directory_iterator(shared)) {
    if (e.path().extension() != ".names" || e.path().stem() == "syn_agrawal_f2_1m") continue;
    same_tree((shared / e.path().stem()).string());
  }
}

// The values of a .names/.data pair handed over as numbers and texts give the pair's table.
void same_tree_built(std::string const& stem) {
  auto names = read_names(stem + ".names");
  std::vector<std::vector<std::string>> cols(names.size());
  gzFile in =
      gzopen((fs::exists(stem + ".data") ? stem + ".data" : stem + ".data.gz").c_str(), "rb");
  char buf[1 << 16];
  while (gzgets(in, buf, sizeof buf) != nullptr) {
    std::string line(buf);
    while (!line.empty() && (line.back() == '\n' || line.back() == '\r'))
      line.pop_back();
    std::stringstream fields(line);
    for (auto& c : cols) {
      std::string f;
      std::getline(fields, f, ',');
      c.push_back(f);
    }
  }
  gzclose(in);
  brix::table_builder b("t");
  for (std::size_t i = 0; i < names.size(); ++i) {
    std::vector<bool> known;
    for (auto const& v : cols[i])
      known.push_back(v != "?");
    if (names[i].kind == "continuous" || names[i].kind == "weights") {
      std::vector<double> x;
      for (auto const& v : cols[i])
        x.push_back(v == "?" ? 0.0 : std::strtod(v.c_str(), nullptr));
      brix::value_type t = names[i].type == "integer"    ? brix::value_type::integer
                           : names[i].type == "uinteger" ? brix::value_type::uinteger
                                                         : brix::value_type::float32;
      b.add_numbers(
          names[i].name,
          names[i].kind == "weights" ? brix::column_kind::weights : brix::column_kind::continuous,
          t, x, known);
    } else {
      b.add_strings(names[i].name,
                    names[i].kind == "class"    ? brix::column_kind::class_label
                    : names[i].kind == "ignore" ? brix::column_kind::ignore
                                                : brix::column_kind::discrete,
                    cols[i], known);
    }
  }
  brix::table pair("t");
  pair.load_meta_data(brix::datasource("FILE#" + stem + ".names#,"));
  pair.load_data(
      brix::datasource("FILE#" + (fs::exists(stem + ".data") ? stem + ".data" : stem + ".data.gz") +
                       "#,"),
      "?");
  EXPECT_EQ(report(pair), report(*b.build())) << stem;
}

TEST(TableBuilder, ColumnsInMemoryGrowTheTreesOfTheirPairs) {
  for (char const* stem : {"golf", "iris", "votes"})
    same_tree_built(kExamples + stem);
  fs::path shared = BRIX_SHARED_DATA;
  if (!fs::is_directory(shared)) GTEST_SKIP() << shared << " not found: only the examples ran";
  for (char const* stem : {"mlb_breastcancer", "weka_credit_g", "mlb_pima", "mlb_letter"})
    same_tree_built((shared / stem).string());
}

TEST(TableBuilder, RefusesWhatNoTableCanHold) {
  auto error_of = [](std::function<void()> f) -> std::string {
    try {
      f();
    } catch (std::invalid_argument const& e) {
      return e.what();
    }
    return "(built)";
  };
  using brix::column_kind;
  using brix::value_type;
  EXPECT_EQ("[brix::table_builder] column 'c' has 1 values, column 'x' 2", error_of([] {
              brix::table_builder("t")
                  .add_numbers("x", column_kind::continuous, value_type::float32, {1, 2})
                  .add_strings("c", column_kind::class_label, {"a"})
                  .build();
            }));
  EXPECT_EQ("[brix::table_builder] column 'x' given twice", error_of([] {
              brix::table_builder("t")
                  .add_numbers("x", column_kind::continuous, value_type::float32, {1})
                  .add_numbers("x", column_kind::continuous, value_type::float32, {1})
                  .build();
            }));
  EXPECT_EQ("[brix::table_builder] no class column", error_of([] {
              brix::table_builder("t").add_strings("d", column_kind::discrete, {"a"}).build();
            }));
  EXPECT_EQ("[brix::table_builder] no rows", error_of([] {
              brix::table_builder("t").add_strings("c", column_kind::class_label, {}).build();
            }));
  EXPECT_EQ("[brix::table_builder] 1.5: not a value of type integer", error_of([] {
              brix::table_builder("t")
                  .add_numbers("x", column_kind::continuous, value_type::integer, {1.5})
                  .add_strings("c", column_kind::class_label, {"a"})
                  .build();
            }));
  EXPECT_EQ("[brix::table_builder] column 'x': a continuous column needs numbers", error_of([] {
              brix::table_builder("t").add_strings("x", column_kind::continuous, {"1"});
            }));
  // Without a class column the table is one to classify.
  auto t =
      brix::table_builder("t")
          .add_numbers("x", column_kind::continuous, value_type::float32, {1, NAN}, {true, true})
          .build(false);
  EXPECT_EQ(2u, t->get_no_rows());
  EXPECT_EQ(0u, t->get_impl()->get_column(0)->get_row_index(1));  // NaN: unknown
}

TEST_F(CsvFiles, QuotesLineEndsMarkersAndInference) {
  std::string text =
      "\xEF\xBB\xBF"
      "name,n,x,class\r\n"
      "\"a, b\",1,1.5,yes\r\n"
      "\"say \"\"hi\"\"\",2,NA,no\r\n"
      "\"two\nlines\",-3,2.25,yes\r\n"
      "plain,,4,no";
  std::ofstream(file("q.csv")) << text;
  auto t = brix::read_csv(file("q.csv"));
  brix::impls::table const& i = *t->get_impl();
  ASSERT_EQ(4u, t->get_no_rows());
  EXPECT_EQ("name", i.get_column(0)->get_name());
  EXPECT_EQ("a, b", i.get_column(0)->get_value(0));
  EXPECT_EQ("say \"hi\"", i.get_column(0)->get_value(1));
  EXPECT_EQ("two\nlines", i.get_column(0)->get_value(2));
  EXPECT_EQ("integer", i.get_column(1)->get_o_set()->get_datatype());
  EXPECT_EQ(0u, i.get_column(1)->get_row_index(3));  // empty: unknown
  EXPECT_EQ("float", i.get_column(2)->get_o_set()->get_datatype());
  EXPECT_EQ(0u, i.get_column(2)->get_row_index(1));  // NA: unknown
  EXPECT_EQ("no", t->get_class(3));
}

TEST_F(CsvFiles, ArffQuotesSparseRowsAndErrors) {
  std::ofstream(file("t.arff")) << "@RELATION r\n@attribute 'the x' numeric\n"
                                   "@attribute colour {red, 'dark blue'}\n@attribute n integer\n"
                                   "@attribute class {yes,no}\n@data\n"
                                   "1.5, 'dark blue', 3, yes\n{0 2.5, 3 no}\n?, red, ?, yes\n";
  auto t = brix::read_table(file("t.arff"));
  brix::impls::table const& i = *t->get_impl();
  ASSERT_EQ(3u, t->get_no_rows());
  EXPECT_EQ("the x", i.get_column(0)->get_name());
  EXPECT_EQ("dark blue", i.get_column(1)->get_value(0));
  EXPECT_EQ("red", i.get_column(1)->get_value(1));  // absent from a sparse row: the first value
  EXPECT_EQ("0", i.get_column(2)->get_value(1));    // absent and numeric: 0
  EXPECT_EQ(0u, i.get_column(2)->get_row_index(2));
  EXPECT_EQ("no", t->get_class(1));
  auto error_of = [&](std::string const& text) {
    std::ofstream(file("e.arff")) << text;
    try {
      brix::read_arff(file("e.arff"));
    } catch (std::runtime_error const& e) {
      return std::string(e.what());
    }
    return std::string("(read)");
  };
  std::string e = "File " + file("e.arff");
  EXPECT_EQ(e + ", line 2, attribute 'd': type 'date' is not supported",
            error_of("@relation r\n@attribute d date\n@data\n1\n"));
  EXPECT_EQ(e + ": no data rows", error_of("@relation r\n@attribute c {a,b}\n@data\n"));
  EXPECT_EQ(e + ", line 3: quote not closed", error_of("@attribute c {a,b}\n@data\n'a\n"));
  EXPECT_EQ(e + ", line 3: bad sparse entry '9 a'", error_of("@attribute c {a,b}\n@data\n{9 a}\n"));
}

TEST_F(CsvFiles, MalformedFilesNameFileLineAndColumn) {
  EXPECT_EQ("File " + file("q.csv") + ", line 2, column 2: quote not closed",
            error_of("q.csv", "a,b,c\n1,\"x,y\n"));
  EXPECT_EQ("File " + file("r.csv") + ", line 3: 2 fields, the header has 3",
            error_of("r.csv", "a,b,c\n1,2,3\n4,5\n"));
  EXPECT_EQ("File " + file("h.csv") + ": a header and no rows", error_of("h.csv", "a,b,c\n"));
  EXPECT_EQ("File " + file("e.csv") + ": empty, no header row", error_of("e.csv", ""));
  EXPECT_EQ("File " + file("b.csv") + ": holds NUL bytes, not a text table",
            error_of("b.csv", std::string("a,b\n\0\1\2,x\n", 10)));
  EXPECT_EQ("File " + file("t.csv") + ", line 2, column 1: text after a closing quote",
            error_of("t.csv", "a,b\n\"x\"y,1\n"));
  EXPECT_EQ("File " + file("d.csv") + ", line 1: column 'a' named twice",
            error_of("d.csv", "a,a\n1,2\n"));
  brix::read_options opts;
  opts.class_column = "nope";
  std::ofstream(file("c.csv")) << "a,b\n1,2\n";
  EXPECT_THROW(brix::read_csv(file("c.csv"), opts), std::runtime_error);
  EXPECT_THROW(brix::read_csv(file("missing.csv")), std::runtime_error);
}

}  // namespace
