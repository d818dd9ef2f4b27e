// Partial solves through the public interface (iparm(31) with a mask in
// perm): for a right-hand side that is zero outside the selected nodes, the
// selected entries of the solution equal those of a full solve.  Mode 1
// keeps vectors of length n; modes 2 and 3 hand over the k selected
// entries only, in the caller's order.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <random>
#include <string>
#include <vector>

#include "test_matrices.h"
#include "velmora.h"

namespace {

struct Call {
  std::array<void *, 64> pt{};
  std::array<int, 64> iparm{};
  std::array<double, 64> dparm{};
  int mtype, maxfct = 1, mnum = 1, msglvl = 0, error = 0, n, nrhs;
  const testmat::Csr &m;
  std::vector<double> a;
  Call(const testmat::Csr &mat, int type, int rhs, int matching)
      : mtype(type), n(mat.n), nrhs(rhs), m(mat), a(mat.a) {
    int solver = 0;
    velmorainit(pt.data(), &mtype, &solver, iparm.data(), dparm.data(), &error);
    iparm[12] = matching;
  }
  ~Call() { run(-1, nullptr, nullptr, nullptr); }
  int run(int phase, int *perm, double *b, double *x) {
    velmora(pt.data(), &maxfct, &mnum, &mtype, &phase, &n, a.data(), m.ia.data(), m.ja.data(), perm,
            &nrhs, iparm.data(), &msglvl, b, x, &error, dparm.data());
    return error;
  }
};

void expect_partial_matches_full(const std::string &name, const testmat::Csr &m, int mtype,
                                 int matching) {
  const int n = m.n;
  std::mt19937 rng(7);
  std::vector<int> mask(n);
  for (int &v : mask) v = rng() % 3 == 0 ? 1 : 0;
  std::vector<int> selected;
  for (int j = 0; j < n; ++j)
    if (mask[j]) selected.push_back(j);
  const int k = static_cast<int>(selected.size());
  for (int nrhs : {1, 2}) {
    // b: nonzero on the selected nodes only.
    std::vector<double> b(static_cast<size_t>(n) * nrhs, 0.0), full(b.size());
    for (int c = 0; c < nrhs; ++c)
      for (int j : selected) b[static_cast<size_t>(c) * n + j] = std::cos(0.37 * j + c) + 0.2;
    {
      Call ref(m, mtype, nrhs, matching);
      std::vector<int> perm(n);
      std::vector<double> bb = b;
      ASSERT_EQ(ref.run(13, perm.data(), bb.data(), full.data()), 0) << name;
    }
    double scale = 0;
    for (double v : full) scale = std::max(scale, std::abs(v));
    for (int mode : {1, 2, 3}) {
      SCOPED_TRACE(name + ", iparm(31) " + std::to_string(mode) + ", nrhs " + std::to_string(nrhs));
      Call p(m, mtype, nrhs, matching);
      p.iparm[30] = mode;
      std::vector<int> perm = mask;
      const bool compressed = mode >= 2;
      const int len = compressed ? k : n;
      std::vector<double> pb(static_cast<size_t>(len) * nrhs), px(pb.size(), 0.0);
      for (int c = 0; c < nrhs; ++c)
        for (int t = 0; t < k; ++t) {
          const int j = selected[t];
          pb[static_cast<size_t>(c) * len + (compressed ? t : j)] =
              b[static_cast<size_t>(c) * n + j];
        }
      ASSERT_EQ(p.run(13, perm.data(), pb.data(), px.data()), 0);
      EXPECT_EQ(p.iparm[6], 0) << "a partial solve is not refined";
      ASSERT_EQ(p.iparm[13], 0) << "perturbed pivots: the comparison needs refinement";
      double worst = 0;
      for (int c = 0; c < nrhs; ++c)
        for (int t = 0; t < k; ++t) {
          const int j = selected[t];
          const double got = px[static_cast<size_t>(c) * len + (compressed ? t : j)];
          worst = std::max(worst, std::abs(got - full[static_cast<size_t>(c) * n + j]));
        }
      EXPECT_LT(worst, 1e-9 * scale);
      // A second solve on the same factor (phase 33) gives the same.
      std::vector<double> again(px.size(), 0.0);
      ASSERT_EQ(p.run(33, perm.data(), pb.data(), again.data()), 0);
      EXPECT_EQ(again, px);
    }
  }
}

TEST(PartialSolve, SelectedEntriesMatchTheFullSolve) {
  expect_partial_matches_full("Laplacian 12x12x4", testmat::grid_laplacian(12, 12, 4, true), 2, 0);
  // Indefinite: the Laplacian shifted into the middle of its spectrum (no
  // pivot small enough to be perturbed, so that the unrefined partial solve
  // is as accurate as the full one).
  testmat::Csr shifted = testmat::grid_laplacian(8, 8, 6, true);
  for (int i = 0; i < shifted.n; ++i) shifted.a[shifted.ia[i] - 1] -= 5.1;
  expect_partial_matches_full("shifted Laplacian", shifted, -2, 0);
  expect_partial_matches_full("shifted Laplacian, symmetric matching", shifted, -2, 1);
  const testmat::Csr cd = testmat::convection_diffusion(10, 10, 3, 0.8);
  expect_partial_matches_full("convection-diffusion", cd, 11, 0);
}

}  // namespace
