// hybrid_bench - the hybrid mode (iparm(4)) against refactoring every step,
// on sequences of 20 matrices with one pattern and values drifting 1% a
// step: a 3D diffusion (positive definite, CG) and a 3D convection-diffusion
// (unsymmetric, CGS), at 1 and 2 threads; total time of the 20 calls of
// phase 23 (the first 13), and the worst normwise backward error.  Run by
// hand; prints a Markdown table.
//
//   hybrid_bench [grid] [L] [rounds]   (defaults 30, 14: tolerance 1e-14, 3)
#include <omp.h>
#include <velmora.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <vector>

#include "test_matrices.h"

namespace {

using testmat::Csr;

struct Outcome {
  double seconds = 0, worst = 0;
  int factorizations = 0, iterations = 0;
};

Outcome run(int mtype, int hybrid, int threads, const Csr &base, bool symmetric) {
  std::array<void *, 64> pt{};
  std::array<int, 64> iparm{};
  std::array<double, 64> dparm{};
  int solver = 0, error = 0, maxfct = 1, mnum = 1, nrhs = 1, msglvl = 0, n = base.n;
  velmorainit(pt.data(), &mtype, &solver, iparm.data(), dparm.data(), &error);
  iparm[2] = threads;
  iparm[3] = hybrid;
  Csr m = base;
  std::vector<int> perm(n);
  std::vector<double> b = testmat::random_vector(n, 7), x(n);
  Outcome out;
  for (int k = 0; k < 20; ++k) {
    std::mt19937 rng(5);
    std::uniform_real_distribution<double> u(-1.0, 1.0);
    for (size_t e = 0; e < m.a.size(); ++e) m.a[e] = base.a[e] * (1.0 + 0.01 * k * u(rng));
    int phase = k == 0 ? 13 : 23;
    const double t0 = omp_get_wtime();
    velmora(pt.data(), &maxfct, &mnum, &mtype, &phase, &n, m.a.data(), m.ia.data(), m.ja.data(),
            perm.data(), &nrhs, iparm.data(), &msglvl, b.data(), x.data(), &error, dparm.data());
    out.seconds += omp_get_wtime() - t0;
    if (error != 0) std::fprintf(stderr, "step %d: error %d\n", k, error);
    if (iparm[19] == 0) ++out.factorizations;
    if (iparm[19] > 0) out.iterations += iparm[19];
    // Normwise backward error over the stored form.
    std::vector<double> r(b);
    std::vector<double> rowsum(n, 0.0);
    for (int i = 0; i < n; ++i)
      for (int e = m.ia[i] - 1; e < m.ia[i + 1] - 1; ++e) {
        const int j = m.ja[e] - 1;
        r[i] -= m.a[e] * x[j];
        rowsum[i] += std::abs(m.a[e]);
        if (symmetric && j != i) r[j] -= m.a[e] * x[i], rowsum[j] += std::abs(m.a[e]);
      }
    double rn = 0, an = 0, xn = 0, bn = 0;
    for (int i = 0; i < n; ++i)
      rn = std::max(rn, std::abs(r[i])), an = std::max(an, rowsum[i]),
      xn = std::max(xn, std::abs(x[i])), bn = std::max(bn, std::abs(b[i]));
    out.worst = std::max(out.worst, rn / (an * xn + bn));
  }
  int phase = -1;
  velmora(pt.data(), &maxfct, &mnum, &mtype, &phase, &n, m.a.data(), m.ia.data(), m.ja.data(),
          perm.data(), &nrhs, iparm.data(), &msglvl, b.data(), x.data(), &error, dparm.data());
  return out;
}

}  // namespace

int main(int argc, char **argv) {
  const int g = argc > 1 ? std::atoi(argv[1]) : 30;
  const int digits = argc > 2 ? std::atoi(argv[2]) : 14;
  const int rounds = argc > 3 ? std::max(1, std::atoi(argv[3])) : 3;
  const Csr spd = testmat::grid_laplacian(g, g, g, true);
  const Csr cd = testmat::convection_diffusion(g, g, g, 0.5);
  std::printf(
      "| sequence (%d^3, 20 steps) | threads | refactor every step s | hybrid s | "
      "hybrid / refactor | factorizations | iterations | backward error refactor | "
      "backward error hybrid |\n|---|--:|--:|--:|--:|--:|--:|--:|--:|\n",
      g);
  struct Seq {
    const char *name;
    int mtype, k;
    const Csr *m;
    bool symmetric;
  } seqs[] = {{"diffusion, CG (mtype 2)", 2, 2, &spd, true},
              {"convection-diffusion, CGS (mtype 11)", 11, 1, &cd, false}};
  for (const Seq &s : seqs)
    for (int t : {1, 2}) {
      // Alternate the two modes, `rounds` rounds, medians of the totals.
      std::vector<Outcome> direct, hybrid;
      for (int round = 0; round < rounds; ++round) {
        direct.push_back(run(s.mtype, 0, t, *s.m, s.symmetric));
        hybrid.push_back(run(s.mtype, 10 * digits + s.k, t, *s.m, s.symmetric));
      }
      auto median = [](std::vector<Outcome> v) {
        std::sort(v.begin(), v.end(),
                  [](const Outcome &a, const Outcome &b) { return a.seconds < b.seconds; });
        return v[v.size() / 2];
      };
      const Outcome d = median(direct), h = median(hybrid);
      std::printf("| %s | %d | %.3f | %.3f | %.2f | %d | %d | %.1e | %.1e |\n", s.name, t,
                  d.seconds, h.seconds, h.seconds / d.seconds, h.factorizations, h.iterations,
                  d.worst, h.worst);
      std::fflush(stdout);
    }
  return 0;
}
