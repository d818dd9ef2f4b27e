// unit_ldlt.cpp - the LDL^T family: the pivoting kernels of the diagonal
// block (against LAPACK where they agree with it, and every perturbation
// and inertia rule), the supernodal loop in both pivot modes (inertia
// against the eigenvalues, backward error of the solve), and the solve
// kernels' selectors, forms and block start.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <random>
#include <string>
#include <vector>

#include "factor/blkldl.h"
#include "factor/dense_kernels.h"
#include "factor/factor_shell.h"
#include "factor_setup.h"
#include "interface/control.h"
#include "matrix_folder.h"
#include "solve/solve.h"
#include "test_matrices.h"

extern "C" {
void dsytrf_(const char *, const int *, double *, const int *, int *, double *, const int *, int *);
void dsytrs_(const char *, const int *, const int *, const double *, const int *, const int *,
             double *, const int *, int *);
void dsyev_(const char *, const char *, const int *, double *, const int *, double *, double *,
            const int *, int *);
}

namespace {

using factor_setup::Ordering;
using std::vector;
using Entries = vector<std::pair<std::pair<int, int>, double>>;

vector<double> random_vector(size_t n, unsigned seed, double lo = -1, double hi = 1) {
  std::mt19937 g(seed);
  std::uniform_real_distribution<double> u(lo, hi);
  vector<double> v(n);
  for (double &e : v) e = u(g);
  return v;
}

// A random symmetric n x n block (both triangles), leading dimension lda.
vector<double> random_block(int n, int lda, unsigned seed) {
  vector<double> a(static_cast<size_t>(lda) * n, 0.0), r = random_vector(a.size(), seed);
  for (int j = 0; j < n; ++j)
    for (int i = j; i < n; ++i) a[i + j * lda] = a[j + i * lda] = r[i + j * lda];
  return a;
}

vector<double> eigenvalues(vector<double> a, int n) {
  vector<double> w(n), work(1);
  int lwork = -1, info = 0;
  for (int pass = 0; pass < 2; ++pass) {
    dsyev_("N", "L", &n, a.data(), &n, w.data(), work.data(), &lwork, &info);
    work.resize(static_cast<size_t>(lwork = static_cast<int>(work[0])));
  }
  EXPECT_EQ(info, 0);
  return w;
}

double log_abs_det(const vector<double> &w) {
  double s = 0;
  for (double e : w) s += std::log(std::fabs(e));
  return s;
}

// Eigenvalues whose sign LAPACK resolves (magnitude above n ulp of the
// largest): the positive and negative counts.
std::pair<int, int> inertia(const vector<double> &a, int n) {
  const vector<double> w = eigenvalues(a, n);
  const double tol = n * 2.2e-16 * std::max(std::fabs(w[0]), std::fabs(w[n - 1]));
  int pos = 0, neg = 0;
  for (double e : w) pos += e > tol, neg += e < -tol;
  return {pos, neg};
}

// The factor's inertia agrees with every eigenvalue of resolved sign.
void expect_inertia(const std::pair<int, int> &eig, int npos, int nneg, int n) {
  EXPECT_EQ(npos + nneg, n);
  EXPECT_GE(npos, eig.first);
  EXPECT_GE(nneg, eig.second);
}

struct Counts {
  int pert = 0, pos = 0, neg = 0;
  double logdet = 0;
};

Counts sytf(vector<double> &a, int n, int lda, vector<int> &ipiv, double eps) {
  Counts c;
  int info = 7;
  ipiv.assign(std::max(n, 1), 0);
  vm::dsytf2_pert_logdet<double>('L', n, a.data(), lda, ipiv.data(), &info, &c.pert, &c.pos, &c.neg,
                                 eps, &c.logdet);
  EXPECT_EQ(info, 0);
  return c;
}

Counts getf(vector<double> &a, int n, vector<int> &ipiv, double eps) {
  Counts c;
  int info = 7;
  ipiv.assign(std::max(n, 1), 0);
  vm::dgetf2_diagpiv_logdet<double>(n, n, a.data(), n, ipiv.data(), &info, &c.pert, &c.pos, &c.neg,
                                    eps, &c.logdet);
  EXPECT_EQ(info, 0);
  return c;
}

// ---- dense kernels

TEST(LdlKernels, BunchKaufmanMatchesLapackAndItsSolveStages) {
  for (int n : {1, 2, 7, 33, 80, 120}) {
    SCOPED_TRACE(n);
    const int lda = n + 2, nrhs = 3, lwork = 64 * n;
    vector<double> a = random_block(n, lda, n), ref = a, work(lwork);
    vector<int> ipiv, ipiv_ref(n);
    int info = 0;
    dsytrf_("L", &n, ref.data(), &lda, ipiv_ref.data(), work.data(), &lwork, &info);
    ASSERT_EQ(info, 0);
    const Counts c = sytf(a, n, lda, ipiv, 0.0);
    EXPECT_EQ(c.pert, 0);
    EXPECT_EQ(vector<int>(ipiv.begin(), ipiv.begin() + n), ipiv_ref);
    for (int j = 0; j < n; ++j)
      for (int i = j; i < n; ++i) EXPECT_NEAR(a[i + j * lda], ref[i + j * lda], 1e-11);
    // inertia and log|det| against the eigenvalues
    vector<double> full(static_cast<size_t>(n) * n);
    const vector<double> a0 = random_block(n, lda, n);
    for (int j = 0; j < n; ++j)
      for (int i = 0; i < n; ++i) full[i + j * n] = a0[i + j * lda];
    expect_inertia(inertia(full, n), c.pos, c.neg, n);
    EXPECT_NEAR(c.logdet, log_abs_det(eigenvalues(full, n)), 1e-10 * n);
    // fwd + diag + bwd is LAPACK's solve; half is fwd then diag
    const vector<double> b = random_vector(static_cast<size_t>(lda) * nrhs, 99);
    vector<double> x = b, y = b, h = b;
    dsytrs_("L", &n, &nrhs, ref.data(), &lda, ipiv_ref.data(), x.data(), &lda, &info);
    vm::dsytrs_fwd<double>('L', n, nrhs, a.data(), lda, ipiv.data(), y.data(), lda, &info);
    vm::dsytrs_half<double>('L', n, nrhs, a.data(), lda, ipiv.data(), h.data(), lda, &info);
    vm::dsytrs_diag<double>('L', n, nrhs, a.data(), lda, ipiv.data(), y.data(), lda, &info);
    for (int k = 0; k < nrhs; ++k)
      for (int i = 0; i < n; ++i) EXPECT_EQ(h[i + k * lda], y[i + k * lda]);
    vm::dsytrs_bwd<double>('L', n, nrhs, a.data(), lda, ipiv.data(), y.data(), lda, &info);
    for (int k = 0; k < nrhs; ++k)
      for (int i = 0; i < n; ++i) EXPECT_NEAR(y[i + k * lda], x[i + k * lda], 1e-9);
  }
}

// The level-3 panel solve against the unblocked one: rows of b through
// dsytrs_half_rows against the columns of b^T through dsytrs_half, on
// blocks with 1x1 and 2x2 pivots and exchanges, and with perturbed pivots.
TEST(LdlKernels, HalfSolveOfRowsMatchesTheUnblockedSolve) {
  for (int n : {1, 2, 3, 7, 33, 80, 120})
    for (double scale : {1.0, 1e-9}) {
      SCOPED_TRACE(testing::Message() << "n " << n << " scale " << scale);
      const int lda = n + 3, nrows = 2 * n + 5, ldb = nrows + 1;
      vector<double> a = random_block(n, lda, 7 * n + 1);
      for (int j = 0; j < n; ++j) a[j + j * lda] *= scale;  // small pivots: some replaced
      vector<int> ipiv;
      sytf(a, n, lda, ipiv, 1e-8);
      int pairs = 0, exchanges = 0;
      for (int k = 0; k < n; ++k) pairs += ipiv[k] < 0, exchanges += std::abs(ipiv[k]) != k + 1;
      if (n >= 33 && scale == 1.0) {
        EXPECT_GT(pairs, 0);
        EXPECT_GT(exchanges, 0);
      }
      const vector<double> b = random_vector(static_cast<size_t>(ldb) * n, 3 * n);
      // reference: b^T (n x nrows) through the unblocked solve
      vector<double> bt(static_cast<size_t>(n) * nrows);
      for (int c = 0; c < n; ++c)
        for (int r = 0; r < nrows; ++r) bt[c + static_cast<size_t>(r) * n] = b[r + c * ldb];
      int info = 7;
      vm::dsytrs_half<double>('L', n, nrows, a.data(), lda, ipiv.data(), bt.data(), n, &info);
      ASSERT_EQ(info, 0);
      const vector<double> lower = a;
      vector<double> x = b, w(static_cast<size_t>(ldb) * n, 0.0);
      vector<int> perm(n, -1);
      info = 7;
      vm::dsytrs_half_rows<double>(n, nrows, a.data(), lda, ipiv.data(), x.data(), ldb, w.data(),
                                   ldb, perm.data(), &info);
      ASSERT_EQ(info, 0);
      double xmax = 0;
      for (double v : bt) xmax = std::max(xmax, std::fabs(v));
      for (int c = 0; c < n; ++c)
        for (int r = 0; r < nrows; ++r)
          EXPECT_NEAR(x[r + c * ldb], bt[c + static_cast<size_t>(r) * n], 1e-12 * xmax);
      // the padding row of b, the lower triangle and the diagonal are
      // untouched; w comes back zero
      for (int c = 0; c < n; ++c) EXPECT_EQ(x[nrows + c * ldb], b[nrows + c * ldb]);
      for (int j = 0; j < n; ++j)
        for (int i = j; i < lda; ++i) EXPECT_EQ(a[i + j * lda], lower[i + j * lda]);
      for (double v : w) EXPECT_EQ(v, 0.0);
    }
  // arguments: reported, nothing touched
  vector<double> a(4, 1.0), b(4, 2.0), w(4, 0.0);
  vector<int> ipiv = {1, 2}, perm(2);
  int info = 0;
  vm::dsytrs_half_rows<double>(2, 2, a.data(), 1, ipiv.data(), b.data(), 2, w.data(), 2,
                               perm.data(), &info);
  EXPECT_EQ(info, -4);
  vm::dsytrs_half_rows<double>(2, 2, a.data(), 2, ipiv.data(), b.data(), 1, w.data(), 2,
                               perm.data(), &info);
  EXPECT_EQ(info, -7);
  vm::dsytrs_half_rows<double>(2, 2, a.data(), 2, ipiv.data(), b.data(), 2, w.data(), 1,
                               perm.data(), &info);
  EXPECT_EQ(info, -9);
  EXPECT_EQ(b, vector<double>(4, 2.0));
}

TEST(LdlKernels, BunchKaufmanPerturbationAndInertia) {
  vector<int> ipiv;
  // eps above every entry: every pivot replaced by +-eps, none paired,
  // signs kept (the diagonal dominates the tiny updates)
  const int n = 20;
  vector<double> a = random_block(n, n, 5);
  for (double &v : a) v *= 1e-3;
  int positive = 0;
  for (int j = 0; j < n; ++j) positive += a[j + j * n] > 0;
  const vector<double> a0 = a;
  Counts c = sytf(a, n, n, ipiv, 0.5);
  EXPECT_EQ(c.pert, n);
  EXPECT_EQ(c.pos, positive);
  EXPECT_EQ(c.neg, n - positive);
  for (int k = 0; k < n; ++k) {
    EXPECT_EQ(ipiv[k], k + 1);
    EXPECT_EQ(a[k + k * n], a0[k + k * n] > 0 ? 0.5 : -0.5);
  }
  // a zero block with eps 0: n pivots of 1e-8, all positive
  a.assign(n * n, 0.0);
  c = sytf(a, n, n, ipiv, 0.0);
  EXPECT_EQ(c.pert, n);
  EXPECT_EQ(c.pos, n);
  for (int k = 0; k < n; ++k) EXPECT_EQ(a[k + k * n], 1e-8);
  // a tiny negative pivot stays negative; eps 0 leaves it alone
  for (double eps : {1e-8, 0.0}) {
    a = {-1e-12, 0.0, 0.0, 2.0};
    c = sytf(a, 2, 2, ipiv, eps);
    EXPECT_EQ(a[0], eps > 0 ? -1e-8 : -1e-12);
    EXPECT_EQ(c.pert, eps > 0 ? 1 : 0);
    EXPECT_EQ(c.neg, 1);
    EXPECT_EQ(c.pos, 1);
  }
  // 2x2 pivots: at the end of the block (count only) and with an update
  // below; a Bunch-Kaufman 2x2 pivot has a negative determinant: one each
  a = {0.0, 1.0, 1.0, 0.0};
  c = sytf(a, 2, 2, ipiv, 1e-8);
  EXPECT_EQ(ipiv, (vector<int>{-2, -2}));
  EXPECT_EQ(c.pert, 0);
  EXPECT_EQ(c.pos, 1);
  EXPECT_EQ(c.neg, 1);
  EXPECT_NEAR(c.logdet, 0.0, 1e-15);
  a = {0.1, 0.2, 3.0, 0.2, -0.1, 1.0, 3.0, 1.0, 0.05};  // exchange of rows 2 and 3, then 2x2
  c = sytf(a, 3, 3, ipiv, 1e-8);
  EXPECT_EQ(ipiv, (vector<int>{-3, -3, 3}));
  expect_inertia(inertia({0.1, 0.2, 3.0, 0.2, -0.1, 1.0, 3.0, 1.0, 0.05}, 3), c.pos, c.neg, 3);
}

TEST(LdlKernels, DiagonalPivotSearchAndPerturbation) {
  vector<int> ipiv;
  // largest magnitude wins, a later equal one over an earlier
  vector<double> a(16, 0.0);
  const double d[4] = {1, 3, -3, 2};
  for (int i = 0; i < 4; ++i) a[i * 5] = d[i];
  Counts c = getf(a, 4, ipiv, 1e-8);
  EXPECT_EQ(ipiv, (vector<int>{3, 2, 4, 4}));
  EXPECT_EQ((vector<double>{a[0], a[5], a[10], a[15]}), (vector<double>{-3, 3, 2, 1}));
  EXPECT_EQ(c.pos, 3);
  EXPECT_EQ(c.neg, 1);
  EXPECT_NEAR(c.logdet, std::log(18.0), 1e-14);
  // all zero, eps 0: the last position is taken, each pivot becomes +1e-8
  a.assign(9, 0.0);
  c = getf(a, 3, ipiv, 0.0);
  EXPECT_EQ(ipiv[0], 3);
  EXPECT_EQ(c.pert, 3);
  EXPECT_EQ(c.pos, 3);
  EXPECT_EQ((vector<double>{a[0], a[4], a[8]}), (vector<double>(3, 1e-8)));
  // |p| equal to eps is replaced, a negative one keeps its sign
  a = {-1e-8, 0.0, 0.0, -5e-9};
  c = getf(a, 2, ipiv, 1e-8);
  EXPECT_EQ(c.pert, 2);
  EXPECT_EQ(c.neg, 2);
  EXPECT_EQ(a[0], -1e-8);
  EXPECT_EQ(a[3], -1e-8);
  // a random block: P^T A P = L (D L^T)
  const int n = 30;
  const vector<double> a0 = random_block(n, n, 8);
  a = a0;
  c = getf(a, n, ipiv, 0.0);
  vector<int> p(n);
  for (int i = 0; i < n; ++i) p[i] = i;
  for (int k = 0; k < n; ++k) std::swap(p[k], p[ipiv[k] - 1]);
  for (int i = 0; i < n; ++i)
    for (int j = 0; j < n; ++j) {
      double s = 0;
      for (int k = 0; k <= std::min(i, j); ++k) s += (k == i ? 1.0 : a[i + k * n]) * a[k + j * n];
      EXPECT_NEAR(s, a0[p[i] + p[j] * n], 1e-12);
    }
}

// ---- the supernodal loop and the solve

// KKT matrix [[H, J^T], [J, 0]]: H the 5-point Laplacian of an m x m grid,
// J with rows coupling neighbouring unknowns.
testmat::Csr kkt(int m, int constraints) {
  const testmat::Csr h = testmat::grid_laplacian(m, m, 1, true);
  Entries e;
  for (int i = 1; i <= h.n; ++i)
    for (int k = h.ia[i - 1]; k < h.ia[i]; ++k) e.push_back({{i - 1, h.ja[k - 1] - 1}, h.a[k - 1]});
  for (int c = 0; c < constraints; ++c) {
    const int v = (c * 7) % (h.n - 1);
    e.push_back({{v, h.n + c}, 1.0});
    e.push_back({{v + 1, h.n + c}, -0.5 - 0.01 * c});
  }
  return testmat::from_entries(h.n + constraints, e, true);
}

testmat::Csr random_indefinite(int n, double density, unsigned seed) {
  std::mt19937 g(seed);
  std::uniform_real_distribution<double> u(-1, 1), coin(0, 1);
  Entries e;
  for (int i = 0; i < n; ++i) {
    e.push_back({{i, i}, 2 * u(g)});
    for (int j = i + 1; j < n; ++j)
      if (coin(g) < density) e.push_back({{i, j}, u(g)});
  }
  return testmat::from_entries(n, e, true);
}

vector<double> dense_of(const testmat::Csr &a) {
  vector<double> d(static_cast<size_t>(a.n) * a.n, 0.0);
  for (int i = 1; i <= a.n; ++i)
    for (int k = a.ia[i - 1]; k < a.ia[i]; ++k) {
      const int j = a.ja[k - 1];
      d[(i - 1) + (j - 1) * static_cast<size_t>(a.n)] = a.a[k - 1];
      d[(j - 1) + (i - 1) * static_cast<size_t>(a.n)] = a.a[k - 1];
    }
  return d;
}

struct Ldl {
  factor_setup::Symbolic s;
  vector<double> lnz;
  factor_setup::Records rec;
  vm::FactorScalars sc;
  double logdet = 0;
  int iparm21 = 0;
};

Ldl factor(const testmat::Csr &a, Ordering o, int width, int iparm21, double eps, int tasks = 1,
           std::int64_t tmpsiz = -1) {
  Ldl r;
  r.iparm21 = iparm21;
  r.s = factor_setup::analyse(a, o, width, 0, tasks);
  EXPECT_EQ(r.s.status, 0);
  r.rec = factor_setup::records(r.s, a, &r.lnz);
  if (tmpsiz > static_cast<std::int64_t>(r.rec.temp.size())) {
    r.rec.temp.assign(static_cast<size_t>(tmpsiz), 0.0);
    r.rec.work.temp = r.rec.temp.data();
  }
  if (tmpsiz >= 0) r.rec.work.tmpsiz = tmpsiz;
  r.sc.eps = eps;
  r.sc.pivot_mode = iparm21 == 0 ? -1 : 0;
  r.sc.determinant = 1;
  r.sc.logdet = &r.logdet;
  vm::BLKLDL_SEQ_VELMORA(r.rec.view, r.rec.input, r.rec.work, r.sc);
  return r;
}

vector<double> solve(Ldl &r, vector<double> b, int nrhs, int selector = 0, int parallel = 0,
                     int blocks = 1) {
  vm::SolveInput in;
  in.n = r.s.n;
  in.nrhs = nrhs;
  in.mtype = -2;
  in.selector = selector;
  in.parallel = parallel;
  in.perm = r.s.perm.data();
  in.ntasks = r.s.ntasks;
  in.taskrange = r.s.domains.data();
  in.nthreads = blocks;
  in.iparm21 = r.iparm21;
  const vm::SolveWorkSize sz = vm::solve_work_size(in);
  vector<double> scalars(sz.scalars() + 1, std::nan("")), x(b.size(), 7.0);
  vector<int> ints(sz.starts + 1, -7);
  int error = 1;
  vm::SOLVE_VELMORA<double>(r.rec.view, in, b.data(), x.data(),
                            vm::solve_work_carve<double>(sz, scalars.data(), ints.data()), &error);
  EXPECT_EQ(error, vm::kSolveOk);
  return x;
}

// max over columns of |A x - b| / (|A| |x| + |b|), infinity norms
double backward_error(const testmat::Csr &a, const vector<double> &x, const vector<double> &b) {
  const int n = a.n;
  double eta = 0, anorm = 0;
  vector<double> rowsum(n, 0.0);
  for (int i = 1; i <= n; ++i)
    for (int k = a.ia[i - 1]; k < a.ia[i]; ++k) {
      const int j = a.ja[k - 1];
      rowsum[i - 1] += std::fabs(a.a[k - 1]);
      if (j != i) rowsum[j - 1] += std::fabs(a.a[k - 1]);
    }
  for (double v : rowsum) anorm = std::max(anorm, v);
  for (size_t c = 0; c < b.size() / n; ++c) {
    vector<double> r(b.begin() + c * n, b.begin() + (c + 1) * n);
    const double *xc = x.data() + c * n;
    for (int i = 1; i <= n; ++i)
      for (int k = a.ia[i - 1]; k < a.ia[i]; ++k) {
        const int j = a.ja[k - 1];
        r[i - 1] -= a.a[k - 1] * xc[j - 1];
        if (j != i) r[j - 1] -= a.a[k - 1] * xc[i - 1];
      }
    double rmax = 0, xmax = 0, bmax = 0;
    for (int i = 0; i < n; ++i) {
      rmax = std::max(rmax, std::fabs(r[i]));
      xmax = std::max(xmax, std::fabs(xc[i]));
      bmax = std::max(bmax, std::fabs(b[c * n + i]));
    }
    eta = std::max(eta, rmax / (anorm * xmax + bmax));
  }
  return eta;
}

// x := x + A^-1 (b - A x) with the factor, `steps` times.
void refine(const testmat::Csr &a, Ldl &r, const vector<double> &b, vector<double> *x, int steps) {
  for (int s = 0; s < steps; ++s) {
    vector<double> res = b;
    for (int i = 1; i <= a.n; ++i)
      for (int k = a.ia[i - 1]; k < a.ia[i]; ++k) {
        const int j = a.ja[k - 1];
        res[i - 1] -= a.a[k - 1] * (*x)[j - 1];
        if (j != i) res[j - 1] -= a.a[k - 1] * (*x)[i - 1];
      }
    const vector<double> d = solve(r, res, 1);
    for (int i = 0; i < a.n; ++i) (*x)[i] += d[i];
  }
}

// Inertia against the eigenvalues, and the backward error of the solve
// (one right-hand side; a block of four in two blocks).  The KKT matrix
// ordered by AMD eliminates constraint rows first, alone in their blocks:
// their zero pivots are perturbed, and refinement repairs the solution.
TEST(Ldl, InertiaAndSolveOfIndefiniteMatrices) {
  VELMORA_NEEDS_MATRIX_FOLDER();
  struct Case {
    const char *name;
    testmat::Csr a;
    Ordering o;
    bool perturbs;
  };
  const vector<Case> cases = {
      {"kkt natural", kkt(12, 50), Ordering::kNatural, false},
      {"kkt amd", kkt(12, 50), Ordering::kAmd, true},
      {"random", random_indefinite(160, 0.03, 3), Ordering::kMetis, false},
      {"reorientation_1", testmat::from_file("reorientation_1.mtx", true), Ordering::kAmd, true}};
  vm::UpdateKernelCounts counts;
  vm::set_ldl_update_kernel_counts(&counts);
  for (const Case &c : cases) {
    ASSERT_GT(c.a.n, 0) << c.name;
    const auto eig = inertia(dense_of(c.a), c.a.n);
    for (int iparm21 : {0, 1})
      for (int width : {4, 80}) {
        SCOPED_TRACE(testing::Message() << c.name << " iparm21 " << iparm21 << " width " << width);
        Ldl r = factor(c.a, c.o, width, iparm21, 1e-8);
        ASSERT_EQ(r.sc.iflag, 0);
        expect_inertia(eig, r.sc.npos, r.sc.nneg, c.a.n);
        const auto b = random_vector(static_cast<size_t>(c.a.n) * 4, 1);
        const vector<double> b1(b.begin(), b.begin() + c.a.n);
        vector<double> x1 = solve(r, b1, 1);
        const double e4 = backward_error(c.a, solve(r, b, 4, 0, 0, 2), b);
        EXPECT_EQ(r.sc.perturbed > 0, c.perturbs);
        if (r.sc.perturbed == 0) {
          EXPECT_LT(backward_error(c.a, x1, b1), 1e-14);
          EXPECT_LT(e4, 1e-14);
        } else {
          refine(c.a, r, b1, &x1, 3);
          EXPECT_LT(backward_error(c.a, x1, b1), 1e-14);
        }
      }
  }
  vm::set_ldl_update_kernel_counts(nullptr);
  EXPECT_GT(counts.coinciding, 0);
  EXPECT_GT(counts.rank1, 0);
  EXPECT_GT(counts.buffered, 0);
  EXPECT_GT(counts.direct, 0);
}

// KKT matrix of a 3D grid (7-point Laplacian) with a constraint on every
// `every`-th node coupling it with its neighbours in x and y.
testmat::Csr kkt3d(int m, int every) {
  const testmat::Csr h = testmat::grid_laplacian(m, m, m, true);
  Entries e;
  for (int i = 1; i <= h.n; ++i)
    for (int k = h.ia[i - 1]; k < h.ia[i]; ++k) e.push_back({{i - 1, h.ja[k - 1] - 1}, h.a[k - 1]});
  int c = 0;
  for (int v = 0; v + m < h.n; v += every, ++c) {
    e.push_back({{v, h.n + c}, 1.0});
    e.push_back({{v + 1, h.n + c}, -0.5});
    if (c % 2 == 0) e.push_back({{v + m, h.n + c}, 0.25});
  }
  return testmat::from_entries(h.n + c, e, true);
}

// Nested dissection of a 3D KKT matrix gives updates whose rows fall in
// long runs of the target's list: their blocks are written straight into
// the panel and the rest goes through temp.  With a narrow width the
// supernodes split into pieces: an update applied at the first piece
// reaches the pieces after it, stopping short when temp cannot hold the
// whole reach (never short of the target's own columns), and beyond a
// split supernode its pieces travel together and sum their products in
// temp before one scatter.  Inertia against the eigenvalues and the
// backward error (refined when pivots were perturbed) in both pivot modes,
// with the temp of the analysis (sized for one piece at a time: some
// reaches are cut) and with one large enough for all.
TEST(Ldl, UpdatesAlongRunsAndAcrossPieces) {
  const testmat::Csr a = kkt3d(8, 5);
  const auto eig = inertia(dense_of(a), a.n);
  const std::int64_t analysed = factor_setup::analyse(a, Ordering::kMetis, 4).tmpsiz;
  struct Case {
    int width;
    std::int64_t tmpsiz;  // -1: the analysis' own
  };
  for (const Case c : {Case{80, -1}, Case{4, analysed}, Case{4, 100 * analysed}})
    for (int iparm21 : {0, 1}) {
      SCOPED_TRACE(testing::Message()
                   << "width " << c.width << " tmpsiz " << c.tmpsiz << " iparm21 " << iparm21);
      vm::UpdateKernelCounts counts;
      vm::set_ldl_update_kernel_counts(&counts);
      Ldl r = factor(a, Ordering::kMetis, c.width, iparm21, 1e-8, 1, c.tmpsiz);
      vm::set_ldl_update_kernel_counts(nullptr);
      ASSERT_EQ(r.sc.iflag, 0);
      if (c.width == 80) {
        EXPECT_GT(counts.split, 0);
        EXPECT_GT(counts.buffered, counts.split);
      } else {
        EXPECT_GT(counts.reach, 0);
        EXPECT_GT(counts.pieces, 0);
        EXPECT_EQ(counts.cut > 0, c.tmpsiz == analysed);
      }
      expect_inertia(eig, r.sc.npos, r.sc.nneg, a.n);
      const vector<double> b = random_vector(static_cast<size_t>(a.n), 5);
      vector<double> x = solve(r, b, 1);
      if (r.sc.perturbed > 0) refine(a, r, b, &x, 3);
      EXPECT_LT(backward_error(a, x, b), 1e-14);
    }
}

TEST(Ldl, BufferTooSmall) {
  const testmat::Csr a = testmat::dense(20, true);  // no update before the first panel solve
  for (int iparm21 : {0, 1}) {
    EXPECT_EQ(factor(a, Ordering::kNatural, 4, iparm21, 1e-8).sc.iflag, 0);
    EXPECT_EQ(factor(a, Ordering::kNatural, 4, iparm21, 1e-8, 1, 1).sc.iflag, -2);
  }
}

// Through the shell: both members, both pivot modes, the log-determinant.
TEST(Ldl, FactorShellRunsTheMembers) {
  const testmat::Csr a = random_indefinite(90, 0.05, 4);
  const double logdet = log_abs_det(eigenvalues(dense_of(a), a.n));
  Ldl r = factor(a, Ordering::kAmd, 16, 0, 0.0);
  vm::FactorView<void> view = factor_setup::untyped(r.rec.view);
  vm::FactorWork<void> fw = factor_setup::untyped(r.rec.work);
  vm::FactorOptions o;
  o.mtype = -2;
  o.determinant = 1;
  o.eps_exponent = 8;
  for (int seq : {1, 0})
    for (int iparm21 : {0, 1}) {
      o.sequential = seq;
      o.iparm21 = iparm21;
      vm::FactorTimes times;
      vm::FactorScalars out;
      EXPECT_EQ(vm::FACTOR_SHELL_VELMORA(o, view, r.rec.input, fw, &times, &out), 0);
      EXPECT_EQ(out.pivot_mode, iparm21 == 0 ? -1 : 0);
      EXPECT_EQ(out.npos, r.sc.npos);
      EXPECT_EQ(out.nneg, r.sc.nneg);
      EXPECT_NEAR(times.logdet, logdet, 1e-10);
    }
}

// Selectors split the solve into the same operations; the task form and
// the serial one agree; the square root of D (diagonal mode, D > 0 here)
// splits it symmetrically, and Bunch-Kaufman mode only reports it.
TEST(LdlSolve, SelectorsAndForms) {
  const testmat::Csr a = testmat::grid_laplacian(9, 8, 7, true);
  for (int iparm21 : {0, 1}) {
    Ldl r = factor(a, Ordering::kMetis, 12, iparm21, 1e-8, 4);
    ASSERT_GT(r.s.ntasks, 1);
    for (int nrhs : {1, 16})
      for (int parallel : {0, 1}) {
        SCOPED_TRACE(testing::Message() << iparm21 << " " << nrhs << " rhs, parallel " << parallel);
        const auto b = random_vector(static_cast<size_t>(nrhs) * a.n, 9);
        const auto full = solve(r, b, nrhs, 0, parallel, 3);
        EXPECT_LT(backward_error(a, full, b), 1e-14);
        const auto half = solve(r, b, nrhs, 1, parallel, 3);
        EXPECT_EQ(solve(r, half, nrhs, 2, parallel, 3), full);
        const auto d = solve(r, half, nrhs, -2, parallel, 3);
        EXPECT_EQ(solve(r, d, nrhs, -3, parallel, 3), full);
        testing::internal::CaptureStdout();
        const auto root = solve(r, b, nrhs, -12, parallel, 3);
        const auto back = solve(r, root, nrhs, -23, parallel, 3);
        const std::string out = testing::internal::GetCapturedStdout();
        if (nrhs > 1) {  // the block kernel runs nothing: gather and scatter only
          EXPECT_EQ(out, "");
          for (int i = 0; i < a.n; ++i) EXPECT_EQ(root[i], b[r.s.perm[i] - 1]);
        } else if (iparm21 == 0) {
          EXPECT_EQ(out, "");
          for (int i = 0; i < a.n; ++i) EXPECT_NEAR(back[i], full[i], 1e-13);
        } else {
          EXPECT_EQ(root, half);
          EXPECT_EQ(back, solve(r, root, 1, -3, parallel));
          std::string lines;
          for (int k = 0; k < 2 * r.s.nsuper; ++k) lines += "Not implemented! (ublkldlslvs1)\n";
          EXPECT_EQ(out, lines);
        }
      }
  }
}

// The forward pass of a block starts at the first supernode where any of
// its right-hand sides is nonzero, not only the first one.
TEST(LdlSolve, BlockStartsAtFirstNonzeroOfAnyColumn) {
  const testmat::Csr a = random_indefinite(200, 0.02, 6);
  for (int iparm21 : {0, 1}) {
    Ldl r = factor(a, Ordering::kAmd, 8, iparm21, 1e-8);
    auto b = random_vector(2 * static_cast<size_t>(a.n), 2);
    for (int i = 0; i < a.n / 2; ++i) b[r.s.perm[i] - 1] = 0.0;  // leading zeros, first column
    EXPECT_LT(backward_error(a, solve(r, b, 2), b), 1e-14);
  }
}

}  // namespace
