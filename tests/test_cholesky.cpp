// Symmetric positive definite systems through the public interface: every
// ordering, one and many right-hand sides, the split phases, the solution
// in b, the split substitution, failures, and the log-determinant.  The
// backward error is computed here from the matrix, independently of the
// library.
#include <gtest/gtest.h>

#if defined(__x86_64__) || defined(__i386__)
#include <xmmintrin.h>
#endif

#include <algorithm>
#include <array>
#include <cmath>
#include <random>
#include <string>
#include <vector>

#include "matrix_folder.h"
#include "test_matrices.h"
#include "velmora.h"

extern "C" void dpotrf_(const char *, const int *, double *, const int *, int *);

namespace {

struct Spd {
  testmat::Csr m;
  int mtype = 2, n;
  std::array<void *, 64> pt{};
  std::array<int, 64> iparm{};
  std::array<double, 64> dparm{};
  std::vector<int> perm;
  int maxfct = 1, mnum = 1, nrhs = 1, msglvl = 0, error = 0;

  explicit Spd(testmat::Csr matrix) : m(std::move(matrix)), n(m.n), perm(m.n) {
    int solver = 0;
    velmorainit(pt.data(), &mtype, &solver, iparm.data(), dparm.data(), &error);
  }
  ~Spd() { call(-1, nullptr, nullptr); }
  int call(int phase, double *b, double *x) {
    velmora(pt.data(), &maxfct, &mnum, &mtype, &phase, &n, m.a.data(), m.ia.data(), m.ja.data(),
            perm.data(), &nrhs, iparm.data(), &msglvl, b, x, &error, dparm.data());
    return error;
  }
};

double backward_error(const testmat::Csr &m, const std::vector<double> &x,
                      const std::vector<double> &b, int nrhs) {
  return testmat::backward_error(m, x.data(), b.data(), nrhs, true);
}

std::vector<double> random_rhs(int n, int nrhs, unsigned seed) {
  return testmat::random_vector(static_cast<size_t>(n) * nrhs, seed);
}

std::vector<std::pair<std::string, testmat::Csr>> matrices() {
  return {{"2D grid 40^2", testmat::grid_laplacian(40, 40, 1, true)},
          {"3D grid 12^3", testmat::grid_laplacian(12, 12, 12, true)},
          {"bcsstk13", testmat::from_file("bcsstk13.mtx", true)},
          {"494_bus", testmat::from_file("494_bus.mtx", true)}};
}

TEST(Cholesky, EveryOrderingOneAndManyRightHandSides) {
  VELMORA_NEEDS_MATRIX_FOLDER();
  for (const auto &[name, m] : matrices()) {
    ASSERT_GT(m.n, 0) << name;
    for (int ordering : {0, 1, 2, 3, 4}) {
      for (int nrhs : {1, 16}) {
        SCOPED_TRACE(name + " ordering " + std::to_string(ordering) + " nrhs " +
                     std::to_string(nrhs));
        Spd s(m);
        s.iparm[1] = ordering;
        s.nrhs = nrhs;
        auto b = random_rhs(m.n, nrhs, 7);
        const auto b0 = b;
        std::vector<double> x(b.size());
        ASSERT_EQ(s.call(13, b.data(), x.data()), 0);
        EXPECT_LT(backward_error(m, x, b0, nrhs), 1e-14);
        EXPECT_EQ(b, b0) << "b must stay as given";
        EXPECT_EQ(s.iparm[21], m.n);  // every pivot positive
        EXPECT_EQ(s.iparm[22], 0);
      }
    }
  }
}

TEST(Cholesky, SplitPhasesSolutionInPlaceAndSplitSubstitution) {
  const auto m = testmat::grid_laplacian(15, 15, 6, true);
  Spd s(m);
  s.nrhs = 3;
  auto b = random_rhs(m.n, 3, 11);
  const auto b0 = b;
  std::vector<double> x(b.size());
  ASSERT_EQ(s.call(11, b.data(), x.data()), 0);
  ASSERT_EQ(s.call(22, b.data(), x.data()), 0);
  ASSERT_EQ(s.call(33, b.data(), x.data()), 0);
  EXPECT_LT(backward_error(m, x, b0, 3), 1e-14);

  s.iparm[5] = 1;  // the solution overwrites b, x is not written
  std::vector<double> untouched(b.size(), -5.0);
  ASSERT_EQ(s.call(33, b.data(), untouched.data()), 0);
  EXPECT_LT(backward_error(m, b, b0, 3), 1e-14);
  s.iparm[5] = 0;

  // Forward then backward through iparm(26): the same solution as one solve.
  for (int nrhs : {1, 3}) {
    s.nrhs = nrhs;
    std::vector<double> bb(b0.begin(), b0.begin() + static_cast<long>(nrhs) * m.n);
    std::vector<double> half(bb.size()), full(bb.size());
    ASSERT_EQ(s.call(33, bb.data(), full.data()), 0);
    s.iparm[25] = 1;
    ASSERT_EQ(s.call(33, bb.data(), half.data()), 0);
    s.iparm[25] = 2;
    std::vector<double> back(bb.size());
    ASSERT_EQ(s.call(33, half.data(), back.data()), 0);
    s.iparm[25] = 0;
    for (size_t i = 0; i < full.size(); ++i) EXPECT_NEAR(back[i], full[i], 1e-12) << i;
  }
}

TEST(Cholesky, NewValuesReuseTheAnalysis) {
  auto m = testmat::grid_laplacian(10, 10, 10, true);
  Spd s(m);
  auto b = random_rhs(m.n, 1, 3);
  std::vector<double> x(b.size());
  ASSERT_EQ(s.call(11, b.data(), x.data()), 0);
  for (int round = 0; round < 3; ++round) {
    for (size_t k = 0; k < s.m.a.size(); ++k) s.m.a[k] *= 1.0 + 0.1 * round;
    ASSERT_EQ(s.call(23, b.data(), x.data()), 0);
    EXPECT_LT(backward_error(s.m, x, b, 1), 1e-14) << "round " << round;
  }
}

#if defined(__x86_64__) || defined(__i386__)
// The factorization flushes subnormal numbers to zero while it runs (the
// entries of L far from the diagonal of a large 2D grid fall below 1e-308,
// and arithmetic on them is slow) and hands the caller's floating-point
// mode back as it found it, flushing off or on.
TEST(Cholesky, CallersFloatingPointModeSurvives) {
  const auto m = testmat::grid_laplacian(30, 30, 1, true);
  const unsigned original = _mm_getcsr();
  constexpr unsigned kFlush = 0x8040u, kFlags = 0x3Fu;
  for (unsigned mode : {original & ~kFlush, original | kFlush}) {
    _mm_setcsr(mode);
    Spd s(m);
    auto b = random_rhs(m.n, 1, 4);
    std::vector<double> x(b.size());
    const int error = s.call(13, b.data(), x.data());
    const unsigned after = _mm_getcsr();
    _mm_setcsr(original);
    ASSERT_EQ(error, 0);
    EXPECT_EQ(after & ~kFlags, mode & ~kFlags) << std::hex << mode;
    EXPECT_LT(backward_error(s.m, x, b, 1), 1e-14);
  }
}
#endif

TEST(Cholesky, IndefiniteMatrixIsRefused) {
  auto m = testmat::grid_laplacian(8, 8, 1, true);
  m.a[m.ia[30] - 1] = -50.0;  // a negative diagonal entry in row 31
  for (int msglvl : {1, 0}) {
    Spd s(m);
    s.msglvl = msglvl;
    auto b = random_rhs(m.n, 1, 5);
    std::vector<double> x(b.size());
    testing::internal::CaptureStdout();
    EXPECT_EQ(s.call(13, b.data(), x.data()), -4);
    const std::string out = testing::internal::GetCapturedStdout();
    if (msglvl == 1) {
      EXPECT_NE(out.find("*** error velmora: zero or neg. pivot, A not spd\n"), std::string::npos)
          << out;
    } else {
      EXPECT_EQ(out, "");
    }
    // No factor: a solve is refused, not run on garbage.  A plain solve
    // (phase 33) says so in words only; error stays 0 and x is untouched.
    std::fill(x.begin(), x.end(), 7.0);
    testing::internal::CaptureStdout();
    EXPECT_EQ(s.call(33, b.data(), x.data()), 0);
    const std::string refused = testing::internal::GetCapturedStdout();
    EXPECT_EQ(refused.find("*** error"), msglvl ? 0u : std::string::npos) << refused;
    EXPECT_TRUE(std::all_of(x.begin(), x.end(), [](double v) { return v == 7.0; }));
  }
}

TEST(Cholesky, LogDeterminantMatchesDenseFactor) {
  for (int n : {5, 30, 120}) {
    std::mt19937 rng(n);
    std::uniform_real_distribution<double> u(-1, 1);
    std::vector<double> dense(static_cast<size_t>(n) * n, 0.0);
    std::vector<std::pair<std::pair<int, int>, double>> e;
    for (int i = 0; i < n; ++i)
      for (int j = i; j < n; ++j) {
        if (j != i && rng() % 4 != 0) continue;
        const double v = i == j ? 3.0 * n * (1 + u(rng) * 0.5) : u(rng);
        dense[static_cast<size_t>(i) * n + j] = dense[static_cast<size_t>(j) * n + i] = v;
        e.push_back({{i, j}, v});
      }
    Spd s(testmat::from_entries(n, e, true));
    s.iparm[32] = 1;
    std::vector<double> b(n, 1.0), x(n);
    ASSERT_EQ(s.call(12, b.data(), x.data()), 0);
    int info = 0;
    dpotrf_("L", &n, dense.data(), &n, &info);
    ASSERT_EQ(info, 0);
    double logdet = 0;
    for (int i = 0; i < n; ++i) logdet += 2.0 * std::log(dense[static_cast<size_t>(i) * n + i]);
    EXPECT_NEAR(s.dparm[32], logdet, 1e-10 * std::abs(logdet)) << "n " << n;
  }
}

}  // namespace
