// Symmetric indefinite systems through the public interface: inertia
// against a dense eigenvalue count, backward error after the default
// refinement, in both pivot modes.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdlib>
#include <random>
#include <string>
#include <vector>

#include "matrix_folder.h"
#include "test_matrices.h"
#include "velmora.h"

extern "C" void dsyev_(const char *, const char *, const int *, double *, const int *, double *,
                       double *, const int *, int *);

namespace {

using Entries = std::vector<std::pair<std::pair<int, int>, double>>;

// [[H, J^T], [J, 0]]: H the 5-point Laplacian of an m x m grid, J one row
// per constraint coupling two or three neighbouring grid nodes, each from
// its own first node, so that J has full row rank.
testmat::Csr kkt(int m, int constraints, unsigned seed) {
  const testmat::Csr h = testmat::grid_laplacian(m, m, 1, true);
  const int nh = h.n;
  Entries e;
  for (int i = 0; i < nh; ++i)
    for (int k = h.ia[i] - 1; k < h.ia[i + 1] - 1; ++k) e.push_back({{i, h.ja[k] - 1}, h.a[k]});
  std::vector<int> nodes(nh - 2);
  for (int i = 0; i < nh - 2; ++i) nodes[i] = i;
  std::shuffle(nodes.begin(), nodes.end(), std::mt19937(seed));
  for (int c = 0; c < constraints; ++c) {
    const int node = nodes[c];
    e.push_back({{node, nh + c}, 1.0});
    e.push_back({{node + 1, nh + c}, -0.5});
    if (c % 2 == 0) e.push_back({{node + 2, nh + c}, 0.25});
  }
  return testmat::from_entries(nh + constraints, e, true);
}

testmat::Csr random_indefinite(int n, unsigned seed) {
  std::mt19937 rng(seed);
  std::uniform_real_distribution<double> u(-1, 1);
  Entries e;
  for (int i = 0; i < n; ++i) {
    e.push_back({{i, i}, 3.0 * u(rng)});
    for (int k = 0; k < 3; ++k) e.push_back({{i, static_cast<int>(rng() % n)}, u(rng)});
  }
  return testmat::from_entries(n, e, true);
}

// Positive and negative eigenvalues of the dense matrix.
std::pair<int, int> dense_inertia(const testmat::Csr &m) {
  const int n = m.n;
  std::vector<double> d(static_cast<size_t>(n) * n, 0.0), w(n);
  for (int i = 0; i < n; ++i)
    for (int k = m.ia[i] - 1; k < m.ia[i + 1] - 1; ++k) {
      const int j = m.ja[k] - 1;
      d[static_cast<size_t>(i) * n + j] = d[static_cast<size_t>(j) * n + i] = m.a[k];
    }
  int lwork = -1, info = 0;
  double query = 0;
  dsyev_("N", "L", &n, d.data(), &n, w.data(), &query, &lwork, &info);
  lwork = static_cast<int>(query);
  std::vector<double> work(lwork);
  dsyev_("N", "L", &n, d.data(), &n, w.data(), work.data(), &lwork, &info);
  int pos = 0, neg = 0;
  for (double v : w) (v > 0 ? pos : neg) += 1;
  return {pos, neg};
}

double backward_error(const testmat::Csr &m, const std::vector<double> &x,
                      const std::vector<double> &b) {
  std::vector<double> r = b, rows(m.n, 0.0);
  for (int i = 0; i < m.n; ++i)
    for (int k = m.ia[i] - 1; k < m.ia[i + 1] - 1; ++k) {
      const int j = m.ja[k] - 1;
      r[i] -= m.a[k] * x[j];
      rows[i] += std::abs(m.a[k]);
      if (j != i) r[j] -= m.a[k] * x[i], rows[j] += std::abs(m.a[k]);
    }
  double rn = 0, xn = 0, bn = 0, an = 0;
  for (int i = 0; i < m.n; ++i) {
    rn = std::max(rn, std::abs(r[i]));
    xn = std::max(xn, std::abs(x[i]));
    bn = std::max(bn, std::abs(b[i]));
    an = std::max(an, rows[i]);
  }
  return rn / (an * xn + bn);
}

struct Result {
  int error, pos, neg, perturbed, steps;
  double berr;
  int subgraphs;  // "# of independent subgraphs" of the report
  int nnz;        // iparm(18)
  std::string report;
};

// The integer after `label` in a report, or -1.
int reported(const std::string &report, const std::string &label) {
  const size_t at = report.find(label);
  return at == std::string::npos ? -1 : std::atoi(report.c_str() + at + label.size());
}

Result solve(const testmat::Csr &m, int pivoting, int ordering, int matching = 0, int threads = 0,
             int width = 0) {
  std::array<void *, 64> pt{};
  std::array<int, 64> iparm{};
  std::array<double, 64> dparm{};
  int mtype = -2, solver = 0, error = 0, maxfct = 1, mnum = 1, nrhs = 1, msglvl = 1, n = m.n;
  velmorainit(pt.data(), &mtype, &solver, iparm.data(), dparm.data(), &error);
  iparm[20] = pivoting;
  iparm[1] = ordering;
  iparm[12] = matching;
  iparm[2] = threads;
  iparm[29] = width;
  std::vector<double> a = m.a, b(n), x(n);
  for (int i = 0; i < n; ++i) b[i] = std::sin(0.3 * i) + 0.5;
  std::vector<int> perm(n);
  int phase = 13;
  testing::internal::CaptureStdout();
  velmora(pt.data(), &maxfct, &mnum, &mtype, &phase, &n, a.data(), m.ia.data(), m.ja.data(),
          perm.data(), &nrhs, iparm.data(), &msglvl, b.data(), x.data(), &error, dparm.data());
  const std::string out = testing::internal::GetCapturedStdout();
  Result r{error,
           iparm[21],
           iparm[22],
           iparm[13],
           iparm[6],
           backward_error(m, x, b),
           reported(out, "# of independent subgraphs:"),
           iparm[17],
           out};
  msglvl = 0;
  phase = -1;
  velmora(pt.data(), &maxfct, &mnum, &mtype, &phase, &n, a.data(), m.ia.data(), m.ja.data(),
          perm.data(), &nrhs, iparm.data(), &msglvl, b.data(), x.data(), &error, dparm.data());
  return r;
}

TEST(Indefinite, InertiaAndBackwardErrorInBothPivotModes) {
  const std::vector<std::pair<std::string, testmat::Csr>> cases = {
      {"KKT 12x12 grid, 40 constraints", kkt(12, 40, 1)},
      {"KKT 15x15 grid, 90 constraints", kkt(15, 90, 2)},
      {"random indefinite 250", random_indefinite(250, 3)}};
  for (const auto &[name, m] : cases) {
    const auto want = dense_inertia(m);
    for (int pivoting : {0, 1}) {
      for (int ordering : {2, 4}) {
        SCOPED_TRACE(name + " pivoting " + std::to_string(pivoting) + " ordering " +
                     std::to_string(ordering));
        const Result r = solve(m, pivoting, ordering);
        ASSERT_EQ(r.error, 0);
        EXPECT_EQ(r.pos, want.first);
        EXPECT_EQ(r.neg, want.second);
        EXPECT_LT(r.berr, 1e-14) << "perturbed " << r.perturbed << " steps " << r.steps;
        if (r.perturbed > 0) {
          EXPECT_GT(r.steps, 0) << "perturbed pivots are refined";
        }
      }
    }
  }
}

// iparm(30) 1, as interior-point optimisers set it: every supernode is one
// column, so nothing pivots and tiny pivots are perturbed.  The report shows
// one-column supernodes and the entries of L counted by columns, whatever
// blocks the arithmetic runs in; answers and inertia hold at every width.
TEST(Indefinite, OneColumnSupernodes) {
  const std::vector<std::pair<std::string, testmat::Csr>> cases = {
      {"KKT 14x14 grid, 60 constraints", kkt(14, 60, 4)},
      {"random indefinite 300", random_indefinite(300, 6)}};
  for (const auto &[name, m] : cases) {
    const auto want = dense_inertia(m);
    for (int pivoting : {0, 1}) {
      for (int matching : {0, 1}) {
        SCOPED_TRACE(name + " pivoting " + std::to_string(pivoting) + " matching " +
                     std::to_string(matching));
        const Result r = solve(m, pivoting, 2, matching, 1, 1);
        ASSERT_EQ(r.error, 0);
        EXPECT_LT(r.berr, 1e-12) << "perturbed " << r.perturbed << " steps " << r.steps;
        EXPECT_EQ(reported(r.report, "#columns for each panel:"), 1);
        EXPECT_EQ(reported(r.report, "#supernodes:"), m.n);
        EXPECT_EQ(reported(r.report, "size of largest supernode:"), 1);
        EXPECT_EQ(reported(r.report, "number of nonzeros in L"), r.nnz - 1);
        if (r.perturbed == 0) {
          EXPECT_EQ(r.pos, want.first);
          EXPECT_EQ(r.neg, want.second);
        }
        // A team of two factors the same blocks in another order.
        const Result t = solve(m, pivoting, 2, matching, 2, 1);
        EXPECT_EQ(t.perturbed, r.perturbed);
        EXPECT_EQ(t.pos, r.pos);
        EXPECT_LT(t.berr, 1e-12);
      }
    }
  }
}

TEST(Indefinite, SymmetricMatchingKeepsPairsTogether) {
  // Every constraint row has a zero diagonal: without the matching each
  // becomes a perturbed pivot; with it, constraint and node form 2x2 pivots.
  for (const auto &[name, m] : {std::pair{std::string("KKT 14x14, 60"), kkt(14, 60, 4)},
                                std::pair{std::string("KKT 20x20, 150"), kkt(20, 150, 5)}}) {
    const auto want = dense_inertia(m);
    for (int ordering : {2, 3, 4}) {
      for (int threads : {1, 2}) {
        SCOPED_TRACE(name + " ordering " + std::to_string(ordering) + " threads " +
                     std::to_string(threads));
        const Result with = solve(m, 1, ordering, 1, threads);
        const Result without = solve(m, 1, ordering, 0, threads);
        ASSERT_EQ(with.error, 0);
        EXPECT_EQ(with.pos, want.first);
        EXPECT_EQ(with.neg, want.second);
        EXPECT_LT(with.berr, 1e-14);
        EXPECT_LT(with.perturbed, without.perturbed);
        // Nested dissection of the compressed graph splits it for the
        // threads, as it does the plain graph.
        const bool split = ordering != 4 && threads > 1;
        EXPECT_EQ(with.subgraphs > 1, split) << with.subgraphs;
        EXPECT_EQ(with.subgraphs, without.subgraphs);
      }
    }
  }
}

TEST(Indefinite, FilledStructureOfThePairs) {
  // The zero block stored explicitly, as optimisers store it: every row
  // holds its diagonal, so iparm(13) 2 builds the filled structure.
  testmat::Csr m = kkt(16, 80, 6);
  std::vector<std::pair<std::pair<int, int>, double>> e;
  for (int i = 0; i < m.n; ++i) {
    e.push_back({{i, i}, 0.0});
    for (int k = m.ia[i] - 1; k < m.ia[i + 1] - 1; ++k) e.push_back({{i, m.ja[k] - 1}, m.a[k]});
  }
  m = testmat::from_entries(m.n, e, true);
  const auto want = dense_inertia(m);
  for (int mode : {1, 2}) {
    SCOPED_TRACE("iparm(13) " + std::to_string(mode));
    const Result r = solve(m, 1, 3, mode);
    ASSERT_EQ(r.error, 0);
    EXPECT_EQ(r.pos, want.first);
    EXPECT_EQ(r.neg, want.second);
    EXPECT_LT(r.berr, 1e-14);
  }
}

TEST(Indefinite, RealMatrixFromTheCollection) {
  VELMORA_NEEDS_MATRIX_FOLDER();
  const auto m = testmat::from_file("reorientation_1.mtx", true);
  ASSERT_GT(m.n, 0);
  for (int pivoting : {0, 1}) {
    const Result r = solve(m, pivoting, 2);
    ASSERT_EQ(r.error, 0) << pivoting;
    EXPECT_EQ(r.pos + r.neg, m.n);
    EXPECT_LT(r.berr, 1e-14) << "pivoting " << pivoting << " perturbed " << r.perturbed;
  }
}

}  // namespace
