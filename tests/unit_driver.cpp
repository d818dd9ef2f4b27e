// White-box tests of the phase driver: failed allocations of each group of
// a new handle, and what the handle holds afterwards.
#include <gtest/gtest.h>

#include <array>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "interface/control.h"
#include "interface/memory.h"
#include "test_matrices.h"
#include "velmora.h"

namespace {

// A 4x4 tridiagonal matrix, upper triangle: not diagonal, so calls reach
// the phase driver.
struct Tridiagonal {
  int n = 4;
  std::array<int, 5> ia{1, 3, 5, 7, 8};
  std::array<int, 7> ja{1, 2, 2, 3, 3, 4, 4};
  std::array<double, 7> a{4, -1, 4, -1, 4, -1, 4};
  std::array<double, 4> b{1, 1, 1, 1}, x{};
  std::array<void *, 64> pt{};
  std::array<int, 64> iparm{};
  std::array<double, 64> dparm{};
  std::array<int, 4> perm{};
  int mtype = 2, maxfct = 1, mnum = 1, nrhs = 1;

  Tridiagonal() {
    int error = 0, solver = 0;
    velmorainit(pt.data(), &mtype, &solver, iparm.data(), dparm.data(), &error);
  }
  int call(int phase, int msglvl) {
    int error = 0;
    velmora(pt.data(), &maxfct, &mnum, &mtype, &phase, &n, a.data(), ia.data(), ja.data(),
            perm.data(), &nrhs, iparm.data(), &msglvl, b.data(), x.data(), &error, dparm.data());
    return error;
  }
};

struct AllocationFailure : ::testing::Test {
  void TearDown() override { vm::testing::fail_allocation_after(0); }
};

TEST_F(AllocationFailure, ControlBlockLeavesHandleEmpty) {
  Tridiagonal t;
  vm::testing::fail_allocation_after(1);
  ::testing::internal::CaptureStdout();
  EXPECT_EQ(t.call(11, 1), -2);
  const std::string out = ::testing::internal::GetCapturedStdout();
  EXPECT_NE(out.find("*** error VELMORA  (insufficient_memory     ) error_num= -100\n"),
            std::string::npos)
      << out;
  EXPECT_NE(out.find("*** error velmora (memory allocation) BASIC, size to allocate: 2560 bytes\n"),
            std::string::npos)
      << out;
  EXPECT_NE(out.find("total memory wanted here: "), std::string::npos);
  EXPECT_NE(out.find("symbolic (max): "), std::string::npos);
  for (void *p : t.pt) EXPECT_EQ(p, nullptr);
  // A later call works on the same (still empty) handle.
  EXPECT_EQ(t.call(-1, 0), 0);  // marks the handle
  EXPECT_NE(t.pt[1], nullptr);
  EXPECT_EQ(t.call(-1, 0), 0);  // releases it
  EXPECT_EQ(t.pt[1], nullptr);
}

TEST_F(AllocationFailure, FactorTableKeepsControlBlockUntilRelease) {
  Tridiagonal t;
  vm::testing::fail_allocation_after(2);
  EXPECT_EQ(t.call(11, 0), -2);
  ASSERT_NE(t.pt[1], nullptr);
  EXPECT_EQ(t.pt[3], nullptr);
  // Nothing more is allocated by a failing numeric call; phase -1 frees all.
  EXPECT_EQ(t.call(22, 0), -7);
  EXPECT_EQ(t.call(0, 0), -7);  // no row 1 to release
  EXPECT_EQ(t.call(-1, 0), 0);
  for (void *p : t.pt) EXPECT_EQ(p, nullptr);
}

TEST_F(AllocationFailure, EveryCountOfFailuresLeavesNoLeak) {
  // Runs the same sequence with the k-th allocation failing, for every k
  // up to one past the number of allocations the sequence makes.
  for (int k = 1; k <= 12; ++k) {
    Tridiagonal t;
    vm::testing::fail_allocation_after(k);
    t.call(11, 0);
    t.call(22, 0);
    t.maxfct = 3;  // a new analysis with more factor rows regrows the table
    t.mnum = 3;
    t.call(12, 0);
    vm::testing::fail_allocation_after(0);
    EXPECT_EQ(t.call(-1, 0), 0) << "k=" << k;
    if (t.pt[1] != nullptr) {
      EXPECT_EQ(t.call(-1, 0), 0);
    }
    for (void *p : t.pt) EXPECT_EQ(p, nullptr) << "k=" << k;
  }
}

// Analysis, factorization and solve (phase 13) of each family on a small
// grid with its k-th allocation failing (group or scratch), for every k the
// call reaches: -2 each time with the group named at msglvl 1, and phase -1
// releases the handle (the sanitizer build's leak check sees the rest).
TEST_F(AllocationFailure, EveryAllocationOfAFullSolveFailsCleanly) {
  static const char *const kGroups[] = {"BASIC",    "FACT_ADR", "LOC_INT1", "STRUC_S0", "WORK_I0",
                                        "STRUC_S1", "STRUC_S2", "STRUC_FI", "LOC_INT2", "UP_UPLEN",
                                        "FACT_L&U", "WORK_R0",  "CGS_ARR"};
  const testmat::Csr upper = testmat::grid_laplacian(4, 4, 3, true);
  const testmat::Csr full = testmat::grid_laplacian(4, 4, 3, false);
  for (int mtype : {2, -2, 11, 13}) {
    const testmat::Csr &m = mtype > 10 ? full : upper;
    const int width = mtype == 13 ? 2 : 1;
    std::vector<double> a;
    for (double v : m.a) {
      a.push_back(v);
      if (width == 2) a.push_back(0.5 * v);
    }
    // Returns the result and the allocations the call asked for.
    auto solve = [&](int k, std::string *out) {
      std::array<void *, 64> pt{};
      std::array<int, 64> iparm{};
      std::array<double, 64> dparm{};
      int type = mtype, solver = 0, error = 0, maxfct = 1, mnum = 1, n = m.n, nrhs = 1;
      velmorainit(pt.data(), &type, &solver, iparm.data(), dparm.data(), &error);
      std::vector<double> b(static_cast<size_t>(n) * width, 1.0), x(b.size());
      std::vector<int> perm(n);
      int phase = 13, msglvl = 1;
      vm::testing::fail_allocation_after(k);
      ::testing::internal::CaptureStdout();
      velmora(pt.data(), &maxfct, &mnum, &type, &phase, &n, a.data(), m.ia.data(), m.ja.data(),
              perm.data(), &nrhs, iparm.data(), &msglvl, b.data(), x.data(), &error, dparm.data());
      *out = ::testing::internal::GetCapturedStdout();
      const std::int64_t seen = vm::testing::allocations_seen();
      const int result = error;
      vm::testing::fail_allocation_after(0);
      phase = -1;
      msglvl = 0;
      velmora(pt.data(), &maxfct, &mnum, &type, &phase, &n, a.data(), m.ia.data(), m.ja.data(),
              perm.data(), &nrhs, iparm.data(), &msglvl, b.data(), x.data(), &error, dparm.data());
      EXPECT_EQ(error, 0) << "release, mtype " << mtype << " k " << k;
      // A release of a handle left empty marks it; that one is released too.
      if (pt[1] != nullptr)
        velmora(pt.data(), &maxfct, &mnum, &type, &phase, &n, a.data(), m.ia.data(), m.ja.data(),
                perm.data(), &nrhs, iparm.data(), &msglvl, b.data(), x.data(), &error,
                dparm.data());
      for (void *p : pt) EXPECT_EQ(p, nullptr) << "mtype " << mtype << " k " << k;
      return std::make_pair(result, seen);
    };
    std::string out;
    const auto [clean, total] = solve(0, &out);
    ASSERT_EQ(clean, 0) << "mtype " << mtype;
    ASSERT_GT(total, 10) << "mtype " << mtype;
    for (int k = 1; k <= total; ++k) {
      SCOPED_TRACE("mtype " + std::to_string(mtype) + ", allocation " + std::to_string(k) + " of " +
                   std::to_string(total));
      const int result = solve(k, &out).first;
      ASSERT_EQ(result, -2) << out;
      // The class line's code names the group of the memory line.
      const size_t at = out.find("(insufficient_memory     ) error_num= ");
      ASSERT_NE(at, std::string::npos) << out;
      const int code = std::atoi(out.c_str() + at + 38);
      ASSERT_TRUE(code <= -100 && code > -1400) << out;
      const std::string group = kGroups[-code / 100 - 1];
      EXPECT_NE(out.find("*** error velmora (memory allocation) " + group + ", size to allocate: "),
                std::string::npos)
          << out;
    }
  }
}

TEST(ControlBlock, AnalysisKeepsOnlyTheSymbolicBlock) {
  Tridiagonal t;
  t.maxfct = 2;
  EXPECT_EQ(t.call(11, 0), 0);
  auto *cb = vm::control_of(t.pt.data());
  ASSERT_NE(cb, nullptr);
  EXPECT_EQ(cb->factor_rows, 2);
  EXPECT_NE(t.pt[vm::kPtSymbolic - 1], nullptr);
  for (int slot : {vm::kPtOrderInt, vm::kPtOrderA, vm::kPtSymbolicWork, vm::kPtOrderB})
    EXPECT_EQ(t.pt[slot - 1], nullptr) << slot;
  EXPECT_EQ(cb->offsets[vm::kOffsetWords - 1], vm::kSentinel);  // never carved
  auto *row = vm::factor_row(t.pt.data(), 2);
  EXPECT_EQ(row[0], 0);
  EXPECT_EQ(row[1], vm::kSentinel);
  EXPECT_EQ(cb->s.check.n, 4);
  EXPECT_EQ(cb->s.check.nnz, 7);
  EXPECT_EQ(cb->s.panel_size, 80);
  EXPECT_EQ(cb->s.symmetric_pattern, 1);
  EXPECT_DOUBLE_EQ(vm::rctl(cb, vm::kRctlHybridTol), 1e-12);
  // A tridiagonal matrix of order 4 is one chain: its factor has 7 entries
  // in the columns of L, or more in rectangular supernode panels.
  EXPECT_GE(t.iparm[17], 7);
  EXPECT_GT(t.iparm[14], 0);
  EXPECT_GT(t.iparm[15], 0);
  EXPECT_LE(t.iparm[15], t.iparm[14]);
  EXPECT_EQ(t.call(-1, 0), 0);
}

TEST(ControlBlock, HybridCodeSetsModeAndTolerance) {
  Tridiagonal t;
  t.iparm[3] = -61;  // conjugate gradients, mode 1, tolerance 1e-6
  t.call(11, 0);
  auto *cb = vm::control_of(t.pt.data());
  ASSERT_NE(cb, nullptr);
  EXPECT_EQ(cb->s.hybrid_mode, -1);
  EXPECT_DOUBLE_EQ(vm::rctl(cb, vm::kRctlHybridTol), 1e-6);
  EXPECT_EQ(t.call(-1, 0), 0);
}

}  // namespace
