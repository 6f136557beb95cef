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
#include "brix/tallies.h"
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

// A C-contiguous array of T viewing h (a copy only when h is of another type or layout).
template <class T>
py::array_t<T, py::array::c_style | py::array::forcecast> array_of(py::handle h) {
  auto a = py::array_t<T, py::array::c_style | py::array::forcecast>::ensure(h);
  if (!a) throw std::invalid_argument("expected an array of numbers");
  return a;
}

// The numbers of an array as a vector (converted when of another type).
template <class T>
std::vector<T> from_array(py::handle h) {
  auto a = array_of<T>(h);
  return std::vector<T>(a.data(), a.data() + a.size());
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
  // An array, read in place: value sets of all the rows run to millions of numbers.
  void keep_values(std::string const& name, py::handle values, bool unknown) {
    b_.keep_values(name, from_array<double>(values), unknown);
  }
  void keep_texts(std::string const& name, std::vector<std::string> texts, bool unknown) {
    b_.keep_texts(name, std::move(texts), unknown);
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
                                   int threads, bool subsets = false) {
  brix::tree_options o;
  o.subsets = subsets;
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

// A holder of cases and the table it reads, which must live as long.
struct worker_state {
  std::shared_ptr<brix::table> t;
  std::shared_ptr<brix::tally_worker> w;
};

template <class T>
py::array_t<T> to_array(std::vector<T> const& v) {
  py::array_t<T> a(static_cast<py::ssize_t>(v.size()));
  std::copy(v.begin(), v.end(), a.mutable_data());
  return a;
}

// The vector's storage handed to numpy as it is (no copy): tallies run to hundreds of MB.
template <class T>
py::array_t<T> moved_array(std::vector<T>&& v) {
  auto* held = new std::vector<T>(std::move(v));
  py::capsule owner(held, [](void* p) { delete static_cast<std::vector<T>*>(p); });
  return py::array_t<T>(static_cast<py::ssize_t>(held->size()), held->data(), owner);
}

// Model and RuleModel grow from the tree options alone.
template <class M>
std::shared_ptr<M> train_of(brix::table& t, float confidence, float min_cases,
                            std::string const& pruning, int threads, bool subsets) {
  brix::tree_options o = tree_options_of(confidence, min_cases, pruning, threads, subsets);
  py::gil_scoped_release release;
  return std::shared_ptr<M>(M::train(t, o).release());
}

template <class M>
std::shared_ptr<M> load_of(std::string const& path) {
  return std::shared_ptr<M>(M::load(path).release());
}

// The text, JSON and PMML exports that ensembles and rulesets write themselves; false for any
// other format.
template <class M>
bool write_export(M const& model, std::string const& format, std::ostream& o) {
  if (format == "text")
    model.write_text(o);
  else if (format == "json")
    model.write_json(o);
  else if (format == "pmml")
    model.write_pmml(o);
  else
    return false;
  return true;
}

// The members every model type has alike: load, save, classes and predict_proba.
template <class M>
py::class_<M, std::shared_ptr<M>>& model_members(py::class_<M, std::shared_ptr<M>>& c) {
  c.def_static("load", &load_of<M>)
      .def("save", &M::save)
      .def_property_readonly("classes", &M::classes)
      .def("predict_proba", &proba_array<M>);
  return c;
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
      .def_property_readonly("n_rows", &brix::table::get_no_rows)
      .def("save", &brix::table::toBinary)
      .def_static("load", [](std::string const& path) {
        return std::shared_ptr<brix::table>(brix::table::fromBinary(path));
      });
  py::class_<builder>(m, "TableBuilder")
      .def(py::init<>())
      .def("numbers", &builder::numbers, py::arg("name"), py::arg("kind"), py::arg("type"),
           py::arg("values"), py::arg("known") = py::none())
      .def("codes", &builder::codes)
      .def("strings", &builder::strings)
      .def("keep_values", &builder::keep_values, py::arg("name"), py::arg("values"),
           py::arg("unknown") = false)
      .def("keep_texts", &builder::keep_texts, py::arg("name"), py::arg("texts"),
           py::arg("unknown") = false)
      .def("build", &builder::build, py::arg("require_class") = true);
  // Growing over tables held elsewhere (brix.dask): flat arrays in and out.
  py::class_<worker_state>(m, "TallyWorker")
      .def(py::init([](std::shared_ptr<brix::table> t, unsigned long n_rows) {
        return worker_state{t, std::make_shared<brix::tally_worker>(*t, n_rows)};
      }))
      .def(py::init([](std::shared_ptr<brix::table> t, std::vector<std::int64_t> const& nodes,
                       std::vector<std::uint32_t> const& rows, std::vector<float> const& weights) {
        return worker_state{t, std::make_shared<brix::tally_worker>(*t, nodes, rows, weights)};
      }))
      .def_property_readonly("table", [](worker_state const& w) { return w.t; })
      .def_property_readonly("held", [](worker_state const& w) { return w.w->held(); })
      .def(
          "tallies",
          [](worker_state const& w, std::vector<std::int64_t> const& open,
             std::vector<std::int64_t> const& only) {
            std::vector<std::int64_t> at, counts;
            std::vector<float> rows;
            {
              py::gil_scoped_release release;
              w.w->tallies(open, at, rows, counts, only);
            }
            return py::make_tuple(moved_array(std::move(at)), moved_array(std::move(rows)),
                                  moved_array(std::move(counts)));
          },
          py::arg("open"), py::arg("only") = std::vector<std::int64_t>())
      .def("applied",
           [](worker_state const& w, std::vector<std::int64_t> nodes,
              std::vector<std::string> thresholds, std::vector<float> shares,
              std::vector<std::int64_t> cuts) {
             brix::tally_decisions d{std::move(nodes), std::move(thresholds), std::move(shares),
                                     std::move(cuts)};
             py::gil_scoped_release release;
             return worker_state{w.t, std::shared_ptr<brix::tally_worker>(w.w->applied(d))};
           })
      .def("set_orders",
           [](worker_state const& w, py::list orders) {
             std::vector<std::vector<std::uint32_t>> o;
             for (py::handle h : orders)
               o.push_back(h.is_none() ? std::vector<std::uint32_t>()
                                       : from_array<std::uint32_t>(h));
             w.w->set_orders(std::move(o));
           })
      .def("set_keys",
           [](worker_state const& w, py::handle first_rows, py::handle first_keys) {
             w.w->set_keys(from_array<std::uint64_t>(first_rows),
                           from_array<std::uint64_t>(first_keys));
           })
      .def("keys",
           [](worker_state const& w) {
             return py::make_tuple(to_array(w.w->key_rows()), to_array(w.w->key_starts()));
           })
      .def("orders",
           [](worker_state const& w) {
             py::list out;
             for (auto const& m : w.w->orders())
               out.append(to_array(m));
             return out;
           })
      .def_static("values",
                  [](brix::table const& t, unsigned long att) {
                    return to_array(brix::tally_worker::values(t, att));
                  })
      .def("cases",
           [](worker_state const& w) {
             std::vector<std::int64_t> nodes;
             std::vector<std::uint32_t> rows;
             std::vector<float> weights;
             w.w->cases(nodes, rows, weights);
             return py::make_tuple(to_array(nodes), to_array(rows), to_array(weights));
           })
      .def("counts",
           [](worker_state const& w) {
             std::vector<std::int64_t> nodes, counts;
             w.w->counts(nodes, counts);
             return py::make_tuple(to_array(nodes), to_array(counts));
           })
      .def("rows_of",
           [](worker_state const& w, std::vector<std::int64_t> const& nodes) {
             brix::tally_rows r;
             {
               py::gil_scoped_release release;
               w.w->rows_of(nodes, r);
             }
             return py::make_tuple(to_array(r.nodes), to_array(r.weights), to_array(r.orders),
                                   to_array(r.keys));
           })
      .def("evaluate", [](worker_state const& w, brix::tree_model const& model) {
        return to_array(w.w->evaluate(model));
      });
  m.def("tally_add", [](py::handle a_at_, py::handle a_rows_, py::handle b_at_, py::handle b_rows_,
                        std::size_t cols) {
    auto a_at = array_of<std::int64_t>(a_at_), b_at = array_of<std::int64_t>(b_at_);
    auto a_rows = array_of<float>(a_rows_), b_rows = array_of<float>(b_rows_);
    if (cols == 0 || static_cast<std::size_t>(a_rows.size()) != a_at.size() * cols ||
        static_cast<std::size_t>(b_rows.size()) != b_at.size() * cols)
      throw std::invalid_argument("tallies: rows do not match their offsets");
    std::vector<std::int64_t> at;
    std::vector<float> rows;
    {
      py::gil_scoped_release release;
      brix::tally_add(a_at.data(), static_cast<std::size_t>(a_at.size()), a_rows.data(),
                      b_at.data(), static_cast<std::size_t>(b_at.size()), b_rows.data(), cols, at,
                      rows);
    }
    return py::make_tuple(moved_array(std::move(at)), moved_array(std::move(rows)));
  });
  py::class_<brix::tally_grower>(m, "TallyGrower")
      .def(py::init([](std::shared_ptr<brix::table> t, float confidence, float min_cases,
                       std::string const& pruning) {
             // The grower takes no thread count: the default stays.
             brix::tree_options o =
                 tree_options_of(confidence, min_cases, pruning, brix::tree_options().threads);
             return std::make_unique<brix::tally_grower>(*t, o);
           }),
           py::keep_alive<1, 2>())
      .def(py::init([](std::shared_ptr<brix::table> t, float confidence, float min_cases,
                       std::string const& pruning, std::vector<std::int64_t> const& ranges) {
             brix::tree_options o =
                 tree_options_of(confidence, min_cases, pruning, brix::tree_options().threads);
             return std::make_unique<brix::tally_grower>(*t, o, ranges);
           }),
           py::keep_alive<1, 2>())
      .def_static("root_ranges",
                  [](brix::table const& t) { return to_array(brix::tally_grower::root_ranges(t)); })
      .def_static(
          "like_table",
          [](brix::table const& meta, std::vector<std::int64_t> const& atts, py::list values) {
            std::vector<std::vector<double>> v;
            for (py::handle h : values)
              v.push_back(from_array<double>(h));
            py::gil_scoped_release release;
            return std::shared_ptr<brix::table>(
                brix::tally_grower::like_table(meta, atts, v).release());
          })
      .def_property_readonly("done", &brix::tally_grower::done)
      // One group of attributes' scores, as a tuple of (atts, classes, counts, gains, splits,
      // thresholds, shares, ranges), for decide_scored.
      .def_static("score",
                  [](brix::table const& like, float min_cases,
                     std::vector<std::int64_t> const& open, std::vector<std::int64_t> const& atts,
                     py::handle at_, py::handle rows_, py::handle counts_) {
                    brix::tree_options o;
                    o.min_cases = min_cases;
                    brix::tally_scores s;
                    // Read in place: the tallies of the top levels run to hundreds of MB.
                    auto at = array_of<std::int64_t>(at_);
                    auto rows = array_of<float>(rows_);
                    std::vector<std::int64_t> counts = from_array<std::int64_t>(counts_);
                    brix::tally_view v{at.data(), static_cast<std::size_t>(at.size()), rows.data(),
                                       static_cast<std::size_t>(rows.size())};
                    {
                      py::gil_scoped_release release;
                      s = brix::tally_grower::score(like, o, open, atts, v, counts);
                    }
                    return py::make_tuple(to_array(s.atts), to_array(s.classes), to_array(s.counts),
                                          to_array(s.gains), to_array(s.splits), s.thresholds,
                                          to_array(s.shares), to_array(s.ranges));
                  })
      .def("decide_scored",
           [](brix::tally_grower& g, py::list groups) {
             std::vector<brix::tally_scores> s(groups.size());
             for (std::size_t k = 0; k < s.size(); ++k) {
               py::tuple t = groups[k].cast<py::tuple>();
               if (t.size() != 8) throw std::invalid_argument("scores: eight parts a group");
               s[k].atts = from_array<std::int64_t>(t[0]);
               s[k].classes = from_array<float>(t[1]);
               s[k].counts = from_array<std::int64_t>(t[2]);
               s[k].gains = from_array<float>(t[3]);
               s[k].splits = from_array<std::int64_t>(t[4]);
               s[k].thresholds = t[5].cast<std::vector<std::string>>();
               s[k].shares = from_array<float>(t[6]);
               s[k].ranges = from_array<std::int64_t>(t[7]);
             }
             std::vector<brix::tally_scores const*> ptrs;
             for (auto const& x : s)
               ptrs.push_back(&x);
             brix::tally_decisions d = g.decide_scored(ptrs);
             return py::make_tuple(to_array(d.nodes), d.thresholds, to_array(d.shares),
                                   to_array(d.cuts));
           })
      .def("open", [](brix::tally_grower const& g) { return to_array(g.open()); })
      .def("open_ids", [](brix::tally_grower const& g) { return to_array(g.open_ids()); })
      .def("hand_off",
           [](brix::tally_grower& g, std::vector<std::int64_t> const& ids) {
             brix::tally_handoff h = g.hand_off(ids);
             return py::make_tuple(to_array(h.nodes), to_array(h.known), to_array(h.bounds),
                                   to_array(h.reach));
           })
      .def("graft", py::overload_cast<std::int64_t, std::string const&>(&brix::tally_grower::graft))
      .def("graft",
           py::overload_cast<std::int64_t, std::string const&, float>(&brix::tally_grower::graft))
      .def("preprune", [](brix::tally_grower& g) { return to_array(g.preprune()); })
      .def("regraft", &brix::tally_grower::regraft)
      // With bounds and reach given (hand_off's), each subtree is settled where it grows and
      // the values of its prepruning come back; unreached_paths get the forms for regraft.
      .def_static(
          "grow_handed",
          [](brix::table const& like, std::vector<std::int64_t> nodes, std::vector<float> known,
             std::vector<float> bounds, std::vector<std::int64_t> reach, py::list parts,
             float confidence, float min_cases, std::string const& pruning, bool whole, bool unit,
             std::vector<std::string> const& paths,
             std::vector<std::string> const& unreached_paths) {
            brix::tally_handoff h{std::move(nodes), std::move(known), std::move(bounds),
                                  std::move(reach)};
            // (nodes, weights, orders[, keys]) of each holder: without keys, in table order.
            std::vector<brix::tally_rows> rows(parts.size());
            for (std::size_t i = 0; i < rows.size(); ++i) {
              py::tuple t = parts[i].cast<py::tuple>();
              rows[i].nodes = from_array<std::int64_t>(t[0]);
              rows[i].weights = from_array<float>(t[1]);
              rows[i].orders = from_array<std::uint32_t>(t[2]);
              if (t.size() > 3) rows[i].keys = from_array<std::uint64_t>(t[3]);
            }
            std::vector<brix::tally_rows const*> ptrs;
            for (auto const& r : rows)
              ptrs.push_back(&r);
            brix::tree_options o =
                tree_options_of(confidence, min_cases, pruning, brix::tree_options().threads);
            std::vector<float> values;
            {
              py::gil_scoped_release release;
              values = brix::tally_grower::grow_handed(like, h, ptrs, o, whole, unit, paths,
                                                       unreached_paths);
            }
            return to_array(values);
          })
      .def_property_readonly("tally_size", &brix::tally_grower::tally_size)
      .def("decide",
           [](brix::tally_grower& g, std::vector<std::int64_t> const& at,
              std::vector<float> const& rows, std::vector<std::int64_t> const& counts) {
             brix::tally_decisions d;
             {
               py::gil_scoped_release release;
               d = g.decide(at, rows, counts);
             }
             return py::make_tuple(to_array(d.nodes), d.thresholds, to_array(d.shares),
                                   to_array(d.cuts));
           })
      .def("finish",
           [](brix::tally_grower& g) { return std::shared_ptr<brix::tree_model>(g.finish()); })
      .def_static("set_training", [](brix::tree_model& m, std::vector<float> const& flat) {
        brix::tally_grower::set_training(m, flat);
      });
  py::class_<brix::tree_model, std::shared_ptr<brix::tree_model>> model(m, "Model");
  model_members(model)
      .def_static("train", &train_of<brix::tree_model>, py::arg("table"), py::arg("confidence"),
                  py::arg("min_cases"), py::arg("pruning"), py::arg("threads"),
                  py::arg("subsets") = false)
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
  py::class_<brix::ensemble, std::shared_ptr<brix::ensemble>> ensemble(m, "Ensemble");
  model_members(ensemble)
      .def_static(
          "train",
          [](brix::table& t, float confidence, float min_cases, std::string const& pruning,
             int threads, int trials, bool rules, bool subsets) {
            brix::ensemble_options o;
            o.tree = tree_options_of(confidence, min_cases, pruning, threads, subsets);
            o.trials = trials;
            o.rules = rules;
            py::gil_scoped_release release;
            return std::shared_ptr<brix::ensemble>(brix::ensemble::train(t, o).release());
          },
          py::arg("table"), py::arg("confidence"), py::arg("min_cases"), py::arg("pruning"),
          py::arg("threads"), py::arg("trials"), py::arg("rules") = false,
          py::arg("subsets") = false)
      .def_static("is_file", &brix::ensemble::is_file)
      .def_property_readonly("attributes", &brix::ensemble::attributes)
      .def_property_readonly("trials", &brix::ensemble::size)
      .def_property_readonly("has_rules", &brix::ensemble::has_rules)
      // The trials' rules, 0 for trials of trees.
      .def_property_readonly("rules",
                             [](brix::ensemble const& e) {
                               unsigned long n = 0;
                               for (std::size_t i = 0; e.has_rules() && i < e.size(); ++i)
                                 n += e.trial_rules(i).size();
                               return n;
                             })
      .def(
          "export",
          [](brix::ensemble const& model, std::string const& format, long max_depth) {
            std::ostringstream o;
            if (write_export(model, format, o)) return o.str();
            if (format == "dot")
              model.write_dot(o, max_depth);
            else
              throw std::invalid_argument("no format '" + format + "' for boosted trees");
            return o.str();
          },
          py::arg("format"), py::arg("max_depth") = -1);
  // A ruleset read off the tree the same options grow.
  py::class_<brix::rule_model, std::shared_ptr<brix::rule_model>> rules(m, "RuleModel");
  model_members(rules)
      .def_static("train", &train_of<brix::rule_model>, py::arg("table"), py::arg("confidence"),
                  py::arg("min_cases"), py::arg("pruning"), py::arg("threads"),
                  py::arg("subsets") = false)
      .def_static("is_rules_file", &brix::rule_model::is_rules_file)
      .def_property_readonly("size", &brix::rule_model::size)
      .def_property_readonly("leaves", &brix::rule_model::leaves)
      .def("export", [](brix::rule_model const& model, std::string const& format) {
        std::ostringstream o;
        if (!write_export(model, format, o))
          throw std::invalid_argument("a ruleset exports as text, json or pmml, not '" + format +
                                      "'");
        return o.str();
      });
}
