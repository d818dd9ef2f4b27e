// General and structurally symmetric matrices through the public
// interface: A x = b and A^T x = b after refinement, with and without the
// matching, one and several right-hand sides; singular blocks.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <random>
#include <string>
#include <vector>

#include "matrix_folder.h"
#include "test_matrices.h"
#include "velmora.h"

namespace {

struct Outcome {
  int error = 0, perturbed = 0, steps = 0;
  double berr = 0;
};

Outcome solve(const testmat::Csr &m, int mtype, int transposed, int nrhs, int matching) {
  std::array<void *, 64> pt{};
  std::array<int, 64> iparm{};
  std::array<double, 64> dparm{};
  int solver = 0, error = 0, maxfct = 1, mnum = 1, msglvl = 0, n = m.n;
  velmorainit(pt.data(), &mtype, &solver, iparm.data(), dparm.data(), &error);
  iparm[11] = transposed;
  iparm[12] = matching;
  // Explicit refinement: with the default, a factor with perturbed pivots
  // gets at most two steps, and where those leave the backward error
  // depends on the processor's BLAS kernels (bp_1200: 1.0e-13 to 1.4e-13).
  iparm[7] = 3;
  std::vector<double> a = m.a, b(static_cast<size_t>(n) * nrhs), x(b.size());
  for (size_t i = 0; i < b.size(); ++i) b[i] = std::cos(0.7 * static_cast<double>(i)) + 0.1;
  std::vector<int> perm(n);
  int phase = 13;
  velmora(pt.data(), &maxfct, &mnum, &mtype, &phase, &n, a.data(), m.ia.data(), m.ja.data(),
          perm.data(), &nrhs, iparm.data(), &msglvl, b.data(), x.data(), &error, dparm.data());
  Outcome o{error, iparm[13], iparm[6], 0.0};
  if (error == 0)
    o.berr = testmat::backward_error(m, x.data(), b.data(), nrhs, false, transposed != 0);
  phase = -1;
  velmora(pt.data(), &maxfct, &mnum, &mtype, &phase, &n, a.data(), m.ia.data(), m.ja.data(),
          perm.data(), &nrhs, iparm.data(), &msglvl, b.data(), x.data(), &error, dparm.data());
  return o;
}

TEST(General, GridsAndCollection) {
  VELMORA_NEEDS_MATRIX_FOLDER();
  std::vector<std::pair<std::string, testmat::Csr>> cases = {
      {"convection-diffusion 12^3", testmat::convection_diffusion(12, 12, 12, 0.8)}};
  for (const char *file : {"olm500.mtx", "bp_1200.mtx", "rajat19.mtx", "adder_dcop_05.mtx",
                           "temp.mtx", "cage5.mtx", "impcol_a.mtx", "pts5ldd03.mtx", "lfat5b.mtx"})
    cases.push_back({file, testmat::from_file(file, false)});
  for (const auto &[name, m] : cases) {
    ASSERT_GT(m.n, 0) << name;
    for (int mtype : {1, 11}) {
      for (int transposed : {0, 1}) {
        for (int nrhs : {1, 8}) {
          SCOPED_TRACE(name + " mtype " + std::to_string(mtype) + " transposed " +
                       std::to_string(transposed) + " nrhs " + std::to_string(nrhs));
          const Outcome o = solve(m, mtype, transposed, nrhs, 1);
          if (mtype == 1 && o.error == -4) continue;  // a zero pivot: no perturbation in type 1
          ASSERT_EQ(o.error, 0);
          EXPECT_LT(o.berr, 1e-13) << "perturbed " << o.perturbed << " steps " << o.steps;
        }
      }
    }
  }
}

TEST(General, MatchingMovesLargeEntriesToTheDiagonal) {
  VELMORA_NEEDS_MATRIX_FOLDER();
  // No diagonal entries at all, magnitudes from 1e-10 to 1e10.
  std::mt19937 rng(5);
  std::uniform_real_distribution<double> expo(-10, 10);
  const int n = 300;
  std::vector<std::pair<std::pair<int, int>, double>> e;
  for (int i = 0; i < n; ++i) {
    e.push_back({{i, (i + 1) % n}, std::pow(10.0, expo(rng))});
    for (int k = 0; k < 3; ++k) {
      const int j = static_cast<int>(rng() % n);
      if (j != i) e.push_back({{i, j}, std::pow(10.0, expo(rng)) * (k % 2 ? 1 : -1)});
    }
  }
  const auto wild = testmat::from_entries(n, e, false);
  std::vector<std::pair<std::string, testmat::Csr>> cases = {{"wild scaling", wild}};
  for (const char *file : {"west0067.mtx", "west0479.mtx", "west0497.mtx", "rajat19.mtx",
                           "adder_dcop_05.mtx", "bp_1200.mtx"})
    cases.push_back({file, testmat::from_file(file, false)});
  for (const auto &[name, m] : cases) {
    SCOPED_TRACE(name);
    const Outcome with = solve(m, 11, 0, 1, 1);
    ASSERT_EQ(with.error, 0);
    EXPECT_LT(with.berr, 1e-13) << "perturbed " << with.perturbed << " steps " << with.steps;
    const Outcome without = solve(m, 11, 0, 1, 0);
    // Without the matching the zero diagonals become perturbed pivots.
    EXPECT_GE(without.perturbed, with.perturbed);
  }
}

TEST(General, SingularBlockFailsWithoutPerturbationOnly) {
  // Rows 1 and 2 are equal and hold only columns 1 and 2: the diagonal
  // block of their supernode is exactly singular.  The rest is a chain.
  std::vector<std::pair<std::pair<int, int>, double>> e = {
      {{0, 0}, 1.0}, {{0, 1}, 1.0}, {{1, 0}, 1.0}, {{1, 1}, 1.0}};
  for (int i = 2; i < 10; ++i) {
    e.push_back({{i, i}, 4.0});
    if (i > 2) e.push_back({{i, i - 1}, 1.0}), e.push_back({{i - 1, i}, 1.0});
  }
  const auto m = testmat::from_entries(10, e, false);
  EXPECT_EQ(solve(m, 1, 0, 1, 0).error, -4);
  const Outcome perturbed = solve(m, 11, 0, 1, 0);
  EXPECT_EQ(perturbed.error, 0);
  EXPECT_GT(perturbed.perturbed, 0);
}

TEST(General, StructurallySingularMatrixIsReported) {
  // Two rows with the same single column: rank n-1.
  std::vector<std::pair<std::pair<int, int>, double>> e;
  for (int i = 0; i < 8; ++i) e.push_back({{i, i}, 2.0});
  e[3] = {{3, 2}, 1.0};  // row 3 holds only column 2, like row 2's diagonal
  auto m = testmat::from_entries(8, e, false);
  std::array<void *, 64> pt{};
  std::array<int, 64> iparm{};
  std::array<double, 64> dparm{};
  int mtype = 11, solver = 0, error = 0, maxfct = 1, mnum = 1, msglvl = 1, n = m.n, nrhs = 1;
  velmorainit(pt.data(), &mtype, &solver, iparm.data(), dparm.data(), &error);
  // With entries on the diagonal only, nnz equals n and the diagonal front
  // would answer: one more entry makes it a sparse matrix.
  m = testmat::from_entries(
      8,
      [&] {
        auto f = e;
        f.push_back({{0, 1}, 0.5});
        return f;
      }(),
      false);
  std::vector<int> perm(n);
  std::vector<double> b(n, 1.0), x(n);
  int phase = 11;
  testing::internal::CaptureStdout();
  velmora(pt.data(), &maxfct, &mnum, &mtype, &phase, &n, m.a.data(), m.ia.data(), m.ja.data(),
          perm.data(), &nrhs, iparm.data(), &msglvl, b.data(), x.data(), &error, dparm.data());
  const std::string out = testing::internal::GetCapturedStdout();
  EXPECT_EQ(error, -6);
  EXPECT_NE(out.find("*** error velmora: preordering failed after 7 neqns out of 8\n"),
            std::string::npos)
      << out;
  EXPECT_NE(out.find("struct. sing. or input/parameter problem (matrixtype 11,13)\n"),
            std::string::npos);
  phase = -1;
  msglvl = 0;
  velmora(pt.data(), &maxfct, &mnum, &mtype, &phase, &n, m.a.data(), m.ia.data(), m.ja.data(),
          perm.data(), &nrhs, iparm.data(), &msglvl, b.data(), x.data(), &error, dparm.data());
}

}  // namespace
