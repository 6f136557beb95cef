// Writes a seeded synthetic loan table, classes from function 2 (salary bands by age), in the
// layout of ../shared/data/syn_agrawal_f2_*: STEM.names, STEM.data (ROWS rows) and STEM.test
// (100,000 rows, from the same stream). As in the shared sets, the class is decided on the
// drawn values and the numeric attributes are then perturbed by up to 5% of their range and
// clipped to it, so about 7.5% of the rows disagree with the function; the house value
// (zipcode-dependent) is clipped at 135,000 like theirs.
// Usage: agrawal ROWS STEM [SEED]   (keep STEM out of the repository)
#include <cinttypes>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <string>

namespace {

struct Generator {
  std::mt19937_64 rng;
  explicit Generator(uint64_t seed) : rng(seed) {}

  double uniform(double lo, double hi) {
    return std::uniform_real_distribution<double>(lo, hi)(rng);
  }
  int integer(int lo, int hi) { return std::uniform_int_distribution<int>(lo, hi)(rng); }
  // Moves V by up to 5% of [LO, HI] either way and clips it to that range.
  double perturb(double v, double lo, double hi) {
    v += (hi - lo) * 0.05 * uniform(-1, 1);
    return v < lo ? lo : v > hi ? hi : v;
  }
};

// Appends V with at most two decimals, without trailing zeros (135000, 100050.4, 110499.74).
char* put_money(char* p, double v) {
  auto cents = static_cast<int64_t>(std::llround(v * 100));
  p += sprintf(p, "%" PRId64, cents / 100);
  int frac = static_cast<int>(cents % 100);
  if (frac != 0) p += frac % 10 == 0 ? sprintf(p, ".%d", frac / 10) : sprintf(p, ".%02d", frac);
  return p;
}

void write_rows(Generator& g, long n, FILE* out) {
  char line[160];
  for (long i = 0; i < n; ++i) {
    double salary = g.uniform(20000, 150000);
    double commission = salary >= 75000 ? 0 : g.uniform(10000, 75000);
    int age = g.integer(20, 80);
    int elevel = g.integer(0, 4);
    int car = g.integer(1, 20);
    int zipcode = g.integer(0, 8);
    double hvalue = (9 - zipcode) * 100000 * g.uniform(0.5, 1.5);
    int hyears = g.integer(1, 30);
    double loan = g.uniform(0, 500000);
    bool group_a = age < 40   ? salary >= 50000 && salary <= 100000
                   : age < 60 ? salary >= 75000 && salary <= 125000
                              : salary >= 25000 && salary <= 75000;
    salary = g.perturb(salary, 20000, 150000);
    if (commission != 0) commission = g.perturb(commission, 10000, 75000);
    age = static_cast<int>(std::lround(g.perturb(age, 20, 80)));
    hvalue = g.perturb(hvalue, 0, 135000);
    hyears = static_cast<int>(std::lround(g.perturb(hyears, 1, 30)));
    loan = g.perturb(loan, 0, 500000);
    char* p = put_money(line, salary);
    *p++ = ',';
    p = put_money(p, commission);
    p += sprintf(p, ",%d,%d,%d,%d,", age, elevel, car, zipcode);
    p = put_money(p, hvalue);
    p += sprintf(p, ",%d,", hyears);
    p = put_money(p, loan);
    p += sprintf(p, ",%d\n", group_a ? 0 : 1);
    fwrite(line, 1, static_cast<size_t>(p - line), out);
  }
}

bool write_file(const std::string& path, Generator& g, long rows) {
  FILE* f = fopen(path.c_str(), "w");
  if (f == nullptr) return false;
  write_rows(g, rows, f);
  return fclose(f) == 0;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 3 || atol(argv[1]) <= 0) {
    fprintf(stderr, "usage: agrawal ROWS STEM [SEED]\n");
    return 2;
  }
  std::string stem = argv[2];
  Generator g(argc > 3 ? strtoull(argv[3], nullptr, 10) : 2);
  FILE* names = fopen((stem + ".names").c_str(), "w");
  if (names == nullptr ||
      fputs("salary,float,continuous\ncommission,float,continuous\nage,integer,continuous\n"
            "elevel,string,discrete\ncar,string,discrete\nzipcode,string,discrete\n"
            "hvalue,float,continuous\nhyears,integer,continuous\nloan,float,continuous\n"
            "group,string,class\n",
            names) < 0 ||
      fclose(names) != 0 || !write_file(stem + ".data", g, atol(argv[1])) ||
      !write_file(stem + ".test", g, 100000)) {
    perror(stem.c_str());
    return 1;
  }
  return 0;
}
