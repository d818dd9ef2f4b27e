// The supernode loop on a team: the two-level loop (subtrees of nested
// dissection, then the top over its update lists) and the classical loop
// (every supernode waiting on its queue), each thread on its own slices of
// the work space.  Every family must give the factor of the one-task loop
// (up to the rounding of another order of updates) with the same pivot
// counts, and a failure must end the run with its status and no hang.
#include <gtest/gtest.h>
#include <omp.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>
#include <vector>

#include "common/matrix_type.h"
#include "factor/blkl.h"
#include "factor/blkldl.h"
#include "factor/blklu.h"
#include "factor_setup.h"
#include "interface/control.h"
#include "interface/numeric_stage.h"
#include "test_matrices.h"
#include "velmora.h"

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

// What a call with iparm(34) gives: the bytes of the factor (L, U, the
// pivot order) and of the solution, and the pivot counts.
struct Reproduced {
  std::vector<unsigned char> factor;
  std::vector<double> x;
  std::array<int, 3> counts{};  // iparm(14), iparm(22), iparm(23)
  int lists = 0;                // form of the update lists the analysis wrote
};

void append_bytes(std::vector<unsigned char> *out, const void *p, std::int64_t bytes) {
  const auto *c = static_cast<const unsigned char *>(p);
  out->insert(out->end(), c, c + bytes);
}

Reproduced solve_reproducibly(const testmat::Csr &m, int mtype, int pivot21, int matching,
                              int ordering, int nthreads) {
  std::array<void *, 64> pt{};
  std::array<int, 64> iparm{};
  std::array<double, 64> dparm{};
  int error = 0, solver = 0;
  velmorainit(pt.data(), &mtype, &solver, iparm.data(), dparm.data(), &error);
  iparm[1] = ordering;
  iparm[2] = nthreads;
  iparm[12] = matching;
  iparm[20] = pivot21;
  iparm[23] = 1;  // iparm(24): the two-level factorization
  iparm[24] = 1;  // iparm(25): the solve over subtrees
  iparm[33] = 1;  // iparm(34): identical results
  const int maxfct = 1, mnum = 1, phase = 13, nrhs = 1, msglvl = 0, n = m.n;
  std::vector<double> a = m.a, b = testmat::random_vector(n, 7);
  Reproduced r;
  r.x.assign(n, 0.0);
  velmora(pt.data(), &maxfct, &mnum, &mtype, &phase, &n, a.data(), m.ia.data(), m.ja.data(),
          nullptr, &nrhs, iparm.data(), &msglvl, b.data(), r.x.data(), &error, dparm.data());
  EXPECT_EQ(error, 0);
  const vm::ControlBlock *cb = vm::control_of(pt.data());
  const std::intptr_t *row = vm::factor_row(pt.data(), 1);
  if (error == 0 && cb != nullptr) {
    r.lists = cb->s.list_form;
    const auto *block = reinterpret_cast<const unsigned char *>(row[vm::kRowValues]);
    const std::int64_t w = 8 * std::int64_t{cb->s.complex_factor};
    const std::int64_t l_bytes = cb->s.nnz_l * w, u_at = (l_bytes + 7) / 8 * 8;
    append_bytes(&r.factor, block, l_bytes);
    if (vm::stores_u(mtype)) {
      const std::int64_t u_bytes = cb->s.nnz_u * w, pivot_at = u_at + (u_bytes + 7) / 8 * 8;
      append_bytes(&r.factor, block + u_at, u_bytes);
      append_bytes(&r.factor, block + pivot_at, 4 * std::int64_t{n});
    }
  }
  r.counts = {iparm[13], iparm[21], iparm[22]};
  const int release = -1;
  velmora(pt.data(), &maxfct, &mnum, &mtype, &release, &n, nullptr, m.ia.data(), m.ja.data(),
          nullptr, &nrhs, iparm.data(), &msglvl, nullptr, nullptr, &error, dparm.data());
  return r;
}

// iparm(34) 1 with a nested-dissection ordering and both two-level
// schemes: the factor and the solution have the same bytes on teams of 1
// to 4 threads, in every family and pivot mode, with and without the
// symmetric matching, and the answer is sound.  iparm(34) turns refinement
// off: the KKT matrix without matching keeps what its perturbed pivots
// cost (about 1e-9).
TEST(FactorLoop, FixedOrderGivesTheSameBitsOnEveryTeam) {
  struct Public {
    const char *name;
    int mtype, pivot21, matching, ordering;
    testmat::Csr a;
    double bound;
  };
  const std::vector<Public> runs = {
      {"cholesky", 2, 0, 0, 2, testmat::grid_laplacian(13, 12, 11, true), 1e-14},
      {"ldl diagonal pivots", -2, 0, 0, 2, testmat::kkt_local(11, 400, 3), 1e-8},
      {"ldl Bunch-Kaufman, matching", -2, 1, 1, 3, testmat::kkt_local(11, 400, 4), 1e-13},
      {"lu structurally symmetric", 1, 0, 0, 2, testmat::convection_diffusion(12, 11, 12, 0.5),
       1e-14},
      {"lu general", 11, 0, 1, 3, testmat::convection_diffusion(11, 12, 12, 0.8), 1e-14},
  };
  for (const Public &c : runs) {
    SCOPED_TRACE(c.name);
    const Reproduced one = solve_reproducibly(c.a, c.mtype, c.pivot21, c.matching, c.ordering, 1);
    EXPECT_EQ(one.lists, 2);  // the two-level lists, walked on one thread too
    ASSERT_FALSE(one.factor.empty());
    std::vector<double> b = testmat::random_vector(c.a.n, 7);
    const bool symmetric = c.mtype == 2 || c.mtype == -2;
    EXPECT_LT(testmat::backward_error(c.a, one.x.data(), b.data(), 1, symmetric), c.bound);
    for (int nthreads = 2; nthreads <= 4; ++nthreads) {
      SCOPED_TRACE(testing::Message() << nthreads << " threads");
      const Reproduced team =
          solve_reproducibly(c.a, c.mtype, c.pivot21, c.matching, c.ordering, nthreads);
      EXPECT_TRUE(team.factor == one.factor);
      EXPECT_EQ(std::memcmp(team.x.data(), one.x.data(), sizeof(double) * one.x.size()), 0);
      EXPECT_EQ(team.counts, one.counts);
    }
  }
}

// Two handles factored and solved at once from the threads of a caller's
// parallel region, with nested teams allowed: each call runs on its
// caller's thread and gives the bits it gives alone.
TEST(FactorLoop, HandlesInACallersParallelRegion) {
  const testmat::Csr a = testmat::grid_laplacian(12, 11, 13, true);
  const testmat::Csr k = testmat::kkt_local(10, 300, 9);
  const Reproduced alone_a = solve_reproducibly(a, 2, 0, 0, 2, 2);
  const Reproduced alone_k = solve_reproducibly(k, -2, 1, 1, 3, 2);
  std::array<Reproduced, 2> inside;
  const int levels = omp_get_max_active_levels();
  omp_set_max_active_levels(2);
#pragma omp parallel num_threads(2)
  {
    const int t = omp_get_thread_num();
    inside[t] =
        t == 0 ? solve_reproducibly(a, 2, 0, 0, 2, 2) : solve_reproducibly(k, -2, 1, 1, 3, 2);
  }
  omp_set_max_active_levels(levels);
  EXPECT_TRUE(inside[0].factor == alone_a.factor);
  EXPECT_TRUE(inside[0].x == alone_a.x);
  EXPECT_TRUE(inside[1].factor == alone_k.factor);
  EXPECT_TRUE(inside[1].x == alone_k.x);
}

}  // namespace
