// The supernode loop on a team: the two-level loop (subtrees of nested
// dissection, then the top over its update lists) and the classical loop
// (every supernode waiting on its queue), each thread on its own slices of
// the work space.  Every family must give the factor of the one-task loop
// (up to the rounding of another order of updates) with the same pivot
// counts, and a failure must end the run with its status and no hang.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <vector>

#include "factor/blkl.h"
#include "factor/blkldl.h"
#include "factor/blklu.h"
#include "factor_setup.h"
#include "test_matrices.h"

namespace {

using factor_setup::Ordering;

enum class Family { kCholesky, kLdlDiagonal, kLdlBunchKaufman, kLu, kLuGeneral };

struct Factored {
  factor_setup::Symbolic s;
  std::vector<double> lnz;
  factor_setup::LuStorage lu;
  vm::FactorScalars sc;
  double logdet = 0;
};

// How the loop runs: one task on one thread; the two-level loop over the
// update lists of the top; the classical loop over the targets of every
// supernode.
enum class Loop { kOneTask, kTwoLevel, kClassical };

void factor(Factored &r, const testmat::Csr &a, Family fam, int nthreads, Loop loop,
            std::int64_t tmpsiz = -1) {
  const bool lu = fam == Family::kLu || fam == Family::kLuGeneral;
  factor_setup::Records rec = factor_setup::records(r.s, a, &r.lnz, lu ? &r.lu : nullptr, nthreads);
  if (loop == Loop::kTwoLevel) {
    factor_setup::add_top_lists(r.s, &rec);
    EXPECT_GT(rec.work.top.ntop, 0);
  } else if (loop == Loop::kClassical) {
    factor_setup::add_target_queues(r.s, &rec);
  }
  if (tmpsiz >= 0) rec.work.tmpsiz = tmpsiz;
  r.sc = vm::FactorScalars{};
  r.logdet = 0;
  r.sc.eps = 1e-8;
  r.sc.pivot_mode = fam == Family::kLdlDiagonal ? -1 : 0;
  r.sc.determinant = 1;
  r.sc.logdet = &r.logdet;
  switch (fam) {
    case Family::kCholesky:
      vm::BLKL_RISC_VELMORA(rec.view, rec.input, rec.work, r.sc);
      break;
    case Family::kLdlDiagonal:
    case Family::kLdlBunchKaufman:
      vm::BLKLDL_RISC_VELMORA(rec.view, rec.input, rec.work, r.sc);
      break;
    case Family::kLu:
      vm::BLKLU_RISC_VELMORA(rec.view, rec.input, rec.work, r.sc);
      break;
    case Family::kLuGeneral:
      vm::BLKLU_UNSYM_RISC_VELMORA(rec.view, rec.input, rec.work, r.sc);
      break;
  }
}

// Largest difference between the entries of two factors of the same
// structure that the factor defines (for the symmetric families, not the
// strict upper triangle of a diagonal block, which they leave as scratch),
// and in *scale the largest magnitude among them.
double max_difference(const factor_setup::Symbolic &s, const std::vector<double> &x,
                      const std::vector<double> &y, bool lower_only, double *scale) {
  double d = 0;
  *scale = 0;
  for (int k = 1; k <= s.nsuper; ++k) {
    const int first = s.xsuper[k - 1];
    for (int j = first; j < s.xsuper[k]; ++j) {
      const std::int64_t p0 = s.xlnz[j - 1] + (lower_only ? j - first : 0);
      for (std::int64_t p = p0; p < s.xlnz[j]; ++p) {
        d = std::max(d, std::fabs(x[p - 1] - y[p - 1]));
        *scale = std::max(*scale, std::fabs(x[p - 1]));
      }
    }
  }
  return d;
}

double max_difference(const std::vector<double> &x, const std::vector<double> &y, double *scale) {
  double d = 0;
  *scale = 0;
  for (size_t i = 0; i < x.size(); ++i) {
    d = std::max(d, std::fabs(x[i] - y[i]));
    *scale = std::max(*scale, std::fabs(x[i]));
  }
  return d;
}

struct Case {
  const char *name;
  Family family;
  testmat::Csr a;  // upper triangle for the symmetric families, every entry for LU
  int width = 48;  // panel width
  int tasks = 4;   // subtrees asked of nested dissection
};

// The 20^3 grid in two subtrees of panel width 80: a subtree's root is a
// piece whose rows are the list of the first top supernode, and the last
// piece of a split supernode inside a subtree updates the top.
std::vector<Case> cases() {
  return {
      {"cholesky 3D grid", Family::kCholesky, testmat::grid_laplacian(14, 13, 12, true)},
      {"cholesky 3D grid, chains into the top", Family::kCholesky,
       testmat::grid_laplacian(20, 20, 20, true), 80, 2},
      {"ldl diagonal pivots, KKT", Family::kLdlDiagonal, testmat::kkt_local(10, 300, 5)},
      {"ldl Bunch-Kaufman, KKT", Family::kLdlBunchKaufman, testmat::kkt_local(10, 300, 6)},
      {"lu 3D convection", Family::kLu, testmat::convection_diffusion(12, 12, 11, 0.4)},
      {"lu general, 3D convection", Family::kLuGeneral,
       testmat::convection_diffusion(11, 12, 12, 0.7)},
  };
}

factor_setup::Symbolic analyse(const Case &c) {
  const bool lu = c.family == Family::kLu || c.family == Family::kLuGeneral;
  return factor_setup::analyse(c.a, Ordering::kMetis, c.width, 0, c.tasks, lu);
}

TEST(FactorLoop, TeamLoopsGiveTheFactorOfOneTask) {
  for (const Case &c : cases()) {
    Factored one, team;
    one.s = analyse(c);
    ASSERT_EQ(one.s.status, 0) << c.name;
    ASSERT_GE(one.s.ntasks, 2) << c.name;
    team.s = one.s;
    factor(one, c.a, c.family, 1, Loop::kOneTask);
    ASSERT_EQ(one.sc.iflag, 0) << c.name;
    for (int run = 0; run < 6; ++run) {
      const int nthreads = 2 + run % 3;
      const Loop loop = run < 3 ? Loop::kTwoLevel : Loop::kClassical;
      SCOPED_TRACE(testing::Message()
                   << c.name << ", " << nthreads << " threads, loop " << run / 3);
      factor(team, c.a, c.family, nthreads, loop);
      ASSERT_EQ(team.sc.iflag, 0);
      double scale = 0;
      const bool lu = c.family == Family::kLu || c.family == Family::kLuGeneral;
      const double dl = max_difference(one.s, one.lnz, team.lnz, !lu, &scale);
      EXPECT_LE(dl, 1e-12 * scale);
      if (!one.lu.unz.empty()) {
        const double du = max_difference(one.lu.unz, team.lu.unz, &scale);
        EXPECT_LE(du, 1e-12 * scale);
        EXPECT_EQ(one.lu.pivot, team.lu.pivot);
      }
      EXPECT_EQ(team.sc.perturbed, one.sc.perturbed);
      EXPECT_EQ(team.sc.npos, one.sc.npos);
      EXPECT_EQ(team.sc.nneg, one.sc.nneg);
      EXPECT_NEAR(team.logdet, one.logdet, 1e-10 * std::fabs(one.logdet));
    }
  }
}

// A pivot that is not positive inside the second subtree, and a buffer
// too small for the updates: every thread stops with the status of the
// failure.
TEST(FactorLoop, FailureInASubtreeEndsTheRun) {
  const testmat::Csr good = testmat::grid_laplacian(14, 13, 12, true);
  testmat::Csr a = good;
  Factored one, team;
  one.s = factor_setup::analyse(a, Ordering::kMetis, 48, 0, 4);
  ASSERT_GE(one.s.ntasks, 2);
  team.s = one.s;
  const int col = one.s.xsuper[one.s.domains[2] - 1];  // first column of the second subtree
  const int row = one.s.perm[col - 1];                 // its original row
  a.a[a.ia[row - 1] - 1] = -1.0;                       // its diagonal entry
  factor(one, a, Family::kCholesky, 1, Loop::kOneTask);
  EXPECT_EQ(one.sc.iflag, -1);
  for (int nthreads : {2, 4}) {
    for (Loop loop : {Loop::kTwoLevel, Loop::kClassical}) {
      factor(team, a, Family::kCholesky, nthreads, loop);
      EXPECT_EQ(team.sc.iflag, -1) << nthreads << " threads, loop " << static_cast<int>(loop);
      factor(team, good, Family::kCholesky, nthreads, loop, 1);
      EXPECT_EQ(team.sc.iflag, -2) << nthreads << " threads, loop " << static_cast<int>(loop);
    }
  }
}

}  // namespace
