// Rulesets: reading rules off a pruned tree, generalising and selecting them on the training
// cases, prediction on tables, the ruleset file and its text, JSON and PMML forms.
#include "brix/rules.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <limits>
#include <memory>
#include <ostream>
#include <sstream>
#include <stdexcept>
#include <utility>

#include "brix/impls/model/decision_tree.h"
#include "brix/impls/storage/o_set.h"
#include "brix/impls/storage/table.h"
#include "brix/tree_writer.h"
#include "brix/writers/shared.h"

namespace brix {

namespace {

using impls::_decision_node;
using impls::_decision_tree;
using impls::column;
using impls::o_set;

[[noreturn]] void bad(std::string const& what) {
  throw std::invalid_argument("[brix::rule_model] " + what);
}

// Whether rule a decides over rule b where both fire: the more confident, of equally confident
// ones the one of the first class (so the class decided is the first of the largest share).
bool decides_over(rule const& a, rule const& b) {
  return a.confidence > b.confidence || (a.confidence == b.confidence && a.cls < b.cls);
}

// A condition bound to a table: satisfied by a known order in [lo, hi].
struct order_range {
  unsigned long att = 0;
  unsigned long lo = 1, hi = 0;
  // A test of value one of several: per order of the column, whether it passes (order 0, the
  // unknown value, does not); lo and hi then span every known order. Null for a range.
  std::shared_ptr<std::vector<char> const> set;
  bool holds(unsigned long o) const {
    return o != 0 && o >= lo && o <= hi && (!set || (o < set->size() && (*set)[o] != 0));
  }
};

// Whether a condition of values one of a set fails each of n cases of orders ord: into out (1:
// fails).
template <class Out>
void set_fails(std::vector<char> const& set, std::uint32_t const* ord, std::size_t n, Out out) {
  for (std::size_t i = 0; i < n; ++i)
    out(i, ord[i] >= set.size() || set[ord[i]] == 0);
}

std::string braced(std::vector<std::string> const& values) {
  std::string s = "{";
  for (std::size_t i = 0; i < values.size(); ++i)
    s += (i ? ", " : "") + values[i];
  return s + "}";
}

// The count of a value set's known orders whose values are not above text, compared as cmp's
// data type reads them; the orders ascend with the values.
unsigned long not_above_count(o_set& cmp, o_set* values, std::string const& text) {
  unsigned long lo = 0, hi = values->size_of_known();
  while (lo < hi) {
    unsigned long mid = lo + (hi - lo + 1) / 2;
    if (cmp.leq(values->get_value(mid), text) == 1)
      hi = mid - 1;
    else
      lo = mid;
  }
  return lo;
}

order_range bind_condition(rule_condition const& c, o_set& cmp, column const* col) {
  order_range r;
  r.att = c.attribute;
  o_set* values = col->get_o_set();
  values->freeze();
  switch (c.test) {
    case rule_condition::equal: {
      unsigned long o = col->get_index(c.value.c_str());
      if (o != 0) r.lo = r.hi = o;
      break;
    }
    case rule_condition::not_above:
      r.lo = 1;
      r.hi = not_above_count(cmp, values, c.value);
      break;
    case rule_condition::above:
      r.lo = not_above_count(cmp, values, c.value) + 1;
      r.hi = values->size_of_known();
      break;
    case rule_condition::in: {
      auto set = std::make_shared<std::vector<char>>(values->size_of_known() + 1, 0);
      bool any = false;
      for (std::string const& v : c.values) {
        unsigned long o = col->get_index(v.c_str());
        if (o == 0 || o >= set->size()) continue;
        (*set)[o] = 1;
        any = true;
      }
      if (any) {
        r.lo = 1;
        r.hi = values->size_of_known();
        r.set = std::move(set);
      }
      break;
    }
  }
  return r;
}

column const* column_named(impls::table const& tab, std::string const& name) {
  for (unsigned long i = 0; i < tab.get_loaded_columns(); ++i)
    if (tab.get_column(i)->get_name() == name) return tab.get_column(i);
  return nullptr;
}

// Each row's weight, read through the weights column's value set once per distinct value.
std::vector<float> row_weights(impls::table const& tab) {
  std::vector<float> w(tab.get_no_rows(), 1.0f);
  column const* wc = tab.get_weights();
  if (wc == nullptr) return w;
  std::vector<float> of(wc->get_distinct() + 1, 1.0f);
  for (unsigned long o = 1; o < of.size(); ++o)
    of[o] = static_cast<float>(std::atof(wc->get_o_set()->get_value(o).c_str()));
  for (unsigned long r = 0; r < w.size(); ++r)
    w[r] = of[wc->get_row_index(r)];
  return w;
}

// Per table class order, the index + 1 of the same class text among classes (0: none).
std::vector<unsigned long> class_map(column const* cls, std::vector<std::string> const& classes) {
  std::vector<unsigned long> map(cls->get_distinct() + 1, 0);
  for (unsigned long o = 1; o < map.size(); ++o) {
    std::string v = cls->get_o_set()->get_value(o);
    auto it = std::find(classes.begin(), classes.end(), v);
    if (it != classes.end()) map[o] = static_cast<unsigned long>(it - classes.begin()) + 1;
  }
  return map;
}

// The upper confidence bound of a rule's error rate at the pruning level: pruning's estimate of
// extra errors, on the weight the rule covers.
double pessimistic(float cf, float coeff, double n, double e) {
  if (n <= 0) return 1.0;
  return (e + _decision_tree::add_errs(cf, coeff, static_cast<float>(n), static_cast<float>(e))) /
         n;
}

// Whether dropping a condition with pessimistic rate r is the pass's choice so far: the rate must
// not rise above the rule's (best_rate starts there), and among drops the first of the lowest wins.
bool drop_wins(double r, double best_rate, bool none_yet) {
  return r <= best_rate && (none_yet || r < best_rate);
}

double log2_binomial(double n, double k) {
  if (k <= 0 || k >= n) return 0.0;
  return (std::lgamma(n + 1) - std::lgamma(k + 1) - std::lgamma(n - k + 1)) / std::log(2.0);
}

// Whether every case satisfying the conditions `tight` satisfies `c` too; cmp compares
// thresholds of c's attribute.
bool implied(rule_condition const& c, std::vector<rule_condition> const& tight, o_set& cmp) {
  for (rule_condition const& t : tight) {
    if (t.attribute != c.attribute || t.test != c.test) continue;
    switch (c.test) {
      case rule_condition::equal:
        if (t.value == c.value) return true;
        break;
      case rule_condition::not_above:  // t.value <= c.value
        if (cmp.leq(t.value, c.value) != 1) return true;
        break;
      case rule_condition::above:  // t.value >= c.value
        if (cmp.leq(c.value, t.value) != 1) return true;
        break;
      case rule_condition::in:  // t.values within c.values
        if (std::all_of(t.values.begin(), t.values.end(), [&](std::string const& v) {
              return std::find(c.values.begin(), c.values.end(), v) != c.values.end();
            }))
          return true;
        break;
    }
  }
  return false;
}

char const* op_text(rule_condition::kind k) {
  return k == rule_condition::equal       ? "="
         : k == rule_condition::not_above ? "<="
         : k == rule_condition::above     ? ">"
                                          : "in";
}

std::string num(double v) {
  char buf[40];
  std::snprintf(buf, sizeof buf, "%.9g", v);
  return buf;
}

// The training cases as the rules see them: per case its weight and class (an index, from 0)
// and the orders of the attributes the rules test.
struct cases {
  std::vector<float> w;
  std::vector<unsigned long> cls;
  std::vector<std::vector<std::uint32_t>> orders;  // per attribute; empty when untested
  double total = 0;
  std::vector<double> per_class;
};

// What generalising a rule leaves: its conditions kept, the cases it covers and its figures.
struct general {
  std::vector<rule_condition> conditions;
  std::vector<std::uint32_t> covered;
  double n = 0, e = 0;
};

// A bit per order of a full word of 64 whose value lies outside [lo, lo + span] (0, unknown,
// wraps past the span): compared a byte each (a loop the compiler vectorises), then packed eight
// bytes of 0 or 1 at a time by a multiply that gathers byte i's low bit into bit i.
std::uint64_t outside64(std::uint32_t const* ord, std::uint32_t lo, std::uint32_t span) {
  unsigned char b[64];
  for (std::size_t i = 0; i < 64; ++i)
    b[i] = static_cast<unsigned char>(static_cast<std::uint32_t>(ord[i] - lo) > span);
  std::uint64_t word = 0;
  for (std::size_t k = 0; k < 8; ++k) {
    std::uint64_t x;
    std::memcpy(&x, b + 8 * k, 8);
    word |= ((x * 0x0102040810204080ull) >> 56) << (8 * k);
  }
  return word;
}

// The cases failing each condition, a bit a case, kept for the conditions of the last rules:
// leaves read in tree order share most of their paths, so most conditions come from here.
class fail_sets {
 public:
  explicit fail_sets(std::size_t n_cases)
      : n_(n_cases), words_((n_cases + 63) / 64), slots_(kSlots), bits_(kSlots * words_, 0) {}
  std::size_t words() const { return words_; }
  // The set of condition b; sets handed out since the last next_rule() stay valid.
  std::uint64_t const* of(order_range const& b, cases const& cs) {
    auto lo = static_cast<std::uint32_t>(b.lo), hi = static_cast<std::uint32_t>(b.hi);
    bool none = hi < lo || lo == 0;
    key k{none ? ~0ul : b.att, none ? 0u : lo, none ? 0u : hi,
          b.set && !none ? *b.set : std::vector<char>()};
    std::size_t victim = 0;
    for (std::size_t s = 0; s < kSlots; ++s) {
      if (slots_[s].used && slots_[s].k == k) {
        slots_[s].stamp = rule_;
        return &bits_[s * words_];
      }
      if (slots_[s].stamp < slots_[victim].stamp) victim = s;
    }
    slot& v = slots_[victim];
    v = {k, rule_, true};
    std::uint64_t* out = &bits_[victim * words_];
    std::fill(out, out + words_, 0);
    add_failing(b, cs, out);
    return out;
  }
  // Adds to out (words() words) the cases failing condition b.
  void add_failing(order_range const& b, cases const& cs, std::uint64_t* out) const {
    auto lo = static_cast<std::uint32_t>(b.lo), hi = static_cast<std::uint32_t>(b.hi);
    if (hi < lo || lo == 0) {
      for (std::size_t i = 0; i < n_; ++i)
        out[i >> 6] |= std::uint64_t{1} << (i & 63);
      return;
    }
    if (b.set) {
      set_fails(*b.set, cs.orders[b.att].data(), n_, [out](std::size_t i, bool f) {
        out[i >> 6] |= static_cast<std::uint64_t>(f) << (i & 63);
      });
      return;
    }
    // Known orders in [lo, hi]: o - lo wraps past the span for 0 and for orders below lo.
    std::uint32_t const* ord = cs.orders[b.att].data();
    std::uint32_t span = hi - lo;
    for (std::size_t w = 0; w < words_; ++w) {
      if (w * 64 + 64 <= n_) {
        out[w] |= outside64(ord + w * 64, lo, span);
        continue;
      }
      std::uint64_t word = 0;
      std::size_t from = w * 64, to = std::min(n_, from + 64);
      for (std::size_t i = from; i < to; ++i)
        word |= static_cast<std::uint64_t>(static_cast<std::uint32_t>(ord[i] - lo) > span)
                << (i - from);
      out[w] |= word;
    }
  }
  void next_rule() { ++rule_; }

 private:
  // More than the 64 conditions a rule takes from here, so a rule's own sets stay.
  static constexpr std::size_t kSlots = 160;
  struct key {
    unsigned long att;
    std::uint32_t lo, hi;
    std::vector<char> set;  // a condition of values one of a set; empty for a range
    bool operator==(key const& o) const {
      return att == o.att && lo == o.lo && hi == o.hi && set == o.set;
    }
  };
  struct slot {
    key k{0, 0, 0, {}};
    std::uint64_t stamp = 0;
    bool used = false;
  };
  std::size_t n_, words_;
  std::vector<slot> slots_;
  std::vector<std::uint64_t> bits_;
  std::uint64_t rule_ = 1;
};

// Drops, one at a time, the condition whose loss gives the lowest pessimistic error rate, as
// long as that rate is no higher than the rule's with it. Each condition's failing cases come as
// a bitset, and a pass finds, a word at a time, the cases failing exactly one condition still
// kept. Each condition's sums are taken by the number of conditions a case fails, then by case.
// Conditions past the 64th are kept as they are (deliberately: paths that long do not occur in
// pruned trees): the cases failing them are out of every sum.
general generalise(std::vector<rule_condition> const& conds, std::vector<order_range> const& bound,
                   unsigned long cls, cases const& cs, float cf, float coeff, fail_sets& sets) {
  std::size_t const n_cases = cs.w.size(), m = std::min<std::size_t>(conds.size(), 64);
  bool const fixed = conds.size() > m;
  sets.next_rule();
  std::size_t words = sets.words();
  std::vector<std::uint64_t> out(fixed ? words : 0, 0);
  for (std::size_t j = m; j < conds.size(); ++j)
    sets.add_failing(bound[j], cs, out.data());
  std::vector<std::uint64_t const*> fail(m);
  for (std::size_t j = 0; j < m; ++j)
    fail[j] = sets.of(bound[j], cs);
  auto valid = [&](std::size_t w) {
    std::uint64_t in = w + 1 == words && n_cases % 64 != 0
                           ? (std::uint64_t{1} << (n_cases % 64)) - 1
                           : ~std::uint64_t{0};
    return fixed ? in & ~out[w] : in;
  };
  std::uint64_t active = m == 64 ? ~std::uint64_t{0} : (std::uint64_t{1} << m) - 1;
  // Calls each case failing no kept condition, in order.
  auto each_passing = [&](auto const& take) {
    for (std::size_t w = 0; w < words; ++w) {
      std::uint64_t any = 0;
      for (std::size_t j = 0; j < m; ++j)
        if (active >> j & 1) any |= fail[j][w];
      for (std::uint64_t word = valid(w) & ~any; word != 0; word &= word - 1)
        take(static_cast<std::uint32_t>(w * 64 + static_cast<std::size_t>(__builtin_ctzll(word))));
    }
  };
  double n = 0, e = 0;
  each_passing([&](std::uint32_t i) {
    n += cs.w[i];
    if (cs.cls[i] != cls) e += cs.w[i];
  });
  // A leaf that covers no case (an empty branch, or rows other than the tree's) has no evidence
  // to generalise from: its rule goes.
  if (n <= 0) return general{};
  std::vector<double> nj(m), ej(m);
  std::vector<std::vector<std::pair<std::uint32_t, std::uint32_t>>> only_j(m);
  std::vector<std::size_t> at(m + 2);
  std::vector<std::uint32_t> order;
  // The last condition stays: a rule without any would stand for the default class.
  while ((active & (active - 1)) != 0 || (fixed && active != 0)) {
    for (auto& o : only_j)
      o.clear();
    for (std::size_t w = 0; w < words; ++w) {
      std::uint64_t once = 0, twice = 0;
      for (std::size_t j = 0; j < m; ++j)
        if (active >> j & 1) {
          twice |= once & fail[j][w];
          once |= fail[j][w];
        }
      once &= ~twice & valid(w);
      if (once == 0) continue;
      for (std::size_t j = 0; j < m; ++j) {
        if (!(active >> j & 1)) continue;
        for (std::uint64_t hit = fail[j][w] & once; hit != 0; hit &= hit - 1) {
          auto bit = static_cast<std::size_t>(__builtin_ctzll(hit));
          std::uint32_t failed = 0;
          for (std::size_t q = 0; q < m; ++q)
            failed += static_cast<std::uint32_t>(fail[q][w] >> bit & 1);
          only_j[j].emplace_back(failed, static_cast<std::uint32_t>(w * 64 + bit));
        }
      }
    }
    double now = pessimistic(cf, coeff, n, e), best_rate = now;
    std::size_t best = m;
    for (std::size_t j = 0; j < m; ++j) {
      if (!(active >> j & 1)) continue;
      // By conditions failed, then by case: the cases came in order, so a stable count sort.
      std::fill(at.begin(), at.end(), 0);
      for (auto const& c : only_j[j])
        ++at[c.first + 1];
      for (std::size_t k = 1; k < at.size(); ++k)
        at[k] += at[k - 1];
      order.resize(only_j[j].size());
      for (auto const& c : only_j[j])
        order[at[c.first]++] = c.second;
      nj[j] = ej[j] = 0;
      for (std::uint32_t i : order) {
        nj[j] += cs.w[i];
        if (cs.cls[i] != cls) ej[j] += cs.w[i];
      }
      double r = pessimistic(cf, coeff, n + nj[j], e + ej[j]);
      if (drop_wins(r, best_rate, best == m)) {
        best = j;
        best_rate = r;
      }
    }
    if (best == m) break;
    active &= ~(std::uint64_t{1} << best);
    n += nj[best];
    e += ej[best];
  }
  general g;
  g.n = n;
  g.e = e;
  for (std::size_t j = 0; j < conds.size(); ++j)
    if (j >= m || (active >> j & 1)) g.conditions.push_back(conds[j]);
  each_passing([&](std::uint32_t i) { g.covered.push_back(i); });
  return g;
}

// The bits that code a subset of one class's rules plus the bits that code its exceptions (the
// covered cases of other classes among all covered, the uncovered cases of the class among all
// uncovered). The theory is halved: the conditions of a rule, and the rules of a class, are far
// from independent, so coding each on its own overstates them.
constexpr double kTheoryWeight = 0.5;

class subset_coder {
 public:
  subset_coder(cases const& cs, unsigned long cls, std::vector<general const*> const& rules,
               std::vector<double> const& rule_bits)
      : cs_(cs), cls_(cls), rules_(rules), bits_(rule_bits), count_(cs.w.size(), 0) {
    fn_ = cs.per_class[cls];
  }

  double cost() const { return theory_ * kTheoryWeight + exceptions(covered_, fp_, fn_); }
  // The cost with rule r toggled, the state left as it is.
  double cost_toggled(std::size_t r) const {
    double cov = covered_, fp = fp_, fn = fn_;
    bool adding = !in_[r];
    for (std::uint32_t i : rules_[r]->covered) {
      if (count_[i] != (adding ? 0u : 1u)) continue;
      double w = (adding ? 1 : -1) * static_cast<double>(cs_.w[i]);
      cov += w;
      if (cs_.cls[i] == cls_)
        fn -= w;
      else
        fp += w;
    }
    double theory = theory_ + (adding ? bits_[r] : -bits_[r]);
    return theory * kTheoryWeight + exceptions(cov, fp, fn);
  }
  void toggle(std::size_t r) {
    bool adding = !in_[r];
    for (std::uint32_t i : rules_[r]->covered) {
      if (adding ? count_[i]++ != 0 : --count_[i] != 0) continue;
      double w = (adding ? 1 : -1) * static_cast<double>(cs_.w[i]);
      covered_ += w;
      if (cs_.cls[i] == cls_)
        fn_ -= w;
      else
        fp_ += w;
    }
    theory_ += adding ? bits_[r] : -bits_[r];
    in_[r] = adding;
    if (!tracking_) return;
    // Other rules' deltas change only through the cases whose count left or reached 0 or 1.
    for (std::uint32_t i : rules_[r]->covered) {
      unsigned now = count_[i], was = adding ? now - 1 : now + 1;
      bool zero = (now == 0) != (was == 0), one = (now == 1) != (was == 1);
      if (!zero && !one) continue;
      double w = static_cast<double>(cs_.w[i]);
      bool mine = cs_.cls[i] == cls_;
      for (std::uint32_t k = by_case_at_[i]; k < by_case_at_[i + 1]; ++k) {
        std::uint32_t q = by_case_[k];
        if (q == r) continue;
        // What case i adds to q's toggle: its weight when q is out and nothing covers it, less
        // its weight when q is in and covers it alone.
        double d;
        if (in_[q]) {
          if (!one) continue;
          d = now == 1 ? -w : w;
        } else {
          if (!zero) continue;
          d = now == 0 ? w : -w;
        }
        delta_[q].cov += d;
        if (mine)
          delta_[q].fn -= d;
        else
          delta_[q].fp += d;
        if (++delta_[q].ops > 2 * rules_[q]->covered.size() + 32) refresh(q);
      }
    }
    refresh(r);
  }
  bool in(std::size_t r) const { return in_[r]; }
  double false_positives() const { return fp_; }

  // Keeps, per rule, what toggling it changes (covered weight, false positives and negatives),
  // updated at each toggle through the cases that change, so that the climb can rank every rule
  // without a pass over its cases.
  void track() {
    tracking_ = true;
    by_case_at_.assign(cs_.w.size() + 1, 0);
    for (general const* g : rules_)
      for (std::uint32_t i : g->covered)
        ++by_case_at_[i + 1];
    for (std::size_t i = 1; i < by_case_at_.size(); ++i)
      by_case_at_[i] += by_case_at_[i - 1];
    by_case_.resize(by_case_at_.back());
    std::vector<std::uint32_t> at(by_case_at_.begin(), by_case_at_.end() - 1);
    for (std::size_t q = 0; q < rules_.size(); ++q)
      for (std::uint32_t i : rules_[q]->covered)
        by_case_[at[i]++] = static_cast<std::uint32_t>(q);
    double most = 0;
    for (float w : cs_.w)
      most += std::fabs(static_cast<double>(w));
    // Rounding: each sum here and in cost_toggled errs by at most an epsilon of twice the total
    // weight a term; the bits move by at most lipschitz_ per unit of weight.
    unit_ = 2 * most * std::numeric_limits<double>::epsilon();
    lipschitz_ = 8 * (std::log(most + 1) + 1) / std::log(2.0);
    slack_ = 1e-6 + 1e-9 * most * std::log2(most + 2);
    delta_.assign(rules_.size(), {});
    for (std::size_t q = 0; q < rules_.size(); ++q)
      refresh(q);
  }
  // cost_toggled(r) from the kept deltas, and a bound on how far from it that can be.
  double estimate(std::size_t r) const {
    double theory = theory_ + (in_[r] ? -bits_[r] : bits_[r]);
    return theory * kTheoryWeight +
           exceptions(covered_ + delta_[r].cov, fp_ + delta_[r].fp, fn_ + delta_[r].fn);
  }
  double margin(std::size_t r) const {
    double terms = static_cast<double>(delta_[r].ops + 2 * rules_[r]->covered.size() + 8);
    return lipschitz_ * unit_ * terms + slack_;
  }

 private:
  void refresh(std::size_t q) {
    delta d;
    bool adding = !in_[q];
    for (std::uint32_t i : rules_[q]->covered) {
      if (count_[i] != (adding ? 0u : 1u)) continue;
      double w = (adding ? 1 : -1) * static_cast<double>(cs_.w[i]);
      d.cov += w;
      if (cs_.cls[i] == cls_)
        d.fn -= w;
      else
        d.fp += w;
    }
    delta_[q] = d;
  }
  double exceptions(double cov, double fp, double fn) const {
    cov = std::max(cov, 0.0);
    double unc = std::max(cs_.total - cov, 0.0);
    return log2_binomial(cov, std::max(fp, 0.0)) + log2_binomial(unc, std::max(fn, 0.0));
  }
  struct delta {
    double cov = 0, fp = 0, fn = 0;
    std::size_t ops = 0;  // updates since the last recount
  };
  cases const& cs_;
  unsigned long cls_;
  std::vector<general const*> const& rules_;
  std::vector<double> const& bits_;
  std::vector<unsigned> count_;
  std::vector<bool> in_ = std::vector<bool>(rules_.size(), false);
  double covered_ = 0, fp_ = 0, fn_ = 0, theory_ = 0;
  bool tracking_ = false;
  std::vector<std::uint32_t> by_case_at_, by_case_;  // per case, the rules covering it
  std::vector<delta> delta_;
  double unit_ = 0, lipschitz_ = 0, slack_ = 0;
};

// Classes with at most this many rules try every subset; larger ones climb greedily from none,
// toggling the rule that lowers the cost most until none does.
constexpr std::size_t kExhaustiveRules = 10;

std::vector<bool> choose_subset(subset_coder& coder, std::size_t n_rules) {
  if (n_rules <= kExhaustiveRules) {
    // Gray code order: one toggle from each subset to the next.
    double best = coder.cost();
    std::uint64_t best_mask = 0, mask = 0;
    for (std::uint64_t k = 1; k < (std::uint64_t{1} << n_rules); ++k) {
      auto bit = static_cast<std::size_t>(__builtin_ctzll(k));
      coder.toggle(bit);
      mask ^= std::uint64_t{1} << bit;
      double c = coder.cost();
      // Ties to the smaller subset, then to the lower mask: the same choice on every machine.
      if (c < best - 1e-9 ||
          (std::fabs(c - best) <= 1e-9 &&
           (__builtin_popcountll(mask) < __builtin_popcountll(best_mask) ||
            (__builtin_popcountll(mask) == __builtin_popcountll(best_mask) && mask < best_mask)))) {
        best = c;
        best_mask = mask;
      }
    }
    for (std::size_t r = 0; r < n_rules; ++r)
      if (coder.in(r) != ((best_mask >> r & 1) != 0)) coder.toggle(r);
  } else {
    coder.track();
    std::vector<double> low(n_rules), high(n_rules);
    double now = coder.cost();
    for (;;) {
      // The estimates rule out every rule that cannot be the cheapest; the rest are costed
      // exactly, in order, so that the choice is the one a full recount would make.
      double ceiling = std::numeric_limits<double>::infinity();
      for (std::size_t r = 0; r < n_rules; ++r) {
        double e = coder.estimate(r), m = coder.margin(r);
        low[r] = e - m;
        high[r] = e + m;
        ceiling = std::min(ceiling, high[r]);
      }
      std::size_t best = n_rules;
      double best_cost = now - 1e-9;
      for (std::size_t r = 0; r < n_rules; ++r) {
        if (low[r] > ceiling || low[r] >= best_cost) continue;
        double c = coder.cost_toggled(r);
        if (c < best_cost) {
          best = r;
          best_cost = c;
        }
      }
      if (best == n_rules) break;
      coder.toggle(best);
      now = coder.cost();
    }
  }
  std::vector<bool> chosen(n_rules);
  for (std::size_t r = 0; r < n_rules; ++r)
    chosen[r] = coder.in(r);
  return chosen;
}

// Drops, one at a time, the rule whose loss lowers the training error of the whole ruleset most,
// while some loss does not raise it (of equal ones, the rule listed last): the default class
// often does a rule's work, and selection class by class cannot see that.
void drop_needless(std::vector<rule>& rules_, unsigned long default_, cases const& cs,
                   std::vector<std::vector<std::uint32_t> const*>& coverage) {
  std::size_t n_rules = rules_.size();
  // Per case, the rules covering it in the order they decide (highest confidence, then first).
  std::vector<std::vector<std::uint32_t>> fires(cs.w.size());
  for (std::size_t k = 0; k < n_rules; ++k)
    for (std::uint32_t i : *coverage[k])
      fires[i].push_back(static_cast<std::uint32_t>(k));
  for (auto& f : fires)
    std::stable_sort(f.begin(), f.end(), [&](std::uint32_t a, std::uint32_t b) {
      return decides_over(rules_[a], rules_[b]);
    });
  std::vector<bool> gone(n_rules, false);
  auto decider = [&](std::size_t i, std::size_t skip) {
    for (std::uint32_t k : fires[i])
      if (!gone[k] && k != skip) return static_cast<std::size_t>(k);
    return n_rules;
  };
  auto class_of = [&](std::size_t k) { return k == n_rules ? default_ : rules_[k].cls; };
  // Per rule, the cases it decides, in order, and what its loss would add to the errors: summed
  // over those cases in order, recounted only for the rules a loss touches.
  std::vector<std::vector<std::uint32_t>> decides(n_rules);
  for (std::size_t i = 0; i < cs.w.size(); ++i) {
    std::size_t first = decider(i, n_rules);
    if (first != n_rules) decides[first].push_back(static_cast<std::uint32_t>(i));
  }
  std::vector<double> delta(n_rules, 0.0);
  auto recount = [&](std::size_t k) {
    double d = 0;
    for (std::uint32_t i : decides[k]) {
      std::size_t next = decider(i, k);
      double was = class_of(k) != cs.cls[i], now = class_of(next) != cs.cls[i];
      d += cs.w[i] * (now - was);
    }
    delta[k] = d;
  };
  for (std::size_t k = 0; k < n_rules; ++k)
    recount(k);
  std::vector<char> touched(n_rules, 0), grown(n_rules, 0);
  std::vector<std::size_t> touched_list;
  for (;;) {
    std::size_t best = n_rules;
    for (std::size_t k = n_rules; k-- > 0;)
      if (!gone[k] && delta[k] <= 1e-9 && (best == n_rules || delta[k] < delta[best] - 1e-9))
        best = k;
    if (best == n_rules) break;
    gone[best] = true;
    auto touch = [&](std::size_t k) {
      if (!touched[k]) touched_list.push_back(k);
      touched[k] = 1;
    };
    // Its cases go to the next rule firing on them; the rules deciding the cases where it came
    // second lose their fallback.
    for (std::uint32_t i : decides[best]) {
      std::size_t first = decider(i, n_rules);
      if (first == n_rules) continue;
      decides[first].push_back(i);
      grown[first] = 1;
      touch(first);
    }
    std::vector<std::uint32_t>().swap(decides[best]);
    for (std::uint32_t i : *coverage[best]) {
      std::size_t first = decider(i, n_rules);
      if (first != n_rules) touch(first);
    }
    for (std::size_t k : touched_list) {
      if (grown[k]) std::sort(decides[k].begin(), decides[k].end());
      recount(k);
      touched[k] = grown[k] = 0;
    }
    touched_list.clear();
  }
  std::vector<rule> kept;
  std::vector<std::vector<std::uint32_t> const*> kept_coverage;
  for (std::size_t k = 0; k < n_rules; ++k)
    if (!gone[k]) {
      kept.push_back(std::move(rules_[k]));
      kept_coverage.push_back(coverage[k]);
    }
  rules_ = std::move(kept);
  coverage = std::move(kept_coverage);
}

// Walks a tree, telling leaf each leaf with the tests of its path.
template <class Leaf>
void each_leaf(_decision_tree const* t, impls::table const& meta, std::vector<rule_condition>& path,
               Leaf const& leaf) {
  if (t == nullptr || t->get_node() == nullptr) return;
  _decision_node const* n = t->get_node();
  if (n->get_node_status() == _decision_node::LEAF_NODE) {
    leaf(*n, path);
    return;
  }
  if (n->get_node_status() != _decision_node::SPLIT_NODE) return;
  unsigned long a = n->get_split_attribute_index();
  column const* c = meta.get_attribute(a);
  for (unsigned long i = 0; i < t->get_no_childs(); ++i) {
    rule_condition cond;
    cond.attribute = a;
    if (c->is_continuous()) {
      cond.test = i == 0 ? rule_condition::not_above : rule_condition::above;
      cond.value = n->get_threshold();
    } else if (impls::value_groups const* g = n->get_value_groups()) {
      cond.test = rule_condition::in;
      cond.values = impls::group_values(c, *g, i);
      cond.value = braced(cond.values);
    } else {
      cond.test = rule_condition::equal;
      cond.value = c->get_o_set()->get_value(i + 1);
    }
    path.push_back(cond);
    each_leaf(t->get_child(i), meta, path, leaf);
    path.pop_back();
  }
}

// The tests of a path merged: per attribute the last value it equals, its lowest upper bound and
// its highest lower bound; sorted by attribute, then test.
std::vector<rule_condition> merged(std::vector<rule_condition> const& path,
                                   std::vector<std::unique_ptr<o_set>> const& cmp) {
  std::vector<rule_condition> out;
  for (rule_condition const& c : path) {
    auto same = std::find_if(out.begin(), out.end(), [&](rule_condition const& o) {
      return o.attribute == c.attribute && o.test == c.test;
    });
    if (same == out.end()) {
      out.push_back(c);
    } else if (c.test == rule_condition::equal) {
      same->value = c.value;
    } else if (c.test == rule_condition::in) {
      // Both hold on the path: the values of both.
      std::vector<std::string> both;
      for (std::string const& v : same->values)
        if (std::find(c.values.begin(), c.values.end(), v) != c.values.end()) both.push_back(v);
      same->values = std::move(both);
      same->value = braced(same->values);
    } else {
      int c_above = cmp[c.attribute]->leq(c.value, same->value);
      if ((c.test == rule_condition::not_above && c_above == 0) ||
          (c.test == rule_condition::above && c_above == 1))
        same->value = c.value;
    }
  }
  // A set of one value is a test of that value, unless the path tests one already.
  for (rule_condition& c : out) {
    if (c.test != rule_condition::in || c.values.size() != 1) continue;
    bool equal_too = std::any_of(out.begin(), out.end(), [&](rule_condition const& o) {
      return o.attribute == c.attribute && o.test == rule_condition::equal;
    });
    if (equal_too) continue;
    c.test = rule_condition::equal;
    c.value = c.values[0];
    c.values.clear();
  }
  std::sort(out.begin(), out.end(), [](rule_condition const& a, rule_condition const& b) {
    return a.attribute != b.attribute ? a.attribute < b.attribute : a.test < b.test;
  });
  return out;
}

std::vector<std::unique_ptr<o_set>> comparers(std::vector<rule_model::attribute> const& atts) {
  std::vector<std::unique_ptr<o_set>> out;
  for (auto const& a : atts)
    out.emplace_back(o_set::NEW_O_SET(a.datatype, true, "?"));
  return out;
}

}  // namespace

struct rule_model::bound {
  std::vector<column const*> cols;  // per attribute; null where no rule tests it
  std::vector<std::vector<order_range>> rules;
};

rule_model::~rule_model() = default;

rule_model::bound rule_model::bind(table const& t) const {
  impls::table const& tab = *t.get_impl();
  bound b;
  b.cols.assign(attributes_.size(), nullptr);
  auto cmp = comparers(attributes_);
  for (rule const& r : rules_) {
    std::vector<order_range> ranges;
    for (rule_condition const& c : r.conditions) {
      column const*& col = b.cols[c.attribute];
      if (col == nullptr) {
        col = column_named(tab, attributes_[c.attribute].name);
        if (col == nullptr) bad("the table has no column '" + attributes_[c.attribute].name + "'");
      }
      ranges.push_back(bind_condition(c, *cmp[c.attribute], col));
    }
    b.rules.push_back(std::move(ranges));
  }
  return b;
}

std::unique_ptr<rule_model> rule_model::train(table& t, tree_options const& o,
                                              std::vector<unsigned long> const* rows) {
  auto tree = tree_model::train(t, o, rows);
  return from_tree(*tree, t, rows);
}

std::unique_ptr<rule_model> rule_model::from_tree(tree_model const& tm, table const& t,
                                                  std::vector<unsigned long> const* rows) {
  return read_off(tm, t, rows, nullptr, nullptr);
}

std::unique_ptr<rule_model> rule_model::from_tree(tree_model const& tm, table const& t,
                                                  std::vector<unsigned long> const& rows,
                                                  std::vector<float> const& weights) {
  if (weights.size() != rows.size()) bad("one weight a row wanted");
  return read_off(tm, t, &rows, &weights, nullptr);
}

std::vector<rule> rule_model::generalised(tree_model const& tree, table const& t,
                                          std::vector<unsigned long> const* rows) {
  std::vector<rule> out;
  read_off(tree, t, rows, nullptr, &out);
  return out;
}

namespace {

std::vector<rule_model::attribute> attributes_of(impls::table const& meta) {
  std::vector<rule_model::attribute> out;
  for (unsigned long a = 0; a < meta.get_no_attributes(); ++a) {
    column const* c = meta.get_attribute(a);
    rule_model::attribute att;
    att.name = c->get_name();
    att.continuous = c->is_continuous();
    att.datatype = c->get_o_set()->get_datatype();
    if (!att.continuous)
      for (unsigned long o = 1; o <= c->get_distinct(); ++o)
        att.values.push_back(c->get_o_set()->get_value(o));
    out.push_back(std::move(att));
  }
  return out;
}

// A leaf's rule: its path's conditions, merged, and its class (an index, from 0).
struct candidate {
  std::vector<rule_condition> conds;
  unsigned long cls;
};

std::vector<candidate> leaf_rules(impls::decision_tree const& tree, impls::table const& meta,
                                  std::vector<std::unique_ptr<o_set>> const& cmp, std::size_t k) {
  std::vector<candidate> leaves;
  std::vector<rule_condition> path;
  each_leaf(tree.get_root(), meta, path, [&](_decision_node const& n, auto const& p) {
    unsigned long c = n.get_leaf();
    if (c >= 1 && c <= k) leaves.push_back({merged(p, cmp), c - 1});
  });
  return leaves;
}

// The training cases: every row of the table, or the rows given, with the table's weights or the
// ones given; kept gets the table row of each case.
cases training_cases(impls::table const& tab, std::vector<unsigned long> const* rows,
                     std::vector<float> const* row_weight, std::vector<std::string> const& classes,
                     std::vector<unsigned long>& kept) {
  column const* cls_col = tab.get_class();
  if (cls_col == nullptr) bad("the table has no class column");
  std::vector<unsigned long> all;
  if (rows == nullptr) {
    all.resize(tab.get_no_rows());
    for (unsigned long r = 0; r < all.size(); ++r)
      all[r] = r;
    rows = &all;
  }
  std::vector<float> weights = row_weights(tab);
  std::vector<unsigned long> to_class = class_map(cls_col, classes);
  cases cs;
  cs.per_class.assign(classes.size(), 0.0);
  for (std::size_t i = 0; i < rows->size(); ++i) {
    unsigned long r = (*rows)[i];
    if (r >= tab.get_no_rows()) bad("row " + std::to_string(r) + " is not in the table");
    unsigned long c = to_class[cls_col->get_row_index(r)];
    float w = row_weight != nullptr ? (*row_weight)[i] : weights[r];
    if (c == 0) continue;  // an unknown class teaches the rules nothing
    kept.push_back(r);
    cs.w.push_back(w);
    cs.cls.push_back(c - 1);
    cs.total += w;
    cs.per_class[c - 1] += w;
  }
  return cs;
}

// The columns of the attributes the leaves test (null for the others), each one's orders of the
// kept rows put in cs.
std::vector<column const*> tested_columns(impls::table const& tab,
                                          std::vector<rule_model::attribute> const& atts,
                                          std::vector<candidate> const& leaves,
                                          std::vector<unsigned long> const& kept, cases& cs) {
  cs.orders.resize(atts.size());
  std::vector<column const*> cols(atts.size(), nullptr);
  for (candidate const& l : leaves)
    for (rule_condition const& c : l.conds) {
      if (cols[c.attribute] != nullptr) continue;
      cols[c.attribute] = column_named(tab, atts[c.attribute].name);
      if (cols[c.attribute] == nullptr)
        bad("the table has no column '" + atts[c.attribute].name + "'");
      auto& ord = cs.orders[c.attribute];
      ord.resize(kept.size());
      for (std::size_t i = 0; i < kept.size(); ++i)
        ord[i] = static_cast<std::uint32_t>(cols[c.attribute]->get_row_index(kept[i]));
    }
  return cols;
}

rule rule_of(general const& g, unsigned long cls) {
  rule r;
  r.conditions = g.conditions;
  r.cls = cls;
  r.cases = g.n;
  r.errors = g.e;
  r.confidence = (r.cases - r.errors + 1) / (r.cases + 2);
  return r;
}

// Duplicates and rules subsumed by a rule of their class, marked (of two equal rules, the later
// one).
std::vector<bool> subsumed(std::vector<general> const& gen,
                           std::vector<unsigned long> const& gen_cls,
                           std::vector<std::unique_ptr<o_set>> const& cmp) {
  auto laplace = [](general const& g) { return (g.n - g.e + 1) / (g.n + 2); };
  auto subsumes = [&](general const& a, general const& b) {
    for (rule_condition const& c : a.conditions)
      if (!implied(c, b.conditions, *cmp[c.attribute])) return false;
    return true;
  };
  // A rule subsumes another only if each of its attribute-and-test pairs is among the other's:
  // a bit per pair (hashed) rules most pairs of rules out before a threshold is compared.
  std::vector<std::uint64_t> pairs(gen.size(), 0);
  for (std::size_t i = 0; i < gen.size(); ++i)
    for (rule_condition const& c : gen[i].conditions)
      pairs[i] |= std::uint64_t{1} << ((c.attribute * 3 + static_cast<unsigned long>(c.test)) % 64);
  std::vector<bool> dropped(gen.size(), false);
  for (std::size_t i = 0; i < gen.size(); ++i)
    for (std::size_t j = 0; j < gen.size() && !dropped[i]; ++j) {
      if (i == j || gen_cls[i] != gen_cls[j] || (pairs[j] & ~pairs[i]) != 0 ||
          !subsumes(gen[j], gen[i]))
        continue;
      // A subsumed rule more confident than its subsumer stays: it decides where both fire.
      if (laplace(gen[i]) > laplace(gen[j])) continue;
      if (j < i || !subsumes(gen[i], gen[j])) dropped[i] = true;
    }
  return dropped;
}

// The bits of a condition: its attribute, then a discrete one's value, or a continuous one's
// side and threshold (the tree's own, so one bit names it).
std::vector<double> condition_bits(impls::table const& meta,
                                   std::vector<rule_model::attribute> const& atts) {
  std::vector<double> att_bits(atts.size());
  double choose_att = std::log2(std::max<double>(2, static_cast<double>(atts.size())));
  for (std::size_t a = 0; a < att_bits.size(); ++a) {
    double values = static_cast<double>(meta.get_attribute(a)->get_distinct());
    att_bits[a] = choose_att + (atts[a].continuous ? 2.0 : std::log2(std::max(2.0, values)));
  }
  return att_bits;
}

// Per class: the subset of fewest bits among the rules not dropped; false_pos gets each class's
// false positives.
std::vector<bool> chosen_rules(std::vector<general> const& gen,
                               std::vector<unsigned long> const& gen_cls,
                               std::vector<bool> const& dropped,
                               std::vector<double> const& att_bits, cases const& cs,
                               std::vector<double>& false_pos) {
  std::vector<bool> chosen(gen.size(), false);
  for (unsigned long c = 0; c < false_pos.size(); ++c) {
    std::vector<general const*> mine;
    std::vector<std::size_t> where;
    std::vector<double> bits;
    for (std::size_t i = 0; i < gen.size(); ++i) {
      if (dropped[i] || gen_cls[i] != c) continue;
      mine.push_back(&gen[i]);
      where.push_back(i);
      double b = 0;
      for (rule_condition const& cond : gen[i].conditions)
        b += att_bits[cond.attribute];
      b -= std::lgamma(static_cast<double>(gen[i].conditions.size()) + 1) / std::log(2.0);
      bits.push_back(std::max(b, 0.0));
    }
    if (mine.empty()) continue;
    subset_coder coder(cs, c, mine, bits);
    std::vector<bool> pick = choose_subset(coder, mine.size());
    false_pos[c] = coder.false_positives();
    for (std::size_t r = 0; r < mine.size(); ++r)
      if (pick[r]) chosen[where[r]] = true;
  }
  return chosen;
}

// The default: the majority class of the cases no rule covers (of all cases when every case is
// covered), ties to the first class, and its distribution.
unsigned long default_of(std::vector<std::vector<std::uint32_t> const*> const& coverage,
                         cases const& cs, std::vector<double>& dist) {
  std::size_t k = cs.per_class.size();
  std::vector<char> covered(cs.w.size(), 0);
  for (auto const* cov : coverage)
    for (std::uint32_t c : *cov)
      covered[c] = 1;
  std::vector<double> left(k, 0.0);
  double left_total = 0;
  for (std::size_t i = 0; i < cs.w.size(); ++i)
    if (!covered[i]) {
      left[cs.cls[i]] += cs.w[i];
      left_total += cs.w[i];
    }
  if (left_total <= 0) {
    left = cs.per_class;
    left_total = cs.total;
  }
  dist.clear();
  for (unsigned long c = 0; c < k; ++c)
    dist.push_back((left[c] + 1) / (left_total + static_cast<double>(k)));
  return static_cast<unsigned long>(std::max_element(left.begin(), left.end()) - left.begin());
}

}  // namespace

std::unique_ptr<rule_model> rule_model::read_off(tree_model const& tm, table const& t,
                                                 std::vector<unsigned long> const* rows,
                                                 std::vector<float> const* row_weight,
                                                 std::vector<rule>* generalised) {
  impls::decision_tree const& tree = *tm.facade().get_impl();
  impls::table const& meta = *tree.get_metadata();
  impls::table const& tab = *t.get_impl();
  std::unique_ptr<rule_model> m(new rule_model());
  m->name_ = tree.get_name();
  m->class_name_ = meta.get_class()->get_name();
  m->confidence_level_ = tree.get_conf_level();
  m->classes_ = tm.classes();
  m->attributes_ = attributes_of(meta);
  auto cmp = comparers(m->attributes_);
  std::size_t k = m->classes_.size();
  std::vector<candidate> leaves = leaf_rules(tree, meta, cmp, k);
  m->leaves_ = static_cast<unsigned long>(leaves.size());
  std::vector<unsigned long> kept;  // table rows of the cases
  cases cs = training_cases(tab, rows, row_weight, m->classes_, kept);
  std::vector<column const*> cols = tested_columns(tab, m->attributes_, leaves, kept, cs);

  // Generalised, rules covering nothing dropped.
  float cf = m->confidence_level_, coeff = _decision_tree::CFCoefficient(cf);
  std::vector<general> gen;
  std::vector<unsigned long> gen_cls;
  fail_sets sets(cs.w.size());
  for (candidate const& l : leaves) {
    std::vector<order_range> b;
    for (rule_condition const& c : l.conds)
      b.push_back(bind_condition(c, *cmp[c.attribute], cols[c.attribute]));
    general g = generalise(l.conds, b, l.cls, cs, cf, coeff, sets);
    if (g.n <= 0) continue;
    gen.push_back(std::move(g));
    gen_cls.push_back(l.cls);
  }
  if (generalised != nullptr) {
    for (std::size_t i = 0; i < gen.size(); ++i)
      generalised->push_back(rule_of(gen[i], gen_cls[i]));
    return nullptr;
  }

  std::vector<bool> dropped = subsumed(gen, gen_cls, cmp);
  std::vector<double> false_pos(k, 0.0);
  std::vector<bool> chosen =
      chosen_rules(gen, gen_cls, dropped, condition_bits(meta, m->attributes_), cs, false_pos);

  // Classes by false positives, fewest first; each class's rules by confidence.
  for (unsigned long c = 0; c < k; ++c)
    m->class_order_.push_back(c);
  std::stable_sort(m->class_order_.begin(), m->class_order_.end(),
                   [&](unsigned long a, unsigned long b) { return false_pos[a] < false_pos[b]; });
  std::vector<std::vector<std::uint32_t> const*> coverage;  // of each rule of rules_
  for (unsigned long c : m->class_order_) {
    std::vector<std::pair<rule, std::size_t>> mine;
    for (std::size_t i = 0; i < gen.size(); ++i) {
      if (!chosen[i] || gen_cls[i] != c) continue;
      rule r = rule_of(gen[i], c);
      double share = cs.total > 0 ? cs.per_class[c] / cs.total : 0;
      r.lift = share > 0 ? r.confidence / share : 0;
      mine.emplace_back(std::move(r), i);
    }
    std::stable_sort(mine.begin(), mine.end(), [](auto const& a, auto const& b) {
      return a.first.confidence > b.first.confidence;
    });
    for (auto& r : mine) {
      m->rules_.push_back(std::move(r.first));
      coverage.push_back(&gen[r.second].covered);
    }
  }

  // The default is set for the chosen rules, and again once needless rules are gone.
  m->default_ = default_of(coverage, cs, m->default_dist_);
  drop_needless(m->rules_, m->default_, cs, coverage);
  m->default_ = default_of(coverage, cs, m->default_dist_);
  return m;
}

namespace {

// Rows are read a block at a time: each tested attribute's orders of the block, then each row
// against every rule.
constexpr unsigned long kBlock = 4096;

}  // namespace

template <class Row>
static void scan_rows(table const& t, std::vector<column const*> const& cols,
                      std::vector<std::vector<order_range>> const& rules, Row const& row) {
  unsigned long n = t.get_no_rows();
  constexpr unsigned long kWords = kBlock / 64;
  std::vector<std::vector<std::uint32_t>> orders(cols.size());
  // Per rule, a bit per row of the block that it fires on; then per row, the rules firing.
  std::vector<std::uint64_t> fires(rules.size() * kWords);
  std::vector<std::uint32_t> at(kBlock + 1), firing;
  for (unsigned long from = 0; from < n; from += kBlock) {
    unsigned long to = std::min(n, from + kBlock), rows = to - from, words = (rows + 63) / 64;
    for (std::size_t a = 0; a < cols.size(); ++a) {
      if (cols[a] == nullptr) continue;
      orders[a].resize(rows);
      for (unsigned long r = from; r < to; ++r)
        orders[a][r - from] = static_cast<std::uint32_t>(cols[a]->get_row_index(r));
    }
    for (std::size_t k = 0; k < rules.size(); ++k) {
      std::uint64_t* f = &fires[k * kWords];
      for (unsigned long w = 0; w < words; ++w)
        f[w] = w + 1 == words && rows % 64 != 0 ? (std::uint64_t{1} << (rows % 64)) - 1
                                                : ~std::uint64_t{0};
      for (order_range const& c : rules[k]) {
        if (c.lo == 0 || c.hi < c.lo) {
          std::fill(f, f + words, 0);
          break;
        }
        if (c.set) {
          bool any = false;
          set_fails(*c.set, orders[c.att].data(), rows, [&](std::size_t r, bool fail) {
            f[r >> 6] &= ~(static_cast<std::uint64_t>(fail) << (r & 63));
          });
          for (unsigned long w = 0; w < words; ++w)
            any |= f[w] != 0;
          if (!any) break;
          continue;
        }
        // Known orders in [lo, hi]: o - lo wraps past the span for 0 and for orders below lo.
        auto lo = static_cast<std::uint32_t>(c.lo);
        auto span = static_cast<std::uint32_t>(c.hi - c.lo);
        std::uint32_t const* ord = orders[c.att].data();
        bool any = false;
        for (unsigned long w = 0; w < words; ++w) {
          if (f[w] == 0) continue;
          if (w * 64 + 64 <= rows) {
            f[w] &= ~outside64(ord + w * 64, lo, span);
            any |= f[w] != 0;
            continue;
          }
          std::uint64_t pass = 0;
          unsigned long end = std::min(rows, w * 64 + 64);
          for (unsigned long r = w * 64; r < end; ++r)
            pass |= static_cast<std::uint64_t>(ord[r] - lo <= span) << (r - w * 64);
          f[w] &= pass;
          any |= f[w] != 0;
        }
        if (!any) break;
      }
    }
    std::fill(at.begin(), at.end(), 0);
    for (std::size_t k = 0; k < rules.size(); ++k)
      for (unsigned long w = 0; w < words; ++w)
        for (std::uint64_t bits = fires[k * kWords + w]; bits != 0; bits &= bits - 1)
          ++at[w * 64 + static_cast<unsigned long>(__builtin_ctzll(bits)) + 1];
    for (unsigned long r = 0; r < rows; ++r)
      at[r + 1] += at[r];
    firing.resize(at[rows]);
    for (std::size_t k = 0; k < rules.size(); ++k)
      for (unsigned long w = 0; w < words; ++w)
        for (std::uint64_t bits = fires[k * kWords + w]; bits != 0; bits &= bits - 1)
          firing[at[w * 64 + static_cast<unsigned long>(__builtin_ctzll(bits))]++] =
              static_cast<std::uint32_t>(k);
    // at[r] now ends row r's rules; row r's begin where row r - 1's end.
    for (unsigned long r = 0; r < rows; ++r) {
      std::uint32_t begin = r == 0 ? 0 : at[r - 1];
      row(from + r, firing.data() + begin, firing.data() + at[r]);
    }
  }
}

void rule_model::classify(table const& t, std::vector<unsigned long>& cls,
                          std::vector<unsigned long>* by_rule) const {
  bound b = bind(t);
  cls.assign(t.get_no_rows(), default_);
  if (by_rule) by_rule->assign(t.get_no_rows(), size());
  scan_rows(t, b.cols, b.rules,
            [&](unsigned long r, std::uint32_t const* k, std::uint32_t const* end) {
              std::size_t best = rules_.size();
              for (; k != end; ++k)
                if (best == rules_.size() || decides_over(rules_[*k], rules_[best])) best = *k;
              if (best == rules_.size()) return;
              cls[r] = rules_[best].cls;

              if (by_rule) (*by_rule)[r] = best;
            });
}

std::vector<double> rule_model::predict_proba(table const& t) const {
  bound b = bind(t);
  std::size_t k = classes_.size();
  std::vector<double> out(t.get_no_rows() * k, 0.0);
  scan_rows(t, b.cols, b.rules,
            [&](unsigned long r, std::uint32_t const* i, std::uint32_t const* end) {
              double* p = out.data() + r * k;
              double sum = 0;
              for (; i != end; ++i)
                p[rules_[*i].cls] = std::max(p[rules_[*i].cls], rules_[*i].confidence);
              for (std::size_t c = 0; c < k; ++c)
                sum += p[c];
              if (sum > 0) {
                for (std::size_t c = 0; c < k; ++c)
                  p[c] /= sum;
              } else {
                std::copy(default_dist_.begin(), default_dist_.end(), p);
              }
            });
  return out;
}

std::vector<std::string> rule_model::predict(table const& t) const {
  std::vector<unsigned long> cls;
  classify(t, cls);
  std::vector<std::string> out;
  out.reserve(cls.size());
  for (unsigned long c : cls)
    out.push_back(classes_[c]);
  return out;
}

double rule_model::error(table const& t, std::vector<unsigned long> const* rows) const {
  impls::table const& tab = *t.get_impl();
  if (tab.get_class() == nullptr) bad("the table has no class column");
  std::vector<unsigned long> cls;
  classify(t, cls);
  std::vector<float> w = row_weights(tab);
  std::vector<unsigned long> to_class = class_map(tab.get_class(), classes_);
  double wrong = 0, total = 0;
  for (std::size_t i = 0, n = rows ? rows->size() : cls.size(); i < n; ++i) {
    unsigned long r = rows ? (*rows)[i] : i;
    if (r >= cls.size()) bad("row " + std::to_string(r) + " is not in the table");
    unsigned long actual = to_class[tab.get_class()->get_row_index(r)];
    total += w[r];
    if (actual != cls[r] + 1) wrong += w[r];
  }
  return total > 0 ? wrong / total : 0;
}

// ---------------------------------------------------------------- the ruleset file

namespace {

std::string escaped(std::string const& s) {
  std::string out;
  for (char c : s) {
    if (c == '\\')
      out += "\\\\";
    else if (c == '\t')
      out += "\\t";
    else if (c == '\n')
      out += "\\n";
    else if (c == '\r')
      out += "\\r";
    else
      out += c;
  }
  return out;
}

std::vector<std::string> fields(std::string const& line) {
  std::vector<std::string> out(1);
  for (std::size_t i = 0; i < line.size(); ++i) {
    char c = line[i];
    if (c == '\t') {
      out.emplace_back();
    } else if (c == '\\' && i + 1 < line.size()) {
      char d = line[++i];
      out.back() += d == 't' ? '\t' : d == 'n' ? '\n' : d == 'r' ? '\r' : d;
    } else {
      out.back() += c;
    }
  }
  return out;
}

std::string exact(double v) {
  char buf[40];
  std::snprintf(buf, sizeof buf, "%.17g", v);
  return buf;
}

}  // namespace

bool rule_model::is_rules_file(std::string const& path) {
  std::ifstream in(path, std::ios::binary);
  std::string first;
  return in && std::getline(in, first) && first == kRulesHeader;
}

void rule_model::write(std::ostream& out) const {
  out << kRulesHeader << "\n"
      << "name\t" << escaped(name_) << "\n"
      << "class\t" << escaped(class_name_) << "\n"
      << "confidence\t" << exact(confidence_level_) << "\n"
      << "leaves\t" << leaves_ << "\n"
      << "classes\t" << classes_.size();
  for (auto const& c : classes_)
    out << "\t" << escaped(c);
  out << "\n";
  for (attribute const& a : attributes_) {
    out << "attribute\t" << escaped(a.name) << "\t" << (a.continuous ? "c" : "d") << "\t"
        << a.datatype << "\t" << a.values.size();
    for (auto const& v : a.values)
      out << "\t" << escaped(v);
    out << "\n";
  }
  out << "order";
  for (unsigned long c : class_order_)
    out << "\t" << c;
  out << "\ndefault\t" << default_;
  for (double p : default_dist_)
    out << "\t" << exact(p);
  out << "\n";
  for (rule const& r : rules_) {
    out << "rule\t" << r.cls << "\t" << exact(r.cases) << "\t" << exact(r.errors) << "\t"
        << exact(r.confidence) << "\t" << exact(r.lift) << "\t" << r.conditions.size();
    for (rule_condition const& c : r.conditions) {
      out << "\t" << c.attribute << "\t" << op_text(c.test) << "\t";
      if (c.test != rule_condition::in) {
        out << escaped(c.value);
        continue;
      }
      // in: the number of values, then each.
      out << c.values.size();
      for (std::string const& v : c.values)
        out << "\t" << escaped(v);
    }
    out << "\n";
  }
  out << "end\n";
}

void rule_model::save(std::string const& path) const {
  write_replacing(
      path,
      [&](std::string const& target) {
        std::ofstream out(target, std::ios::binary);
        if (!out) throw std::runtime_error("File " + path + ": cannot be opened for writing");
        write(out);
        if (!out.flush()) throw std::runtime_error("File " + path + ": error writing output");
      },
      "cannot be written");
}

std::unique_ptr<rule_model> rule_model::load(std::string const& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) throw std::runtime_error("File " + path + ": cannot be opened");
  std::unique_ptr<rule_model> m = read(in, "File " + path);
  if (in.peek() != std::char_traits<char>::eof())
    throw std::runtime_error("File " + path + ": damaged ruleset file (text after its end)");
  return m;
}

namespace {

// The checks of a ruleset file's fields; what names the source in the messages.
struct ruleset_fields {
  std::string const& what;

  [[noreturn]] void damaged(std::string const& why) const {
    throw std::runtime_error(what + ": damaged ruleset file (" + why + ")");
  }
  unsigned long whole(std::string const& s, unsigned long limit) const {
    char* end = nullptr;
    unsigned long v = std::strtoul(s.c_str(), &end, 10);
    if (s.empty() || *end != '\0' || v >= limit) damaged("bad index '" + s + "'");
    return v;
  }
  double real(std::string const& s) const {
    char* end = nullptr;
    double v = std::strtod(s.c_str(), &end);
    if (s.empty() || *end != '\0' || !std::isfinite(v)) damaged("bad number '" + s + "'");
    return v;
  }
  void need(std::vector<std::string> const& f, std::size_t n) const {
    if (f.size() != n) damaged("a '" + f[0] + "' line of " + std::to_string(f.size()) + " fields");
  }

  rule_model::attribute attribute(std::vector<std::string> const& f) const {
    if (f.size() < 5) damaged("a short attribute");
    rule_model::attribute a;
    a.name = f[1];
    a.continuous = f[2] == "c";
    a.datatype = f[3];
    if (a.datatype != "integer" && a.datatype != "uinteger" && a.datatype != "float" &&
        a.datatype != "double" && a.datatype != "string")
      damaged("data type '" + a.datatype + "'");
    need(f, 5 + whole(f[4], std::numeric_limits<unsigned long>::max()));
    a.values.assign(f.begin() + 5, f.end());
    return a;
  }

  rule rule_line(std::vector<std::string> const& f, std::size_t classes,
                 std::vector<rule_model::attribute> const& atts) const {
    if (f.size() < 7) damaged("a short rule");
    rule r;
    r.cls = whole(f[1], classes);
    r.cases = real(f[2]);
    r.errors = real(f[3]);
    r.confidence = real(f[4]);
    r.lift = real(f[5]);
    unsigned long n = whole(f[6], std::numeric_limits<unsigned long>::max() / 4);
    // Three fields a condition, and for a test of values one of a set its values too.
    auto at_least = [&](std::size_t k) {
      if (f.size() < k) need(f, k);
    };
    at_least(7 + 3 * n);
    std::size_t at = 7;
    for (unsigned long i = 0; i < n; ++i) {
      at_least(at + 3);
      rule_condition c;
      c.attribute = whole(f[at], atts.size());
      std::string const& op = f[at + 1];
      c.test = op == "="    ? rule_condition::equal
               : op == "<=" ? rule_condition::not_above
               : op == ">"  ? rule_condition::above
               : op == "in" ? rule_condition::in
                            : (damaged("test '" + op + "'"), rule_condition::equal);
      bool discrete = c.test == rule_condition::equal || c.test == rule_condition::in;
      if (discrete == atts[c.attribute].continuous)
        damaged("test '" + op + "' on attribute '" + atts[c.attribute].name + "'");
      if (c.test == rule_condition::in) {
        unsigned long k = whole(f[at + 2], f.size());
        at_least(at + 3 + k);
        c.values.assign(f.begin() + static_cast<long>(at + 3),
                        f.begin() + static_cast<long>(at + 3 + k));
        c.value = braced(c.values);
        at += 3 + k;
      } else {
        c.value = f[at + 2];
        at += 3;
      }
      r.conditions.push_back(std::move(c));
    }
    need(f, at);
    return r;
  }
};

}  // namespace

std::unique_ptr<rule_model> rule_model::read(std::istream& in, std::string const& what) {
  std::string line;
  if (!std::getline(in, line) || line != kRulesHeader)
    throw std::runtime_error(what + ": not a ruleset file");
  ruleset_fields check{what};
  std::unique_ptr<rule_model> m(new rule_model());
  bool ended = false;
  auto const big = std::numeric_limits<unsigned long>::max();
  while (std::getline(in, line)) {
    std::vector<std::string> f = fields(line);
    std::string const& key = f[0];
    if (key == "name") {
      check.need(f, 2);
      m->name_ = f[1];
    } else if (key == "class") {
      check.need(f, 2);
      m->class_name_ = f[1];
    } else if (key == "confidence") {
      check.need(f, 2);
      m->confidence_level_ = static_cast<float>(check.real(f[1]));
    } else if (key == "leaves") {
      check.need(f, 2);
      m->leaves_ = check.whole(f[1], big);
    } else if (key == "classes") {
      if (f.size() < 2) check.damaged("no class count");
      check.need(f, 2 + check.whole(f[1], big));
      m->classes_.assign(f.begin() + 2, f.end());
    } else if (key == "attribute") {
      m->attributes_.push_back(check.attribute(f));
    } else if (key == "order") {
      for (std::size_t i = 1; i < f.size(); ++i)
        m->class_order_.push_back(check.whole(f[i], m->classes_.size()));
    } else if (key == "default") {
      check.need(f, 2 + m->classes_.size());
      m->default_ = check.whole(f[1], m->classes_.size());
      for (std::size_t i = 2; i < f.size(); ++i)
        m->default_dist_.push_back(check.real(f[i]));
    } else if (key == "rule") {
      m->rules_.push_back(check.rule_line(f, m->classes_.size(), m->attributes_));
    } else if (key == "end") {
      check.need(f, 1);
      ended = true;
      break;
    } else {
      check.damaged("unknown line '" + key + "'");
    }
  }
  if (!ended) check.damaged("cut short");
  if (m->classes_.empty()) check.damaged("no classes");
  if (m->class_order_.size() != m->classes_.size()) check.damaged("class order");
  if (m->default_dist_.size() != m->classes_.size()) check.damaged("default distribution");
  return m;
}

// ---------------------------------------------------------------- text, JSON and PMML

void rule_model::write_text(std::ostream& out) const {
  out << "Rules (" << rules_.size() << " from " << leaves_ << " leaves)\n";
  std::size_t i = 0;
  for (rule const& r : rules_) {
    out << "\nRule " << ++i << ": (" << num(r.cases);
    if (r.errors > 0) out << "/" << num(r.errors);
    out << ", confidence " << num(std::round(r.confidence * 1000) / 1000) << ", lift "
        << num(std::round(r.lift * 10) / 10) << ")\n";
    if (r.conditions.empty()) out << "    (always)\n";
    for (rule_condition const& c : r.conditions)
      out << "    " << attributes_[c.attribute].name << " " << op_text(c.test) << " " << c.value
          << "\n";
    out << "    -> class " << classes_[r.cls] << "\n";
  }
  out << "\nDefault class: " << classes_[default_] << "\n";
}

void rule_model::write_json(std::ostream& out) const {
  out << "{\"kind\":\"ruleset\",\"name\":" << json_string(name_)
      << ",\"class\":" << json_string(class_name_) << ",\"classes\":[";
  for (std::size_t c = 0; c < classes_.size(); ++c)
    out << (c ? "," : "") << json_string(classes_[c]);
  out << "],\"attributes\":[";
  for (std::size_t a = 0; a < attributes_.size(); ++a)
    out << (a ? "," : "") << "{\"name\":" << json_string(attributes_[a].name)
        << ",\"continuous\":" << (attributes_[a].continuous ? "true" : "false") << ",\"kind\":\""
        << (attributes_[a].continuous ? "continuous" : "discrete")
        << "\",\"type\":" << json_string(attributes_[a].datatype) << "}";
  out << "],\"leaves\":" << leaves_ << ",\"class_order\":[";
  for (std::size_t c = 0; c < class_order_.size(); ++c)
    out << (c ? "," : "") << json_string(classes_[class_order_[c]]);
  out << "],\"default\":" << json_string(classes_[default_]) << ",\"rules\":[";
  for (std::size_t i = 0; i < rules_.size(); ++i) {
    rule const& r = rules_[i];
    out << (i ? "," : "") << "{\"class\":" << json_string(classes_[r.cls])
        << ",\"cases\":" << num(r.cases) << ",\"errors\":" << num(r.errors)
        << ",\"confidence\":" << num(r.confidence) << ",\"lift\":" << num(r.lift)
        << ",\"conditions\":[";
    for (std::size_t j = 0; j < r.conditions.size(); ++j) {
      rule_condition const& c = r.conditions[j];
      out << (j ? "," : "") << "{\"attribute\":" << json_string(attributes_[c.attribute].name)
          << ",\"test\":\"" << op_text(c.test) << "\",";
      if (c.test == rule_condition::in) {
        out << "\"values\":[";
        for (std::size_t v = 0; v < c.values.size(); ++v)
          out << (v ? "," : "") << json_string(c.values[v]);
        out << "]}";
      } else {
        out << "\"value\":" << json_string(c.value) << "}";
      }
    }
    out << "]}";
  }
  out << "]}\n";
}

void rule_model::write_pmml(std::ostream& out) const {
  auto type_of = [](std::string const& t) {
    return t == "integer" || t == "uinteger" ? "integer"
           : t == "float"                    ? "float"
           : t == "double"                   ? "double"
                                             : "string";
  };
  out << "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
      << "<PMML xmlns=\"http://www.dmg.org/PMML-4_4\" version=\"4.4\">\n"
      << "  <Header description=\"" << writers::xml_escape(name_) << "\">\n"
      << "    <Application name=\"Brix\" version=\"" << get_version() << "\"/>\n"
      << "  </Header>\n"
      << "  <DataDictionary numberOfFields=\"" << attributes_.size() + 1 << "\">\n";
  for (attribute const& a : attributes_) {
    out << "    <DataField name=\"" << writers::xml_escape(a.name) << "\" optype=\""
        << (a.continuous ? "continuous" : "categorical") << "\" dataType=\""
        << (a.continuous ? type_of(a.datatype) : "string") << "\"";
    if (a.continuous) {
      out << "/>\n";
      continue;
    }
    out << ">\n";
    for (auto const& v : a.values)
      out << "      <Value value=\"" << writers::xml_escape(v) << "\"/>\n";
    out << "    </DataField>\n";
  }
  out << "    <DataField name=\"" << writers::xml_escape(class_name_)
      << "\" optype=\"categorical\" dataType=\"string\">\n";
  for (auto const& c : classes_)
    out << "      <Value value=\"" << writers::xml_escape(c) << "\"/>\n";
  out << "    </DataField>\n  </DataDictionary>\n"
      << "  <RuleSetModel modelName=\"" << writers::xml_escape(name_)
      << "\" functionName=\"classification\">\n"
      << "    <MiningSchema>\n";
  for (attribute const& a : attributes_)
    out << "      <MiningField name=\"" << writers::xml_escape(a.name)
        << "\" usageType=\"active\"/>\n";
  out << "      <MiningField name=\"" << writers::xml_escape(class_name_)
      << "\" usageType=\"target\"/>\n"
      << "    </MiningSchema>\n"
      << "    <RuleSet defaultScore=\"" << writers::xml_escape(classes_[default_])
      << "\" defaultConfidence=\"" << num(default_dist_[default_]) << "\">\n"
      << "      <RuleSelectionMethod criterion=\"weightedMax\"/>\n";
  for (std::size_t i = 0; i < rules_.size(); ++i) {
    rule const& r = rules_[i];
    out << "      <SimpleRule id=\"" << i + 1 << "\" score=\""
        << writers::xml_escape(classes_[r.cls]) << "\" recordCount=\"" << num(r.cases)
        << "\" nbCorrect=\"" << num(r.cases - r.errors) << "\" confidence=\"" << num(r.confidence)
        << "\" weight=\"" << num(r.confidence) << "\">\n";
    auto simple = [&](rule_condition const& c, char const* pad) {
      if (c.test == rule_condition::in) {
        out << pad << writers::set_predicate(attributes_[c.attribute].name, c.values) << "\n";
        return;
      }
      char const* op = c.test == rule_condition::equal       ? "equal"
                       : c.test == rule_condition::not_above ? "lessOrEqual"
                                                             : "greaterThan";
      out << pad << "<SimplePredicate field=\""
          << writers::xml_escape(attributes_[c.attribute].name) << "\" operator=\"" << op
          << "\" value=\"" << writers::xml_escape(c.value) << "\"/>\n";
    };
    if (r.conditions.empty()) {
      out << "        <True/>\n";
    } else if (r.conditions.size() == 1) {
      simple(r.conditions[0], "        ");
    } else {
      out << "        <CompoundPredicate booleanOperator=\"and\">\n";
      for (rule_condition const& c : r.conditions)
        simple(c, "          ");
      out << "        </CompoundPredicate>\n";
    }
    out << "      </SimpleRule>\n";
  }
  out << "    </RuleSet>\n  </RuleSetModel>\n</PMML>\n";
}

}  // namespace brix
