// Growing from tallies summed over several tables: the holders' side (tally_worker) and the
// deciding side (tally_grower), both on the grower's own split search, choice, distribution,
// prepruning and pruning.
#include "brix/tallies.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <map>
#include <mutex>
#include <stdexcept>
#include <unordered_map>
#include <unordered_set>

#include "brix/impls/learning/entropy.h"
#include "brix/impls/learning/grower.h"
#include "brix/impls/learning/partition.h"
#include "brix/impls/learning/split_choice.h"
#include "brix/impls/learning/split_search.h"
#include "brix/impls/model/conf_matrix.h"
#include "brix/impls/model/decision_tree.h"
#include "brix/impls/storage/column_typed.h"
#include "brix/impls/storage/o_set_typed.h"
#include "brix/impls/storage/table.h"
#include "brix/impls/storage/w_sequence.h"
#include "zel/inpout/binstream.h"

namespace brix {

namespace {

using impls::grower;
using impls::order_range;

// Floats of one open node's tallies over the given ranges.
std::size_t node_size(impls::table const* t, std::vector<order_range> const& ranges) {
  std::size_t cols = t->get_class()->get_distinct() + 1;
  std::size_t n = cols;
  for (unsigned long a = 0; a < t->get_no_attributes(); ++a)
    n += impls::tally_rows(*t->get_attribute(a), ranges[a]) * cols;
  return n;
}

// The ranges of one open node in the open list, from position p; p moves past them.
std::vector<order_range> ranges_at(std::vector<std::int64_t> const& open, std::size_t& p,
                                   unsigned long atts) {
  if (p + 1 + 2 * atts > open.size()) throw std::invalid_argument("open nodes: short list");
  std::vector<order_range> r(atts);
  ++p;
  for (unsigned long a = 0; a < atts; ++a, p += 2)
    r[a] =
        order_range(static_cast<unsigned long>(open[p]), static_cast<unsigned long>(open[p + 1]));
  return r;
}

}  // namespace

// ---------------------------------------------------------------- holders

struct tally_worker::impl {
  impls::table* t;
  std::shared_ptr<impls::w_sequence const> root;
  std::unordered_map<std::int64_t, std::unique_ptr<impls::w_sequence>> cases;
  impls::split_scratch scratch;
  // Per attribute, its orders in the value set of all the rows (set_orders); shared with the
  // holders of the children.
  std::shared_ptr<std::vector<std::vector<std::uint32_t>> const> orders;
  // Runs of rows and their first rows among all the rows (set_keys); shared like orders.
  struct key_runs {
    std::vector<std::uint64_t> rows, keys;
  };
  std::shared_ptr<key_runs const> keys;
  std::uint64_t key_of(unsigned long row) const {
    std::size_t k =
        static_cast<std::size_t>(std::upper_bound(keys->rows.begin(), keys->rows.end(), row) -
                                 keys->rows.begin()) -
        1;
    return keys->keys[k] + (row - keys->rows[k]);
  }
  std::vector<std::uint32_t> const* map_of(unsigned long a) const {
    if (!orders || a >= orders->size() || (*orders)[a].empty()) return nullptr;
    return &(*orders)[a];
  }
};

namespace {

// The range of a table's own orders that holds the values of the range r of all the rows'.
order_range local_range(std::vector<std::uint32_t> const& map, order_range r) {
  auto at = [&](unsigned long g) {
    return static_cast<unsigned long>(std::lower_bound(map.begin() + 1, map.end(), g) -
                                      map.begin());
  };
  return order_range(r.first == 0 ? 0 : at(r.first), at(r.second));
}

}  // namespace

void tally_add(std::vector<std::int64_t> const& a_at, std::vector<float> const& a_rows,
               std::vector<std::int64_t> const& b_at, std::vector<float> const& b_rows,
               std::size_t cols, std::vector<std::int64_t>& at, std::vector<float>& rows) {
  if (cols == 0 || a_rows.size() != a_at.size() * cols || b_rows.size() != b_at.size() * cols)
    throw std::invalid_argument("tallies: rows do not match their offsets");
  tally_add(a_at.data(), a_at.size(), a_rows.data(), b_at.data(), b_at.size(), b_rows.data(), cols,
            at, rows);
}

void tally_add(std::int64_t const* a_at, std::size_t a_n, float const* a_rows,
               std::int64_t const* b_at, std::size_t b_n, float const* b_rows, std::size_t cols,
               std::vector<std::int64_t>& at, std::vector<float>& rows) {
  if (cols == 0) throw std::invalid_argument("tallies: rows do not match their offsets");
  // Sized once to the union (a first pass over the offsets), then filled in place.
  std::size_t n = 0;
  for (std::size_t i = 0, j = 0; i < a_n || j < b_n; ++n) {
    if (j == b_n || (i < a_n && a_at[i] < b_at[j]))
      ++i;
    else if (i == a_n || b_at[j] < a_at[i])
      ++j;
    else
      ++i, ++j;
  }
  at.resize(n);
  rows.resize(n * cols);
  std::size_t i = 0, j = 0;
  for (std::size_t k = 0; k < n; ++k) {
    float* out = &rows[k * cols];
    if (j == b_n || (i < a_n && a_at[i] < b_at[j])) {
      at[k] = a_at[i];
      std::copy(a_rows + i * cols, a_rows + (i + 1) * cols, out);
      ++i;
    } else if (i == a_n || b_at[j] < a_at[i]) {
      at[k] = b_at[j];
      std::copy(b_rows + j * cols, b_rows + (j + 1) * cols, out);
      ++j;
    } else {
      at[k] = a_at[i];
      for (std::size_t c = 0; c < cols; ++c)
        out[c] = a_rows[i * cols + c] + b_rows[j * cols + c];
      ++i, ++j;
    }
  }
}

tally_worker::tally_worker(table const& t, unsigned long n_rows) : impl_(new impl()) {
  impl_->t = t.get_impl();
  if (impl_->t->get_class() == nullptr)
    throw std::invalid_argument("the table has no class column");
  if (n_rows > impl_->t->get_no_rows()) throw std::invalid_argument("more cases than rows");
  impl_->root.reset(impl_->t->get_wsubset_first_n(n_rows));
  impl_->cases[0].reset(new impls::w_sequence(*impl_->root));
}

tally_worker::tally_worker(table const& t, std::vector<unsigned long> const& rows)
    : tally_worker(t, t.get_no_rows()) {
  impls::w_sequence* mine = new impls::w_sequence();
  mine->reserve(rows.size());
  for (unsigned long r : rows) {
    if (r >= impl_->root->size()) throw std::invalid_argument("row past the table");
    mine->push_back(r, (*impl_->root)[r].second);
  }
  impl_->cases[0].reset(new impls::w_sequence(*mine));
  impl_->root.reset(mine);
}

tally_worker::~tally_worker() = default;

void tally_worker::tallies(std::vector<std::int64_t> const& open, std::vector<std::int64_t>& at,
                           std::vector<float>& rows, std::vector<std::int64_t>& counts,
                           std::vector<std::int64_t> const& only) const {
  impls::table const* t = impl_->t;
  impls::column const* cls = t->get_class();
  std::size_t cols = cls->get_distinct() + 1;
  unsigned long atts = t->get_no_attributes();
  std::vector<char> want(atts, only.empty() ? 1 : 0);
  for (std::int64_t a : only) {
    if (a < 0 || static_cast<unsigned long>(a) >= atts)
      throw std::invalid_argument("tallies: no such attribute");
    want[static_cast<std::size_t>(a)] = 1;
  }
  impls::w_sequence none;
  // One attribute's tallies at a time, kept all zero between them: a node of few cases clears
  // only the rows its cases touched.
  std::vector<float> buf;
  std::vector<std::size_t> touched;
  auto emit = [&](float const* row, std::int64_t offset) {
    for (std::size_t k = 0; k < cols; ++k) {
      if (row[k] != 0.0f) {
        at.push_back(offset);
        rows.insert(rows.end(), row, row + cols);
        return;
      }
    }
  };
  std::int64_t base = 0;
  for (std::size_t p = 0; p < open.size();) {
    auto it = impl_->cases.find(open[p]);
    impls::w_sequence const& c = it == impl_->cases.end() ? none : *it->second;
    std::vector<order_range> ranges = ranges_at(open, p, atts);
    std::vector<float> dist(cols, 0.0f);
    cls->visit([&](auto rd) {
      for (impls::w_case const& w : c)
        dist[rd(w.first)] += w.second;
    });
    emit(dist.data(), base);
    counts.push_back(static_cast<std::int64_t>(c.size()));
    std::int64_t pos = base + static_cast<std::int64_t>(cols);
    for (unsigned long a = 0; a < atts; ++a) {
      impls::column const* col = t->get_attribute(a);
      std::size_t n = impls::tally_rows(*col, ranges[a]);
      if (n == 0) continue;
      if (!c.empty() && want[a]) {
        // Tallied in the table's own orders (range r, rows nr from lo), each row placed at its
        // order among all the rows'.
        std::vector<std::uint32_t> const* map = impl_->map_of(a);
        order_range r = map != nullptr ? local_range(*map, ranges[a]) : ranges[a];
        unsigned long lo = std::max<unsigned long>(r.first, 1) - 1;
        unsigned long glo = std::max<unsigned long>(ranges[a].first, 1) - 1;
        std::size_t nr = r.second - lo;
        auto offset = [&](std::size_t row) {
          std::size_t g = map == nullptr || row == 0 ? row : (*map)[lo + row] - glo;
          return pos + static_cast<std::int64_t>(g * cols);
        };
        if (buf.size() < nr * cols) buf.resize(nr * cols, 0.0f);
        impls::tally_cases(*col, *cls, c, r, buf.data());
        if (c.size() * 4 >= nr) {
          for (std::size_t row = 0; row < nr; ++row)
            emit(&buf[row * cols], offset(row));
          std::fill(buf.begin(), buf.begin() + static_cast<std::ptrdiff_t>(nr * cols), 0.0f);
        } else {
          touched.clear();
          for (impls::w_case const& w : c) {
            unsigned long o = col->get_row_index(w.first);
            touched.push_back(o == 0 ? 0 : o - lo);
          }
          std::sort(touched.begin(), touched.end());
          touched.erase(std::unique(touched.begin(), touched.end()), touched.end());
          for (std::size_t r : touched) {
            emit(&buf[r * cols], offset(r));
            std::fill(buf.begin() + static_cast<std::ptrdiff_t>(r * cols),
                      buf.begin() + static_cast<std::ptrdiff_t>((r + 1) * cols), 0.0f);
          }
          buf[0] = 0.0f;  // the unknown weight, added even when 0
        }
      }
      pos += static_cast<std::int64_t>(n * cols);
    }
    base = pos;
  }
}

std::unique_ptr<tally_worker> tally_worker::applied(tally_decisions const& d) const {
  impls::table const* t = impl_->t;
  std::unique_ptr<tally_worker> out(new tally_worker());
  out->impl_->t = impl_->t;
  out->impl_->root = impl_->root;
  out->impl_->orders = impl_->orders;
  out->impl_->keys = impl_->keys;
  std::size_t threshold = 0, share = 0;
  std::vector<impls::w_sequence*> children;
  std::vector<order_range> ranges;
  impls::w_sequence empty;
  for (std::size_t i = 0; i + 4 <= d.nodes.size(); i += 4) {
    if (d.nodes[i + 1] < 0) continue;
    auto it = impl_->cases.find(d.nodes[i]);
    impls::w_sequence const& c = it == impl_->cases.end() ? empty : *it->second;
    auto att = static_cast<unsigned long>(d.nodes[i + 1]);
    auto branches = static_cast<std::size_t>(d.nodes[i + 3]);
    if (att >= t->get_no_attributes() || threshold >= d.thresholds.size() ||
        share + branches > d.shares.size())
      throw std::invalid_argument("decisions: short or out of range");
    impls::partition_desc desc;
    desc.threshold = d.thresholds[threshold++];
    desc.branches = branches;
    std::vector<std::uint32_t> const* map = impl_->map_of(att);
    if (map != nullptr && t->get_attribute(att)->is_continuous()) {
      // The threshold as this table's greatest value not above it (none: every known value is
      // above it).
      if (d.cuts.size() != d.thresholds.size())
        throw std::invalid_argument("decisions: no cuts for a table of its own values");
      auto cut = static_cast<std::uint32_t>(d.cuts[threshold - 1]);
      auto mine = static_cast<unsigned long>(std::upper_bound(map->begin() + 1, map->end(), cut) -
                                             map->begin() - 1);
      impls::o_set* values = t->get_attribute(att)->get_o_set();
      desc.threshold = mine == 0 ? values->get_null() : values->get_value(mine);
    }
    std::vector<float> shares(d.shares.begin() + share, d.shares.begin() + share + branches);
    share += branches;
    impls::partition_shared(*t->get_attribute(att), c.data(), c.data() + c.size(), desc, shares,
                            out->impl_->scratch, children, ranges);
    for (std::size_t b = 0; b < children.size(); ++b)
      out->impl_->cases[d.nodes[i + 2] + static_cast<std::int64_t>(b)].reset(children[b]);
    children.clear();
  }
  return out;
}

void tally_worker::cases(std::vector<std::int64_t>& nodes, std::vector<std::uint32_t>& rows,
                         std::vector<float>& weights) const {
  auto put = [&](std::int64_t id, impls::w_sequence const& c) {
    for (impls::w_case const& w : c) {
      nodes.push_back(id);
      rows.push_back(w.first);
      weights.push_back(w.second);
    }
  };
  put(-1, *impl_->root);
  for (auto const& c : impl_->cases)
    put(c.first, *c.second);
}

tally_worker::tally_worker() : impl_(new impl()) {}

tally_worker::tally_worker(table const& t, std::vector<std::int64_t> const& nodes,
                           std::vector<std::uint32_t> const& rows,
                           std::vector<float> const& weights)
    : impl_(new impl()) {
  impl_->t = t.get_impl();
  if (nodes.size() != rows.size() || rows.size() != weights.size())
    throw std::invalid_argument("cases: as many nodes, rows and weights are needed");
  auto root = std::make_shared<impls::w_sequence>();
  for (std::size_t i = 0; i < nodes.size(); ++i) {
    if (rows[i] >= impl_->t->get_no_rows()) throw std::invalid_argument("row past the table");
    if (nodes[i] < 0) {
      root->push_back(rows[i], weights[i]);
    } else {
      auto& c = impl_->cases[nodes[i]];
      if (!c) c.reset(new impls::w_sequence());
      c->push_back(rows[i], weights[i]);
    }
  }
  impl_->root = std::move(root);
}

void tally_worker::set_orders(std::vector<std::vector<std::uint32_t>> orders) {
  impls::table const* t = impl_->t;
  if (orders.size() > t->get_no_attributes())
    throw std::invalid_argument("orders: more than the attributes");
  for (std::size_t a = 0; a < orders.size(); ++a) {
    std::vector<std::uint32_t> const& m = orders[a];
    if (m.empty()) continue;
    impls::column const* col = t->get_attribute(a);
    if (!col->is_continuous() || m.size() != col->get_o_set()->size_of_known() + 1 || m[0] != 0)
      throw std::invalid_argument("orders: not one for each value of the attribute");
    for (std::size_t i = 1; i < m.size(); ++i)
      if (m[i] <= m[i - 1]) throw std::invalid_argument("orders: not ascending");
  }
  impl_->orders =
      std::make_shared<std::vector<std::vector<std::uint32_t>> const>(std::move(orders));
}

std::vector<std::vector<std::uint32_t>> const& tally_worker::orders() const {
  static std::vector<std::vector<std::uint32_t>> const none;
  return impl_->orders ? *impl_->orders : none;
}

void tally_worker::set_keys(std::vector<std::uint64_t> first_rows,
                            std::vector<std::uint64_t> first_keys) {
  if (first_rows.size() != first_keys.size() || first_rows.empty() || first_rows[0] != 0)
    throw std::invalid_argument("keys: one first key a run, the first run from row 0");
  for (std::size_t k = 1; k < first_rows.size(); ++k)
    if (first_rows[k] <= first_rows[k - 1] || first_keys[k] <= first_keys[k - 1])
      throw std::invalid_argument("keys: runs not ascending");
  impl_->keys = std::make_shared<impl::key_runs const>(
      impl::key_runs{std::move(first_rows), std::move(first_keys)});
}

std::vector<std::uint64_t> const& tally_worker::key_rows() const {
  static std::vector<std::uint64_t> const none;
  return impl_->keys ? impl_->keys->rows : none;
}

std::vector<std::uint64_t> const& tally_worker::key_starts() const {
  static std::vector<std::uint64_t> const none;
  return impl_->keys ? impl_->keys->keys : none;
}

std::vector<double> tally_worker::values(table const& t, unsigned long att) {
  impls::table const* it = t.get_impl();
  if (att >= it->get_no_attributes() || !it->get_attribute(att)->is_continuous())
    throw std::invalid_argument("values: not a continuous attribute");
  impls::o_set* v = it->get_attribute(att)->get_o_set();
  std::vector<double> out;
  out.reserve(v->size_of_known());
  // The numbers as stored when the set is of a numeric type (text would take tens of digits a
  // value); otherwise read back from their text.
  auto as = [&](auto* typed) {
    if (typed == nullptr) return false;
    for (auto const& x : typed->sorted_values())
      out.push_back(static_cast<double>(x));
    return true;
  };
  namespace dt = zel::data_types;
  if (as(dynamic_cast<impls::o_set_typed<dt::datatype<float>>*>(v)) ||
      as(dynamic_cast<impls::o_set_typed<dt::datatype<double>>*>(v)) ||
      as(dynamic_cast<impls::o_set_typed<dt::datatype<int>>*>(v)) ||
      as(dynamic_cast<impls::o_set_typed<dt::datatype<unsigned long>>*>(v)))
    return out;
  for (unsigned long k = 1; k <= v->size_of_known(); ++k)
    out.push_back(std::strtod(v->get_value(k).c_str(), nullptr));
  return out;
}

std::size_t tally_worker::held() const {
  std::size_t n = 0;
  for (auto const& c : impl_->cases)
    n += c.second->size();
  return n;
}

void tally_worker::counts(std::vector<std::int64_t>& nodes,
                          std::vector<std::int64_t>& counts) const {
  for (auto const& c : impl_->cases) {
    nodes.push_back(c.first);
    counts.push_back(static_cast<std::int64_t>(c.second->size()));
  }
}

void tally_worker::rows_of(std::vector<std::int64_t> const& nodes, tally_rows& out) const {
  impls::table const* t = impl_->t;
  unsigned long cols = t->get_loaded_columns();
  std::vector<impls::w_sequence const*> seqs;
  std::size_t n = 0;
  for (std::int64_t id : nodes) {
    auto it = impl_->cases.find(id);
    seqs.push_back(it == impl_->cases.end() ? nullptr : it->second.get());
    if (seqs.back() != nullptr) n += seqs.back()->size();
  }
  out.nodes.reserve(out.nodes.size() + n);
  out.weights.reserve(out.weights.size() + n);
  std::size_t first = out.orders.size() / std::max<unsigned long>(cols, 1);
  if (impl_->keys) out.keys.reserve(out.keys.size() + n);
  for (std::size_t k = 0; k < seqs.size(); ++k) {
    if (seqs[k] == nullptr) continue;
    for (impls::w_case const& w : *seqs[k]) {
      out.nodes.push_back(nodes[k]);
      out.weights.push_back(w.second);
      if (impl_->keys) out.keys.push_back(impl_->key_of(w.first));
    }
  }
  out.orders.resize((first + n) * cols, 0);
  for (unsigned long c = 0; c < cols; ++c) {
    impls::column const* col = t->get_column(c);
    if (col->get_storage() == impls::storage_kind::none || col->is_weights()) continue;
    col->visit([&](auto rd) {
      std::uint32_t* o = out.orders.data() + first * cols + c;
      for (impls::w_sequence const* s : seqs) {
        if (s == nullptr) continue;
        for (impls::w_case const& w : *s) {
          *o = static_cast<std::uint32_t>(rd(w.first));
          o += cols;
        }
      }
    });
    // A table of its own values gives the orders among all the rows'.
    for (unsigned long a = 0; a < t->get_no_attributes(); ++a) {
      std::vector<std::uint32_t> const* map = impl_->map_of(a);
      if (map == nullptr || t->get_attribute(a) != col) continue;
      std::uint32_t* o = out.orders.data() + first * cols + c;
      for (std::size_t i = 0; i < n; ++i, o += cols)
        *o = (*map)[*o];
    }
  }
}

std::vector<float> tally_worker::evaluate(tree_model const& model) const {
  impls::decision_tree const* tree = model.facade().get_impl();
  if (tree->get_root() == nullptr) throw std::invalid_argument("no tree");
  std::unique_ptr<impls::conf_matrix> m(tree->get_root()->predict(impl_->t, impl_->root.get()));
  std::vector<float> out;
  for (auto const& row : m->cells())
    out.insert(out.end(), row.begin(), row.end());
  return out;
}

// ---------------------------------------------------------------- deciding

struct tally_grower::impl {
  impls::table* t;
  tree_options o;
  impls::options opts;
  std::unique_ptr<impls::_decision_tree> root;
  struct pending {
    std::int64_t id;
    impls::_decision_tree* tree;
    float known;
    std::vector<order_range> ranges;
  };
  std::vector<pending> open;
  std::map<std::int64_t, pending> taken;  // handed out, awaiting their subtrees
  // Subtrees grafted already prepruned and pruned, by node, and their prepruning values.
  std::map<std::int64_t, impls::_decision_tree*> settled_at;
  impls::settled_subtrees settled;
  bool prepruned = false;
  std::map<std::int64_t, impls::_decision_tree*> unreached;  // awaiting regraft
  std::int64_t next = 1;
  impls::split_scratch scratch;
};

tally_grower::tally_grower(table const& meta, tree_options const& o)
    : tally_grower(meta, o, std::vector<std::int64_t>()) {}

tally_grower::tally_grower(table const& meta, tree_options const& o,
                           std::vector<std::int64_t> const& root)
    : impl_(new impl()) {
  if (!(o.confidence > 0.0f && o.confidence <= 1.0f))
    throw std::invalid_argument("confidence must be in (0,1]");
  if (!(o.min_cases > 1.0f)) throw std::invalid_argument("min_cases must be > 1");
  if (o.prune == pruning::full)
    throw std::invalid_argument(
        "pruning 'full' raises subtrees, which needs every node's cases on one machine; use "
        "'error' or 'none'");
  impls::table* t = meta.get_impl();
  if (t->get_class() == nullptr) throw std::invalid_argument("the table has no class column");
  std::string message;
  if (!t->set_consistency_for_tree(true, message)) throw std::runtime_error(message);
  impl_->t = t;
  impl_->o = o;
  impl_->root.reset(new impls::_decision_tree());
  impl_->root->set_node(new impls::_decision_node(static_cast<impls::w_sequence*>(nullptr)));
  std::vector<order_range> ranges;
  unsigned long atts = t->get_no_attributes();
  if (!root.empty() && root.size() != 2 * atts)
    throw std::invalid_argument("root ranges: two a attribute");
  for (unsigned long a = 0; a < atts; ++a) {
    if (root.empty()) {
      ranges.push_back(t->get_attribute(a)->get_range());
    } else {
      if (root[2 * a] < 0 || root[2 * a + 1] < root[2 * a])
        throw std::invalid_argument("root ranges: not a range");
      ranges.push_back(order_range(static_cast<unsigned long>(root[2 * a]),
                                   static_cast<unsigned long>(root[2 * a + 1])));
    }
  }
  impl_->open.push_back({0, impl_->root.get(), 1.0f, std::move(ranges)});
}

tally_grower::~tally_grower() = default;

std::vector<std::int64_t> tally_grower::root_ranges(table const& t) {
  std::vector<std::int64_t> out;
  impls::table const* it = t.get_impl();
  for (unsigned long a = 0; a < it->get_no_attributes(); ++a) {
    order_range r = it->get_attribute(a)->get_range();
    out.push_back(static_cast<std::int64_t>(r.first));
    out.push_back(static_cast<std::int64_t>(r.second));
  }
  return out;
}

namespace {

// Puts values into a value set of element type V, if it is one.
template <class V>
bool put_sorted(impls::o_set* set, std::vector<double> const& values) {
  auto* typed = dynamic_cast<impls::o_set_typed<zel::data_types::datatype<V>>*>(set);
  if (typed == nullptr) return false;
  std::vector<V> out;
  out.reserve(values.size());
  for (double x : values)
    out.push_back(static_cast<V>(x));
  for (std::size_t i = 1; i < out.size(); ++i)
    if (!(out[i - 1] < out[i])) throw std::invalid_argument("like table: values not ascending");
  typed->set_sorted_values(std::move(out));
  return true;
}

}  // namespace

std::unique_ptr<table> tally_grower::like_table(table const& meta,
                                                std::vector<std::int64_t> const& atts,
                                                std::vector<std::vector<double>> const& values) {
  impls::table const* m = meta.get_impl();
  if (atts.size() != values.size())
    throw std::invalid_argument("like table: one value set an attribute");
  std::unique_ptr<impls::table> t(m->clone_metadata());
  for (std::size_t k = 0; k < atts.size(); ++k) {
    if (atts[k] < 0 || static_cast<unsigned long>(atts[k]) >= m->get_no_attributes())
      throw std::invalid_argument("like table: no such attribute");
    unsigned long c = m->get_attribute_column(static_cast<unsigned long>(atts[k]));
    impls::o_set const* old = m->get_column(c)->get_o_set();
    if (!m->get_column(c)->is_continuous())
      throw std::invalid_argument("like table: not a continuous attribute");
    std::unique_ptr<impls::o_set> set(m->make_column_o_set(c, old->get_null()));
    if (!put_sorted<float>(set.get(), values[k]) && !put_sorted<double>(set.get(), values[k]) &&
        !put_sorted<int>(set.get(), values[k]) && !put_sorted<unsigned long>(set.get(), values[k]))
      throw std::invalid_argument("like table: a value set of another type");
    set->set_contains_null(old->contains_null());
    // A column of the width its value set needs, as a table of that many values has.
    impls::column* col = m->make_column(c, set.get());
    if (col == nullptr) throw std::invalid_argument("like table: no such column");
    set.release();
    delete t->columns()[c];
    t->columns()[c] = col;
  }
  return std::unique_ptr<table>(table::adopt(t.release()));
}

bool tally_grower::done() const {
  return impl_->open.empty() && impl_->taken.empty();
}

std::vector<std::int64_t> tally_grower::open_ids() const {
  std::vector<std::int64_t> out;
  for (auto const& p : impl_->open)
    out.push_back(p.id);
  return out;
}

tally_handoff tally_grower::hand_off(std::vector<std::int64_t> const& ids) {
  impl& g = *impl_;
  std::unordered_map<std::int64_t, std::size_t> at;
  for (std::size_t i = 0; i < g.open.size(); ++i)
    at[g.open[i].id] = i;
  std::vector<char> gone(g.open.size(), 0);
  tally_handoff h;
  for (std::int64_t id : ids) {
    auto it = at.find(id);
    if (it == at.end() || gone[it->second])
      throw std::invalid_argument("hand_off: not an open node");
    gone[it->second] = 1;
    impl::pending& p = g.open[it->second];
    impls::_decision_node const* node = p.tree->get_node();
    impls::_decision_node const* father = node->get_father();
    // Prepruning's bound and pruning's reach, from the root down to the node.
    std::vector<impls::_decision_node const*> above;
    for (impls::_decision_node const* a = father; a != nullptr; a = a->get_father())
      above.push_back(a);
    float bound = 1.0f;
    bool reach = true;
    for (auto a = above.rbegin(); a != above.rend(); ++a) {
      bound = impls::_decision_tree::child_bound((*a)->get_leaf_error(), bound);
      reach = reach && (*a)->known_fract_ != 0.0f;
    }
    h.bounds.push_back(bound);
    h.reach.push_back(reach ? 1 : 0);
    h.nodes.push_back(p.id);
    h.nodes.push_back(static_cast<std::int64_t>(node->get_index()));
    h.nodes.push_back(
        father != nullptr ? static_cast<std::int64_t>(father->get_most_frequent_class()) : -1);
    for (order_range const& r : p.ranges) {
      h.nodes.push_back(static_cast<std::int64_t>(r.first));
      h.nodes.push_back(static_cast<std::int64_t>(r.second));
    }
    h.known.push_back(p.known);
  }
  std::vector<impl::pending> left;
  for (std::size_t i = 0; i < g.open.size(); ++i) {
    if (gone[i])
      g.taken.emplace(g.open[i].id, std::move(g.open[i]));
    else
      left.push_back(std::move(g.open[i]));
  }
  g.open = std::move(left);
  return h;
}

void tally_grower::graft(std::int64_t id, std::string const& path) {
  auto it = impl_->taken.find(id);
  if (it == impl_->taken.end()) throw std::invalid_argument("graft: not a node handed out");
  impls::_decision_tree* tree = it->second.tree;
  impls::_decision_node* father = tree->get_node()->get_father();
  unsigned long index = tree->get_node()->get_index();
  {
    zel::inpout::ibinstream in(path, false);
    tree->load_bin(in, father);
  }
  if (tree->get_node()->get_index() != index)
    throw std::invalid_argument("graft: the subtree of another node");
  impl_->taken.erase(it);
}

void tally_grower::graft(std::int64_t id, std::string const& path, float value) {
  auto it = impl_->taken.find(id);
  impls::_decision_tree* tree = it != impl_->taken.end() ? it->second.tree : nullptr;
  graft(id, path);
  impl_->settled_at[id] = tree;
  impl_->settled.value[tree] = value;
}

std::vector<std::int64_t> tally_grower::preprune() {
  impl& g = *impl_;
  if (!done()) throw std::logic_error("tally_grower::preprune: nodes are still open");
  if (g.prepruned || !g.root) throw std::logic_error("tally_grower::preprune: called twice");
  g.root->preprune(1.0f, &g.settled);
  g.prepruned = true;
  // A collapse above drops a settled subtree: only those still in the tree count.
  std::unordered_set<impls::_decision_tree const*> live;
  std::vector<impls::_decision_tree*> stack{g.root.get()};
  while (!stack.empty()) {
    impls::_decision_tree* t = stack.back();
    stack.pop_back();
    live.insert(t);
    for (unsigned long i = 0; i < t->get_no_childs(); ++i)
      stack.push_back(t->get_child(i));
  }
  std::vector<std::int64_t> out;
  for (auto const& [id, tree] : g.settled_at)
    if (live.count(tree) && !g.settled.reached.count(tree)) {
      out.push_back(id);
      g.unreached[id] = tree;
    }
  return out;
}

void tally_grower::regraft(std::int64_t id, std::string const& path) {
  auto it = impl_->unreached.find(id);
  if (it == impl_->unreached.end())
    throw std::invalid_argument("regraft: not a settled subtree that prepruning left unreached");
  if (!path.empty()) {
    impls::_decision_tree* tree = it->second;
    unsigned long index = tree->get_node()->get_index();
    zel::inpout::ibinstream in(path, false);
    tree->load_bin(in, tree->get_node()->get_father());
    if (tree->get_node()->get_index() != index)
      throw std::invalid_argument("regraft: the subtree of another node");
  }
  impl_->unreached.erase(it);
}

namespace {

// Column c of the gathered rows: orders of the cases of one holder (stride: its columns) into the
// rows given, of a column of the same value set and storage with n rows.
void put_orders(impls::column& to, std::size_t n, std::uint32_t const* orders, std::size_t stride,
                std::vector<std::uint32_t> const& rows) {
  auto fill = [&](auto& v) {
    v.resize(n);
    for (std::size_t i = 0; i < rows.size(); ++i)
      v[rows[i]] = static_cast<std::remove_reference_t<decltype(v[0])>>(orders[i * stride]);
  };
  switch (to.get_storage()) {
    case impls::storage_kind::bit: {
      zel::adt::bitmap& bits = static_cast<impls::column_bool&>(to).bits();
      if (bits.size() != n) bits.resize(n);  // fresh bits read 0: only the second value's are set
      std::uint32_t* words = bits.words();
      for (std::size_t i = 0; i < rows.size(); ++i)
        words[rows[i] >> 5] |= (orders[i * stride] - 1u) << (rows[i] & 31);
      break;
    }
    case impls::storage_kind::u8:
      fill(static_cast<impls::column_typed<std::uint8_t>&>(to).rows());
      break;
    case impls::storage_kind::u16:
      fill(static_cast<impls::column_typed<std::uint16_t>&>(to).rows());
      break;
    case impls::storage_kind::u32:
      fill(static_cast<impls::column_typed<std::uint32_t>&>(to).rows());
      break;
    case impls::storage_kind::u64:
      fill(static_cast<impls::column_typed<unsigned long long>&>(to).rows());
      break;
    default:
      break;
  }
}

// One table of the rows handed for the nodes (rec numbers a node): each node's cases take
// consecutive rows, holder after holder, ascending rows in the order one table of all the rows
// would hold them; cases gets each node's.
std::unique_ptr<impls::table> handed_table(impls::table const& lt, tally_handoff const& h,
                                           std::vector<tally_rows const*> const& parts,
                                           std::size_t rec, std::vector<impls::w_sequence>& cases) {
  std::size_t cols = lt.get_loaded_columns();
  std::size_t k_nodes = h.known.size();
  std::unordered_map<std::int64_t, std::size_t> slot;
  for (std::size_t k = 0; k < k_nodes; ++k)
    slot[h.nodes[k * rec]] = k;
  std::vector<std::size_t> next(k_nodes + 1, 0);
  std::vector<std::vector<std::uint32_t>> rows(parts.size());
  for (tally_rows const* part : parts) {
    if (part->weights.size() != part->nodes.size() ||
        part->orders.size() != part->nodes.size() * cols)
      throw std::invalid_argument("handed rows: not those of this table");
    for (std::int64_t id : part->nodes) {
      auto it = slot.find(id);
      if (it == slot.end()) throw std::invalid_argument("handed rows: of a node not handed");
      ++next[it->second + 1];
    }
  }
  for (std::size_t k = 0; k < k_nodes; ++k)
    next[k + 1] += next[k];
  std::size_t n = next[k_nodes];
  if (n > 0xFFFFFFFFull) throw std::invalid_argument("handed rows: more than 2^32");
  cases.resize(k_nodes);
  for (std::size_t k = 0; k < k_nodes; ++k)
    cases[k].reserve(next[k + 1] - next[k]);
  // Keyed when the holders give keys; all of them must then (holders of no case aside).
  bool keyed = false, unkeyed = false;
  for (tally_rows const* part : parts) {
    if (!part->keys.empty() && part->keys.size() != part->nodes.size())
      throw std::invalid_argument("handed rows: not a key a case");
    if (part->nodes.empty()) continue;
    (part->keys.empty() ? unkeyed : keyed) = true;
  }
  if (keyed && unkeyed) throw std::invalid_argument("handed rows: keyed and not keyed");
  if (keyed) {
    // Each node's cases in the order of their rows among all the rows, whichever holder gave
    // them.
    struct at_key {
      std::uint64_t key;
      std::uint32_t part, i;
    };
    std::vector<std::vector<at_key>> by(k_nodes);
    for (std::size_t k = 0; k < k_nodes; ++k)
      by[k].reserve(next[k + 1] - next[k]);
    for (std::size_t p = 0; p < parts.size(); ++p) {
      rows[p].resize(parts[p]->nodes.size());
      for (std::size_t i = 0; i < parts[p]->nodes.size(); ++i)
        by[slot[parts[p]->nodes[i]]].push_back(
            {parts[p]->keys[i], static_cast<std::uint32_t>(p), static_cast<std::uint32_t>(i)});
    }
    for (std::size_t k = 0; k < k_nodes; ++k) {
      std::sort(by[k].begin(), by[k].end(),
                [](at_key const& a, at_key const& b) { return a.key < b.key; });
      for (at_key const& e : by[k]) {
        auto r = static_cast<std::uint32_t>(next[k]++);
        rows[e.part][e.i] = r;
        cases[k].push_back(r, parts[e.part]->weights[e.i]);
      }
      std::vector<at_key>().swap(by[k]);
    }
  } else {
    for (std::size_t p = 0; p < parts.size(); ++p) {
      rows[p].reserve(parts[p]->nodes.size());
      for (std::size_t i = 0; i < parts[p]->nodes.size(); ++i) {
        std::size_t k = slot[parts[p]->nodes[i]];
        auto r = static_cast<std::uint32_t>(next[k]++);
        rows[p].push_back(r);
        cases[k].push_back(r, parts[p]->weights[i]);
      }
    }
  }
  std::unique_ptr<impls::table> t(lt.clone_metadata());
  t->set_state(n, cols, lt.get_class_index(), lt.get_weights_index(), lt.get_verbosity(),
               lt.is_for_tree());
  for (std::size_t c = 0; c < cols; ++c) {
    impls::column* col = t->get_column(c);
    if (col->get_storage() == impls::storage_kind::none || col->is_weights()) continue;
    for (std::size_t p = 0; p < parts.size(); ++p)
      put_orders(*col, n, parts[p]->orders.data() + c, cols, rows[p]);
    if (parts.empty()) put_orders(*col, n, nullptr, cols, {});
  }
  return t;
}

}  // namespace

std::vector<float> tally_grower::grow_handed(table const& like, tally_handoff const& h,
                                             std::vector<tally_rows const*> const& parts,
                                             tree_options const& o, bool whole, bool unit,
                                             std::vector<std::string> const& paths,
                                             std::vector<std::string> const& unreached_paths) {
  impls::table const* lt = like.get_impl();
  if (lt->get_class() == nullptr || !lt->is_for_tree())
    throw std::invalid_argument("the table has no class column");
  unsigned long atts = lt->get_no_attributes();
  std::size_t rec = 3 + 2 * atts;
  std::size_t k_nodes = h.known.size();
  if (h.nodes.size() != k_nodes * rec || paths.size() != k_nodes)
    throw std::invalid_argument("handed nodes: short or long list");
  bool settle = !unreached_paths.empty();
  if (settle && (unreached_paths.size() != k_nodes || h.bounds.size() != k_nodes ||
                 h.reach.size() != k_nodes))
    throw std::invalid_argument("handed nodes: bounds, reach or unreached paths short or long");
  bool pruned = o.prune == pruning::error;
  float coeff = impls::_decision_tree::CFCoefficient(o.confidence);
  std::vector<float> values;
  std::vector<impls::w_sequence> cases;
  std::unique_ptr<impls::table> t = handed_table(*lt, h, parts, rec, cases);
  // The options a single table's growing sets.
  bool any_order = whole;
  std::vector<char> one_bit(atts);
  for (unsigned long a = 0; a < atts; ++a) {
    impls::column const* col = t->get_attribute(a);
    if ((col->is_discrete() || col->is_continuous()) && col->get_o_set()->contains_null())
      any_order = false;
    one_bit[a] = col->is_discrete() && col->get_storage() == impls::storage_kind::bit;
  }
  for (std::size_t k = 0; k < k_nodes; ++k) {
    std::int64_t const* r = h.nodes.data() + k * rec;
    impls::w_sequence& c = cases[k];
    double total = 0.0;
    for (impls::w_case const& w : c)
      total += w.second;
    double cap = 64.0 * static_cast<double>(c.size()) + 4096.0;
    impls::xlogx_table logs(whole ? static_cast<std::uint64_t>(std::min(total, cap)) : 0);
    impls::options opts;
    opts.logs = &logs;
    opts.any_order = any_order;
    opts.unit_weights = any_order && unit;
    opts.one_bit = &one_bit;
    impls::_decision_node father(static_cast<impls::w_sequence*>(nullptr));
    impls::_decision_tree tree;
    if (r[2] < 0) {
      // The root, activated as growing on one table activates it.
      tree.set_node(new impls::_decision_node(&c));
      grower::activate(*tree.get_node(), t.get());
    } else {
      father.most_frequent_ = static_cast<std::uint32_t>(r[2]);
      auto* node = new impls::_decision_node(&father, static_cast<unsigned long>(r[1]));
      tree.set_node(node);
      std::vector<order_range> ranges(atts);
      for (unsigned long a = 0; a < atts; ++a)
        ranges[a] = order_range(static_cast<unsigned long>(r[3 + 2 * a]),
                                static_cast<unsigned long>(r[4 + 2 * a]));
      node->reset_ranges(&ranges);
      node->all_cases_ = new impls::w_sequence(std::move(c));
      node->owns_cases_ = true;
      node->known_fract_ = h.known[k];
      grower::compute_statistics(*node, t.get());
      node->activated_ = true;
    }
    impls::split_scratch scratch;
    tree.grow_depth(t.get(), 1, o.min_cases, &opts, nullptr, false, scratch);
    tree.get_node()->all_cases_ = nullptr;  // a root's cases are the caller's: not sent
    tree.get_node()->owns_cases_ = false;
    auto save = [](impls::_decision_tree const& grown, std::string const& path) {
      zel::inpout::obinstream out(path, false, 0);
      grown.save_bin(out);
      if (!out.finish()) throw std::runtime_error("could not write " + path);
    };
    if (settle) {
      // Pruning looks at each node's subtree alone, so the subtree settles here as it would in
      // the whole tree; prepruning also needs the bound its ancestors give it, and whether it
      // is reached at all, which only the whole tree tells: both forms go back when asked.
      bool prune_here = pruned && h.reach[k] != 0;
      {
        std::unique_ptr<impls::_decision_tree> alone(tree.clone());
        if (prune_here) alone->prune_dt(t.get(), o.confidence, coeff);
        save(*alone, unreached_paths[k]);
      }
      values.push_back(tree.preprune(h.bounds[k]));
      if (prune_here) tree.prune_dt(t.get(), o.confidence, coeff);
    }
    save(tree, paths[k]);
    c = impls::w_sequence();
  }
  return values;
}

std::vector<std::int64_t> tally_grower::open() const {
  std::vector<std::int64_t> out;
  for (auto const& p : impl_->open) {
    out.push_back(p.id);
    for (order_range const& r : p.ranges) {
      out.push_back(static_cast<std::int64_t>(r.first));
      out.push_back(static_cast<std::int64_t>(r.second));
    }
  }
  return out;
}

std::size_t tally_grower::tally_size() const {
  std::size_t n = 0;
  for (auto const& p : impl_->open)
    n += node_size(impl_->t, p.ranges);
  return n;
}

namespace {

// Entries at ascending offsets, whole rows of cols, inside the open nodes' total.
void check_tallies(tally_view const& v, std::vector<std::int64_t> const& counts, std::size_t n_open,
                   std::size_t cols, std::int64_t total) {
  if (counts.size() != n_open || v.n_rows != v.n * cols)
    throw std::invalid_argument("tallies: not those of the open nodes");
  std::int64_t const* at = v.at;
  for (std::size_t i = 0; i < v.n; ++i) {
    if (at[i] < 0 || at[i] + static_cast<std::int64_t>(cols) > total ||
        at[i] % static_cast<std::int64_t>(cols) != 0 || (i > 0 && at[i] <= at[i - 1]))
      throw std::invalid_argument("tallies: not those of the open nodes");
  }
}

// One node's tallies, those from off on: its class weights into classes, each attribute's into
// freq (discrete attributes dense, continuous ones compacted to the rows that hold a weight, with
// their orders: a deep node holds few of an attribute's values) and blocks. entry moves past the
// node's entries; returned: the offset past its tallies.
std::int64_t node_tallies(impls::table const& t, std::vector<order_range> const& ranges,
                          std::size_t cols, std::int64_t off, tally_view const& v,
                          std::size_t& entry, std::vector<std::vector<float>>& freq,
                          std::vector<std::vector<std::uint32_t>>& orders,
                          std::vector<impls::tally_block>& blocks, std::vector<float>& classes) {
  unsigned long atts = t.get_no_attributes();
  std::fill(classes.begin(), classes.end(), 0.0f);
  std::vector<std::int64_t> start(atts + 1);
  std::int64_t pos = off + static_cast<std::int64_t>(cols);
  for (unsigned long a = 0; a < atts; ++a) {
    impls::column const* col = t.get_attribute(a);
    std::size_t n = impls::tally_rows(*col, ranges[a]);
    start[a] = pos;
    pos += static_cast<std::int64_t>(n * cols);
    freq[a].clear();
    orders[a].clear();
    if (n == 0) continue;
    if (col->is_continuous()) {
      // Room for every row the tallies hold in this block, read once: the blocks of the top
      // nodes run to millions of rows.
      auto first = std::lower_bound(v.at + entry, v.at + v.n, start[a]);
      auto past = std::lower_bound(first, v.at + v.n, pos);
      freq[a].reserve((static_cast<std::size_t>(past - first) + 1) * cols);
      orders[a].reserve(static_cast<std::size_t>(past - first) + 1);
      freq[a].assign(cols, 0.0f);  // row 0: the unknown value
      orders[a].push_back(0);
    } else {
      freq[a].assign(n * cols, 0.0f);
    }
  }
  start[atts] = pos;
  unsigned long a = 0;
  std::int64_t const* at = v.at;
  for (; entry < v.n && at[entry] < pos; ++entry) {
    float const* row = v.rows + entry * cols;
    if (at[entry] < off + static_cast<std::int64_t>(cols)) {
      std::copy(row, row + static_cast<std::ptrdiff_t>(cols), classes.begin());
      continue;
    }
    while (at[entry] >= start[a + 1])
      ++a;
    auto r = static_cast<std::size_t>((at[entry] - start[a]) / static_cast<std::int64_t>(cols));
    if (orders[a].empty()) {
      std::copy(row, row + static_cast<std::ptrdiff_t>(cols), freq[a].begin() + r * cols);
    } else if (r == 0) {
      std::copy(row, row + static_cast<std::ptrdiff_t>(cols), freq[a].begin());
    } else {
      unsigned long base = std::max<unsigned long>(ranges[a].first, 1) - 1;
      freq[a].insert(freq[a].end(), row, row + static_cast<std::ptrdiff_t>(cols));
      orders[a].push_back(static_cast<std::uint32_t>(base + r));
    }
  }
  for (unsigned long b = 0; b < atts; ++b) {
    blocks[b].freq = freq[b].data();
    blocks[b].orders = orders[b].empty() ? nullptr : orders[b].data();
    blocks[b].rows = orders[b].size();
  }
  return pos;
}

// A table of x·log2(x) for whole x up to at least n (within its cap), shared by the searches of
// one process: built once at the root's weight rather than once a search. The terms are those the
// search computes without it, so the scores are the same bits.
std::shared_ptr<impls::xlogx_table const> shared_logs(std::uint64_t n) {
  static std::mutex m;
  static std::shared_ptr<impls::xlogx_table const> logs;
  static std::uint64_t built = 0;
  std::lock_guard<std::mutex> lock(m);
  if (!logs || built < n) {
    logs = std::make_shared<impls::xlogx_table const>(n);
    built = n;
  }
  return logs;
}

// The weight of row r of an attribute's tallies.
float row_weight(float const* f, std::size_t cols, std::size_t r) {
  float s = 0.0f;
  for (std::size_t k = 0; k < cols; ++k)
    s += f[r * cols + k];
  return s;
}

// A continuous attribute's tallies (f, the rows' orders ord) cut at order at: below, the lowest
// order lo1 and the weight w1 (the unknown's included); above, the highest order hi2 and the
// weight w2. Returned: at when both sides hold a weight, else 0.
unsigned long cut_at(unsigned long at, float const* f, std::vector<std::uint32_t> const& ord,
                     std::size_t cols, float unknown, unsigned long& lo1, unsigned long& hi2,
                     float& w1, float& w2) {
  lo1 = at;
  hi2 = at;
  w1 = unknown;
  w2 = 0.0f;
  bool below = false, above = false;
  for (std::size_t r = 1; r < ord.size(); ++r) {
    float w = row_weight(f, cols, r);
    if (w == 0.0f) continue;
    unsigned long order = ord[r];
    if (order <= at) {
      below = true;
      lo1 = std::min(lo1, order);
      w1 += w;
    } else {
      above = true;
      hi2 = std::max(hi2, order);
      w2 += w;
    }
  }
  return below && above ? at : 0UL;
}

}  // namespace

tally_decisions tally_grower::decide(std::vector<std::int64_t> const& at,
                                     std::vector<float> const& rows,
                                     std::vector<std::int64_t> const& counts) {
  std::vector<std::int64_t> all(impl_->t->get_no_attributes());
  for (std::size_t a = 0; a < all.size(); ++a)
    all[a] = static_cast<std::int64_t>(a);
  tally_scores s = score_on(impl_->t, impl_->o, open(), all,
                            {at.data(), at.size(), rows.data(), rows.size()}, counts);
  return decide_scored({&s});
}

tally_scores tally_grower::score(table const& like, tree_options const& o,
                                 std::vector<std::int64_t> const& open,
                                 std::vector<std::int64_t> const& atts,
                                 std::vector<std::int64_t> const& at,
                                 std::vector<float> const& rows,
                                 std::vector<std::int64_t> const& counts) {
  return score_on(like.get_impl(), o, open, atts, {at.data(), at.size(), rows.data(), rows.size()},
                  counts);
}

tally_scores tally_grower::score(table const& like, tree_options const& o,
                                 std::vector<std::int64_t> const& open,
                                 std::vector<std::int64_t> const& atts, tally_view const& tallies,
                                 std::vector<std::int64_t> const& counts) {
  return score_on(like.get_impl(), o, open, atts, tallies, counts);
}

tally_scores tally_grower::score_on(impls::table* t, tree_options const& o,
                                    std::vector<std::int64_t> const& open,
                                    std::vector<std::int64_t> const& atts, tally_view const& v,
                                    std::vector<std::int64_t> const& counts) {
  if (t->get_class() == nullptr) throw std::invalid_argument("the table has no class column");
  unsigned long classes_n = t->get_class()->get_distinct();
  std::size_t cols = classes_n + 1;
  unsigned long n_atts = t->get_no_attributes();
  for (std::int64_t a : atts) {
    if (a < 0 || static_cast<unsigned long>(a) >= n_atts)
      throw std::invalid_argument("scores: no such attribute");
  }
  std::vector<std::vector<order_range>> node_ranges;
  std::size_t total = 0;
  for (std::size_t p = 0; p < open.size();) {
    node_ranges.push_back(ranges_at(open, p, n_atts));
    total += node_size(t, node_ranges.back());
  }
  check_tallies(v, counts, node_ranges.size(), cols, static_cast<std::int64_t>(total));
  tally_scores s;
  s.atts = atts;
  std::vector<std::vector<float>> freq(n_atts);
  std::vector<std::vector<std::uint32_t>> orders(n_atts);
  std::vector<impls::tally_block> blocks(n_atts);
  std::vector<float> classes(cols);
  impls::options opts;
  impls::split_scratch scratch;
  std::int64_t off = 0;
  std::size_t entry = 0;
  for (std::size_t i = 0; i < node_ranges.size(); ++i) {
    std::vector<order_range> const& ranges = node_ranges[i];
    off = node_tallies(*t, ranges, cols, off, v, entry, freq, orders, blocks, classes);
    s.classes.insert(s.classes.end(), classes.begin(), classes.end());
    s.counts.push_back(counts[i]);
    // A node of its own, activated as the deciding grower activates its node: the same weights,
    // so the same early leaves and the same scores.
    impls::_decision_node node(static_cast<impls::w_sequence*>(nullptr));
    grower::activate_from(node, classes, static_cast<unsigned long>(counts[i]), 1.0f, ranges);
    bool leaf = grower::split_pre(node, t, 1, o.min_cases);
    float weight = node.get_cases_weight();
    std::shared_ptr<impls::xlogx_table const> logs = shared_logs(static_cast<std::uint64_t>(
        std::min(static_cast<double>(weight), 64.0 * static_cast<double>(counts[i]) + 4096.0)));
    opts.logs = logs.get();
    for (std::int64_t a : atts) {
      impls::splitting_desc none;
      impls::splitting_desc& d = leaf ? none : node.descs()[static_cast<std::size_t>(a)];
      impls::column const* col = t->get_attribute(static_cast<unsigned long>(a));
      if (!leaf) {
        impls::score_tallies(*col, classes_n, weight, node.cases_count_, ranges[a], blocks[a],
                             o.min_cases, &opts, scratch, d);
      }
      s.gains.push_back(d.gain);
      s.gains.push_back(d.split_info);
      std::int64_t children = 0, cut_order = 0;
      std::string threshold;
      if (!leaf && d.gain > impls::kNoGain) {
        // The division the grower makes of the node if this attribute is chosen.
        float const* f = freq[a].data();
        float unknown = f[0];
        threshold = col->find_threshold(d.low, d.high);
        if (col->is_continuous()) {
          // As the grower distributes: a cut that leaves one side empty (the midpoint rounded
          // onto the higher value) takes the lower value; one that still does makes a leaf.
          unsigned long lo1, hi2;
          float w1, w2;
          unsigned long cut = cut_at(col->get_index(threshold.c_str()), f, orders[a], cols, unknown,
                                     lo1, hi2, w1, w2);
          if (cut == 0) {
            threshold = col->get_o_set()->get_value(d.low);
            cut = cut_at(col->get_index(threshold.c_str()), f, orders[a], cols, unknown, lo1, hi2,
                         w1, w2);
          }
          if (cut != 0) {
            cut_order = static_cast<std::int64_t>(cut);
            unsigned long lo2 = cut;
            if (unknown != 0.0f) lo1 = lo2 = 0;
            children = 2;
            s.shares.push_back(w1 / weight);
            s.shares.push_back(w2 / (weight - unknown));
            s.ranges.insert(s.ranges.end(),
                            {static_cast<std::int64_t>(lo1), static_cast<std::int64_t>(cut + 1),
                             static_cast<std::int64_t>(lo2), static_cast<std::int64_t>(hi2 + 1)});
          }
        } else {
          std::size_t k = col->get_distinct();
          float known = weight - unknown;
          children = static_cast<std::int64_t>(k);
          for (std::size_t v = 1; v <= k; ++v) {
            s.shares.push_back(row_weight(f, cols, v) / known);
            s.ranges.push_back(static_cast<std::int64_t>(v));
            s.ranges.push_back(static_cast<std::int64_t>(v + 1));
          }
        }
      }
      s.splits.insert(s.splits.end(),
                      {static_cast<std::int64_t>(d.branches), static_cast<std::int64_t>(d.low),
                       static_cast<std::int64_t>(d.high), children, cut_order});
      s.thresholds.push_back(std::move(threshold));
    }
    grower::disactivate(node);
  }
  return s;
}

tally_decisions tally_grower::decide_scored(std::vector<tally_scores const*> const& groups) {
  impl& g = *impl_;
  impls::table* t = g.t;
  std::size_t cols = t->get_class()->get_distinct() + 1;
  unsigned long atts = t->get_no_attributes();
  std::size_t n = g.open.size();
  auto bad = [] { throw std::invalid_argument("scores: not those of the open nodes"); };
  // Each attribute's group and place in it; each group's first child of each (node, attribute).
  std::vector<std::pair<std::size_t, std::size_t>> where(atts, {groups.size(), 0});
  std::vector<std::vector<std::size_t>> first_child(groups.size());
  for (std::size_t k = 0; k < groups.size(); ++k) {
    tally_scores const& s = *groups[k];
    std::size_t m = s.atts.size();
    for (std::size_t j = 0; j < m; ++j) {
      if (s.atts[j] < 0 || static_cast<unsigned long>(s.atts[j]) >= atts ||
          where[static_cast<std::size_t>(s.atts[j])].first != groups.size())
        bad();
      where[static_cast<std::size_t>(s.atts[j])] = {k, j};
    }
    if (s.classes.size() != n * cols || s.counts.size() != n || s.gains.size() != 2 * n * m ||
        s.splits.size() != 5 * n * m || s.thresholds.size() != n * m)
      bad();
    std::size_t c = 0;
    for (std::size_t idx = 0; idx < n * m; ++idx) {
      first_child[k].push_back(c);
      c += static_cast<std::size_t>(s.splits[5 * idx + 3]);
    }
    if (s.shares.size() != c || s.ranges.size() != 2 * c) bad();
  }
  for (auto const& w : where)
    if (w.first == groups.size()) bad();
  if (groups.empty() && n > 0) bad();
  tally_decisions d;
  std::vector<impl::pending> next;
  for (std::size_t i = 0; i < n; ++i) {
    impl::pending& p = g.open[i];
    impls::_decision_node* node = p.tree->get_node();
    tally_scores const& first = *groups[0];
    std::vector<float> classes(first.classes.begin() + static_cast<std::ptrdiff_t>(i * cols),
                               first.classes.begin() + static_cast<std::ptrdiff_t>((i + 1) * cols));
    grower::activate_from(*node, classes, static_cast<unsigned long>(first.counts[i]), p.known,
                          p.ranges);
    long best = -1;
    if (!grower::split_pre(*node, t, 1, g.o.min_cases)) {
      std::vector<impls::splitting_desc>& descs = node->descs();
      for (unsigned long a = 0; a < atts; ++a) {
        tally_scores const& s = *groups[where[a].first];
        std::size_t idx = i * s.atts.size() + where[a].second;
        impls::splitting_desc& e = descs[a];
        e.branches = static_cast<unsigned long>(s.splits[5 * idx]);
        e.low = static_cast<unsigned long>(s.splits[5 * idx + 1]);
        e.high = static_cast<unsigned long>(s.splits[5 * idx + 2]);
        e.att = t->get_attribute(a);
        e.gain = s.gains[2 * idx];
        e.split_info = s.gains[2 * idx + 1];
      }
      // The engine's choice among the attributes; the threshold is the scoring side's, which
      // holds the value sets.
      best = impls::choose_split(descs, node->split_status_ == 1);
    }
    std::size_t children = 0, idx = 0, k = 0;
    if (best >= 0) {
      k = where[static_cast<std::size_t>(best)].first;
      idx = i * groups[k]->atts.size() + where[static_cast<std::size_t>(best)].second;
      children = static_cast<std::size_t>(groups[k]->splits[5 * idx + 3]);
      if (children == 0) grower::set_as_leaf(*node);
    }
    if (children == 0) {
      d.nodes.insert(d.nodes.end(), {p.id, -1, 0, 0});
      grower::disactivate(*node);
      continue;
    }
    tally_scores const& s = *groups[k];
    node->leaf_or_att_ = static_cast<unsigned long>(best);
    node->status_ = impls::_decision_node::SPLIT_NODE;
    node->partition_.threshold = s.thresholds[idx];
    node->partition_.branches = node->descs()[static_cast<std::size_t>(best)].branches;
    std::size_t c0 = first_child[k][idx];
    std::int64_t first_id = g.next;
    d.nodes.insert(d.nodes.end(), {p.id, best, first_id, static_cast<std::int64_t>(children)});
    d.thresholds.push_back(node->get_threshold());
    d.cuts.push_back(s.splits[5 * idx + 4]);
    for (std::size_t b = 0; b < children; ++b) {
      float share = s.shares[c0 + b];
      d.shares.push_back(share);
      auto* child = new impls::_decision_node(node, b + 1);
      auto* sub = new impls::_decision_tree();
      sub->set_node(child);
      p.tree->push_back_child(sub);
      std::vector<order_range> r = p.ranges;
      r[static_cast<std::size_t>(best)] =
          order_range(static_cast<unsigned long>(s.ranges[2 * (c0 + b)]),
                      static_cast<unsigned long>(s.ranges[2 * (c0 + b) + 1]));
      next.push_back({g.next++, sub, share, std::move(r)});
    }
    grower::disactivate(*node);
  }
  g.open = std::move(next);
  return d;
}

std::unique_ptr<tree_model> tally_grower::finish() {
  impl& g = *impl_;
  if (!done()) throw std::logic_error("tally_grower::finish: nodes are still open");
  if (!g.root) throw std::logic_error("tally_grower::finish: called twice");
  if (!g.prepruned && !preprune().empty())
    throw std::logic_error("tally_grower::finish: settled subtrees left unreached need regraft");
  if (!g.unreached.empty())
    throw std::logic_error("tally_grower::finish: settled subtrees left unreached need regraft");
  auto tree = std::make_unique<dtree>(g.t->get_name());
  tree->set_conf_level(g.o.confidence);
  tree->set_min_obj(g.o.min_cases);
  tree->set_pruning_strategy(g.o.prune == pruning::none ? dtree::NO_PRUNING : dtree::DT_PRUNING);
  tree->get_impl()->adopt_grown(g.t, std::move(g.root));
  return std::unique_ptr<tree_model>(new tree_model(std::move(tree)));
}

void tally_grower::set_training(tree_model& model, std::vector<float> const& flat) {
  impls::decision_tree* tree = model.facade().get_impl();
  auto m = std::make_unique<impls::conf_matrix>(tree->get_metadata());
  std::size_t n = m->size();
  if (flat.size() != n * n) throw std::invalid_argument("training matrix: wrong size");
  for (std::size_t i = 0; i < n; ++i)
    for (std::size_t j = 0; j < n; ++j)
      m->add(i, j, flat[i * n + j]);
  tree->set_prediction(std::move(m));
}

}  // namespace brix
