// single_bench - single-precision factors (iparm(29) 1) against double ones
// at 1 and 2 threads: the 3D Laplacian of a 60^3 grid as mtype -2, the KKT
// matrix of the benchmark's generator on a 43^3 grid (about 100k unknowns;
// mtype -2, iparm(21) 1, symmetric matching), and the 32^3 convection-
// diffusion LU (mtype 11, defaults).  One analysis per case and
// precision; medians over the runs of the factorization (phase 22, wall
// clock) and of the solve to a normwise backward error below 1e-14 (phase
// 33 with the fewest refinement steps that reach it, found before the timed
// runs), the double and single runs taken in turn.  Run by hand; prints a
// Markdown table.
//
//   single_bench [runs] [laplacian-side]   (defaults 5, 60)
#include <omp.h>
#include <velmora.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "test_matrices.h"

namespace {

using testmat::Csr;

constexpr double kTarget = 1e-14;
constexpr int kMostSteps = 8;

struct Case {
  std::string name;
  Csr m;
  int mtype;
  bool kkt;
};

struct Timing {
  double factor = 0, solve = 0, berr = 0;
  int steps = -1, kb = 0;
};

double median(std::vector<double> v) {
  std::sort(v.begin(), v.end());
  return v[v.size() / 2];
}

class Handle {
 public:
  Handle(const Case &c, int single, int threads) : c_(c), mtype_(c.mtype) {
    int solver = 0, error = 0;
    velmorainit(pt_.data(), &mtype_, &solver, iparm_.data(), dparm_.data(), &error);
    iparm_[2] = threads;
    iparm_[28] = single;
    if (c.kkt) {
      iparm_[20] = 1;
      iparm_[12] = 1;
    }
    b_ = testmat::random_vector(c.m.n, 7);
    x_.assign(b_.size(), 0.0);
  }
  ~Handle() { call(-1); }
  // Seconds of the call; its error in *error.
  double call(int phase, int *error = nullptr) {
    int maxfct = 1, mnum = 1, nrhs = 1, msglvl = 0, n = c_.m.n, e = 0;
    std::vector<int> perm(n);
    const double t0 = omp_get_wtime();
    velmora(pt_.data(), &maxfct, &mnum, &mtype_, &phase, &n, const_cast<double *>(c_.m.a.data()),
            const_cast<int *>(c_.m.ia.data()), const_cast<int *>(c_.m.ja.data()), perm.data(),
            &nrhs, iparm_.data(), &msglvl, b_.data(), x_.data(), &e, dparm_.data());
    const double t = omp_get_wtime() - t0;
    if (error) *error = e;
    if (e != 0 && phase != -1)
      std::fprintf(stderr, "%s: phase %d error %d\n", c_.name.c_str(), phase, e);
    return t;
  }
  double berr() const {
    return testmat::backward_error(c_.m, x_.data(), b_.data(), 1, mtype_ % 2 == 0);
  }
  int *iparm() { return iparm_.data(); }

 private:
  const Case &c_;
  int mtype_;
  std::array<void *, 64> pt_{};
  std::array<int, 64> iparm_{};
  std::array<double, 64> dparm_{};
  std::vector<double> b_, x_;
};

// The fewest refinement steps (iparm(8)) with which phase 33 reaches the
// target on h's factor; the most steps when none does.
int steps_to_target(Handle &h, Timing *t) {
  for (int k = 0; k <= kMostSteps; ++k) {
    h.iparm()[7] = k;
    h.call(33);
    t->berr = h.berr();
    if (t->berr < kTarget) return k;
  }
  return kMostSteps;
}

// Double (d) and single (s) on two handles, their runs taken in turn so
// that both see the same load of a shared machine.
void measure(const Case &c, int threads, int runs, Timing *d, Timing *s) {
  Handle hd(c, 0, threads), hs(c, 1, threads);
  Handle *h[2] = {&hd, &hs};
  Timing *t[2] = {d, s};
  std::vector<double> tf[2], ts[2];
  for (int p = 0; p < 2; ++p) {
    h[p]->call(11);
    t[p]->kb = h[p]->iparm()[16];
  }
  for (int r = 0; r < runs; ++r)
    for (int p = 0; p < 2; ++p) tf[p].push_back(h[p]->call(22));
  for (int p = 0; p < 2; ++p) {
    t[p]->factor = median(tf[p]);
    t[p]->steps = steps_to_target(*h[p], t[p]);
    h[p]->iparm()[7] = t[p]->steps;
  }
  for (int r = 0; r < runs; ++r)
    for (int p = 0; p < 2; ++p) ts[p].push_back(h[p]->call(33));
  for (int p = 0; p < 2; ++p) {
    t[p]->solve = median(ts[p]);
    t[p]->berr = h[p]->berr();
  }
}

}  // namespace

int main(int argc, char **argv) {
  const int runs = argc > 1 ? std::max(1, std::atoi(argv[1])) : 5;
  const int side = argc > 2 ? std::max(4, std::atoi(argv[2])) : 60;
  const std::vector<Case> cases = {
      {"Laplacian " + std::to_string(side) + "^3 (-2)",
       testmat::grid_laplacian(side, side, side, true), -2, false},
      {"KKT 43^3+19876 (-2)", testmat::kkt_local(43, 43 * 43 * 43 / 4, 7), -2, true},
      {"conv-diff 32^3 (11)", testmat::convection_diffusion(32, 32, 32, 3.0), 11, false}};
  std::printf(
      "| matrix | threads | factor double | factor single | ratio | total double (steps) "
      "| total single (steps) | ratio | berr double | berr single | iparm(17) d / s |\n");
  std::printf("|---|---|---|---|---|---|---|---|---|---|---|\n");
  for (const Case &c : cases) {
    for (int threads : {1, 2}) {
      Timing d, s;
      measure(c, threads, runs, &d, &s);
      const double td = d.factor + d.solve, ts = s.factor + s.solve;
      std::printf(
          "| %s | %d | %.3f s | %.3f s | %.2f | %.3f s (%d) | %.3f s (%d) | %.2f | %.1e | "
          "%.1e | %d / %d kB |\n",
          c.name.c_str(), threads, d.factor, s.factor, s.factor / d.factor, td, d.steps, ts,
          s.steps, ts / td, d.berr, s.berr, d.kb, s.kb);
      std::fflush(stdout);
    }
  }
  return 0;
}
