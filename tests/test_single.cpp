// Single-precision factors (iparm(29) 1) through the public call: every
// case is also solved with a double factor on the same handle settings, and
// the single run must match what the double run reaches (backward error
// computed here, inertia), with about half of its factor memory.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <functional>
#include <string>
#include <vector>

#include "matrix_folder.h"
#include "test_matrices.h"
#include "velmora.h"

namespace {

using testmat::Csr;

constexpr const char *kSingleLine = "< Using VELMORA in 32-bit for factorization/solve >";

struct Outcome {
  int error = 0, pos = 0, neg = 0, perturbed = 0, steps = 0, iparm17 = 0, iparm20 = 0;
  double berr = 0, logdet = 0;
  bool single_line = false;
  std::vector<double> x;
};

// One handle: analysis, factorization and solve of m (phase 13) with
// iparm(29) single and iparm(8) refine, nrhs columns of b; `tweak` changes
// iparm before the call.  The backward error is computed here over the
// whole matrix.
Outcome solve(const Csr &m, int mtype, int single, int refine, int threads, int nrhs = 1,
              const std::function<void(int *)> &tweak = {}) {
  std::array<void *, 64> pt{};
  std::array<int, 64> iparm{};
  std::array<double, 64> dparm{};
  int solver = 0, error = 0, maxfct = 1, mnum = 1, msglvl = 1, n = m.n, phase = 13;
  velmorainit(pt.data(), &mtype, &solver, iparm.data(), dparm.data(), &error);
  iparm[2] = threads;
  iparm[7] = refine;
  iparm[28] = single;
  iparm[32] = 1;  // the log-determinant into dparm(33)
  if (tweak) tweak(iparm.data());
  const bool complex = mtype == 3 || mtype == 6 || mtype == 13 || std::abs(mtype) == 4;
  std::vector<double> a = m.a, b(static_cast<size_t>(n) * nrhs * (complex ? 2 : 1)), x(b.size());
  for (size_t i = 0; i < b.size(); ++i) b[i] = std::sin(0.37 * static_cast<double>(i)) + 0.25;
  std::vector<int> perm(n);
  testing::internal::CaptureStdout();
  velmora(pt.data(), &maxfct, &mnum, &mtype, &phase, &n, a.data(), m.ia.data(), m.ja.data(),
          perm.data(), &nrhs, iparm.data(), &msglvl, b.data(), x.data(), &error, dparm.data());
  const std::string out = testing::internal::GetCapturedStdout();
  Outcome r;
  r.error = error;
  r.pos = iparm[21];
  r.neg = iparm[22];
  r.perturbed = iparm[13];
  r.steps = iparm[6];
  r.iparm17 = iparm[16];
  r.iparm20 = iparm[19];
  r.logdet = dparm[32];
  r.single_line = out.find(kSingleLine) != std::string::npos;
  r.berr = complex ? -1 : testmat::backward_error(m, x.data(), b.data(), nrhs, mtype % 2 == 0);
  r.x = x;
  msglvl = 0;
  phase = -1;
  velmora(pt.data(), &maxfct, &mnum, &mtype, &phase, &n, a.data(), m.ia.data(), m.ja.data(),
          perm.data(), &nrhs, iparm.data(), &msglvl, b.data(), x.data(), &error, dparm.data());
  return r;
}

struct Case {
  std::string name;
  Csr m;
  int mtype;
  std::function<void(int *)> tweak;
};

// Matching and Bunch-Kaufman pivots, as indefinite systems with zero
// diagonal blocks are solved: without them every constraint row is a
// perturbed pivot of 1e-8, whose growth a single factor cannot carry.
void kkt_settings(int *iparm) {
  iparm[12] = 1;
  iparm[20] = 1;
}

// The single run reaches what the double run reaches, with at most 0.55
// times its factor memory (up to the rounding to whole kilobytes).
void expect_like_double(const Case &c, int threads, int nrhs = 1) {
  SCOPED_TRACE(c.name + ", mtype " + std::to_string(c.mtype) + ", " + std::to_string(threads) +
               " threads, nrhs " + std::to_string(nrhs));
  const Outcome d = solve(c.m, c.mtype, 0, 3, threads, nrhs, c.tweak);
  const Outcome s = solve(c.m, c.mtype, 1, 3, threads, nrhs, c.tweak);
  ASSERT_EQ(d.error, 0);
  ASSERT_EQ(s.error, 0);
  EXPECT_TRUE(s.single_line);
  EXPECT_FALSE(d.single_line);
  ASSERT_LT(d.berr, 1e-14);
  EXPECT_LT(s.berr, 1e-14) << "steps " << s.steps << ", double " << d.berr;
  EXPECT_EQ(s.steps, 3);
  EXPECT_EQ(s.pos, d.pos);
  EXPECT_EQ(s.neg, d.neg);
  EXPECT_EQ(s.perturbed, d.perturbed);
  if (d.perturbed == 0) {  // a replaced pivot's log differs with the arithmetic
    EXPECT_NEAR(s.logdet, d.logdet, 1e-5 * std::max(1.0, std::abs(d.logdet)));
  }
  EXPECT_LE(s.iparm17, 0.55 * d.iparm17 + 1) << "double " << d.iparm17;
}

Csr tridiagonal(int n, double diagonal) {
  std::vector<std::pair<std::pair<int, int>, double>> e;
  for (int i = 0; i < n; ++i) {
    e.push_back({{i, i}, diagonal});
    if (i + 1 < n) e.push_back({{i, i + 1}, -1.0});
  }
  return testmat::from_entries(n, e, true);
}

TEST(SinglePrecision, GeneratedMatricesRefinedToDoubleAccuracy) {
  const Csr cd = testmat::convection_diffusion(14, 14, 14, 2.0);
  const std::vector<Case> cases = {
      {"3D Laplacian 16^3 as symmetric indefinite", testmat::grid_laplacian(16, 16, 16, true), -2,
       nullptr},
      {"KKT 12^3, 400 constraints", testmat::kkt_local(12, 400, 7), -2, kkt_settings},
      {"convection-diffusion 14^3", cd, 11, nullptr},
      {"convection-diffusion 14^3", cd, 1, nullptr}};
  for (const Case &c : cases) {
    for (int threads : {1, 2}) expect_like_double(c, threads);
  }
  // Blocks of right-hand sides; the residual path of refinement.
  expect_like_double(cases[1], 2, 3);
  expect_like_double({"residual path", cd, 11, [](int *iparm) { iparm[7] = -3; }}, 2);

  // The reproducible member (iparm(34)): the same bits on one and two
  // threads; that mode does not refine, so the answer keeps single
  // accuracy.
  const auto exact = [](int *iparm) { iparm[33] = 1; };
  const Outcome e1 = solve(cases[0].m, -2, 1, 3, 1, 1, exact);
  const Outcome e2 = solve(cases[0].m, -2, 1, 3, 2, 1, exact);
  EXPECT_EQ(e1.error, 0);
  EXPECT_EQ(e1.x, e2.x);
  EXPECT_EQ(e2.steps, 0);
  EXPECT_LT(e2.berr, 1e-5);
}

TEST(SinglePrecision, SharedMatricesRefinedToDoubleAccuracy) {
  VELMORA_NEEDS_MATRIX_FOLDER();
  const std::vector<std::pair<std::string, int>> files = {
      {"494_bus.mtx", -2},  {"bcsstk13.mtx", -2},      {"reorientation_1.mtx", -2},
      {"west0479.mtx", 11}, {"adder_dcop_05.mtx", 11}, {"olm500.mtx", 1},
      {"pts5ldd03.mtx", 1}};
  for (const auto &[file, mtype] : files) {
    const Csr m = testmat::from_file(file, mtype % 2 == 0);
    ASSERT_GT(m.n, 0) << file;
    expect_like_double({file, m, mtype, mtype == -2 ? kkt_settings : nullptr}, 2);
  }
}

TEST(SinglePrecision, WideDiagonalBlocksInPanels) {
  // iparm(30) 240 lets supernodes grow past the 80 columns the
  // single-precision diagonal kernel takes at once; diagonal pivoting
  // (iparm(21) 0) factors them panel by panel.  An indefinite matrix with
  // a dense trailing block of 200 rows.
  std::vector<std::pair<std::pair<int, int>, double>> e;
  const int n = 600, dense_from = 400;
  for (int i = 0; i < n; ++i) {
    e.push_back({{i, i}, (i % 3 == 0 ? -1.0 : 1.0) * (4.0 + 0.01 * i)});
    if (i + 1 < n) e.push_back({{i, i + 1}, 1.0});
    if (i >= dense_from)
      for (int j = i + 2; j < n; ++j) e.push_back({{i, j}, 0.5 * std::cos(0.1 * i + 0.7 * j)});
  }
  const Case c{"dense trailing block", testmat::from_entries(n, e, true), -2, [](int *iparm) {
                 iparm[29] = 240;
                 iparm[20] = 0;
               }};
  for (int threads : {1, 2}) expect_like_double(c, threads);
}

TEST(SinglePrecision, TypesWithoutSingleMembersRunInDouble) {
  // mtype 2 and 13 ignore the flag: no report line, a double factor that
  // needs no refinement, and the double factor's memory.
  const Csr spd = testmat::grid_laplacian(12, 12, 12, true);
  const Outcome d2 = solve(spd, 2, 0, 0, 2), s2 = solve(spd, 2, 1, 0, 2);
  EXPECT_EQ(s2.error, 0);
  EXPECT_FALSE(s2.single_line);
  EXPECT_EQ(s2.steps, 0);
  EXPECT_LT(s2.berr, 1e-14);
  EXPECT_EQ(s2.iparm17, d2.iparm17);

  Csr z = testmat::convection_diffusion(8, 8, 8, 1.0);
  std::vector<double> pairs;
  for (double v : z.a) pairs.insert(pairs.end(), {v, 0.1 * v});
  z.a = pairs;
  const Outcome d13 = solve(z, 13, 0, 0, 2), s13 = solve(z, 13, 1, 0, 2);
  EXPECT_EQ(s13.error, 0);
  EXPECT_FALSE(s13.single_line);
  EXPECT_EQ(s13.x, d13.x);
}

TEST(SinglePrecision, RefinementAgainstTheConditionNumber) {
  // The 1D Laplacian tridiag(-1, 2, -1) of order n has condition number
  // about 0.4 n^2.  A correction solved with the single factor has a
  // relative error of about cond * 6e-8 at best, so refinement gains about
  // that factor a step while it is below 1.
  //  - n 1000, cond 4e5: three steps reach double accuracy.
  //  - n 50000, cond 1e9: no correction is right in a single digit; the
  //    error stays far above the double run's, and refinement ends by its
  //    rule: after the three steps of iparm(8) 3, and at the fourth step at
  //    the latest with iparm(8) 6, since the residual does not contract.
  //  - bp_1200 of the shared folder (cond 3e8, one perturbed pivot): the
  //    same as a real matrix: double reaches 1e-14, single does not.
  //  - iparm(8) 0 and no perturbed pivots: no refinement at all, the
  //    answer has single-precision accuracy, iparm(20) stays 0.
  const Outcome fair = solve(tridiagonal(1000, 2.0), -2, 1, 3, 1);
  EXPECT_EQ(fair.error, 0);
  EXPECT_EQ(fair.steps, 3);
  EXPECT_LT(fair.berr, 1e-14);

  const Csr hard = tridiagonal(50000, 2.0);
  const Outcome d = solve(hard, -2, 0, 3, 1);
  const Outcome s = solve(hard, -2, 1, 3, 1);
  EXPECT_LT(d.berr, 1e-14);
  EXPECT_GT(s.berr, 1e3 * d.berr);
  EXPECT_EQ(s.steps, 3);
  const Outcome longer = solve(hard, -2, 1, 6, 1);
  EXPECT_LE(longer.steps, 4);
  EXPECT_GT(longer.berr, 1e3 * d.berr);

  if (testmat::matrix_folder_present()) {
    const Csr bp = testmat::from_file("bp_1200.mtx", false);
    const Outcome bd = solve(bp, 11, 0, 3, 1), bs = solve(bp, 11, 1, 3, 1);
    EXPECT_LT(bd.berr, 1e-14);
    EXPECT_GT(bs.berr, 1e-10);
    EXPECT_EQ(bs.perturbed, bd.perturbed);
  }

  const Outcome none = solve(tridiagonal(1000, 2.0), -2, 1, 0, 1);
  EXPECT_EQ(none.error, 0);
  EXPECT_EQ(none.steps, 0);
  EXPECT_EQ(none.iparm20, 0);
  EXPECT_GT(none.berr, 1e-12);
  EXPECT_LT(none.berr, 1e-5);
}

// A handle of its own for calls on several factor rows.
struct Handle {
  std::array<void *, 64> pt{};
  std::array<int, 64> iparm{};
  std::array<double, 64> dparm{};
  int mtype, maxfct = 2;
  Csr m;
  std::vector<double> b, x;
  Handle(const Csr &mat, int type) : mtype(type), m(mat), b(mat.n), x(mat.n) {
    int solver = 0, error = 0;
    velmorainit(pt.data(), &mtype, &solver, iparm.data(), dparm.data(), &error);
    for (int i = 0; i < m.n; ++i) b[i] = std::cos(0.21 * i) - 0.3;
  }
  ~Handle() { call(-1, 1); }
  int call(int phase, int mnum, int nrhs = 1, int *perm = nullptr, double *rhs = nullptr,
           double *sol = nullptr) {
    int msglvl = 0, error = 0, n = m.n;
    std::vector<int> own(n);
    velmora(pt.data(), &maxfct, &mnum, &mtype, &phase, &n, m.a.data(), m.ia.data(), m.ja.data(),
            perm ? perm : own.data(), &nrhs, iparm.data(), &msglvl, rhs ? rhs : b.data(),
            sol ? sol : x.data(), &error, dparm.data());
    return error;
  }
  // Solves with row mnum under iparm(29) flag and iparm(8) refine; the
  // backward error.
  double solved(int mnum, int flag, int refine) {
    iparm[28] = flag;
    iparm[7] = refine;
    EXPECT_EQ(call(33, mnum), 0);
    return testmat::backward_error(m, x.data(), b.data(), 1, mtype % 2 == 0);
  }
};

TEST(SinglePrecision, FactorRowsKeepTheirPrecision) {
  // Row 1 factored in single, row 2 in double; each solve takes its row's
  // precision whatever iparm(29) says then: unrefined, the single factor
  // gives single accuracy and the double one double accuracy.
  Handle h(testmat::convection_diffusion(10, 10, 10, 1.5), 11);
  h.iparm[28] = 1;
  ASSERT_EQ(h.call(12, 1), 0);
  h.iparm[28] = 0;
  ASSERT_EQ(h.call(22, 2), 0);
  const double single_alone = h.solved(1, 0, 0);
  EXPECT_GT(single_alone, 1e-12);
  EXPECT_LT(single_alone, 1e-5);
  EXPECT_LT(h.solved(1, 0, 3), 1e-14);
  EXPECT_LT(h.solved(2, 1, 0), 1e-14);
  // Row 1 released and made again in double (a larger block); row 2 made
  // again in single in its double block.
  ASSERT_EQ(h.call(0, 1), 0);
  h.iparm[28] = 0;
  ASSERT_EQ(h.call(22, 1), 0);
  h.iparm[28] = 1;
  ASSERT_EQ(h.call(22, 2), 0);
  EXPECT_LT(h.solved(1, 1, 0), 1e-14);
  EXPECT_GT(h.solved(2, 0, 0), 1e-12);
  EXPECT_LT(h.solved(2, 0, 2), 1e-14);
}

TEST(SinglePrecision, HybridIterationAndPartialSolveOnASingleFactor) {
  // The hybrid mode (iparm(4) -61: CGS to 1e-6, never refactoring by
  // itself, so that no measured time decides) on a single factor: the
  // first call factors, the next ones on matrices whose values moved
  // iterate on it.
  Handle h(testmat::convection_diffusion(16, 16, 16, 1.5), 11);
  h.iparm[28] = 1;
  h.iparm[3] = -61;
  h.iparm[2] = 2;
  h.iparm[7] = 2;
  ASSERT_EQ(h.call(13, 1), 0);
  EXPECT_EQ(h.iparm[19], 0) << "the first call factors";
  const std::vector<double> base = h.m.a;
  int iterated = 0;
  for (int step = 1; step <= 5; ++step) {
    for (size_t e = 0; e < base.size(); ++e) h.m.a[e] = base[e] * (1.0 + 1e-3 * step * std::sin(e));
    ASSERT_EQ(h.call(23, 1), 0);
    EXPECT_GE(h.iparm[19], 0);
    iterated += h.iparm[19] > 0 ? 1 : 0;
    const double berr = testmat::backward_error(h.m, h.x.data(), h.b.data());
    EXPECT_LT(berr, h.iparm[19] > 0 ? 1e-6 : 1e-14) << "step " << step << ", " << h.iparm[19];
  }
  EXPECT_EQ(iterated, 5);

  // A compressed partial solve (iparm(31) 2): the k selected entries of
  // two right-hand sides narrowed and widened; compared with a full solve
  // refined in double, to single accuracy (partial solves do not refine).
  const Csr m = testmat::convection_diffusion(9, 9, 9, 1.0);
  std::vector<int> mask(m.n), selected;
  for (int j = 0; j < m.n; ++j)
    if (j % 4 == 1) mask[j] = 1, selected.push_back(j);
  const int k = static_cast<int>(selected.size()), n = m.n;
  std::vector<double> b(2 * n, 0.0), full(2 * n), pb(2 * k), px(2 * k);
  for (int c = 0; c < 2; ++c)
    for (int t = 0; t < k; ++t) pb[c * k + t] = b[c * n + selected[t]] = 1.0 + 0.1 * t - c;
  Handle ref(m, 11), part(m, 11);
  ref.iparm[7] = 3;
  ASSERT_EQ(ref.call(13, 1, 2, nullptr, b.data(), full.data()), 0);
  part.iparm[28] = 1;
  part.iparm[30] = 2;
  ASSERT_EQ(part.call(13, 1, 2, mask.data(), pb.data(), px.data()), 0);
  double worst = 0, scale = 0;
  for (int c = 0; c < 2; ++c)
    for (int t = 0; t < k; ++t) {
      worst = std::max(worst, std::abs(px[c * k + t] - full[c * n + selected[t]]));
      scale = std::max(scale, std::abs(full[c * n + selected[t]]));
    }
  EXPECT_LT(worst, 1e-5 * scale);
  EXPECT_GT(worst, 1e-13 * scale) << "a single factor leaves single accuracy";
}

}  // namespace
