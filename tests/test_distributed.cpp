// The block-partitioned factorization (iparm(51), iparm(52)) of symmetric
// indefinite systems through the public interface: backward error computed
// here, inertia against the plain factorization of the same matrix, and
// the report of the distributed mode.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdlib>
#include <string>
#include <vector>

#include "matrix_folder.h"
#include "test_matrices.h"
#include "velmora.h"

namespace {

struct Outcome {
  int error, pos, neg, iparm51;
  double berr;
  std::string report;
};

// Solves m x = b by phase 13 with threads, distributed mode and nodes,
// the report captured at msglvl, iparm(13) matching; the backward error is
// computed here.
Outcome solve(const testmat::Csr &m, int matching, int threads, int distributed, int nodes,
              int msglvl = 1) {
  std::array<void *, 64> pt{};
  std::array<int, 64> iparm{};
  std::array<double, 64> dparm{};
  int mtype = -2, solver = 0, error = 0, maxfct = 1, mnum = 1, nrhs = 1, n = m.n;
  velmorainit(pt.data(), &mtype, &solver, iparm.data(), dparm.data(), &error);
  iparm[2] = threads;
  iparm[12] = matching;
  iparm[50] = distributed;
  iparm[51] = nodes;
  std::vector<double> a = m.a, b(n), x(n);
  for (int i = 0; i < n; ++i) b[i] = std::cos(0.7 * i) + 0.25;
  std::vector<int> perm(n);
  int phase = 13;
  testing::internal::CaptureStdout();
  velmora(pt.data(), &maxfct, &mnum, &mtype, &phase, &n, a.data(), m.ia.data(), m.ja.data(),
          perm.data(), &nrhs, iparm.data(), &msglvl, b.data(), x.data(), &error, dparm.data());
  Outcome r{error, iparm[21], iparm[22], iparm[50], 0.0, testing::internal::GetCapturedStdout()};
  r.berr = testmat::backward_error(m, x.data(), b.data(), 1, true);
  phase = -1;
  msglvl = 0;
  velmora(pt.data(), &maxfct, &mnum, &mtype, &phase, &n, a.data(), m.ia.data(), m.ja.data(),
          perm.data(), &nrhs, iparm.data(), &msglvl, b.data(), x.data(), &error, dparm.data());
  return r;
}

int reported(const std::string &report, const std::string &label) {
  const size_t at = report.find(label);
  return at == std::string::npos ? -1 : std::atoi(report.c_str() + at + label.size());
}

TEST(Distributed, NodesAndTeamsSolveAsThePlainFactorization) {
  // The second KKT matrix with the symmetric matching (its own ordering of
  // the compressed graph, 2x2 pivots).
  struct Case {
    std::string name;
    testmat::Csr m;
    int matching;
  };
  std::vector<Case> cases = {{"KKT grid 8^3, 200 constraints", testmat::kkt_local(8, 200, 3), 0},
                             {"KKT grid 9^3, 243 constraints", testmat::kkt_local(9, 243, 5), 1}};
  if (testmat::matrix_folder_present())
    cases.push_back({"reorientation_1", testmat::from_file("reorientation_1.mtx", true), 0});
  for (const auto &[name, m, matching] : cases) {
    ASSERT_GT(m.n, 0) << name;
    const Outcome plain = solve(m, matching, 1, 0, 1);
    ASSERT_EQ(plain.error, 0) << name;
    const double bound = std::max(1e-12, 10 * plain.berr);
    for (int nodes : {1, 2, 4}) {
      for (int threads = 1; threads <= 4; ++threads) {
        SCOPED_TRACE(name + ", nodes " + std::to_string(nodes) + ", threads " +
                     std::to_string(threads));
        const Outcome r = solve(m, matching, threads, 1, nodes);
        ASSERT_EQ(r.error, 0);
        EXPECT_EQ(r.pos, plain.pos);
        EXPECT_EQ(r.neg, plain.neg);
        EXPECT_LT(r.berr, bound);
        // One thread on one node is the sequential factorization.
        const bool distributed = threads > 1 || nodes > 1;
        EXPECT_EQ(r.iparm51, 2) << "iparm(51) 1 is held as 2";
        EXPECT_EQ(r.report.find("Statistics (Distributed-Memory Version):") != std::string::npos,
                  distributed);
        if (!distributed) continue;
        EXPECT_NE(
            r.report.find(" < Using block-reordering acceleration #blocknodes >          0 \n"),
            std::string::npos);
        EXPECT_NE(r.report.find(" < Numerical Factorization with BLAS3 and O(n) synchronization >"),
                  std::string::npos);
        const int local = reported(r.report, "number of local separator nodes");
        const int global = reported(r.report, "number of global separator nodes");
        const int subgraphs = reported(r.report, "# of independent subgraphs:");
        EXPECT_GE(local, 0);
        EXPECT_GE(global, 0);
        // More domains than nodes: some separators lie inside one node.
        if (subgraphs > nodes && nodes > 1) {
          EXPECT_GT(local, 0) << subgraphs << " subgraphs";
          EXPECT_GT(global, 0);
        }
      }
    }
  }
  // Nothing is printed at msglvl 0.
  EXPECT_EQ(solve(cases[0].m, 0, 2, 1, 2, 0).report, "");
}

}  // namespace
