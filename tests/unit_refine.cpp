// unit_refine.cpp - the products, the extended-precision conversions, the
// refinement loop and velmora_residual.  The loop is driven by a solve that
// is exact for a deliberately wrong dense matrix M (LAPACK LU of M), so
// that every step has work to do: with M = A C^-1 each step multiplies the
// error by I - C, which sets the contraction rate.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cmath>
#include <complex>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "solve/amuxy.h"
#include "solve/convert.h"
#include "solve/refine.h"
#include "velmora.h"

using zc = std::complex<double>;
extern "C" {
void dgetrf_(const int *, const int *, double *, const int *, int *, int *);
void dgetrs_(const char *, const int *, const int *, const double *, const int *, const int *,
             double *, const int *, int *);
void zgetrf_(const int *, const int *, zc *, const int *, int *, int *);
void zgetrs_(const char *, const int *, const int *, const zc *, const int *, const int *, zc *,
             const int *, int *);
}

namespace {

using std::vector;

template <class T>
T rnd(std::mt19937 &g) {
  std::uniform_real_distribution<double> d(-1.0, 1.0);
  const double re = d(g);
  if constexpr (std::is_same_v<T, zc>) return T(re, d(g));
  return re;
}

// Sparse matrix of type mtype (upper triangle for even types) and its full
// dense copy D (column-major).
template <class T>
struct Sp {
  int n = 0;
  vector<int> ia{1}, ja;
  vector<T> a, D;
  T &d(int i, int j) { return D[i + static_cast<size_t>(j) * n]; }
};

template <class T>
Sp<T> random_sparse(int n, int mtype, unsigned seed) {
  std::mt19937 g(seed);
  Sp<T> m;
  m.n = n;
  m.D.assign(static_cast<size_t>(n) * n, T{});
  const bool sym = mtype % 2 == 0, herm = mtype == 4 || mtype == -4;
  for (int i = 0; i < n; ++i) {
    std::set<int> cols{i};
    for (int k = 0; k < 3; ++k) cols.insert(static_cast<int>(g() % n));
    for (int j : cols) {
      if (sym && j < i) continue;
      const T v = j == i ? T(6.0) + rnd<T>(g) : rnd<T>(g);
      m.ja.push_back(j + 1);
      m.a.push_back(v);
      m.d(i, j) += v;
      if (sym && j != i) m.d(j, i) += herm ? vm::conj_of(v) : v;
    }
    m.ia.push_back(static_cast<int>(m.ja.size()) + 1);
  }
  return m;
}

template <class T>
vector<T> dense_mul(Sp<T> &m, const vector<T> &x, int nrhs, bool trans) {
  const int n = m.n;
  vector<T> y(static_cast<size_t>(n) * nrhs, T{});
  for (int c = 0; c < nrhs; ++c)
    for (int i = 0; i < n; ++i)
      for (int j = 0; j < n; ++j) y[c * n + i] += (trans ? m.d(j, i) : m.d(i, j)) * x[c * n + j];
  return y;
}

template <class T>
double maxdiff(const vector<T> &u, const vector<T> &v) {
  double e = 0;
  for (size_t k = 0; k < u.size(); ++k) e = std::max(e, std::abs(u[k] - v[k]));
  return e;
}

template <class T>
double abs_sum(const vector<T> &v) {
  double s = 0;
  for (const T &e : v) s += std::abs(std::real(e)) + std::abs(std::imag(e));
  return s;
}

vector<double> scaled_to(vector<double> b, double sum) {
  const double f = sum / abs_sum(b);
  for (auto &e : b) e *= f;
  return b;
}

// Exact solve with the LU of M, counting calls; call fail_at returns -77.
template <class T>
struct DenseSolver {
  int n, nrhs, calls = 0, fail_at = 0;
  char trans;
  vector<T> lu;
  vector<int> ipiv;
  DenseSolver(vector<T> M, int n_, int nrhs_, bool transposed = false)
      : n(n_), nrhs(nrhs_), trans(transposed ? 'T' : 'N'), lu(std::move(M)), ipiv(n_) {
    int info = 0;
    if constexpr (std::is_same_v<T, zc>) zgetrf_(&n, &n, lu.data(), &n, ipiv.data(), &info);
    if constexpr (std::is_same_v<T, double>) dgetrf_(&n, &n, lu.data(), &n, ipiv.data(), &info);
  }
  int operator()(const T *rhs, T *out) {
    if (++calls == fail_at) return -77;
    if (rhs != out) std::copy(rhs, rhs + static_cast<size_t>(n) * nrhs, out);
    int info = 0;
    if constexpr (std::is_same_v<T, zc>)
      zgetrs_(&trans, &n, &nrhs, lu.data(), &n, ipiv.data(), out, &n, &info);
    if constexpr (std::is_same_v<T, double>)
      dgetrs_(&trans, &n, &nrhs, lu.data(), &n, ipiv.data(), out, &n, &info);
    return info;
  }
};

// M = D C^-1 with C = diag(c): the error of each step is multiplied by I - C.
template <class T>
vector<T> scaled_columns(const Sp<T> &m, const vector<double> &c) {
  vector<T> M = m.D;
  for (int j = 0; j < m.n; ++j)
    for (int i = 0; i < m.n; ++i) M[i + static_cast<size_t>(j) * m.n] /= c[j];
  return M;
}

template <class T>
struct Outcome {
  vm::RefineResult res;
  std::string out;
  vector<T> b, x;
};

template <class T, class Solver>
Outcome<T> refine(const Sp<T> &m, vm::RefineSettings s, vector<T> b, Solver &solver,
                  long work_len = -1) {
  Outcome<T> r;
  r.b = std::move(b);
  r.x.assign(r.b.size(), T(NAN));
  vector<double> work(work_len < 0 ? vm::refine_work_doubles(s) : work_len, NAN);
  const vm::RefineMatrix<T> A{m.ia.data(), m.ja.data(), m.a.data()};
  testing::internal::CaptureStdout();
  r.res = vm::REFINE_VELMORA<T>(s, A, r.b.data(), r.x.data(), work.data(),
                                static_cast<std::int64_t>(work.size()), vm::SolveRef<T>(solver));
  r.out = testing::internal::GetCapturedStdout();
  return r;
}

vm::RefineSettings settings(int n, int mtype, int max_steps, int perturbed, int nrhs = 1) {
  return vm::RefineSettings{n, nrhs, mtype, 0, 0, max_steps, perturbed, 0, 0, 0, 0, 3, 1};
}

// A problem of order 24 with b = A x*, x* = 1..n.
template <class T>
struct Problem {
  Sp<T> m;
  vector<T> xs, b;
  explicit Problem(int mtype, int nrhs = 1, unsigned seed = 7)
      : m(random_sparse<T>(24, mtype, seed)) {
    for (int k = 0; k < 24 * nrhs; ++k) xs.push_back(T(1.0 + k % 24));
    b = dense_mul(m, xs, nrhs, false);
  }
  DenseSolver<T> solver(double c, int nrhs = 1) {
    return DenseSolver<T>(scaled_columns(m, vector<double>(m.n, c)), m.n, nrhs);
  }
};

template <class T>
void check_products() {
  for (int mtype : {-2, 6, -4, 11, 13}) {
    if (std::is_same_v<T, double> != (mtype == -2 || mtype == 11)) continue;
    Sp<T> m = random_sparse<T>(40, mtype, 3);
    for (int trans : {0, 1})
      for (int nrhs : {1, 3})
        for (int threads : {1, 3}) {
          std::mt19937 g(5);
          vector<T> x(40 * nrhs), y(x.size(), T(NAN)), b(x.size()), r(x.size());
          for (size_t k = 0; k < x.size(); ++k) x[k] = rnd<T>(g), b[k] = rnd<T>(g);
          const bool t = trans && mtype % 2 != 0;
          const vector<T> want = dense_mul(m, x, nrhs, t);
          const int n = 40, par[2] = {threads, 0}, w = std::is_same_v<T, zc> ? 2 : 1;
          vector<T> work(vm::amuxy_work_size(trans, n, nrhs, mtype, threads), T(NAN));
          vm::AMUXY_VELMORA<T>(&trans, &n, &nrhs, &mtype, par, m.ia.data(), m.ja.data(), m.a.data(),
                               x.data(), y.data(), work.data());
          EXPECT_LT(maxdiff(y, want), 1e-13) << mtype << " " << trans << " " << nrhs;
          // The residual from extended precision: b - A x, and its sum.
          vector<double> x16(4 * x.size()),
              rw(vm::amuxy_res_work_doubles(trans, n, nrhs, mtype, threads, w), NAN);
          (w == 2 ? vm::C_CONV16_32 : vm::CONV8_16)(&n, &nrhs, reinterpret_cast<double *>(x.data()),
                                                    x16.data());
          double sumres = -1;
          vm::AMUXY_RES_VELMORA<T>(&trans, &n, &nrhs, &mtype, par, m.ia.data(), m.ja.data(),
                                   m.a.data(), x16.data(), b.data(), r.data(), &sumres, rw.data());
          vector<T> want_r(b);
          for (size_t k = 0; k < b.size(); ++k) want_r[k] -= want[k];
          EXPECT_LT(maxdiff(r, want_r), 1e-13);
          EXPECT_NEAR(sumres, abs_sum(want_r), 1e-12 * sumres);
        }
  }
}

TEST(Amuxy, ProductsAndResidualsMatchDense) {
  check_products<double>();
  check_products<zc>();
}

TEST(Amuxy, ResidualIsFormedInExtendedPrecision) {
  // Row (1, 1, 1) times (1e16, 1, -1e16) is 1; in double the 1 is lost.
  const Sp<double> m{3, {1, 4, 5, 6}, {1, 2, 3, 2, 3}, {1, 1, 1, 1, 1}, {}};
  const int n = 3, nrhs = 1, trans = 0, mtype = 11, par[2] = {2, 0};
  const vector<double> x = {1e16, 1, -1e16}, b = {0, 0, 0};
  vector<double> x16(6), r(3), work(vm::amuxy_res_work_doubles(0, 3, 1, 11, 2, 1));
  vm::CONV8_16(&n, &nrhs, x.data(), x16.data());
  double sumres = 0;
  vm::AMUXY_RES_VELMORA<double>(&trans, &n, &nrhs, &mtype, par, m.ia.data(), m.ja.data(),
                                m.a.data(), x16.data(), b.data(), r.data(), &sumres, work.data());
  EXPECT_EQ(r[0], -1.0);
  EXPECT_DOUBLE_EQ(sumres, 1.0 + std::fabs(r[1]) + std::fabs(r[2]));
  // Corrections below half an ulp of x still add up in extended precision.
  vector<double> d(3, 1e-16), back(3);
  double sumdx = 0;
  for (int k = 0; k < 100; ++k) vm::SUM8_16(&n, &nrhs, d.data(), x16.data(), &sumdx);
  vm::CONV16_8(&n, &nrhs, x16.data(), back.data());
  EXPECT_EQ(back[1], 1.0 + 1e-14);
  EXPECT_NEAR(sumdx, 3e-14, 1e-28);
}

TEST(Refine, OffWithoutPerturbedPivotsOrWhenSwitchedOff) {
  Problem<double> p(11);
  auto solver = p.solver(0.5);
  Outcome<double> r = refine(p.m, settings(24, 11, 0, 0), p.b, solver);
  EXPECT_EQ(r.res.steps, 0);
  EXPECT_EQ(solver.calls, 1);
  EXPECT_EQ(vm::refine_work_doubles(settings(24, 11, 0, 0)), 0);
  for (int k = 0; k < 4; ++k) {
    vm::RefineSettings s = settings(24, 11, 3, 1);
    (k == 0 ? s.selector : k == 1 ? s.sparse_rhs : k == 2 ? s.identical : s.schur) = 1;
    r = refine(p.m, s, p.b, solver);
    EXPECT_EQ(r.res.steps, 0);
    EXPECT_EQ(r.out, "");
  }
}

TEST(Refine, AutomaticStopsAtSecondStepWithMinus34) {
  Problem<double> p(-2);
  auto solver = p.solver(0.7);
  Outcome<double> r = refine(p.m, settings(24, -2, 0, 2), p.b, solver);
  EXPECT_EQ(r.res.steps, 2);
  EXPECT_EQ(r.res.iparm20, vm::kRefineStoppedAtTwo);
  EXPECT_EQ(r.res.error, 0);
  EXPECT_EQ(solver.calls, 3);
  EXPECT_LT(maxdiff(r.x, p.xs), 24 * 0.3 * 0.3 * 0.3 + 1e-9);  // error (1-c)^3 x*
}

TEST(Refine, OneStepEndsEvenWhenTheResidualGrows) {
  Problem<double> p(11);
  const vector<double> b = scaled_to(p.b, 2.0);
  auto grow = p.solver(2.5);  // error multiplied by -1.5 each step
  Outcome<double> r = refine(p.m, settings(24, 11, 1, 0), b, grow);
  EXPECT_EQ(r.res.steps, 1);
  EXPECT_EQ(r.res.error, 0);
  EXPECT_EQ(r.out,
            "[VELMORA] ref_it: 1. rel res   0.150E+01 rel err   0.150E+01\n"
            "*** warning ref_it: 1. sumres,sumrhs   0.300E+01   0.200E+01\n");
  // The warning doubles the reference, so the first step counts as contracting.
  r = refine(p.m, settings(24, 11, 0, 1), b, grow);
  EXPECT_EQ(r.res.steps, 2);
  EXPECT_EQ(r.res.iparm20, vm::kRefineStoppedAtTwo);
}

TEST(Refine, StagnationEndsAtFourthStepAndErrsOnlyAboveHalf) {
  Problem<double> p(11);
  auto slow = p.solver(0.02);  // every entry of the error shrinks by 0.98: rel err 0.98^it
  Outcome<double> r = refine(p.m, settings(24, 11, 5, 0), p.b, slow);
  EXPECT_EQ(r.res.steps, 4);
  EXPECT_EQ(r.res.error, vm::kRefineNoContraction);
  EXPECT_GT(r.res.sumdx / r.res.sumx, 0.5);
  // Only the last unknown is slow; it carries a small part of x, so rel err
  // stays small while the residual stagnates.
  vector<double> c(24, 1.0);
  c[23] = 0.02;
  DenseSolver<double> one(scaled_columns(p.m, c), 24, 1);
  vector<double> b(24, 0.0);
  for (int i = 0; i < 24; ++i) b[i] = p.m.d(i, 23) * 10.0 + p.m.d(i, 0) * 100.0;
  r = refine(p.m, settings(24, 11, 5, 0), b, one);
  EXPECT_EQ(r.res.steps, 4);
  EXPECT_EQ(r.res.error, 0);
  EXPECT_LT(r.res.sumdx / r.res.sumx, 0.5);
}

TEST(Refine, AutomaticFirstStepWithoutContraction) {
  Problem<double> p(11);
  auto slow = p.solver(0.02);
  Outcome<double> r = refine(p.m, settings(24, 11, 0, 1), p.b, slow);
  EXPECT_EQ(r.res.steps, 1);
  EXPECT_EQ(r.res.error, vm::kRefineNoContraction);  // rel err 0.98
  // A = I, M^-1 = [[1.05, .1], [.9, .2]], b = e1: x0 = (1.05, .9), the
  // residual (-.05, -.9) does not contract, the correction is small.
  Sp<double> eye{2, {1, 2, 3}, {1, 2}, {1, 1}, {}};
  const double det = 1.05 * 0.2 - 0.1 * 0.9;
  DenseSolver<double> k({0.2 / det, -0.9 / det, -0.1 / det, 1.05 / det}, 2, 1);
  r = refine(eye, settings(2, 11, 0, 1), {1, 0}, k);
  EXPECT_EQ(r.res.steps, 1);
  EXPECT_EQ(r.res.error, 0);
  EXPECT_EQ(r.out, "[VELMORA] ref_it: 1. rel res   0.950E+00 rel err   0.188E+00\n");
}

TEST(Refine, AfterTheWarningTheTestedNumberIsSumrhs) {
  // An infinite entry in the solution (a zero pivot) makes sumres infinite:
  // the warning, then no contraction, and the number tested is sumrhs.
  Problem<double> p(11);
  auto exact = p.solver(1.0);
  auto broken = [&](const double *rhs, double *out) {
    const int e = exact(rhs, out);
    out[0] = INFINITY;
    return e;
  };
  Outcome<double> r = refine(p.m, settings(24, 11, 0, 1), scaled_to(p.b, 2.0), broken);
  EXPECT_EQ(r.res.steps, 1);
  EXPECT_EQ(r.res.error, vm::kRefineNoContraction);
  EXPECT_NE(r.out.find("*** warning ref_it: 1. sumres,sumrhs    Infinity   0.200E+01\n"),
            std::string::npos)
      << r.out;
  r = refine(p.m, settings(24, 11, 0, 1), scaled_to(p.b, 0.4), broken);  // sumrhs 0.4
  EXPECT_EQ(r.res.steps, 1);
  EXPECT_EQ(r.res.error, 0);
}

TEST(Refine, ZeroRightHandSideReportsAbsolutely) {
  Problem<double> p(-2);
  auto solver = p.solver(0.5);
  Outcome<double> r = refine(p.m, settings(24, -2, 2, 0), vector<double>(24, 0.0), solver);
  EXPECT_EQ(r.res.steps, 2);
  EXPECT_EQ(r.res.error, 0);
  EXPECT_EQ(r.out,
            "[VELMORA] ref_it: 1. sumdx,sumx   0.000E+00   0.000E+00\n"
            " ref_it: 1. sumres,sumrhs   0.000E+00   0.000E+00\n"
            "[VELMORA] ref_it: 2. sumdx,sumx   0.000E+00   0.000E+00\n"
            " ref_it: 2. sumres,sumrhs   0.000E+00   0.000E+00\n");
  vm::RefineSettings quiet = settings(24, -2, 2, 0);
  quiet.msglvl = 0;
  EXPECT_EQ(refine(p.m, quiet, p.b, solver).out, "");
}

TEST(Refine, ExtendedPathTakesTheSameStepsAndSavedRightHandSide) {
  for (int mtype : {-2, 11})
    for (int to_b : {0, 1}) {
      Problem<double> p(mtype, 2);
      auto s1 = p.solver(0.7, 2), s2 = p.solver(0.7, 2);
      vm::RefineSettings s = settings(24, mtype, 2, 0, 2);
      s.to_b = to_b;
      Outcome<double> plain = refine(p.m, s, p.b, s1);
      s.max_steps = -2;
      Outcome<double> ext = refine(p.m, s, p.b, s2, vm::refine_work_min_doubles(s));
      EXPECT_EQ(plain.res.steps, 2);
      EXPECT_EQ(ext.res.steps, 2);
      const vector<double> &xp = to_b ? plain.b : plain.x, &xe = to_b ? ext.b : ext.x;
      EXPECT_LT(maxdiff(xp, xe), 1e-10);
      EXPECT_LT(maxdiff(xe, p.xs), 24 * 0.3 * 0.3 * 0.3 + 1e-9);
    }
}

TEST(Refine, ExtendedResidualRecoversAnIllConditionedSolution) {
  // 2x2 blocks [[N, N-1], [N+1, N]] (determinant 1, condition about 4N^2)
  // with integer x*, so that b = A x* is exact.
  Sp<double> m;
  m.n = 8;
  m.D.assign(64, 0.0);
  vector<double> xs = {3, -1, 4, 1, -5, 9, 2, -6};
  for (int blk = 0; blk < 4; ++blk) {
    const double N = 1e5 * (blk + 1), v[2][2] = {{N, N - 1}, {N + 1, N}};
    for (int i = 0; i < 2; ++i) {
      for (int j = 0; j < 2; ++j) {
        m.ja.push_back(2 * blk + j + 1);
        m.a.push_back(v[i][j]);
        m.d(2 * blk + i, 2 * blk + j) = v[i][j];
      }
      m.ia.push_back(static_cast<int>(m.ja.size()) + 1);
    }
  }
  const vector<double> b = dense_mul(m, xs, 1, false);
  DenseSolver<double> s1(m.D, 8, 1), s2(m.D, 8, 1);
  Outcome<double> plain = refine(m, settings(8, 11, 3, 0), b, s1);
  Outcome<double> ext = refine(m, settings(8, 11, -3, 0), b, s2);
  EXPECT_LT(maxdiff(ext.x, xs), 1e-14 * 9);
  EXPECT_GT(maxdiff(plain.x, xs), 10 * maxdiff(ext.x, xs));
}

TEST(Refine, ComplexTypesBothPaths) {
  for (int mtype : {6, 13})
    for (int max_steps : {3, -3}) {
      Problem<zc> p(mtype);
      auto solver = p.solver(0.7);
      Outcome<zc> r = refine(p.m, settings(24, mtype, max_steps, 0), p.b, solver);
      EXPECT_EQ(r.res.steps, 3);
      EXPECT_LT(maxdiff(r.x, p.xs), 24 * std::pow(0.3, 4) + 1e-9);
    }
}

TEST(Refine, TransposedSystemOnExtendedPath) {
  Problem<double> p(11);
  const vector<double> b = dense_mul(p.m, p.xs, 1, true);
  DenseSolver<double> solver(scaled_columns(p.m, vector<double>(24, 0.7)), 24, 1, true);
  vm::RefineSettings s = settings(24, 11, -3, 0);
  s.transposed = 1;
  const long size = 24 * 5 + 2 * 3;  // the group with m = 5
  EXPECT_LE(vm::refine_work_min_doubles(s), size);
  Outcome<double> r = refine(p.m, s, b, solver, size);
  EXPECT_EQ(r.res.steps, 3);
  EXPECT_LT(maxdiff(r.x, p.xs), 24 * std::pow(0.3, 4) + 1e-9);
}

TEST(Refine, SolveFailureAndShortWork) {
  Problem<double> p(11);
  auto solver = p.solver(0.7);
  solver.fail_at = 3;
  Outcome<double> r = refine(p.m, settings(24, 11, 5, 0), p.b, solver);
  EXPECT_EQ(r.res.error, -77);
  EXPECT_EQ(r.res.steps, 2);
  vm::RefineSettings s = settings(24, -2, -2, 0);
  auto fresh = p.solver(0.7);
  r = refine(p.m, s, p.b, fresh, vm::refine_work_min_doubles(s) - 1);
  EXPECT_EQ(r.res.error, vm::kRefineWorkTooSmall);
  EXPECT_EQ(fresh.calls, 0);
}

template <class T>
void check_residual(int mtype) {
  Sp<T> m = random_sparse<T>(30, mtype, 11);
  std::mt19937 g(2);
  vector<T> x(30), b(30), y(30, T(NAN));
  for (int i = 0; i < 30; ++i) x[i] = rnd<T>(g), b[i] = rnd<T>(g);
  const vector<T> ax = dense_mul(m, x, 1, false);
  double normb = -1, normr = -1, sb = 0, sr = 0;
  const int n = 30;
  velmora_residual_d_(&mtype, &n, m.a.data(), m.ia.data(), m.ja.data(), b.data(), x.data(),
                      y.data(), &normb, &normr);
  for (int i = 0; i < 30; ++i) sb += std::norm(b[i]), sr += std::norm(ax[i] - b[i]);
  EXPECT_LT(maxdiff(y, ax), 1e-13);
  EXPECT_NEAR(normb, std::sqrt(sb), 1e-13);
  EXPECT_NEAR(normr, std::sqrt(sr), 1e-13);
}

TEST(Residual, NormsMatchDense) {
  for (int mtype : {-2, 2, 11}) check_residual<double>(mtype);
  for (int mtype : {6, 13}) check_residual<zc>(mtype);
  const int mtype = 11, zero = 0;
  double normb = -1, normr = -1;
  VELMORA_RESIDUAL(&mtype, &zero, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, &normb,
                   &normr);
  EXPECT_EQ(normb, 0.0);
  EXPECT_EQ(normr, 0.0);
}

TEST(ResidualDeathTest, OtherTypesEndTheProgram) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  const int mtype = 1, n = 1;
  double normb, normr;
  EXPECT_EXIT(
      {
        dup2(2, 1);  // the message goes to standard output
        velmora_residual(&mtype, &n, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, &normb,
                         &normr);
      },
      testing::ExitedWithCode(1), "\\[VELMORA\\] This option is not yet available");
}

}  // namespace
