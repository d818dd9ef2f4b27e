// unit_cholesky.cpp - the Cholesky family: the dense kernel of the diagonal
// block against LAPACK, the supernodal loop against the permuted matrix
// (every update kernel taken), failures, the Schur block, and the entry of
// the numeric factorization.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <random>
#include <vector>

#include "factor/blas.h"
#include "factor/blkl.h"
#include "factor/dense_kernels.h"
#include "factor/factor_shell.h"
#include "factor_setup.h"
#include "interface/control.h"
#include "matrix_folder.h"
#include "test_matrices.h"

namespace {

using factor_setup::Ordering;
using std::vector;

// ---- dense helpers (column-major)

struct Dense {
  int n;
  vector<double> v;
  explicit Dense(int size) : n(size), v(static_cast<size_t>(size) * size, 0.0) {}
  double &operator()(int i, int j) { return v[i + static_cast<size_t>(j) * n]; }
};

// P A P^T of an upper-triangle CSR matrix, full.
Dense permuted(const testmat::Csr &a, const vector<int> &invp) {
  Dense d(a.n);
  for (int i = 1; i <= a.n; ++i)
    for (int k = a.ia[i - 1]; k < a.ia[i]; ++k) {
      const int r = invp[i - 1] - 1, c = invp[a.ja[k - 1] - 1] - 1;
      d(r, c) = d(c, r) = a.a[k - 1];
    }
  return d;
}

// The lower triangle of the computed factor, from the panels.
Dense factor_of(const factor_setup::Symbolic &s, const vector<double> &lnz) {
  Dense l(s.n);
  for (int k = 1; k <= s.nsuper; ++k)
    for (int j = s.xsuper[k - 1]; j < s.xsuper[k]; ++j)
      for (auto p = s.xlindx[k - 1] + (j - s.xsuper[k - 1]); p < s.xlindx[k]; ++p)
        l(s.lindx[p - 1] - 1, j - 1) = lnz[s.xlnz[j - 1] - 1 + (p - s.xlindx[k - 1])];
  return l;
}

testmat::Csr random_spd(int n, double density, unsigned seed) {
  std::mt19937 rng(seed);
  std::uniform_real_distribution<double> u(-1.0, 1.0), coin(0.0, 1.0);
  std::vector<std::pair<std::pair<int, int>, double>> e;
  vector<double> diag(n, 1.0);
  for (int i = 0; i < n; ++i)
    for (int j = i + 1; j < n; ++j)
      if (coin(rng) < density) {
        const double v = u(rng);
        e.push_back({{i, j}, v});
        diag[i] += std::fabs(v);
        diag[j] += std::fabs(v);
      }
  for (int i = 0; i < n; ++i) e.push_back({{i, i}, diag[i]});
  return testmat::from_entries(n, e, true);
}

struct Factored {
  factor_setup::Symbolic s;
  vector<double> lnz;
  vm::FactorScalars sc;
  double logdet = 0.0;
};

// Analyses a and runs BLKL_SEQ_VELMORA; `prepare` may change the records.
template <class F>
Factored factor(const testmat::Csr &a, Ordering o, int width, int nschur, F prepare) {
  Factored r;
  r.s = factor_setup::analyse(a, o, width, nschur);
  EXPECT_EQ(r.s.status, 0);
  if (r.s.status != 0) return r;
  factor_setup::Records rec = factor_setup::records(r.s, a, &r.lnz);
  r.sc.logdet = &r.logdet;
  prepare(rec, r);
  vm::BLKL_SEQ_VELMORA(rec.view, rec.input, rec.work, r.sc);
  return r;
}
Factored factor(const testmat::Csr &a, Ordering o, int width, int nschur = 0) {
  return factor(a, o, width, nschur, [](factor_setup::Records &, Factored &) {});
}

// max |L L^T - P A P^T| over the lower triangle, relative to max |A|.
double dense_error(const testmat::Csr &a, const Factored &r) {
  Dense pa = permuted(a, r.s.invp), l = factor_of(r.s, r.lnz);
  double err = 0, amax = 0;
  for (int j = 0; j < a.n; ++j)
    for (int i = j; i < a.n; ++i) {
      double s = 0;
      for (int k = 0; k <= j; ++k) s += l(i, k) * l(j, k);
      err = std::max(err, std::fabs(s - pa(i, j)));
      amax = std::max(amax, std::fabs(pa(i, j)));
    }
  return err / amax;
}

// ||L (L^T x) - P A P^T x|| / (||A|| ||x||) for a random x, by the panels.
double residual(const testmat::Csr &a, const Factored &r) {
  const auto &s = r.s;
  const int n = a.n;
  std::mt19937 rng(7);
  std::uniform_real_distribution<double> u(-1.0, 1.0);
  vector<double> x(n), y(n, 0.0), z(n, 0.0);
  for (double &v : x) v = u(rng);
  double amax = 0;
  for (int i = 1; i <= n; ++i)
    for (int k = a.ia[i - 1]; k < a.ia[i]; ++k) {
      const int pr = s.invp[i - 1] - 1, pc = s.invp[a.ja[k - 1] - 1] - 1;
      z[pr] += a.a[k - 1] * x[pc];
      if (pr != pc) z[pc] += a.a[k - 1] * x[pr];
      amax = std::max(amax, std::fabs(a.a[k - 1]));
    }
  vector<double> t(n, 0.0);  // L^T x, then L t
  for (int pass = 0; pass < 2; ++pass)
    for (int k = 1; k <= s.nsuper; ++k)
      for (int j = s.xsuper[k - 1]; j < s.xsuper[k]; ++j)
        for (auto p = s.xlindx[k - 1] + (j - s.xsuper[k - 1]); p < s.xlindx[k]; ++p) {
          const double l = r.lnz[s.xlnz[j - 1] - 1 + (p - s.xlindx[k - 1])];
          const int i = s.lindx[p - 1] - 1;
          if (pass == 0)
            t[j - 1] += l * x[i];
          else
            y[i] += l * t[j - 1];
        }
  double err = 0;
  for (int i = 0; i < n; ++i) err = std::max(err, std::fabs(y[i] - z[i]));
  return err / (amax * n);
}

// ---- dense kernel

TEST(DenseKernel, MatchesLapackAndSumsLogDet) {
  std::mt19937 rng(1);
  std::uniform_real_distribution<double> u(-1.0, 1.0);
  for (int n : {1, 5, 16, 17, 33, 80, 128, 200}) {
    SCOPED_TRACE(n);
    const int lda = n + 3;
    vector<double> a(static_cast<size_t>(lda) * n, 0.0);
    for (int j = 0; j < n; ++j)
      for (int i = j; i < n; ++i) a[i + j * lda] = i == j ? n + 1.0 : u(rng);
    vector<double> ref = a;
    ASSERT_EQ(vm::blas::potrf<double>('L', n, ref.data(), lda), 0);
    int info = -7;
    double logdet = 0.5, expect = 0.5;
    vm::dpotf2_logdet<double>('L', n, a.data(), lda, &info, &logdet);
    ASSERT_EQ(info, 0);
    for (int j = 0; j < n; ++j) {
      expect += 2 * std::log(ref[j + j * lda]);
      for (int i = j; i < n; ++i) EXPECT_NEAR(a[i + j * lda], ref[i + j * lda], 1e-13 * n);
    }
    EXPECT_NEAR(logdet, expect, 1e-12 * n);
  }
}

TEST(DenseKernel, StopsAtFirstBadPivotAndKeepsIt) {
  const int n = 100, bad = 69;  // zero-based column of the failing pivot
  std::mt19937 rng(2);
  std::uniform_real_distribution<double> u(-1.0, 1.0);
  Dense l0(n), a(n);
  for (int j = 0; j < n; ++j)
    for (int i = j; i < n; ++i) l0(i, j) = i == j ? 1.0 + std::fabs(u(rng)) : 0.3 * u(rng);
  for (int j = 0; j < n; ++j)
    for (int i = j; i < n; ++i)
      for (int k = 0; k <= j; ++k) a(i, j) += l0(i, k) * l0(j, k);
  a(bad, bad) -= l0(bad, bad) * l0(bad, bad) + 0.5;  // its pivot is -0.5
  int info = 0;
  double logdet = 0.0;
  vm::dpotf2_logdet<double>('L', n, a.v.data(), n, &info, &logdet);
  EXPECT_EQ(info, bad + 1);
  EXPECT_NEAR(a(bad, bad), -0.5, 1e-12);
  double expect = 0.0;
  for (int j = 0; j < bad; ++j) {
    expect += 2 * std::log(l0(j, j));
    for (int i = j; i < bad; ++i) EXPECT_NEAR(a(i, j), l0(i, j), 1e-12);
  }
  EXPECT_NEAR(logdet, expect, 1e-11);
}

// ---- the supernodal loop

TEST(Cholesky, FactorMatchesPermutedMatrixWithEveryKernel) {
  VELMORA_NEEDS_MATRIX_FOLDER();
  vm::UpdateKernelCounts counts;
  vm::set_update_kernel_counts(&counts);
  struct Case {
    const char *name;
    testmat::Csr a;
    Ordering o;
  };
  vector<Case> cases = {{"grid2d", testmat::grid_laplacian(13, 11, 1, true), Ordering::kAmd},
                        {"grid3d", testmat::grid_laplacian(7, 6, 5, true), Ordering::kMetis},
                        {"random", random_spd(150, 0.03, 4), Ordering::kAmd},
                        {"dense", testmat::dense(40, true), Ordering::kNatural},
                        {"bcsstk13", testmat::from_file("bcsstk13.mtx", true), Ordering::kAmd}};
  for (const Case &c : cases) {
    ASSERT_GT(c.a.n, 0) << c.name;
    for (int width : {1, 4, 80, 128}) {
      SCOPED_TRACE(std::string(c.name) + " width " + std::to_string(width));
      Factored r = factor(c.a, c.o, width);
      ASSERT_EQ(r.sc.iflag, 0);
      EXPECT_LT(residual(c.a, r), 1e-14);
      if (c.a.n <= 400) {
        EXPECT_LT(dense_error(c.a, r), 1e-14);
      }
    }
  }
  vm::set_update_kernel_counts(nullptr);
  EXPECT_GT(counts.coinciding, 0);
  EXPECT_GT(counts.rank1, 0);
  EXPECT_GT(counts.buffered, 0);
  EXPECT_GT(counts.direct, 0);
  EXPECT_GT(counts.reach, 0);   // updates covering several pieces of a split supernode
  EXPECT_GT(counts.pieces, 0);  // pieces applied together beyond it
  EXPECT_EQ(counts.skipped, 0);
}

TEST(Cholesky, NonPositivePivotStopsTheLoop) {
  testmat::Csr a = testmat::grid_laplacian(8, 8, 1, true);
  const int node = 20;  // original index whose diagonal turns negative
  a.a[a.ia[node - 1] - 1] = -10.0;
  const Factored r = factor(a, Ordering::kAmd, 80, 0, [](factor_setup::Records &, Factored &run) {
    std::fill(run.lnz.begin(), run.lnz.end(), 7.0);
  });
  EXPECT_EQ(r.sc.iflag, -1);
  const auto &s = r.s;
  const int col = s.invp[node - 1], ksup = s.snode[col - 1];
  auto diag = [&](int j) { return r.lnz[s.xlnz[j - 1] - 1 + (j - s.xsuper[s.snode[j - 1] - 1])]; };
  EXPECT_LT(diag(col), 0.0);
  for (int j = s.xsuper[ksup - 1]; j < col; ++j) EXPECT_GT(diag(j), 0.0);
  for (auto k = s.xlnz[s.xsuper[ksup] - 1] - 1; k < s.xlnz[s.n] - 1; ++k) EXPECT_EQ(r.lnz[k], 7.0);
}

TEST(Cholesky, BufferTooSmall) {
  const testmat::Csr a = testmat::grid_laplacian(6, 6, 6, true);
  EXPECT_EQ(factor(a, Ordering::kMetis, 80).sc.iflag, 0);
  const Factored r = factor(a, Ordering::kMetis, 80, 0,
                            [](factor_setup::Records &rec, Factored &) { rec.work.tmpsiz = 1; });
  EXPECT_EQ(r.sc.iflag, -2);
}

TEST(Cholesky, SchurBlockLeftUnfactored) {
  vm::UpdateKernelCounts counts;
  vm::set_update_kernel_counts(&counts);
  const testmat::Csr a = testmat::grid_laplacian(10, 10, 1, true);
  const int ns = 12, n = a.n, n1 = n - ns;
  const Factored r = factor(a, Ordering::kAmd, 4, ns);
  vm::set_update_kernel_counts(nullptr);
  ASSERT_EQ(r.sc.iflag, 0);
  EXPECT_GT(counts.skipped, 0);

  // Dense reference: L11 of A11, L21 = A21 L11^-T, S = A22 - L21 L21^T.
  Dense d = permuted(a, r.s.invp), l = factor_of(r.s, r.lnz);
  ASSERT_EQ(vm::blas::potrf<double>('L', n1, d.v.data(), n), 0);
  vm::blas::trsm<double>('R', 'L', 'T', 'N', ns, n1, 1.0, d.v.data(), n, &d(n1, 0), n);
  vm::blas::gemm<double>('N', 'T', ns, ns, n1, -1.0, &d(n1, 0), n, &d(n1, 0), n, 1.0, &d(n1, n1),
                         n);
  for (int j = 0; j < n; ++j)
    for (int i = j; i < n; ++i) EXPECT_NEAR(l(i, j), d(i, j), 1e-13) << i << " " << j;

  std::int64_t expect = 0;
  for (int k = 1; k <= r.s.nsuper; ++k) {
    const std::int64_t c = r.s.xsuper[k] - r.s.xsuper[k - 1];
    const std::int64_t rows = r.s.xlindx[k] - r.s.xlindx[k - 1];
    if (r.s.xsuper[k] - 1 > n1) expect += c * rows - c * (c - 1) / 2;
  }
  EXPECT_EQ(r.sc.schur_nnz, expect);
}

// ---- entry of the numeric factorization

TEST(FactorShell, RunsTheCholeskyMembersInEitherModeAndNoneInAnother) {
  const testmat::Csr a = testmat::grid_laplacian(9, 7, 1, true);
  const factor_setup::Symbolic s = factor_setup::analyse(a, Ordering::kAmd, 80);
  vector<double> lnz;
  factor_setup::Records rec = factor_setup::records(s, a, &lnz);
  const vm::FactorView<void> view = factor_setup::untyped(rec.view);
  vm::FactorWork<void> work = factor_setup::untyped(rec.work);
  vm::FactorOptions o;
  o.determinant = 1;
  vm::FactorScalars out;
  vm::FactorTimes times;
  for (int seq : {1, 0}) {
    o.sequential = seq;
    times = vm::FactorTimes{};
    EXPECT_EQ(vm::FACTOR_SHELL_VELMORA(o, view, rec.input, work, &times, &out), 0);
    Factored r;
    r.s = s;
    r.lnz = lnz;
    EXPECT_LT(dense_error(a, r), 1e-14);
    EXPECT_LT(times.logdet, 0.0 + 63 * std::log(6.5) + 1e-9);
    EXPECT_GT(times.logdet, 0.0);
  }
  EXPECT_GE(times.a_to_lu, 0.0);
  EXPECT_GE(times.numfct, 0.0);
  // A mode other than 0 and 1 runs no member: the panels stay as they are.
  o.sequential = 2;
  std::fill(lnz.begin(), lnz.end(), 7.0);
  EXPECT_EQ(vm::FACTOR_SHELL_VELMORA(o, view, rec.input, work, &times, &out), 0);
  EXPECT_EQ(std::count(lnz.begin(), lnz.end(), 7.0), static_cast<long>(lnz.size()));
}

}  // namespace
