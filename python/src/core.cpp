// The Python binding: tables built from columns, training, prediction and exports, all on the
// library's own code. Long calls release the GIL.
#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>
#include <pybind11/stl.h>

#include <algorithm>
#include <cstdint>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "brix/data.h"
#include "brix/ensemble.h"
#include "brix/model.h"
#include "brix/rules.h"
#include "brix/tree_writer.h"

namespace py = pybind11;

namespace {

brix::column_kind kind_of(std::string const& k) {
  if (k == "discrete") return brix::column_kind::discrete;
  if (k == "continuous") return brix::column_kind::continuous;
  if (k == "class") return brix::column_kind::class_label;
  if (k == "weights") return brix::column_kind::weights;
  if (k == "ignore") return brix::column_kind::ignore;
  throw py::value_error("unknown column kind '" + k + "'");
}

brix::value_type type_of(std::string const& t) {
  if (t == "integer") return brix::value_type::integer;
  if (t == "float") return brix::value_type::float32;
  if (t == "double") return brix::value_type::float64;
  throw py::value_error("unknown numeric type '" + t + "'");
}

template <class T>
bool holds(py::array const& a) {
  return py::isinstance<py::array_t<T>>(a);
}

// One-dimensional and contiguous, as the builder reads arrays; a copy only when it is not.
py::array column_array(py::object values, std::string const& name) {
  py::array a = py::array::ensure(values, py::array::c_style);
  if (!a) throw py::value_error("column '" + name + "': not an array");
  if (a.ndim() != 1) throw py::value_error("column '" + name + "': not one-dimensional");
  return a;
}

// Columns are added one by one, then built into a table. The builder reads NumPy's buffers where
// they lie and holds a reference to each until the table is built.
class builder {
 public:
  // float64, float32, int64 and int32 arrays are read as they are; other dtypes are converted to
  // float64 once. known (None or a bool array): false marks an unknown value, as NaN does.
  void numbers(std::string const& name, std::string const& kind, std::string const& type,
               py::object values, py::object known) {
    py::array a = column_array(values, name);
    std::size_t n = static_cast<std::size_t>(a.shape(0));
    bool const* mask = nullptr;
    if (!known.is_none()) {
      auto k = py::array_t<bool, py::array::c_style | py::array::forcecast>::ensure(known);
      if (!k || k.ndim() != 1 || static_cast<std::size_t>(k.shape(0)) != n)
        throw py::value_error("column '" + name + "': one known flag per value is needed");
      mask = k.data();
      keep_.push_back(k);
    }
    brix::column_kind kd = kind_of(kind);
    brix::value_type ty = type_of(type);
    if (holds<double>(a)) {
      b_.add_numbers(name, kd, ty, static_cast<double const*>(a.data()), n, mask);
    } else if (holds<float>(a)) {
      b_.add_numbers(name, kd, ty, static_cast<float const*>(a.data()), n, mask);
    } else if (holds<std::int64_t>(a)) {
      b_.add_numbers(name, kd, ty, static_cast<std::int64_t const*>(a.data()), n, mask);
    } else if (holds<std::int32_t>(a)) {
      b_.add_numbers(name, kd, ty, static_cast<std::int32_t const*>(a.data()), n, mask);
    } else {
      a = py::array_t<double, py::array::c_style | py::array::forcecast>::ensure(a);
      if (!a) throw py::value_error("column '" + name + "': not numbers");
      b_.add_numbers(name, kd, ty, static_cast<double const*>(a.data()), n, mask);
    }
    keep_.push_back(a);
  }
  // Integer codes (negative: unknown) into the column's distinct texts, given once.
  void codes(std::string const& name, std::string const& kind, py::object codes,
             std::vector<std::string> categories) {
    py::array a = column_array(codes, name);
    std::size_t n = static_cast<std::size_t>(a.shape(0));
    brix::column_kind kd = kind_of(kind);
    if (holds<std::int8_t>(a)) {
      b_.add_codes(name, kd, static_cast<std::int8_t const*>(a.data()), n, std::move(categories));
    } else if (holds<std::int16_t>(a)) {
      b_.add_codes(name, kd, static_cast<std::int16_t const*>(a.data()), n, std::move(categories));
    } else if (holds<std::int32_t>(a)) {
      b_.add_codes(name, kd, static_cast<std::int32_t const*>(a.data()), n, std::move(categories));
    } else {
      a = py::array_t<std::int64_t, py::array::c_style | py::array::forcecast>::ensure(a);
      if (!a) throw py::value_error("column '" + name + "': codes are not integers");
      b_.add_codes(name, kd, static_cast<std::int64_t const*>(a.data()), n, std::move(categories));
    }
    keep_.push_back(a);
  }
  void strings(std::string const& name, std::string const& kind,
               std::vector<std::string> const& values, std::vector<bool> const& known) {
    b_.add_strings(name, kind_of(kind), values, known);
  }
  std::shared_ptr<brix::table> build(bool require_class) {
    std::unique_ptr<brix::table> t;
    {
      py::gil_scoped_release release;
      t = b_.build(require_class);
    }
    keep_.clear();
    return std::shared_ptr<brix::table>(t.release());
  }

 private:
  brix::table_builder b_{"python"};
  std::vector<py::array> keep_;
};

// The options every model type grows its trees with.
brix::tree_options tree_options_of(float confidence, float min_cases, std::string const& pruning,
                                   int threads) {
  brix::tree_options o;
  o.confidence = confidence;
  o.min_cases = min_cases;
  o.prune = pruning == "full"   ? brix::pruning::full
            : pruning == "none" ? brix::pruning::none
                                : brix::pruning::error;
  o.threads = threads;
  return o;
}

// Rows x classes from any model type, computed without the GIL.
template <class Model>
py::array_t<double> proba_array(Model const& model, brix::table const& t) {
  std::vector<double> p;
  {
    py::gil_scoped_release release;
    p = model.predict_proba(t);
  }
  std::size_t k = model.classes().size();
  py::array_t<double> out({static_cast<py::ssize_t>(t.get_no_rows()), static_cast<py::ssize_t>(k)});
  std::copy(p.begin(), p.end(), out.mutable_data());
  return out;
}

}  // namespace

PYBIND11_MODULE(_core, m) {
  m.doc() = "Brix: C4.5-style classification trees (native part)";
  py::register_exception_translator([](std::exception_ptr p) {
    try {
      if (p) std::rethrow_exception(p);
    } catch (std::invalid_argument const& e) {
      PyErr_SetString(PyExc_ValueError, e.what());
    } catch (std::runtime_error const& e) {
      PyErr_SetString(PyExc_ValueError, e.what());
    }
  });
  py::class_<brix::table, std::shared_ptr<brix::table>>(m, "Table")
      .def_property_readonly("n_rows", &brix::table::get_no_rows);
  py::class_<builder>(m, "TableBuilder")
      .def(py::init<>())
      .def("numbers", &builder::numbers, py::arg("name"), py::arg("kind"), py::arg("type"),
           py::arg("values"), py::arg("known") = py::none())
      .def("codes", &builder::codes)
      .def("strings", &builder::strings)
      .def("build", &builder::build, py::arg("require_class") = true);
  py::class_<brix::tree_model, std::shared_ptr<brix::tree_model>>(m, "Model")
      .def_static(
          "train",
          [](brix::table& t, float confidence, float min_cases, std::string const& pruning,
             int threads) {
            brix::tree_options o = tree_options_of(confidence, min_cases, pruning, threads);
            py::gil_scoped_release release;
            return std::shared_ptr<brix::tree_model>(brix::tree_model::train(t, o).release());
          })
      .def_static(
          "load",
          [](std::string const& path) {
            return std::shared_ptr<brix::tree_model>(brix::tree_model::load(path).release());
          })
      .def("save", &brix::tree_model::save)
      .def_property_readonly("classes", &brix::tree_model::classes)
      .def_property_readonly("attributes", &brix::tree_model::attributes)
      .def_property_readonly("size", &brix::tree_model::size)
      .def_property_readonly("depth", &brix::tree_model::depth)
      .def_property_readonly("leaves", &brix::tree_model::leaves)
      // (starts, nodes, leaves) as arrays, for decision_path's CSR matrix and apply.
      .def("paths",
           [](brix::tree_model const& model, brix::table const& t) {
             brix::tree_model::node_paths p;
             {
               py::gil_scoped_release release;
               p = model.paths(t);
             }
             auto array = [](std::vector<unsigned long> const& v) {
               py::array_t<std::int64_t> a(static_cast<py::ssize_t>(v.size()));
               std::copy(v.begin(), v.end(), a.mutable_data());
               return a;
             };
             return py::make_tuple(array(p.starts), array(p.nodes), array(p.leaves));
           })
      .def("attribute_usage", &brix::tree_model::attribute_usage)
      .def("importance", &brix::tree_model::importance)
      .def("predict_proba", &proba_array<brix::tree_model>)
      // Any text format of the library by name; max_depth cuts DOT graphs.
      .def(
          "export",
          [](brix::tree_model const& model, std::string const& format, long max_depth) {
            brix::output_format const& f = brix::output_format_named(format);
            if (f.binary) throw std::invalid_argument("'" + format + "' is written by save");
            std::ostringstream o;
            f.writer->write(brix::tree_output{model.facade(), nullptr, max_depth}, o);
            return o.str();
          },
          py::arg("format"), py::arg("max_depth") = -1);
  // Boosted trials over the same trees; its file is not a tree file (is_file tells).
  py::class_<brix::ensemble, std::shared_ptr<brix::ensemble>>(m, "Ensemble")
      .def_static("train",
                  [](brix::table& t, float confidence, float min_cases, std::string const& pruning,
                     int threads, int trials) {
                    brix::ensemble_options o;
                    o.tree = tree_options_of(confidence, min_cases, pruning, threads);
                    o.trials = trials;
                    py::gil_scoped_release release;
                    return std::shared_ptr<brix::ensemble>(brix::ensemble::train(t, o).release());
                  })
      .def_static("load",
                  [](std::string const& path) {
                    return std::shared_ptr<brix::ensemble>(brix::ensemble::load(path).release());
                  })
      .def_static("is_file", &brix::ensemble::is_file)
      .def("save", &brix::ensemble::save)
      .def_property_readonly("classes", &brix::ensemble::classes)
      .def_property_readonly("attributes", &brix::ensemble::attributes)
      .def_property_readonly("trials", &brix::ensemble::size)
      .def("predict_proba", &proba_array<brix::ensemble>)
      .def(
          "export",
          [](brix::ensemble const& model, std::string const& format, long max_depth) {
            std::ostringstream o;
            if (format == "text")
              model.write_text(o);
            else if (format == "json")
              model.write_json(o);
            else if (format == "pmml")
              model.write_pmml(o);
            else if (format == "dot")
              model.write_dot(o, max_depth);
            else
              throw std::invalid_argument("no format '" + format + "' for boosted trees");
            return o.str();
          },
          py::arg("format"), py::arg("max_depth") = -1);
  // A ruleset read off the tree the same options grow.
  py::class_<brix::rule_model, std::shared_ptr<brix::rule_model>>(m, "RuleModel")
      .def_static(
          "train",
          [](brix::table& t, float confidence, float min_cases, std::string const& pruning,
             int threads) {
            brix::tree_options o = tree_options_of(confidence, min_cases, pruning, threads);
            py::gil_scoped_release release;
            return std::shared_ptr<brix::rule_model>(brix::rule_model::train(t, o).release());
          })
      .def_static(
          "load",
          [](std::string const& path) {
            return std::shared_ptr<brix::rule_model>(brix::rule_model::load(path).release());
          })
      .def_static("is_rules_file", &brix::rule_model::is_rules_file)
      .def("save", &brix::rule_model::save)
      .def_property_readonly("classes", &brix::rule_model::classes)
      .def_property_readonly("size", &brix::rule_model::size)
      .def_property_readonly("leaves", &brix::rule_model::leaves)
      .def("predict_proba", &proba_array<brix::rule_model>)
      .def("export", [](brix::rule_model const& model, std::string const& format) {
        std::ostringstream o;
        if (format == "text")
          model.write_text(o);
        else if (format == "json")
          model.write_json(o);
        else if (format == "pmml")
          model.write_pmml(o);
        else
          throw std::invalid_argument("a ruleset exports as text, json or pmml, not '" + format +
                                      "'");
        return o.str();
      });
}
