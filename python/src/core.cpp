// The Python binding: tables built from columns, training, prediction and exports, all on the
// library's own code. Long calls release the GIL.
#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>
#include <pybind11/stl.h>

#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "brix/data.h"
#include "brix/model.h"
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

// Columns are added one by one, then built into a table.
class builder {
 public:
  void numbers(std::string const& name, std::string const& kind, std::string const& type,
               py::array_t<double, py::array::c_style | py::array::forcecast> values) {
    auto v = values.unchecked<1>();
    std::vector<double> x(static_cast<std::size_t>(v.shape(0)));
    for (py::ssize_t i = 0; i < v.shape(0); ++i)
      x[static_cast<std::size_t>(i)] = v(i);
    b_.add_numbers(name, kind_of(kind), type_of(type), x);
  }
  void strings(std::string const& name, std::string const& kind,
               std::vector<std::string> const& values, std::vector<bool> const& known) {
    b_.add_strings(name, kind_of(kind), values, known);
  }
  std::shared_ptr<brix::table> build(bool require_class) {
    return std::shared_ptr<brix::table>(b_.build(require_class).release());
  }

 private:
  brix::table_builder b_{"python"};
};

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
      .def("numbers", &builder::numbers)
      .def("strings", &builder::strings)
      .def("build", &builder::build, py::arg("require_class") = true);
  py::class_<brix::tree_model, std::shared_ptr<brix::tree_model>>(m, "Model")
      .def_static(
          "train",
          [](brix::table& t, float confidence, float min_cases, std::string const& pruning,
             int threads) {
            brix::tree_options o;
            o.confidence = confidence;
            o.min_cases = min_cases;
            o.prune = pruning == "full"   ? brix::pruning::full
                      : pruning == "none" ? brix::pruning::none
                                          : brix::pruning::error;
            o.threads = threads;
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
      .def("attribute_usage", &brix::tree_model::attribute_usage)
      .def("importance", &brix::tree_model::importance)
      .def("predict_proba",
           [](brix::tree_model const& model, brix::table const& t) {
             std::vector<double> p;
             {
               py::gil_scoped_release release;
               p = model.predict_proba(t);
             }
             std::size_t k = model.classes().size();
             py::array_t<double> out(
                 {static_cast<py::ssize_t>(t.get_no_rows()), static_cast<py::ssize_t>(k)});
             std::copy(p.begin(), p.end(), out.mutable_data());
             return out;
           })
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
}
