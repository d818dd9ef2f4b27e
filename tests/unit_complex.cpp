// The pivoting kernels of the diagonal block on complex blocks: the
// Hermitian forms (L D L^H, real D) and the complex symmetric forms
// (L D L^T), checked by solving with the factor, by the inertia of LAPACK's
// zheev and by the log-determinant.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <complex>
#include <random>
#include <vector>

#include "factor/dense_kernels.h"

using cplx = std::complex<double>;
using std::vector;

extern "C" void zheev_(const char *, const char *, const int *, cplx *, const int *, double *,
                       cplx *, const int *, double *, int *);

namespace {

// A dense n x n block (column-major) that is Hermitian (real diagonal) or
// complex symmetric; `diag` scales the diagonal, so that a small one makes
// the Bunch-Kaufman kernel take 2x2 pivots.
vector<cplx> random_block(int n, bool hermitian, double diag, unsigned seed) {
  std::mt19937 rng(seed);
  std::uniform_real_distribution<double> u(-1, 1);
  vector<cplx> a(static_cast<size_t>(n) * n);
  for (int j = 0; j < n; ++j) {
    a[j + static_cast<size_t>(j) * n] =
        hermitian ? cplx(diag * u(rng)) : diag * cplx(u(rng), u(rng));
    for (int i = j + 1; i < n; ++i) {
      const cplx v(u(rng), u(rng));
      a[i + static_cast<size_t>(j) * n] = v;
      a[j + static_cast<size_t>(i) * n] = hermitian ? std::conj(v) : v;
    }
  }
  return a;
}

vector<double> eigenvalues(vector<cplx> a, int n) {
  vector<double> w(n), rwork(3 * n);
  int lwork = 4 * n, info = 0;
  vector<cplx> work(lwork);
  zheev_("N", "L", &n, a.data(), &n, w.data(), work.data(), &lwork, rwork.data(), &info);
  return w;
}

// max |A x - b| / (max |A| row sum * max |x| + max |b|)
double backward_error(const vector<cplx> &a, int n, const vector<cplx> &x, const vector<cplx> &b) {
  double rn = 0, an = 0, xn = 0, bn = 0;
  for (int i = 0; i < n; ++i) {
    cplx r = b[i];
    double row = 0;
    for (int j = 0; j < n; ++j) {
      r -= a[i + static_cast<size_t>(j) * n] * x[j];
      row += std::abs(a[i + static_cast<size_t>(j) * n]);
    }
    rn = std::max(rn, std::abs(r));
    an = std::max(an, row);
    xn = std::max(xn, std::abs(x[i]));
    bn = std::max(bn, std::abs(b[i]));
  }
  return rn / (an * xn + bn);
}

template <bool kHermitian>
void bunch_kaufman_case(int n, double diag, unsigned seed) {
  SCOPED_TRACE(std::string(kHermitian ? "Hermitian" : "complex symmetric") + " n " +
               std::to_string(n) + " diagonal " + std::to_string(diag));
  const vector<cplx> a = random_block(n, kHermitian, diag, seed);
  vector<cplx> f = a;
  vector<int> ipiv(n);
  int info = 0, npert = 0, npos = 0, nneg = 0;
  double logdet = 0;
  vm::dsytf2_pert_logdet<cplx, kHermitian>('L', n, f.data(), n, ipiv.data(), &info, &npert, &npos,
                                           &nneg, 0.0, &logdet);
  ASSERT_EQ(info, 0);
  EXPECT_EQ(npert, 0);
  EXPECT_EQ(npos + nneg, n);
  EXPECT_TRUE(std::any_of(ipiv.begin(), ipiv.end(), [](int p) { return p < 0; }))
      << "the small diagonal should call for 2x2 pivots";
  if (kHermitian) {
    for (int k = 0; k < n; ++k) EXPECT_EQ(f[k + static_cast<size_t>(k) * n].imag(), 0.0);
    const vector<double> w = eigenvalues(a, n);
    const int want_pos =
        static_cast<int>(std::count_if(w.begin(), w.end(), [](double v) { return v > 0; }));
    EXPECT_EQ(npos, want_pos);
    EXPECT_EQ(nneg, n - want_pos);
    double want_logdet = 0;
    for (double v : w) want_logdet += std::log(std::abs(v));
    EXPECT_NEAR(logdet, want_logdet, 1e-9 * std::abs(want_logdet) + 1e-9);
  }
  // Two right-hand sides through the three solve stages, and the first
  // two stages in one walk (dsytrs_half).
  const int nrhs = 2;
  vector<cplx> b(static_cast<size_t>(n) * nrhs);
  for (size_t i = 0; i < b.size(); ++i)
    b[i] = cplx(std::sin(0.7 * static_cast<double>(i)), std::cos(0.3 * static_cast<double>(i)));
  vector<cplx> x = b, half = b;
  vm::dsytrs_fwd<cplx, kHermitian>('L', n, nrhs, f.data(), n, ipiv.data(), x.data(), n, &info);
  vm::dsytrs_diag<cplx, kHermitian>('L', n, nrhs, f.data(), n, ipiv.data(), x.data(), n, &info);
  vm::dsytrs_half<cplx, kHermitian>('L', n, nrhs, f.data(), n, ipiv.data(), half.data(), n, &info);
  for (size_t i = 0; i < x.size(); ++i) EXPECT_LT(std::abs(x[i] - half[i]), 1e-12);
  vm::dsytrs_bwd<cplx, kHermitian>('L', n, nrhs, f.data(), n, ipiv.data(), x.data(), n, &info);
  for (int c = 0; c < nrhs; ++c) {
    const vector<cplx> xc(x.begin() + c * n, x.begin() + (c + 1) * n);
    const vector<cplx> bc(b.begin() + c * n, b.begin() + (c + 1) * n);
    EXPECT_LT(backward_error(a, n, xc, bc), 1e-14);
  }
}

TEST(ComplexKernels, BunchKaufmanHermitianAndSymmetric) {
  for (int n : {7, 40}) {
    for (double diag : {0.05, 1.0}) {
      bunch_kaufman_case<true>(n, diag, 3 + n);
      bunch_kaufman_case<false>(n, diag, 5 + n);
    }
  }
}

// Diagonal pivoting on the full square: P^T A P = L U with U = D L^H
// (Hermitian, D real) or D L^T; checked by rebuilding P^T A P.
template <bool kHermitian>
void diagonal_case(int n, unsigned seed) {
  SCOPED_TRACE(kHermitian ? "Hermitian" : "complex symmetric");
  const vector<cplx> a = random_block(n, kHermitian, 4.0, seed);
  vector<cplx> f = a;
  vector<int> ipiv(n);
  int info = 0, npert = 0, npos = 0, nneg = 0;
  vm::dgetf2_diagpiv<cplx, kHermitian>(n, n, f.data(), n, ipiv.data(), &info, &npert, &npos, &nneg,
                                       0.0);
  ASSERT_EQ(info, 0);
  EXPECT_EQ(npos + nneg, n);
  auto at = [n](const vector<cplx> &m, int i, int j) { return m[i + static_cast<size_t>(j) * n]; };
  // The exchanges applied in order to the identity give the order of rows.
  vector<int> order(n);
  for (int i = 0; i < n; ++i) order[i] = i;
  for (int k = 0; k < n; ++k) std::swap(order[k], order[ipiv[k] - 1]);
  double worst = 0;
  for (int i = 0; i < n; ++i)
    for (int j = 0; j < n; ++j) {
      cplx s = 0;
      for (int k = 0; k <= std::min(i, j); ++k) s += (k == i ? cplx(1) : at(f, i, k)) * at(f, k, j);
      worst = std::max(worst, std::abs(s - at(a, order[i], order[j])));
    }
  EXPECT_LT(worst, 1e-12);
  for (int k = 0; k < n; ++k) {
    const cplx d = at(f, k, k);
    if (kHermitian) {
      EXPECT_EQ(d.imag(), 0.0);
    }
    for (int j = k + 1; j < n; ++j) {
      // U = D L^H (or D L^T) above the diagonal.
      const cplx l = kHermitian ? std::conj(at(f, j, k)) : at(f, j, k);
      EXPECT_LT(std::abs(at(f, k, j) - d * l), 1e-12 * (1 + std::abs(at(f, k, j))));
    }
  }
  if (kHermitian) {
    const vector<double> w = eigenvalues(a, n);
    EXPECT_EQ(npos, std::count_if(w.begin(), w.end(), [](double v) { return v > 0; }));
  }
}

TEST(ComplexKernels, DiagonalPivotingHermitianAndSymmetric) {
  diagonal_case<true>(30, 11);
  diagonal_case<false>(30, 12);
}

TEST(ComplexKernels, ArgumentNames) {
  // A bad size is reported under the Hermitian or symmetric name.
  vector<cplx> a(4);
  vector<int> ipiv(2);
  int info = 0, npert = 0, npos = 0, nneg = 0;
  testing::internal::CaptureStderr();
  testing::internal::CaptureStdout();
  vm::dsytf2_pert<cplx, true>('L', 2, a.data(), 1, ipiv.data(), &info, &npert, &npos, &nneg, 0.0);
  const std::string out =
      testing::internal::GetCapturedStdout() + testing::internal::GetCapturedStderr();
  EXPECT_EQ(info, -4);
  EXPECT_NE(out.find("ZHETF2"), std::string::npos) << out;
}

}  // namespace
