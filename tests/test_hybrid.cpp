// The hybrid mode (iparm(4)) through the public call: sequences of
// matrices with one pattern and drifting values, solved with phase 23 each
// step; a factorization shows as iparm(20) 0, a run of the iteration as
// its count.
#include <gtest/gtest.h>
#include <velmora.h>

#include <array>
#include <cmath>
#include <complex>
#include <random>
#include <vector>

#include "test_matrices.h"

namespace {

using testmat::Csr;

struct Handle {
  std::array<void *, 64> pt{};
  std::array<int, 64> iparm{};
  std::array<double, 64> dparm{};
  int mtype;
  Handle(int type, int hybrid) : mtype(type) {
    int solver = 0, error = 0;
    velmorainit(pt.data(), &mtype, &solver, iparm.data(), dparm.data(), &error);
    iparm[3] = hybrid;
    iparm[2] = 1;
  }
  ~Handle() { call(-1, nullptr, nullptr, nullptr, 1); }
  int call(int phase, Csr *a, double *b, double *x, int nrhs) {
    int maxfct = 1, mnum = 1, n = a ? a->n : 0, msglvl = 0, error = 0;
    std::vector<int> perm(static_cast<size_t>(n) + 1);
    velmora(pt.data(), &maxfct, &mnum, &mtype, &phase, &n, a ? a->a.data() : nullptr,
            a ? a->ia.data() : nullptr, a ? a->ja.data() : nullptr, perm.data(), &nrhs,
            iparm.data(), &msglvl, b, x, &error, dparm.data());
    return error;
  }
};

// ||b - A x||_2 / ||b||_2 over the stored form (symmetric: upper triangle),
// real or complex pairs.
double relative_residual(const Csr &m, bool symmetric, bool cplx, const double *x,
                         const double *b) {
  using C = std::complex<double>;
  const int n = m.n;
  std::vector<C> r(n);
  auto val = [&](int k) { return cplx ? C(m.a[2 * k], m.a[2 * k + 1]) : C(m.a[k], 0.0); };
  auto vec = [&](const double *v, int i) { return cplx ? C(v[2 * i], v[2 * i + 1]) : C(v[i]); };
  for (int i = 0; i < n; ++i) r[i] = vec(b, i);
  for (int i = 0; i < n; ++i)
    for (int k = m.ia[i] - 1; k < m.ia[i + 1] - 1; ++k) {
      const int j = m.ja[k] - 1;
      r[i] -= val(k) * vec(x, j);
      if (symmetric && j != i) r[j] -= val(k) * vec(x, i);
    }
  double rn = 0, bn = 0;
  for (int i = 0; i < n; ++i) rn += std::norm(r[i]), bn += std::norm(vec(b, i));
  return std::sqrt(rn / bn);
}

// Values of step k: every entry drifts by up to `rate` a step, each by its
// own fixed fraction, so that a symmetric matrix stays symmetric.
void drift(const Csr &base, Csr *m, int k, double rate, unsigned seed) {
  std::mt19937 rng(seed);
  std::uniform_real_distribution<double> u(-1.0, 1.0);
  for (size_t e = 0; e < base.a.size(); ++e) m->a[e] = base.a[e] * (1.0 + rate * k * u(rng));
}

struct Sequence {
  int factorizations = 0, iterated = 0;
  double worst = 0.0;
};

// Twenty steps of drifting values; at step `jump` (0: none) the values of
// a positive definite upper triangle change by factors up to 50.
Sequence run_sequence(int mtype, int hybrid, const Csr &base, bool symmetric, bool cplx, int jump,
                      double rate, int *jump_result = nullptr) {
  Handle h(mtype, hybrid);
  Csr m = base;
  const size_t width = cplx ? 2 : 1;
  std::vector<double> b = testmat::random_vector(width * m.n, 7), x(b.size());
  Sequence s;
  std::mt19937 rng(99);
  std::uniform_real_distribution<double> u(std::log(1.0 / 50), std::log(50.0));
  for (int k = 0; k < 20; ++k) {
    drift(base, &m, k, rate, 5);
    if (k == jump && jump > 0) {
      // Off-diagonal entries scaled by 1/50 to 50, each diagonal entry
      // then set to dominate its row and column: still positive definite.
      std::vector<double> sum(m.n, 0.0);
      for (int i = 0; i < m.n; ++i)
        for (int e = m.ia[i] - 1; e < m.ia[i + 1] - 1; ++e)
          if (m.ja[e] != i + 1) {
            m.a[e] *= std::exp(u(rng));
            sum[i] += std::abs(m.a[e]);
            sum[m.ja[e] - 1] += std::abs(m.a[e]);
          }
      for (int i = 0; i < m.n; ++i) m.a[m.ia[i] - 1] = 1.0 + sum[i];
    }
    const int error = h.call(k == 0 ? 13 : 23, &m, b.data(), x.data(), 1);
    EXPECT_EQ(error, 0) << "step " << k;
    const int iterations = h.iparm[19];
    if (iterations == 0) ++s.factorizations;
    if (iterations > 0) ++s.iterated;
    if (k == jump && jump_result) *jump_result = iterations;
    s.worst = std::max(s.worst, relative_residual(m, symmetric, cplx, x.data(), b.data()));
  }
  return s;
}

// How often a sequence factors depends on the measured times (the limit
// of a run is about one factorization's worth of solves), so the bound is
// loose: under a sanitizer or a loaded machine the ratio of the two times
// shrinks.  The answers must be right whatever the timing.
TEST(Hybrid, DriftingSequencesFactorRarely) {
  // CG (K 2) on a positive definite diffusion, tolerance 1e-10.
  const Csr spd = testmat::grid_laplacian(16, 16, 16, true);
  const Sequence cg = run_sequence(2, 102, spd, true, false, 0, 0.005);
  EXPECT_LT(cg.worst, 1e-8);
  EXPECT_LE(cg.factorizations, 10);
  EXPECT_EQ(cg.factorizations + cg.iterated, 20);
  // CGS (K 1) on an unsymmetric convection-diffusion.
  const Csr cd = testmat::convection_diffusion(16, 16, 16, 0.5);
  const Sequence cgs = run_sequence(11, 101, cd, false, false, 0, 0.005);
  EXPECT_LT(cgs.worst, 1e-8);
  EXPECT_LE(cgs.factorizations, 10);
  // A complex unsymmetric one.
  Csr z = cd;
  z.a.assign(2 * cd.a.size(), 0.0);
  for (size_t e = 0; e < cd.a.size(); ++e) z.a[2 * e] = cd.a[e], z.a[2 * e + 1] = 0.3 * cd.a[e];
  const Sequence cz = run_sequence(13, 101, z, false, true, 0, 0.005);
  EXPECT_LT(cz.worst, 1e-8);
  EXPECT_LE(cz.factorizations, 10);
}

TEST(Hybrid, AJumpRefactorsWithoutAWrongAnswer) {
  const Csr spd = testmat::grid_laplacian(16, 16, 16, true);
  int at_jump = -1;
  const Sequence s = run_sequence(2, 122, spd, true, false, 10, 0.01, &at_jump);
  EXPECT_EQ(at_jump, 0) << "the step of the jump was not refactored";
  EXPECT_LT(s.worst, 1e-10);
}

// Values of another matrix altogether (random, indefinite, no dominant
// diagonal): the run on the old factor fails.
TEST(Hybrid, AFailedRunFactorsOnceOrReportsInNegativeMode) {
  const Csr cd = testmat::convection_diffusion(12, 12, 12, 0.5);
  std::vector<double> b = testmat::random_vector(cd.n, 3), x(cd.n);
  for (const int hybrid : {301, -301}) {
    Handle h(11, hybrid);
    Csr m = cd;
    ASSERT_EQ(h.call(13, &m, b.data(), x.data(), 1), 0);
    EXPECT_EQ(h.iparm[19], 0);
    std::mt19937 rng(11);
    std::uniform_real_distribution<double> u(-1.0, 1.0);
    for (double &v : m.a) v = u(rng);
    const int error = h.call(23, &m, b.data(), x.data(), 1);
    if (hybrid > 0) {
      // K 1: the failed run is followed by a factorization in the same
      // call, which clears iparm(20).
      EXPECT_EQ(error, 0);
      EXPECT_EQ(h.iparm[19], 0);
    } else {
      // K -1: the failure is the caller's: error -4 ("cgs error"), and
      // iparm(20) = code - 10 * count.
      EXPECT_EQ(error, -4);
      EXPECT_LT(h.iparm[19], 0);
      EXPECT_GE(h.iparm[19] % 10, -3) << h.iparm[19];
      // The next numeric phase factors.
      ASSERT_EQ(h.call(23, &m, b.data(), x.data(), 1), 0);
      EXPECT_EQ(h.iparm[19], 0);
    }
    EXPECT_LT(relative_residual(m, false, false, x.data(), b.data()), 1e-10) << hybrid;
  }
}

}  // namespace
